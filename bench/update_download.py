#!/usr/bin/python3
"""Download throughput of the updater against a local HTTP server, and the
cost of the signature check that follows a download.

A 200 MB archive of random bytes (so nothing compresses it on the way) is
served from 127.0.0.1 by a small server that hands the file to the kernel
with sendfile. In alternating runs:
  ondrel    - the updater's own downloader (bench target update_download_bench)
              into the download folder
  verify ED - right after that download, the updater's check of the file
              against a prehashed minisign signature (bench target
              update_verify_bench), as the install step runs it
  verify Ed - the same with a legacy signature (the whole file mapped)
  curl      - the curl command line tool into the same folder: the same
              loopback link and the same disk, a mature client
  loopback  - curl into /dev/null: the link and the server alone
  disk      - cp of the served file into the folder: the disk alone
Every run into the folder removes the previous file first and ends with the
file synced to disk (fsync counted in the time). The first round is a
warm-up and not counted. The signatures are made by the minisign tool with
a throw-away key.

Usage: /usr/bin/python3 bench/update_download.py [--build BUILD_DIR] [--size-mb 200] [--runs 5]
"""

from __future__ import annotations

import argparse
import http.server
import os
import socketserver
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import json
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def serve(path: Path) -> tuple[socketserver.TCPServer, str]:
    size = path.stat().st_size

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *args):
            pass

        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Type", "application/zip")
            self.send_header("Content-Length", str(size))
            self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.flush()
            with open(path, "rb") as f:
                self.connection.sendfile(f)
            self.close_connection = True

    class Threaded(socketserver.ThreadingMixIn, http.server.HTTPServer):
        daemon_threads = True

    httpd = Threaded(("127.0.0.1", 0), Handler)
    threading.Thread(target=httpd.serve_forever, daemon=True).start()
    return httpd, f"http://127.0.0.1:{httpd.server_address[1]}/Ondrel-9.9.9-x86_64.zip"


def fsync_file(path: Path):
    fd = os.open(path, os.O_RDONLY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def timed(fn, dest: Path | None) -> float:
    if dest and dest.exists():
        dest.unlink()
    subprocess.run(["sync"], check=True)
    start = time.perf_counter()
    fn()
    if dest:
        fsync_file(dest)
    return time.perf_counter() - start


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=str(ROOT / "build"))
    parser.add_argument("--size-mb", type=int, default=200)
    parser.add_argument("--runs", type=int, default=5)
    args = parser.parse_args()

    build = Path(args.build)
    subprocess.run(["cmake", "--build", str(build), "--target", "update_download_bench", "update_verify_bench",
                    "-j2"], check=True, stdout=subprocess.DEVNULL)
    bench = build / "bench" / "update_download_bench"
    verify_bench = build / "bench" / "update_verify_bench"

    with tempfile.TemporaryDirectory(prefix="ondrel-download-bench-") as tmp:
        tmp = Path(tmp)
        source = tmp / "served.zip"
        with open(source, "wb") as f:
            for _ in range(args.size_mb):
                f.write(os.urandom(1 << 20))
        fsync_file(source)
        size = source.stat().st_size
        subprocess.run(["minisign", "-G", "-W", "-p", str(tmp / "k.pub"), "-s", str(tmp / "k.key")], check=True,
                       stdout=subprocess.DEVNULL)
        key_line = (tmp / "k.pub").read_text().splitlines()[1]
        signatures = {}
        for name, flags in (("verify ED", []), ("verify Ed", ["-l"])):
            signatures[name] = tmp / f"{name[-2:]}.minisig"
            subprocess.run(["minisign", "-S", *flags, "-s", str(tmp / "k.key"), "-m", str(source), "-x",
                            str(signatures[name]), "-t", "version:9.9.9"], check=True, stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL)
        httpd, url = serve(source)
        dest = tmp / "updates"
        dest.mkdir()
        target = dest / "Ondrel-9.9.9-x86_64.zip"

        progress_calls = []

        def ondrel():
            out = subprocess.run([str(bench), url, str(target)], check=True, stdout=subprocess.PIPE, text=True)
            progress_calls.append(json.loads(out.stdout)["progress_calls"])

        def verify(name):
            # The program's own clock: the check alone, not the process start.
            out = subprocess.run([str(verify_bench), str(target), str(signatures[name]), key_line], check=True,
                                 stdout=subprocess.PIPE, text=True)
            return json.loads(out.stdout)["seconds"]

        # name -> (run, file it leaves behind or None)
        clients = {
            "ondrel": (ondrel, target),
            "curl": (lambda: subprocess.run(["curl", "-s", "-o", str(target), url], check=True), target),
            "loopback": (lambda: subprocess.run(["curl", "-s", "-o", "/dev/null", url], check=True), None),
            "disk": (lambda: subprocess.run(["cp", str(source), str(target)], check=True), target),
        }
        times: dict[str, list[float]] = {name: [] for name in ["ondrel", *signatures, *list(clients)[1:]]}
        for run in range(args.runs + 1):
            for name, (fn, leaves) in clients.items():
                seconds = timed(fn, leaves)
                if leaves and leaves.stat().st_size != size:
                    sys.exit(f"{name}: wrong size {leaves.stat().st_size}")
                checks = {check: verify(check) for check in signatures} if name == "ondrel" else {}
                if run:
                    times[name].append(seconds)
                    for check, took in checks.items():
                        times[check].append(took)
        httpd.shutdown()

    mb = size / 1e6
    print(f"{args.size_mb} MiB ({size} bytes), {args.runs} runs each after one warm-up, times include fsync")
    print(f"{'client':10} {'median s':>9} {'min s':>7} {'max s':>7} {'MB/s':>8}")
    for name, values in times.items():
        med = statistics.median(values)
        print(f"{name:10} {med:9.3f} {min(values):7.3f} {max(values):7.3f} {mb / med:8.0f}")
    ratio = statistics.median(times["ondrel"]) / statistics.median(times["curl"])
    print(f"ondrel / curl time: {ratio:.2f}; progress callbacks per download: {statistics.median(progress_calls):.0f}")
    added = statistics.median(times["verify ED"]) / statistics.median(times["ondrel"])
    print(f"the prehashed check adds {added:.0%} to the local download (far less to one over a real network)")


if __name__ == "__main__":
    main()
