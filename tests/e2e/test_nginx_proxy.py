"""Downloads through nginx arrive byte-exact, and the client address nginx forwards reaches the gateway."""
import os
import shutil
import socket
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gateway_harness as h  # noqa: E402

NGINX = shutil.which("nginx") or "/usr/sbin/nginx"
CLIENT_ADDRESS = "127.0.0.2"  # a loopback address of its own, so the forwarded address is telling

NGINX_CONFIG = """
daemon off;
master_process off;
worker_processes 1;
pid {dir}/nginx.pid;
error_log {dir}/nginx-error.log info;
events {{ worker_connections 64; }}
http {{
    access_log {dir}/nginx-access.log;
    client_body_temp_path {dir}/body;
    proxy_temp_path {dir}/proxy;
    fastcgi_temp_path {dir}/fastcgi;
    uwsgi_temp_path {dir}/uwsgi;
    scgi_temp_path {dir}/scgi;
    server {{
        listen 127.0.0.1:{port};
        location / {{
            proxy_pass http://127.0.0.1:{gateway_port};
            proxy_http_version 1.1;
            proxy_set_header X-Forwarded-For {forwarded};
            proxy_buffering off;
            proxy_request_buffering off;
        }}
    }}
}}
"""


class NginxProxy(h.GatewayCase):
    FORWARDED = "$remote_addr"  # the recommended set-up: what the client sends is not passed on

    def setUp(self):
        super().setUp()
        self.proxy_port = h.free_port()
        nginx_dir = os.path.join(self.dir, "nginx")
        os.makedirs(nginx_dir)
        config = os.path.join(nginx_dir, "nginx.conf")
        with open(config, "w") as out:
            out.write(NGINX_CONFIG.format(dir=nginx_dir, port=self.proxy_port, gateway_port=self.port,
                                          forwarded=self.FORWARDED))
        self.nginx = subprocess.Popen(
            [NGINX, "-p", nginx_dir, "-c", config, "-e", os.path.join(nginx_dir, "early.log")],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.stop_nginx)
        deadline = time.monotonic() + 10
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.proxy_port), timeout=1).close()
                break
            except OSError:
                self.assertIsNone(self.nginx.poll(), "nginx exited at start")
                self.assertLess(time.monotonic(), deadline, "nginx did not start listening")
                time.sleep(0.05)

    def stop_nginx(self):
        self.nginx.terminate()
        self.nginx.wait(timeout=10)

    def download_via_nginx(self, args, *extra):
        proxied = [arg.replace("127.0.0.1:%d" % self.port, "127.0.0.1:%d" % self.proxy_port) for arg in args]
        return self.curl("--interface", CLIENT_ADDRESS, *extra, *proxied)

    def test_content_length_download_is_byte_exact_and_carries_the_client_address(self):
        size = len(self.recordings[(h.DEVICE, "clip-a.bin")])
        reply = self.download_via_nginx(h.json_download_args(self.port, h.playback_uri(name="clip-a.bin", size=size)))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("lastClientIP") == CLIENT_ADDRESS, "the client address forwarded")

    def test_chunked_and_xml_downloads_pass_through_nginx(self):
        reply = self.download_via_nginx(h.json_download_args(self.port, h.playback_uri()))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        uri = "rtsp://127.0.0.1:8554/camera/%s/playback?starttime=%s&endtime=%s" % (h.CAMERA, h.START, h.END)
        reply = self.download_via_nginx(h.xml_download_args(self.port, uri))
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.CAMERA, "clip-c.bin")
        self.wait_for_status(lambda s: s.get("closed") == 2 and s.get("lastClientIP") == CLIENT_ADDRESS,
                             "both streams closed, client address forwarded")


class NginxAppendingProxy(NginxProxy):
    """nginx's common set-up appends to the client's list: "client, proxy" reaches the plug-in."""
    FORWARDED = "$proxy_add_x_forwarded_for"

    def test_a_forwarded_list_downloads_and_its_first_address_is_the_client(self):
        size = len(self.recordings[(h.DEVICE, "clip-a.bin")])
        args = h.json_download_args(self.port, h.playback_uri(name="clip-a.bin", size=size))
        reply = self.download_via_nginx(args, "-H", "X-Forwarded-For: 203.0.113.7")
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("lastClientIP") == "203.0.113.7", "the list's first address")
        self.wait_for_log('client "203.0.113.7"')

    # The inherited cases run here too: without a client header nginx sends the address alone.


class ForwardedTextFromClients(h.GatewayCase):
    """Without a proxy, any loopback client writes X-Forwarded-For as it likes."""

    def test_a_list_downloads_and_hostile_text_chooses_nothing(self):
        args = h.json_download_args(self.port, h.playback_uri(name="clip-a.bin"))
        reply = self.curl("-H", "X-Forwarded-For: 203.0.113.7, 127.0.0.2", *args)
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("lastClientIP") == "203.0.113.7", "the list's first address")

        reply = self.curl("-H", "X-Forwarded-For: a&devIndex=zzz", *args)
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("lastClientIP") == "", "no address from untrusted text")
        self.wait_for_log(r'forwarded client address "a&devIndex=zzz" is not an address; untrusted')


if __name__ == "__main__":
    h.main()
