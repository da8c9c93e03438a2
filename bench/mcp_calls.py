#!/usr/bin/env python3
"""tools/call round trips against one stdio MCP server, for this client and for
the official TypeScript SDK client, in one run on the same servers.

    bench/mcp_calls.py [--build BUILD_DIR] [--calls 1000] [--inflight 100] [--rounds 3]

Both clients first make `--warmup` calls that are not counted. Servers:
server-everything's echo (node, from tests/e2e/mcp, installed with
npm ci when missing) and the benchmark's own minimal native echo server. For
each: 1,000 sequential calls (median, p99) and calls per second with 100 in
flight; against each server also the raw pipe floor (blocking write and read,
no JSON work), so that the client's own overhead per call is
median(client) - median(floor).

Wake-up latency on a shared virtual machine swings by tens of microseconds
with what else runs, so each server gets `--rounds` rounds in which the
clients run back to back. Each figure of a client is the middle of its
rounds; the overhead is the middle of the per-round differences, each taken
between runs made moments apart.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MCP_DIR = ROOT / "tests" / "e2e" / "mcp"
EVERYTHING = MCP_DIR / "node_modules/@modelcontextprotocol/server-everything/dist/index.js"


def ensure_node_modules():
    if not EVERYTHING.exists() or not (MCP_DIR / "node_modules/@modelcontextprotocol/sdk").exists():
        subprocess.run(["npm", "ci", "--no-audit", "--no-fund", "--loglevel=error"], cwd=MCP_DIR, check=True)


def run(cmd: list[str]) -> dict:
    out = subprocess.run(cmd, check=True, capture_output=True, text=True, timeout=600)
    return json.loads(out.stdout.strip().splitlines()[-1])


def main() -> int:
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--calls", type=int, default=1000)
    ap.add_argument("--inflight", type=int, default=100)
    ap.add_argument("--parallel-calls", type=int, default=5000)
    ap.add_argument("--rounds", type=int, default=5)
    # node's JIT settles after a few thousand calls; before that the server,
    # not the client, decides the tail.
    ap.add_argument("--warmup", type=int, default=3000)
    args = ap.parse_args()
    build = Path(args.build)
    driver = build / "bench" / "mcp_calls"
    echo_server = build / "bench" / "mcp_echo_server"
    for f in (driver, echo_server):
        if not f.exists():
            sys.exit(f"{f} missing: build the project first (cmake --build {build})")
    ensure_node_modules()

    node = "/usr/bin/node" if Path("/usr/bin/node").exists() else "node"
    servers = {
        "server-everything": [node, str(EVERYTHING), "stdio"],
        "native echo": [str(echo_server)],
    }
    common = ["--calls", str(args.calls), "--warmup", str(args.warmup), "--inflight", str(args.inflight),
              "--parallel-calls", str(args.parallel_calls)]
    clients = {
        "raw pipe floor": lambda label, server: [str(driver), "--raw", "--label", label, *common, "--", *server],
        "ondrel McpTask": lambda label, server: [str(driver), "--label", label, *common, "--", *server],
        "TypeScript SDK": lambda label, server: [node, str(ROOT / "bench" / "mcp_calls_sdk.mjs"), "--label", label,
                                                 *common, "--", *server],
    }

    rounds: dict[tuple[str, str], list[dict]] = {}
    for label, server in servers.items():
        for _ in range(args.rounds):
            for name, make in clients.items():
                rounds.setdefault((label, name), []).append(run(make(label, server)))

    def middle(values):
        return sorted(values)[len(values) // 2]

    # Each figure is the middle of its rounds, taken on its own.
    best = {key: {field: middle([r[field] for r in runs]) for field in runs[0]
                  if isinstance(runs[0][field], (int, float))}
            for key, runs in rounds.items()}

    print(f"{'server':<18} {'client':<16} {'median µs':>10} {'p99 µs':>10} {'calls/s @' + str(args.inflight):>14}"
          f"   medians of the {args.rounds} rounds")
    for (label, name), r in best.items():
        cps = f"{r['calls_per_s']:.0f}" if "calls_per_s" in r else "-"
        spread = ", ".join(f"{x['median_us']:.1f}" for x in rounds[(label, name)])
        print(f"{label:<18} {name:<16} {r['median_us']:>10.1f} {r['p99_us']:>10.1f} {cps:>14}   {spread}")

    ours, sdk = best[("server-everything", "ondrel McpTask")], best[("server-everything", "TypeScript SDK")]
    native = best[("native echo", "ondrel McpTask")]
    overhead = middle([o["median_us"] - f["median_us"] for o, f in
                       zip(rounds[("native echo", "ondrel McpTask")], rounds[("native echo", "raw pipe floor")])])
    checks = [
        ("median vs SDK on server-everything", ours["median_us"] <= sdk["median_us"],
         f"{ours['median_us']:.1f} µs vs {sdk['median_us']:.1f} µs"),
        ("calls/s vs SDK on server-everything", ours["calls_per_s"] >= sdk["calls_per_s"],
         f"{ours['calls_per_s']:.0f} vs {sdk['calls_per_s']:.0f}"),
        ("p99 under 1 ms (native echo)", native["p99_us"] < 1000, f"{native['p99_us']:.1f} µs"),
        ("p99 under 1 ms (server-everything)", ours["p99_us"] < 1000,
         f"{ours['p99_us']:.1f} µs (raw floor {best[('server-everything', 'raw pipe floor')]['p99_us']:.1f} µs)"),
        ("overhead per call under 50 µs", overhead < 50, f"{overhead:.1f} µs"),
    ]
    print()
    for what, ok, detail in checks:
        print(f"{'PASS' if ok else 'MISS'}  {what}: {detail}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
