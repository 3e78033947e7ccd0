"""Requests the gateway cannot serve get the device API's answer, and nothing stays open."""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

UNKNOWN = "e2e00000-0000-4000-8000-00000000dead"


class Refusals(h.GatewayCase):
    def json_refusal(self, uri, device=h.DEVICE):
        reply = self.curl(*h.json_download_args(self.port, uri, device=device))
        return reply.status, reply.json()

    def test_unknown_device_gets_bad_dev_index(self):
        status, document = self.json_refusal(h.playback_uri(device=UNKNOWN), device=UNKNOWN)
        self.assertEqual((status, document["subStatusCode"], document["errorCode"]), (403, "badDevIndex", 0x4000A001))
        uri = "rtsp://127.0.0.1:9554/playback?starttime=%s&endtime=%s" % (h.START, h.END)
        reply = self.curl(*h.xml_download_args(self.port, uri))
        self.assertEqual(reply.status, 404, "the XML form answers with the gateway's status")

    def test_time_range_without_a_recording_gets_no_record(self):
        status, document = self.json_refusal(h.playback_uri(start="20250101T000000Z", end="20250102T000000Z"))
        self.assertEqual((status, document["subStatusCode"]), (403, "noRecord"))
        status, document = self.json_refusal(h.playback_uri(name="clip-a.bin", size=1))
        self.assertEqual(document["subStatusCode"], "noRecord", "the size must match the recording")

    def test_malformed_time_gets_the_iso_8601_error(self):
        status, document = self.json_refusal(h.playback_uri(start="2026-13-01T00:00:00Z"))
        self.assertEqual(document["subStatusCode"], "ISO 8601TimeFormatError")

    def test_refusals_open_no_stream_and_are_counted(self):
        for _ in range(3):
            self.json_refusal(h.playback_uri(device=UNKNOWN), device=UNKNOWN)
        status = self.wait_for_status(lambda s: s.get("refused") == 3, "three refusals")
        self.assertEqual((status["opened"], status["openStreams"]), (0, 0))

    def test_delete_is_forbidden(self):
        reply = self.curl("-X", "DELETE", "http://127.0.0.1:%d/QUMEX/ContentMgmt/download" % self.port)
        self.assertEqual(reply.status, 403)


if __name__ == "__main__":
    h.main()
