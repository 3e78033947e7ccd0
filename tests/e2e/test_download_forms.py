"""Downloads in both request forms and both transfer modes arrive byte-exact."""
import os
import subprocess

import gateway_harness as h


class DownloadForms(h.GatewayCase):
    def test_both_forms_and_both_transfer_modes(self):
        size = len(self.recordings[(h.DEVICE, "clip-a.bin")])
        by_port = "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=%s&endtime=%s&name=clip-a.bin" % (
            h.START, h.END)
        by_camera = "rtsp://127.0.0.1:8554/camera/%s/playback?starttime=%s&endtime=%s" % (h.CAMERA, h.START, h.END)
        cases = [
            ("json, Content-Length", h.json_download_args(self.port, h.playback_uri(name="clip-a.bin", size=size)),
             "Content-Length: %d" % (size + h.HEAD_SIZE), h.DEVICE, "clip-a.bin"),
            ("json, chunked", h.json_download_args(self.port, h.playback_uri()),
             "Transfer-Encoding: chunked", h.DEVICE, "clip-a.bin"),
            ("xml by RTSP port", h.xml_download_args(self.port, by_port),
             "Content-Length: %d" % (size + h.HEAD_SIZE), h.DEVICE, "clip-a.bin"),
            ("xml by camera path", h.xml_download_args(self.port, by_camera), "Content-Length:", h.CAMERA, "clip-c.bin"),
        ]
        for what, args, header, device, name in cases:
            with self.subTest(what):
                reply = self.curl(*args)
                self.assertEqual(reply.status, 200, self.log_tail())
                self.assertIn(header, reply.headers)
                self.assert_recording_body(reply.body, device, name)

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
