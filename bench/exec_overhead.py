#!/usr/bin/python3
"""What the sandbox adds to "exec": medians of running `true` three ways.

  plain    /bin/bash -lc true, started from here
  bwrap    the same under bubblewrap with the app's argument list, from here
  bridge   the "exec" action from the page: postMessage to __resolve

Rounds interleave the three so that drift in the machine's load hits all of
them alike. "ours" is bridge - bwrap: what the app adds on top of bubblewrap
(argument checks, folder preparation, thread, pipes, reply).

Usage: /usr/bin/python3 bench/exec_overhead.py [--n 200] [--ondrel PATH]
"""

from __future__ import annotations

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

from bridge_client import BridgeClient  # noqa: E402
from harness import App, Screen, WebServer, Xvfb  # noqa: E402

# Runs in the page: one "exec" of `true`, timed from postMessage to the
# app's __resolve (the page's own __resolve is passed every other reply).
TIMED_EXEC = """
const ondrel = window.__ondrel;
const original = ondrel.__resolve;
const id = 'bench-' + Math.random().toString(36).slice(2);
try {
  return await new Promise((resolve, reject) => {
    ondrel.__resolve = function (reqId, ok, value) {
      if (reqId !== id) return original.apply(this, arguments);
      const ms = performance.now() - t0;
      if (ok === 1 && value.exit === 0) resolve(ms); else reject(new Error(JSON.stringify(value)));
    };
    const t0 = performance.now();
    window.webkit.messageHandlers.ondrel.postMessage({ __reqId: id, name: 'exec', args: ['~', 'true'] });
  });
} finally {
  ondrel.__resolve = original;
}
"""


def bwrap_args(home: str, work: str, command: str) -> list[str]:
    # The list the app builds for a home without TMPDIR (see sandbox_args.cpp).
    return ["/usr/bin/bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc",
            "--bind", home, home, "--bind", "/tmp", "/tmp", "--bind", "/var/tmp", "/var/tmp",
            "--bind", work, work, "--ro-bind", f"{home}/.ssh", f"{home}/.ssh",
            "--ro-bind", f"{home}/.gnupg", f"{home}/.gnupg", "--ro-bind", "/proc/sys", "/proc/sys",
            "--unshare-user", "--disable-userns", "--cap-drop", "ALL", "--new-session", "--die-with-parent",
            "--chdir", work, "--", "/bin/bash", "-lc", command]


def timed_ms(argv: list[str], env: dict, cwd: str) -> float:
    t0 = time.perf_counter()
    subprocess.run(argv, env=env, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                   stderr=subprocess.PIPE, check=True)
    return (time.perf_counter() - t0) * 1000


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--n", type=int, default=200)
    parser.add_argument("--ondrel", default=str(ROOT / "build" / "ondrel"))
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as tmp:
        home = Path(tmp) / "home"
        home.mkdir()
        env = {"HOME": str(home), "PATH": os.environ.get("PATH", "/usr/bin:/bin")}
        xvfb = Xvfb()
        web = WebServer()
        app = None
        try:
            bridge = BridgeClient(web)
            app = App(Screen(xvfb), home, args=[bridge.url], binary=args.ondrel).start()
            bridge.attach(app).wait_ready(timeout=30)
            for _ in range(10):  # warm-up; also creates ~/.ssh and ~/.gnupg
                assert bridge.wait_reply(bridge.request("exec", "~", "true"), 60).ok
            real_home = str(home.resolve())
            plain, bwrap, bridge_ms = [], [], []
            for _ in range(args.n):
                plain.append(timed_ms(["/bin/bash", "-lc", "true"], env, real_home))
                bwrap.append(timed_ms(bwrap_args(real_home, real_home, "true"), env, real_home))
                bridge_ms.append(bridge.run(TIMED_EXEC))
        finally:
            if app:
                app.kill()
            web.stop()
            xvfb.stop()

    med = {name: statistics.median(v) for name, v in (("plain", plain), ("bwrap", bwrap), ("bridge", bridge_ms))}
    p90 = {name: statistics.quantiles(v, n=10)[-1] for name, v in (("plain", plain), ("bwrap", bwrap),
                                                                     ("bridge", bridge_ms))}
    print(f'exec of "true", n={args.n} rounds (median / p90, ms)')
    for name in ("plain", "bwrap", "bridge"):
        print(f"  {name:7s} {med[name]:7.2f} / {p90[name]:7.2f}")
    print(f"  sandbox overhead (bridge - plain): {med['bridge'] - med['plain']:6.2f} ms")
    print(f"  bubblewrap alone (bwrap - plain):  {med['bwrap'] - med['plain']:6.2f} ms")
    print(f"  ours (bridge - bwrap):             {med['bridge'] - med['bwrap']:6.2f} ms")
    return 0


if __name__ == "__main__":
    sys.exit(main())
