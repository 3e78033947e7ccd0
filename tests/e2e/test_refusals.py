"""Requests the gateway refuses get the device API's answer, and open no stream.

Which refusal fits which request is the gateway's unit tests; here the answers
travel the whole way through the real plug-in.
"""
import os
import sys

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


if __name__ == "__main__":
    h.main()
