"""A TCP relay that breaks downloads the way a failing link does.

Each 200 or 206 reply that passes takes the next count from `cuts`: after that
many body bytes the relay closes both connections. Other replies (the Digest
challenge) and the replies after the counts are used up pass whole. Replies
are told apart by their Content-Length, so a proxy behind it may keep its
connections.
"""
import re
import socket
import threading


class BreakingProxy:
    def __init__(self, target_port, cuts):
        self.target_port, self.cuts, self.lock = target_port, list(cuts), threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def close(self):
        self.listener.close()

    def accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.relay, args=(client,), daemon=True).start()

    def relay(self, client):
        server = socket.create_connection(("127.0.0.1", self.target_port))
        threading.Thread(target=self.pump, args=(client, server), daemon=True).start()
        try:
            self.replies(server, client)
        except OSError:
            pass
        finally:
            for end in (client, server):
                try:
                    end.shutdown(socket.SHUT_RDWR)  # close() alone would not wake the other direction's thread
                except OSError:
                    pass
                end.close()

    def replies(self, server, client):
        """Relays reply after reply (a proxy in between keeps the connection); returns to break it."""
        buffer = b""
        while True:
            while b"\r\n\r\n" not in buffer:
                data = server.recv(65536)
                if not data:
                    return
                buffer += data
            end = buffer.index(b"\r\n\r\n") + 4
            head, buffer = buffer[:end], buffer[end:]
            status = re.match(rb"HTTP/1\.1 (\d+)", head)
            length = re.search(rb"\r\ncontent-length: *(\d+)", head, re.IGNORECASE)
            remaining = int(length.group(1)) if length else None  # None: until the server closes
            with self.lock:
                limit = self.cuts.pop(0) if status and status.group(1) in (b"200", b"206") and self.cuts else None
            client.sendall(head)
            sent = 0
            while remaining != 0:
                if not buffer:
                    buffer = server.recv(1 << 20)
                    if not buffer:
                        return
                piece = buffer[:remaining] if remaining is not None else buffer
                piece = piece[:limit - sent] if limit is not None else piece
                client.sendall(piece)
                buffer, sent = buffer[len(piece):], sent + len(piece)
                remaining = remaining - len(piece) if remaining is not None else None
                if limit is not None and sent >= limit:
                    return

    @staticmethod
    def pump(source, target):
        try:
            while True:
                data = source.recv(65536)
                if not data:
                    break
                target.sendall(data)
        except OSError:
            pass
