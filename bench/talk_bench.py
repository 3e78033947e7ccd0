"""The talk case of the bench: many talks both ways at once, ours against a minimal relay.

The gateway runs one talking device per talk (PCMU, 160-byte packets every
20 ms, keeping what it hears); one client process opens every talk, links
both its GET and its PUT link, then for the measured seconds sends a packet
on every PUT link each packet time and reads every GET link. The references
relay the same packets over plain TCP links with one thread and one timer:
talk_relay.py, and talk_relay.cpp (when the bench built it), the same in C++,
which leaves little but the kernel's own work. Measured on the server: CPU
(user + system from /proc), its threads, and its context switches (the sum
over its threads in /proc, and perf stat when perf works); on the client: each
GET link's rate and the inter-arrival times of its packets; after the close,
every capture file must hold every byte that was said.
"""
import glob
import json
import os
import selectors
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import gateway_client  # noqa: E402
import talk  # noqa: E402

USER, PASSWORD = "talkbench", "talkbench-secret"
PACKET, PERIOD = 160, 0.020
RATE = PACKET / PERIOD  # 8000 B/s of PCMU


def device_id(channel):
    return "7a1c0000-0000-4000-8000-%012d" % channel


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def threads_of(pid):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith("Threads:"):
                return int(line.split()[1])
    return 0


def switches_of(pid):
    """Voluntary and involuntary context switches summed over the process's threads."""
    total = [0, 0]
    for path in glob.glob("/proc/%d/task/*/status" % pid):
        try:
            with open(path) as status:
                for line in status:
                    if line.startswith("voluntary_ctxt_switches:"):
                        total[0] += int(line.split()[1])
                    elif line.startswith("nonvoluntary_ctxt_switches:"):
                        total[1] += int(line.split()[1])
        except OSError:
            pass  # a thread that ended meanwhile
    return total


def perf_stat_start(pid, seconds):
    """perf stat on the server for the measured seconds; None when perf is missing."""
    if not shutil.which("perf"):
        return None
    return subprocess.Popen(["perf", "stat", "-x", ",", "-e", "context-switches,cpu-migrations", "-p", str(pid),
                             "--", "sleep", str(seconds)], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                            text=True)


def perf_stat_result(process):
    if process is None:
        return None
    _, text = process.communicate(timeout=60)
    counts = {}
    for line in text.splitlines():
        fields = line.split(",")
        if len(fields) > 2 and fields[0].strip().isdigit():
            counts[fields[2]] = int(fields[0])
    return counts if "context-switches" in counts else None


class Links:
    """The client side of every talk: PUT links to speak on, GET links to listen on."""

    def __init__(self):
        self.speakers = []  # sockets
        self.said = []  # bytes sent on each PUT link, over every run
        self.listeners = {}  # fd -> [socket, bytes, arrival times]

    def add(self, speaker, listener, early=b""):
        self.speakers.append(speaker)
        self.said.append(0)
        listener.setblocking(False)
        self.listeners[listener.fileno()] = [listener, len(early), []]

    def run(self, seconds):
        """Speaks and listens for seconds; returns the seconds it took."""
        selector = selectors.EpollSelector()
        for fd, entry in self.listeners.items():
            selector.register(entry[0], selectors.EVENT_READ, fd)
        for speaker in self.speakers:
            speaker.setblocking(False)
        audio = bytes(range(256))[:PACKET]
        began = time.monotonic()
        next_tick = began
        end = began + seconds
        while True:
            now = time.monotonic()
            if now >= next_tick:
                if now >= end:
                    break
                for index, speaker in enumerate(self.speakers):
                    try:
                        self.said[index] += speaker.send(audio)
                    except BlockingIOError:
                        pass
                next_tick += PERIOD
            for key, _ in selector.select(max(0.0, next_tick - time.monotonic())):
                entry = self.listeners[key.data]
                try:
                    data = entry[0].recv(65536)
                except BlockingIOError:
                    continue
                if data:
                    entry[1] += len(data)
                    entry[2].append(time.monotonic())
        selector.close()
        return time.monotonic() - began

    def listened(self):
        return [(entry[1], entry[2]) for entry in self.listeners.values()]

    def close(self):
        for speaker in self.speakers:
            speaker.close()
        for entry in self.listeners.values():
            entry[0].close()


def arrival_stats(listened, seconds):
    """Slowest link's rate, and p50 / p99 of packet inter-arrival over every link (ms)."""
    gaps, rates = [], []
    for count, times in listened:
        rates.append(count / seconds)
        gaps.extend((b - a) * 1000 for a, b in zip(times[5:], times[6:]))  # the first packets settle the pace
    gaps.sort()
    pick = (lambda f: gaps[min(len(gaps) - 1, int(f * len(gaps)))]) if gaps else (lambda f: float("nan"))
    return min(rates) if rates else 0.0, pick(0.50), pick(0.99)


def measure(pid, links, seconds):
    """Runs the talks for seconds and returns what the server spent on them."""
    links.run(1.0)  # settle: every talk flowing before the window
    cpu, switches, threads = cpu_seconds(pid), switches_of(pid), threads_of(pid)
    perf = perf_stat_start(pid, seconds)
    elapsed = links.run(seconds)
    cpu, after = cpu_seconds(pid) - cpu, switches_of(pid)
    slowest, p50, p99 = arrival_stats(links.listened(), elapsed + 1.0)
    result = {
        "cpu %": 100.0 * cpu / elapsed,
        "threads": max(threads, threads_of(pid)),
        "switches/s": (after[0] + after[1] - switches[0] - switches[1]) / elapsed,
        "slowest link B/s": slowest,
        "p50 ms": p50,
        "p99 ms": p99,
    }
    counts = perf_stat_result(perf)
    if counts:
        result["perf switches/s"] = counts["context-switches"] / seconds
        result["perf migrations/s"] = counts.get("cpu-migrations", 0) / seconds
    return result


class GatewayTalks:
    label = "ours"

    def __init__(self, build_dir, folder, talks):
        self.build_dir, self.folder, self.talks = build_dir, folder, talks
        self.media = os.path.join(folder, "media")
        self.process = None

    def start(self):
        devices = []
        for channel in range(1, self.talks + 1):
            os.makedirs(os.path.join(self.media, device_id(channel)))
            with open(os.path.join(self.media, device_id(channel), "recordings.json"), "w") as index:
                index.write('{"recordings": []}')
            devices.append({"devIndex": device_id(channel), "address": "127.0.0.1", "rtspPort": 10000 + channel,
                            "talk": {"channel": channel, "codec": "PCMU", "capture": True}})
        self.port = gateway_client.free_port_pair()
        self.process = gateway_client.GatewayProcess(
            os.path.join(self.build_dir, "bin", "media-gateway"), self.folder,
            ["--plugin", os.path.join(self.build_dir, "lib", "libHttpProtocolWrapper.so")])
        self.process.start({
            "server": {"httpPort": self.port, "maxTalksPerUser": 100},
            "auth": {"realm": "talk-bench", "users": [{"name": USER, "password": PASSWORD}]},
            "media": {"folder": self.media, "devices": devices},
            "log": {"level": "info"},
        })
        if not self.process.wait_ready(30):
            raise SystemExit("bench: the gateway did not get ready\n" + self.process.log_tail())
        self.pid = self.process.pid
        self.digest = talk.Digest(USER, PASSWORD)
        self.idle_threads = threads_of(self.pid)

    def open(self, links):
        for channel in range(1, self.talks + 1):
            body = talk.talk_request("127.0.0.1", self.port, self.digest, channel, "open")
            session = body.split("<sessionId>", 1)[1].split("<", 1)[0]
            listener, early = talk.open_link("127.0.0.1", self.port + 1, self.port, self.digest, "GET", channel,
                                             session)
            speaker, _ = talk.open_link("127.0.0.1", self.port + 1, self.port, self.digest, "PUT", channel, session)
            links.add(speaker, listener, early)

    def close(self, links):
        for channel in range(1, self.talks + 1):
            talk.talk_request("127.0.0.1", self.port, self.digest, channel, "close")
        links.close()
        self.process.wait_for_status(lambda status: status.get("openTalks") == 0, 30)

    def captured(self, channel):
        files = glob.glob(os.path.join(self.media, device_id(channel), "talk-ch%d-*" % channel))
        return len(talk.read_wav(files[0])[4]) if len(files) == 1 else -1

    def stop(self):
        if self.process:
            self.process.stop(30)


class RelayTalks:
    label = "epoll relay (Python)"

    def __init__(self, folder, talks):
        self.folder, self.talks = os.path.join(folder, "relay"), talks
        self.process = None

    def start(self):
        os.makedirs(self.folder)
        self.port = gateway_client.free_port()
        self.process = subprocess.Popen(self.command(), stdout=subprocess.PIPE, text=True)
        self.process.stdout.readline()
        self.pid = self.process.pid
        self.idle_threads = threads_of(self.pid)

    def command(self):
        return [sys.executable, os.path.join(os.path.dirname(__file__), "talk_relay.py"), str(self.port), self.folder]

    def open(self, links):
        for channel in range(1, self.talks + 1):
            listener = socket.create_connection(("127.0.0.1", self.port))
            listener.sendall(b"GET %d\n" % channel)
            speaker = socket.create_connection(("127.0.0.1", self.port))
            speaker.sendall(b"PUT %d\n" % channel)
            links.add(speaker, listener)

    def close(self, links):
        links.close()
        time.sleep(0.5)

    def captured(self, channel):
        try:
            return os.path.getsize(os.path.join(self.folder, "ch%d.raw" % channel))
        except OSError:
            return -1

    def stop(self):
        if self.process:
            self.process.terminate()
            self.process.wait(10)


class CompiledRelayTalks(RelayTalks):
    """The same relay compiled (talk_relay.cpp, built with the bench): the kernel's share of the job alone."""
    label = "epoll relay (C++)"

    def __init__(self, folder, talks, binary):
        super().__init__(folder, talks)
        self.folder = os.path.join(folder, "compiled-relay")
        self.binary = binary

    def command(self):
        return [self.binary, str(self.port), self.folder]


def run_one(server, talks, seconds):
    server.start()
    links = Links()
    try:
        server.open(links)
        result = measure(server.pid, links, seconds)
        result["extra threads"] = result["threads"] - server.idle_threads
        server.close(links)
        complete = sum(1 for channel in range(1, talks + 1) if server.captured(channel) == links.said[channel - 1])
        result["complete captures"] = complete
        return result
    finally:
        server.stop()


def run_talk_bench(build_dir, talks=100, seconds=10.0, keep=False):
    """{label: measurements} for ours and the reference relays (the compiled one when it was built)."""
    folder = tempfile.mkdtemp(prefix="hpw-talk-bench-")
    try:
        results = {}
        servers = [GatewayTalks(os.path.abspath(build_dir), folder, talks), RelayTalks(folder, talks)]
        compiled = os.path.join(os.path.abspath(build_dir), "bin", "talk_relay")
        if os.access(compiled, os.X_OK):
            servers.append(CompiledRelayTalks(folder, talks, compiled))
        for server in servers:
            print("bench: %d talks both ways for %.0f s: %s" % (talks, seconds, server.label), flush=True)
            results[server.label] = run_one(server, talks, seconds)
        return results
    finally:
        if keep:
            print("bench: kept %s" % folder)
        else:
            shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    import argparse
    parser = argparse.ArgumentParser(description="the talk case of the bench alone")
    parser.add_argument("build_dir")
    parser.add_argument("--talks", type=int, default=100)
    parser.add_argument("--seconds", type=float, default=10.0)
    parser.add_argument("--keep", action="store_true")
    arguments = parser.parse_args()
    print(json.dumps(run_talk_bench(arguments.build_dir, arguments.talks, arguments.seconds, arguments.keep),
                     indent=1))
