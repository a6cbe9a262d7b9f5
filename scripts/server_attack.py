#!/usr/bin/env python3
"""Hostile and heavy clients for the demo recognition server (`kiv-http serve`), each bounded
in time, printing one summary per run. Standard library only.

  drip      N connections that each send a request head one header line at a time, while a
            probe asks GET /v1/health from another connection every 100 ms and times it.
  stall     N sessions that each upload a little audio and then stall; samples the server's
            resident memory (--pid) during the attack and for a while after.
  commands  one upload holding N spoken commands separated by pauses (espeak-ng and sox make
            the speech), with its results stream; prints every final and the upload's answer.

Examples (server: build/release/tools/kiv-http serve --listen 127.0.0.1:18080):
  python3 scripts/server_attack.py drip --port 18080 --connections 600 --seconds 20
  python3 scripts/server_attack.py stall --port 18080 --pid $(pgrep -n kiv-http) --sessions 256
  python3 scripts/server_attack.py commands --port 18080 --count 32
"""

import argparse
import json
import os
import random
import selectors
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import zlib

PHRASES = [  # the server's example phrases (tools/server/command_grammar.cpp)
    "turn on the lights in the kitchen",
    "what is the weather tomorrow",
    "set a timer for five minutes",
    "call mom",
    "one two three four five",
    "turn off the lights in the bedroom",
    "what is the weather like today",
    "set a timer for twenty seconds",
    "call grandma",
    "nine eight seven six",
    "dim the lights in the dining room",
    "cancel the timer",
]


def connect(host, port, source, timeout=5.0):
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    s.settimeout(timeout)
    if source:
        s.bind((source, 0))
    s.connect((host, port))
    return s


def read_response(s, deadline):
    """Status and body of one HTTP/1.1 response (Content-Length, chunked or to close)."""
    data = b""
    while b"\r\n\r\n" not in data:
        s.settimeout(max(0.001, deadline - time.monotonic()))
        piece = s.recv(65536)
        if not piece:
            raise ConnectionError("closed before the head")
        data += piece
    head, _, rest = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    status = int(lines[0].split()[1])
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(":")
        headers[name.strip().lower()] = value.strip()
    body = rest

    def more():
        s.settimeout(max(0.001, deadline - time.monotonic()))
        return s.recv(65536)

    if "content-length" in headers:
        n = int(headers["content-length"])
        while len(body) < n:
            piece = more()
            if not piece:
                break
            body += piece
        return status, body[:n]
    if headers.get("transfer-encoding", "").lower() == "chunked":
        out = b""
        while True:
            while b"\r\n" not in body:
                piece = more()
                if not piece:
                    return status, out
                body += piece
            size_line, _, body = body.partition(b"\r\n")
            size = int(size_line.split(b";")[0], 16)
            while len(body) < size + 2:
                piece = more()
                if not piece:
                    return status, out + body
                body += piece
            if size == 0:
                return status, out
            out += body[:size]
            body = body[size + 2:]
    while True:
        piece = more()
        if not piece:
            return status, body
        body += piece


def health(host, port, source, timeout):
    """(milliseconds, status) of one GET /v1/health on a new connection; status 0 on failure."""
    start = time.monotonic()
    try:
        with connect(host, port, source, timeout) as s:
            s.sendall(b"GET /v1/health HTTP/1.1\r\nHost: asr\r\nConnection: close\r\n\r\n")
            status, _ = read_response(s, start + timeout)
    except (OSError, ValueError, IndexError):
        status = 0
    return (time.monotonic() - start) * 1000.0, status


def drip(args):
    sel = selectors.DefaultSelector()
    socks = []
    refused = 0
    for i in range(args.connections):
        try:
            s = connect(args.host, args.port, args.source)
            s.sendall(b"GET /v1/health HTTP/1.1\r\nHost: asr\r\n")
            s.setblocking(False)
            socks.append(s)
            sel.register(s, selectors.EVENT_READ)
        except OSError:
            refused += 1
    print(f"drip: {len(socks)} connections open, {refused} refused at connect", flush=True)
    closed_by_server = 0
    answers = {}
    probes = []
    end = time.monotonic() + args.seconds
    next_drip = time.monotonic() + args.interval
    next_probe = time.monotonic()
    line = 0
    while time.monotonic() < end:
        now = time.monotonic()
        if now >= next_probe:
            probes.append(health(args.host, args.port, args.probe_source, 5.0))
            next_probe = time.monotonic() + 0.1
        if now >= next_drip:
            line += 1
            for s in list(socks):
                try:
                    s.send(f"X-Drip-{line}: x\r\n".encode())
                except OSError:
                    pass
            next_drip = now + args.interval
        for key, _ in sel.select(timeout=0.05):
            s = key.fileobj
            try:
                data = s.recv(4096)
            except OSError:
                data = b""
            if data:
                code = data.split(b" ", 2)[1].decode() if data.startswith(b"HTTP/") else "?"
                answers[code] = answers.get(code, 0) + 1
            sel.unregister(s)
            s.close()
            socks.remove(s)
            closed_by_server += 1
    for s in socks:
        s.close()
    ok = [ms for ms, status in probes if status == 200]
    print(f"drip: {closed_by_server} attack connections closed by the server "
          f"(answers by status: {answers or 'none'}), {len(socks)} still open at the end")
    if ok:
        print(f"health: {len(ok)}/{len(probes)} answered 200; latency ms median "
              f"{statistics.median(ok):.1f}, p99 {sorted(ok)[int(len(ok) * 0.99)]:.1f}, "
              f"max {max(ok):.1f}")
    else:
        print(f"health: 0/{len(probes)} answered during the attack")


def rss_mb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024.0
    return 0.0


def stall(args):
    sources = args.sources.split(",")
    rng = random.Random(7)
    pcm = bytes(rng.getrandbits(8) & 0x0F for _ in range(args.bytes))  # quiet noise
    socks = []
    statuses = {}
    base = rss_mb(args.pid)
    peak = base
    for i in range(args.sessions):
        try:
            s = connect(args.host, args.port, sources[i % len(sources)])
            gz = zlib.compressobj(6, zlib.DEFLATED, 31)
            piece = gz.compress(pcm) + gz.flush(zlib.Z_SYNC_FLUSH)
            s.sendall((f"POST /v1/sessions/stall-{os.getpid()}-{i}/audio HTTP/1.1\r\n"
                       "Host: asr\r\nContent-Encoding: gzip\r\n"
                       "Transfer-Encoding: chunked\r\n\r\n").encode()
                      + f"{len(piece):x}\r\n".encode() + piece + b"\r\n")
            s.setblocking(False)
            socks.append(s)
        except OSError:
            statuses["refused"] = statuses.get("refused", 0) + 1
        peak = max(peak, rss_mb(args.pid))
    print(f"stall: {len(socks)} sessions sent {args.bytes} bytes of audio each and stalled",
          flush=True)
    start = time.monotonic()
    samples = []
    open_socks = list(socks)
    # Watch until every stalled connection has been let go (or the limit), then keep sampling.
    while time.monotonic() - start < args.hold + args.after:
        t = time.monotonic() - start
        rss = rss_mb(args.pid)
        peak = max(peak, rss)
        samples.append((t, rss))
        for s in list(open_socks):
            try:
                data = s.recv(4096)
            except BlockingIOError:
                continue
            except OSError:
                data = b""
            if data.startswith(b"HTTP/"):
                code = data.split(b" ", 2)[1].decode()
                statuses[code] = statuses.get(code, 0) + 1
            elif not data:
                statuses["closed"] = statuses.get("closed", 0) + 1
            else:
                continue
            open_socks.remove(s)
            s.close()
        time.sleep(0.5)
    for s in open_socks:
        s.close()
    print(f"memory: {base:.0f} MB before, peak {peak:.0f} MB during the attack")
    for t, rss in samples[:: max(1, len(samples) // 12)]:
        print(f"  t={t:5.1f} s  {rss:7.1f} MB")
    print(f"  t={samples[-1][0]:5.1f} s  {samples[-1][1]:7.1f} MB (last)")
    print(f"answers to the stalled uploads: {statuses}; {len(open_socks)} never answered")


def synthesize(text, workdir, index):
    wav = os.path.join(workdir, f"{index}.wav")
    raw = os.path.join(workdir, f"{index}.raw")
    txt = os.path.join(workdir, f"{index}.txt")
    with open(txt, "w") as f:
        f.write(text)
    subprocess.run(["espeak-ng", "-v", "en-us+f5", "-s", "170", "-f", txt, "-w", wav], check=True)
    subprocess.run(["sox", wav, "-r", "16000", "-c", "1", "-b", "16", "-e", "signed-integer",
                    "-t", "raw", raw], check=True)
    with open(raw, "rb") as f:
        return f.read()


def commands(args):
    texts = [PHRASES[i % len(PHRASES)] for i in range(args.count)]
    with tempfile.TemporaryDirectory() as workdir:
        cache = {}
        pcm = b""
        for i, text in enumerate(texts):
            if text not in cache:
                cache[text] = synthesize(text, workdir, len(cache))
            pcm += cache[text] + bytes(int(args.gap * 16000) * 2)
    session = f"commands-{os.getpid()}"
    events = []

    def listen():
        try:
            with connect(args.host, args.port, None, 120) as s:
                s.sendall((f"POST /v1/sessions/{session}/results HTTP/1.1\r\nHost: asr\r\n"
                           "Content-Length: 0\r\n\r\n").encode())
                _, body = read_response(s, time.monotonic() + 120)
                events.extend(json.loads(l) for l in body.decode().splitlines() if l)
        except OSError as e:
            events.append({"type": "client error", "message": str(e)})

    listener = threading.Thread(target=listen)
    listener.start()
    time.sleep(0.2)
    gz = zlib.compressobj(6, zlib.DEFLATED, 31)
    start = time.monotonic()
    with connect(args.host, args.port, None, 120) as s:
        s.sendall((f"POST /v1/sessions/{session}/audio HTTP/1.1\r\nHost: asr\r\n"
                   "Content-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n").encode())
        frame = 640 * 2
        for at in range(0, len(pcm), frame):
            piece = gz.compress(pcm[at:at + frame]) + gz.flush(zlib.Z_SYNC_FLUSH)
            s.sendall(f"{len(piece):x}\r\n".encode() + piece + b"\r\n")
        piece = gz.flush(zlib.Z_FINISH)
        s.sendall(f"{len(piece):x}\r\n".encode() + piece + b"\r\n0\r\n\r\n")
        status, body = read_response(s, time.monotonic() + 120)
    listener.join(130)
    finals = [e.get("text") for e in events if e.get("type") == "final"]
    print(f"upload: {len(pcm) / 32000.0:.1f} s of audio, {args.count} commands, answered "
          f"{status} in {time.monotonic() - start:.1f} s: {body.decode().strip()}")
    print(f"results stream: {len(finals)} finals, {len(events)} events; last event {events[-1:]}")
    exact = sum(1 for want, got in zip(texts, finals) if want == got)
    print(f"finals matching the spoken commands in order: {exact}/{len(texts)}")
    for want, got in zip(texts, finals + [None] * (len(texts) - len(finals))):
        if want != got:
            print(f"  said {want!r}, heard {got!r}")


def main():
    p = argparse.ArgumentParser(description=__doc__,
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--host", default="127.0.0.1")
    p.add_argument("--port", type=int, required=True)
    sub = p.add_subparsers(dest="what", required=True)
    d = sub.add_parser("drip")
    d.add_argument("--connections", type=int, default=600)
    d.add_argument("--interval", type=float, default=5.0, help="seconds between header lines")
    d.add_argument("--seconds", type=float, default=20.0)
    d.add_argument("--source", default="127.0.0.1", help="the attacker's address")
    d.add_argument("--probe-source", default="127.0.0.1", help="the health probe's address")
    s = sub.add_parser("stall")
    s.add_argument("--pid", type=int, required=True, help="the server process")
    s.add_argument("--sessions", type=int, default=256)
    s.add_argument("--bytes", type=int, default=8192, help="PCM bytes per session")
    s.add_argument("--sources", default="127.0.0.1", help="comma-separated client addresses")
    s.add_argument("--hold", type=float, default=35.0, help="seconds for the stall to be reclaimed")
    s.add_argument("--after", type=float, default=60.0, help="seconds sampled after that")
    c = sub.add_parser("commands")
    c.add_argument("--count", type=int, default=32)
    c.add_argument("--gap", type=float, default=0.5,
                   help="silence added after each command (espeak-ng leaves 0.3 s of its own)")
    args = p.parse_args()
    {"drip": drip, "stall": stall, "commands": commands}[args.what](args)


if __name__ == "__main__":
    sys.exit(main())
