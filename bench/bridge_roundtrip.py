#!/usr/bin/python3
"""Bridge round trips measured from the page, through the real window, for
ondrel and for the floor (bench/bridge_floor: the same handler, envelope,
origin guard and reply expression in a bare WebKitGTK window) in one run.

Sequential "platform" requests (requests per second, p50/p99 latency), the
same with 100 in flight, and readFileBase64 of a 16 MB file from request to
resolved reply; throughout, how late the window answers input (see
input_probe.py). The programs take turns on the same page, round after round,
so machine noise falls on all alike; each figure is the median over rounds.
Ratios are ondrel against the floor: rates as ondrel / floor (higher is
better), times as ondrel / floor (lower is better).

Usage: /usr/bin/python3 bench/bridge_roundtrip.py [--n 2000] [--rounds 3]
       [--ondrel PATH] [--floor PATH] [--also NAME=PATH ...]
--also adds more programs to compare (for example an older build of ondrel).
"""

from __future__ import annotations

import argparse
import json
import os
import statistics
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "e2e"))
sys.path.insert(0, str(ROOT / "bench"))

from harness import App, Screen, WebServer, Xvfb, poll  # noqa: E402
from input_probe import InputProbe  # noqa: E402


def one_run(screen: Screen, web: WebServer, binary: str, big: Path, n: int, tmp: Path) -> dict:
    with tempfile.TemporaryDirectory(dir=tmp) as home:
        url = web.url(f"bridge.html?n={n}&file={big}")
        mark = web.mark()
        # A config that switches off the update check keeps ondrel off the network.
        app = App(screen, Path(home), args=[url], binary=binary, config={"updateEnabled": False}).start()
        probe = None
        try:
            window = poll(lambda: next(iter(screen.toplevels(pid=app.pid)), None), 60, message="no window")
            probe = InputProbe(screen.display, window.id).start()
            report = web.wait_for_report("bench-result", timeout=300, since=mark)
            phases = {p.data["phase"]: p.at for p in web.reports("bench-phase", since=mark)}
        finally:
            samples = probe.stop() if probe else []
            app.kill()
    r = report.data

    def worst(start: float, end: float) -> float:
        delays = [delay for sent, delay in samples if start <= sent < end]
        return max(delays) * 1000 if delays else float("nan")
    return {
        "sequential": r["sequential"]["rps"],
        "sequential_p50": r["sequential"]["p50"],
        "inflight": r["inflight100"]["rps"],
        "inflight_p50": r["inflight100"]["p50"],
        "base64_ms": statistics.median(b["ms"] for b in r["readFileBase64"]),
        "input_worst_platform_ms": worst(phases["platform"], phases["readFileBase64"]),
        "input_worst_base64_ms": worst(phases["readFileBase64"], report.at),
    }


ROWS = (
    ("sequential req/s", "sequential", "{:.0f}"),
    ("  p50 ms", "sequential_p50", "{:.3f}"),
    ("100 in flight req/s", "inflight", "{:.0f}"),
    ("  p50 ms", "inflight_p50", "{:.2f}"),
    ("readFileBase64 16 MB ms", "base64_ms", "{:.0f}"),
    ("worst input delay ms", None, None),
    ("  platform phases", "input_worst_platform_ms", "{:.0f}"),
    ("  16 MB reads", "input_worst_base64_ms", "{:.0f}"),
)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--n", type=int, default=2000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--ondrel", default=os.environ.get("ONDREL_BIN", str(ROOT / "build" / "ondrel")))
    parser.add_argument("--floor", default=str(ROOT / "build" / "bench" / "bridge_floor"))
    parser.add_argument("--also", action="append", default=[], metavar="NAME=PATH")
    args = parser.parse_args()

    programs = {"ondrel": args.ondrel, "floor": args.floor}
    for extra in args.also:
        name, _, path = extra.partition("=")
        programs[name] = path
    for name, path in programs.items():
        if not os.access(path, os.X_OK):
            print(f"{name} not found at {path}", file=sys.stderr)
            return 2

    results: dict[str, list[dict]] = {name: [] for name in programs}
    with tempfile.TemporaryDirectory() as tmp:
        big = Path(tmp) / "big.bin"
        big.write_bytes(os.urandom(16 * 1024 * 1024))
        xvfb = Xvfb()
        web = WebServer(ROOT / "bench" / "site")
        try:
            screen = Screen(xvfb)
            for round_ in range(args.rounds):
                order = list(programs.items())
                if round_ % 2:
                    order.reverse()
                for name, path in order:
                    run = one_run(screen, web, path, big, args.n, Path(tmp))
                    results[name].append(run)
                    print(f"  round {round_ + 1} {name:10s} " + json.dumps(run), file=sys.stderr)
        finally:
            web.stop()
            xvfb.stop()

    med = {name: {key: statistics.median(r[key] for r in runs) for key in runs[0]}
           for name, runs in results.items()}
    names = list(programs)
    print(f"\nbridge round trips, 'platform' n={args.n}; medians of {args.rounds} rounds")
    header = f"{'':24s}" + "".join(f"{name:>12s}" for name in names) + "".join(
        f"{name + '/floor':>16s}" for name in names if name != "floor")
    print(header)
    print("-" * len(header))
    for label, key, fmt in ROWS:
        if key is None:
            print(label)
            continue
        line = f"{label:24s}" + "".join(f"{fmt.format(med[name][key]):>12s}" for name in names)
        line += "".join(f"{med[name][key] / med['floor'][key]:>15.2f}x" if med["floor"][key] else f"{'-':>16s}"
                        for name in names if name != "floor")
        print(line)
    print(json.dumps(results))
    return 0


if __name__ == "__main__":
    sys.exit(main())
