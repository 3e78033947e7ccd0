"""What a new operator runs first, run as written: the README's resume examples against a gateway on its
defaults, and every command that `make run` prints (tools/run-gateway.sh)."""
import glob
import os
import re
import select
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

import gateway_harness as h

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
TOOLS = os.path.join(ROOT, "tools")


def readme_block(containing):
    """The README's one sh code block that holds the text."""
    with open(os.path.join(ROOT, "README.md")) as source:
        blocks = [block for block in re.findall(r"```sh\n(.*?)```", source.read(), re.S) if containing in block]
    if len(blocks) != 1:
        raise AssertionError("%d README blocks hold %r" % (len(blocks), containing))
    return blocks[0]


class ReadmeExamples(h.SampleGatewayCase):
    def run_block(self, containing):
        """Runs the README block in a fresh folder, with this gateway's port and media folder; its output."""
        script = readme_block(containing).replace("127.0.0.1:8080", "127.0.0.1:%d" % self.port)
        script = script.replace("build/media/", self.media + "/").replace("tools/", TOOLS + "/")
        folder = tempfile.mkdtemp(dir=self.dir)
        result = subprocess.run(["bash", "-c", script], cwd=folder, capture_output=True, timeout=120)
        return result.stdout.decode(), result.stderr.decode()

    def test_the_resume_examples_break_a_download_and_finish_it(self):
        output, errors = self.run_block("head -c 1000000 > part.bin")
        self.assertEqual(output.split(), ["identical"], errors + self.log_tail())
        # The first download really broke: the second asked for the rest.
        self.wait_for_log(r"range bytes=1000000-: bytes 1000000-3147001/3147002")
        output, errors = self.run_block("fetch-recording")
        self.assertEqual(output.split(), ["identical"], errors + self.log_tail())


class MakeRunInstructions(unittest.TestCase):
    """tools/run-gateway.sh on a build folder of its own (this build's programs, a fresh media folder)."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="gateway-e2e-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.build = os.path.join(self.dir, "build")
        os.makedirs(self.build)
        os.symlink(os.path.dirname(h.GATEWAY), os.path.join(self.build, "bin"))
        os.symlink(os.path.dirname(h.PLUGIN), os.path.join(self.build, "lib"))
        self.port, admin_port = h.free_port_pair(), h.free_port()
        self.log = open(os.path.join(self.dir, "gateway.log"), "w+")
        self.addCleanup(self.log.close)
        self.script = subprocess.Popen(["bash", os.path.join(TOOLS, "run-gateway.sh"), self.build],
                                       stdout=subprocess.PIPE, stderr=self.log,
                                       env=dict(os.environ, GATEWAY_PORT=str(self.port),
                                                GATEWAY_ADMIN_PORT=str(admin_port)))
        self.addCleanup(lambda: self.script.poll() is None and self.script.kill())

    def printed(self, timeout=30):
        """What the script printed, once it asks for Ctrl-C."""
        text, deadline = b"", time.monotonic() + timeout
        while b"Press Ctrl-C to stop." not in text:
            ready, _, _ = select.select([self.script.stdout], [], [], max(deadline - time.monotonic(), 0))
            piece = self.script.stdout.read1(65536) if ready else b""
            if not piece:
                self.log.seek(0)
                self.fail("run-gateway.sh printed %r\n%s" % (text, self.log.read()))
            text += piece
        return text.decode()

    def test_every_printed_command_works(self):
        text = self.printed()
        self.assertIn("media-gateway is running on port %d, two-way audio on %d" % (self.port, self.port + 1), text)
        commands = text[text.index("Try, from another terminal:"):text.index("Press Ctrl-C to stop.")]
        work = os.path.join(self.dir, "work")
        os.makedirs(work)
        result = subprocess.run(["bash", "-c", commands.partition("\n")[2]], cwd=work, capture_output=True,
                                timeout=120)
        self.log.seek(0)
        diagnosis = result.stderr.decode() + self.log.read()
        # The downloaded body, the resumed one and the download client's file are the recording.
        self.assertEqual(result.stdout.decode().count("identical\n"), 3, result.stdout.decode() + diagnosis)
        self.assertIn("HTTP/1.1 200", result.stdout.decode())  # the health check
        self.assertIn("badAuthorization", result.stdout.decode())  # the wrong password
        self.assertIn("talk closed after", result.stderr.decode(), diagnosis)
        device = os.path.join(self.build, "media", h.DEVICE_DEFAULT)
        self.assertEqual(len(glob.glob(os.path.join(device, "talk-ch1-*.wav"))), 1, "the talk's capture")

        self.script.send_signal(signal.SIGINT)  # Ctrl-C
        self.assertEqual(self.script.wait(timeout=40), 0)


if __name__ == "__main__":
    h.main()
