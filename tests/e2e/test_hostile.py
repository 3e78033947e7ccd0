"""Hostile input, replayed against a real gateway: every answer is a refusal
(or the right device's file), the process stays alive and reloadable, and a
normal download still works afterwards.

Two devices, A (DEVICE, talk channel 1) and B (CAMERA, channel 2), and the
users alice and bob besides the harness's admin. J is a filled Authorization
value without a valid password, as an attacker without one sends it.
"""
import base64
import glob
import http.client
import os
import re
import signal
import socket
import subprocess
import time

import requests
from requests.auth import HTTPDigestAuth

import gateway_harness as h

import talk  # noqa: E402  (tools/, on the path through the harness)

J = 'Digest username="x", realm="y", nonce="z", uri="/", response="0"'
A, B = h.DEVICE, h.CAMERA
USERS = [("alice", "alice-pw"), ("bob", "bob-pw")]
BIG = 24 * 1024 * 1024
JSON_PATH, XML_PATH, json_body, xml_body = h.XML_PATH + "?format=json&devIndex=%s", h.XML_PATH, h.json_body, h.xml_body


def nested(depth):
    return "[" * depth + "]" * depth


class Hostile(h.GatewayCase):
    def prepare_media(self):
        super().prepare_media()
        self.audio_port = h.free_port()
        self.access_log = os.path.join(self.dir, "access.log")
        # A recording large enough to keep a download running for a while.
        with open(os.path.join(self.media, A, "big.bin"), "wb") as out:
            out.write(bytes(BIG))
        self.write_index(A, ["clip-a.bin", "big.bin"])

    def config(self):
        config = super().config()
        config["server"].update({"audioTalkPort": self.audio_port, "shutdownGraceSeconds": 20})
        config["auth"]["users"] += [{"name": name, "password": password} for name, password in USERS]
        config["log"]["access"] = self.access_log
        return config

    # ---- speaking to the gateway ----

    def digest_for(self, user, password):
        """A Digest client that has learnt a nonce from a challenge of this gateway."""
        digest = talk.Digest(user, password)
        self.assertTrue(digest.learn(self.challenge("POST", JSON_PATH % A, json_body("x"))))
        return digest

    def download(self, device, uri, user="alice", password="alice-pw", headers=None, form="json"):
        digest = self.digest_for(user, password)
        path = JSON_PATH % device if form == "json" else XML_PATH
        method = "POST" if form == "json" else "GET"
        sent = {"Authorization": digest.authorization(method, path)}
        sent.update(headers or {})
        return self.send(method, path, json_body(uri) if form == "json" else xml_body(uri), sent)

    def assert_refused(self, status, body, statuses=(400, 401, 403)):
        self.assertIn(status, statuses, body[:300])
        self.assertIsNone(self.process.poll(), "the gateway died\n" + self.log_tail())

    def assert_still_serves(self):
        self.assertIsNone(self.process.poll(), "the gateway died\n" + self.log_tail())
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, A, "clip-a.bin")

    def second_hostile_gateway(self, log_level="info", **start_options):
        """A second gateway like this one, on ports of its own and without an access log."""
        config = self.config()
        config["server"].update({"httpPort": h.free_port(), "audioTalkPort": h.free_port()})
        config["log"].update({"access": "", "level": log_level})
        return self.second_gateway(config, **start_options), config["server"]["httpPort"]

    def reload(self):
        """SIGHUP; what the log says from then on, once it says how the reload went."""
        before = len(self.gateway.log_text())
        self.process.send_signal(signal.SIGHUP)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            text = self.gateway.log_text()[before:]
            if re.search("reload refused|reloaded:", text):
                return text
            time.sleep(0.05)
        self.fail("no word of the reload\n" + self.log_tail())

    def link(self, method, target, digest):
        """The status line of one raw audio-channel request (the link is closed again)."""
        with socket.create_connection(("127.0.0.1", self.audio_port), timeout=10) as link:
            request = "%s %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nAuthorization: %s\r\nContent-Length: 0\r\n\r\n" % (
                method, target, self.port, digest.authorization(method, target))
            link.sendall(request.encode())
            head, _ = talk.read_head(link)
            return head.split(b"\r\n")[0].decode(errors="replace")

    # ---- 1. bodies built to overflow a worker's stack ----

    def test_bodies_that_would_nest_past_a_workers_stack_are_refused(self):
        depth = 10000
        cases = [
            # The JSON reader ends a "//" comment at CR; a scanner that ended it at LF saw no brackets.
            ("POST", JSON_PATH % A, '{"downloadRequest"://\r' + "[" * 900 + "]" * 900 + "}"),
            # The XML reader takes bytes from 0x80 as a tag name; a scanner that skipped them saw no tags.
            ("GET", XML_PATH, b"<downloadRequest>" + b"<\xe9>" * 1500 + b"</\xe9>" * 1500 + b"</downloadRequest>"),
            ("POST", JSON_PATH % A, '{"a":' * depth + "1" + "}" * depth),
            ("POST", JSON_PATH % A, nested(depth)),
            ("GET", XML_PATH, "<a>" * depth + "</a>" * depth),
        ]
        for method, path, body in cases:
            status, document, _ = self.send(method, path, body, {"Authorization": J})
            self.assert_refused(status, document, (400,))
            self.assertIn(b'"subStatusCode":"badParameters"', document)
        self.assert_still_serves()

    # ---- 1. a configuration or an index nested past the JSON reader's limit ----

    def test_a_nested_configuration_or_index_is_an_error_never_a_crash(self):
        config = os.path.join(self.dir, "deep.json")
        with open(config, "w") as out:
            out.write('{"server": %s}' % nested(1001))
        result = subprocess.run([h.GATEWAY, "--config", config], capture_output=True, text=True, timeout=20)
        self.assertEqual(result.returncode, 2, result.stderr)
        self.assertIn(config, result.stderr)

        self.write_config('{"server": %s}' % nested(1001))
        self.assertIn("reload refused", self.reload())
        with open(os.path.join(self.media, B, "recordings.json"), "w") as out:
            out.write('{"recordings": %s}' % nested(1001))
        self.write_config(self.config())
        self.assertRegex(self.reload(), "reload refused: .*recordings.json")
        self.assert_still_serves()
        status, body, _ = self.download(B, h.playback_uri(device=B, name="clip-c.bin"))
        self.assertEqual(status, 200, "the refused reload kept B's recordings")

    # ---- 2. the user-name text ----

    def test_text_before_the_user_name_selects_no_device_and_no_client(self):
        # The XML form names device A by its address and RTSP port; the plug-in
        # appends the text after the first `username="` it finds as the user name.
        digest = self.digest_for("alice", "alice-pw")
        forged = 'Digest xusername="&devIndex=%s&clientIP=6.6.6.6X", %s' % (
            B, digest.authorization("GET", XML_PATH)[len("Digest "):])
        uri = "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=%s&endtime=%s" % (h.START, h.END)
        status, body, _ = self.send("GET", XML_PATH, xml_body(uri), {"Authorization": forged})
        self.assert_refused(status, body, (401,))
        self.assertNotIn(self.recordings[(B, "clip-c.bin")][:64], body)
        self.assert_still_serves()
        self.wait_for_status(lambda s: s.get("closed") == 1, "the download logged")
        with open(self.access_log) as log:
            self.assertNotIn("6.6.6.6", log.read())

    # ---- 3. Digest as RFC 7616 asks a server to check it ----

    def test_digest_headers_that_could_stand_for_other_requests_are_refused(self):
        digest = self.digest_for("alice", "alice-pw")
        nonce, realm = digest.nonce, digest.realm
        ha1 = h.md5("alice:%s:alice-pw" % realm)
        # Without qop: no count, so every replay would be as good as the first.
        response = h.md5("%s:%s:%s" % (ha1, nonce, h.md5("GET:%s" % XML_PATH)))
        no_qop = 'Digest username="alice", realm="%s", nonce="%s", uri="%s", response="%s"' % (
            realm, nonce, XML_PATH, response)
        uri = "rtsp://127.0.0.1:8554/Streaming/tracks/101/playback?starttime=%s&endtime=%s" % (h.START, h.END)
        for _ in range(2):
            status, body, _ = self.send("GET", XML_PATH, xml_body(uri), {"Authorization": no_qop})
            self.assert_refused(status, body, (401,))
        # A uri without the query, and one with more, for ?devIndex=B.
        path = JSON_PATH % B
        for signed in (XML_PATH, path + "&x=1"):
            status, body, _ = self.send("POST", path, json_body(h.playback_uri(device=B)),
                                        {"Authorization": digest.authorization("POST", signed)})
            self.assert_refused(status, body, (401,))
        self.wait_for_log("is not the request target")
        self.assert_still_serves()

    def test_a_header_from_before_a_gateway_started_is_refused_there(self):
        path = JSON_PATH % A
        header = self.digest_for("alice", "alice-pw").authorization("POST", path)
        body = json_body(h.playback_uri(name="clip-a.bin"))
        self.assertEqual(self.send("POST", path, body, {"Authorization": header})[0], 200)
        time.sleep(1.1)  # nonce times count in seconds
        second, second_port = self.second_hostile_gateway()
        self.assertTrue(second.wait_ready(), second.log_tail())
        self.assertEqual(self.send("POST", path, body, {"Authorization": header}, port=second_port)[0], 401,
                         "the same header at a gateway started later")
        self.assertIn("nonce from before this gateway started", second.log_text())
        # So is a nonce made up with a time before the start (a forged one needs the password all the same).
        forged = base64.b64encode(b"00000000:%x" % int(time.time() - 30)).hex()
        digest = talk.Digest("alice", "alice-pw")
        digest.realm, digest.nonce = h.REALM, forged
        status, reply, _ = self.send("POST", path, body, {"Authorization": digest.authorization("POST", path)})
        self.assert_refused(status, reply, (401,))
        self.assert_still_serves()

    def test_password_guessing_is_throttled_per_address_and_user(self):
        path = JSON_PATH % A
        body = json_body(h.playback_uri(name="clip-a.bin"))
        digest = self.digest_for("alice", "alice-pw")

        def attempt(address, password=None):
            headers = {"Authorization": digest.authorization("POST", path, password), "X-Forwarded-For": address}
            return self.send("POST", path, body, headers)[0]

        for _ in range(12):
            self.assertEqual(attempt("192.0.2.1", "guess"), 401)
        self.assertEqual(attempt("192.0.2.1"), 401, "the right password from the guessing address, while locked")
        self.assertEqual(attempt("198.51.100.2"), 200, "the right password from another address")
        log = self.wait_for_log("login throttled")
        self.assertEqual(log.count("login throttled"), 1, "one line per lock")
        self.assertIn("credentials not checked", log)

    # ---- 4. control bytes never reach the internal request ----

    def test_control_bytes_in_the_playback_uri_refuse_the_request(self):
        size = len(self.recordings[(A, "clip-a.bin")])
        injected = h.playback_uri(name="clip-a.bin", size=size) + " RTSP/1.0\r\nDownload-Range: bytes=0-9\r\nX: y"
        with_nul = h.playback_uri(name="clip-a\0.bin")
        for uri in (injected, with_nul):
            try:
                status, body, _ = self.download(A, uri)
            except (socket.timeout, http.client.HTTPException, ConnectionError) as failure:
                self.fail("no answer: %r" % failure)
            self.assert_refused(status, body, (400,))
            self.assertIn(b"badParameters", body)
        # The XML form, its URI with the line break written as character references: a bare 400.
        uri = "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=%s&amp;endtime=%s&#13;&#10;X: y" % (
            h.START, h.END)
        digest = self.digest_for("alice", "alice-pw")
        body = "<downloadRequest><playbackURI>%s</playbackURI></downloadRequest>" % uri
        status, reply, _ = self.send("GET", XML_PATH, body, {"Authorization": digest.authorization("GET", XML_PATH)})
        self.assert_refused(status, reply, (400,))
        self.assert_still_serves()
        self.assertEqual(self.status().get("openStreams"), 0)

    # ---- 5. one event, one log line ----

    def test_client_text_in_a_log_line_cannot_start_another_line(self):
        forged = "2026-01-01 00:00:00.000000 INFO  gateway FORGED LINE"
        body = "<downloadRequest>\n%s\x1b[31m<playbackURI>" % forged
        status, document, _ = self.send("GET", XML_PATH, body, {"Authorization": J})
        self.assert_refused(status, document, (400,))
        log = self.wait_for_log(re.escape("FORGED LINE"))
        self.assertNotIn("\x1b", log)
        for line in log.splitlines():
            self.assertFalse(line.startswith("2026-01-01 00:00:00.000000"), line)
        self.assertIn("\\x0a" + forged, log)
        self.assert_still_serves()

    # ---- 6. files that are not what they seem ----

    def test_a_link_out_of_the_device_folder_is_not_served(self):
        folder = os.path.join(self.media, A)
        os.symlink("/etc/passwd", os.path.join(folder, "link.bin"))
        self.write_index(A, ["clip-a.bin", "big.bin", "link.bin"])
        self.assertNotIn("reload refused", self.reload())
        status, body, _ = self.download(A, h.playback_uri(name="link.bin"))
        self.assert_refused(status, body, (403, 404))
        self.assertNotIn(b"root:", body)
        self.assert_still_serves()

    def test_a_fifo_in_place_of_an_index_or_configuration_never_blocks(self):
        # At reload: the index of B, then the configuration.
        index = os.path.join(self.media, B, "recordings.json")
        os.unlink(index)
        os.mkfifo(index)
        self.assertRegex(self.reload(), "reload refused: .*recordings.json: is not a regular file")
        os.unlink(index)
        self.write_index(B, ["clip-c.bin"])
        os.unlink(self.gateway.config_path)
        os.mkfifo(self.gateway.config_path)
        self.assertRegex(self.reload(), "reload refused: .*gateway.json: is not a regular file")
        self.assert_still_serves()
        # At start: a configuration that is a FIFO is refused, an index that is one leaves its device empty.
        result = subprocess.run([h.GATEWAY, "--config", self.gateway.config_path], capture_output=True, text=True,
                                timeout=20)
        self.assertEqual(result.returncode, 2, result.stderr)
        self.assertIn("is not a regular file", result.stderr)
        os.unlink(index)
        os.mkfifo(index)
        second, _ = self.second_hostile_gateway()
        self.assertTrue(second.wait_ready(), second.log_tail())
        self.assertEqual(second.stop(timeout=10), 0)
        self.assertIn("recordings.json: is not a regular file", second.log_text())

    def test_a_log_at_the_operators_file_size_limit_costs_lines_never_the_gateway(self):
        # Every refused request adds to the log; past `ulimit -f` a write raises SIGXFSZ, fatal by default.
        limit = 32 * 1024
        second, second_port = self.second_hostile_gateway("debug", file_size=limit)
        self.assertTrue(second.wait_ready(), second.log_tail())
        for _ in range(150):  # about 80 KB of debug lines
            self.assertEqual(self.send("GET", XML_PATH, port=second_port)[0], 401, second.log_tail())
        self.assertTrue(second.alive(), "the gateway died\n" + second.log_tail())
        self.assertLessEqual(os.path.getsize(second.log_path), limit)
        with open(second.output_path) as output:
            self.assertEqual(output.read().count("the log file cannot grow (File too large)"), 1)
        self.assertEqual(second.stop(timeout=10), 0)

    # ---- 7. reload is all or nothing ----

    def test_a_reload_never_brings_back_the_demo_user_nor_loses_an_index(self):
        config = self.config()
        del config["auth"]
        self.write_config(config)
        self.assertIn("reload refused: configuration refused: auth.users", self.reload())
        demo = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")), user="admin",
                         password="gateway-demo")
        self.assertEqual(demo.status, 401, "the demo password after a reload without users")
        self.assertEqual(self.download(A, h.playback_uri(name="clip-a.bin"))[0], 200, "alice, as before")

        self.write_config(self.config())
        with open(os.path.join(self.media, B, "recordings.json"), "w") as out:
            out.write('{"recordings": [')  # cut short, as a copy that did not finish
        self.assertRegex(self.reload(), "reload refused: .*recordings.json")
        self.assertEqual(self.download(B, h.playback_uri(device=B, name="clip-c.bin"))[0], 200,
                         "B keeps its recordings")
        os.unlink(os.path.join(self.media, B, "recordings.json"))
        self.assertRegex(self.reload(), "reload refused: .*recordings.json is gone")
        self.assertEqual(self.download(B, h.playback_uri(device=B, name="clip-c.bin"))[0], 200)
        self.assert_still_serves()

    # ---- 8. stopping ----

    def test_after_sigterm_no_talk_opens(self):
        slow = subprocess.Popen(
            ["curl", "-sS", "--digest", "-u", "%s:%s" % (h.USER, h.PASSWORD), "--limit-rate", "100K", "-o",
             os.devnull, *h.json_download_args(self.port, h.playback_uri(name="big.bin"))],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(slow.wait)
        self.addCleanup(slow.kill)
        self.wait_for_status(lambda s: s.get("openStreams") == 1, "a download running")
        self.process.send_signal(signal.SIGTERM)
        self.wait_for_status(lambda s: s.get("phase") == "stopping", "stopping")
        digest = talk.Digest("alice", "alice-pw")
        with self.assertRaisesRegex(talk.TalkError, "HTTP 503 serviceUnavailable"):
            talk.talk_request("127.0.0.1", self.port, digest, 1, "open")
        self.assertEqual(self.status().get("talks", 0), 0)

    # ---- 9. talks belong to who opened them ----

    def test_another_user_can_neither_listen_speak_nor_close(self):
        alice, bob = talk.Digest("alice", "alice-pw"), self.digest_for("bob", "bob-pw")
        body = talk.talk_request("127.0.0.1", self.port, alice, 1, "open")
        session = re.search(r"<sessionId>([0-9]+)</sessionId>", body).group(1)
        self.wait_for_status(lambda s: s.get("openTalks") == 1, "alice's talk open")
        audio = talk.TALK_PATH % 1 + "/audioData"
        for method, target in (("GET", audio), ("PUT", audio + "?sessionId="), ("GET", audio + "?sessionId=" + session)):
            line = self.link(method, target, bob)
            self.assertNotIn(" 200 ", line, "bob's %s %s" % (method, target))
        with self.assertRaisesRegex(talk.TalkError, "HTTP 403"):
            talk.talk_request("127.0.0.1", self.port, bob, 1, "close")
        self.assertEqual(self.status().get("openTalks"), 1, "alice's talk still open")
        # Alice herself needs the id too.
        self.assertNotIn(" 200 ", self.link("GET", audio, alice))
        self.assertIn(" 200 ", self.link("GET", audio + "?sessionId=" + session, alice))
        talk.talk_request("127.0.0.1", self.port, alice, 1, "close")
        self.wait_for_status(lambda s: s.get("openTalks") == 0, "alice's talk closed")
        self.assert_still_serves()

    def test_audio_sent_faster_than_its_codec_fills_no_disk(self):
        # 4 MiB on a PCMU link as fast as the network takes it: a device hears 8,000 bytes a second.
        alice = talk.Digest("alice", "alice-pw")
        body = talk.talk_request("127.0.0.1", self.port, alice, 1, "open")
        session = re.search(r"<sessionId>([0-9]+)</sessionId>", body).group(1)
        speaker, _ = talk.open_link("127.0.0.1", self.audio_port, self.port, alice, "PUT", 1, session)
        started = time.monotonic()
        with speaker:
            speaker.sendall(bytes(4 * 1024 * 1024))
            # Closed once the device has heard more than its clock allows (a slow build reads later).
            self.wait_for_log("the client speaks faster than PCMU's 8000 bytes a second", timeout=20)
            talk.talk_request("127.0.0.1", self.port, alice, 1, "close")
        seconds = time.monotonic() - started
        self.wait_for_status(lambda s: s.get("openTalks") == 0, "the talk closed")
        (capture,) = glob.glob(os.path.join(self.media, "*", "talk-ch1-*"))
        self.assertLessEqual(os.path.getsize(capture), 8000 * (seconds + 2) + 100, "the capture took it all")
        self.assertIn("said too early, not kept", self.gateway.log_text())
        self.assert_still_serves()

    # ---- 10. If-Range ----

    def test_an_if_range_too_long_to_keep_matches_nothing(self):
        headers = {"Range": "bytes=100-199", "If-Range": '"%s"' % ("a" * 200)}
        status, body, _ = self.download(A, h.playback_uri(name="clip-a.bin"), headers=headers)
        self.assertEqual(status, 200)
        self.assert_recording_body(body, A, "clip-a.bin")

    # ---- the clients keep working ----

    def test_python_requests_downloads_with_digest(self):
        reply = requests.post("http://127.0.0.1:%d%s" % (self.port, JSON_PATH % A),
                              data=json_body(h.playback_uri(name="clip-a.bin")),
                              auth=HTTPDigestAuth("bob", "bob-pw"), timeout=30)
        self.assertEqual(reply.status_code, 200, self.log_tail())
        self.assert_recording_body(reply.content, A, "clip-a.bin")


class TalksPerUser(h.GatewayCase):
    """One user may hold a few talks at once (4 by default), not every channel."""
    CHANNELS = 6

    def config(self):
        config = super().config()
        config["auth"]["users"] += [{"name": name, "password": password} for name, password in USERS]
        config["media"]["devices"] = [
            {"devIndex": "e2e00000-0000-4000-8000-00000000000%d" % n, "address": "127.0.0.1", "rtspPort": 600 + n}
            for n in range(1, self.CHANNELS + 1)]
        return config

    def prepare_media(self):
        for device in self.config()["media"]["devices"]:
            os.makedirs(os.path.join(self.media, device["devIndex"]))

    def test_a_user_past_the_cap_is_refused_and_others_still_talk(self):
        alice, bob = talk.Digest("alice", "alice-pw"), talk.Digest("bob", "bob-pw")
        for channel in range(1, 5):
            talk.talk_request("127.0.0.1", self.port, alice, channel, "open")
        with self.assertRaisesRegex(talk.TalkError, "HTTP 403 noMoreTasksCanBeAdded"):
            talk.talk_request("127.0.0.1", self.port, alice, 5, "open")
        talk.talk_request("127.0.0.1", self.port, bob, 5, "open")
        self.wait_for_status(lambda s: s.get("openTalks") == 5, "five talks open")
        talk.talk_request("127.0.0.1", self.port, alice, 1, "close")
        talk.talk_request("127.0.0.1", self.port, alice, 6, "open")
        self.wait_for_status(lambda s: s.get("openTalks") == 5, "alice's fourth talk on another channel")


if __name__ == "__main__":
    h.main()
