#!/usr/bin/env python3
"""Bounded soak of media-gateway with the HTTP plug-in (Python 3 standard library only).

    tools/soak.py [--build DIR] [--seconds N] [--clients N] [--skip KIND,...] [--keep]

Starts the gateway from DIR (default: build) on a free loopback port with its own
temporary media folder, drives mixed concurrent load for N seconds (default
SOAK_SECONDS or 600) and then checks that the gateway went back to idle: no open
stream in its status file, the same number of descriptors and threads as before
any load, RSS at most --rss-limit-mib above its level after a short warm-up,
and exit code 0 on SIGTERM.

The load, per client thread, is a random mix of:
  downloads     JSON POST (Content-Length with name and size, chunked without),
                XML GET with a body (addressed by RTSP port or by camera path);
                every body is checked byte for byte against the recording
  stalls        a download read in part, then left unread for seconds (within
                the 5 s send time-out), then finished and checked, or dropped;
                rarely left unread past the send time-out, when the gateway
                must give up and close (unless the kernel let bytes trickle
                through meanwhile)
  hang-ups      mid-download (FIN or RST), right after the request, and
                mid-request (partial head or body), or a partial head held until
                the server drops it at the head's deadline
  refusals      garbage, oversized head, bad chunked framing, wrong Digest,
                no credentials (401 challenge), unknown device, no recording
  talks         open, both links, audio both ways, close; a client that drops
                both links mid-talk; one that never reads its GET link; one
                that opens and never links; two users talking at once on
                neighbouring channels. After every talk that spoke, the device's
                capture file must hold every byte that was said, and only those
Any reply other than the expected one, a wrong body, or a gateway that dies ends
the load at once; the end checks still run. Exit code 0 only when all passed.
"""
import argparse
import fcntl
import glob
import json
import os
import random
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time

import gateway_client
import talk

USER, PASSWORD, REALM = "admin", "soak-secret", "soak-realm"
OTHER_USER, OTHER_PASSWORD = "second", "soak-second"   # the other user of neighbouring talks
# One talking device each (channels 1 and 2 are those of DEVICE and CAMERA, by their place); a talk
# scenario holds its channel(s) while it runs.
TALK_CHANNELS = range(3, 11)
TALK_PACKET, TALK_PERIOD = 160, 0.020  # PCMU
DEVICE = "50a40000-0000-4000-8000-000000000001"   # RTSP port 554, addressed by devIndex or port
CAMERA = "50a40000-0000-4000-8000-00000000ca3e"   # RTSP port 8554, addressed by camera path as well
UNKNOWN = "50a40000-0000-4000-8000-00000000dead"
HEAD_SIZE = 40                       # the stream head the gateway sends before the file
DOWNLOAD_PATH = "/QUMEX/ContentMgmt/download"
JSON_PATH = DOWNLOAD_PATH + "?format=json&devIndex=%s"

READ_TIMEOUT = 30          # no reply may take longer than this (the plug-in's own limits are 5 s per send)
HEAD_TIMEOUT_S = 10        # the gateway's time for a whole request head (server.headTimeout)
SEND_STALL_LIMIT_S = 5     # the gateway ends a download whose client takes nothing for this long (sendTimeout)
NONCE_REFRESH_S = 120      # well inside the gateway's default nonce lifetime of 300 s
PROGRESS_EVERY_S = 10
WARMUP_S = 20
QUIESCE_S = 90             # longer than the plug-in's session time-out (6 passes of 10 s) with margin
MIB = 1024 * 1024

# (device, name, size, hour): each recording gets its own hour, so a query by
# time alone (the chunked JSON form) names exactly one. Sizes cover a tiny file,
# one exactly a block long, odd sizes across blocks, and one too big to sit in
# the socket buffers (for the stalls).
RECORDINGS = [
    (DEVICE, "tiny.bin", 517, 0),
    (DEVICE, "one-block.bin", 256 * 1024, 1),
    (DEVICE, "medium.bin", 300 * 1024 + 5, 2),
    (DEVICE, "large.bin", 3 * MIB + 17, 3),
    (CAMERA, "camera-a.bin", 200 * 1024 + 7, 4),
    (CAMERA, "camera-b.bin", 1 * MIB + 333, 5),
]


def stall_recording():
    """The recording only the stall kinds fetch: so big that what is left after
    the client's first 2 MiB cannot all wait in the socket buffers (the sender's
    is at most tcp_wmem's maximum), so a client that stops reading holds the
    gateway's delivery back."""
    with open("/proc/sys/net/ipv4/tcp_wmem") as source:
        send_buffer_max = int(source.read().split()[2])
    return (DEVICE, "stall.bin", 2 * send_buffer_max + 4 * MIB + 1, 6)


class Failure(Exception):
    """An unexpected reply or behaviour of the gateway."""


class ClosedEarly(Exception):
    """The server closed the connection before the reply was whole."""


class Recording:
    def __init__(self, device, name, size, hour):
        self.device, self.name, self.size = device, name, size
        self.start = "20260101T%02d0000Z" % hour
        self.end = "20260101T%02d1000Z" % hour
        self.content = random.Random(name).randbytes(size)
        self.rtsp_port = 554 if device == DEVICE else 8554


def talk_device(channel):
    return "50a40000-0000-4000-8000-0000000071%02d" % channel


def write_media(folder):
    """<media>/<devIndex>/<file> plus each device's recordings.json index."""
    recordings = [Recording(*fields) for fields in RECORDINGS + [stall_recording()]]
    for device in (DEVICE, CAMERA):
        os.makedirs(os.path.join(folder, device))
        index = []
        for rec in recordings:
            if rec.device == device:
                with open(os.path.join(folder, device, rec.name), "wb") as out:
                    out.write(rec.content)
                index.append({"name": rec.name, "starttime": rec.start, "endtime": rec.end})
        with open(os.path.join(folder, device, "recordings.json"), "w") as out:
            json.dump({"recordings": index}, out)
    for channel in TALK_CHANNELS:
        os.makedirs(os.path.join(folder, talk_device(channel)))
        with open(os.path.join(folder, talk_device(channel), "recordings.json"), "w") as out:
            json.dump({"recordings": []}, out)
    return recordings[:-1], recordings[-1]


# ---------------------------------------------------------------- the gateway

class Gateway(gateway_client.GatewayProcess):
    def __init__(self, build, workdir):
        binary = os.path.join(build, "bin", "media-gateway")
        self.plugin = os.path.join(build, "lib", "libHttpProtocolWrapper.so")
        for required in (binary, self.plugin):
            if not os.path.exists(required):
                sys.exit("soak: %s is missing; build first" % required)
        super().__init__(binary, workdir)
        self.port = gateway_client.free_port_pair()  # the audio channel takes the next port

    def start(self, media):
        super().start({
            "server": {"httpPort": self.port},  # default threads, send and receive time-outs
            "auth": {"realm": REALM, "users": [{"name": USER, "password": PASSWORD},
                                               {"name": OTHER_USER, "password": OTHER_PASSWORD}]},
            "media": {"folder": media, "devices": [
                {"devIndex": DEVICE, "address": "127.0.0.1", "rtspPort": 554},
                {"devIndex": CAMERA, "address": "127.0.0.1", "rtspPort": 8554}] + [
                {"devIndex": talk_device(channel), "address": "127.0.0.1", "rtspPort": 9000 + channel,
                 "talk": {"channel": channel, "codec": "PCMU", "capture": True}}
                for channel in TALK_CHANNELS]},
            "log": {"level": "info"},
            "plugin": self.plugin,
        })
        if not self.wait_ready(15):
            self.check_alive()
            raise Failure("the gateway did not become ready in 15 s")

    def check_alive(self):
        if not self.alive():
            raise Failure("the gateway exited with %s" % gateway_client.describe_exit(self.process.returncode))

    def sample(self):
        """What the soak watches: memory, descriptors, threads, and the status file's streams."""
        sample = self.resources()
        status = self.status()
        sample.update({"open_streams": status.get("openStreams"), "opened": status.get("opened"),
                       "closed": status.get("closed"), "open_talks": status.get("openTalks")})
        return sample

    def stop(self):
        """SIGTERM; the exit code must be 0 within 30 s."""
        code = super().stop(30)
        if code is None:
            raise Failure("the gateway did not stop within 30 s of SIGTERM (killed)")
        if code != 0:
            raise Failure("the gateway stopped with %s, not exit code 0" % gateway_client.describe_exit(code))


def format_sample(sample):
    return "RSS %.1f MiB, fds %d, threads %d, open streams %s" % (
        sample["rss"] / MIB, sample["fds"], sample["threads"], sample["open_streams"])


# ------------------------------------------------------------------ HTTP client

class Client:
    """One raw HTTP/1.1 connection: the server answers one request per connection."""

    def __init__(self, port, receive_buffer=None):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer:
            # Set before connecting, so the window stays small and a stalled
            # reader really holds the server back.
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.sock.settimeout(READ_TIMEOUT)
        try:
            self.sock.connect(("127.0.0.1", port))
        except OSError:
            self.sock.close()
            raise
        self.buffer = bytearray()

    def close(self, reset=False):
        if reset:
            # A zero linger time makes close send RST: a client that vanishes.
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()

    def send(self, data):
        self.sock.sendall(data)

    def queued(self):
        """Bytes received by the kernel but not yet read."""
        return struct.unpack("i", fcntl.ioctl(self.sock.fileno(), termios.FIONREAD, b"\0" * 4))[0]

    def more(self):
        try:
            data = self.sock.recv(1 << 18)
        except socket.timeout:
            raise Failure("no data from the server for %d s" % READ_TIMEOUT)
        except ConnectionResetError:
            raise ClosedEarly("connection reset after %d buffered bytes" % len(self.buffer))
        if not data:
            raise ClosedEarly("connection closed after %d buffered bytes" % len(self.buffer))
        self.buffer += data

    def prefetch(self, count):
        """Receives at least count bytes but leaves them unparsed."""
        while len(self.buffer) < count:
            self.more()

    def take(self, count):
        self.prefetch(count)
        data = bytes(self.buffer[:count])
        del self.buffer[:count]
        return data

    def take_until(self, marker, limit=64 * 1024):
        while True:
            found = self.buffer.find(marker)
            if found >= 0:
                return self.take(found + len(marker))
            if len(self.buffer) > limit:
                raise Failure("no %r within %d bytes" % (marker, limit))
            self.more()

    def read_head(self):
        """(status, headers with lower-case names); the status is the second word of the line."""
        head = self.take_until(b"\r\n\r\n").decode("latin-1")
        lines = head.split("\r\n")
        words = lines[0].split(" ")
        if len(words) < 2 or not words[0].startswith("HTTP/1.") or not words[1].isdigit():
            raise Failure("bad status line %r" % lines[0])
        headers = {}
        for line in lines[1:]:
            if line:
                name, _, value = line.partition(":")
                headers[name.strip().lower()] = value.strip()
        return int(words[1]), headers

    def read_body(self, headers):
        if headers.get("transfer-encoding", "").lower() == "chunked":
            body = bytearray()
            while True:
                line = self.take_until(b"\r\n", limit=256)
                try:
                    size = int(line.split(b";")[0], 16)
                except ValueError:
                    raise Failure("bad chunk-size line %r" % line)
                if size == 0:
                    if self.take_until(b"\r\n", limit=256) != b"\r\n":
                        raise Failure("trailer after the last chunk")
                    return bytes(body)
                body += self.take(size)
                if self.take(2) != b"\r\n":
                    raise Failure("chunk of %d bytes not followed by CRLF" % size)
        if "content-length" in headers:
            return self.take(int(headers["content-length"]))
        raise Failure("reply with neither Content-Length nor chunked framing: %r" % headers)

    def read_reply(self):
        status, headers = self.read_head()
        return status, headers, self.read_body(headers)

    def read_to_end(self):
        """Whatever arrives until the server closes."""
        try:
            while True:
                self.more()
        except ClosedEarly:
            return bytes(self.buffer)


def request_bytes(method, target, body=b"", headers=()):
    lines = ["%s %s HTTP/1.1" % (method, target), "Host: 127.0.0.1"]
    lines += list(headers)
    if body:
        lines.append("Content-Length: %d" % len(body))
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


# ------------------------------------------------------------------ downloads

class Download:
    """One download request in one of the four shapes, and what must come back."""

    FORMS = ("json-length", "json-chunked", "xml-port", "xml-camera")

    def __init__(self, rec, form):
        self.rec, self.form = rec, form
        self.chunked = form == "json-chunked"
        times = "starttime=%s&endtime=%s" % (rec.start, rec.end)
        if form.startswith("json"):
            uri = "rtsp://127.0.0.1:%d/Streaming/tracks/101/playback?%s" % (rec.rtsp_port, times)
            if not self.chunked:  # name and size make the length known up front
                uri += "&name=%s&size=%d" % (rec.name, rec.size)
            uri += "&devIndex=%s" % rec.device
            self.method, self.path = "POST", JSON_PATH % rec.device
            self.content_type = "application/json"
            self.body = json.dumps({"downloadRequest": {"playbackURI": uri}}).encode()
        else:
            if form == "xml-port":
                uri = "rtsp://127.0.0.1:%d/Streaming/tracks/101/playback?%s&name=%s" % (
                    rec.rtsp_port, times, rec.name)
            else:
                uri = "rtsp://127.0.0.1:8554/camera/%s/playback?%s" % (rec.device, times)
            self.method, self.path = "GET", DOWNLOAD_PATH
            self.content_type = "application/xml"
            self.body = ("<downloadRequest><playbackURI>%s</playbackURI></downloadRequest>"
                         % uri.replace("&", "&amp;")).encode()

    def request(self, authorization, extra_headers=()):
        return request_bytes(self.method, self.path, self.body, [
            "Content-Type: " + self.content_type, "Authorization: " + authorization, *extra_headers])

    def check_head(self, status, headers):
        if status != 200:
            raise Failure("%s %s: status %d, expected 200" % (self.form, self.rec.name, status))
        if self.chunked:
            if headers.get("transfer-encoding", "").lower() != "chunked" or "content-length" in headers:
                raise Failure("%s %s: not chunked: %r" % (self.form, self.rec.name, headers))
        elif headers.get("content-length") != str(HEAD_SIZE + self.rec.size) or "transfer-encoding" in headers:
            raise Failure("%s %s: Content-Length %s, expected %d" % (
                self.form, self.rec.name, headers.get("content-length"), HEAD_SIZE + self.rec.size))

    def check_body(self, body):
        """The 40-byte stream head naming the file's length, then the file byte for byte."""
        rec = self.rec
        if len(body) != HEAD_SIZE + rec.size:
            raise Failure("%s %s: body of %d bytes, expected %d" % (self.form, rec.name, len(body),
                                                                    HEAD_SIZE + rec.size))
        head = struct.unpack_from("<4sHHQ", body)
        if head != (b"MGRH", 1, HEAD_SIZE, rec.size):
            raise Failure("%s %s: stream head %r" % (self.form, rec.name, head))
        if body[HEAD_SIZE:] != rec.content:
            raise Failure("%s %s: body differs from the recording" % (self.form, rec.name))


# ------------------------------------------------------------------ the load

class Load:
    """Client threads running random scenarios until stopped, with shared counters."""

    def __init__(self, gateway, recordings, big, clients, skip=()):
        self.gateway, self.recordings, self.big, self.clients = gateway, recordings, big, clients
        self.stop_event = threading.Event()
        self.lock = threading.Lock()
        self.counts = {}
        self.failures = []
        self.in_flight = 0
        # (kind, weight): a stall or a held request lasts seconds to a minute and
        # a quick request a fraction of a second, so the slow kinds are picked
        # rarely; even so they hold most clients at any time (some 40-50 open
        # streams), while the rest churn through a few hundred requests a second.
        self.kinds = [
            ("json-length", 12), ("json-chunked", 12), ("xml-port", 10), ("xml-camera", 10),
            ("stall-resume", 0.6), ("stall-drop", 0.5), ("stall-out", 0.05),
            ("drop-download", 6), ("drop-after-request", 3), ("drop-request", 4), ("hold-request", 0.15),
            ("garbage", 3), ("oversized", 3), ("bad-chunked", 3), ("wrong-digest", 3),
            ("no-credentials", 3), ("refused", 3),
            ("talk-both-ways", 1), ("talk-drop", 0.5), ("talk-deaf", 0.3), ("talk-unlinked", 0.5),
            ("talk-neighbours", 0.3),
        ]
        self.media = os.path.join(gateway.workdir, "media")
        self.free_channels = set(TALK_CHANNELS)
        unknown = set(skip) - {kind for kind, _ in self.kinds}
        if unknown:
            raise Failure("unknown kind(s) to skip: %s" % ", ".join(sorted(unknown)))
        self.kinds = [(kind, weight) for kind, weight in self.kinds if kind not in skip]

    def run(self, seconds, progress=None):
        """Runs the load for `seconds` (or until a failure); True when no failure was seen."""
        self.stop_event.clear()
        workers = [threading.Thread(target=self.worker, args=(i,), daemon=True) for i in range(self.clients)]
        for worker in workers:
            worker.start()
        started = time.monotonic()
        next_report = started + PROGRESS_EVERY_S
        while not self.stop_event.is_set() and time.monotonic() - started < seconds:
            self.stop_event.wait(0.5)
            try:
                self.gateway.check_alive()
            except Failure as failure:
                self.fail(str(failure))
            if progress and time.monotonic() >= next_report:
                next_report += PROGRESS_EVERY_S
                progress(time.monotonic() - started)
        self.stop_event.set()
        # Every scenario ends within one read time-out once told to stop.
        for worker in workers:
            worker.join(timeout=READ_TIMEOUT + 10)
            if worker.is_alive():
                self.fail("a client thread did not finish within %d s of the stop" % (READ_TIMEOUT + 10))
                break
        return not self.failures

    def fail(self, message):
        with self.lock:
            self.failures.append(message)
            if len(self.failures) == 1:
                print("soak: FAILURE: %s" % message, flush=True)
        self.stop_event.set()

    def worker(self, index):
        rng = random.Random(index * 7919 + int(time.time()))
        kinds, weights = zip(*self.kinds)
        digest = gateway_client.Digest(USER, PASSWORD)
        nonce_time = 0
        while not self.stop_event.is_set():
            kind = rng.choices(kinds, weights)[0]
            with self.lock:
                self.in_flight += 1
            try:
                if not digest.ready or time.monotonic() - nonce_time > NONCE_REFRESH_S:
                    digest.learn(self.challenge(rng))
                    nonce_time = time.monotonic()
                    self.count("no-credentials")
                getattr(self, "run_" + kind.replace("-", "_"))(rng, digest)
                self.count(kind)
            except (Failure, ClosedEarly, OSError) as failure:
                self.fail("%s: %s: %s" % (kind, type(failure).__name__, failure))
            finally:
                with self.lock:
                    self.in_flight -= 1

    def count(self, kind):
        with self.lock:
            self.counts[kind] = self.counts.get(kind, 0) + 1

    def pause(self, seconds):
        """Sleeps like a stalled reader; False when the soak is stopping meanwhile."""
        return not self.stop_event.wait(seconds)

    def connect(self, receive_buffer=None):
        return Client(self.gateway.port, receive_buffer)

    # --- downloads

    def download(self, rng, form=None, rec=None):
        return Download(rec or rng.choice(self.recordings), form or rng.choice(Download.FORMS))

    def fetch(self, download, digest):
        client = self.connect()
        try:
            client.send(download.request(digest.authorization(download.method, download.path)))
            status, headers = client.read_head()
            download.check_head(status, headers)
            download.check_body(client.read_body(headers))
        finally:
            client.close()

    def run_json_length(self, rng, digest):
        self.fetch(self.download(rng, "json-length"), digest)

    def run_json_chunked(self, rng, digest):
        self.fetch(self.download(rng, "json-chunked"), digest)

    def run_xml_port(self, rng, digest):
        self.fetch(self.download(rng, "xml-port"), digest)

    def run_xml_camera(self, rng, digest):
        self.fetch(self.download(rng, "xml-camera"), digest)

    def start_stalled(self, rng, digest):
        """A download of the big recording, read up to a random point past the head."""
        download = self.download(rng, rec=self.big)
        client = self.connect(receive_buffer=64 * 1024)
        client.send(download.request(digest.authorization(download.method, download.path)))
        status, headers = client.read_head()
        download.check_head(status, headers)
        client.prefetch(rng.randrange(0, 2 * MIB))
        return download, client, headers

    def run_stall_resume(self, rng, digest):
        # Within the send time-out, counted from when the socket's buffers are full.
        download, client, headers = self.start_stalled(rng, digest)
        try:
            if self.pause(rng.uniform(1, SEND_STALL_LIMIT_S * 0.7)):
                download.check_body(client.read_body(headers))
        finally:
            client.close()

    def run_stall_drop(self, rng, digest):
        _, client, _ = self.start_stalled(rng, digest)
        self.pause(rng.uniform(1, 15))
        client.close(reset=rng.random() < 0.5)

    def run_stall_out(self, rng, digest):
        # Past the send-stall limit the gateway must give up: what is left in the
        # socket buffers arrives, then the connection closes short of the length.
        # Under memory pressure the kernel may still let a few bytes through the
        # closed window; that is progress to the gateway, which then rightly
        # keeps going, so a whole body is accepted only when bytes did arrive
        # during the stall.
        _, client, headers = self.start_stalled(rng, digest)
        try:
            # Measured once the window has filled, two seconds into the stall.
            if not self.pause(2):
                return
            queued = client.queued()
            if self.pause(SEND_STALL_LIMIT_S + 18):
                trickled = client.queued() > queued
                try:
                    body = client.read_body(headers)
                except ClosedEarly:
                    return
                if not trickled:
                    raise Failure("no byte arrived for %d s, yet the gateway did not give up (%d bytes)" % (
                        SEND_STALL_LIMIT_S + 20, len(body)))
                self.count("stall-out-trickled")
        finally:
            client.close()

    def run_drop_download(self, rng, digest):
        download = self.download(rng)
        client = self.connect()
        client.send(download.request(digest.authorization(download.method, download.path)))
        status, headers = client.read_head()
        download.check_head(status, headers)
        client.prefetch(rng.randrange(0, HEAD_SIZE + download.rec.size))
        client.close(reset=rng.random() < 0.5)

    def run_drop_after_request(self, rng, digest):
        # Gone before the plug-in has even looked at the request.
        download = self.download(rng)
        client = self.connect()
        client.send(download.request(digest.authorization(download.method, download.path)))
        client.close(reset=rng.random() < 0.5)

    def run_drop_request(self, rng, digest):
        download = self.download(rng)
        whole = download.request(digest.authorization(download.method, download.path))
        client = self.connect()
        client.send(whole[:rng.randrange(1, len(whole) - 1)])  # part of the head or of the body
        client.close(reset=rng.random() < 0.5)

    def run_hold_request(self, rng, digest):
        # A partial head held open: the server must drop it, without a reply, at the head's deadline.
        download = self.download(rng)
        whole = download.request(digest.authorization(download.method, download.path))
        client = self.connect()
        try:
            client.send(whole[:rng.randrange(1, whole.index(b"\r\n\r\n"))])
            started = time.monotonic()
            client.sock.settimeout(1)
            while time.monotonic() - started < HEAD_TIMEOUT_S + 10:
                if self.stop_event.is_set():
                    return
                try:
                    data = client.sock.recv(4096)
                except socket.timeout:
                    continue
                except ConnectionResetError:
                    data = b""
                if data:
                    raise Failure("reply %r to a request that never ended" % data[:80])
                return
            raise Failure("a partial request was held open for %d s" % (HEAD_TIMEOUT_S + 10))
        finally:
            client.close()

    # --- refusals

    def expect(self, data, status, what, body_check=None):
        client = self.connect()
        try:
            client.send(data)
            got, headers, body = client.read_reply()
        finally:
            client.close()
        if got != status:
            raise Failure("%s: status %d, expected %d (body %r)" % (what, got, status, body[:200]))
        if body_check and not body_check(headers, body):
            raise Failure("%s: unexpected reply %r %r" % (what, headers, body[:300]))

    def challenge(self, rng):
        """No credentials: 401 with a Digest challenge; returns it."""
        download = self.download(rng)
        client = self.connect()
        try:
            client.send(request_bytes(download.method, download.path, download.body,
                                      ["Content-Type: " + download.content_type]))
            status, headers, body = client.read_reply()
        finally:
            client.close()
        match = re.match(r'Digest qop="auth", realm="([^"]*)", nonce="([0-9a-f]+)"',
                         headers.get("www-authenticate", ""))
        if status != 401 or not match or match.group(1) != REALM:
            raise Failure("no-credentials: status %d, challenge %r" % (status, headers.get("www-authenticate")))
        if json.loads(body).get("subStatusCode") != "badAuthorization":
            raise Failure("no-credentials: body %r" % body[:200])
        return headers["www-authenticate"]

    def run_no_credentials(self, rng, digest):
        self.challenge(rng)

    def run_wrong_digest(self, rng, digest):
        # A guesser of its own, user and address: the gateway throttles guessing per
        # user and per address, which must not lock out the soak's real downloads.
        download = self.download(rng)
        guesser = gateway_client.Digest("intruder", "guess")
        guesser.realm, guesser.nonce = digest.realm, digest.nonce
        wrong = guesser.authorization(download.method, download.path)
        if download.form.startswith("json"):
            check = lambda headers, body: json.loads(body).get("subStatusCode") == "badAuthorization"
        else:
            check = lambda headers, body: body == b""  # the XML form answers with a bare 401
        address = "X-Forwarded-For: 192.0.2.%d" % rng.randrange(1, 255)
        self.expect(download.request(wrong, [address]), 401, "wrong-digest " + download.form, check)

    def run_refused(self, rng, digest):
        if rng.random() < 0.5:
            uri = "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=20260101T000000Z" \
                  "&endtime=20260101T001000Z&devIndex=" + UNKNOWN
            device, sub = UNKNOWN, "badDevIndex"
        else:
            uri = "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=20250101T000000Z" \
                  "&endtime=20250101T001000Z&devIndex=" + DEVICE
            device, sub = DEVICE, "noRecord"
        path = JSON_PATH % device
        body = json.dumps({"downloadRequest": {"playbackURI": uri}}).encode()
        data = request_bytes("POST", path, body, ["Content-Type: application/json",
                                                  "Authorization: " + digest.authorization("POST", path)])
        self.expect(data, 403, "refused " + sub, lambda headers, body: json.loads(body).get("subStatusCode") == sub)

    def run_garbage(self, rng, digest):
        garbage = rng.choice([
            b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(rng.randrange(256) for _ in range(200)),
            b"\x00" * rng.randrange(1, 300) + b"\r\n\r\n",
            b"GET / HTTP/9\x01\r\n\r\n",
            b"POST " + DOWNLOAD_PATH.encode() + b" HTTP/1.1\r\nContent-Length: -5\r\n\r\n",
            b"GET " + DOWNLOAD_PATH.encode() + b" HTTP/1.1\r\nBad\x01Name: x\r\n\r\n",
        ])
        self.expect(garbage, 400, "garbage")

    def run_oversized(self, rng, digest):
        choice = rng.randrange(3)
        if choice == 0:    # header block past 8 KiB
            data = request_bytes("GET", DOWNLOAD_PATH, headers=["X-Filler: " + "a" * (9 * 1024)])
        elif choice == 1:  # request line past 8 KiB
            data = request_bytes("GET", DOWNLOAD_PATH + "?q=" + "b" * (9 * 1024))
        else:              # body announced past 1 MiB
            data = request_bytes("POST", JSON_PATH % DEVICE, headers=["Content-Length: %d" % (2 * MIB)])
        self.expect(data, 413, "oversized")

    def run_bad_chunked(self, rng, digest):
        framing = rng.choice([b"zz\r\nabc\r\n0\r\n\r\n", b"3\r\nabc\r\nxyz\r\n0\r\n\r\n", b"-1\r\n\r\n"])
        data = request_bytes("POST", JSON_PATH % DEVICE, headers=["Transfer-Encoding: chunked"]) + framing
        self.expect(data, 400, "bad-chunked")


# ------------------------------------------------------------------ the soak

    # --- talks

    def run_talk_both_ways(self, rng, digest):
        self.with_channels(rng, 1, lambda channels: self.talk_scenario(channels, seconds=rng.uniform(0.5, 2)))

    def run_talk_drop(self, rng, digest):
        self.with_channels(rng, 1, lambda channels: self.talk_scenario(channels, seconds=rng.uniform(0.3, 1.5),
                                                                       drop=True))

    def run_talk_deaf(self, rng, digest):
        self.with_channels(rng, 1, lambda channels: self.talk_scenario(channels, seconds=rng.uniform(1, 2),
                                                                       deaf=True))

    def run_talk_unlinked(self, rng, digest):
        self.with_channels(rng, 1, lambda channels: self.talk_scenario(channels, seconds=rng.uniform(0.2, 1),
                                                                       linked=False))

    def run_talk_neighbours(self, rng, digest):
        self.with_channels(rng, 2, lambda channels: self.talk_scenario(channels, seconds=rng.uniform(0.5, 2)))

    def with_channels(self, rng, count, scenario):
        """Runs scenario on count neighbouring channels no other client talks on; skipped when none are free."""
        with self.lock:
            starts = [first for first in self.free_channels
                      if all(first + i in self.free_channels for i in range(count))]
            channels = None
            if starts:
                first = rng.choice(sorted(starts))
                channels = list(range(first, first + count))
                self.free_channels.difference_update(channels)
        if not channels:
            self.pause(0.05)
            return
        try:
            scenario(channels)
        except talk.TalkError as failure:
            raise Failure("talk on channel(s) %s: %s" % (channels, failure))
        finally:
            with self.lock:
                self.free_channels.update(channels)

    def talk_scenario(self, channels, seconds, drop=False, deaf=False, linked=True):
        """Talks on every channel at once, each as the user its channel belongs to (odd: one user, even: the
        other, so neighbouring channels are two users' talks), then checks every capture file."""
        port = self.gateway.port
        talks = []
        try:
            for channel in channels:
                user, password = (USER, PASSWORD) if channel % 2 else (OTHER_USER, OTHER_PASSWORD)
                entry = {"channel": channel, "digest": talk.Digest(user, password), "said": bytearray(), "heard": 0,
                         "before": self.captures_of(channel), "links": []}
                talks.append(entry)
                body = talk.talk_request("127.0.0.1", port, entry["digest"], channel, "open")
                session = re.search(r"<sessionId>([0-9]+)</sessionId>", body).group(1)
                if not linked:
                    continue
                listener, early = talk.open_link("127.0.0.1", port + 1, port, entry["digest"], "GET", channel,
                                                 session)
                if deaf:
                    listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
                listener.setblocking(False)
                speaker, _ = talk.open_link("127.0.0.1", port + 1, port, entry["digest"], "PUT", channel, session)
                entry["links"] = [speaker, listener]
                entry["heard"] = len(early)
            # Audio both ways at the codec's pace; each channel says its own bytes.
            next_time = end = time.monotonic()
            end += seconds
            while time.monotonic() < end and not self.stop_event.is_set():
                for entry in talks:
                    if not entry["links"]:
                        continue
                    packet = bytes((entry["channel"] * 37 + len(entry["said"]) + i) & 0xFF
                                   for i in range(TALK_PACKET))
                    entry["links"][0].sendall(packet)
                    entry["said"] += packet
                    while not deaf:
                        try:
                            heard = entry["links"][1].recv(65536)
                        except BlockingIOError:
                            break
                        if not heard:
                            raise Failure("channel %d: the GET link closed mid-talk" % entry["channel"])
                        entry["heard"] += len(heard)
                next_time += TALK_PERIOD
                time.sleep(max(0.0, next_time - time.monotonic()))
            if drop:
                self.close_links(talks)  # gone without closing the talk, which its PUT link's end ends
            for entry in talks:
                self.close_talk(entry, drop)
        finally:
            self.close_links(talks)
        for entry in talks:
            if linked and not deaf and seconds >= 0.5 and entry["heard"] == 0 and not self.stop_event.is_set():
                raise Failure("channel %d: nothing heard from the device in %.1f s" % (entry["channel"], seconds))
            self.check_capture(entry["channel"], entry["before"], bytes(entry["said"]))

    def close_talk(self, entry, dropped):
        """Closes the talk. After a drop the talk ends by itself: the close finds none (badParameters), or one
        whose end is under way (invalidOperation), and is asked again until the channel is free for the next."""
        deadline = time.monotonic() + READ_TIMEOUT
        while True:
            try:
                talk.talk_request("127.0.0.1", self.gateway.port, entry["digest"], entry["channel"], "close")
                return
            except talk.TalkError as failure:
                if not dropped or "badParameters" in str(failure):
                    if dropped:
                        return
                    raise
                if "invalidOperation" not in str(failure) or time.monotonic() > deadline:
                    raise
            time.sleep(0.1)

    @staticmethod
    def close_links(talks):
        for entry in talks:
            for link in entry["links"]:
                link.close()
            entry["links"] = []

    def captures_of(self, channel):
        return set(glob.glob(os.path.join(self.media, talk_device(channel), "talk-ch%d-*" % channel)))

    def check_capture(self, channel, before, said):
        """The talk's capture holds exactly what was said; a talk in which nothing was said keeps none."""
        deadline = time.monotonic() + READ_TIMEOUT
        while True:
            new = sorted(self.captures_of(channel) - before)
            kept = None
            if len(new) == 1:
                try:
                    kept = talk.read_wav(new[0])[4]
                except (OSError, talk.TalkError, struct.error):
                    kept = None  # still being written
            if (not said and not new) or kept == said:
                return
            if time.monotonic() > deadline:
                raise Failure("channel %d: %d capture file(s), %s bytes kept of %d said" % (
                    channel, len(new), "no" if kept is None else len(kept), len(said)))
            time.sleep(0.1)

def quiesce(gateway, cold, timeout):
    """Waits up to `timeout` for the cold idle state: no open stream, and no more
    descriptors or threads than before any load. Returns the last sample."""
    deadline = time.monotonic() + timeout
    while True:
        gateway.check_alive()
        sample = gateway.sample()
        if (sample["open_streams"] == 0 and sample["opened"] == sample["closed"] and sample["open_talks"] == 0 and
                sample["fds"] <= cold["fds"] and sample["threads"] <= cold["threads"]):
            return sample
        if time.monotonic() > deadline:
            return sample
        time.sleep(0.5)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default="build", help="build folder with bin/media-gateway and lib/")
    parser.add_argument("--seconds", type=float, default=float(os.environ.get("SOAK_SECONDS", 600)))
    parser.add_argument("--clients", type=int, default=64,
                        help="concurrent clients: above 50, far below the plug-in's 400 downloads")
    parser.add_argument("--rss-limit-mib", type=float, default=16,
                        help="allowed RSS growth: the allocator keeps under 2 MiB after warm-up, while a leak of "
                             "about 100 bytes per request passes 16 MiB over a 10-minute run")
    parser.add_argument("--skip", default="", help="comma-separated kinds of scenario to leave out")
    parser.add_argument("--keep", action="store_true", help="keep the work folder (it is kept on failure)")
    args = parser.parse_args()

    workdir = tempfile.mkdtemp(prefix="gateway-soak-")
    gateway = Gateway(os.path.abspath(args.build), workdir)
    problems = []
    try:
        recordings, big = write_media(os.path.join(workdir, "media"))
        gateway.start(os.path.join(workdir, "media"))
        print("soak: gateway pid %d on port %d, work folder %s" % (gateway.pid, gateway.port, workdir))
        load = Load(gateway, recordings, big, args.clients, [kind for kind in args.skip.split(",") if kind])
        problems = soak(gateway, load, args)
    except Failure as failure:
        problems.append(str(failure))
    finally:
        try:
            gateway.stop()
        except Failure as failure:
            problems.append(str(failure))
    if problems:
        print("soak: FAILED\n  " + "\n  ".join(problems))
        print("soak: gateway log tail:\n" + gateway.log_tail())
        print("soak: work folder kept: %s" % workdir)
        return 1
    print("soak: PASSED (gateway stopped with exit code 0)")
    if args.keep:
        print("soak: work folder kept: %s" % workdir)
    else:
        shutil.rmtree(workdir, ignore_errors=True)
    return 0


def soak(gateway, load, args):
    """The phases after start; returns the list of problems found."""
    cold = gateway.sample()
    print("soak: cold idle: %s" % format_sample(cold), flush=True)
    # RSS is measured from after a short burst: one-time costs (allocator arenas,
    # cached thread stacks, buffers that grew to their working size) then belong
    # to the baseline, not to the growth. Descriptors and threads must come back
    # to the cold values.
    warmup = min(WARMUP_S, args.seconds)
    if not load.run(warmup):
        return load.failures
    baseline = quiesce(gateway, cold, QUIESCE_S)
    print("soak: idle after %d s warm-up: %s" % (warmup, format_sample(baseline)), flush=True)
    load.counts.clear()

    def progress(elapsed):
        sample = gateway.sample()
        with load.lock:
            counts = " ".join("%s=%d" % item for item in sorted(load.counts.items()))
            in_flight = load.in_flight
        print("soak: %4ds in-flight %d, %s | errors %d | %s" % (
            elapsed, in_flight, counts, len(load.failures), format_sample(sample)), flush=True)

    started = time.monotonic()
    load.run(args.seconds, progress)
    total = sum(load.counts.values())
    print("soak: load ran %.0f s: %d scenarios (%s)" % (
        time.monotonic() - started, total, " ".join("%s=%d" % item for item in sorted(load.counts.items()))))
    problems = list(load.failures)

    waited = time.monotonic()
    final = quiesce(gateway, cold, QUIESCE_S)
    print("soak: idle after %.0f s: %s" % (time.monotonic() - waited, format_sample(final)), flush=True)
    if final["open_streams"] != 0 or final["opened"] != final["closed"]:
        problems.append("streams still open: %s of %s opened closed, openStreams %s" % (
            final["closed"], final["opened"], final["open_streams"]))
    if final["open_talks"] != 0:
        problems.append("talks still open: %s" % final["open_talks"])
    if final["fds"] != cold["fds"]:
        problems.append("open descriptors %d, cold idle %d" % (final["fds"], cold["fds"]))
    if final["threads"] != cold["threads"]:
        problems.append("threads %d, cold idle %d" % (final["threads"], cold["threads"]))
    growth = (final["rss"] - baseline["rss"]) / MIB
    print("soak: RSS growth %.1f MiB over the idle baseline (limit %.0f MiB)" % (growth, args.rss_limit_mib))
    if growth > args.rss_limit_mib:
        problems.append("RSS grew %.1f MiB, more than %.0f MiB" % (growth, args.rss_limit_mib))
    return problems


if __name__ == "__main__":
    sys.exit(main())
