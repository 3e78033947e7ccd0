"""Interrupted downloads resume byte-exact: Range and If-Range against the real
gateway, with curl, wget -c and tools/fetch-recording, broken at the stream
head, mid-file and one byte before the end."""
import os
import re
import struct
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402
from breaking_proxy import BreakingProxy  # noqa: E402

FETCH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "fetch-recording")
# The README's resume line: the body arrives in $URL's reply to $BODY.
README_ONE_LINER = ('curl -sS --digest -u "$AUTH" -X POST "$URL" -d "$BODY" '
                    '-H "Range: bytes=$(stat -c %s part.bin)-" >> part.bin')


def cut_points(total):
    """Replies broken inside the stream head, mid-file and one byte before the end, in turn."""
    return [20, total // 2 - 20, total - 1 - total // 2]


class ResumeCase(h.GatewayCase):
    def full_body(self, name="clip-a.bin", device=h.DEVICE):
        content = self.recordings[(device, name)]
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(device, name=name)))
        self.assertEqual(len(reply.body), h.HEAD_SIZE + len(content))
        return reply.body

    def fetch(self, port, output, *extra, name="clip-a.bin"):
        command = [sys.executable, FETCH, "--user", "%s:%s" % (h.USER, h.PASSWORD), "--device", h.DEVICE, "--name",
                   name, "--start", h.START, "--end", h.END, "-o", output, "--quiet", "--retries", "3", *extra,
                   "http://127.0.0.1:%d" % port]
        result = subprocess.run(command, capture_output=True, timeout=100)
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())

    def assert_same_file(self, path, expected):
        with open(path, "rb") as source:
            got = source.read()
        self.assertTrue(len(got) == len(expected) and memoryview(got) == memoryview(expected),
                        "%s differs: %d bytes, %d expected" % (path, len(got), len(expected)))

    def broken_then_resumed(self, port, cut, resume):
        """part.bin from a curl download broken after `cut` bytes, completed through `port` by `resume` (bash)."""
        proxy = BreakingProxy(port, [cut])
        self.addCleanup(proxy.close)
        uri = h.playback_uri(name="clip-a.bin")
        subprocess.run(["curl", "-s", "--digest", "-u", "%s:%s" % (h.USER, h.PASSWORD), "-o", "part.bin",
                        *h.json_download_args(proxy.port, uri)], cwd=self.dir, timeout=30)
        self.assertEqual(os.path.getsize(os.path.join(self.dir, "part.bin")), cut)
        json_args = h.json_download_args(port, uri)
        environment = dict(os.environ, AUTH="%s:%s" % (h.USER, h.PASSWORD), URL=json_args[2], BODY=json_args[-1],
                           XML=h.xml_download_args(port, uri)[-1])
        result = subprocess.run(["bash", "-c", resume], cwd=self.dir, env=environment, capture_output=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr.decode() + self.log_tail())
        return os.path.join(self.dir, "part.bin")


class Resume(ResumeCase):
    def test_replies_without_a_usable_range_keep_their_exact_head(self):
        size = len(self.recordings[(h.DEVICE, "clip-a.bin")])
        exact = "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\nContent-Length: %d\r\nConnection: close" % (
            size + h.HEAD_SIZE)
        args = h.json_download_args(self.port, h.playback_uri(name="clip-a.bin"))
        for extra in ([], ["-H", "Range: bytes=0-9,20-29"], ["-H", "Range: bytes=9-5"], ["-H", "If-Range: \"x\""]):
            with self.subTest(extra):
                reply = self.curl(*extra, *args)
                self.assertEqual(reply.headers, exact)
                self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")

    def test_parts_unsatisfiable_ranges_and_a_stale_validator(self):
        body = self.full_body()
        total = len(body)
        first = self.curl("-H", "Range: bytes=0-", *h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")))
        etag = re.search(r"\r\nETag: (\S+)", first.headers).group(1)
        rows = [
            ("bytes=0-19", None, 206, "bytes 0-19/%d" % total, body[:20]),
            ("bytes=20-59", None, 206, "bytes 20-59/%d" % total, body[20:60]),
            ("bytes=%d-" % (total // 2), etag, 206, "bytes %d-%d/%d" % (total // 2, total - 1, total),
             body[total // 2:]),
            ("bytes=-1", None, 206, "bytes %d-%d/%d" % (total - 1, total - 1, total), body[-1:]),
            ("bytes=%d-" % total, None, 416, "bytes */%d" % total, b""),
            ("bytes=40-", '"3004d2-0-0"', 200, None, body),
        ]
        for form in ("json", "xml"):
            for spec, if_range, status, content_range, expected in rows:
                with self.subTest(form=form, range=spec, if_range=if_range):
                    make = h.json_download_args if form == "json" else h.xml_download_args
                    extra = ["-H", "Range: " + spec] + (["-H", "If-Range: " + if_range] if if_range else [])
                    reply = self.curl(*extra, *make(self.port, h.playback_uri(name="clip-a.bin")))
                    self.assertEqual(reply.status, status, reply.headers)
                    self.assertIn("\r\nAccept-Ranges: bytes\r\n", reply.headers)
                    self.assertIn("\r\nETag: %s\r\n" % etag, reply.headers)
                    if content_range:
                        self.assertIn("\r\nContent-Range: %s\r\n" % content_range, reply.headers)
                    self.assertEqual(reply.body, expected)
        self.wait_for_log(r"range bytes=20-59: bytes 20-59/%d" % total)

    def test_curl_one_liner_and_wget_resume_a_broken_download(self):
        body = self.full_body()
        wget = ('wget -q -c --user "${AUTH%%:*}" --password "${AUTH#*:}" --method=GET --body-data="$XML" '
                '-O part.bin "${URL%%\\?*}"')
        for cut in (20, len(body) // 2, len(body) - 1):
            for resume in (README_ONE_LINER, wget):
                with self.subTest(cut=cut, client=resume.split()[0]):
                    self.assert_same_file(self.broken_then_resumed(self.port, cut, resume), body)

    def test_the_client_resumes_by_itself_and_can_leave_out_the_stream_head(self):
        body = self.full_body()
        proxy = BreakingProxy(self.port, cut_points(len(body)) + [1000, 1000])
        self.addCleanup(proxy.close)
        output = os.path.join(self.dir, "whole.bin")
        self.fetch(proxy.port, output)
        self.assert_same_file(output, body)
        # Without the head its bytes are never asked for; breaks still resume.
        self.fetch(proxy.port, output, "--no-stream-head", "--form", "xml")
        self.assert_same_file(output, body[h.HEAD_SIZE:])
        self.assertEqual(proxy.cuts, [])


class LargeResume(ResumeCase):
    SIZE = 200 * 1024 * 1024

    def prepare_media(self):
        self.add_recording(h.CAMERA, "clip-c.bin", 1000)
        self.add_recording(h.DEVICE, "large.bin", 0)  # the index entry; the content follows
        content = os.urandom(self.SIZE)
        with open(os.path.join(self.media, h.DEVICE, "large.bin"), "wb") as out:
            out.write(content)
        self.recordings[(h.DEVICE, "large.bin")] = content

    def test_a_large_download_broken_three_times_arrives_whole(self):
        content = self.recordings[(h.DEVICE, "large.bin")]
        proxy = BreakingProxy(self.port, cut_points(h.HEAD_SIZE + self.SIZE))
        self.addCleanup(proxy.close)
        output = os.path.join(self.dir, "large.bin")
        self.fetch(proxy.port, output, name="large.bin")
        self.assertEqual(proxy.cuts, [], "every break happened")
        with open(output, "rb") as source:
            body = source.read()
        self.assertEqual(struct.unpack_from("<4s4xQ", body), (b"MGRH", self.SIZE))
        self.assertTrue(len(body) == h.HEAD_SIZE + self.SIZE and memoryview(body)[h.HEAD_SIZE:] == content,
                        "the joined download differs")


if __name__ == "__main__":
    h.main()
