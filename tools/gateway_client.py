"""What the project's Python tools share to speak to and run a media-gateway:
Digest answers to its challenges, and the gateway process itself.

Used by tools/talk.py, tools/soak.py, bench/bench.py and the end-to-end tests.
Python 3 standard library only.
"""
import hashlib
import json
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import threading
import time


def md5(text):
    return hashlib.md5(text.encode()).hexdigest()


def free_port():
    """A loopback port free at the time of asking."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def free_port_pair():
    """A loopback port P, free at the time of asking together with P + 1: a gateway's HTTP port, whose
    two-way audio channel takes the next port unless told otherwise."""
    while True:
        port = free_port()
        if port < 65535:
            with socket.socket() as probe:
                try:
                    probe.bind(("127.0.0.1", port + 1))
                    return port
                except OSError:
                    pass


def challenge_params(header):
    """The quoted parameters of a WWW-Authenticate value (realm, nonce, qop, ...)."""
    return dict(re.findall(r'(\w+)="([^"]*)"', header or ""))


class Digest:
    """Answers one server's Digest challenges (RFC 7616, MD5, qop=auth).

    A nonce is reused until a new challenge comes, with nc counting up on each
    use: the gateway refuses a count it has seen with that nonce (a replay).
    Safe to share between threads.
    """

    def __init__(self, user, password):
        self.user, self.password = user, password
        self.realm = self.nonce = None
        self._counts = {}
        self._lock = threading.Lock()

    def learn(self, header):
        """Takes the realm and nonce of a challenge; False when it has neither."""
        params = challenge_params(header)
        if "realm" not in params or "nonce" not in params:
            return False
        with self._lock:
            self.realm, self.nonce = params["realm"], params["nonce"]
        return True

    @property
    def ready(self):
        return self.nonce is not None

    def authorization(self, method, uri, password=None):
        """The Authorization value for one request (a wrong password may be given to test refusals)."""
        with self._lock:
            realm, nonce = self.realm, self.nonce
            count = self._counts[nonce] = self._counts.get(nonce, 0) + 1
        nc, cnonce = "%08x" % count, os.urandom(8).hex()
        ha1 = md5("%s:%s:%s" % (self.user, realm, self.password if password is None else password))
        ha2 = md5("%s:%s" % (method, uri))
        response = md5("%s:%s:%s:%s:auth:%s" % (ha1, nonce, nc, cnonce, ha2))
        return ('Digest username="%s", realm="%s", nonce="%s", uri="%s", qop=auth, nc=%s, cnonce="%s", '
                'response="%s"' % (self.user, realm, nonce, uri, nc, cnonce, response))


def answer_challenge(header, method, uri, user, password):
    """The Authorization value for one request, from the challenge it got."""
    digest = Digest(user, password)
    if not digest.learn(header):
        raise ValueError("not a Digest challenge: %r" % header)
    return digest.authorization(method, uri)


def port_open(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def start_nginx(folder, config_text, ports, timeout=10):
    """nginx from a configuration text written into folder (which its files go to); returns the
    process once every port listens, or raises RuntimeError."""
    os.makedirs(folder, exist_ok=True)
    config = os.path.join(folder, "nginx.conf")
    with open(config, "w") as out:
        out.write(config_text)
    nginx = subprocess.Popen([shutil.which("nginx") or "/usr/sbin/nginx", "-p", folder, "-c", config,
                              "-e", os.path.join(folder, "early.log")],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + timeout
    while not all(port_open(port) for port in ports):
        if nginx.poll() is not None or time.monotonic() > deadline:
            nginx.kill()
            nginx.wait()
            raise RuntimeError("nginx did not start listening; see %s" % folder)
        time.sleep(0.05)
    return nginx


def describe_exit(code):
    return "signal %s" % signal.Signals(-code).name if code < 0 else "exit code %d" % code


class GatewayProcess:
    """One media-gateway process, started from a JSON configuration in a work folder.

    The folder keeps gateway.json, the status file, the log and the process's
    own output, so that a failure can show what the gateway said.
    """

    def __init__(self, binary, workdir, extra_args=()):
        self.binary = binary
        self.workdir = workdir
        os.makedirs(workdir, exist_ok=True)
        self.extra_args = list(extra_args)
        self.config_path = os.path.join(workdir, "gateway.json")
        self.status_path = os.path.join(workdir, "status.json")
        self.log_path = os.path.join(workdir, "gateway.log")
        self.output_path = os.path.join(workdir, "stderr.txt")
        self.process = None

    def start(self, config=None, *args, env=None, descriptors=None, file_size=None):
        """Starts the gateway with the configuration (None: its built-in defaults), extra arguments and
        environment, with at most `descriptors` open files and files of at most `file_size` bytes when given
        (soft and hard limit); the status file and log are always the folder's."""
        command = [self.binary]
        if config is not None:
            with open(self.config_path, "w") as out:
                json.dump(config, out)
            command += ["--config", self.config_path]
        command += ["--status-file", self.status_path, "--log-file", self.log_path, *self.extra_args, *args]
        limits = [(resource.RLIMIT_NOFILE, descriptors), (resource.RLIMIT_FSIZE, file_size)]
        limits = [(which, value) for which, value in limits if value is not None]

        def apply_limits():
            for which, value in limits:
                resource.setrlimit(which, (value, value))

        with open(self.output_path, "ab") as output:
            self.process = subprocess.Popen(command, stdout=output, stderr=output, env=env,
                                            preexec_fn=apply_limits if limits else None)
        return self.process

    @property
    def pid(self):
        return self.process.pid

    def alive(self):
        return self.process is not None and self.process.poll() is None

    def status(self):
        """The status file as a dictionary; empty while it is missing or half written."""
        try:
            with open(self.status_path) as source:
                return json.load(source)
        except (OSError, ValueError):
            return {}

    def wait_for_status(self, condition, timeout=15):
        """The status once condition holds; None when the time ran out or the process ended."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            status = self.status()
            if condition(status):
                return status
            if not self.alive():
                return None
            time.sleep(0.05)
        return None

    def wait_ready(self, timeout=15):
        return self.wait_for_status(lambda status: status.get("ready"), timeout) is not None

    def stop(self, timeout=30):
        """SIGTERM, then the exit code; a gateway still running after timeout is killed (None)."""
        if self.process is None:
            return 0
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                return self.process.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
                return None
        return self.process.returncode

    def log_text(self):
        try:
            with open(self.log_path, errors="replace") as source:
                return source.read()
        except OSError:
            return ""

    def log_tail(self, lines=30):
        text = ""
        for path in (self.log_path, self.output_path):
            try:
                with open(path, errors="replace") as source:
                    text += "".join(source.readlines()[-lines:])
            except OSError:
                pass
        return text

    def resources(self):
        """Resident memory (bytes), threads and descriptors of the process."""
        fields = {}
        with open("/proc/%d/status" % self.pid) as source:
            for line in source:
                key, _, value = line.partition(":")
                fields[key] = value.split()
        return {"rss": int(fields["VmRSS"][0]) * 1024, "threads": int(fields["Threads"][0]),
                "fds": len(os.listdir("/proc/%d/fd" % self.pid))}
