"""Interrupted downloads resume byte-exact: Range and If-Range against the real
gateway, with curl, wget -c and tools/fetch-recording, broken inside the stream
head, mid-file and one byte before the end."""
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

import gateway_harness as h
from breaking_proxy import BreakingProxy  # noqa: E402

FETCH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "fetch-recording")
README_ONE_LINER = ('curl -sS --digest -u "$AUTH" -X POST "$URL" -d "$BODY" '
                    '-H "Range: bytes=$(stat -c %s part.bin)-" >> part.bin')


def cut_points(total):
    """Body bytes of each reply in turn: broken inside the stream head, mid-file, one byte before the end."""
    return [20, total // 2 - 20, total - 1 - total // 2]


class ResumeCase(h.GatewayCase):
    def full_body(self):
        body = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin"))).body
        self.assert_recording_body(body, h.DEVICE, "clip-a.bin")
        return body

    def fetch(self, port, output, *extra, name="clip-a.bin"):
        result = subprocess.run([sys.executable, FETCH, "--user", "%s:%s" % (h.USER, h.PASSWORD), "--device", h.DEVICE,
                                 "--name", name, "--start", h.START, "--end", h.END, "-o", output, "--quiet", *extra,
                                 "http://127.0.0.1:%d" % port], capture_output=True, timeout=100)
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())

    def assert_same_file(self, path, expected):
        with open(path, "rb") as source:
            got = source.read()
        self.assertTrue(len(got) == len(expected) and memoryview(got) == memoryview(expected), path + " differs")

    def resumed(self, port, part, line):
        """part.bin, holding `part` as a broken download left it, after the bash line resumed it through `port`."""
        with open(os.path.join(self.dir, "part.bin"), "wb") as out:
            out.write(part)
        uri = h.playback_uri(name="clip-a.bin")
        json_args = h.json_download_args(port, uri)
        environment = dict(os.environ, AUTH="%s:%s" % (h.USER, h.PASSWORD), URL=json_args[2], BODY=json_args[-1],
                           XML=h.xml_download_args(port, uri)[-1])
        result = subprocess.run(["bash", "-c", line], cwd=self.dir, env=environment, capture_output=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())
        return os.path.join(self.dir, "part.bin")


class Resume(ResumeCase):
    def test_parts_unsatisfiable_ranges_and_a_stale_validator(self):
        body = self.full_body()
        total, half = len(body), len(body) // 2
        first = self.curl("-H", "Range: bytes=0-", *h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")))
        etag = re.search(r"\r\nETag: (\S+)", first.headers).group(1)
        rows = [("bytes=0-19", None, 206, "0-19", body[:20]), ("bytes=20-59", None, 206, "20-59", body[20:60]),
                ("bytes=%d-" % half, etag, 206, "%d-%d" % (half, total - 1), body[half:]),
                ("bytes=-1", None, 206, "%d-%d" % (total - 1, total - 1), body[-1:]),
                ("bytes=%d-" % total, None, 416, "*", b""), ("bytes=40-", '"3004d2-0-0"', 200, None, body)]
        for make in (h.json_download_args, h.xml_download_args):
            for bounds, if_range, status, served, expected in rows:
                extra = ["-H", "Range: " + bounds] + (["-H", "If-Range: " + if_range] if if_range else [])
                reply = self.curl(*extra, *make(self.port, h.playback_uri(name="clip-a.bin")))
                self.assertEqual((reply.status, reply.body), (status, expected), reply.headers)
                self.assertIn("\r\nAccept-Ranges: bytes\r\nETag: %s\r\n" % etag, reply.headers)
                if served:
                    self.assertIn("\r\nContent-Range: bytes %s/%d\r\n" % (served, total), reply.headers)
        self.wait_for_log(r"range bytes=20-59: bytes 20-59/%d" % total)

    def test_curl_one_liner_and_wget_complete_a_broken_download(self):
        body = self.full_body()
        wget = 'wget -q -c --user "${AUTH%%:*}" --password "${AUTH#*:}" --method=GET --body-data="$XML" ' \
               '-O part.bin "${URL%%\\?*}"'
        for cut in (20, len(body) // 2, len(body) - 1):
            for line in (README_ONE_LINER, wget):
                with self.subTest(cut=cut, client=line.split()[0]):
                    self.assert_same_file(self.resumed(self.port, body[:cut], line), body)


class LargeResume(ResumeCase):
    SIZE = 200 * 1024 * 1024

    def prepare_media(self):
        self.add_recording(h.CAMERA, "clip-c.bin", 1000)
        self.add_recording(h.DEVICE, "large.bin", 0)  # the index entry; the content follows
        self.recordings[(h.DEVICE, "large.bin")] = os.urandom(self.SIZE)
        with open(os.path.join(self.media, h.DEVICE, "large.bin"), "wb") as out:
            out.write(self.recordings[(h.DEVICE, "large.bin")])

    def test_the_client_resumes_a_large_download_by_itself(self):
        content, output = self.recordings[(h.DEVICE, "large.bin")], os.path.join(self.dir, "large.bin")
        proxy = BreakingProxy(self.port, cut_points(h.HEAD_SIZE + self.SIZE) + [self.SIZE // 3])
        self.addCleanup(proxy.close)
        self.fetch(proxy.port, output, name="large.bin")
        with open(output, "rb") as source:
            self.assert_recording_body(source.read(), h.DEVICE, "large.bin")
        # Without the stream head its bytes are never asked for.
        self.fetch(proxy.port, output, "--no-stream-head", "--form", "xml", name="large.bin")
        self.assert_same_file(output, content)
        self.assertEqual(proxy.cuts, [], "every break happened")


class Interrupted(unittest.TestCase):
    def test_ctrl_c_stops_the_client_with_a_word_not_a_traceback(self):
        server = socket.create_server(("127.0.0.1", 0))  # takes the request and never answers
        self.addCleanup(server.close)
        server.settimeout(30)
        folder = tempfile.TemporaryDirectory(prefix="gateway-e2e-")
        self.addCleanup(folder.cleanup)
        output = os.path.join(folder.name, "clip.bin")
        client = subprocess.Popen([sys.executable, FETCH, "--user", "%s:%s" % (h.USER, h.PASSWORD), "--device",
                                   h.DEVICE, "--name", "clip.bin", "--start", h.START, "--end", h.END, "-o", output,
                                   "http://127.0.0.1:%d" % server.getsockname()[1]], stderr=subprocess.PIPE)
        connection, _ = server.accept()
        self.addCleanup(connection.close)
        connection.recv(65536)  # the request came: the client waits for the answer
        client.send_signal(signal.SIGINT)
        errors = client.communicate(timeout=30)[1].decode()
        self.assertEqual(client.returncode, 130, errors)
        self.assertNotIn("Traceback", errors)
        self.assertIn("fetch-recording: stopped; 0 bytes kept in %s.part, the same command resumes" % output, errors)


if __name__ == "__main__":
    h.main()
