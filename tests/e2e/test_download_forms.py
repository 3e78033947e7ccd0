"""Downloads in both request forms and both transfer modes arrive byte-exact."""
import os
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402


class DownloadForms(h.GatewayCase):
    def test_json_form_with_name_and_size_streams_with_content_length(self):
        size = len(self.recordings[(h.DEVICE, "clip-a.bin")])
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin", size=size)))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assertIn("Content-Length: %d" % (size + h.HEAD_SIZE), reply.headers)
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")

    def test_json_form_without_name_and_size_streams_chunked(self):
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri()))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assertIn("Transfer-Encoding: chunked", reply.headers)
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")

    def test_xml_form_addressed_by_rtsp_port(self):
        uri = "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=%s&endtime=%s&name=clip-a.bin" % (
            h.START, h.END)
        reply = self.curl(*h.xml_download_args(self.port, uri))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assertIn("Content-Length:", reply.headers)
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")

    def test_xml_form_addressed_by_camera_path(self):
        uri = "rtsp://127.0.0.1:8554/camera/%s/playback?starttime=%s&endtime=%s" % (h.CAMERA, h.START, h.END)
        reply = self.curl(*h.xml_download_args(self.port, uri))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.CAMERA, "clip-c.bin")


class ManyClientsAtOnce(h.GatewayCase):
    def test_parallel_downloads_all_arrive_whole(self):
        uri = h.playback_uri(name="clip-a.bin")
        outputs = [os.path.join(self.dir, "parallel-%d.bin" % i) for i in range(6)]
        clients = [subprocess.Popen(["curl", "-sS", "-f", "--digest", "-u", "%s:%s" % (h.USER, h.PASSWORD),
                                     "-o", out, *h.json_download_args(self.port, uri)]) for out in outputs]
        self.assertEqual([client.wait(timeout=60) for client in clients], [0] * len(clients), self.log_tail())
        for out in outputs:
            with open(out, "rb") as source:
                self.assert_recording_body(source.read(), h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("closed") == len(outputs) and s.get("openStreams") == 0,
                             "all parallel streams closed")


if __name__ == "__main__":
    h.main()
