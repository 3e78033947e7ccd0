"""Requests the gateway refuses get the device API's answer, and open no stream.

Which refusal fits which request is the gateway's unit tests; here the answers
travel the whole way through the real plug-in.
"""
import math
import os
import re
import time
import urllib.request

import gateway_harness as h

UNKNOWN = "e2e00000-0000-4000-8000-00000000dead"


class Refusals(h.GatewayCase):
    def test_wrong_password_gets_401_with_the_bad_authorization_document(self):
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri()), password="not-it")
        self.assertEqual(reply.status, 401)
        document = reply.json()
        self.assertEqual((document["subStatusCode"], document["errorCode"]), ("badAuthorization", 0x40000003))
        status = self.wait_for_status(lambda s: s.get("refused") == 1, "one refusal counted")
        self.assertEqual(status["opened"], 0)
        self.wait_for_log('user "admin": wrong password')

    def test_unknown_device_gets_bad_dev_index_and_opens_no_stream(self):
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(device=UNKNOWN), device=UNKNOWN))
        document = reply.json()
        self.assertEqual((reply.status, document["subStatusCode"], document["errorCode"]),
                         (403, "badDevIndex", 0x4000A001))
        uri = "rtsp://127.0.0.1:9554/playback?starttime=%s&endtime=%s" % (h.START, h.END)
        reply = self.curl(*h.xml_download_args(self.port, uri))
        self.assertEqual(reply.status, 404, "the XML form answers with the gateway's status")
        status = self.wait_for_status(lambda s: s.get("refused") == 2, "two refusals")
        self.assertEqual((status["opened"], status["openStreams"]), (0, 0))


class RefusalsInTheAccessLog(h.GatewayCase):
    """An operator sees who was refused, for what and why; a flood of refusals stays a trickle on disk."""

    ADMIN = True

    def config(self):
        config = super().config()
        self.access_log = os.path.join(self.dir, "access.log")
        config["log"]["access"] = self.access_log
        return config

    def access_lines(self, count):
        deadline = time.monotonic() + 5
        while True:
            with open(self.access_log) as source:
                lines = source.read().splitlines()
            if len(lines) >= count or time.monotonic() > deadline:
                return lines
            time.sleep(0.05)

    def test_each_refusal_names_client_user_request_and_reason(self):
        guess = self.curl("-H", "X-Forwarded-For: 203.0.113.9",
                          *h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")),
                          user="mallory", password="guess")
        self.assertEqual(guess.status, 401)
        unknown = self.curl(*h.json_download_args(self.port, h.playback_uri(device=UNKNOWN), device=UNKNOWN))
        self.assertEqual(unknown.status, 403)
        self.assertEqual(self.curl(*h.json_download_args(self.port, h.playback_uri(start="soon"))).status, 403)
        talk = self.curl("-X", "PUT", "http://127.0.0.1:%d/QUMEX/System/TwoWayAudio/channels/9/open" % self.port)
        self.assertNotEqual(talk.status, 200)
        self.assertEqual(self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin"))).status, 200)

        stamp = r"\[\d\d/\w{3}/\d{4}:\d\d:\d\d:\d\d [+-]\d{4}\]"
        lines = self.access_lines(5)
        # The challenges that come before each request's credentials are no refusals: one line per request.
        self.assertEqual(len(lines), 5, lines)
        self.assertRegex(lines[0], r'^203\.0\.113\.9 - mallory %s "download %s clip-a\.bin" - 0 0 0\.000 '
                         r'refused_unauthorized$' % (stamp, h.DEVICE))
        self.assertRegex(lines[1], r'^- - admin %s "download %s -" - 0 0 0\.000 refused_not_found$' % (stamp, UNKNOWN))
        self.assertRegex(lines[2], r'^- - admin %s "download %s -" - 0 0 0\.000 refused_bad_request$'
                         % (stamp, h.DEVICE))
        self.assertRegex(lines[3], r'^- - admin %s "talk - channel-9" - 0 0 0\.000 refused_not_found$' % stamp)
        self.assertRegex(lines[4], r'^- - admin %s "download %s clip-a\.bin" - \d+ 0 \d+\.\d{3} complete$'
                         % (stamp, h.DEVICE))

    def test_a_flood_of_refusals_writes_a_bounded_number_of_lines_and_counts_the_rest(self):
        path, body = h.json_path(), h.json_body(h.playback_uri())
        forged = ('Digest username="%s", realm="%s", nonce="00", uri="%s", qop=auth, nc=00000001, cnonce="c", '
                  'response="00000000000000000000000000000000"' % ("x" * 60, h.REALM, path))
        sent = 150
        started = time.monotonic()
        for _ in range(sent):
            self.assertEqual(self.send("POST", path, body, {"Authorization": forged}, timeout=30)[0], 401)
        seconds = math.ceil(time.monotonic() - started) + 1  # the seconds the flood can have touched
        self.wait_for_status(lambda s: s.get("refused") == sent, "every refusal counted")
        written = [line for line in self.access_lines(1) if line.endswith(" refused_unauthorized")]
        _, text = h.http_get(self.admin_port, "/metrics")
        skipped = h.parse_metrics(text)["media_gateway_access_log_refusals_skipped_total"]
        self.assertEqual(len(written) + skipped, sent, "each refusal is written or counted")
        self.assertLessEqual(len(written), 20 * seconds)
        self.assertGreaterEqual(len(written), 20)
        if sent > 20 * seconds:  # the flood outran the allowance (it does, unless the machine crawls)
            self.wait_for_log(r"access log: more than 20 refusals a second; the others are counted")
            self.assertEqual(len(re.findall("access log: more than 20 refusals", self.gateway.log_text())), 1,
                             "said once, not once per refusal")
        for line in written:
            self.assertIn(" - %s [" % ("x" * 60), line)


class Replay(h.GatewayCase):
    """A credential header seen once opens nothing again; clients that count nc keep working."""

    def download(self, authorization, body):
        return self.send("POST", self.path, body, {"Authorization": authorization}, timeout=30)

    def test_a_replayed_or_misdirected_header_is_refused(self):
        self.path = h.json_path()
        body = h.json_body(h.playback_uri(name="clip-a.bin"))
        challenge = self.challenge("POST", self.path, body)
        header = h.digest_authorization(challenge, "POST", self.path)
        self.assertEqual(self.download(header, body)[0], 200)
        self.assertEqual(self.download(header, body)[0], 401, "the same header a second time")
        self.wait_for_log("a replay")
        other = h.digest_authorization(self.challenge("POST", self.path, body), "POST", "/other")
        self.assertEqual(self.download(other, body)[0], 401, "a response computed for another uri")
        self.wait_for_log('uri "/other" is not the request target')

    def test_clients_that_reuse_a_nonce_count_up_and_keep_working(self):
        # curl reuses its nonce for the second URL with nc=00000002.
        args = h.json_download_args(self.port, h.playback_uri(name="clip-a.bin"))
        url = args[2]
        result = h.subprocess.run(["curl", "-sS", "--digest", "-u", "%s:%s" % (h.USER, h.PASSWORD),
                                   "-o", "/dev/null", "-o", "/dev/null", "-w", "%{http_code}\n",
                                   *args, args[2]], capture_output=True, timeout=60)
        self.assertEqual(result.stdout.decode().split(), ["200", "200"], result.stderr.decode() + self.log_tail())
        # Python's own Digest handler counts too.
        manager = urllib.request.HTTPPasswordMgrWithDefaultRealm()
        manager.add_password(None, url, h.USER, h.PASSWORD)
        opener = urllib.request.build_opener(urllib.request.HTTPDigestAuthHandler(manager))
        for _ in range(3):
            request = urllib.request.Request(url, data=args[-1].encode(), method="POST")
            with opener.open(request, timeout=30) as reply:
                self.assertEqual(reply.status, 200)
                self.assert_recording_body(reply.read(), h.DEVICE, "clip-a.bin")


if __name__ == "__main__":
    h.main()
