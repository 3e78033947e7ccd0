"""Two gateways behind nginx, as README.md's recipe sets them up: nginx picks a gateway by the hash of
the devIndex, so each device's downloads land on one gateway; a gateway that stops answers new
downloads with 503 and nginx hands them to the other, while the downloads it runs finish; a Digest
nonce one gateway gave is accepted by the other."""
import http.client
import json
import os
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402
import gateway_client  # noqa: E402

# Enough devices that both gateways get some, whatever ports the ring is built from.
DEVICES = ["e2e00000-0000-4000-8000-%012d" % i for i in range(16)]
BIG = 24 * 1024 * 1024

UPSTREAM = """upstream gateways {{
        hash $arg_devIndex consistent;
        server 127.0.0.1:{first} max_fails=1 fail_timeout=10s;
        server 127.0.0.1:{second} max_fails=1 fail_timeout=10s;
    }}"""


class GatewayGroup(h.GatewayCase):
    """The harness's gateway is the first; setUp adds a second on the same media folder, and nginx."""

    def prepare_media(self):
        for device in DEVICES:
            self.add_recording(device, "clip.bin", 64 * 1024 + len(self.recordings))

    def config(self, second=False):
        config = super().config()
        config["media"]["devices"] = [{"devIndex": device, "rtspPort": 1000 + i} for i, device in enumerate(DEVICES)]
        config["log"].update({"format": "json", "access": os.path.join(self.dir, "access.log")})
        if second:
            config["server"]["httpPort"] = self.second_port
            config["log"]["access"] = os.path.join(self.dir, "second-access.log")
        return config

    def setUp(self):
        self.second_port = h.free_port()
        super().setUp()
        self.second = gateway_client.GatewayProcess(h.GATEWAY, os.path.join(self.dir, "second"))
        self.second.start(self.config(second=True))
        self.addCleanup(lambda: self.assertEqual(self.second.stop(), 0, self.second.log_tail()))
        self.wait_for_second(lambda status: status.get("ready"), "ready")
        self.proxy_port = h.start_nginx(self, "gateways", upstream=UPSTREAM.format(first=self.port,
                                                                                   second=self.second_port),
                                        extra="proxy_next_upstream error timeout http_503 non_idempotent;")

    def wait_for_second(self, condition, what):
        self.assertIsNotNone(self.second.wait_for_status(condition), "the second gateway never got %s" % what)

    def via_nginx(self, device, name="clip.bin", *extra):
        args = h.json_download_args(self.proxy_port, h.playback_uri(device=device, name=name), device=device)
        return self.curl(*extra, *args)

    def served(self, expected_lines):
        """{gateway: [access log entries]} once both logs together hold expected_lines entries."""
        deadline = time.monotonic() + 10
        while True:
            entries = {}
            for name, file in (("first", "access.log"), ("second", "second-access.log")):
                with open(os.path.join(self.dir, file)) as source:
                    entries[name] = [json.loads(line) for line in source]
            if sum(map(len, entries.values())) >= expected_lines or time.monotonic() > deadline:
                return entries
            time.sleep(0.05)

    def test_each_device_lands_on_one_gateway_and_a_stopping_one_hands_new_work_to_the_other(self):
        for _ in range(2):
            for device in DEVICES:
                reply = self.via_nginx(device)
                self.assertEqual(reply.status, 200, self.log_tail())
                self.assert_recording_body(reply.body, device, "clip.bin")
        served = self.served(2 * len(DEVICES))
        devices = {name: {entry["device"] for entry in entries} for name, entries in served.items()}
        self.assertTrue(devices["first"] and devices["second"], devices)
        self.assertEqual(devices["first"] & devices["second"], set(), "a device was served by both")
        self.assertEqual(devices["first"] | devices["second"], set(DEVICES))
        entry = served["second"][0]
        self.assertEqual((entry["kind"], entry["client"], entry["user"], entry["range"], entry["outcome"]),
                         ("download", "127.0.0.1", h.USER, None, "complete"))

        # A nonce the second gateway gave opens a download on the first.
        path = "/QUMEX/ContentMgmt/download?format=json&devIndex=" + DEVICES[0]
        body = json.dumps({"downloadRequest": {"playbackURI": h.playback_uri(device=DEVICES[0])}})
        second = http.client.HTTPConnection("127.0.0.1", self.second_port, timeout=30)
        second.request("POST", path, body=body)
        challenge = second.getresponse().getheader("WWW-Authenticate")
        first = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        first.request("POST", path, body=body, headers={
            "Authorization": h.digest_authorization(challenge, "POST", path)})
        reply = first.getresponse()
        self.assertEqual(reply.status, 200)
        self.assert_recording_body(reply.read(), DEVICES[0], "clip.bin")
        second.close(), first.close()

        # The second gateway stops while it delivers a big recording of one of its devices (added by a reload).
        mine, *others = sorted(devices["second"])
        self.add_recording(mine, "big.bin", BIG)
        self.second.process.send_signal(signal.SIGHUP)
        deadline = time.monotonic() + 10
        while "reloaded:" not in self.second.log_text():
            self.assertLess(time.monotonic(), deadline, "the second gateway did not reload")
            time.sleep(0.05)
        out = os.path.join(self.dir, "slow.bin")
        slow = subprocess.Popen(["curl", "-sS", "--limit-rate", "4M", "--digest", "-u", "%s:%s" % (h.USER, h.PASSWORD),
                                 "-o", out, *h.json_download_args(self.proxy_port, h.playback_uri(
                                     device=mine, name="big.bin"), device=mine)])
        self.addCleanup(lambda: slow.poll() is None and slow.kill())
        self.wait_for_second(lambda status: status.get("openStreams") == 1, "the big download running")
        self.second.process.send_signal(signal.SIGTERM)
        self.wait_for_second(lambda status: status.get("phase") == "stopping", "stopping")
        for device in others:
            reply = self.via_nginx(device)
            self.assertEqual(reply.status, 200, self.log_tail())
            self.assert_recording_body(reply.body, device, "clip.bin")
        self.assertEqual(slow.wait(timeout=60), 0)
        with open(out, "rb") as source:
            self.assert_recording_body(source.read(), mine, "big.bin")
        self.assertEqual(self.second.process.wait(timeout=30), 0)
        served = self.served(2 * len(DEVICES) + 2 + len(others))
        self.assertEqual(sorted(entry["device"] for entry in served["first"][-len(others):]), others)
        self.assertEqual((served["second"][-1]["recording"], served["second"][-1]["outcome"]), ("big.bin", "complete"))


if __name__ == "__main__":
    h.main()
