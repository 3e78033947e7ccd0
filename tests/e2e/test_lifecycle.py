"""Start and stop of the gateway process: defaults, refusals at start, clean exit."""
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402


class StartRefusals(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="gateway-e2e-")
        self.addCleanup(self.dir.cleanup)

    def run_gateway(self, *args, config=None):
        command = [h.GATEWAY, "--media", os.path.join(self.dir.name, "media"), *args]
        if config is not None:
            path = os.path.join(self.dir.name, "gateway.json")
            with open(path, "w") as out:
                out.write(config)
            command += ["--config", path]
        return subprocess.run(command, capture_output=True, text=True, timeout=30)

    def test_bad_configuration_exits_2_naming_the_field(self):
        for config, field in [('{"server":{"httpPort":0}}', "server.httpPort"),
                              ('{"auth":{"users":[{"name":"a"}]}}', "auth.users[0]"),
                              ('{"media":{"devices":[{"devIndex":"x"}]}}', "media.devices[0].devIndex"),
                              ('{"logging":{}}', "logging: unknown field"),
                              ('{"server":', "not valid JSON")]:
            result = self.run_gateway(config=config)
            self.assertEqual(result.returncode, 2, config)
            self.assertIn(field, result.stderr)
        result = self.run_gateway("--port", "http")
        self.assertEqual(result.returncode, 2)
        self.assertIn("server.httpPort", result.stderr)
        result = self.run_gateway("--status-file", os.path.join(self.dir.name, "missing", "status.json"))
        self.assertEqual(result.returncode, 2)
        self.assertIn("statusFile", result.stderr)

    def test_missing_plugin_exits_1(self):
        result = self.run_gateway("--port", str(h.free_port()), "--plugin", os.path.join(self.dir.name, "none.so"))
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot load the plug-in", result.stderr)

    def test_port_in_use_exits_1(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            result = self.run_gateway("--port", str(taken.getsockname()[1]), "--plugin", h.PLUGIN)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("CreateServer", result.stderr)


class DefaultsWithoutConfigFile(h.GatewayCase):
    def write_config(self, config=None):
        return None  # no file: built-in defaults and command-line overrides only

    def start_gateway(self, config_path, *extra):
        # The plug-in is found at its default place, ../lib beside the executable's folder.
        return subprocess.Popen([h.GATEWAY, "--port", str(self.port), "--media", self.media,
                                 "--status-file", self.status_path, "--log-file", self.log_path])

    def prepare_media(self):
        pass

    def test_defaults_serve_the_sample_to_the_default_user(self):
        self.assertEqual(self.status()["port"], self.port)
        with open(os.path.join(self.media, h.DEVICE_DEFAULT, "sample-0001.bin"), "rb") as sample:
            self.recordings[(h.DEVICE_DEFAULT, "sample-0001.bin")] = sample.read()
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(device=h.DEVICE_DEFAULT),
                                                device=h.DEVICE_DEFAULT),
                          user="admin", password="gateway-demo")
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE_DEFAULT, "sample-0001.bin")

    def test_sigint_stops_with_exit_code_0(self):
        self.process.send_signal(signal.SIGINT)
        self.assertEqual(self.process.wait(timeout=30), 0, self.log_tail())
        status = self.status()
        self.assertFalse(status["ready"])
        with open(self.log_path) as log:
            self.assertIn("stopped", log.read())


if __name__ == "__main__":
    h.main()
