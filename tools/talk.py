#!/usr/bin/env python3
"""Two-way audio client for the HTTP plug-in's talk API (Python standard library only).

Opens a talk on a device channel with Digest credentials, connects the audio
channel's links, plays a sound file (or raw audio from standard input) to the
device in real time on the PUT link, records what the device sends on the GET
link, and closes the talk at the end of the file, after --seconds, or on Ctrl-C.

    talk.py --user admin:gateway-demo --channel 1 --send voice.wav --record heard.wav http://127.0.0.1:8080

Input: a WAV file, 8 kHz mono, either G.711 (mu-law or A-law) or 16-bit PCM,
which is encoded to the talk's codec; or, with --send -, raw audio in the
talk's codec from standard input (sox ... -t raw -e mu-law - | talk.py --send - ...).
Output: a WAV with the G.711 format tag for PCMU/PCMA (any player plays it), the
raw codec bytes for G726-16 and G7221.
"""
import argparse
import http.client
import os
import re
import signal
import socket
import struct
import sys
import threading
import time
import urllib.parse
import warnings

from gateway_client import Digest

with warnings.catch_warnings():
    # G.711 conversion from the standard library; deprecated, still shipped with
    # the Pythons this tool runs on (3.11 on Debian 12).
    warnings.simplefilter("ignore", DeprecationWarning)
    import audioop

# Bytes per second and bytes per packet of each codec the device may speak.
CODECS = {
    "PCMU": (8000, 160),     # 20 ms packets
    "PCMA": (8000, 160),
    "G726-16": (2000, 80),   # 40 ms packets
    "G7221": (4000, 80),     # 20 ms frames at 32 kbit/s
}
WAVE_FORMAT_PCM, WAVE_FORMAT_ALAW, WAVE_FORMAT_MULAW = 1, 6, 7
G711_TAG = {"PCMU": WAVE_FORMAT_MULAW, "PCMA": WAVE_FORMAT_ALAW}
TALK_PATH = "/QUMEX/System/TwoWayAudio/channels/%d"


class TalkError(Exception):
    pass


# What a refusal's subStatusCode means for a talk, said where the tool reports it.
REASONS = {
    "badAuthorization": "the user name or password was refused",
    "badParameters": "no talk is open on this channel",
    "internalError": "no device talks on this channel, or the gateway failed (its log says which)",
    "serviceUnavailable": "the gateway is stopping",
    "reachAudioTalkLimit": "the gateway runs as many talks as it can",
}
OPEN_REASONS = dict(REASONS, invalidOperation="a talk is open on this channel already")
LINK_REASONS = dict(REASONS, invalidOperation="no open talk has this session id on the port the Host header names: "
                                              "it ended, or the open went to another gateway or port")


def refusal(status, document, reasons=REASONS):
    """'HTTP 403 invalidOperation (what it means)' from a refusal's status and ResponseStatus document."""
    found = re.search(r"<subStatusCode>([^<]*)<", document)
    if not found:
        return "HTTP %d %s" % (status, document.strip()[:200] or "(no reason given)")
    reason = found.group(1)
    return "HTTP %d %s" % (status, reason) + (" (%s)" % reasons[reason] if reason in reasons else "")


# ---- the standard port: open and close ----

def talk_request(host, port, digest, channel, verb):
    """PUT .../open or .../close with Digest; returns the reply body (text)."""
    path = TALK_PATH % channel + "/" + verb
    for attempt in range(2):
        connection = http.client.HTTPConnection(host, port, timeout=10)
        headers = {"Content-Length": "0"}
        if digest.ready:
            headers["Authorization"] = digest.authorization("PUT", path)
        connection.request("PUT", path, headers=headers)
        reply = connection.getresponse()
        body = reply.read().decode("utf-8", "replace")
        challenge = reply.getheader("WWW-Authenticate")
        connection.close()
        if reply.status == 401 and attempt == 0 and digest.learn(challenge):
            continue
        if reply.status != 200:
            raise TalkError("%s of channel %d refused: %s" %
                            (verb, channel, refusal(reply.status, body, OPEN_REASONS if verb == "open" else REASONS)))
        return body
    raise TalkError("%s of channel %d: the credentials were refused" % (verb, channel))


# ---- the audio channel ----

def open_link(host, audio_port, http_port, digest, method, channel, session_id):
    """Connects one link of the audio channel; returns (socket, audio that came with the head)."""
    target = TALK_PATH % channel + "/audioData?sessionId=" + session_id
    for attempt in range(2):
        try:
            link = socket.create_connection((host, audio_port), timeout=10)
        except OSError as failure:
            raise TalkError("%s link: the audio port %s:%d: %s (the gateway's server.audioTalkPort, --audio-port)" %
                            (method, host, audio_port, failure.strerror or failure))
        # The talk was keyed by the standard port, which the Host header names;
        # the channel reads the head's fields only when the length is given.
        request = "%s %s HTTP/1.1\r\nHost: %s:%d\r\n" % (method, target, host, http_port)
        if digest.ready:
            request += "Authorization: %s\r\n" % digest.authorization(method, target)
        request += "Content-Length: 0\r\n\r\n"
        link.sendall(request.encode())
        head, rest = read_head(link)
        status = int(head.split(b" ", 2)[1]) if head.startswith(b"HTTP/") else 0
        if status == 200:
            link.settimeout(None)
            return link, rest
        document = read_refusal(link, head, rest)
        link.close()
        challenge = re.search(rb"WWW-Authenticate: ([^\r\n]*)", head)
        if status == 401 and challenge and attempt == 0 and digest.learn(challenge.group(1).decode()):
            continue
        if not head:
            raise TalkError("%s link: the audio port closed without an answer" % method)
        raise TalkError("%s link refused: %s" %
                        (method, refusal(status, document.decode("utf-8", "replace"), LINK_REASONS)))
    raise TalkError("%s link: the credentials were refused" % method)


def read_head(link):
    data = b""
    while b"\r\n\r\n" not in data:
        piece = link.recv(4096)
        if not piece:
            break
        data += piece
    end = data.find(b"\r\n\r\n")
    if end < 0:
        return data, b""
    # One request per connection: a refusal's document follows and the server closes.
    return data[:end + 4], data[end + 4:]


def read_refusal(link, head, rest):
    """The document of a refusal: the bytes after the head, up to its Content-Length or the close
    (which may come in later packets than the head)."""
    length = re.search(rb"\r\nContent-Length: *(\d+)", head, re.IGNORECASE)
    wanted = min(int(length.group(1)), 65536) if length else 65536
    link.settimeout(2)
    try:
        while len(rest) < wanted:
            piece = link.recv(wanted - len(rest))
            if not piece:
                break
            rest += piece
    except OSError:
        pass  # what came is all there is to show
    return rest


# ---- sound files ----

def read_wav(path):
    """Returns (format tag, channels, rate, bits, data) of a RIFF/WAVE file."""
    with open(path, "rb") as wav:
        data = wav.read()
    if data[:4] != b"RIFF" or data[8:12] != b"WAVE":
        raise TalkError("%s is not a WAV file" % path)
    position, fmt, samples = 12, None, None
    while position + 8 <= len(data):
        kind, size = data[position:position + 4], struct.unpack("<I", data[position + 4:position + 8])[0]
        body = data[position + 8:position + 8 + size]
        if kind == b"fmt ":
            fmt = struct.unpack("<HHIIHH", body[:16])
        elif kind == b"data":
            samples = body
        position += 8 + size + (size & 1)
    if fmt is None or samples is None:
        raise TalkError("%s has no fmt or data chunk" % path)
    tag, channels, rate, _, _, bits = fmt
    return tag, channels, rate, bits, samples


def audio_to_send(path, codec):
    """The file's audio in the talk's codec, or a clear refusal."""
    tag, channels, rate, bits, samples = read_wav(path)
    convert = "convert it with: sox %s -r 8000 -c 1 -e %s out.wav" % (path, "a-law" if codec == "PCMA" else "mu-law")
    if channels != 1 or rate != 8000:
        raise TalkError("%s is %d Hz with %d channel(s); the talk needs 8000 Hz mono: %s" %
                        (path, rate, channels, convert))
    if tag == G711_TAG.get(codec):
        return samples
    if tag == WAVE_FORMAT_PCM and bits == 16 and codec in G711_TAG:
        encode = audioop.lin2ulaw if codec == "PCMU" else audioop.lin2alaw
        return encode(samples, 2)
    raise TalkError("%s (format tag %d, %d bits) cannot be sent as %s: %s" % (path, tag, bits, codec, convert))


class Recording:
    """What the device sends: a WAV for G.711, raw bytes otherwise; valid after every write."""

    def __init__(self, path, codec):
        self.file = open(path, "wb")
        self.tag = G711_TAG.get(codec)
        self.size = 0
        if self.tag is not None:
            self.file.write(self.header(0))

    def header(self, size):
        # A non-PCM format: 18-byte fmt chunk and a fact chunk with the sample count.
        fmt = struct.pack("<HHIIHHH", self.tag, 1, 8000, 8000, 1, 8, 0)
        return (b"RIFF" + struct.pack("<I", 4 + 8 + len(fmt) + 12 + 8 + size + (size & 1)) + b"WAVE" +
                b"fmt " + struct.pack("<I", len(fmt)) + fmt +
                b"fact" + struct.pack("<II", 4, size) +
                b"data" + struct.pack("<I", size))

    def write(self, data):
        self.file.write(data)
        self.size += len(data)

    def close(self):
        if self.tag is not None:
            if self.size & 1:
                self.file.write(b"\0")
            self.file.seek(0)
            self.file.write(self.header(self.size))
        self.file.close()


# ---- the talk ----

class Talk:
    def __init__(self, args):
        url = urllib.parse.urlsplit(args.url if "://" in args.url else "http://" + args.url)
        self.host = url.hostname or "127.0.0.1"
        self.port = url.port or 80
        self.audio_port = args.audio_port or self.port + 1
        user, _, password = args.user.partition(":")
        self.digest = Digest(user, password)
        self.args = args
        self.codec = args.codec
        self.rate, self.packet = CODECS[self.codec]
        self.sent = self.received = 0
        self.stopping = threading.Event()
        self.speaker_done = threading.Event()  # the file has been said, or saying it failed
        self.started = time.monotonic()

    def run(self):
        args = self.args
        source = None
        if args.send == "-":
            source = sys.stdin.buffer
        elif args.send:
            source = audio_to_send(args.send, self.codec)
        body = talk_request(self.host, self.port, self.digest, args.channel, "open")
        found = re.search(r"<sessionId>([0-9]+)</sessionId>", body)
        if not found:
            raise TalkError("the open reply carries no session id: %s" % body[:200])
        session_id = found.group(1)
        say("talk open on channel %d (session %s, %s)" % (args.channel, session_id, self.codec))
        threads, links = [], []
        try:
            if args.record:
                link, early = open_link(self.host, self.audio_port, self.port, self.digest, "GET", args.channel,
                                        session_id)
                links.append(link)
                threads.append(threading.Thread(target=self.listen, args=(link, early, Recording(args.record,
                                                                                                 self.codec))))
            if source is not None:
                link, _ = open_link(self.host, self.audio_port, self.port, self.digest, "PUT", args.channel,
                                    session_id)
                links.append(link)
                threads.append(threading.Thread(target=self.speak, args=(link, source)))
            for thread in threads:
                thread.daemon = True
                thread.start()
            self.wait(source is not None)
        finally:
            # The talk is closed before its links: a PUT link that ends first
            # ends the talk on the plug-in's side, and the close would find none.
            self.stopping.set()
            for thread in threads:
                thread.join(5)
            try:
                talk_request(self.host, self.port, self.digest, args.channel, "close")
                say("talk closed after %.1f s: %d bytes sent, %d bytes received" %
                    (time.monotonic() - self.started, self.sent, self.received))
            except (TalkError, OSError) as failure:
                # A talk that ended on the gateway's side (time-out, device gone) has nothing to close.
                say("close: %s" % failure)
            for link in links:
                link.close()

    def wait(self, sending):
        """Until the file ends, --seconds pass, or Ctrl-C; a progress line each second."""
        deadline = self.started + self.args.seconds if self.args.seconds else None
        while not self.stopping.is_set():
            now = time.monotonic()
            if deadline is not None and now >= deadline:
                break
            if sending and self.speaker_done.is_set():
                break
            # Woken as soon as the file has been said (or the time is up), not at the next progress line.
            pause = 1.0 if deadline is None else min(1.0, deadline - now)
            (self.speaker_done if sending else self.stopping).wait(pause)
            if not self.args.quiet:
                say("%6.1f s  sent %8d bytes  received %8d bytes" %
                    (time.monotonic() - self.started, self.sent, self.received))

    def speak(self, link, source):
        """Plays the audio at the codec's pace, one packet at a time."""
        try:
            next_time = time.monotonic()
            offset = 0
            while not self.stopping.is_set():
                if isinstance(source, bytes):
                    packet = source[offset:offset + self.packet]
                    offset += len(packet)
                else:
                    packet = source.read(self.packet)
                if not packet:
                    break
                link.sendall(packet)
                self.sent += len(packet)
                next_time += len(packet) / self.rate
                delay = next_time - time.monotonic()
                if delay > 0:
                    time.sleep(delay)
        except OSError as failure:
            say("PUT link: %s" % failure)
        finally:
            self.speaker_done.set()

    def listen(self, link, early, recording):
        try:
            if early:
                recording.write(early)
                self.received += len(early)
            link.settimeout(0.5)
            while not self.stopping.is_set():
                try:
                    data = link.recv(65536)
                except socket.timeout:
                    continue
                if not data:
                    break
                recording.write(data)
                self.received += len(data)
        except OSError as failure:
            say("GET link: %s" % failure)
        finally:
            recording.close()


def say(text):
    print(text, file=sys.stderr, flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("url", help="the gateway's standard HTTP port, e.g. http://127.0.0.1:8080")
    parser.add_argument("--user", required=True, help="USER:PASSWORD for Digest")
    parser.add_argument("--channel", type=int, default=1, help="device channel (default 1)")
    parser.add_argument("--send", metavar="FILE", help="WAV file to play to the device, or - for raw audio on stdin")
    parser.add_argument("--record", metavar="FILE", help="write what the device sends to this file")
    parser.add_argument("--codec", choices=sorted(CODECS), default="PCMU", help="the device's codec (default PCMU)")
    parser.add_argument("--audio-port", type=int, help="the audio channel's port (default: the HTTP port + 1)")
    parser.add_argument("--seconds", type=float, help="stop after this long (default: end of file, or Ctrl-C)")
    parser.add_argument("--quiet", action="store_true", help="no progress lines")
    args = parser.parse_args()
    if not args.send and not args.record:
        parser.error("give --send, --record or both")
    if args.send and args.send != "-" and not os.path.isfile(args.send):
        parser.error("no such file: %s" % args.send)
    talk = Talk(args)
    # Ctrl-C and SIGTERM end the talk cleanly (links closed, talk closed, file complete).
    signal.signal(signal.SIGTERM, lambda *_: talk.stopping.set())
    signal.signal(signal.SIGINT, lambda *_: talk.stopping.set())
    try:
        talk.run()
    except (TalkError, OSError) as failure:
        say("talk: %s" % failure)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
