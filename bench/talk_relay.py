#!/usr/bin/env python3
"""The reference for the talk bench: the least a relay of talk audio can do.

One thread, one epoll set, one timer for every talk: each packet time it
writes one packet to every listening link (GET), and it appends what every
speaking link (PUT) sends to that talk's capture file. A link names itself in
its first line, "GET <channel>\\n" or "PUT <channel>\\n".

    talk_relay.py <port> <capture-folder> [--packet 160] [--period-ms 20]
"""
import argparse
import os
import select
import socket
import sys
import time


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("port", type=int)
    parser.add_argument("captures")
    parser.add_argument("--packet", type=int, default=160)
    parser.add_argument("--period-ms", type=float, default=20.0)
    args = parser.parse_args()
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", args.port))
    listener.listen(512)
    listener.setblocking(False)
    poller = select.epoll()
    poller.register(listener.fileno(), select.EPOLLIN)
    pending = {}   # fd -> (socket, bytes of the first line so far)
    listeners = {}  # fd -> socket: links that get the device's audio
    speakers = {}  # fd -> (socket, capture file)
    audio = bytes((0xFF if (i // 40) % 2 else 0x7F) for i in range(args.packet))
    period = args.period_ms / 1000.0
    next_tick = time.monotonic() + period
    print("ready", flush=True)

    def drop(fd):
        poller.unregister(fd)
        if fd in listeners:
            listeners.pop(fd).close()
        elif fd in speakers:
            link, capture = speakers.pop(fd)
            capture.close()
            link.close()
        elif fd in pending:
            pending.pop(fd)[0].close()

    def receive(link, size):
        try:
            return link.recv(size)
        except ConnectionError:
            return b""

    while True:
        timeout = max(0.0, next_tick - time.monotonic())
        for fd, _ in poller.poll(timeout):
            if fd == listener.fileno():
                try:
                    link, _ = listener.accept()
                except BlockingIOError:
                    continue
                link.setblocking(False)
                pending[link.fileno()] = (link, b"")
                poller.register(link.fileno(), select.EPOLLIN)
            elif fd in speakers:
                link, capture = speakers[fd]
                data = receive(link, 65536)
                if data:
                    capture.write(data)
                else:
                    drop(fd)
            elif fd in pending:
                link, line = pending[fd]
                data = receive(link, 256)
                if not data:
                    drop(fd)
                    continue
                line += data
                if b"\n" not in line:
                    pending[fd] = (link, line)
                    continue
                del pending[fd]
                head, _, rest = line.partition(b"\n")
                method, _, channel = head.decode().partition(" ")
                if method == "GET":
                    listeners[fd] = link
                else:
                    capture = open(os.path.join(args.captures, "ch%s.raw" % channel), "wb", buffering=0)
                    capture.write(rest)
                    speakers[fd] = (link, capture)
            elif fd in listeners:
                if not receive(listeners[fd], 4096):
                    drop(fd)
        if time.monotonic() >= next_tick:
            next_tick += period
            for fd, link in list(listeners.items()):
                try:
                    link.send(audio)
                except (BlockingIOError, ConnectionError):
                    pass  # a listener that does not read loses the packet, as with the gateway


if __name__ == "__main__":
    sys.exit(main())
