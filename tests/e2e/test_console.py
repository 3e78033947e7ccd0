"""The console's listener without a browser: TLS with the configured certificate, the refusal to start off
loopback without one, and what a hostile client meets (foreign origins, no session, oversized and slow
requests, guessed passwords)."""
import http.client
import os
import socket
import ssl
import subprocess
import time

import gateway_harness as h


def sign_in_reply(port, password, origin=True, connection_class=http.client.HTTPConnection, **options):
    connection = connection_class("127.0.0.1", port, timeout=10, **options)
    scheme = "https" if connection_class is http.client.HTTPSConnection else "http"
    headers = {"Content-Type": "application/x-www-form-urlencoded"}
    if origin:
        headers["Origin"] = "%s://127.0.0.1:%d" % (scheme, port)
    try:
        connection.request("POST", "/signin", body="user=%s&password=%s" % (h.USER, password), headers=headers)
        reply = connection.getresponse()
        reply.read()
        return reply.status, reply.getheader("Location"), reply.getheader("Set-Cookie")
    finally:
        connection.close()


def raw_exchange(port, request, timeout=5):
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as client:
        client.sendall(request)
        data = b""
        try:
            while True:
                piece = client.recv(65536)
                if not piece:
                    break
                data += piece
        except socket.timeout:
            pass
        return data


class ConsoleCase(h.GatewayCase):
    def config(self):
        self.console_port = self.port_of_its_own()
        config = super().config()
        config["console"] = {"listen": "127.0.0.1:%d" % self.console_port}
        return config

    def session_cookie(self):
        status, location, cookie = sign_in_reply(self.console_port, h.PASSWORD)
        self.assertEqual((status, location), (303, "/"))
        return cookie.split(";")[0]

    def websocket_head(self, path, origin, cookie):
        request = ("GET %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n" %
                   (path, self.console_port))
        if origin:
            request += "Origin: %s\r\n" % origin
        if cookie:
            request += "Cookie: %s\r\n" % cookie
        with socket.create_connection(("127.0.0.1", self.console_port), timeout=5) as client:
            client.sendall((request + "\r\n").encode())
            return client.recv(4096).split(b"\r\n", 1)[0].decode()

    def test_websockets_need_this_consoles_origin_and_a_session(self):
        cookie = self.session_cookie()
        own = "http://127.0.0.1:%d" % self.console_port
        self.assertIn("101", self.websocket_head("/ws/events", own, cookie))
        self.assertIn("403", self.websocket_head("/ws/events", "http://evil.example", cookie))
        self.assertIn("403", self.websocket_head("/ws/events", None, cookie))
        self.assertIn("401", self.websocket_head("/ws/events", own, None))
        self.assertIn("401", self.websocket_head("/ws/talk?device=%s" % h.DEVICE, own, "console_session=guess"))
        self.assertIn("404", self.websocket_head("/ws/talk?device=no-such-device", own, cookie))

    def test_forms_from_elsewhere_and_guessed_passwords_are_refused(self):
        self.assertEqual(sign_in_reply(self.console_port, h.PASSWORD, origin=False)[0], 403)
        for _ in range(10):
            self.assertEqual(sign_in_reply(self.console_port, "guess")[1], "/?signin=refused")
        # Locked like Digest failures: the right password is not even checked now.
        self.assertEqual(sign_in_reply(self.console_port, h.PASSWORD)[1], "/?signin=throttled")
        self.wait_for_log(r'console: too many failed sign-ins, address "127\.0\.0\.1" locked')

    def test_oversized_and_slow_requests_are_cut_off(self):
        reply = raw_exchange(self.console_port, b"GET / HTTP/1.1\r\nHost: x\r\nX-Pad: " + b"a" * 10000 + b"\r\n\r\n")
        self.assertTrue(reply.startswith(b"HTTP/1.1 431"), reply[:100])
        form = b"user=" + b"a" * 5000
        reply = raw_exchange(self.console_port, b"POST /signin HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n%s" %
                             (len(form), form))
        self.assertTrue(reply.startswith(b"HTTP/1.1 413"), reply[:100])
        # A client that sends half a request is closed at the read deadline (10 s), not held.
        started = time.monotonic()
        reply = raw_exchange(self.console_port, b"GET / HTTP/1.1\r\nHost: x\r\n", timeout=20)
        self.assertEqual(reply, b"")
        self.assertLess(time.monotonic() - started, 15)

    def test_connections_past_the_cap_close_the_oldest(self):
        held = [socket.create_connection(("127.0.0.1", self.console_port), timeout=5) for _ in range(64)]
        try:
            time.sleep(0.3)
            newest = socket.create_connection(("127.0.0.1", self.console_port), timeout=5)
            held.append(newest)
            held[0].settimeout(5)
            self.assertEqual(held[0].recv(10), b"", "the oldest connection is closed for the newest")
            newest.sendall(b"GET /api/session HTTP/1.1\r\nHost: x\r\n\r\n")
            self.assertIn(b"401", newest.recv(100))
        finally:
            for client in held:
                client.close()


class ConsoleTlsCase(h.GatewayCase):
    def config(self):
        self.console_port = self.port_of_its_own()
        self.certificate = os.path.join(self.dir, "console.pem")
        self.key = os.path.join(self.dir, "console.key")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                        "/CN=127.0.0.1", "-keyout", self.key, "-out", self.certificate],
                       check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        config = super().config()
        config["console"] = {"listen": "127.0.0.1:%d" % self.console_port, "certificate": self.certificate,
                             "key": self.key}
        return config

    def test_the_console_serves_tls_with_the_configured_certificate(self):
        context = ssl.create_default_context(cafile=self.certificate)
        context.check_hostname = False
        status, location, cookie = sign_in_reply(self.console_port, h.PASSWORD,
                                                 connection_class=http.client.HTTPSConnection, context=context)
        self.assertEqual((status, location), (303, "/"))
        self.assertIn("; Secure", cookie)
        self.wait_for_log(r"console on https://127\.0\.0\.1:%d/" % self.console_port)
        # Plain HTTP on the TLS port gets no page.
        self.assertFalse(raw_exchange(self.console_port, b"GET / HTTP/1.1\r\nHost: x\r\n\r\n").startswith(b"HTTP"))

    def test_off_loopback_without_a_certificate_it_refuses_to_start(self):
        config = self.config()
        config["console"] = {"listen": "0.0.0.0:%d" % h.free_port()}
        other = self.second_gateway(config, "other")
        self.assertEqual(other.process.wait(20), 2)
        with open(other.output_path) as output:
            said = other.log_text() + output.read()
        self.assertIn("is not a loopback address: set console.certificate and console.key", said)


if __name__ == "__main__":
    h.main()
