"""Running the gateway in production: /metrics, /healthz and /recordings on the admin endpoint,
the access log, SIGHUP reloads, SIGTERM's grace period and the service manager's notifications."""
import json
import os
import shutil
import signal
import socket
import subprocess
import time

import gateway_harness as h

BIG = 24 * 1024 * 1024  # read slowly, it keeps a download open for seconds
PATH = "/QUMEX/ContentMgmt/download?format=json&devIndex=" + h.CAMERA


class OperatedGateway(h.GatewayCase):
    """A gateway with its admin endpoint, access log and audio port, as a service runs it."""

    ADMIN = True

    def setUp(self):
        self.audio_port = h.free_port()
        super().setUp()

    def prepare_media(self):
        self.add_recording(h.DEVICE, "clip-a.bin", 1024 * 1024 + 333)
        self.add_recording(h.CAMERA, "big.bin", BIG)

    def config(self):
        config = super().config()
        self.access_log = os.path.join(self.dir, "access.log")
        config["server"].update({"audioTalkPort": self.audio_port, "shutdownGraceSeconds": 20})
        config["log"]["access"] = self.access_log
        return config

    def start_gateway(self, config, *extra):
        # The gateway's notifications as a service manager would receive them.
        self.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.notify.bind(os.path.join(self.dir, "notify.sock"))
        self.notify.setblocking(False)
        self.addCleanup(self.notify.close)
        return self.gateway.start(config, *extra,
                                  env=dict(os.environ, NOTIFY_SOCKET=os.path.join(self.dir, "notify.sock")))

    def notifications(self):
        received = []
        while True:
            try:
                received.append(self.notify.recv(4096).decode())
            except BlockingIOError:
                return received

    def slow_download(self, device, name):
        """curl reading at 4 MB/s in the background: the gateway holds the download open for seconds."""
        out = os.path.join(self.dir, "slow-%s" % name)
        uri = h.playback_uri(device=device, name=name)
        command = ["curl", "-sS", "--limit-rate", "4M", "--digest", "-u", "%s:%s" % (h.USER, h.PASSWORD), "-o", out,
                   *h.json_download_args(self.port, uri, device=device)]
        process = subprocess.Popen(command, stderr=subprocess.PIPE)
        self.addCleanup(lambda: process.poll() is None and process.kill() or process.communicate())
        self.wait_for_status(lambda s: s.get("openStreams") == 1, "the slow download running")
        return process, out

    def assert_slow_download_completes(self, process, out, device, name):
        errors = process.communicate(timeout=60)[1].decode()
        self.assertEqual(process.returncode, 0, errors + self.log_tail())
        with open(out, "rb") as source:
            self.assert_recording_body(source.read(), device, name)


class Operated(OperatedGateway):
    def test_counters_listing_and_access_log_follow_a_scripted_run(self):
        self.assertEqual(h.http_get(self.admin_port, "/healthz"), (200, "ready\n"))
        # Every port a client or an operator needs, where the gateway says it is ready.
        self.assertEqual(self.status()["listeners"], {"http": "127.0.0.1:%d" % self.port,
                                                      "audio": "127.0.0.1:%d" % self.audio_port,
                                                      "admin": "127.0.0.1:%d" % self.admin_port})
        self.wait_for_log(r"ready on http://127\.0\.0\.1:%d, two-way audio on 127\.0\.0\.1:%d, admin endpoint on "
                          r"http://127\.0\.0\.1:%d, console off " % (self.port, self.audio_port, self.admin_port))
        listing = {device["devIndex"]: device for device in json.loads(h.http_get(self.admin_port, "/recordings")[1])
                   ["devices"]}
        (clip,) = listing[h.DEVICE]["recordings"]
        size = len(self.recordings[(h.DEVICE, "clip-a.bin")])
        self.assertEqual((clip["name"], clip["size"], listing[h.DEVICE]["talkChannel"]), ("clip-a.bin", size, 1))
        # Three downloads with the listing's own playback URI, one refused, one unreadable request.
        for i in range(3):
            reply = self.curl("-H", "X-Forwarded-For: 203.0.113.%d" % i,
                              *h.json_download_args(self.port, clip["playbackURI"]))
            self.assertEqual(reply.status, 200, self.log_tail())
            self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.assertEqual(self.curl(*h.json_download_args(self.port, clip["playbackURI"]), password="no").status, 401)
        self.assertNotEqual(self.curl(*h.json_download_args(self.port, h.playback_uri(start="soon"))).status, 200)
        # One cut off: the client reads a little of the big recording and hangs up.
        body = h.json_body(h.playback_uri(device=h.CAMERA, name="big.bin"))
        authorization = h.digest_authorization(self.challenge("POST", PATH, body), "POST", PATH)
        with socket.create_connection(("127.0.0.1", self.port), timeout=30) as client:
            client.sendall(("POST %s HTTP/1.1\r\nHost: x\r\nAuthorization: %s\r\nContent-Length: %d\r\n\r\n%s"
                            % (PATH, authorization, len(body), body)).encode())
            self.assertTrue(client.recv(65536).startswith(b"HTTP/1.1 200"))
        # One talk, listening for a second.
        talk = self.talk_tool("--quiet", "--channel", "1", "--seconds", "1", "--record",
                              os.path.join(self.dir, "heard.wav"), audio_port=self.audio_port)
        self.assertEqual(talk.returncode, 0, talk.stderr.decode() + self.log_tail())
        self.wait_for_status(lambda s: (s.get("closed"), s.get("openTalks"), s.get("talks")) == (4, 0, 1), "all ended")

        metrics = self.metrics()
        expected = {
            "media_gateway_ready": 1, "media_gateway_downloads_started_total": 4, "media_gateway_open_downloads": 0,
            'media_gateway_downloads_finished_total{outcome="complete"}': 3,
            'media_gateway_downloads_finished_total{outcome="read_error"}': 0,
            'media_gateway_requests_refused_total{reason="unauthorized"}': 1,
            'media_gateway_requests_refused_total{reason="bad_request"}': 1,
            'media_gateway_requests_refused_total{reason="not_found"}': 0,
            'media_gateway_requests_refused_total{reason="limit"}': 0,
            # curl asks once per download, the raw client once, the talk client once for the whole talk.
            "media_gateway_digest_challenges_total": 7,
            "media_gateway_talks_started_total": 1, "media_gateway_open_talks": 0,
            'media_gateway_talk_bytes_total{direction="from_client"}': 0,
            "media_gateway_download_duration_seconds_count": 4,
            'media_gateway_download_duration_seconds_bucket{le="+Inf"}': 4,
        }
        self.assertEqual({name: metrics.get(name) for name in expected}, expected)
        self.assertEqual(metrics['media_gateway_downloads_finished_total{outcome="client_gone"}'] +
                         metrics['media_gateway_downloads_finished_total{outcome="stopped"}'], 1)
        whole = 3 * (h.HEAD_SIZE + size)
        self.assertTrue(whole < metrics["media_gateway_sent_bytes_total"] < whole + BIG)
        self.assertGreaterEqual(metrics["media_gateway_talk_seconds_total"], 1.0)
        self.assertGreater(metrics['media_gateway_talk_bytes_total{direction="to_client"}'], 0)
        self.assertGreater(metrics["process_open_fds"], 5)
        self.assertGreater(metrics["process_threads"], 4)
        self.assertGreater(metrics["process_resident_memory_bytes"], 1e6)
        self.assertTrue(any(name.startswith("media_gateway_build_info{version=") for name in metrics))
        _, text = h.http_get(self.admin_port, "/metrics")
        lint = subprocess.run([shutil.which("promtool") or "promtool", "check", "metrics"], input=text.encode(),
                              capture_output=True)
        self.assertEqual(lint.returncode, 0, lint.stdout.decode() + lint.stderr.decode())

        with open(self.access_log) as source:
            lines = source.read().splitlines()
        stamp = r"\[\d\d/\w{3}/\d{4}:\d\d:\d\d:\d\d [+-]\d{4}\]"
        self.assertEqual(len(lines), 7, lines)
        self.assertRegex(lines[0], r'^203\.0\.113\.0 - admin %s "download %s clip-a\.bin" - %d 0 \d+\.\d{3} complete$'
                         % (stamp, h.DEVICE, h.HEAD_SIZE + size))
        self.assertRegex(lines[3], r'^- - admin %s "download %s clip-a\.bin" - 0 0 0\.000 refused_unauthorized$'
                         % (stamp, h.DEVICE))
        self.assertRegex(lines[4], r'^- - admin %s "download %s -" - 0 0 0\.000 refused_bad_request$' % (stamp, h.DEVICE))
        self.assertRegex(lines[5], r'^- - admin %s "download %s big\.bin" - \d+ 0 \d+\.\d{3} (client_gone|stopped)$'
                         % (stamp, h.CAMERA))
        self.assertRegex(lines[6], r'^- - admin %s "talk %s channel-1" - [1-9]\d* 0 \d+\.\d{3} closed$'
                         % (stamp, h.DEVICE))

    def test_sighup_adds_a_user_and_a_recording_while_a_download_runs(self):
        slow, out = self.slow_download(h.CAMERA, "big.bin")
        content = os.urandom(300 * 1024)
        self.recordings[(h.DEVICE, "clip-b.bin")] = content
        with open(os.path.join(self.media, h.DEVICE, "clip-b.bin"), "wb") as new:
            new.write(content)
        self.write_index(h.DEVICE, ["clip-a.bin", "clip-b.bin"])
        config = self.config()
        config["auth"]["users"].append({"name": "night shift", "password": "owl"})
        self.write_config(config)
        self.process.send_signal(signal.SIGHUP)
        self.wait_for_log(r"reloaded: 2 user\(s\), 3 recording\(s\) of 2 device\(s\)")
        self.assertEqual(self.metrics()["media_gateway_open_downloads"], 1, "the slow download ran across the reload")
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-b.bin")), user="night shift",
                          password="owl")
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-b.bin")

        # A configuration that is refused changes nothing.
        self.write_config('{"auth": {"users": []}}')
        self.process.send_signal(signal.SIGHUP)
        self.wait_for_log(r"reload refused: configuration refused: auth\.users")
        self.assertEqual(self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-b.bin")),
                                   user="night shift", password="owl").status, 200)
        self.assert_slow_download_completes(slow, out, h.CAMERA, "big.bin")
        metrics = self.metrics()
        self.assertEqual((metrics['media_gateway_reloads_total{result="success"}'],
                          metrics['media_gateway_reloads_total{result="failure"}']), (1, 1))
        said = "\n".join(self.notifications())
        self.assertRegex(said, r"(?s)^READY=1.*RELOADING=1\n.*MONOTONIC_USEC=\d+.*READY=1.*RELOADING=1.*READY=1")

    def test_sigterm_lets_a_running_download_finish_and_health_turns_503(self):
        slow, out = self.slow_download(h.CAMERA, "big.bin")
        self.process.send_signal(signal.SIGTERM)
        deadline = time.monotonic() + 5
        while h.http_get(self.admin_port, "/healthz") != (503, "stopping\n"):
            self.assertLess(time.monotonic(), deadline, "health did not turn 503")
            time.sleep(0.02)
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")))
        self.assertEqual((reply.status, reply.json()["subStatusCode"]), (503, "serviceUnavailable"))
        self.assertEqual(self.metrics()['media_gateway_requests_refused_total{reason="stopping"}'], 1)
        self.assert_slow_download_completes(slow, out, h.CAMERA, "big.bin")
        self.assertEqual(self.process.wait(timeout=30), 0, self.log_tail())
        self.wait_for_log(r"1 download\(s\) running get up to 20 s to finish")
        said = self.notifications()
        self.assertTrue(said[0].startswith("READY=1") and any(n.startswith("STOPPING=1") for n in said), said)


class GracePeriodRunsOut(OperatedGateway):
    def config(self):
        config = super().config()
        config["server"]["shutdownGraceSeconds"] = 1
        return config

    def test_a_download_the_grace_period_cuts_counts_as_stopped(self):
        slow, _ = self.slow_download(h.CAMERA, "big.bin")
        self.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.process.wait(timeout=30), 0, self.log_tail())
        self.assertNotEqual(slow.wait(timeout=30), 0, "the download was cut")
        log = self.wait_for_log(r"stream 1 closed: stopped with the gateway")
        self.assertIn("1 download(s) still running after 1 s; stopping them", log)
        with open(self.access_log) as source:
            self.assertRegex(source.read(), r'"download %s big\.bin" - \d+ 0 \d+\.\d{3} stopped\n$' % h.CAMERA)


if __name__ == "__main__":
    h.main()
