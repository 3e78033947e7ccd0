"""Two gateways behind nginx, as README.md's recipe sets them up: nginx picks a gateway by the hash of
the devIndex, so each device's downloads land on one gateway; a gateway that stops answers new
downloads with 503 and nginx hands them to the other, while the downloads it runs finish; a Digest
nonce one gateway gave is accepted by the other."""
import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

NGINX = shutil.which("nginx") or "/usr/sbin/nginx"
# Enough devices that both gateways get some, whatever ports the ring is built from.
DEVICES = ["e2e00000-0000-4000-8000-%012d" % i for i in range(16)]
BIG = 24 * 1024 * 1024

NGINX_CONFIG = """
daemon off;
master_process off;
worker_processes 1;
pid {dir}/nginx.pid;
error_log {dir}/error.log info;
events {{ worker_connections 64; }}
http {{
    access_log off;
    client_body_temp_path {dir}/body;
    proxy_temp_path {dir}/proxy;
    fastcgi_temp_path {dir}/fastcgi;
    uwsgi_temp_path {dir}/uwsgi;
    scgi_temp_path {dir}/scgi;
    upstream gateways {{
        hash $arg_devIndex consistent;
        server 127.0.0.1:{first} max_fails=1 fail_timeout=10s;
        server 127.0.0.1:{second} max_fails=1 fail_timeout=10s;
    }}
    server {{
        listen 127.0.0.1:{port};
        location /QUMEX/ {{
            proxy_pass http://gateways;
            proxy_http_version 1.1;
            proxy_set_header X-Forwarded-For $remote_addr;
            proxy_buffering off;
            proxy_next_upstream error timeout http_503 non_idempotent;
        }}
    }}
}}
"""


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
            config["log"].update({"file": os.path.join(self.dir, "second.log"),
                                  "access": os.path.join(self.dir, "second-access.log")})
            config["statusFile"] = os.path.join(self.dir, "second-status.json")
        return config

    def setUp(self):
        self.second_port = h.free_port()
        super().setUp()
        second_config = os.path.join(self.dir, "second.json")
        with open(second_config, "w") as out:
            json.dump(self.config(second=True), out)
        self.second = self.start_gateway(second_config)
        self.addCleanup(self.stop_second)
        self.wait_for_second(lambda status: status.get("ready"), "ready")
        self.proxy_port = h.free_port()
        nginx_dir = os.path.join(self.dir, "nginx")
        os.makedirs(nginx_dir)
        with open(os.path.join(nginx_dir, "nginx.conf"), "w") as out:
            out.write(NGINX_CONFIG.format(dir=nginx_dir, port=self.proxy_port, first=self.port,
                                          second=self.second_port))
        self.nginx = subprocess.Popen([NGINX, "-p", nginx_dir, "-c", os.path.join(nginx_dir, "nginx.conf"), "-e",
                                       os.path.join(nginx_dir, "early.log")], stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: self.nginx.terminate() or self.nginx.wait(timeout=10))
        deadline = time.monotonic() + 10
        while socket.socket().connect_ex(("127.0.0.1", self.proxy_port)) != 0:
            self.assertIsNone(self.nginx.poll(), "nginx exited at start")
            self.assertLess(time.monotonic(), deadline, "nginx did not start listening")
            time.sleep(0.05)

    def stop_second(self):
        if self.second.poll() is None:
            self.second.send_signal(signal.SIGTERM)
            self.assertEqual(self.second.wait(timeout=30), 0)

    def wait_for_second(self, condition, what):
        """Waits for the second gateway's status file to meet condition."""
        deadline = time.monotonic() + 15
        while True:
            try:
                with open(os.path.join(self.dir, "second-status.json")) as source:
                    if condition(json.load(source)):
                        return
            except (OSError, ValueError):
                pass
            self.assertLess(time.monotonic(), deadline, "the second gateway never got %s" % what)
            time.sleep(0.05)

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
        self.second.send_signal(signal.SIGHUP)
        deadline = time.monotonic() + 10
        while "reloaded:" not in open(os.path.join(self.dir, "second.log")).read():
            self.assertLess(time.monotonic(), deadline, "the second gateway did not reload")
            time.sleep(0.05)
        out = os.path.join(self.dir, "slow.bin")
        slow = subprocess.Popen(["curl", "-sS", "--limit-rate", "4M", "--digest", "-u", "%s:%s" % (h.USER, h.PASSWORD),
                                 "-o", out, *h.json_download_args(self.proxy_port, h.playback_uri(
                                     device=mine, name="big.bin"), device=mine)])
        self.addCleanup(lambda: slow.poll() is None and slow.kill())
        self.wait_for_second(lambda status: status.get("openStreams") == 1, "the big download running")
        self.second.send_signal(signal.SIGTERM)
        self.wait_for_second(lambda status: status.get("phase") == "stopping", "stopping")
        for device in others:
            reply = self.via_nginx(device)
            self.assertEqual(reply.status, 200, self.log_tail())
            self.assert_recording_body(reply.body, device, "clip.bin")
        self.assertEqual(slow.wait(timeout=60), 0)
        with open(out, "rb") as source:
            self.assert_recording_body(source.read(), mine, "big.bin")
        self.assertEqual(self.second.wait(timeout=30), 0)
        served = self.served(2 * len(DEVICES) + 2 + len(others))
        self.assertEqual(sorted(entry["device"] for entry in served["first"][-len(others):]), others)
        self.assertEqual((served["second"][-1]["recording"], served["second"][-1]["outcome"]), ("big.bin", "complete"))


if __name__ == "__main__":
    h.main()
