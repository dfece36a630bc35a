#!/usr/bin/env python3
"""Close-to-visible latency of derived metadata.

    bench/derive_latency.py FAITRA [FILES] [MIB]

Starts `FAITRA serve` on a fresh directory, then writes FILES (default 200)
captures of MIB (default 10) MiB each the way tcpdump does (create, write,
close; no attributes), one at a time. For each, it measures the time from
the close to the moment `/v1/captures/lookup?path=` shows the capture's
start_ts (polled without pause over one kept-alive connection), and, as the floor, how long reading the
same file once takes (read(2) in 1 MiB blocks, page cache warm). Prints one
JSON object: p50, p99 and max in ms, and the median read time of one file.
"""
import json
import os
import re
import shutil
import signal
import statistics
import struct
import subprocess
import sys
import tempfile
import time
import http.client


def capture_bytes(size, first_ns):
    out = bytearray(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 65535, 1))
    ns = first_ns
    payload = bytes(1514)
    n = 0
    while len(out) < size:
        length = 60 + (n * 397) % 1455
        out += struct.pack("<IIII", ns // 1_000_000_000, ns % 1_000_000_000, length, length)
        out += payload[:length]
        ns += 20_000
        n += 1
    return bytes(out)


def read_time(path):
    begin = time.monotonic()
    with open(path, "rb", buffering=0) as f:
        while f.read(1 << 20):
            pass
    return time.monotonic() - begin


def main():
    faitra = sys.argv[1]
    files = int(sys.argv[2]) if len(sys.argv) > 2 else 200
    size = (int(sys.argv[3]) if len(sys.argv) > 3 else 10) << 20
    root = tempfile.mkdtemp(prefix="faitra-derive-latency-")
    log = open(os.path.join(root, "daemon.log"), "w+")
    captures = os.path.join(root, "captures")
    os.mkdir(captures)
    daemon = subprocess.Popen([faitra, "serve", "--root", captures, "--listen", "127.0.0.1:0", "--log-stdout",
                               "--reconcile-interval", "0"], stdout=log, stderr=subprocess.STDOUT)
    try:
        port = None
        deadline = time.monotonic() + 60
        while port is None and time.monotonic() < deadline:
            log.seek(0)
            found = re.search(r"Listening on 127\.0\.0\.1:(\d+)", log.read())
            port = int(found.group(1)) if found else None
        if port is None:
            raise RuntimeError("the daemon did not start")
        # One kept-alive connection: a poll costs one request's round trip,
        # not a new connection's set-up as well.
        api = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
        latencies, reads = [], []
        for i in range(files):
            path = os.path.join(captures, f"ring-{i:05d}.pcap")
            data = capture_bytes(size, 1_700_000_000_000_000_000 + i * 60_000_000_000)
            fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
            os.write(fd, data)
            os.close(fd)
            closed = time.monotonic()
            url = f"/v1/captures/lookup?path={path}"
            while True:
                api.request("GET", url)
                reply = api.getresponse()
                body = reply.read()
                if reply.status not in (200, 404):  # 404 until the close is catalogued
                    raise RuntimeError(f"lookup answered {reply.status}")
                record = json.loads(body) if reply.status == 200 else {}
                if record.get("start_ts") is not None:
                    break
                if time.monotonic() - closed > 30:
                    raise RuntimeError(f"{path} did not become visible")
            latencies.append((time.monotonic() - closed) * 1000)
            reads.append(read_time(path) * 1000)
        latencies.sort()
        print(json.dumps({
            "files": files, "mib": size >> 20,
            "p50_ms": latencies[len(latencies) // 2],
            "p99_ms": latencies[min(len(latencies) - 1, int(len(latencies) * 0.99))],
            "max_ms": latencies[-1],
            "read_ms": statistics.median(reads),
        }))
    finally:
        daemon.send_signal(signal.SIGTERM)
        daemon.wait(timeout=60)
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    main()
