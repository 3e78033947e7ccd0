"""Bodies built to exhaust a request worker's stack are refused, and the gateway
keeps serving: nesting is bounded before any recursive parser sees it.

The credentials are filled but wrong, as an attacker without a password sends
them: the body is read before the gateway judges the credentials.
"""
import http.client
import os
import socket
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

DEPTH = 10000
FILLED = ('Digest username="x", realm="x", nonce="abcd", uri="/QUMEX/ContentMgmt/download", qop=auth, '
          'nc=00000001, cnonce="1", response="00000000000000000000000000000000"')


class HostileBodies(h.GatewayCase):
    def send(self, method, path, body):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            connection.request(method, path, body=body, headers={"Authorization": FILLED})
            response = connection.getresponse()
            return response.status, response.read().decode(errors="replace")
        finally:
            connection.close()

    def test_deeply_nested_bodies_are_refused_and_the_gateway_keeps_serving(self):
        cases = [
            ("POST", "/QUMEX/ContentMgmt/download?format=json&devIndex=%s" % h.DEVICE,
             '{"a":' * DEPTH + "1" + "}" * DEPTH),
            ("POST", "/QUMEX/ContentMgmt/download?format=json&devIndex=%s" % h.DEVICE, "[" * DEPTH + "]" * DEPTH),
            ("GET", "/QUMEX/ContentMgmt/download", "<a>" * DEPTH + "</a>" * DEPTH),
        ]
        for method, path, body in cases:
            status, document = self.send(method, path, body)
            self.assertEqual(status, 400, "%s %s\n%s" % (method, path, self.log_tail()))
            self.assertIn('"subStatusCode":"badParameters"', document)
            self.assertIsNone(self.process.poll(), "the gateway died\n" + self.log_tail())

        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")))
        self.assertEqual(reply.status, 200)
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("opened") == 1, "one stream opened")


if __name__ == "__main__":
    h.main()
