"""The Debian package, made from this build by cpack and unpacked into a folder with dpkg -x: it holds
the gateway and what it loads (no test program), the unit, the configuration and the log rotation;
unpacked, it serves a download and a talk with its own configuration (ports and paths moved into the
folder), rotates its access log, and names its version as the package does."""
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

import gateway_harness as h
import gateway_client  # noqa: E402

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
PREFIX = "opt/media-gateway"
LIBRARIES = ["libHttpProtocolWrapper.so", "libIdentify.so", "libVQNetUtils.so", "libwlog.so", "libzrt.so"]


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="gateway-e2e-")
        build = os.path.dirname(os.path.dirname(h.GATEWAY))
        made = subprocess.run(["cpack", "--config", os.path.join(build, "CPackConfig.cmake"), "-B",
                               os.path.join(cls.dir, "out")], capture_output=True, text=True, timeout=300)
        if made.returncode != 0:
            shutil.rmtree(cls.dir, ignore_errors=True)
            raise AssertionError("cpack failed:\n" + made.stdout + made.stderr)
        (cls.deb,) = glob.glob(os.path.join(cls.dir, "out", "media-gateway_*.deb"))
        cls.root = os.path.join(cls.dir, "root")
        subprocess.run(["dpkg", "-x", cls.deb, cls.root], check=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def test_the_package_holds_the_gateway_and_its_files_only(self):
        self.assertEqual(sorted(os.listdir(self.path(PREFIX, "bin"))), ["media-gateway"])
        self.assertEqual(sorted(os.listdir(self.path(PREFIX, "lib"))), LIBRARIES)
        conffiles = subprocess.run(["dpkg-deb", "-I", self.deb, "conffiles"], capture_output=True, text=True,
                                   check=True).stdout.split()
        self.assertEqual(conffiles, ["/etc/media-gateway/gateway.json", "/etc/logrotate.d/media-gateway"])
        for conffile in conffiles:
            self.assertTrue(os.path.isfile(self.path(conffile.lstrip("/"))), conffile)
        with open(self.path("lib/systemd/system/media-gateway.service")) as source:
            unit = source.read()
        self.assertIn("\nExecStart=/%s/bin/media-gateway --config /etc/media-gateway/gateway.json\n" % PREFIX, unit)
        # The README section the unit's comment sends a reader to is there.
        with open(os.path.join(ROOT, "README.md")) as source:
            headings = {line.lstrip("#").strip() for line in source if line.startswith("#")}
        comment = " ".join(line.lstrip("# ") for line in unit.split("\n[Unit]")[0].splitlines())
        named = re.findall(r'"([^"]+)"', re.search(r'\(README\.md((?:, "[^"]+")+)\)', comment).group(1))
        self.assertTrue(named and set(named) <= headings, named)

    def test_unpacked_it_serves_with_its_own_configuration_and_rotates_its_access_log(self):
        version = subprocess.run(["dpkg-deb", "-f", self.deb, "Version"], capture_output=True, text=True,
                                 check=True).stdout.strip()
        said = subprocess.run([self.path(PREFIX, "bin", "media-gateway"), "--version"], capture_output=True,
                              text=True, check=True).stdout
        self.assertEqual(said.splitlines()[0], "media-gateway " + version)

        # The service's configuration; what points into the system points into the folder instead, and
        # ports that are free here replace 8080 and 9464. The audio port is the configuration's own.
        with open(self.path("etc/media-gateway/gateway.json")) as source:
            config = json.load(source)
        (user,) = config["auth"]["users"]
        self.assertNotIn("audioTalkPort", config["server"])
        port, admin = h.free_port_pair(), h.free_port()
        media = self.path(config["media"]["folder"].lstrip("/"))
        access_log = self.path(config["log"]["access"].lstrip("/"))
        os.makedirs(media)  # as the package's postinst does
        os.makedirs(os.path.dirname(access_log))
        gateway = gateway_client.GatewayProcess(self.path(PREFIX, "bin", "media-gateway"), self.path("run"))
        gateway.start(None, "--config", self.path("etc/media-gateway/gateway.json"), "--port", str(port), "--admin",
                      "127.0.0.1:%d" % admin, "--media", media, "--access-log", access_log, "--sample")
        self.addCleanup(gateway.stop)
        self.assertTrue(gateway.wait_ready(), gateway.log_tail())
        self.assertEqual(gateway.status()["listeners"]["audio"], "127.0.0.1:%d" % (port + 1))

        device = config["media"]["devices"][0]["devIndex"]
        auth = "%s:%s" % (user["name"], user["password"])
        download = ["curl", "-sS", "--digest", "-u", auth, "-o", os.path.join(self.dir, "out.bin"), "-w",
                    "%{http_code}", *h.json_download_args(port, h.playback_uri(device=device), device=device)]
        self.assertEqual(subprocess.run(download, capture_output=True, text=True).stdout, "200", gateway.log_tail())
        with open(os.path.join(media, device, "sample-0001.bin"), "rb") as sample, \
                open(os.path.join(self.dir, "out.bin"), "rb") as body:
            self.assertTrue(body.read()[h.HEAD_SIZE:] == sample.read())
        talk = subprocess.run([sys.executable, os.path.join(ROOT, "tools", "talk.py"), "--quiet", "--user", auth,
                               "--channel", "1", "--seconds", "1", "--record", os.path.join(self.dir, "heard.wav"),
                               "http://127.0.0.1:%d" % port], capture_output=True, text=True, timeout=60)
        self.assertEqual(talk.returncode, 0, talk.stderr + gateway.log_tail())

        # The shipped rotation, with its paths in the folder and the reload the unit does (SIGHUP).
        self.assertTrue(self.wait_for_lines(access_log, 2), "the download and the talk are logged")
        with open(self.path("etc/logrotate.d/media-gateway")) as source:
            rotation = source.read()
        self.assertIn("systemctl reload media-gateway.service", rotation)
        rotation = rotation.replace("/var/log/", self.path("var/log") + "/").replace(
            "systemctl reload media-gateway.service", "kill -HUP %d" % gateway.pid)
        with open(os.path.join(self.dir, "logrotate.conf"), "w") as out:
            out.write(rotation)
        rotated = subprocess.run(["logrotate", "-f", "-s", os.path.join(self.dir, "logrotate.state"),
                                  os.path.join(self.dir, "logrotate.conf")], capture_output=True, text=True)
        self.assertEqual(rotated.returncode, 0, rotated.stdout + rotated.stderr)
        deadline = time.monotonic() + 10
        while "reloaded:" not in gateway.log_text():
            self.assertLess(time.monotonic(), deadline, "no reload after the rotation\n" + gateway.log_tail())
            time.sleep(0.05)
        self.assertEqual(subprocess.run(download, capture_output=True, text=True).stdout, "200")
        self.assertTrue(self.wait_for_lines(access_log, 1), "the new access log takes the next download")
        with open(access_log + ".1") as old:
            self.assertEqual(len(old.read().splitlines()), 2, "what came before the rotation stays in the old file")
        self.assertEqual(gateway.stop(), 0, gateway.log_tail())

    @staticmethod
    def wait_for_lines(path, count, timeout=10):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if os.path.exists(path):
                with open(path) as source:
                    if len(source.read().splitlines()) >= count:
                        return True
            time.sleep(0.05)
        return False


if __name__ == "__main__":
    h.main()
