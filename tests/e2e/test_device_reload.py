"""Devices added and removed with SIGHUP: a new device serves downloads and talks at once, a removed
one takes no new request while its running download and talk go on to their end, and a reload that
breaks a rule of the device list changes nothing."""
import os
import signal

import gateway_harness as h
from test_operations import OperatedGateway  # noqa: E402

GATE = "e2e00000-0000-4000-8000-00000000ca7e"  # comes with the reload, at 127.0.0.1:9554 on channel 5


class DeviceReload(OperatedGateway):
    def start_gateway(self, config, *extra):
        # No service manager: nobody would read its notifications, and a full socket holds the gateway.
        return self.gateway.start(config, *extra)

    def talk(self, channel, seconds, *extra):
        return self.talk_tool("--channel", str(channel), "--seconds", str(seconds), "--record",
                              os.path.join(self.dir, "heard-%d.wav" % channel), *extra, audio_port=self.audio_port,
                              wait=False)

    def reload_with(self, devices, **server):
        config = self.config()
        config["media"]["devices"] = devices
        config["server"].update(server)
        self.write_config(config)
        self.process.send_signal(signal.SIGHUP)

    def test_a_new_device_serves_at_once_and_a_removed_one_finishes_what_runs(self):
        # The camera (channel 2, by its place) is busy with a download and a talk when it goes.
        slow, out = self.slow_download(h.CAMERA, "big.bin")
        old_talk = self.talk(2, 4)
        self.addCleanup(lambda: old_talk.poll() is None and old_talk.kill())
        self.wait_for_status(lambda s: s.get("openTalks") == 1, "the camera's talk running")
        self.add_recording(GATE, "gate.bin", 300 * 1024 + 5)
        device, _camera = self.config()["media"]["devices"]
        gate = {"devIndex": GATE, "address": "127.0.0.1", "rtspPort": 9554, "talk": {"channel": 5}}
        self.reload_with([dict(device, talk={"channel": 1}), gate], maxDownloads=7)
        self.wait_for_log(r"reloaded: 1 user\(s\), 2 recording\(s\) of 2 device\(s\), 2 of them talking; devices "
                          r"added: %s; removed: %s \(what runs on them goes on to its end\); changed but taking "
                          r"effect at the next start: server\.maxDownloads\n" % (GATE, h.CAMERA))

        # The gate serves at once: by devIndex, by its address and RTSP port, and talks on its channel.
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(device=GATE, name="gate.bin"), device=GATE))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, GATE, "gate.bin")
        xml = self.curl(*h.xml_download_args(self.port, "rtsp://127.0.0.1:9554/Streaming/tracks/101/playback?"
                                             "starttime=%s&endtime=%s&name=gate.bin" % (h.START, h.END)))
        self.assertEqual(xml.status, 200, self.log_tail())
        self.assert_recording_body(xml.body, GATE, "gate.bin")
        new_talk = self.talk(5, 1)
        _, said = new_talk.communicate(timeout=60)
        self.assertEqual(new_talk.returncode, 0, said.decode() + self.log_tail())
        self.assertIn("talk closed after", said.decode())

        # The camera takes nothing new: no download, no talk on its old channel.
        refused = self.curl(*h.json_download_args(self.port, h.playback_uri(device=h.CAMERA, name="big.bin"),
                                                  device=h.CAMERA))
        self.assertEqual((refused.status, refused.json()["subStatusCode"]), (403, "badDevIndex"))
        again = self.talk(2, 1)
        _, said = again.communicate(timeout=60)
        self.assertEqual(again.returncode, 1, said.decode())
        self.assertIn("open of channel 2 refused", said.decode())

        # What ran on it ends as it would have: the talk closes, the download completes.
        _, said = old_talk.communicate(timeout=60)
        self.assertEqual(old_talk.returncode, 0, said.decode() + self.log_tail())
        self.assertIn("talk closed after", said.decode(), "the close of a removed device's talk is accepted")
        self.assert_slow_download_completes(slow, out, h.CAMERA, "big.bin")
        self.wait_for_status(lambda s: (s.get("openStreams"), s.get("openTalks")) == (0, 0), "everything ended")
        with open(self.access_log) as source:
            log = source.read()
        self.assertRegex(log, r'"download %s big\.bin" - \d+ 0 \d+\.\d{3} complete\n' % h.CAMERA)
        self.assertRegex(log, r'"talk %s channel-2" - \d+ 0 \d+\.\d{3} closed\n' % h.CAMERA)
        self.assertRegex(log, r'"talk %s channel-5" - \d+ 0 \d+\.\d{3} closed\n' % GATE)
        self.assertRegex(log, r'"download %s big\.bin" - 0 0 0\.000 refused_not_found\n' % h.CAMERA)

        # A list that breaks a rule is refused whole: the gate, moved onto the device's address and
        # RTSP port, keeps its own, and the device its channel.
        self.reload_with([device, dict(gate, rtspPort=554, talk={"channel": 1})])
        self.wait_for_log(r"reload refused: configuration refused: media\.devices\[1\]\.rtspPort: another device has "
                          r"the same address and rtspPort; users, devices and recordings stay as they were")
        self.assertEqual(self.curl(*h.xml_download_args(self.port, "rtsp://127.0.0.1:9554/Streaming/tracks/101/"
                                                        "playback?starttime=%s&endtime=%s" % (h.START, h.END))).status,
                         200)
        metrics = self.metrics()
        self.assertEqual((metrics['media_gateway_reloads_total{result="success"}'],
                          metrics['media_gateway_reloads_total{result="failure"}']), (1, 1))


if __name__ == "__main__":
    h.main()
