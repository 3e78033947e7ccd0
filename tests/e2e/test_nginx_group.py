"""Two gateways behind nginx, as README.md's recipe sets them up: nginx picks a gateway by the hash of
the devIndex, so each device's downloads land on one gateway; a gateway that stops answers new
downloads with 503 and nginx hands them to the other, while the downloads it runs finish; a Digest
nonce one gateway gave is accepted by the other. Talks go by the client's address, on the HTTP port
and, through nginx's stream module, on the audio port alike, so both links of a talk reach the
gateway that opened it."""
import functools
import glob
import json
import os
import re
import signal
import socket
import subprocess
import sys
import time
from unittest import mock

import gateway_harness as h
import gateway_client  # noqa: E402

TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools")
sys.path.insert(0, TOOLS)
import talk  # noqa: E402

# Enough devices that both gateways get some, whatever ports the ring is built from.
DEVICES = ["e2e00000-0000-4000-8000-%012d" % i for i in range(16)]
BIG = 24 * 1024 * 1024
# Clients of their own loopback addresses, enough that both gateways get talks.
CLIENTS = ["127.0.0.%d" % i for i in range(2, 10)]
STREAM_MODULE = "/usr/lib/nginx/modules/ngx_stream_module.so"  # Debian's libnginx-mod-stream

# README.md's recipe ("Several gateways behind nginx"), with this case's ports and folders.
GROUP_CONFIG = """
load_module {module};
daemon off;
master_process off;
worker_processes 1;
pid {dir}/nginx.pid;
error_log {dir}/error.log info;
events {{ worker_connections 256; }}
http {{
    access_log off;
    client_body_temp_path {dir}/body;
    proxy_temp_path {dir}/proxy;
    fastcgi_temp_path {dir}/fastcgi;
    uwsgi_temp_path {dir}/uwsgi;
    scgi_temp_path {dir}/scgi;
    upstream media_gateways {{
        hash $arg_devIndex consistent;
        server 127.0.0.1:{first} max_fails=1 fail_timeout=10s;
        server 127.0.0.1:{second} max_fails=1 fail_timeout=10s;
    }}
    upstream media_gateways_talk {{
        hash $remote_addr;
        server 127.0.0.1:{first} max_fails=1 fail_timeout=10s;
        server 127.0.0.1:{second} max_fails=1 fail_timeout=10s;
    }}
    server {{
        listen 127.0.0.1:{port};
        location /QUMEX/ {{
            proxy_pass http://media_gateways;
            proxy_http_version 1.1;
            proxy_set_header X-Forwarded-For $remote_addr;
            proxy_buffering off;
            proxy_next_upstream error timeout http_503 non_idempotent;
        }}
        location /QUMEX/System/TwoWayAudio/ {{
            proxy_pass http://media_gateways_talk;
            proxy_http_version 1.1;
            proxy_set_header X-Forwarded-For $remote_addr;
            proxy_set_header Host $http_host;
            proxy_next_upstream error timeout http_503 non_idempotent;
        }}
    }}
}}
stream {{
    upstream media_gateways_audio {{
        hash $remote_addr;
        server 127.0.0.1:{first_audio} max_fails=1 fail_timeout=10s;
        server 127.0.0.1:{second_audio} max_fails=1 fail_timeout=10s;
    }}
    server {{
        listen 127.0.0.1:{audio_port};
        proxy_pass media_gateways_audio;
    }}
}}
"""


CREATE_CONNECTION = socket.create_connection


def connect_from(source, address, timeout=socket._GLOBAL_DEFAULT_TIMEOUT, source_address=None, **options):
    """socket.create_connection from the given local address: a client of its own to nginx."""
    return CREATE_CONNECTION(address, timeout, (source, 0), **options)


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
        self.second_port = h.free_port_pair()  # each gateway's audio channel is on its HTTP port + 1
        super().setUp()
        self.second = self.second_gateway(self.config(second=True))
        self.addCleanup(lambda: self.assertEqual(self.second.stop(), 0, self.second.log_tail()))
        self.wait_for_second(lambda status: status.get("ready"), "ready")
        self.proxy_port, self.audio_proxy_port = h.free_port(), h.free_port()
        folder = os.path.join(self.dir, "nginx")
        nginx = gateway_client.start_nginx(folder, GROUP_CONFIG.format(
            module=STREAM_MODULE, dir=folder, port=self.proxy_port, audio_port=self.audio_proxy_port,
            first=self.port, second=self.second_port, first_audio=self.port + 1, second_audio=self.second_port + 1),
            [self.proxy_port, self.audio_proxy_port])
        self.addCleanup(lambda: nginx.terminate() or nginx.wait(timeout=10))

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
        path, body = h.json_path(DEVICES[0]), h.json_body(h.playback_uri(device=DEVICES[0]))
        challenge = self.challenge("POST", path, body, port=self.second_port)
        status, reply, _ = self.send("POST", path, body, {
            "Authorization": h.digest_authorization(challenge, "POST", path)}, timeout=30)
        self.assertEqual(status, 200)
        self.assert_recording_body(reply, DEVICES[0], "clip.bin")

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


    def test_talks_through_nginx_reach_the_gateway_that_opened_them(self):
        # The README's talk command, through nginx: both ports are nginx's.
        voice = os.path.join(self.dir, "voice.wav")
        subprocess.run(["sox", "-n", "-r", "8000", "-c", "1", "-e", "mu-law", voice, "synth", "1", "sine", "300-900"],
                       check=True)
        result = subprocess.run([sys.executable, os.path.join(TOOLS, "talk.py"), "--quiet", "--user",
                                 "%s:%s" % (h.USER, h.PASSWORD), "--channel", "1", "--audio-port",
                                 str(self.audio_proxy_port), "--send", voice, "--record",
                                 os.path.join(self.dir, "heard.wav"), "http://127.0.0.1:%d" % self.proxy_port],
                                capture_output=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())
        (capture,) = glob.glob(os.path.join(self.media, DEVICES[0], "talk-ch1-*.wav"))
        self.assertEqual(talk.read_wav(capture)[4], talk.read_wav(voice)[4], "the device kept what was said")
        self.assertGreater(os.path.getsize(os.path.join(self.dir, "heard.wav")), 4000)

        # Clients of many addresses: each one's audio link meets the talk it opened, on either gateway.
        for client in CLIENTS:
            with self.subTest(client=client), mock.patch("socket.create_connection",
                                                         functools.partial(connect_from, client)):
                digest = talk.Digest(h.USER, h.PASSWORD)
                opened = talk.talk_request("127.0.0.1", self.proxy_port, digest, 2, "open")
                session = re.search(r"<sessionId>([0-9]+)<", opened).group(1)
                try:
                    link, heard = talk.open_link("127.0.0.1", self.audio_proxy_port, self.proxy_port, digest, "GET",
                                                 2, session)
                    while len(heard) < 320:  # the device's audio flows
                        heard += link.recv(4096)
                    link.close()
                finally:
                    talk.talk_request("127.0.0.1", self.proxy_port, digest, 2, "close")
        deadline = time.monotonic() + 10  # the status files follow within a fifth of a second
        while True:
            talks = [self.status().get("talks", 0), self.second.status().get("talks", 0)]
            if sum(talks) == 1 + len(CLIENTS) or time.monotonic() > deadline:
                break
            time.sleep(0.05)
        self.assertEqual(sum(talks), 1 + len(CLIENTS))
        self.assertTrue(all(talks), "one gateway got every talk: %s" % talks)


if __name__ == "__main__":
    h.main()
