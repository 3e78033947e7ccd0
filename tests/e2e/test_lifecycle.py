"""Start and stop of the gateway process: defaults, refusals at start, clean exit."""
import os
import signal
import socket
import subprocess
import tempfile
import unittest

import gateway_harness as h


class StartRefusals(unittest.TestCase):
    def test_refusals_at_start_exit_2_for_configuration_and_1_for_the_server(self):
        # Which field each refusal names is the gateway's unit tests; here the exit codes and reasons.
        folder = tempfile.TemporaryDirectory(prefix="gateway-e2e-")
        self.addCleanup(folder.cleanup)
        media, missing_media = os.path.join(folder.name, "media"), os.path.join(folder.name, "recordngs")
        os.makedirs(media)
        key_file = os.path.join(folder.name, "identify.key")
        with open(key_file, "w") as out:
            out.write("not a key")
        taken = socket.socket()
        self.addCleanup(taken.close)
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        port = str(taken.getsockname()[1])
        free = lambda: str(h.free_port_pair())  # noqa: E731  (the audio channel takes the next port)
        users = '"auth": {"users": [{"name": "a", "password": "b"}]}'  # a file must name its users
        cases = [  # configuration, arguments, exit code, what stderr says
            ('{"logging":{}}', (), 2, "logging: unknown field"),
            ('{"server":', (), 2, "not valid JSON"),
            (None, ("--port", "http"), 2, "server.httpPort"),
            (None, ("--status-file", os.path.join(folder.name, "no", "status.json")), 2, "statusFile"),
            (None, ("--port", free(), "--admin", "::1:9464"), 2, "admin.listen: "),
            # The admin endpoint lists devices and playback URIs: off loopback only with a token.
            (None, ("--port", free(), "--admin", "0.0.0.0:9464"), 2,
             "admin.listen: 0.0.0.0:9464 is not a loopback address: set admin.token or admin.tokenFile"),
            ('{%s, "admin": {"listen": "0.0.0.0:9464", "tokenFile": "%s"}}' % (users, key_file), ("--port", free()), 2,
             "admin.tokenFile refused: the token in %s must be" % key_file),
            ('{%s, "media": {"blockSize": 16777216}}' % users, ("--port", free()), 2,
             "media.blockSize: must be at most 1048576"),
            # Demo data only where asked: a media folder that is missing is an error, not created.
            (None, ("--port", free(), "--media", missing_media), 2, missing_media + " is not a folder"),
            (None, ("--port", free(), "--plugin", os.path.join(folder.name, "none.so")), 1, "cannot load the plug-in"),
            # A port the plug-in cannot have is named with the reason, and only that port.
            (None, ("--port", port, "--plugin", h.PLUGIN), 1,
             "the plug-in's server did not start: HTTP port 127.0.0.1:%s: Address already in use" % port),
            (None, ("--port", free(), "--audio-port", port, "--plugin", h.PLUGIN), 1,
             "the plug-in's server did not start: two-way audio port 127.0.0.1:%s: Address already in use" % port),
            (None, ("--port", free(), "--admin", "127.0.0.1:" + port, "--plugin", h.PLUGIN), 1,
             "admin endpoint cannot listen on 127.0.0.1:%s: Address already in use" % port),
            # Identity tokens on with a key file the identity library cannot use: the path named.
            ('{"auth": {"supportIdentifyToken": true, "users": [{"name": "a", "password": "b"}]}}', ("--port", free()),
             1, key_file + " is not a 32-byte key file"),
        ]
        for config, args, code, text in cases:
            with self.subTest(text):
                command = [h.GATEWAY, "--media", media, *args]
                if config is not None:
                    with open(os.path.join(folder.name, "gateway.json"), "w") as out:
                        out.write(config)
                    command += ["--config", os.path.join(folder.name, "gateway.json")]
                result = subprocess.run(command, capture_output=True, text=True, timeout=30,
                                        env=dict(os.environ, IDENTIFY_KEY_FILE=key_file))
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertIn(text, result.stderr)
                self.assertNotIn("plug-in error 0x00000000", result.stderr)
        self.assertFalse(os.path.exists(missing_media))


class AdminPortTaken(h.GatewayCase):
    ADMIN = True

    def test_a_second_gateway_on_the_same_admin_port_does_not_start(self):
        # Two listeners share a port only by accident: the second gateway must not take the first's.
        config = self.config()
        config["server"]["httpPort"] = h.free_port()
        second = self.second_gateway(config)  # stopped with the case when it did start after all
        self.assertEqual(second.wait_for_status(lambda status: False, 10) or second.process.poll(), 1,
                         second.log_tail())
        self.assertIn("admin endpoint cannot listen on 127.0.0.1:%d: Address already in use" % self.admin_port,
                      second.log_tail())
        self.assertEqual(h.http_get(self.admin_port, "/healthz"), (200, "ready\n"), "the first one still answers")


class DefaultsWithoutConfigFile(h.SampleGatewayCase):
    def test_defaults_serve_the_sample_to_the_default_user_and_sigint_stops_with_0(self):
        self.assertEqual(self.status()["port"], self.port)
        with open(os.path.join(self.media, h.DEVICE_DEFAULT, "sample-0001.bin"), "rb") as sample:
            self.recordings[(h.DEVICE_DEFAULT, "sample-0001.bin")] = sample.read()
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(device=h.DEVICE_DEFAULT),
                                                device=h.DEVICE_DEFAULT),
                          user="admin", password="gateway-demo")
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE_DEFAULT, "sample-0001.bin")

        self.process.send_signal(signal.SIGINT)  # SIGTERM is every other case's tearDown
        self.assertEqual(self.process.wait(timeout=30), 0, self.log_tail())
        status = self.status()
        self.assertFalse(status["ready"])
        with open(self.log_path) as log:
            self.assertIn("stopped", log.read())


class OperatorHabits(h.GatewayCase):
    def prepare_media(self):
        super().prepare_media()
        # One bad entry beside a good one: the device serves the good one.
        with open(os.path.join(self.media, h.DEVICE, "recordings.json"), "w") as out:
            out.write('{"recordings": [{"name": "missing.bin", "starttime": "%s", "endtime": "%s"},'
                      ' {"name": "clip-a.bin", "starttime": "%s", "endtime": "%s"}]}' % (h.START, h.END, h.START, h.END))

    def test_a_bad_index_entry_is_skipped_at_start_and_on_reload(self):
        self.wait_for_log(r"recording skipped: .*recordings\.json: recordings\[0\]\.name")
        self.process.send_signal(signal.SIGHUP)
        self.wait_for_log(r"reloaded: 1 user\(s\), 2 recording\(s\)")
        reply = self.curl(*h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.assertTrue(self.status()["ready"])
        # tearDown stops it with SIGTERM and checks exit code 0.

    def test_strict_refuses_the_bad_index_entry(self):
        result = subprocess.run([h.GATEWAY, "--config", self.gateway.config_path, "--port", str(h.free_port()),
                                 "--status-file", os.path.join(self.dir, "strict-status.json"), "--log-file", self.log_path,
                                 "--strict"],
                                capture_output=True, text=True, timeout=30)
        self.assertEqual(result.returncode, 2, result.stderr)
        with open(self.log_path) as log:
            self.assertRegex(log.read(), r"media folder refused: .*recordings\[0\]\.name")


if __name__ == "__main__":
    h.main()
