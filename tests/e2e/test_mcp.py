"""Local MCP servers through the real window and bridge, and through `ondrel mcp` in a terminal,
against the reference servers from npm (pinned in mcp/package-lock.json)."""

from __future__ import annotations

import itertools
import json
import os
import re
import signal
import subprocess
import queue
import time
from pathlib import Path

import pytest

from harness import BINARY, descendants, poll, rss_kib

MCP_DIR = Path(__file__).resolve().parent / "mcp"
EVERYTHING = MCP_DIR / "node_modules/@modelcontextprotocol/server-everything/dist/index.js"
FLOOD_SERVER = MCP_DIR / "flood_server.py"
# The logo server-everything's get-tiny-image returns, as the page must see it.
TINY_IMAGE_PREFIX = "iVBORw0KGgoAAAANSUhEUgAAABQAAAAUCAYAAACNiR0N"


def install_reference_servers():
    installed = MCP_DIR / "node_modules/.package-lock.json"
    lock = MCP_DIR / "package-lock.json"
    if installed.exists() and installed.stat().st_mtime >= lock.stat().st_mtime and EVERYTHING.exists():
        return
    subprocess.run(["npm", "ci", "--no-audit", "--no-fund", "--loglevel=error"], cwd=MCP_DIR, check=True,
                   stdin=subprocess.DEVNULL, timeout=600)


@pytest.fixture(scope="module", autouse=True)
def reference_servers():
    install_reference_servers()


class Page:
    _ids = itertools.count(1)

    def __init__(self, web):
        self.web = web
        self._queue: queue.SimpleQueue = queue.SimpleQueue()
        web.route("/mcp/next", self._next)

    def _next(self, handler):
        try:
            return 200, "application/json", json.dumps(self._queue.get_nowait()).encode()
        except queue.Empty:
            return 204, "text/plain", b""

    def call(self, name: str, args=None, timeout: float = 60):
        """(ok, value) of one action; last_ms: the milliseconds from post to reply, as the page saw them."""
        req_id = f"req-{next(self._ids)}"
        mark = self.web.mark()
        self._queue.put({"reqId": req_id, "name": name, **({} if args is None else {"args": args})})
        report = self.web.wait_for_report("reply", timeout, since=mark, where=lambda d: d.get("reqId") == req_id)
        self.last_ms = report.data["ms"]
        return bool(report.data["ok"]), report.data["value"]


def config_for(allowed: Path, everything_name="Everything", fs_name="fs") -> dict:
    servers = {}
    if everything_name:
        # node found on the login shell's PATH
        servers[everything_name] = {"command": "node", "args": [str(EVERYTHING), "stdio"]}
    if fs_name:
        # a process tree: npm exec -> sh -> node
        servers[fs_name] = {"command": "npx",
                            "args": ["--prefix", str(MCP_DIR), "--no-install", "mcp-server-filesystem", str(allowed)]}
    return {"mcpServers": servers}


def server_pids(app) -> dict[int, str]:
    found = {}
    for pid in descendants(app.pid):
        try:
            cmdline = Path(f"/proc/{pid}/cmdline").read_bytes().replace(b"\0", b" ").decode()
        except OSError:
            continue
        if "mcp-server" in cmdline or "server-everything" in cmdline:
            found[pid] = cmdline
    return found


def alive(pid: int) -> bool:
    try:
        stat = Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return False
    return stat.rsplit(")", 1)[1].split()[0] != "Z"


def start(launch, web, tmp_path, config=None):
    allowed = tmp_path / "shared"
    allowed.mkdir(exist_ok=True)
    (allowed / "hello.txt").write_text("Hello from the filesystem server\n")
    page = Page(web)
    mark = web.mark()
    app = launch(web.url("mcp.html"), config=config or config_for(allowed))
    app.main_window()
    web.wait_for_report("load", since=mark, where=lambda d: d["page"] == "/mcp.html")
    return app, page, allowed


def test_servers_are_listed_and_called_under_their_namespaces(launch, web, tmp_path):
    app, page, allowed = start(launch, web, tmp_path)
    ok, servers = page.call("mcpServers")
    # Servers come in the order their listings finish; "Everything" loses its capital.
    assert ok and sorted((s["name"], s["command"], "error" in s) for s in servers) == [
        ("fs", "npx", False), ("verything", "node", False)], servers
    tools = {s["name"]: {t["name"] for t in s["tools"]} for s in servers}
    assert {"echo", "get-tiny-image"} <= tools["verything"]
    assert {"read_text_file", "list_directory"} <= tools["fs"]

    hello = str(allowed / "hello.txt")
    for args, check in [
        (["verything", "echo", {"message": "hi there"}], lambda r: r == {"text": "Echo: hi there"}),
        (["verything", "get-tiny-image", {}], lambda r: [i["mimeType"] for i in r["images"]] == ["image/png"]
         and r["images"][0]["data"].startswith(TINY_IMAGE_PREFIX)),
        (["fs", "read_text_file", {"path": hello}], lambda r: r["text"] == "Hello from the filesystem server\n"),
    ]:
        ok, result = page.call("mcpCall", args)
        assert ok and check(result), (args, result)


def test_a_save_or_an_edit_on_disk_restarts_the_servers_and_a_broken_edit_keeps_them(launch, web, tmp_path):
    app, page, allowed = start(launch, web, tmp_path)
    app.wait_for_log("[MCP fs] started ")
    before = poll(lambda: (lambda p: len(p) >= 2 and p)(server_pids(app)), 20,
                  message=lambda: f"servers not running: {server_pids(app)}")
    ok, read = page.call("mcpReadConfig")
    assert ok and read["path"] == str(app.config_path) and json.loads(read["content"]) == config_for(allowed)

    new_config = json.dumps(config_for(allowed, everything_name="Second Everything", fs_name=None), indent=4)
    assert page.call("mcpWriteConfig", [new_config]) == (True, {"ok": True})
    assert app.config_path.read_text() == new_config
    poll(lambda: not any(alive(pid) for pid in before), 10,
         message=lambda: f"old servers still running: {[p for p in before if alive(p)]}")
    ok, servers = page.call("mcpServers")
    assert ok and [s["name"] for s in servers] == ["econd--verything"]
    assert page.call("mcpCall", ["econd--verything", "echo", {"message": "again"}]) == (True, {"text": "Echo: again"})

    mark = app.log_mark()
    app.config_path.write_text("{ broken")
    app.wait_for_log("[MCP] config.json changed on disk but is not valid JSON", since=mark)
    assert page.call("mcpCall", ["econd--verything", "echo", {"message": "x"}]) == (True, {"text": "Echo: x"})
    app.config_path.write_text(json.dumps({"mcpServers": {}}))
    app.wait_for_log("[MCP] no mcpServers configured", since=mark)
    assert page.call("mcpServers") == (True, [])


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGKILL], ids=["quit", "crash"])
def test_no_server_process_outlives_the_app(launch, web, tmp_path, sig):
    app, page, _ = start(launch, web, tmp_path)
    ok, servers = page.call("mcpServers")  # both servers up and answering
    assert ok and all("tools" in s for s in servers), servers
    pids = server_pids(app)
    assert any(c.startswith("npm exec") for c in pids.values()), "npx runs as a tree"
    os.kill(app.pid, sig)  # SIGTERM takes the same quit path as Ctrl+Q; after SIGKILL no quit hook runs
    app.wait_exit(15)
    poll(lambda: not any(alive(pid) for pid in pids), 10,
         message=lambda: f"still running after the app ended: {[pids[p] for p in pids if alive(p)]}")


def test_the_servers_are_listed_and_called_from_a_terminal(tmp_path):
    allowed = tmp_path / "shared"
    allowed.mkdir()
    (allowed / "hello.txt").write_text("Hello from the filesystem server\n")
    home = tmp_path / "home"
    config = config_for(allowed)
    config["mcpServers"]["broken"] = {"command": "node", "args": ["-e", "console.error('no key'); process.exit(3)"]}
    (home / ".config/ondrel").mkdir(parents=True)
    (home / ".config/ondrel/config.json").write_text(json.dumps(config))

    def ondrel_mcp(*args):
        # No DISPLAY, no WAYLAND_DISPLAY: a terminal over SSH will do.
        done = subprocess.run([BINARY, "mcp", *args], env={"PATH": os.environ["PATH"], "HOME": str(home)},
                              capture_output=True, text=True, timeout=180)
        # Every server ran in HOME; none may outlive the command.
        left = [pid for pid in os.listdir("/proc") if pid.isdigit() and alive(int(pid)) and cwd(pid) == str(home)]
        assert not left, f"still running after 'ondrel mcp {' '.join(args)}': {left}"
        return done.returncode, done.stdout, done.stderr

    status, out, err = ondrel_mcp("list")
    assert status == 1 and re.search(r'^verything \("Everything"\): running, \d+ tools$', out, re.M), (out, err)
    assert re.search(r"^fs: running, \d+ tools$", out, re.M) and "broken: not running: " in out, out
    assert ondrel_mcp("call", "fs", "read_text_file", json.dumps({"path": str(allowed / "hello.txt")})) == (
        0, "Hello from the filesystem server\n", "")
    status, out, err = ondrel_mcp("call", "broken", "echo")
    assert status == 1 and "stderr: no key" in err, (out, err)


def cwd(pid: str) -> str | None:
    try:
        return os.readlink(f"/proc/{pid}/cwd")
    except OSError:
        return None


@pytest.mark.parametrize("mode, evidence, answer", [
    ("notify", "more notification(s) not logged: too many at once", {"text": '{"n": 1}'}),
    ("long-lines", "skipped 1 output line(s) longer than 33554432 bytes", {"text": '{"n": 1}'}),
    ("deaf", "bytes waiting to be written — the server does not read its input",
     {"error": "MCP server 'flood' stopped: it does not read its input"}),
])
def test_a_flooding_server_neither_stalls_nor_swells_the_app(launch, web, tmp_path, mode, evidence, answer):
    go = tmp_path / "go"
    config = {"mcpServers": {"flood": {"command": "/usr/bin/python3", "args": [str(FLOOD_SERVER), mode, str(go)]}}}
    app, page, _ = start(launch, web, tmp_path, config=config)
    app.wait_for_log("[MCP flood] started ")
    before = rss_kib(app.pid)

    for _ in range(5):  # a fresh page's first replies are slow with or without a flood
        page.call("mcpReadConfig")
    mark = app.log_mark()
    go.touch()
    trips, samples = [], []
    until = time.monotonic() + 4
    while time.monotonic() < until:
        ok, _ = page.call("mcpReadConfig")
        assert ok
        trips.append(page.last_ms)
        samples.append(rss_kib(app.pid))
    app.wait_for_log(evidence, since=mark)
    ok, result = page.call("mcpCall", ["flood", "echo", {"n": 1}])
    assert (ok, result) == (True, answer), "the session goes on after the flood, or the server was stopped"

    trips.sort()
    print(f"\n{mode}: {len(trips)} round trips, max {trips[-1]:.1f} ms; RSS {before // 1024} -> "
          f"{max(samples) // 1024} MiB")
    assert trips[-1] < 100, f"the main loop stalled: {trips[-5:]} ms"
    assert max(samples) - before < 128 * 1024, "memory grew with the flood"
