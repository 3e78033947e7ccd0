"""What a client can hold of the gateway: connections on both ports with a deadline and a bound, download
slots that a client which stops reading (or crawls) gives back, and descriptors that a flood of one port
leaves for the other."""
import re
import resource
import socket
import time

import gateway_harness as h
import gateway_client  # noqa: E402

MIB = 1024 * 1024
BIG = 64 * MIB  # more than socket buffers hold, so that a reader that stops holds the delivery
DOWNLOAD_PATH = "/QUMEX/ContentMgmt/download?format=json&devIndex=" + h.DEVICE

# Thousands of client sockets in this process.
resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)


def connect_all(port, count, first_bytes=b""):
    sockets = []
    for _ in range(count):
        client = socket.create_connection(("127.0.0.1", port), timeout=10)
        if first_bytes:
            client.sendall(first_bytes)
        sockets.append(client)
    return sockets


def closed_by_server(client):
    """True when the server has closed (or reset) the connection; never blocks."""
    client.setblocking(False)
    try:
        return client.recv(1) == b""
    except BlockingIOError:
        return False
    except OSError:
        return True


class BoundsCase(h.GatewayCase):
    descriptors = None  # the gateway's descriptor limit, when a case lowers it
    ADMIN = True

    def setUp(self):
        self.audio_port = h.free_port()
        self.digest = gateway_client.Digest(h.USER, h.PASSWORD)
        super().setUp()

    def prepare_media(self):
        self.add_recording(h.DEVICE, "big.bin", BIG)

    def config(self):
        config = super().config()
        config["server"].update({"audioTalkPort": self.audio_port, "headTimeout": 1000})
        config["media"]["blockSize"] = 32 * 1024
        return config

    def start_gateway(self, config, *extra):
        return self.gateway.start(config, *extra, descriptors=self.descriptors)

    def download_request(self, name="big.bin", size=BIG):
        body = h.json_body(h.playback_uri(name=name, size=size)).encode()
        if not self.digest.ready:
            self.digest.learn(self.challenge("POST", DOWNLOAD_PATH, body))
        return ("POST %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nAuthorization: %s\r\nContent-Length: %d\r\n\r\n" % (
            DOWNLOAD_PATH, self.port, self.digest.authorization("POST", DOWNLOAD_PATH), len(body))).encode() + body

    def start_download(self, receive_buffer=None):
        """A download's socket after its status line arrived, and that status."""
        client = socket.socket()
        if receive_buffer:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        client.settimeout(10)
        client.connect(("127.0.0.1", self.port))
        client.sendall(self.download_request())
        head = client.recv(64)
        return client, int(head.split(b" ")[1]) if head.startswith(b"HTTP/1.1 ") else 0

    def timed_download(self):
        """(seconds, body) of a whole download of the small recording."""
        started = time.monotonic()
        result = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin", size=1024 * 1024 + 333)))
        self.assertEqual(result.status, 200, self.log_tail())
        return time.monotonic() - started, result.body


class AudioPort(BoundsCase):
    def test_a_flood_of_connections_costs_little_and_each_is_closed_at_its_deadline(self):
        before = self.gateway.resources()
        sockets = connect_all(self.audio_port, 1000, b"G")
        self.addCleanup(lambda: [client.close() for client in sockets])
        time.sleep(0.5)
        held = self.gateway.resources()
        # Without the gate each connection got a 64 KiB buffer at once (about 77 KiB in all).
        self.assertLess(held["rss"] - before["rss"], 8 * MIB, "RSS %d -> %d" % (before["rss"], held["rss"]))
        self.assertLessEqual(held["fds"] - before["fds"], 512 + 8, "more than the address's bound held")
        # One more byte now and then renews nothing: every one is closed at the head's deadline (1 s).
        deadline = time.monotonic() + 4
        while time.monotonic() < deadline and not all(closed_by_server(client) for client in sockets):
            for client in sockets:
                try:
                    client.send(b"E")
                except OSError:
                    pass
            time.sleep(0.3)
        self.assertTrue(all(closed_by_server(client) for client in sockets), "connections outlived the deadline")
        self.assertLessEqual(self.gateway.resources()["fds"], before["fds"] + 2)


class LowDescriptorLimit(BoundsCase):
    descriptors = 256

    def test_a_flood_of_either_port_leaves_the_other_reachable(self):
        self.wait_for_log("descriptor limit 256 holds 16 connections per port")
        audio = connect_all(self.audio_port, 600, b"G")
        idle = connect_all(self.port, 300)
        self.addCleanup(lambda: [client.close() for client in audio + idle])
        seconds, body = self.timed_download()
        self.assert_recording_body(body, h.DEVICE, "clip-a.bin")
        self.assertLess(seconds, 2, "a download behind 300 idle connections and 600 on the audio port")
        # The audio port answers a link request (refused: no such talk is open) through its own flood.
        link = socket.create_connection(("127.0.0.1", self.audio_port), timeout=5)
        self.addCleanup(link.close)
        link.sendall(("GET /QUMEX/System/TwoWayAudio/channels/1/audioData?sessionId=1 HTTP/1.1\r\nHost: 127.0.0.1:"
                      "%d\r\nContent-Length: 0\r\n\r\n" % self.port).encode())
        self.assertTrue(link.recv(64).startswith(b"HTTP/1.1 401"))

    def prepare_media(self):
        self.add_recording(h.DEVICE, "clip-a.bin", 1024 * 1024 + 333)


class Slots(BoundsCase):
    def config(self):
        config = super().config()
        config["server"].update({"maxDownloads": 2, "sendTimeout": 1000})
        return config

    def test_readers_that_stop_give_their_slots_back_within_the_send_timeout(self):
        stalled = [self.start_download(receive_buffer=4096) for _ in range(2)]
        self.addCleanup(lambda: [client.close() for client, _ in stalled])
        self.assertEqual([status for _, status in stalled], [200, 200])
        started = time.monotonic()
        client, status = self.start_download()
        client.close()
        self.assertEqual(status, 403, "the two stalled downloads hold both slots at first")
        while status != 200 and time.monotonic() - started < 10:
            time.sleep(0.25)
            client, status = self.start_download()
            client.close()
        self.assertEqual(status, 200, self.log_tail())
        self.assertLess(time.monotonic() - started, 5, "slots held past the send time-out")
        self.wait_for_log(r"stream \d+ closed: client took nothing for the send time-out")
        self.assertEqual(self.metrics()['media_gateway_downloads_finished_total{outcome="send_timeout"}'], 2)


class MinimumRate(BoundsCase):
    def config(self):
        config = super().config()
        config["server"].update({"minDeliveryRate": 1024 * 1024, "minDeliveryRateSeconds": 5})
        return config

    def test_a_reader_below_the_minimum_rate_is_ended_and_counted(self):
        client, status = self.start_download()
        self.addCleanup(client.close)
        self.assertEqual(status, 200)
        started, received = time.monotonic(), 0
        pattern = r"stream \d+ closed: client too slow: under 1048576 bytes/s for 5 s"
        while not re.search(pattern, self.gateway.log_text()) and time.monotonic() - started < 20:
            received += len(client.recv(64 * 1024))  # some 256 KiB/s: reading all along, a quarter of the minimum
            time.sleep(0.25)
        self.assertLess(time.monotonic() - started, 20, "a crawling reader kept its download for 20 s")
        self.assertEqual(self.metrics()['media_gateway_downloads_finished_total{outcome="too_slow"}'], 1)
        # What the buffers held still arrives, then the connection ends short of the announced length.
        while True:
            data = client.recv(1024 * 1024)
            if not data:
                break
            received += len(data)
        self.assertLess(received, BIG)


class StrictHttp(BoundsCase):
    def test_requests_a_proxy_could_read_otherwise_are_refused(self):
        post = "POST %s HTTP/1.1\r\nHost: 127.0.0.1\r\n" % DOWNLOAD_PATH
        cases = [
            (post + "Content-Length : 5\r\n\r\nhello", 400),
            (post + "Transfer-Encoding: chunked\r\n\r\n3\r\nabcXX0\r\n\r\n", 400),
            (post + "X-A: a\r\n folded\r\nContent-Length: 0\r\n\r\n", 400),
            ("GET %s HTTP/9.9\r\nHost: 127.0.0.1\r\n\r\n" % DOWNLOAD_PATH, 505),
            ("GET %s\r\n\r\n" % DOWNLOAD_PATH, 400),
        ]
        for request, expected in cases:
            with self.subTest(request[:60]):
                client = socket.create_connection(("127.0.0.1", self.port), timeout=5)
                client.sendall(request.encode())
                reply = client.recv(256)
                client.close()
                self.assertRegex(reply.decode(errors="replace"), r"^HTTP/1\.1 %d " % expected)
        self.assertEqual(self.metrics()["media_gateway_digest_challenges_total"], 0, "a request reached the gateway")


if __name__ == "__main__":
    h.main()
