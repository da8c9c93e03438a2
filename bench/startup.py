#!/usr/bin/python3
"""Start-up time and memory of ondrel against WebKitGTK's bare MiniBrowser.

Both programs load the same local page under one Xvfb. For each run:
  start-up  = time from spawning the process to the page's load event
              reaching the bench's web server;
  memory    = summed VmRSS of the process and all its descendants (the WebKit
              web and network processes), taken right at load and again after
              a settle time; then also summed PSS, which counts the pages the
              processes share (the WebKit library) once, and what they hold
              between them (see held_kib), which other programs' use of the
              same library does not move.
Runs alternate between the programs so that disk caches and machine noise
fall on both alike; a warm-up run of each is made first and not counted.

MiniBrowser opens a 1024 x 768 window, ondrel a 1260 x 900 one: the web
process keeps the page's layers and tiles, and both processes a copy of the
view's picture, in proportion to its area, some 12 MB more at ondrel's size.
So that the figures compare the programs rather than the window sizes,
MiniBrowser's window is given ondrel's size as soon as it appears (before the
page loads); --minibrowser-own-size leaves it as it opens.

Usage: /usr/bin/python3 bench/startup.py [--runs 5] [--ondrel PATH] [--minibrowser PATH]
       [--minibrowser-own-size] [--also NAME=PATH ...]
--also adds more builds of ondrel to compare (for example an older one).
"""

from __future__ import annotations

import argparse
import os
import statistics
import struct
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from harness import App, Screen, Timeout, WebServer, Xvfb, descendants, poll, rss_kib  # noqa: E402

MINIBROWSER = "/usr/lib/x86_64-linux-gnu/webkit2gtk-4.1/MiniBrowser"
ONDREL_WINDOW = (1260, 900)


def total_rss_kib(pid: int) -> int:
    return rss_kib(pid) + sum(rss_kib(child) for child in descendants(pid))


def pss_kib(pid: int) -> int:
    try:
        with open(f"/proc/{pid}/smaps_rollup") as f:
            for line in f:
                if line.startswith("Pss:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def total_pss_kib(pid: int) -> int:
    """Like RSS, but pages shared between the processes (the WebKit library) count once."""
    return pss_kib(pid) + sum(pss_kib(child) for child in descendants(pid))


def held_kib(pid: int) -> int:
    """What the processes hold between them, whoever else runs: each page
    they map counted once. PSS would also share out the WebKit library's pages
    with any other program running WebKit at the time, which on a shared
    machine moves it by tens of MB. Anonymous memory is each process's own;
    the pages of files and shared memory are told apart by their frame
    numbers (visible to root only; without them this is the RSS sum)."""
    anonymous = 0
    frames: set[int] = set()
    for p in [pid, *descendants(pid)]:
        try:
            with open(f"/proc/{p}/smaps") as smaps, open(f"/proc/{p}/pagemap", "rb") as pagemap:
                start = end = 0
                named = False
                for line in smaps:
                    field = line.split(maxsplit=1)[0]
                    if not field.endswith(":"):
                        parts = line.split(maxsplit=5)
                        start, end = (int(x, 16) for x in parts[0].split("-"))
                        named = len(parts) > 5 and not parts[5].startswith("[")
                    elif field == "Rss:" and int(line.split()[1]):
                        if not named:
                            anonymous += int(line.split()[1])
                            continue
                        pagemap.seek(start // 4096 * 8)
                        entries = pagemap.read((end - start) // 4096 * 8)
                        for (entry,) in struct.iter_unpack("<Q", entries):
                            if entry >> 63:
                                frames.add(entry & ((1 << 55) - 1))
        except OSError:
            pass
    if frames == {0}:  # frame numbers hidden
        return total_rss_kib(pid)
    return anonymous + 4 * len(frames)


def one_run(screen: Screen, web: WebServer, binary: str, settle: float, ondrel: bool, resize_to=None) -> dict:
    with tempfile.TemporaryDirectory(prefix="ondrel-bench-") as home:
        # A config that switches off the update check keeps ondrel off the network.
        app = App(screen, Path(home), args=[web.url("index.html")], binary=binary,
                  config={"updateEnabled": False} if ondrel else None)
        mark = web.mark()
        try:
            app.start()
            if resize_to:
                window = poll(lambda: next(iter(screen.toplevels(pid=app.pid)), None), 60, interval=0.01,
                              message="no window")
                window._win.configure(width=resize_to[0], height=resize_to[1])
                screen.x.sync()
            report = web.wait_for_report("load", timeout=60, since=mark)
            startup = report.at - app.started_at
            rss_at_load = total_rss_kib(app.pid)
            time.sleep(settle)
            rss_settled = total_rss_kib(app.pid)
            pss_settled = total_pss_kib(app.pid)
            held_settled = held_kib(app.pid)
            processes = 1 + len(descendants(app.pid))
        finally:
            app.kill()
    return {"startup": startup, "rss_load": rss_at_load, "rss_settled": rss_settled,
            "pss_settled": pss_settled, "held_settled": held_settled, "processes": processes}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--warmup", type=int, default=1)
    parser.add_argument("--settle", type=float, default=2.0,
                        help="seconds after load before the second memory sample")
    parser.add_argument("--ondrel", default=os.environ.get("ONDREL_BIN", str(ROOT / "build" / "ondrel")))
    parser.add_argument("--minibrowser", default=MINIBROWSER)
    parser.add_argument("--minibrowser-own-size", action="store_true",
                        help="leave MiniBrowser's window at the size it opens with")
    parser.add_argument("--also", action="append", default=[], metavar="NAME=PATH")
    args = parser.parse_args()

    programs = {"ondrel": args.ondrel, "MiniBrowser": args.minibrowser}
    for extra in args.also:
        name, _, path = extra.partition("=")
        programs[name] = path
    for name, path in programs.items():
        if not os.access(path, os.X_OK):
            print(f"{name} not found at {path}", file=sys.stderr)
            return 2

    xvfb = Xvfb()
    web = WebServer(Path(__file__).resolve().parent / "site")
    screen = Screen(xvfb)
    results: dict[str, list[dict]] = {name: [] for name in programs}
    try:
        for round_ in range(args.warmup + args.runs):
            order = list(programs.items())
            if round_ % 2:
                order.reverse()
            for name, path in order:
                resize_to = ONDREL_WINDOW if name == "MiniBrowser" and not args.minibrowser_own_size else None
                try:
                    run = one_run(screen, web, path, args.settle, name != "MiniBrowser", resize_to)
                except Timeout as exc:
                    print(f"{name}: run {round_} failed: {exc}", file=sys.stderr)
                    continue
                if round_ >= args.warmup:
                    results[name].append(run)
                    print(f"  {name:12s} run {round_ - args.warmup + 1}: {run['startup'] * 1000:7.0f} ms, "
                          f"{run['rss_load'] / 1024:6.1f} MiB at load, "
                          f"{run['rss_settled'] / 1024:6.1f} MiB after {args.settle:g} s, "
                          f"{run['processes']} processes", file=sys.stderr)
    finally:
        web.stop()
        xvfb.stop()

    print(f"\nStart-up to page load and resident memory of all processes "
          f"({args.runs} runs each, median / min)\n")
    header = (f"{'program':12s} {'start-up ms':>17s} {'RSS at load MiB':>19s} "
              f"{'RSS +%gs MiB' % args.settle:>19s} {'PSS +%gs MiB' % args.settle:>19s} "
              f"{'held +%gs MiB' % args.settle:>19s}")
    print(header)
    print("-" * len(header))
    for name, runs in results.items():
        if not runs:
            print(f"{name:12s} (no successful run)")
            continue
        def cell(values, scale, fmt):
            return f"{fmt.format(statistics.median(values) * scale)} / {fmt.format(min(values) * scale)}"
        print(f"{name:12s} "
              f"{cell([r['startup'] for r in runs], 1000, '{:.0f}'):>17s} "
              f"{cell([r['rss_load'] for r in runs], 1 / 1024, '{:.1f}'):>19s} "
              f"{cell([r['rss_settled'] for r in runs], 1 / 1024, '{:.1f}'):>19s} "
              f"{cell([r['pss_settled'] for r in runs], 1 / 1024, '{:.1f}'):>19s} "
              f"{cell([r['held_settled'] for r in runs], 1 / 1024, '{:.1f}'):>19s}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
