#!/usr/bin/python3
"""Bridge round trips measured from the page, through the real window.

Sequential "platform" requests (requests per second, p50/p99 latency), the
same with 100 in flight, and readFileBase64 of a 16 MB file from request to
resolved reply.

Usage: /usr/bin/python3 bench/bridge_roundtrip.py [--n 2000] [--ondrel PATH]
"""

from __future__ import annotations

import argparse
import json
import os
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from harness import App, Screen, WebServer, Xvfb  # noqa: E402


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--n", type=int, default=2000)
    parser.add_argument("--ondrel", default=str(ROOT / "build" / "ondrel"))
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as tmp:
        big = Path(tmp) / "big.bin"
        big.write_bytes(os.urandom(16 * 1024 * 1024))
        xvfb = Xvfb()
        web = WebServer(ROOT / "bench" / "site")
        try:
            screen = Screen(xvfb)
            home = Path(tmp) / "home"
            home.mkdir()
            url = web.url(f"bridge.html?n={args.n}&file={big}")
            app = App(screen, home, args=[url], binary=args.ondrel).start()
            try:
                report = web.wait_for_report("bench-result", timeout=300)
            finally:
                app.kill()
        finally:
            web.stop()
            xvfb.stop()

    r = report.data
    print(f"bridge round trips, 'platform', n={r['n']}")
    for label, key in (("sequential", "sequential"), ("100 in flight", "inflight100")):
        s = r[key]
        print(f"  {label:14s} {s['rps']:9.0f} req/s   p50 {s['p50']:.3f} ms   p99 {s['p99']:.3f} ms")
    for i, b in enumerate(r["readFileBase64"]):
        print(f"  readFileBase64 16 MB #{i + 1}: {b['ms']:.1f} ms to resolved reply "
              f"({b['bytes']} bytes; atob {b['decodeMs']:.1f} ms)")
    print(json.dumps(r))
    return 0


if __name__ == "__main__":
    sys.exit(main())
