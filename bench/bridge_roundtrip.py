#!/usr/bin/python3
"""Bridge round trips measured from the page, through the real window, for
ondrel and for the floor (bench/bridge_floor: the same handler, envelope,
origin guard and reply expression in a bare WebKitGTK window) in one run.

All programs run at once, each on the same page (site/bridge.html) in a
window of its own, and take turns block by block, in an order that reverses
every round (ondrel, floor, floor, ondrel, ondrel, ...) so that neither
always follows the other. On a shared machine the load swings by half
within seconds; blocks a fraction of a second apart meet the same load.
Each figure is the median over a program's blocks.

Blocks: sequential "platform" requests (requests per second), the same with
100 in flight, and readFileBase64 of a 16 MB file from request to resolved
reply. Also: how late each window answers input during its own blocks, at
worst (see input_probe.py), and the processor time a request costs the app's process
and its web process, which the machine's other load hardly changes.
Ratios are the program against the floor: rates higher is better, times
lower is better.

Usage: /usr/bin/python3 bench/bridge_roundtrip.py [--n 300] [--blocks 8]
       [--ondrel PATH] [--floor PATH] [--also NAME=PATH ...]
--also adds more programs to compare (for example an older build of ondrel).
"""

from __future__ import annotations

import argparse
import json
import math
import os
import statistics
import sys
import tempfile
import threading
import time
import urllib.parse
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "e2e"))
sys.path.insert(0, str(ROOT / "bench"))

from harness import App, Screen, WebServer, Xvfb, descendants, poll  # noqa: E402
from input_probe import InputProbe  # noqa: E402


WINDOW_W, WINDOW_H = 1280, 920


def cpu_ns(pid: int | None) -> int:
    """Processor time of all of pid's threads so far."""
    total = 0
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/schedstat") as f:
                total += int(f.read().split()[0])
    except (OSError, TypeError):
        pass
    return total


def web_process(pid: int) -> int | None:
    for child in descendants(pid):
        try:
            with open(f"/proc/{child}/comm") as f:
                if f.read().strip() == "WebKitWebProces":
                    return child
        except OSError:
            pass
    return None


class Turns:
    """Serves /turn: one program at a time runs a block, each once a round,
    every other round in reverse order. The first turn is given once every
    program has asked for one."""

    def __init__(self, pids: dict[str, int]):
        self.order = list(pids)
        self.pids = pids
        self.web: dict[str, int | None] = {}
        self.cond = threading.Condition()
        self.asked: set[str] = set()
        self.waiting: set[str] = set()
        self.current: str | None = None
        self.ended: set[str] = set()
        self.round: list[str] = []
        self.rounds = 0
        self.open: dict[str, tuple[str, float, int, int]] = {}
        self.blocks: list[dict] = []  # who, kind, start, end, app_ns, web_ns

    def _cpu(self, who: str) -> tuple[int, int]:
        if self.web.get(who) is None:
            self.web[who] = web_process(self.pids[who])
        return cpu_ns(self.pids[who]), cpu_ns(self.web[who])

    def _grant(self):
        if self.current is not None or len(self.asked) < len(self.order) or not self.waiting:
            return
        while True:
            if not self.round:
                self.round = self.order[::-1] if self.rounds % 2 else list(self.order)
                self.rounds += 1
            who = self.round.pop(0)
            if who in self.waiting:
                self.current = who
                self.waiting.discard(who)
                self.cond.notify_all()
                return

    def handle(self, handler):
        query = urllib.parse.parse_qs(urllib.parse.urlsplit(handler.path).query)
        who, kind = query["who"][0], query["kind"][0]
        with self.cond:
            if who in self.open:
                started_kind, start, app0, web0 = self.open.pop(who)
                app1, web1 = self._cpu(who)
                self.blocks.append({"who": who, "kind": started_kind, "start": start, "end": time.monotonic(),
                                    "app_ns": app1 - app0, "web_ns": web1 - web0})
            if self.current == who:
                self.current = None
            self.asked.add(who)
            if kind != "end":
                self.waiting.add(who)
            self._grant()
            if kind != "end":
                self.cond.wait_for(lambda: self.current == who)
                self.open[who] = (kind, time.monotonic(), *self._cpu(who))
        return 200, "text/plain", b"go"


def one_run(screen: Screen, web: WebServer, programs: dict[str, str], big: Path, n: int, blocks: int,
            tmp: Path) -> dict[str, dict]:
    apps: dict[str, App] = {}
    probes: dict[str, InputProbe] = {}
    mark = web.mark()
    with tempfile.TemporaryDirectory(dir=tmp) as homes:
        try:
            for name, binary in programs.items():
                url = web.url(f"bridge.html?who={name}&n={n}&blocks={blocks}&file={big}")
                # A config that switches off the update check keeps ondrel off the network.
                apps[name] = App(screen, Path(homes) / name, args=[url], binary=binary,
                                 config={"updateEnabled": False}).start()
            turns = Turns({name: app.pid for name, app in apps.items()})
            web.route("/turn", turns.handle)
            for index, (name, app) in enumerate(apps.items()):
                window = poll(lambda: next(iter(screen.toplevels(pid=app.pid)), None), 60, message="no window")
                # Side by side, none covering another: WebKit treats a covered view differently.
                window._win.configure(x=index * WINDOW_W, y=0)
                screen.x.sync()
                probes[name] = InputProbe(screen.display, window.id).start()
            reports = {}
            for name in programs:
                report = web.wait_for_report("bench-result", timeout=600, since=mark,
                                             where=lambda d, name=name: d.get("who") == name)
                reports[name] = report.data
        finally:
            samples = {name: probe.stop() for name, probe in probes.items()}
            for app in apps.values():
                app.kill()
    errors = web.reports("bench-error", since=mark)
    if errors:
        raise RuntimeError(errors[0].data)

    results = {}
    for name, r in reports.items():
        mine = [b for b in turns.blocks if b["who"] == name]

        def worst(kinds: tuple[str, ...]) -> float:
            spans = [(b["start"], b["end"]) for b in mine if b["kind"] in kinds]
            delays = [d for sent, d in samples[name] if any(s <= sent < e for s, e in spans)]
            return max(delays) * 1000 if delays else math.nan

        def cpu_us(kind: str, key: str) -> float:
            blocks = [b for b in mine if b["kind"] == kind]
            return sum(b[key] for b in blocks) / (n * len(blocks)) / 1000 if blocks else math.nan
        results[name] = {
            "sequential": r["sequential"],
            "inflight": r["inflight100"],
            "base64_ms": [b["ms"] for b in r["readFileBase64"]],
            "input_worst_platform_ms": worst(("sequential", "inflight")),
            "input_worst_base64_ms": worst(("base64",)),
            "app_cpu_seq_us": cpu_us("sequential", "app_ns"),
            "web_cpu_seq_us": cpu_us("sequential", "web_ns"),
            "app_cpu_inflight_us": cpu_us("inflight", "app_ns"),
            "web_cpu_inflight_us": cpu_us("inflight", "web_ns"),
        }
    return results


# label, key, format; lists hold a figure per block.
ROWS = (
    ("sequential req/s", "sequential", "{:.0f}"),
    ("100 in flight req/s", "inflight", "{:.0f}"),
    ("readFileBase64 16 MB ms", "base64_ms", "{:.0f}"),
    ("worst input delay ms", None, None),
    ("  platform blocks", "input_worst_platform_ms", "{:.0f}"),
    ("  16 MB reads", "input_worst_base64_ms", "{:.0f}"),
    ("processor µs per request", None, None),
    ("  app, sequential", "app_cpu_seq_us", "{:.0f}"),
    ("  web, sequential", "web_cpu_seq_us", "{:.0f}"),
    ("  app, 100 in flight", "app_cpu_inflight_us", "{:.0f}"),
    ("  web, 100 in flight", "web_cpu_inflight_us", "{:.0f}"),
)


def figure(values) -> float:
    return statistics.median(values) if isinstance(values, list) else values


def ratio(mine, floor) -> float:
    return figure(mine) / figure(floor) if figure(floor) else math.nan


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--n", type=int, default=300, help="requests per block")
    parser.add_argument("--blocks", type=int, default=8, help="blocks of each kind per program")
    parser.add_argument("--ondrel", default=os.environ.get("ONDREL_BIN", str(ROOT / "build" / "ondrel")))
    parser.add_argument("--floor", default=str(ROOT / "build" / "bench" / "bridge_floor"))
    parser.add_argument("--also", action="append", default=[], metavar="NAME=PATH")
    args = parser.parse_args()

    programs = {"ondrel": args.ondrel, "floor": args.floor}
    for extra in args.also:
        name, _, path = extra.partition("=")
        programs[name] = path
    for name, path in programs.items():
        programs[name] = path = os.path.abspath(path)
        if not os.access(path, os.X_OK):
            print(f"{name} not found at {path}", file=sys.stderr)
            return 2

    with tempfile.TemporaryDirectory() as tmp:
        big = Path(tmp) / "big.bin"
        big.write_bytes(os.urandom(16 * 1024 * 1024))
        xvfb = Xvfb(WINDOW_W * len(programs), WINDOW_H)
        web = WebServer(ROOT / "bench" / "site")
        try:
            results = one_run(Screen(xvfb), web, programs, big, args.n, args.blocks, Path(tmp))
        finally:
            web.stop()
            xvfb.stop()

    names = list(programs)
    others = [name for name in names if name != "floor"]
    print(f"\nbridge round trips, 'platform', {args.blocks} blocks of {args.n} requests each; "
          "medians over blocks")
    header = f"{'':26s}" + "".join(f"{name:>10s}" for name in names) + "".join(
        f"{name + '/floor':>16s}" for name in others)
    print(header)
    print("-" * len(header))
    for label, key, fmt in ROWS:
        if key is None:
            print(label)
            continue
        line = f"{label:26s}" + "".join(f"{fmt.format(figure(results[name][key])):>10s}" for name in names)
        line += "".join(f"{ratio(results[name][key], results['floor'][key]):>15.2f}x" for name in others)
        print(line)
    print(json.dumps(results))
    return 0


if __name__ == "__main__":
    sys.exit(main())
