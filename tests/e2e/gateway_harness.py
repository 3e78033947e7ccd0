"""Runs the real media-gateway with the real plug-in for one test case.

Each case gets a temporary directory with its own configuration, media folder,
status file and log, a free port, and a gateway that must stop with exit code 0
on SIGTERM when the case ends. Python 3 standard library only.

A test file is run as: python3 test_x.py <media-gateway> <libHttpProtocolWrapper.so>
"""
import http.client
import json
import os
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest

TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools")
TALK = os.path.join(TOOLS, "talk.py")
sys.path.insert(0, TOOLS)
import gateway_client  # noqa: E402
from gateway_client import free_port, free_port_pair, md5  # noqa: E402,F401  (the tests' own names for them)

GATEWAY = None
PLUGIN = None

USER, PASSWORD, REALM = "admin", "e2e-secret", "e2e-realm"
DEVICE = "e2e00000-0000-4000-8000-000000000001"   # addressed by devIndex and by rtspPort 554
CAMERA = "e2e00000-0000-4000-8000-00000000ca3e"   # addressed by the XML form's camera/<id>/ path
DEVICE_DEFAULT = "8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41"  # the gateway's built-in sample device
START, END = "20260101T000000Z", "20260101T001000Z"
HEAD_SIZE = 40


# How the gateway sends files: its default, the plug-in's event loop ("loop"), or "blocking" (a thread per
# download); CTest runs the download cases both ways.
DELIVERY = os.environ.get("GATEWAY_DELIVERY", "loop")


def main():
    """Takes the two paths from the command line and runs the file's cases."""
    global GATEWAY, PLUGIN
    if len(sys.argv) < 3:
        sys.exit("usage: %s <media-gateway> <libHttpProtocolWrapper.so>" % sys.argv[0])
    GATEWAY, PLUGIN = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    unittest.main(argv=sys.argv[:1] + sys.argv[3:], verbosity=2)


def playback_uri(device=DEVICE, name=None, size=None, start=START, end=END):
    """The JSON form's playback URI; without name and size the reply is chunked."""
    uri = "rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=%s&endtime=%s" % (start, end)
    if name is not None:
        uri += "&name=%s" % name
    if size is not None:
        uri += "&size=%d" % size
    return uri + "&devIndex=%s" % device


XML_PATH = "/QUMEX/ContentMgmt/download"


def json_path(device=DEVICE):
    return XML_PATH + "?format=json&devIndex=" + device


def json_body(uri):
    return json.dumps({"downloadRequest": {"playbackURI": uri}})


def xml_body(uri):
    return "<downloadRequest><playbackURI>%s</playbackURI></downloadRequest>" % uri.replace("&", "&amp;")


def json_download_args(port, uri, device=DEVICE):
    url = "http://127.0.0.1:%d%s" % (port, json_path(device))
    return ["-X", "POST", url, "-H", "Content-Type: application/json", "--data-binary", json_body(uri)]


def xml_download_args(port, uri):
    url = "http://127.0.0.1:%d%s" % (port, XML_PATH)
    return ["-X", "GET", url, "-H", "Content-Type: application/xml", "--data-binary", xml_body(uri)]


def digest_authorization(challenge, method, uri, user=USER, password=PASSWORD):
    """The Authorization value a client computes from a WWW-Authenticate challenge."""
    return gateway_client.answer_challenge(challenge, method, uri, user, password)


class CurlResult:
    def __init__(self, status, headers, body):
        self.status, self.headers, self.body = status, headers, body

    def json(self):
        return json.loads(self.body)


class GatewayCase(unittest.TestCase):
    """One gateway per case: setUp starts it, tearDown stops it and checks exit code 0."""
    ADMIN = False  # True: the gateway also has its admin endpoint, on loopback at admin_port

    def setUp(self):
        if self.ADMIN:
            self.admin_port = free_port()
        self.dir = tempfile.mkdtemp(prefix="gateway-e2e-")
        self.media = os.path.join(self.dir, "media")
        self.gateway = gateway_client.GatewayProcess(GATEWAY, self.dir)
        self.status_path, self.log_path = self.gateway.status_path, self.gateway.log_path
        self.port = free_port_pair()  # the audio channel takes the next port
        self.recordings = {}
        self.prepare_media()
        self.process = self.start_gateway(self.config())
        self.wait_for_status(lambda status: status.get("ready"), "gateway ready")

    def tearDown(self):
        try:
            code = self.gateway.stop()
            self.assertEqual(code, 0, "gateway exit code on SIGTERM\n" + self.log_tail())
        finally:
            shutil.rmtree(self.dir, ignore_errors=True)

    def prepare_media(self):
        """Default media: one recording per device. Cases override to change it."""
        self.add_recording(DEVICE, "clip-a.bin", 1024 * 1024 + 333)
        self.add_recording(CAMERA, "clip-c.bin", 200 * 1024 + 7)

    def add_recording(self, device, name, size, start=START, end=END):
        folder = os.path.join(self.media, device)
        os.makedirs(folder, exist_ok=True)
        content = random.Random(device + name).randbytes(size)
        with open(os.path.join(folder, name), "wb") as out:
            out.write(content)
        self.write_index(device, [name], start, end)  # one recording per device
        self.recordings[(device, name)] = content

    def write_index(self, device, names, start=START, end=END):
        """The device's recordings.json, listing `names` over one time span."""
        with open(os.path.join(self.media, device, "recordings.json"), "w") as out:
            json.dump({"recordings": [{"name": name, "starttime": start, "endtime": end} for name in names]}, out)

    def config(self):
        """The case's configuration; None starts the gateway on its built-in defaults."""
        return {
            "server": {"httpPort": self.port, "work_thread": 4, "delivery": DELIVERY},
            "auth": {"realm": REALM, "users": [{"name": USER, "password": PASSWORD}],
                     "nonceLifetimeSeconds": 300},
            "media": {"folder": self.media, "blockSize": 64 * 1024, "devices": [
                {"devIndex": DEVICE, "address": "127.0.0.1", "rtspPort": 554},
                {"devIndex": CAMERA, "address": "127.0.0.1", "rtspPort": 8554}]},
            "log": {"level": "info"},
            "plugin": PLUGIN,
            **({"admin": {"listen": "127.0.0.1:%d" % self.admin_port}} if self.ADMIN else {}),
        }

    def port_of_its_own(self):
        """A free port that is neither the gateway's HTTP port nor the audio port after it, which is not bound
        yet while the configuration is written."""
        while True:
            port = free_port()
            if port not in (self.port, self.port + 1):
                return port

    def start_gateway(self, config, *extra):
        return self.gateway.start(config, *extra)

    def write_config(self, config):
        """Rewrites the running gateway's configuration file for a reload: a dictionary as JSON, text as it is."""
        with open(self.gateway.config_path, "w") as out:
            out.write(config if isinstance(config, str) else json.dumps(config))

    def second_gateway(self, config, folder="second", **start_options):
        """Another gateway in a folder of the case's own, started on `config` (and GatewayProcess.start's
        options) and stopped with the case."""
        second = gateway_client.GatewayProcess(GATEWAY, os.path.join(self.dir, folder))
        second.start(config, **start_options)
        self.addCleanup(second.stop, 10)  # a no-op once the case has stopped it
        return second

    def status(self):
        return self.gateway.status()

    def wait_for_status(self, condition, what, timeout=15):
        status = self.gateway.wait_for_status(condition, timeout)
        if status is None:
            self.fail("no %s (gateway %s); status %s\n%s" % (
                what, "running" if self.gateway.alive() else "exited with %s" % self.process.returncode,
                self.status(), self.log_tail()))
        return status

    def metrics(self):
        """The admin endpoint's metrics, {'name{labels}': value}."""
        status, text = http_get(self.admin_port, "/metrics")
        self.assertEqual(status, 200)
        return parse_metrics(text)

    def wait_for_log(self, pattern, timeout=5):
        """The gateway's log once it matches pattern; the status file is written before the log line."""
        deadline = time.monotonic() + timeout
        while True:
            with open(self.log_path, errors="replace") as source:
                text = source.read()
            if re.search(pattern, text) or time.monotonic() > deadline:
                self.assertRegex(text, pattern)
                return text
            time.sleep(0.05)

    def log_tail(self, lines=30):
        return self.gateway.log_tail(lines)

    def curl(self, *args, user=USER, password=PASSWORD, timeout=60):
        """curl with --digest; returns the final response."""
        body_path = os.path.join(self.dir, "body.bin")
        command = ["curl", "-sS", "-o", body_path, "-D", "-", "-w", "\n%{http_code}", "--max-time", str(timeout),
                   "--digest", "-u", "%s:%s" % (user, password)]
        result = subprocess.run(command + list(args), capture_output=True, timeout=timeout + 10)
        output = result.stdout.decode(errors="replace")
        self.assertEqual(result.returncode, 0, "curl failed: %s\n%s" % (result.stderr.decode(), self.log_tail()))
        headers, _, status = output.rpartition("\n")
        with open(body_path, "rb") as source:
            body = source.read()
        # With --digest the header dump holds the challenge first; keep the final response's head.
        final_head = re.split(r"\r\n\r\n(?=HTTP/)", headers.strip())[-1]
        return CurlResult(int(status), final_head, body)

    def send(self, method, path, body=b"", headers=None, timeout=15, port=None):
        """(status, body bytes, response) of one request to the gateway (or `port`), without retrying anything."""
        connection = http.client.HTTPConnection("127.0.0.1", port or self.port, timeout=timeout)
        try:
            connection.request(method, path, body=body, headers=headers or {})
            response = connection.getresponse()
            return response.status, response.read(), response
        finally:
            connection.close()

    def talk_tool(self, *args, password=PASSWORD, audio_port=None, wait=True):
        """tools/talk.py against this gateway: its finished run, or with wait=False the running process."""
        command = [sys.executable, TALK, "--user", "%s:%s" % (USER, password),
                   *(["--audio-port", str(audio_port)] if audio_port else []), *args, "http://127.0.0.1:%d" % self.port]
        if not wait:
            return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return subprocess.run(command, capture_output=True, timeout=60)

    def challenge(self, method, path, body, port=None):
        """The WWW-Authenticate value of a request without credentials, for tests that compute their own."""
        status, _, response = self.send(method, path, body, timeout=60, port=port)
        self.assertEqual(status, 401)
        return response.getheader("WWW-Authenticate", "")

    def assert_recording_body(self, body, device, name):
        """The body is the 40-byte stream head followed by the recording file, byte for byte."""
        content = self.recordings[(device, name)]
        self.assertEqual(len(body), HEAD_SIZE + len(content))
        magic, version, head_length, file_length = struct.unpack_from("<4sHHQ", body)
        self.assertEqual((magic, version, head_length, file_length), (b"MGRH", 1, HEAD_SIZE, len(content)))
        self.assertTrue(body[HEAD_SIZE:] == content, "body differs from %s" % name)


class SampleGatewayCase(GatewayCase):
    """The gateway as `make run` starts it: no configuration file, its built-in defaults, and the sample it
    writes into the media folder; the plug-in found at its default place, ../lib beside the executable's."""

    def config(self):
        return None

    def prepare_media(self):
        pass

    def start_gateway(self, config, *extra):
        return self.gateway.start(None, "--port", str(self.port), "--media", self.media, "--sample")


NGINX_CONFIG = """
daemon off;
master_process off;
worker_processes 1;
pid {dir}/nginx.pid;
error_log {dir}/error.log info;
events {{ worker_connections 64; }}
http {{
    access_log off;
    client_body_temp_path {dir}/body;
    proxy_temp_path {dir}/proxy;
    fastcgi_temp_path {dir}/fastcgi;
    uwsgi_temp_path {dir}/uwsgi;
    scgi_temp_path {dir}/scgi;
    {upstream}
    server {{
        listen 127.0.0.1:{port};
        location / {{
            proxy_pass http://{backend};
            proxy_http_version 1.1;
            proxy_set_header X-Forwarded-For {forwarded};
            proxy_buffering off;
            proxy_request_buffering off;
            {extra}
        }}
    }}
}}
"""


def start_nginx(case, backend, forwarded="$remote_addr", upstream="", extra=""):
    """nginx in front of `backend` (host:port, or an upstream's name), stopped with the case; returns its port."""
    port = free_port()
    folder = os.path.join(case.dir, "nginx-%d" % port)
    nginx = gateway_client.start_nginx(folder, NGINX_CONFIG.format(
        dir=folder, port=port, backend=backend, forwarded=forwarded, upstream=upstream, extra=extra), [port])
    case.addCleanup(lambda: nginx.terminate() or nginx.wait(timeout=10))
    return port


def http_get(port, path):
    """(status, body text) of a plain GET, as on the gateway's admin endpoint."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    try:
        connection.request("GET", path)
        response = connection.getresponse()
        return response.status, response.read().decode()
    finally:
        connection.close()


def parse_metrics(text):
    """{'name{labels}': value} of a Prometheus text exposition; a line of any other form is an error."""
    samples = {}
    for line in text.splitlines():
        if not line or line.startswith("# HELP ") or line.startswith("# TYPE "):
            continue
        match = re.fullmatch(r'([a-zA-Z_:][a-zA-Z0-9_:]*(?:\{[^}]*\})?) (\S+)', line)
        if match is None:
            raise ValueError("not a sample line: %r" % line)
        samples[match.group(1)] = float(match.group(2))
    return samples
