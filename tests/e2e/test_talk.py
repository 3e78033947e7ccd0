"""Two-way audio end to end with real sound: sox makes the files, tools/talk.py
talks through the real plug-in to the gateway's talking devices, and what each
side kept is compared byte for byte and read back by sox.
"""
import glob
import os
import signal
import subprocess
import sys
import time
import warnings

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools")
sys.path.insert(0, TOOLS)
import talk  # noqa: E402

with warnings.catch_warnings():
    warnings.simplefilter("ignore", DeprecationWarning)
    import audioop  # the reference A-law coder the gateway's must agree with

TALK = os.path.join(TOOLS, "talk.py")


def sox(*args):
    subprocess.run(["sox", *args], check=True, capture_output=True)


def duration(path):
    return float(subprocess.run(["sox", "--i", "-D", path], check=True, capture_output=True).stdout)


class Talks(h.GatewayCase):
    def prepare_media(self):
        super().prepare_media()
        self.audio_port = h.free_port()
        # The devices' own voices: a mu-law sweep, and 16-bit PCM the gateway encodes to A-law.
        self.device_source = os.path.join(self.dir, "device-ulaw.wav")
        sox("-n", "-r", "8000", "-c", "1", "-e", "mu-law", self.device_source, "synth", "1.5", "sine", "300-700")
        self.camera_source = os.path.join(self.dir, "camera-pcm.wav")
        sox("-n", "-r", "8000", "-c", "1", "-b", "16", "-e", "signed", self.camera_source, "synth", "1.3",
            "sine", "500", "vol", "0.4")

    def config(self):
        config = super().config()
        config["server"]["audioTalkPort"] = self.audio_port
        devices = config["media"]["devices"]
        devices[0]["talk"] = {"codec": "PCMU", "source": self.device_source, "channel": 1}
        devices[1]["talk"] = {"codec": "PCMA", "source": self.camera_source, "channel": 2}
        return config

    def talk(self, *args, password=h.PASSWORD, wait=True):
        command = [sys.executable, TALK, "--quiet", "--user", "%s:%s" % (h.USER, password),
                   "--audio-port", str(self.audio_port), *args, "http://127.0.0.1:%d" % self.port]
        if not wait:
            return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return subprocess.run(command, capture_output=True, timeout=60)

    def capture_of(self, device, channel):
        files = glob.glob(os.path.join(self.media, device, "talk-ch%d-*" % channel))
        self.assertEqual(len(files), 1, files)
        return files[0]

    def assert_live_slice(self, heard, source):
        """What the client heard is the device's looped audio from some packet on, order kept."""
        self.assertGreater(len(heard), 0)
        looped = source * (len(heard) // len(source) + 3)
        start = next((offset for offset in range(0, len(source), 160)
                      if looped[offset:offset + len(heard)] == heard), None)
        self.assertIsNotNone(start, "the device's audio arrived changed or out of order")

    def test_pcmu_talk_carries_real_audio_both_ways_byte_exact(self):
        voice = os.path.join(self.dir, "voice.wav")
        sox("-n", "-r", "8000", "-c", "1", "-e", "mu-law", voice, "synth", "5", "sine", "200-1600")
        heard = os.path.join(self.dir, "heard.wav")
        result = self.talk("--channel", "1", "--codec", "PCMU", "--send", voice, "--record", heard)
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())
        status = self.wait_for_status(lambda s: s.get("openTalks") == 0 and s.get("talks") == 1, "the talk closed")

        capture = self.capture_of(h.DEVICE, 1)
        self.assertEqual(talk.read_wav(capture), talk.read_wav(voice), "the device kept other audio than was said")
        self.assertAlmostEqual(duration(capture), 5.0, places=2)
        tag, channels, rate, bits, data = talk.read_wav(heard)
        self.assertEqual((tag, channels, rate, bits), (talk.WAVE_FORMAT_MULAW, 1, 8000, 8))
        self.assertGreater(duration(heard), 4.5)
        self.assert_live_slice(data, talk.read_wav(self.device_source)[4])
        self.wait_for_log(r'talk 1 closed: device %s channel 1 client "" user "%s" codec PCMU, 5\.\d s, '
                          r'\d+ bytes to the client, 40000 bytes from the client' % (h.DEVICE, h.USER))
        self.assertEqual(status["openStreams"], 0)

    def test_pcma_device_encodes_its_source_and_keeps_a_law(self):
        said = os.path.join(self.dir, "said-alaw.wav")
        sox("-n", "-r", "8000", "-c", "1", "-e", "a-law", said, "synth", "2", "square", "440", "vol", "0.3")
        heard = os.path.join(self.dir, "heard.wav")
        result = self.talk("--channel", "2", "--codec", "PCMA", "--send", said, "--record", heard)
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())
        self.wait_for_status(lambda s: s.get("openTalks") == 0 and s.get("talks") == 1, "the talk closed")
        capture = self.capture_of(h.CAMERA, 2)
        self.assertEqual(talk.read_wav(capture)[4], talk.read_wav(said)[4])
        self.assertEqual(talk.read_wav(capture)[0], talk.WAVE_FORMAT_ALAW)
        self.assertAlmostEqual(duration(capture), 2.0, places=2)
        pcm = talk.read_wav(self.camera_source)[4]
        self.assert_live_slice(talk.read_wav(heard)[4], audioop.lin2alaw(pcm, 2))

    def test_refusals(self):
        listening = self.talk("--channel", "1", "--record", os.path.join(self.dir, "a.wav"), "--seconds", "4",
                              wait=False)
        self.wait_for_status(lambda s: s.get("openTalks") == 1, "the first talk open")
        cases = [
            ("a second talk on the channel", ["--channel", "1"], h.PASSWORD, "HTTP 403 invalidOperation"),
            ("a wrong password", ["--channel", "2"], "not-it", "HTTP 403 badAuthorization"),
            ("a channel no device talks on", ["--channel", "9"], h.PASSWORD, "HTTP 403 notSupport"),
        ]
        for what, args, password, answer in cases:
            result = self.talk(*args, "--record", os.path.join(self.dir, "b.wav"), password=password)
            self.assertEqual(result.returncode, 1, what)
            self.assertIn(answer, result.stderr.decode(), what)
        _, errors = listening.communicate(timeout=30)
        self.assertEqual(listening.returncode, 0, errors.decode())
        self.wait_for_status(lambda s: s.get("openTalks") == 0, "the talk closed")
        # Closing a talk that is closed already.
        digest = talk.Digest(h.USER, h.PASSWORD)
        with self.assertRaisesRegex(talk.TalkError, "HTTP 400 badParameters"):
            talk.talk_request("127.0.0.1", self.port, digest, 1, "close")
        self.assertEqual(self.status()["talks"], 1)

    def test_a_client_that_vanishes_leaves_no_talk_and_a_playable_capture(self):
        voice = os.path.join(self.dir, "long.wav")
        sox("-n", "-r", "8000", "-c", "1", "-e", "mu-law", voice, "synth", "20", "sine", "330")
        client = self.talk("--channel", "1", "--send", voice, "--record", os.path.join(self.dir, "h.wav"),
                           wait=False)
        self.wait_for_status(lambda s: s.get("openTalks") == 1, "the talk open")
        time.sleep(1.5)
        client.send_signal(signal.SIGKILL)
        client.communicate(timeout=10)
        self.wait_for_status(lambda s: s.get("openTalks") == 0, "the talk ended with its client", timeout=10)
        capture = self.capture_of(h.DEVICE, 1)
        self.assertGreater(duration(capture), 0.5)
        data = talk.read_wav(capture)[4]
        self.assertEqual(data, talk.read_wav(voice)[4][:len(data)])


if __name__ == "__main__":
    h.main()
