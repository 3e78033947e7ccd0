"""The admin endpoint under pressure and off loopback: /healthz answers within a second while slow and idle
clients hold connections, which are closed at their deadline; off loopback every request needs the token."""
import http.client
import os
import socket
import threading
import time

import gateway_harness as h

TOKEN = "e2e-admin-token-0123456789"


def timed_get(port, path, headers=None, timeout=1.0):
    """(status, seconds), or (the exception's name, seconds) when no answer came in time."""
    started = time.monotonic()
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=timeout)
    try:
        connection.request("GET", path, headers=headers or {})
        response = connection.getresponse()
        response.read()
        return response.status, time.monotonic() - started
    except OSError as error:
        return type(error).__name__, time.monotonic() - started
    finally:
        connection.close()


class AdminCase(h.GatewayCase):
    ADMIN = True


class SlowClients(AdminCase):
    def test_healthz_answers_within_a_second_while_50_slow_or_idle_clients_are_connected(self):
        stop = threading.Event()
        slow = []
        for _ in range(25):  # a header line every 3 s, never a whole request
            client = socket.create_connection(("127.0.0.1", self.admin_port))
            client.sendall(b"GET /healthz HTTP/1.1\r\nHost: x\r\n")
            slow.append(client)
        idle = []
        for _ in range(25):  # keep-alive after one request, then nothing
            connection = http.client.HTTPConnection("127.0.0.1", self.admin_port, timeout=5)
            connection.request("GET", "/metrics")
            connection.getresponse().read()
            idle.append(connection)

        def dribble():
            while not stop.wait(3):
                for client in slow:
                    try:
                        client.sendall(b"X-Slow: 1\r\n")
                    except OSError:
                        pass
        dribbler = threading.Thread(target=dribble)
        dribbler.start()
        try:
            answers = []
            for _ in range(12):
                answers.append(timed_get(self.admin_port, "/healthz"))
                time.sleep(0.5)
            self.assertTrue(all(status == 200 and seconds < 1 for status, seconds in answers), answers)
            # Neither kind is held past the read deadline (5 s), however the slow ones keep sending.
            time.sleep(0.5)
            for client in slow:
                client.settimeout(0.5)
                try:
                    self.assertEqual(client.recv(1), b"", "a slow client outlived its read deadline")
                except ConnectionResetError:
                    pass
        finally:
            stop.set()
            dribbler.join()
            for client in slow:
                client.close()
            for connection in idle:
                connection.close()


class OffLoopback(AdminCase):
    def config(self):
        config = super().config()
        token_file = os.path.join(self.dir, "admin.token")
        with open(token_file, "w") as out:
            out.write(TOKEN + "\n")
        config["admin"] = {"listen": "0.0.0.0:%d" % self.admin_port, "tokenFile": token_file}
        return config

    def test_every_request_needs_the_bearer_token(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.admin_port, timeout=5)
        connection.request("GET", "/recordings")
        response = connection.getresponse()
        response.read()
        self.assertEqual(response.status, 401)
        self.assertEqual(response.getheader("WWW-Authenticate"), 'Bearer realm="media-gateway admin"')
        connection.close()
        for headers, expected in [({"Authorization": "Bearer " + TOKEN}, 200),
                                  ({"Authorization": "bearer " + TOKEN}, 200),
                                  ({"Authorization": "Bearer " + TOKEN[:-1]}, 401),
                                  ({"Authorization": "Basic " + TOKEN}, 401)]:
            with self.subTest(headers):
                self.assertEqual(timed_get(self.admin_port, "/healthz", headers)[0], expected)


if __name__ == "__main__":
    h.main()
