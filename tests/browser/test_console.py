"""The operator console in headless Chromium, against the real gateway and plug-in.

Run as: python3 test_console.py <media-gateway> <libHttpProtocolWrapper.so>
Screenshots of each page go to <build>/screenshots (the README shows copies of them).
Exit code 77 (skipped) only where Chromium, its driver or Selenium is not installed.
"""
import base64
import hashlib
import json
import os
import shutil
import subprocess
import sys
import threading
import time
import unittest
import wave

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
import gateway_harness as harness  # noqa: E402
from gateway_harness import CAMERA, DEVICE, PASSWORD, USER, free_port  # noqa: E402

CHROMIUM, CHROMEDRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
try:
    import numpy
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait
    MISSING = None
except ImportError as failure:
    MISSING = "python module %s" % failure.name
for program in (CHROMIUM, CHROMEDRIVER, "/usr/bin/espeak-ng", "/usr/bin/sox"):
    if MISSING is None and not os.access(program, os.X_OK):
        MISSING = program

RATE = 8000
VOICE_RATE = 48000
CLICK_AT = 0.5       # seconds into the microphone's file: a 2 ms full-scale click in silence
VOICE_FROM = 0.8     # the speech starts here
TONE_HZ = 440        # the gateway's built-in device tone
SAMPLE_WAV = "talk-ch1-20260101T000000Z-1.wav"  # a capture the device kept before the gateway started


def sox(*args):
    subprocess.run(["sox", *args], check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def samples_of(path, rate=RATE):
    """A sound file as 16-bit samples at rate, mono (sox decodes mu-law and resamples)."""
    raw = subprocess.run(["sox", path, "-t", "raw", "-e", "signed", "-b", "16", "-c", "1", "-r", str(rate), "-"],
                         check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE).stdout
    return numpy.frombuffer(raw, dtype="<i2").astype(numpy.float64)


def make_voice(folder):
    """The fake microphone's file: silence, a click, silence, then espeak-ng's speech, at 48 kHz."""
    speech = os.path.join(folder, "speech.wav")
    subprocess.run(["espeak-ng", "-s", "150", "-w", speech, "Hello device, this is the operator console speaking."],
                   check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    voiced = samples_of(speech, VOICE_RATE)
    voiced = voiced / max(1.0, numpy.abs(voiced).max()) * 20000
    total = numpy.zeros(int(VOICE_FROM * VOICE_RATE) + len(voiced) + int(0.3 * VOICE_RATE))
    click = int(CLICK_AT * VOICE_RATE)
    total[click:click + VOICE_RATE // 500] = 32000
    total[int(VOICE_FROM * VOICE_RATE):int(VOICE_FROM * VOICE_RATE) + len(voiced)] = voiced
    path = os.path.join(folder, "voice.wav")
    with wave.open(path, "wb") as out:
        out.setnchannels(1)
        out.setsampwidth(2)
        out.setframerate(VOICE_RATE)
        out.writeframes(total.astype("<i2").tobytes())
    return path


def data_offset(path):
    """Where a WAV's data chunk starts."""
    with open(path, "rb") as source:
        head = source.read(512)
    found = head.find(b"data")
    return found + 8 if found >= 0 else None


def active_span(samples, threshold):
    loud = numpy.nonzero(numpy.abs(samples) > threshold)[0]
    return (loud[0], loud[-1]) if len(loud) else (0, 0)


class CaptureWatch(threading.Thread):
    """Follows the capture file's growth: (time, data bytes) every millisecond while a talk runs."""

    def __init__(self, folder):
        super().__init__(daemon=True)
        self.folder, self.growth, self.path, self.stopping = folder, [], None, threading.Event()

    def run(self):
        offset = None
        while not self.stopping.is_set():
            if self.path is None:
                fresh = [n for n in os.listdir(self.folder) if n.startswith("talk-ch1-") and n != SAMPLE_WAV]
                self.path = os.path.join(self.folder, fresh[0]) if fresh else None
            if self.path is not None:
                try:
                    size = os.stat(self.path).st_size
                    offset = offset or (data_offset(self.path) if size >= 64 else None)
                    if offset:
                        self.growth.append((time.time(), size - offset))
                except OSError:
                    pass
            time.sleep(0.001)


class ConsoleCase(harness.GatewayCase):
    """A gateway with its console on, and a headless Chromium that signs in to it."""

    @classmethod
    def setUpClass(cls):
        cls.work = __import__("tempfile").mkdtemp(prefix="console-browser-")
        cls.voice = make_voice(cls.work)
        cls.screens = os.path.join(os.path.dirname(os.path.dirname(harness.GATEWAY)), "screenshots")
        os.makedirs(cls.screens, exist_ok=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def prepare_media(self):
        super().prepare_media()
        # A capture kept earlier: two seconds of a 300 Hz tone in mu-law, as the device writes them.
        sox("-n", "-r", "8000", "-c", "1", "-e", "mu-law", os.path.join(self.media, DEVICE, SAMPLE_WAV),
            "synth", "2", "sine", "300")

    def config(self):
        self.console_port = self.port_of_its_own()
        config = super().config()
        config["media"]["devices"][0]["name"] = "lobby"
        config["media"]["devices"][1]["name"] = "gate"
        config["console"] = {"listen": "127.0.0.1:%d" % self.console_port}
        self.admin_port = self.port_of_its_own()
        config["admin"] = {"listen": "127.0.0.1:%d" % self.admin_port}
        return config

    def setUp(self):
        super().setUp()
        self.url = "http://127.0.0.1:%d/" % self.console_port
        self.downloads = os.path.join(self.dir, "downloads")
        os.makedirs(self.downloads)
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                         "--window-size=1280,1000", "--use-fake-ui-for-media-stream",
                         "--use-fake-device-for-media-stream",
                         "--use-file-for-fake-audio-capture=%s%%noloop" % self.voice,
                         "--autoplay-policy=no-user-gesture-required"):
            options.add_argument(argument)
        options.add_experimental_option("prefs", {"download.default_directory": self.downloads,
                                                  "download.prompt_for_download": False})
        self.browser = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        self.browser.set_script_timeout(30)
        self.addCleanup(self.browser.quit)

    # ---- helpers ----

    def wait(self, condition, what, timeout=10):
        try:
            # The page replaces its rows and sections as it goes: an element gone meanwhile is looked up again.
            return WebDriverWait(self.browser, timeout, poll_frequency=0.02,
                                 ignored_exceptions=(NoSuchElementException, StaleElementReferenceException)).until(
                lambda _: condition())
        except Exception:
            self.fail("%s did not happen; page: %s\n%s" % (what, self.browser.find_element(By.TAG_NAME, "body").text,
                                                           self.log_tail()))

    def text(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector).text

    def visible(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector).is_displayed()

    def sign_in(self, password=PASSWORD):
        self.browser.get(self.url)
        self.wait(lambda: self.visible("#signin"), "the sign-in form")
        self.browser.find_element(By.ID, "signin-user").send_keys(USER)
        self.browser.find_element(By.ID, "signin-password").send_keys(password)
        self.browser.find_element(By.ID, "signin-submit").click()

    def open_device(self, devIndex=DEVICE):
        self.wait(lambda: self.visible("#overview"), "the devices")
        # Clicked in the page: the live counters may replace the row between a lookup and a click.
        self.browser.execute_script('document.querySelector(\'tr[data-dev-index="%s"] .open-device\').click()'
                                    % devIndex)
        self.wait(lambda: self.visible("#device") and DEVICE in self.text("#device-title"), "the device's page")

    def fetch_digest(self, url, headers):
        """Fetches url in the page (its session cookie) and returns status, headers and SHA-256 of the body."""
        return self.browser.execute_async_script("""
            const [url, headers, done] = arguments;
            fetch(url, {headers}).then(async (reply) => {
              const body = await reply.arrayBuffer();
              const hash = await crypto.subtle.digest("SHA-256", body);
              done({status: reply.status, length: body.byteLength,
                    headers: Object.fromEntries(reply.headers.entries()),
                    sha256: [...new Uint8Array(hash)].map((b) => b.toString(16).padStart(2, "0")).join(""),
                    base64: body.byteLength < 4096 ? btoa(String.fromCharCode(...new Uint8Array(body))) : ""});
            }).catch((failure) => done({error: String(failure)}));""", url, headers)

    def screenshot(self, name):
        self.browser.save_screenshot(os.path.join(self.screens, name))


class SignInTest(ConsoleCase):
    def test_a_wrong_password_is_refused_and_the_right_one_signs_in(self):
        self.browser.get(self.url)
        self.wait(lambda: self.visible("#signin"), "the sign-in form")
        self.screenshot("console-signin.png")
        self.sign_in(password="not-the-password")
        self.wait(lambda: self.visible("#signin-message"), "the refusal")
        self.assertIn("Sign-in refused", self.text("#signin-message"))
        self.assertFalse(self.visible("#overview"))
        self.wait_for_log(r'console: sign-in of "admin" from 127\.0\.0\.1 refused')

        self.sign_in()
        self.wait(lambda: self.visible("#overview"), "the devices after signing in")
        self.assertEqual(self.text("#user-name"), USER)
        cookies = {c["name"]: c for c in self.browser.get_cookies()}
        self.assertTrue(cookies["console_session"]["httpOnly"])
        self.assertEqual(cookies["console_session"]["sameSite"], "Strict")
        # The page's scripts cannot read the session.
        self.assertNotIn("console_session", self.browser.execute_script("return document.cookie"))

        self.browser.find_element(By.ID, "signout").click()
        self.wait(lambda: self.visible("#signin"), "the sign-in form after signing out")
        reply = self.fetch_digest("/api/devices", {})
        self.assertEqual(reply["status"], 401)


class ListsTest(ConsoleCase):
    def test_devices_and_recordings_equal_the_gateways(self):
        self.sign_in()
        self.wait(lambda: len(self.browser.find_elements(By.CSS_SELECTOR, "#devices tbody tr")) == 2, "two devices")
        offer = json.loads(harness.http_get(self.admin_port, "/recordings")[1])
        shown = {row.get_attribute("data-dev-index"): row.find_element(By.CLASS_NAME, "recording-count").text
                 for row in self.browser.find_elements(By.CSS_SELECTOR, "#devices tbody tr")}
        self.assertEqual(shown, {d["devIndex"]: str(len(d["recordings"])) for d in offer["devices"]})
        self.screenshot("console-devices.png")
        self.open_device()
        rows = self.browser.find_elements(By.CSS_SELECTOR, "#recordings tbody tr")
        wanted = next(d for d in offer["devices"] if d["devIndex"] == DEVICE)["recordings"]
        self.assertEqual([r.get_attribute("data-name") for r in rows], [r["name"] for r in wanted])
        # The time filter: a range after the recording hides it, one around it shows it again.
        self.browser.execute_script("""
            const from = document.querySelector("#filter-from");
            from.value = "2026-01-02T00:00:00";
            from.dispatchEvent(new Event("input"));""")
        self.wait(lambda: not self.browser.find_elements(By.CSS_SELECTOR, "#recordings tbody tr"), "the filter")
        self.browser.find_element(By.ID, "filter-clear").click()
        self.wait(lambda: len(self.browser.find_elements(By.CSS_SELECTOR, "#recordings tbody tr")) == 1,
                  "the recording back")


class DownloadTest(ConsoleCase):
    def test_a_download_through_the_page_is_the_recording_and_resumes(self):
        content = self.recordings[(DEVICE, "clip-a.bin")]
        self.sign_in()
        self.open_device()
        self.browser.find_element(By.CSS_SELECTOR, '#recordings tr[data-name="clip-a.bin"] a.download').click()
        target = os.path.join(self.downloads, "clip-a.bin")
        self.wait(lambda: os.path.exists(target) and os.path.getsize(target) == len(content), "the download", 30)
        with open(target, "rb") as source:
            self.assertEqual(source.read(), content, "the downloaded file is the recording, without stream head")
        self.wait_for_log(r"console: download of clip-a\.bin by \"admin\": complete: %d bytes" % len(content))

        # Resumed: the first part, then the rest with the tag of the first.
        url = "/download?device=%s&name=clip-a.bin" % DEVICE
        half = len(content) // 2 + 17
        first = self.fetch_digest(url, {"Range": "bytes=0-%d" % (half - 1)})
        self.assertEqual((first["status"], first["length"]), (206, half))
        self.assertEqual(first["headers"]["content-range"], "bytes 0-%d/%d" % (half - 1, len(content)))
        self.assertIn('filename="clip-a.bin"', first["headers"]["content-disposition"])
        rest = self.fetch_digest(url, {"Range": "bytes=%d-" % half, "If-Range": first["headers"]["etag"]})
        self.assertEqual((rest["status"], rest["length"]), (206, len(content) - half))
        self.assertEqual(first["sha256"], hashlib.sha256(content[:half]).hexdigest())
        self.assertEqual(rest["sha256"], hashlib.sha256(content[half:]).hexdigest())
        tail = self.fetch_digest(url, {"Range": "bytes=-100"})
        self.assertEqual(base64.b64decode(tail["base64"]), content[-100:])
        past = self.fetch_digest(url, {"Range": "bytes=%d-" % len(content)})
        self.assertEqual(past["status"], 416)


class TalkTest(ConsoleCase):
    def test_a_kept_capture_plays_and_downloads(self):
        self.sign_in()
        self.open_device()
        self.wait(lambda: self.browser.find_elements(By.CSS_SELECTOR, '#captures tr[data-name="%s"]' % SAMPLE_WAV),
                  "the capture in the list")
        audio = self.browser.find_element(By.CSS_SELECTOR, '#captures tr[data-name="%s"] audio' % SAMPLE_WAV)
        self.browser.execute_script("arguments[0].play()", audio)
        self.wait(lambda: self.browser.execute_script("return arguments[0].currentTime", audio) > 0.5,
                  "the capture playing")
        with open(os.path.join(self.media, DEVICE, SAMPLE_WAV), "rb") as source:
            kept = source.read()
        link = "/capture?device=%s&name=%s&download=1" % (DEVICE, SAMPLE_WAV)
        reply = self.fetch_digest(link, {})
        self.assertEqual((reply["status"], reply["sha256"]), (200, hashlib.sha256(kept).hexdigest()))
        self.assertIn("attachment", reply["headers"]["content-disposition"])
        # Nothing but a listed capture is served.
        self.assertEqual(self.fetch_digest("/capture?device=%s&name=clip-a.bin" % DEVICE, {})["status"], 404)
        self.assertEqual(self.fetch_digest("/capture?device=%s&name=../%s/clip-c.bin" % (DEVICE, CAMERA),
                                           {})["status"], 404)

    def test_push_to_talk_reaches_the_device_and_its_tone_reaches_the_page(self):
        voice = samples_of(self.voice)
        self.sign_in()
        self.open_device()
        watch = CaptureWatch(os.path.join(self.media, DEVICE))
        watch.start()
        self.addCleanup(watch.stopping.set)
        button = self.browser.find_element(By.ID, "talk-button")
        ActionChains(self.browser).click_and_hold(button).perform()
        self.wait(lambda: self.text("#talk-status").startswith("talking ("), "the talk open")
        # The counters are pushed: the device's talk shows as running without a reload.
        self.wait(lambda: self.text('tr[data-dev-index="%s"] .talk-running' % DEVICE) == "running",
                  "the talk counted")
        self.wait(lambda: self.text("#heard-frequency").endswith("Hz"), "the device's audio")
        time.sleep(len(voice) / RATE + 0.3)
        heard = float(self.text("#heard-frequency").split()[0])
        self.screenshot("console-device.png")
        ActionChains(self.browser).release(button).perform()
        self.wait(lambda: self.text("#talk-status") == "idle", "the talk closed")
        self.wait_for_log(r"console talk %s \(admin\): closed" % DEVICE)
        watch.stopping.set()
        watch.join()
        self.assertAlmostEqual(heard, TONE_HZ, delta=12, msg="the analyser's peak is the device's tone")

        captured = samples_of(watch.path)
        # The speech as the device kept it against the microphone's file (aligned on the click): the same
        # length and shape.
        skipped = self.offset(captured, voice)
        spoken, kept = voice[int(VOICE_FROM * RATE):], captured[int(VOICE_FROM * RATE) - skipped:]
        span_voice, span_kept = active_span(spoken, 1500), active_span(kept, 1500)
        self.assertAlmostEqual((span_kept[1] - span_kept[0]) / RATE, (span_voice[1] - span_voice[0]) / RATE,
                               delta=0.05, msg="the speech's length")
        # Window by window (a quarter of a second each, aligned within 10 ms): a frame the browser's audio
        # thread lost under load shifts what follows it, which must not read as different audio.
        windows = []
        for start in range(span_voice[0], span_voice[1] - 2000, 2000):
            reference = spoken[start:start + 2000]
            if numpy.abs(reference).max() < 1500:
                continue  # a pause between words
            windows.append(max(numpy.corrcoef(reference, kept[start + shift:start + shift + 2000])[0, 1]
                               for shift in range(-80, 81) if start + shift >= 0))
        correlation = float(numpy.median(windows))
        self.assertGreater(correlation, 0.9, "the capture's speech correlates with the microphone's: %s" % windows)

        # Mouth to capture: the fake microphone plays its file from when it opens, so the click is "said"
        # CLICK_AT after that; its sample's arrival in the capture file is when the file grew past it.
        # Page to capture: from when the frame holding the click left the page.
        click = int(numpy.argmax(numpy.abs(captured[:int(VOICE_FROM * RATE)]) > 16000))
        log = self.browser.execute_script("return window.pushToTalkLog")
        sent_at = max(t for start, t in log["frames"] if start <= click) / 1000.0
        arrived = next(t for t, size in watch.growth if size > click)
        mouth = (arrived - (log["microphoneAt"] / 1000.0 + CLICK_AT)) * 1000
        delay = (arrived - sent_at) * 1000
        self.assertLess(mouth, 500, "the click reached the capture late")
        print("\nconsole push-to-talk: %d samples captured (%.2f s), speech %.2f s against %.2f s, correlation "
              "%.3f (median of %d windows, lowest %.3f), click at %d, mouth to capture %.1f ms, page to capture %.1f ms" % (
                  len(captured), len(captured) / RATE, (span_kept[1] - span_kept[0]) / RATE,
                  (span_voice[1] - span_voice[0]) / RATE, correlation, len(windows), min(windows), click, mouth, delay), file=sys.stderr)

    @staticmethod
    def offset(captured, voice):
        """How far into the microphone's file the capture starts (the click aligns them)."""
        click_voice = int(numpy.argmax(numpy.abs(voice) > 16000))
        click_kept = int(numpy.argmax(numpy.abs(captured) > 16000))
        return click_voice - click_kept


class PageWeightTest(ConsoleCase):
    def test_the_page_weighs_little_and_asks_no_other_host(self):
        self.sign_in()
        self.open_device()
        entries = self.browser.execute_script("""
            return performance.getEntriesByType("resource").concat(performance.getEntriesByType("navigation"))
              .map((e) => ({name: e.name, size: e.transferSize, body: e.decodedBodySize}));""")
        hosts = {e["name"].split("/")[2] for e in entries if e["name"].startswith("http")}
        self.assertEqual(hosts, {"127.0.0.1:%d" % self.console_port})
        static = [e for e in entries if "/api/" not in e["name"]]
        weight = sum(e["body"] for e in static)
        self.assertLess(weight, 64 * 1024)
        print("\nconsole page weight: %d bytes in %d files (%s)" % (
            weight, len(static), ", ".join("%s %d" % (e["name"].rsplit("/", 1)[1] or "/", e["body"])
                                            for e in static)), file=sys.stderr)


if __name__ == "__main__":
    if MISSING:
        print("SKIPPED: the console's browser tests need Chromium, chromedriver, python3-selenium, python3-numpy, "
              "espeak-ng and sox (scripts/install-deps.sh installs them); missing: %s" % MISSING)
        sys.exit(77)
    harness.main()
