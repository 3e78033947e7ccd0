"""Two-way audio end to end with real sound: sox makes the files, tools/talk.py
talks through the real plug-in to the gateway's talking devices, and what each
side kept is compared byte for byte and read back by sox.
"""
import glob
import os
import signal
import socket
import subprocess
import threading
import time
import unittest
import warnings

import gateway_harness as h

import talk  # noqa: E402  (tools/, on the path through the harness)

with warnings.catch_warnings():
    warnings.simplefilter("ignore", DeprecationWarning)
    import audioop  # the reference A-law coder the gateway's must agree with


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

    def talk(self, *args, password=h.PASSWORD, wait=True, audio_port=None):
        return self.talk_tool("--quiet", *args, password=password, audio_port=audio_port or self.audio_port, wait=wait)

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

    def test_a_talk_that_says_nothing_keeps_no_capture_and_a_failed_link_is_explained(self):
        heard = os.path.join(self.dir, "heard.wav")
        result = self.talk("--channel", "1", "--record", heard, "--seconds", "1")
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())
        self.assertGreater(os.path.getsize(heard), 58, "what the device played was recorded")
        # The talk opens, but its audio link finds no channel on that port.
        result = self.talk("--channel", "1", "--record", os.path.join(self.dir, "lost.wav"), audio_port=h.free_port())
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr.decode(), r"GET link: the audio port 127\.0\.0\.1:\d+: Connection refused")
        self.assertFalse(os.path.exists(os.path.join(self.dir, "lost.wav")))
        self.wait_for_status(lambda s: s.get("openTalks") == 0 and s.get("talks") == 2, "both talks closed")
        self.assertEqual(glob.glob(os.path.join(self.media, h.DEVICE, "talk-ch1-*")), [],
                         "an empty capture was left behind")
        self.wait_for_log(r"talk 2 closed: .* 0 bytes from the client, closed")

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


class DefaultAudioPort(h.GatewayCase):
    """A configuration that names no audio port, as the service's: the channel is on the HTTP port + 1,
    where the talk tool looks by default."""

    def test_the_talk_tool_finds_the_audio_channel_without_being_told(self):
        self.assertEqual(self.status()["listeners"]["audio"], "127.0.0.1:%d" % (self.port + 1))
        self.wait_for_log(r"ready on http://127\.0\.0\.1:%d, two-way audio on 127\.0\.0\.1:%d"
                          % (self.port, self.port + 1))
        result = self.talk_tool("--quiet", "--channel", "1", "--seconds", "1", "--record",
                                os.path.join(self.dir, "h.wav"))
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())


class RefusedLinks(unittest.TestCase):
    """The talk tool says why an audio link was refused, though the document follows the head later."""

    def test_the_reason_in_a_late_document_is_named(self):
        server = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(server.close)
        document = (b'<ResponseStatus version="2.0"><statusCode>4</statusCode>'
                    b'<subStatusCode>invalidOperation</subStatusCode></ResponseStatus>\n')

        def refuse():
            connection, _ = server.accept()
            with connection:
                connection.recv(4096)
                connection.sendall(b"HTTP/1.1 403 403 Forbidden\r\nContent-Length: %d\r\n"
                                   b"Content-Type: application/xml\r\n\r\n" % len(document))
                time.sleep(0.3)
                connection.sendall(document)

        thread = threading.Thread(target=refuse)
        thread.start()
        self.addCleanup(thread.join)
        digest = talk.Digest(h.USER, h.PASSWORD)
        with self.assertRaisesRegex(talk.TalkError, r"^GET link refused: HTTP 403 invalidOperation \(no open talk "
                                                    r"has this session id on the port the Host header names"):
            talk.open_link("127.0.0.1", server.getsockname()[1], 8080, digest, "GET", 1, "42")


if __name__ == "__main__":
    h.main()
