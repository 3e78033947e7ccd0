"""Digest credentials are checked by the gateway behind the plug-in."""
import json
import os
import re
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

PATH = "/QUMEX/ContentMgmt/download?format=json&devIndex=" + h.DEVICE
BODY = json.dumps({"downloadRequest": {"playbackURI": h.playback_uri(name="clip-a.bin")}})


class Authentication(h.GatewayCase):
    def challenge(self):
        status, challenge, _ = self.request("POST", PATH, BODY)
        self.assertEqual(status, 401)
        return challenge

    def test_request_without_credentials_gets_the_challenge(self):
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri()), user=None)
        self.assertEqual(reply.status, 401)
        match = re.search(r'WWW-Authenticate: Digest qop="auth", realm="([^"]*)", nonce="([0-9a-f]+)"',
                          reply.headers)
        self.assertIsNotNone(match, reply.headers)
        self.assertEqual(match.group(1), h.REALM)
        self.assertEqual(len(match.group(2)) % 2, 0)
        self.assertEqual(reply.json(), {"statusCode": 401, "statusString": "Unauthorized",
                                        "subStatusCode": "badAuthorization"})

    def test_wrong_password_gets_401_with_the_bad_authorization_document(self):
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri()), password="not-it")
        self.assertEqual(reply.status, 401)
        document = reply.json()
        self.assertEqual((document["subStatusCode"], document["errorCode"]), ("badAuthorization", 0x40000003))
        status = self.wait_for_status(lambda s: s.get("refused") == 1, "one refusal counted")
        self.assertEqual(status["opened"], 0)
        with open(self.log_path) as log:
            self.assertIn('user "admin": wrong password', log.read())

    def test_xml_form_with_wrong_password_gets_a_bare_401(self):
        uri = "rtsp://127.0.0.1:554/playback?starttime=%s&endtime=%s" % (h.START, h.END)
        reply = self.curl(*h.xml_download_args(self.port, uri), password="not-it")
        self.assertEqual((reply.status, reply.body), (401, b""))

    def test_unknown_user_and_forged_nonce_are_refused(self):
        stranger = h.digest_authorization(self.challenge(), "POST", PATH, user="mallory")
        self.assertEqual(self.request("POST", PATH, BODY, stranger)[0], 401)
        forged = 'Digest realm="%s", nonce="%s"' % (h.REALM, "00" * 24)
        self.assertEqual(self.request("POST", PATH, BODY, h.digest_authorization(forged, "POST", PATH))[0], 401)
        self.wait_for_status(lambda s: s.get("refused") == 2, "two refusals counted")

    def test_older_clients_without_qop_are_accepted(self):
        status, _, body = self.request("POST", PATH, BODY,
                                       h.digest_authorization(self.challenge(), "POST", PATH, qop=False))
        self.assertEqual(status, 200, self.log_tail())
        self.assert_recording_body(body, h.DEVICE, "clip-a.bin")


class NonceLifetime(h.GatewayCase):
    nonce_lifetime = 1

    def test_a_nonce_older_than_its_lifetime_is_refused_and_a_fresh_one_works(self):
        stale = h.digest_authorization(self.request("POST", PATH, BODY)[1], "POST", PATH)
        time.sleep(2.5)
        self.assertEqual(self.request("POST", PATH, BODY, stale)[0], 401)
        fresh = h.digest_authorization(self.request("POST", PATH, BODY)[1], "POST", PATH)
        self.assertEqual(self.request("POST", PATH, BODY, fresh)[0], 200, self.log_tail())


if __name__ == "__main__":
    h.main()
