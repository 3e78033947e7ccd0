"""A client that hangs up mid-download leaves no stream open in the gateway."""
import json
import os
import socket
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

PATH = "/QUMEX/ContentMgmt/download?format=json&devIndex=" + h.DEVICE
BIG = 32 * 1024 * 1024  # far more than the socket buffers hold, so delivery is mid-stream


class ClientHangup(h.GatewayCase):
    def prepare_media(self):
        self.add_recording(h.DEVICE, "big.bin", BIG)

    def start_download_and_stall(self):
        body = json.dumps({"downloadRequest": {"playbackURI": h.playback_uri(name="big.bin")}})
        authorization = h.digest_authorization(self.challenge("POST", PATH, body), "POST", PATH)
        client = socket.create_connection(("127.0.0.1", self.port), timeout=30)
        client.sendall(("POST %s HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: %s\r\nContent-Length: %d\r\n\r\n%s"
                        % (PATH, authorization, len(body), body)).encode())
        received = b""
        while len(received) < 256 * 1024:
            chunk = client.recv(65536)
            self.assertTrue(chunk, "connection closed early\n" + self.log_tail())
            received += chunk
        self.assertTrue(received.startswith(b"HTTP/1.1 200"), received[:200])
        self.wait_for_status(lambda s: s.get("openStreams") == 1, "the stream open")
        return client

    def test_hangup_mid_stream_closes_the_stream_and_the_gateway_serves_on(self):
        client = self.start_download_and_stall()
        time.sleep(0.3)  # the client reads no more: the gateway's delivery now waits on the socket
        client.close()
        status = self.wait_for_status(lambda s: s.get("openStreams") == 0, "openStreams back to 0", timeout=5)
        self.assertEqual((status["opened"], status["closed"]), (1, 1))
        self.wait_for_log(r"stream 1 closed: (client went away|stopped by the plug-in)")
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(name="big.bin")))
        self.assertEqual(reply.status, 200)
        self.assert_recording_body(reply.body, h.DEVICE, "big.bin")


if __name__ == "__main__":
    h.main()
