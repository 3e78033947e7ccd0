"""Requests the gateway refuses get the device API's answer, and open no stream.

Which refusal fits which request is the gateway's unit tests; here the answers
travel the whole way through the real plug-in.
"""
import os
import sys
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

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


class Replay(h.GatewayCase):
    """A credential header seen once opens nothing again; clients that count nc keep working."""

    def download(self, authorization, body):
        connection = h.http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            connection.request("POST", self.path, body=body, headers={"Authorization": authorization})
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def test_a_replayed_or_misdirected_header_is_refused(self):
        self.path = "/QUMEX/ContentMgmt/download?format=json&devIndex=%s" % h.DEVICE
        body = h.json.dumps({"downloadRequest": {"playbackURI": h.playback_uri(name="clip-a.bin")}})
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
