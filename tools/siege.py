#!/usr/bin/env python3
"""Siege of media-gateway: everything an attacker without a password (and a few slow users) can hold at
once, while a legitimate client goes about its business (Python 3 standard library only).

    tools/siege.py [--build DIR] [--seconds N] [--descriptors N] [--keep] [counts, see --help]

Starts the gateway from DIR (default: build) on free loopback ports, and for N seconds (default 60) keeps
  - 3000 connections on the audio port, each sending one byte every few seconds and never a whole head,
  - 500 idle connections and 50 slowloris connections (a header line every few seconds) on the HTTP port,
  - 20 authenticated downloads read at 1 KiB/s,
  - 50 slow clients on the admin endpoint (a header line every two seconds),
each connection opened again a second after the gateway closes it, all from the legitimate client's
own address.
Meanwhile the legitimate client, one request after the other, downloads a recording, opens a talk (its
listening link included) and closes it, and reads /healthz. It checks that
  - every download is whole within 2 s of its start, every talk opens, /healthz answers within 1 s;
  - the gateway's RSS stays under --rss-limit-mib (default 32: the gateway idles at about 11 MiB, and
    its bounds hold at most 512 connections per port from one address, about 1 KiB each, and 20
    downloads with a 32 KiB block each; under the siege it peaks near 15 MiB; before the bounds the
    audio flood alone took 237 MB);
  - afterwards its descriptors and threads go back to their idle numbers, its RSS to within 16 MiB of
    its idle level, and it exits with 0 on SIGTERM.
With --descriptors the gateway runs with that descriptor limit (soft and hard), which its bounds fit into.
Under a sanitizer build the times are allowed --slowdown times longer and RSS is not bounded.
Exit code 0 only when every check passed; the work folder (with the gateway's log) is kept on failure.
"""
import argparse
import heapq
import json
import os
import random
import re
import resource
import selectors
import shutil
import socket
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_client  # noqa: E402
import talk  # noqa: E402

USER, PASSWORD, REALM = "admin", "siege-secret", "siege-realm"
DEVICE = "5e1e9e00-0000-4000-8000-000000000001"
CHANNEL = 1
HEAD_SIZE = 40
MIB = 1024 * 1024
LEGIT = ("legit.bin", 8 * MIB, "20260101T000000Z", "20260101T001000Z")
CRAWLED = ("crawled.bin", 64 * MIB, "20260101T010000Z", "20260101T011000Z")
DOWNLOAD_PATH = "/QUMEX/ContentMgmt/download?format=json&devIndex=" + DEVICE
RECONNECT_S = 1.0       # a hostile connection the gateway closed is opened again after this
QUIESCE_S = 40          # after the siege, for descriptors and threads to come back
RSS_SETTLE_MIB = 16     # RSS after the siege may stay this far above the idle level (allocator caches)


class Failure(Exception):
    pass


def playback_uri(recording):
    name, size, start, end = recording
    return ("rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=%s&endtime=%s&name=%s&size=%d&devIndex=%s"
            % (start, end, name, size, DEVICE))


def download_body(recording):
    return json.dumps({"downloadRequest": {"playbackURI": playback_uri(recording)}}).encode()


def download_request(port, digest, recording):
    body = download_body(recording)
    return ("POST %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nAuthorization: %s\r\nContent-Length: %d\r\n\r\n" % (
        DOWNLOAD_PATH, port, digest.authorization("POST", DOWNLOAD_PATH), len(body))).encode() + body


# ------------------------------------------------------------------ the gateway

class Gateway(gateway_client.GatewayProcess):
    def __init__(self, binary, plugin, workdir):
        super().__init__(binary, workdir)
        self.plugin = plugin
        self.port, self.audio_port, self.admin_port = (gateway_client.free_port() for _ in range(3))

    def write_media(self):
        folder = os.path.join(self.workdir, "media", DEVICE)
        os.makedirs(folder)
        self.contents = {}
        index = []
        for name, size, start, end in (LEGIT, CRAWLED):
            content = random.Random(name).randbytes(size)
            with open(os.path.join(folder, name), "wb") as out:
                out.write(content)
            self.contents[name] = content
            index.append({"name": name, "starttime": start, "endtime": end})
        with open(os.path.join(folder, "recordings.json"), "w") as out:
            json.dump({"recordings": index}, out)

    def start_siege(self, descriptors):
        self.write_media()
        self.start({
            "server": {"httpPort": self.port, "audioTalkPort": self.audio_port},
            "auth": {"realm": REALM, "users": [{"name": USER, "password": PASSWORD}]},
            "media": {"folder": os.path.join(self.workdir, "media"),
                      "devices": [{"devIndex": DEVICE, "talk": {"channel": CHANNEL, "capture": False}}]},
            "admin": {"listen": "127.0.0.1:%d" % self.admin_port},
            "log": {"level": "info"},
            "plugin": self.plugin,
        }, descriptors=descriptors)
        if not self.wait_ready(30):
            raise Failure("the gateway did not become ready:\n" + self.log_tail())

    def sanitized(self):
        with open("/proc/%d/maps" % self.pid) as maps:
            return re.search(r"lib(asan|tsan)", maps.read()) is not None


# ------------------------------------------------------------------ the attackers

class Kind:
    def __init__(self, name, port, count, first=b"", drip=b"", every=0.0, receive_buffer=0, reader=False):
        self.name, self.port, self.count = name, port, count
        self.first, self.drip, self.every = first, drip, every
        self.receive_buffer, self.reader = receive_buffer, reader


class Slot:
    def __init__(self, kind):
        self.kind, self.sock, self.connected = kind, None, False


class Attackers(threading.Thread):
    """Every hostile connection, on one thread and one selector: each drips its bytes on its own
    schedule (spread at random) and is opened again once the gateway has closed it."""

    def __init__(self, kinds, digest):
        super().__init__(daemon=True)
        self.kinds, self.digest = kinds, digest
        self.selector = selectors.DefaultSelector()
        self.slots = [Slot(kind) for kind in kinds for _ in range(kind.count)]
        self.timers = []  # (when, sequence, slot index)
        self.sequence = 0
        self.stop_event = threading.Event()
        self.lock = threading.Lock()
        self.counts = {}  # "<kind> opened", "<kind> closed by the gateway"
        self.error = None

    def count(self, what):
        with self.lock:
            self.counts[what] = self.counts.get(what, 0) + 1

    def held(self):
        return sum(1 for slot in self.slots if slot.sock is not None)

    def at(self, when, index):
        self.sequence += 1
        heapq.heappush(self.timers, (when, self.sequence, index))

    def run(self):
        try:
            now = time.monotonic()
            for index in range(len(self.slots)):
                self.at(now + random.uniform(0, 2), index)  # the flood builds up over two seconds
            while not self.stop_event.is_set():
                now = time.monotonic()
                while self.timers and self.timers[0][0] <= now:
                    _, _, index = heapq.heappop(self.timers)
                    self.act(index, now)
                wait = min(0.05, max(0.0, self.timers[0][0] - now)) if self.timers else 0.05
                for key, _ in self.selector.select(wait):
                    self.readable(key.data)
        except Exception as error:  # noqa: BLE001 -- the siege reports it and fails
            self.error = "%s: %s" % (type(error).__name__, error)
        finally:
            for slot in self.slots:
                if slot.sock is not None:
                    slot.sock.close()
            self.selector.close()

    def open(self, index):
        slot = self.slots[index]
        kind = slot.kind
        sock = socket.socket()
        if kind.receive_buffer:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, kind.receive_buffer)
        sock.setblocking(False)
        code = sock.connect_ex(("127.0.0.1", kind.port))
        if code not in (0, 115):  # EINPROGRESS
            sock.close()
            return False
        slot.sock, slot.connected = sock, False
        if not kind.reader:  # a reader looks for the close when it reads, on its schedule
            self.selector.register(sock, selectors.EVENT_READ, index)
        self.count(kind.name + " opened")
        return True

    def drop(self, index, now):
        slot = self.slots[index]
        if not slot.kind.reader:
            self.selector.unregister(slot.sock)
        slot.sock.close()
        slot.sock = None
        self.count(slot.kind.name + " closed by the gateway")
        self.at(now + RECONNECT_S, index)

    def send(self, slot, data):
        try:
            slot.sock.send(data)
            return True
        except (BlockingIOError, InterruptedError):
            return True  # its buffer is full: this drop is skipped
        except OSError:
            return False

    def act(self, index, now):
        slot = self.slots[index]
        kind = slot.kind
        if slot.sock is None:
            if not self.open(index):
                self.at(now + RECONNECT_S, index)
                return
            self.at(now + 0.05, index)  # its first bytes once connected
            return
        if not slot.connected:
            slot.connected = True
            first = kind.first
            if kind.reader:
                first = download_request(kind.port, self.digest, CRAWLED)
            if first and not self.send(slot, first):
                return self.drop(index, now)
            self.at(now + (1.0 if kind.reader else random.uniform(0.5, 1) * kind.every), index)
            return
        if kind.reader:
            try:
                data = slot.sock.recv(1024)  # a kilobyte a second
            except (BlockingIOError, InterruptedError):
                data = None
            except OSError:
                data = b""
            if data == b"":
                return self.drop(index, now)
            self.at(now + 1.0, index)
            return
        if kind.drip and not self.send(slot, kind.drip):
            return self.drop(index, now)
        if kind.every:
            self.at(now + kind.every, index)

    def readable(self, index):
        """Input on a hostile connection: the gateway's answer (read and dropped) or its close."""
        slot = self.slots[index]
        if slot.sock is None:
            return
        try:
            data = slot.sock.recv(65536)
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            data = b""
        if data == b"":
            self.drop(index, time.monotonic())


# ------------------------------------------------------------------ the legitimate client

class Legitimate:
    def __init__(self, gateway, slowdown):
        self.gateway, self.slowdown = gateway, slowdown
        self.digest = gateway_client.Digest(USER, PASSWORD)
        self.worst = {"download": 0.0, "talk": 0.0, "healthz": 0.0}
        self.done = {"download": 0, "talk": 0, "healthz": 0}
        self.problems = []

    def note(self, what, seconds, limit):
        self.worst[what] = max(self.worst[what], seconds)
        self.done[what] += 1
        if seconds > limit * self.slowdown:
            self.problems.append("%s took %.2f s (at most %.1f s)" % (what, seconds, limit * self.slowdown))

    def download(self):
        started = time.monotonic()
        if not self.digest.ready:
            self.digest.learn(self.challenge())
        client = socket.create_connection(("127.0.0.1", self.gateway.port), timeout=10)
        try:
            client.sendall(download_request(self.gateway.port, self.digest, LEGIT))
            data = bytearray()
            while True:
                piece = client.recv(1 << 20)
                if not piece:
                    break
                data += piece
        finally:
            client.close()
        head, _, body = bytes(data).partition(b"\r\n\r\n")
        name, size = LEGIT[0], LEGIT[1]
        if not head.startswith(b"HTTP/1.1 200") or len(body) != HEAD_SIZE + size or \
                body[HEAD_SIZE:] != self.gateway.contents[name]:
            self.problems.append("download: %r, %d body bytes of %d" % (head.split(b"\r\n")[0], len(body),
                                                                         HEAD_SIZE + size))
        self.note("download", time.monotonic() - started, 2.0)

    def challenge(self):
        client = socket.create_connection(("127.0.0.1", self.gateway.port), timeout=10)
        try:
            body = download_body(LEGIT)
            client.sendall(("POST %s HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % (
                DOWNLOAD_PATH, len(body))).encode() + body)
            head = client.recv(4096).decode(errors="replace")
        finally:
            client.close()
        found = re.search(r"WWW-Authenticate: ([^\r\n]*)", head)
        if found is None:
            raise Failure("no Digest challenge from the gateway: %r" % head[:100])
        return found.group(1)

    def talk(self):
        started = time.monotonic()
        try:
            opened = talk.talk_request("127.0.0.1", self.gateway.port, self.digest, CHANNEL, "open")
            try:
                session = re.search(r"<sessionId>([^<]+)</sessionId>", opened)
                if session is None:
                    raise talk.TalkError("no sessionId in %r" % opened[:200])
                link, _ = talk.open_link("127.0.0.1", self.gateway.audio_port, self.gateway.port, self.digest,
                                         "GET", CHANNEL, session.group(1))
                link.close()
            finally:
                talk.talk_request("127.0.0.1", self.gateway.port, self.digest, CHANNEL, "close")
        except (talk.TalkError, OSError) as error:
            self.problems.append("talk: %s" % error)
        self.note("talk", time.monotonic() - started, 2.0)

    def healthz(self):
        started = time.monotonic()
        try:
            client = socket.create_connection(("127.0.0.1", self.gateway.admin_port), timeout=5)
            client.sendall(b"GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
            answer = client.recv(256)
            client.close()
            if not answer.startswith(b"HTTP/1.1 200"):
                self.problems.append("healthz: %r" % answer[:40])
        except OSError as error:
            self.problems.append("healthz: %s" % error)
        self.note("healthz", time.monotonic() - started, 1.0)


# ------------------------------------------------------------------ the siege

def siege(build_or_binaries, seconds, descriptors=None, counts=None, rss_limit_mib=32, slowdown=5, keep=False,
          log=print):
    """Runs the siege; returns (problems, numbers). build_or_binaries: a build folder, or the pair
    (media-gateway, libHttpProtocolWrapper.so)."""
    if isinstance(build_or_binaries, str):
        binary = os.path.join(build_or_binaries, "bin", "media-gateway")
        plugin = os.path.join(build_or_binaries, "lib", "libHttpProtocolWrapper.so")
    else:
        binary, plugin = build_or_binaries
    counts = dict({"audio": 3000, "idle": 500, "slowloris": 50, "readers": 20, "admin": 50}, **(counts or {}))
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    workdir = tempfile.mkdtemp(prefix="gateway-siege-")
    gateway = Gateway(binary, plugin, workdir)
    problems, numbers = [], {}
    attackers = None
    try:
        gateway.start_siege(descriptors)
        sanitized = gateway.sanitized()
        factor = slowdown if sanitized else 1
        cold = gateway.resources()
        log("siege: gateway pid %d, ports %d/%d/%d, descriptor limit %s%s; idle: RSS %.1f MiB, fds %d, threads %d" % (
            gateway.pid, gateway.port, gateway.audio_port, gateway.admin_port, descriptors or "unchanged",
            " (sanitizer build)" if sanitized else "", cold["rss"] / MIB, cold["fds"], cold["threads"]))
        digest = gateway_client.Digest(USER, PASSWORD)
        legit = Legitimate(gateway, factor)
        digest.learn(legit.challenge())
        attackers = Attackers([
            Kind("audio", gateway.audio_port, counts["audio"], b"G", b"E", 4.0),
            Kind("idle", gateway.port, counts["idle"]),
            Kind("slowloris", gateway.port, counts["slowloris"], b"GET /QUMEX/x HTTP/1.1\r\nHost: x\r\n",
                 b"X-Slow: 1\r\n", 3.0),
            Kind("reader", gateway.port, counts["readers"], receive_buffer=4096, reader=True),
            Kind("admin", gateway.admin_port, counts["admin"], b"GET /healthz HTTP/1.1\r\n", b"X-Slow: 1\r\n", 2.0),
        ], digest)
        attackers.start()
        time.sleep(3)  # the flood is up
        peak = dict(cold)
        started = time.monotonic()
        last = started
        while time.monotonic() - started < seconds and attackers.is_alive():
            for probe in (legit.download, legit.talk, legit.healthz):
                probe()
                sample = gateway.resources()
                peak = {key: max(peak[key], sample[key]) for key in peak}
            time.sleep(0.5)  # a user's pace, not a load of its own
            if time.monotonic() - last >= 10:
                last = time.monotonic()
                with attackers.lock:
                    opened = " ".join("%s=%d" % item for item in sorted(attackers.counts.items()))
                log("siege: %3ds held %d hostile connections (%s) | RSS %.1f MiB, fds %d, threads %d | worst "
                    "download %.2f s, talk %.2f s, healthz %.3f s" % (
                        last - started, attackers.held(), opened, sample["rss"] / MIB, sample["fds"],
                        sample["threads"], legit.worst["download"], legit.worst["talk"], legit.worst["healthz"]))
        attackers.stop_event.set()
        attackers.join(30)
        if attackers.error:
            problems.append("the attackers failed: " + attackers.error)
        problems += legit.problems
        if not all(legit.done.values()):
            problems.append("the legitimate client did not get to every probe: %s" % legit.done)
        numbers = {"worst": legit.worst, "done": legit.done, "cold": cold, "peak": peak, "counts": attackers.counts}
        log("siege: %d downloads, %d talks, %d health checks; worst %.2f s, %.2f s, %.3f s; peak RSS %.1f MiB, "
            "fds %d, threads %d" % (legit.done["download"], legit.done["talk"], legit.done["healthz"],
                                    legit.worst["download"], legit.worst["talk"], legit.worst["healthz"],
                                    peak["rss"] / MIB, peak["fds"], peak["threads"]))
        if not sanitized and peak["rss"] > rss_limit_mib * MIB:
            problems.append("peak RSS %.1f MiB, above %d MiB" % (peak["rss"] / MIB, rss_limit_mib))
        deadline = time.monotonic() + QUIESCE_S
        final = gateway.resources()
        while (final["fds"] > cold["fds"] or final["threads"] > cold["threads"]) and time.monotonic() < deadline:
            time.sleep(0.5)
            final = gateway.resources()
        numbers["after"] = final
        log("siege: afterwards RSS %.1f MiB, fds %d, threads %d (idle: %.1f MiB, %d, %d)" % (
            final["rss"] / MIB, final["fds"], final["threads"], cold["rss"] / MIB, cold["fds"], cold["threads"]))
        if final["fds"] > cold["fds"] or final["threads"] > cold["threads"]:
            problems.append("descriptors %d or threads %d did not come back to %d and %d" % (
                final["fds"], final["threads"], cold["fds"], cold["threads"]))
        if not sanitized and final["rss"] > cold["rss"] + RSS_SETTLE_MIB * MIB:
            problems.append("RSS %.1f MiB after the siege, idle %.1f MiB" % (final["rss"] / MIB, cold["rss"] / MIB))
    except Failure as failure:
        problems.append(str(failure))
    finally:
        if attackers is not None:
            attackers.stop_event.set()
        code = gateway.stop(30)
        if code != 0:
            problems.append("the gateway stopped with %s" % (
                "a kill after 30 s" if code is None else gateway_client.describe_exit(code)))
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    if problems:
        log("siege: gateway log tail:\n" + gateway.log_tail())
        log("siege: work folder kept: %s" % workdir)
    elif not keep:
        shutil.rmtree(workdir, ignore_errors=True)
    return problems, numbers


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default="build", help="build folder with bin/media-gateway and lib/")
    parser.add_argument("--seconds", type=float, default=float(os.environ.get("SIEGE_SECONDS", 60)))
    parser.add_argument("--descriptors", type=int, help="the gateway's descriptor limit (soft and hard)")
    parser.add_argument("--rss-limit-mib", type=float, default=32)
    parser.add_argument("--slowdown", type=float, default=5, help="time factor allowed under a sanitizer build")
    for kind, default in (("audio", 3000), ("idle", 500), ("slowloris", 50), ("readers", 20), ("admin", 50)):
        parser.add_argument("--" + kind, type=int, default=default, help="hostile %s connections" % kind)
    parser.add_argument("--keep", action="store_true", help="keep the work folder (it is kept on failure)")
    args = parser.parse_args()
    counts = {kind: getattr(args, kind) for kind in ("audio", "idle", "slowloris", "readers", "admin")}
    problems, _ = siege(os.path.abspath(args.build), args.seconds, args.descriptors, counts, args.rss_limit_mib,
                        args.slowdown, args.keep, log=lambda text: print(text, flush=True))
    if problems:
        print("siege: FAILED\n  " + "\n  ".join(problems))
        return 1
    print("siege: PASSED")
    return 0


if __name__ == "__main__":
    sys.exit(main())
