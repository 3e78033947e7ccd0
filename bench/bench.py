#!/usr/bin/env python3
"""Measures media-gateway with the HTTP plug-in side by side with nginx.

Both servers run at the same time from one temporary folder and serve the
same recordings: the gateway through its JSON configuration file, nginx from
a generated configuration (three loopback ports: sendfile off, sendfile on,
and a fixed 401 answer). Every case runs its rounds interleaved, the order of
the servers alternating from round to round, so that drift of the machine hits
both sides; results are medians of the rounds.

The gateway runs twice, once per delivery path: "ours" hands each file to the
plug-in's event loop (its default), "ours blocking" sends blocks from a thread
per download (--delivery blocking).

Cases:
  single      one download of a 1 GiB recording with curl to /dev/null
  concurrent  400 simultaneous downloads of a 16 MiB recording (asyncio client)
  many        4000 simultaneous downloads of a 1 MiB recording; the plug-in serves at most 400
              downloads at once, so a refused client asks again 20 ms later
  challenge   requests without credentials (401), one connection each, 50 in flight
  ttfb        time to the first byte of a download, one download at a time
  talks       100 talks both ways for 10 s against one-thread epoll relays in Python and C++ (talk_bench.py)

Usage: bench.py <build-dir> [--rounds N] [--cases LIST] [--block-size BYTES]
                [--results FILE] [--keep] [--profile]
Python 3 standard library only; needs curl and nginx.
"""
import abc
import argparse
import asyncio
import datetime
import json
import os
import platform
import random
import re
import resource
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import gateway_client  # noqa: E402
from gateway_client import free_port, free_port_pair  # noqa: E402
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import talk_bench  # noqa: E402

USER, PASSWORD, REALM = "bench", "bench-secret", "bench-realm"
DEVICE = "be0c0000-0000-4000-8000-000000000001"
HEAD_SIZE = 40  # the gateway's stream head precedes the file in every download body
MIB = 1024 * 1024

# name, size, start and end time (each recording gets its own period)
RECORDINGS = {
    "big": ("big-1g.bin", 1024 * MIB, "20260101T000000Z", "20260101T010000Z"),
    "mid": ("mid-16m.bin", 16 * MIB, "20260101T010000Z", "20260101T020000Z"),
    "small": ("small-1m.bin", 1 * MIB, "20260101T020000Z", "20260101T030000Z"),
}

CONCURRENT_DOWNLOADS = 400
MANY_DOWNLOADS = 4000
RETRY_DELAY = 0.02  # a download the gateway refused at its limit asks again after this
CHALLENGE_REQUESTS = 4000
CHALLENGE_IN_FLIGHT = 50
TTFB_DOWNLOADS = 200

NGINX_CONFIG = """\
worker_processes {workers};
pid {dir}/nginx.pid;
error_log {dir}/error.log warn;
daemon off;
worker_rlimit_nofile 65536;
events {{ worker_connections 16384; }}
http {{
    access_log {dir}/access.log;
    client_body_temp_path {dir}/body;
    proxy_temp_path {dir}/proxy;
    fastcgi_temp_path {dir}/fastcgi;
    uwsgi_temp_path {dir}/uwsgi;
    scgi_temp_path {dir}/scgi;
    default_type application/octet-stream;
    keepalive_timeout 0;
    server {{
        listen 127.0.0.1:{port_copy};
        root {root};
        sendfile off;
    }}
    server {{
        listen 127.0.0.1:{port_sendfile};
        root {root};
        sendfile on;
    }}
    server {{
        listen 127.0.0.1:{port_challenge};
        location / {{
            default_type application/json;
            add_header WWW-Authenticate '{challenge}' always;
            return 401 '{body}';
        }}
    }}
}}
"""


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(fraction * (len(ordered) - 1))))]


def rss_kib(pid, field="VmRSS"):
    """A resident-memory line of /proc/<pid>/status: VmRSS (all of it) or RssAnon (its anonymous part)."""
    try:
        with open("/proc/%d/status" % pid) as status:
            for line in status:
                if line.startswith(field + ":"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def process_tree(pid):
    """The process and its children (nginx: master and workers)."""
    pids = [pid]
    try:
        with open("/proc/%d/task/%d/children" % (pid, pid)) as children:
            pids += [int(child) for child in children.read().split()]
    except OSError:
        pass
    return pids


def cpu_seconds(pid):
    """User plus system time of a process (all its threads) and its children, in seconds."""
    total = 0
    for member in process_tree(pid):
        try:
            with open("/proc/%d/stat" % member) as stat:
                fields = stat.read().rsplit(")", 1)[1].split()
            total += int(fields[11]) + int(fields[12])  # utime, stime
        except (OSError, IndexError, ValueError):
            pass
    return total / os.sysconf("SC_CLK_TCK")


def tree_rss_kib(pid, field="VmRSS"):
    return sum(rss_kib(p, field) for p in process_tree(pid))


class RssSampler:
    """Samples the summed resident memory of a process tree every few milliseconds, the whole
    set and its anonymous part; keeps the peak of each."""

    def __init__(self, pid):
        self.pid, self.peak, self.peak_anon = pid, 0, 0
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        while not self._stop.is_set():
            self.peak = max(self.peak, tree_rss_kib(self.pid))
            self.peak_anon = max(self.peak_anon, tree_rss_kib(self.pid, "RssAnon"))
            self._stop.wait(0.005)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *exc):
        self._stop.set()
        self._thread.join()


# ---------------------------------------------------------------- the two servers

class Server(abc.ABC):
    """What the client needs to know to fetch from one server."""

    def __init__(self, label, port, pid):
        self.label, self.port, self.pid = label, port, pid
        self.idle_rss = self.idle_anon = 0  # set by Bed.warm_up

    @abc.abstractmethod
    def download_request(self, key):
        """The request bytes that download the recording `key`."""

    @abc.abstractmethod
    def body_length(self, key):
        """The length of the body that download returns."""


class Gateway(Server):
    def __init__(self, label, port, pid):
        super().__init__(label, port, pid)
        self.digests = []
        self.next_digest = 0

    def path(self):
        return "/QUMEX/ContentMgmt/download?format=json&devIndex=%s" % DEVICE

    def json_body(self, key):
        name, size, start, end = RECORDINGS[key]
        uri = ("rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=%s&endtime=%s&name=%s&size=%d"
               "&devIndex=%s" % (start, end, name, size, DEVICE))
        return json.dumps({"downloadRequest": {"playbackURI": uri}})

    def learn_nonce(self, count=8):
        """A few challenges; their nonces then serve every download in turn (they stay fresh for minutes).

        The gateway takes a nonce's counts out of order within a window of 1024, so 4000 requests at
        once need several nonces."""
        for _ in range(count):
            digest = gateway_client.Digest(USER, PASSWORD)
            status, headers, _ = blocking_request(self.port, self.request_bytes("mid", None))
            if status != 401 or not digest.learn(headers.get("www-authenticate", "")):
                raise SystemExit("bench: the gateway did not answer with a Digest challenge (%s)" % status)
            self.digests.append(digest)

    def authorization(self):
        self.next_digest = (self.next_digest + 1) % len(self.digests)
        return self.digests[self.next_digest].authorization("POST", self.path())

    def request_bytes(self, key, authorization):
        body = self.json_body(key).encode()
        # The same bytes go to nginx in the challenge case, so the Host names no port.
        head = "POST %s HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" % self.path()
        if authorization:
            head += "Authorization: %s\r\n" % authorization
        head += "Content-Length: %d\r\nConnection: close\r\n\r\n" % len(body)
        return head.encode() + body

    def download_request(self, key):
        return self.request_bytes(key, self.authorization())

    def challenge_request(self):
        return self.request_bytes("mid", None)

    def body_length(self, key):
        return RECORDINGS[key][1] + HEAD_SIZE


class Nginx(Server):
    def download_request(self, key):
        return ("GET /%s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n" % RECORDINGS[key][0]).encode()

    def body_length(self, key):
        return RECORDINGS[key][1]


def blocking_request(port, request):
    """One request on a fresh connection; the whole reply (the servers close after it)."""
    with socket.create_connection(("127.0.0.1", port), timeout=30) as connection:
        connection.sendall(request)
        data = b""
        while True:
            chunk = connection.recv(65536)
            if not chunk:
                break
            data += chunk
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(":")
        headers[name.strip().lower()] = value.strip()
    return int(lines[0].split()[1]), headers, body


class Bed:
    """The temporary folder with the recordings, both servers and their logs."""

    def __init__(self, build_dir, keep, block_size):
        self.build_dir = os.path.abspath(build_dir)
        self.keep = keep
        self.block_size = block_size
        self.dir = tempfile.mkdtemp(prefix="hpw-bench-")
        os.chmod(self.dir, 0o755)  # nginx started as root reads the files as its worker user
        self.media = os.path.join(self.dir, "media")
        self.device_dir = os.path.join(self.media, DEVICE)
        self.gateway_processes = []
        self.nginx_process = None

    def prepare_media(self):
        os.makedirs(self.device_dir)
        block = random.Random(7).randbytes(MIB)  # incompressible, repeated: cheap to write
        index = {"recordings": []}
        for name, size, start, end in RECORDINGS.values():
            with open(os.path.join(self.device_dir, name), "wb") as out:
                for _ in range(size // MIB):
                    out.write(block)
            index["recordings"].append({"name": name, "starttime": start, "endtime": end})
        with open(os.path.join(self.device_dir, "recordings.json"), "w") as out:
            json.dump(index, out)

    def start_gateway(self, label, delivery):
        port = free_port_pair()  # the audio channel takes the next port
        folder = os.path.join(self.dir, "gateway-" + delivery)
        os.makedirs(folder)
        process = gateway_client.GatewayProcess(
            os.path.join(self.build_dir, "bin", "media-gateway"), folder,
            ["--plugin", os.path.join(self.build_dir, "lib", "libHttpProtocolWrapper.so")])
        self.gateway_processes.append(process)
        process.start({
            # Connection bounds above the many-downloads case's 4000 clients from one address.
            "server": {"httpPort": port, "delivery": delivery, "maxConnections": 20000,
                       "maxConnectionsPerAddress": 20000},
            "auth": {"realm": REALM, "users": [{"name": USER, "password": PASSWORD}]},
            "media": {"folder": self.media, "blockSize": self.block_size, "devices": [
                {"devIndex": DEVICE, "address": "127.0.0.1", "rtspPort": 554}]},
            "log": {"level": "info"},
        })
        if not process.wait_ready(20):
            raise SystemExit("bench: the gateway did not get ready\n" + process.log_tail())
        gateway = Gateway(label, port, process.pid)
        gateway.process = process
        gateway.learn_nonce()
        return gateway

    def start_nginx(self, challenge_body):
        nginx_dir = os.path.join(self.dir, "nginx")
        ports = [free_port() for _ in range(3)]
        challenge = ('Digest realm="%s", qop="auth", nonce="%s", opaque="%s"'
                     % (REALM, "0" * 48, "0" * 32))
        try:
            self.nginx_process = gateway_client.start_nginx(nginx_dir, NGINX_CONFIG.format(
                dir=nginx_dir, root=self.device_dir, workers=os.cpu_count() or 1, port_copy=ports[0],
                port_sendfile=ports[1], port_challenge=ports[2], challenge=challenge,
                body=challenge_body.replace("'", "\\'")), ports)
        except RuntimeError as failure:
            raise SystemExit("bench: %s" % failure)
        pid = self.nginx_process.pid
        self.nginx_copy = Nginx("nginx sendfile off", ports[0], pid)
        self.nginx_sendfile = Nginx("nginx sendfile on", ports[1], pid)
        self.nginx_challenge = Nginx("nginx return 401", ports[2], pid)

    def warm_up(self):
        """One download from each server, then their idle memory.

        What the first request loads once (libraries, caches) is not memory per download.
        Idle is taken once, before any case: memory a server keeps after a burst (allocator
        caches) must not shrink the next round's increase.
        """
        async def fetch_one(server):
            protocol, _, _ = await fetch(server.port, server.download_request("small"))
            check_download(server, "small", protocol)

        for server in (self.gateway, self.gateway_blocking, self.nginx_copy):
            asyncio.run(fetch_one(server))
        for gateway in (self.gateway, self.gateway_blocking):
            self.wait_streams_closed(gateway)
        for server in (self.gateway, self.gateway_blocking, self.nginx_copy, self.nginx_sendfile,
                       self.nginx_challenge):
            server.idle_rss = tree_rss_kib(server.pid)
            server.idle_anon = tree_rss_kib(server.pid, "RssAnon")

    def wait_streams_closed(self, gateway):
        """The plug-in counts a download until its session is released: wait for zero open streams."""
        if gateway.process.wait_for_status(lambda status: status.get("openStreams") == 0, 30) is None:
            raise SystemExit("bench: gateway streams still open; see %s" % self.dir)

    def stop(self):
        for process in self.gateway_processes:
            process.stop(30)
        if self.nginx_process and self.nginx_process.poll() is None:
            self.nginx_process.send_signal(signal.SIGQUIT)
            try:
                self.nginx_process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.nginx_process.kill()
                self.nginx_process.wait()
        if self.keep:
            print("bench: kept %s" % self.dir)
        else:
            shutil.rmtree(self.dir, ignore_errors=True)


def read_text(path):
    try:
        with open(path) as source:
            return source.read()
    except OSError:
        return ""


# ---------------------------------------------------------------- asyncio client

SHARED_BUFFER = bytearray(256 * 1024)  # every body is counted, none is kept


class Fetch(asyncio.BufferedProtocol):
    """One request on its own connection; counts the reply's body into a shared buffer."""

    def __init__(self, request, done):
        self.request, self.done = request, done
        self.head = bytearray()
        self.status = None
        self.headers = {}
        self.content_length = None
        self.body = 0
        self.first_byte = None
        self.error = None
        self.view = memoryview(SHARED_BUFFER)

    def connection_made(self, transport):
        self.transport = transport
        transport.write(self.request)

    def get_buffer(self, size_hint):
        return self.view

    def buffer_updated(self, count):
        if self.first_byte is None:
            self.first_byte = time.perf_counter()
        if self.status is None:
            self.head += self.view[:count]
            end = self.head.find(b"\r\n\r\n")
            if end < 0:
                return
            self.parse_head(bytes(self.head[:end]))
            self.body = len(self.head) - end - 4
            self.head = None
        else:
            self.body += count
        if self.content_length is not None and self.body >= self.content_length:
            self.finish()

    def parse_head(self, head):
        lines = head.decode("latin-1").split("\r\n")
        self.status = int(lines[0].split()[1])
        for line in lines[1:]:
            name, _, value = line.partition(":")
            self.headers[name.strip().lower()] = value.strip()
        if "content-length" in self.headers:
            self.content_length = int(self.headers["content-length"])

    def finish(self):
        if not self.done.done():
            self.done.set_result(time.perf_counter())
        self.transport.close()

    def eof_received(self):
        self.finish()
        return False

    def connection_lost(self, exc):
        self.error = exc
        if not self.done.done():
            self.done.set_result(time.perf_counter())


async def fetch(port, request):
    """Returns (protocol, start, end): the reply's status, headers, body count and times."""
    loop = asyncio.get_running_loop()
    done = loop.create_future()
    started = time.perf_counter()
    _, protocol = await loop.create_connection(lambda: Fetch(request, done), "127.0.0.1", port)
    ended = await done
    return protocol, started, ended


def check_download(server, key, protocol):
    expected = server.body_length(key)
    if protocol.status != 200 or protocol.body != expected:
        raise SystemExit("bench: %s download of %s gave status %s and %d body bytes, expected 200 and %d (%s)"
                         % (server.label, key, protocol.status, protocol.body, expected, protocol.error))


# ---------------------------------------------------------------- the cases

def case_single(bed, server):
    """MB/s of one curl download of the 1 GiB recording to /dev/null."""
    name = RECORDINGS["big"][0]
    command = ["curl", "-sS", "-o", "/dev/null", "-w", "%{http_code} %{size_download} %{time_total}"]
    if isinstance(server, Gateway):
        command += ["--digest", "-u", "%s:%s" % (USER, PASSWORD), "-X", "POST",
                    "http://127.0.0.1:%d%s" % (server.port, server.path()),
                    "-H", "Content-Type: application/json", "--data-binary", server.json_body("big")]
    else:
        command += ["http://127.0.0.1:%d/%s" % (server.port, name)]
    output = subprocess.run(command, capture_output=True, text=True, check=True, timeout=300).stdout.split()
    status, size, seconds = int(output[0]), int(output[1]), float(output[2])
    if status != 200 or size != server.body_length("big"):
        raise SystemExit("bench: %s single download gave %d and %d bytes" % (server.label, status, size))
    return {"MB/s": size / seconds / 1e6}


def simultaneous(bed, server, count, key, profile=None):
    """`count` simultaneous downloads of `key`: aggregate MB/s, wall time, CPU, peak memory.

    A download the gateway refuses at its limit of downloads at once is asked for again (counted in
    "refused"); every body must arrive whole. profile: perf events counted in the server meanwhile."""
    if isinstance(server, Gateway):
        bed.wait_streams_closed(server)
    refused = 0

    async def one():
        nonlocal refused
        while True:
            request = server.download_request(key)  # a fresh nonce count for each try
            protocol, begun, ended = await fetch(server.port, request)
            if not isinstance(server, Gateway) or protocol.status not in (403, 500):
                return protocol, begun, ended
            refused += 1
            await asyncio.sleep(RETRY_DELAY)

    async def run():
        return await asyncio.gather(*(one() for _ in range(count)))

    counter = PerfCounter(server.pid) if profile else None
    cpu_before = cpu_seconds(server.pid)
    with RssSampler(server.pid) as memory:
        started = time.perf_counter()
        results = asyncio.run(run())
        wall = time.perf_counter() - started
    cpu = cpu_seconds(server.pid) - cpu_before
    counts = counter.stop() if counter else {}
    total = short = 0
    for protocol, _, _ in results:
        if isinstance(server, Gateway) or count <= CONCURRENT_DOWNLOADS:
            check_download(server, key, protocol)
        elif protocol.status != 200 or protocol.body != server.body_length(key):
            # nginx closes a connection as soon as the body is queued; with thousands of them the kernel's
            # TCP memory limit resets such orphaned sockets, cutting the bodies short.
            short += 1
            continue
        total += protocol.body
    measured = {"MB/s": total / wall / 1e6, "wall s": wall, "server CPU s/GB": cpu / (total / 1e9),
                "KiB/download": (memory.peak - server.idle_rss) / count,
                "anon KiB/download": (memory.peak_anon - server.idle_anon) / count, "refused": refused,
                "short bodies": short}
    units = total / 32768.0
    for event, value in counts.items():
        measured["per 32 KiB: " + event] = value / units
    return measured


def case_concurrent(bed, server):
    """400 simultaneous downloads of the 16 MiB recording."""
    return simultaneous(bed, server, CONCURRENT_DOWNLOADS, "mid")


def case_many(bed, server):
    """4000 simultaneous downloads of the 1 MiB recording."""
    return simultaneous(bed, server, MANY_DOWNLOADS, "small")


PROFILE_EVENTS = ("raw_syscalls:sys_enter", "context-switches", "sched:sched_wakeup", "cpu-migrations",
                  "syscalls:sys_enter_pread64", "syscalls:sys_enter_sendfile64", "syscalls:sys_enter_sendmsg",
                  "syscalls:sys_enter_writev", "syscalls:sys_enter_epoll_wait", "syscalls:sys_enter_futex")


class PerfCounter:
    """perf stat over every thread of the server's process tree, from now until stop()."""

    def __init__(self, pid):
        self.output = tempfile.NamedTemporaryFile(prefix="perf-", suffix=".csv", delete=False).name
        pids = ",".join(str(p) for p in process_tree(pid))
        self.process = subprocess.Popen(["perf", "stat", "-x", ",", "-o", self.output, "-e", ",".join(PROFILE_EVENTS),
                                         "-p", pids], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(0.3)  # perf attaches before the first request

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.wait(timeout=30)
        counts = {}
        for line in read_text(self.output).splitlines():
            fields = line.split(",")
            if len(fields) > 2 and fields[0].strip().isdigit():
                counts[fields[2].replace("syscalls:sys_enter_", "").replace("raw_syscalls:sys_enter", "system calls")
                       .replace("sched:sched_wakeup", "wake-ups")] = int(fields[0])
        os.unlink(self.output)
        return counts


def case_profile(bed, server):
    """One round of the 400 downloads under perf stat."""
    return simultaneous(bed, server, CONCURRENT_DOWNLOADS, "mid", profile=True)


def case_challenge(bed, server):
    """Requests without credentials on fresh connections, 50 in flight: req/s and latency."""
    request = bed.gateway.challenge_request()  # the same bytes to both servers
    latencies = []

    async def worker(count):
        for _ in range(count):
            protocol, begun, ended = await fetch(server.port, request)
            if protocol.status != 401 or "digest" not in protocol.headers.get("www-authenticate", "").lower():
                raise SystemExit("bench: %s answered %s without a Digest challenge" % (server.label, protocol.status))
            latencies.append(ended - begun)

    async def run():
        share = CHALLENGE_REQUESTS // CHALLENGE_IN_FLIGHT
        await asyncio.gather(*(worker(share) for _ in range(CHALLENGE_IN_FLIGHT)))

    cpu_before = cpu_seconds(server.pid)
    started = time.perf_counter()
    asyncio.run(run())
    wall = time.perf_counter() - started
    cpu = cpu_seconds(server.pid) - cpu_before
    return {"req/s": len(latencies) / wall, "p50 ms": percentile(latencies, 0.5) * 1e3,
            "p99 ms": percentile(latencies, 0.99) * 1e3, "server CPU us/req": cpu / len(latencies) * 1e6}


def case_ttfb(bed, server):
    """One download of the 1 MiB recording at a time: time from connecting to the first reply byte."""
    times = []

    async def run():
        for _ in range(TTFB_DOWNLOADS):
            protocol, begun, _ = await fetch(server.port, server.download_request("small"))
            check_download(server, "small", protocol)
            times.append(protocol.first_byte - begun)

    asyncio.run(run())
    return {"median ms": statistics.median(times) * 1e3, "p99 ms": percentile(times, 0.99) * 1e3}


def interleave(rounds, case, bed, servers):
    """Runs the case round after round, the servers' order alternating; per-server lists of results."""
    results = {server.label: [] for server in servers}
    for index in range(rounds):
        order = servers if index % 2 == 0 else list(reversed(servers))
        for server in order:
            results[server.label].append(case(bed, server))
    return results


def median_of(results, label, metric):
    return statistics.median(result[metric] for result in results[label])


def max_of(results, label, metric):
    return max(result[metric] for result in results[label])


# ---------------------------------------------------------------- report

def machine():
    model, cores = platform.processor() or "unknown", os.cpu_count()
    try:
        info = subprocess.run(["lscpu"], capture_output=True, text=True).stdout
        found = re.search(r"^Model name:\s*(.+)$", info, re.M)
        model = found.group(1).strip() if found else model
    except OSError:
        pass
    return "%s, %d cores, %s" % (model, cores, platform.platform())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build_dir")
    parser.add_argument("--rounds", type=int, default=5, help="rounds per case and server (default 5)")
    parser.add_argument("--block-size", type=int, default=32768,
                        help="the gateway's stream block in bytes (default 32768, the gateway's own default)")
    parser.add_argument("--results", help="also write the table into this Markdown file")
    parser.add_argument("--cases", default=",".join(CASES),
                        help="comma-separated subset of %s (default all)" % ", ".join(CASES))
    parser.add_argument("--keep", action="store_true", help="keep the temporary folder (logs, configurations)")
    parser.add_argument("--delivery", default="loop", choices=("loop", "loop-sendfile"),
                        help="how \"ours\" sends files from its event loops (default loop: reads into a buffer)")
    parser.add_argument("--profile", action="store_true",
                        help="also count system calls, context switches and wake-ups per 32 KiB (perf, root)")
    args = parser.parse_args()
    cases = args.cases.split(",")
    unknown = [case for case in cases if case not in CASES]
    if unknown:
        parser.error("unknown case(s): %s" % ", ".join(unknown))

    # 4000 client sockets and as many server sockets, for the client and (inherited) both servers.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = 65536 if hard == resource.RLIM_INFINITY else min(65536, hard)
    if soft < wanted:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, hard))

    began = time.monotonic()
    load_before = os.getloadavg()[0]
    talk_rows = None
    if "talks" in cases:
        cases.remove("talks")
        talk_rows = talk_case(args.build_dir, args.keep)
        if not cases:
            print(render_talks(talk_rows, load_before))
            if args.results:
                write_results(args.results, render_talks(talk_rows, load_before), TALK_MARKERS)
            return 0
    bed = Bed(args.build_dir, args.keep, args.block_size)
    try:
        print("bench: writing recordings into %s" % bed.dir, flush=True)
        bed.prepare_media()
        bed.gateway = bed.start_gateway("ours", args.delivery)
        bed.gateway_blocking = bed.start_gateway("ours blocking", "blocking")
        _, _, our_challenge_body = blocking_request(bed.gateway.port, bed.gateway.challenge_request())
        bed.start_nginx(our_challenge_body.decode("latin-1"))
        bed.warm_up()
        rows = run_cases(bed, args.rounds, cases)
        if args.profile:
            rows += profile_rows(bed)
    finally:
        bed.stop()
    table = render(rows, args.rounds, args.block_size, time.monotonic() - began, load_before)
    print(table)
    if talk_rows:
        print(render_talks(talk_rows, load_before))
        if args.results:
            write_results(args.results, render_talks(talk_rows, load_before), TALK_MARKERS)
    # A partial run would replace the full table with fewer rows.
    if args.results and len(cases) == len(DOWNLOAD_CASES):
        write_results(args.results, table)
    return 0


DOWNLOAD_CASES = ("single", "concurrent", "many", "challenge", "ttfb")
CASES = DOWNLOAD_CASES + ("talks",)
TALK_MARKERS = ("<!-- talk table begin -->", "<!-- talk table end -->")
TALKS, TALK_SECONDS = 100, 10.0


def talk_case(build_dir, keep):
    """Rows of the talk case: (metric, ours, [each reference's], target, verdict, reference labels)."""
    results = talk_bench.run_talk_bench(build_dir, TALKS, TALK_SECONDS, keep)
    ours = results["ours"]
    references = [label for label in results if label != "ours"]
    targets = {
        "slowest link B/s": (">= 7920 (real time)", lambda o: o >= 7920),
        "p99 ms": ("<= 21 ms", lambda o: o <= 21),
        "cpu %": ("<= 10 % of a core", lambda o: o <= 10),
        "extra threads": ("<= %d" % (TALKS // 10), lambda o: o <= TALKS // 10),
        "complete captures": ("= %d" % TALKS, lambda o: o == TALKS),
    }
    rows = []
    for metric in ("slowest link B/s", "p50 ms", "p99 ms", "cpu %", "switches/s", "perf switches/s",
                   "perf migrations/s", "threads", "extra threads", "complete captures"):
        if metric not in ours:
            continue
        target, passed = targets.get(metric, ("-", None))
        verdict = "" if passed is None else "PASS" if passed(ours[metric]) else "MISS"
        rows.append((metric, ours[metric], [results[label].get(metric, float("nan")) for label in references],
                     target, verdict, references))
    return rows


def render_talks(rows, load_before):
    lines = [
        "Date: %s" % datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "Machine: %s" % machine(),
        "%d talks both ways (PCMU, 160 bytes every 20 ms each way) for %.0f s; one run" % (TALKS, TALK_SECONDS),
        "Load average (1 min) before / after: %.2f / %.2f" % (load_before, os.getloadavg()[0]),
        "",
    ]
    references = rows[0][5] if rows else []
    lines.append("| metric | ours | %s | target | result |" % " | ".join(references))
    lines.append("|---|---:|%s---|---|" % ("---:|" * len(references)))
    for metric, ours, theirs, target, verdict, _ in rows:
        lines.append("| %s | %.1f | %s | %s | %s |" % (metric, ours, " | ".join("%.1f" % value for value in theirs),
                                                      target, verdict))
    return "\n".join(lines)


def run_cases(bed, rounds, cases):
    ours, blocking = bed.gateway, bed.gateway_blocking
    copy, zero, challenge = bed.nginx_copy, bed.nginx_sendfile, bed.nginx_challenge
    rows = []

    def row(case, metric, results, their_label, target, passed, pick=median_of, our_label=None):
        our_label = our_label or ours.label
        our_value, their_value = pick(results, our_label, metric), pick(results, their_label, metric)
        ratio = our_value / their_value if their_value else float("inf")
        verdict = "" if passed is None else "PASS" if passed(our_value, ratio) else "MISS"
        name = case if our_label == ours.label else "%s, %s" % (case, our_label)
        rows.append((name, metric, our_value, their_value, their_label, ratio, target, verdict))

    def better_nginx(results):
        """The nginx configuration with the higher median aggregate in this case."""
        return max((copy.label, zero.label), key=lambda label: median_of(results, label, "MB/s"))

    def simultaneous_rows(case, results, memory_target):
        best = better_nginx(results)
        row(case, "MB/s", results, best, ">= 1.0x", lambda o, r: r >= 1.0)
        row(case, "MB/s", results, best, "-", None, our_label=blocking.label)
        row(case, "wall s", results, best, "-", None)
        row(case, "server CPU s/GB", results, best, "<= 1.0x", lambda o, r: r <= 1.0)
        row(case, "server CPU s/GB", results, best, "-", None, our_label=blocking.label)
        row(case, "KiB/download", results, best, memory_target, None if memory_target == "-" else
            (lambda o, r: o <= 32), max_of)
        row(case, "KiB/download", results, best, "-", None, max_of, our_label=blocking.label)
        row(case, "short bodies", results, best, "0", lambda o, r: o == 0, max_of)
        row(case, "refused", results, best, "-", None, max_of)
        row(case, "refused", results, best, "-", None, max_of, our_label=blocking.label)

    if "single" in cases:
        print("bench: single download, 1 GiB", flush=True)
        single = interleave(rounds, case_single, bed, [ours, blocking, copy, zero])
        row("1 GiB download", "MB/s", single, copy.label, ">= 0.9x", lambda o, r: r >= 0.9)
        row("1 GiB download", "MB/s", single, zero.label, ">= 0.6x", lambda o, r: r >= 0.6)
        row("1 GiB download", "MB/s", single, copy.label, "-", None, our_label=blocking.label)

    if "concurrent" in cases:
        print("bench: %d concurrent downloads, 16 MiB" % CONCURRENT_DOWNLOADS, flush=True)
        simultaneous_rows("400 x 16 MiB", interleave(rounds, case_concurrent, bed, [ours, blocking, copy, zero]),
                          "<= 32 KiB")

    if "many" in cases:
        print("bench: %d concurrent downloads, 1 MiB" % MANY_DOWNLOADS, flush=True)
        simultaneous_rows("4000 x 1 MiB", interleave(rounds, case_many, bed, [ours, blocking, copy, zero]), "-")

    if "challenge" in cases:
        print("bench: Digest challenges, %d in flight" % CHALLENGE_IN_FLIGHT, flush=True)
        challenges = interleave(rounds, case_challenge, bed, [ours, challenge])
        row("401 challenge", "req/s", challenges, challenge.label, ">= 0.7x", lambda o, r: r >= 0.7)
        row("401 challenge", "p50 ms", challenges, challenge.label, "-", None)
        row("401 challenge", "p99 ms", challenges, challenge.label, "<= 2x", lambda o, r: r <= 2)
        row("401 challenge", "server CPU us/req", challenges, challenge.label, "-", None)

    if "ttfb" in cases:
        print("bench: time to first byte", flush=True)
        ttfb = interleave(rounds, case_ttfb, bed, [ours, blocking, copy])
        row("time to first byte", "median ms", ttfb, copy.label, "<= 2 ms", lambda o, r: o <= 2)
        row("time to first byte", "p99 ms", ttfb, copy.label, "-", None)
        row("time to first byte", "median ms", ttfb, copy.label, "-", None, our_label=blocking.label)
    return rows


def profile_rows(bed):
    """Per 32 KiB of body in one round of the 400 downloads, each path against nginx sendfile off and on."""
    print("bench: profile of the 400 downloads (perf stat)", flush=True)
    servers = [bed.gateway, bed.gateway_blocking, bed.nginx_copy, bed.nginx_sendfile]
    results = {server.label: case_profile(bed, server) for server in servers}
    rows = []
    for key in sorted(k for k in results[bed.gateway.label] if k.startswith("per 32 KiB")):
        for server in servers[1:]:
            ours, theirs = results[bed.gateway.label].get(key, 0), results[server.label].get(key, 0)
            ratio = ours / theirs if theirs else float("inf")
            rows.append(("profile, 400 x 16 MiB", key, ours, theirs, server.label, ratio, "-", ""))
    return rows


def render(rows, rounds, block_size, seconds, load_before):
    lines = [
        "Date: %s" % datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "Machine: %s" % machine(),
        "Rounds: %d per server and case, interleaved; values are medians (memory: the largest round); "
        "gateway block %d bytes; bench time %.0f s" % (rounds, block_size, seconds),
        # Other work on the machine shares the cores with both servers and the client.
        "Load average (1 min) before / after: %.2f / %.2f" % (load_before, os.getloadavg()[0]),
        "",
        "| case | metric | ours | nginx | compared with | ours / nginx | target | result |",
        "|---|---|---:|---:|---|---:|---|---|",
    ]
    for case, metric, ours, theirs, label, ratio, target, verdict in rows:
        lines.append("| %s | %s | %.2f | %.2f | %s | %.2f | %s | %s |"
                     % (case, metric, ours, theirs, label, ratio, target, verdict))
    return "\n".join(lines)


def write_results(path, table, markers=("<!-- bench table begin -->", "<!-- bench table end -->")):
    """Replaces the measured table in the results file, keeping the analysis written around it."""
    begin, end = markers
    block = "%s\n%s\n%s" % (begin, table, end)
    text = read_text(path)
    if begin in text and end in text:
        text = text[:text.index(begin)] + block + text[text.index(end) + len(end):]
    else:
        text += "\n%s\n" % block
    with open(path, "w") as out:
        out.write(text)


if __name__ == "__main__":
    sys.exit(main())
