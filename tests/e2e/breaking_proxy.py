"""A TCP relay that breaks downloads the way a failing link does: each 200 or
206 reply takes the next count from `cuts` and loses its connection after that
many body bytes. Other replies, and all once the counts are used up, pass
whole. One reply per connection, as the gateway and fetch-recording have it."""
import re
import socket
import threading


class BreakingProxy:
    def __init__(self, target_port, cuts):
        self.target_port, self.cuts = target_port, list(cuts)
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
            server = socket.create_connection(("127.0.0.1", self.target_port))
            threading.Thread(target=self.copy, args=(client, server, None), daemon=True).start()
            threading.Thread(target=self.copy, args=(server, client, self.cuts), daemon=True).start()

    @staticmethod
    def copy(source, target, cuts):
        head, limit = b"", None
        try:
            while data := source.recv(1 << 20):
                if cuts is not None and limit is None:
                    head += data
                    if b"\r\n\r\n" not in head:
                        continue
                    body_start = head.index(b"\r\n\r\n") + 4
                    limit = body_start + cuts.pop(0) if re.match(rb"HTTP/1\.1 20[06]", head) and cuts else 1 << 62
                    data, head = head, b""
                target.sendall(data[:limit])
                if cuts is not None and len(data) >= limit:
                    break
                limit = limit - len(data) if limit is not None else None
        except OSError:
            pass
        for end in (source, target):
            try:
                end.shutdown(socket.SHUT_RDWR)  # close() alone would not wake the other direction's thread
            except OSError:
                pass
            end.close()
