"""Local MCP servers through the real window and bridge, and through
`ondrel mcp` in a terminal, against the reference servers from npm (pinned in
mcp/package-lock.json): listing under namespaced names, calls with text,
images and structured content, restarts on save, servers that fail to start,
no server left behind when the app ends, and servers that flood the app
neither stall nor swell it."""

from __future__ import annotations

import collections
import itertools
import json
import os
import re
import signal
import subprocess
import threading
import time
from pathlib import Path

import pytest

from harness import BINARY, descendants, poll

MCP_DIR = Path(__file__).resolve().parent / "mcp"
EVERYTHING = MCP_DIR / "node_modules/@modelcontextprotocol/server-everything/dist/index.js"
FLOOD_SERVER = MCP_DIR / "flood_server.py"
# The logo server-everything's get-tiny-image returns, as the page must see it.
TINY_IMAGE_PREFIX = "iVBORw0KGgoAAAANSUhEUgAAABQAAAAUCAYAAACNiR0N"


def install_reference_servers():
    """npm ci from the lockfile, unless node_modules already matches it."""
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
    """Hands native actions to mcp.html and waits for their replies."""

    _ids = itertools.count(1)

    def __init__(self, web):
        self.web = web
        self._queue: collections.deque = collections.deque()
        self._lock = threading.Lock()
        web.route("/mcp/next", self._next)

    def _next(self, handler):
        with self._lock:
            if self._queue:
                return 200, "application/json", json.dumps(self._queue.popleft()).encode()
        return 204, "text/plain", b""

    def call(self, name: str, args=None, timeout: float = 60, check_single: bool = True):
        """Runs one action; returns (ok, value) and checks that exactly one reply came.
        The milliseconds from posting to reply, as the page saw them, are kept in last_ms."""
        req_id = f"req-{next(self._ids)}"
        mark = self.web.mark()
        command = {"reqId": req_id, "name": name}
        if args is not None:
            command["args"] = args
        with self._lock:
            self._queue.append(command)
        report = self.web.wait_for_report("reply", timeout, since=mark, where=lambda d: d.get("reqId") == req_id)
        if check_single:
            assert self.web.no_report("reply", 0.2, since=report.index + 1,
                                      where=lambda d: d.get("reqId") == req_id), f"{name} was answered twice"
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
    """The app's descendants that belong to MCP servers, with their command lines."""
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


def tools_by_server(servers) -> dict[str, set[str]]:
    return {s["name"]: {t["name"] for t in s.get("tools", [])} for s in servers}


def test_servers_are_listed_and_called_under_their_namespaces(launch, web, tmp_path):
    app, page, allowed = start(launch, web, tmp_path)
    app.wait_for_log("[MCP] loaded 2 server(s) from ")

    ok, servers = page.call("mcpServers")
    assert ok
    by_name = {s["name"]: s for s in servers}
    assert set(by_name) == {"verything", "fs"}, "'Everything' loses its capital"
    assert by_name["verything"]["command"] == "node"
    assert by_name["fs"]["command"] == "npx"
    assert "error" not in by_name["verything"] and "error" not in by_name["fs"], servers
    tools = tools_by_server(servers)
    assert {"echo", "get-tiny-image", "get-structured-content"} <= tools["verything"]
    assert {"read_text_file", "list_directory"} <= tools["fs"]
    echo = next(t for t in by_name["verything"]["tools"] if t["name"] == "echo")
    assert echo["description"] == "Echoes back the input string"
    assert echo["inputSchema"]["type"] == "object" and "message" in echo["inputSchema"]["properties"]

    ok, result = page.call("mcpCall", ["verything", "echo", {"message": "hi there"}])
    assert ok and result == {"text": "Echo: hi there"}

    ok, result = page.call("mcpCall", ["verything", "get-tiny-image", {}])
    assert ok
    assert result["text"] == "Here's the image you requested:\nThe image above is the MCP logo."
    assert len(result["images"]) == 1
    assert result["images"][0]["mimeType"] == "image/png"
    assert result["images"][0]["data"].startswith(TINY_IMAGE_PREFIX)

    ok, result = page.call("mcpCall", ["verything", "get-structured-content", {"location": "Chicago"}])
    assert ok
    structured = result["structuredContent"]
    assert {"temperature", "conditions", "humidity"} <= set(structured)
    assert json.loads(result["text"]) == structured

    ok, result = page.call("mcpCall", ["fs", "read_text_file", {"path": str(allowed / "hello.txt")}])
    assert ok and result == {"structuredContent": {"content": "Hello from the filesystem server\n"},
                             "text": "Hello from the filesystem server\n"}

    # A tool error is a result with the flag, not a failed reply.
    ok, result = page.call("mcpCall", ["fs", "read_text_file", {"path": "/etc/hostname"}])
    assert ok and result.get("isError") is True and "outside allowed directories" in result["text"]

    ok, result = page.call("mcpCall", ["nope", "echo", {"message": "x"}])
    assert ok is True and result == {"error": "unknown MCP server 'nope'"}

    ok, result = page.call("mcpCall", ["verything", "no-such-tool", {}])
    assert ok is True and ("error" in result or result.get("isError") is True), result


def test_config_is_read_and_a_save_restarts_the_servers(launch, web, tmp_path):
    app, page, allowed = start(launch, web, tmp_path)
    app.wait_for_log("[MCP fs] started ")
    before = poll(lambda: (lambda p: len(p) >= 2 and p)(server_pids(app)), 20,
                  message=lambda: f"servers not running: {server_pids(app)}")

    ok, read = page.call("mcpReadConfig")
    assert ok and read["path"] == str(app.config_path)
    assert json.loads(read["content"]) == config_for(allowed)

    ok, error = page.call("mcpWriteConfig", ["[1, 2]"])
    assert (ok, error) == (False, "Invalid JSON — the file must contain a JSON object")
    ok, error = page.call("mcpWriteConfig", [])
    assert (ok, error) == (False, "mcpWriteConfig expects [content]")

    new_config = json.dumps(config_for(allowed, everything_name="Second Everything", fs_name=None), indent=4)
    mark = app.log_mark()
    ok, value = page.call("mcpWriteConfig", [new_config])
    assert (ok, value) == (True, {"ok": True})
    assert app.config_path.read_text() == new_config
    app.wait_for_log("[MCP] config saved — restarting local MCP servers", since=mark)
    # The watch sees the save too and restarts them once more, half a second later.
    app.wait_for_log("[MCP] config.json changed on disk — reloading servers", since=mark)

    poll(lambda: not any(alive(pid) for pid in before), 10,
         message=lambda: f"old servers still running: {[p for p in before if alive(p)]}")
    ok, servers = page.call("mcpServers")
    assert ok and [s["name"] for s in servers] == ["econd--verything"]
    ok, result = page.call("mcpCall", ["econd--verything", "echo", {"message": "again"}])
    assert ok and result == {"text": "Echo: again"}
    ok, result = page.call("mcpCall", ["fs", "list_directory", {"path": str(allowed)}])
    assert ok and result == {"error": "unknown MCP server 'fs'"}


def test_an_edit_on_disk_reloads_and_a_broken_one_keeps_the_servers(launch, web, tmp_path):
    app, page, allowed = start(launch, web, tmp_path, config=config_for(tmp_path, fs_name=None))
    app.wait_for_log("[MCP] loaded 1 server(s)")
    mark = app.log_mark()
    app.config_path.write_text("{ broken")
    app.wait_for_log("[MCP] config.json changed on disk but is not valid JSON — keeping current servers", since=mark)
    ok, result = page.call("mcpCall", ["verything", "echo", {"message": "still here"}])
    assert ok and result == {"text": "Echo: still here"}

    mark = app.log_mark()
    app.config_path.write_text(json.dumps({"mcpServers": {}}))
    app.wait_for_log("[MCP] config.json changed on disk — reloading servers", since=mark)
    app.wait_for_log("[MCP] no mcpServers configured", since=mark)
    ok, servers = page.call("mcpServers")
    assert ok and servers == []


def test_quitting_leaves_no_server_process_behind(launch, web, tmp_path):
    app, page, _ = start(launch, web, tmp_path)
    ok, servers = page.call("mcpServers")  # both servers up and answering
    assert ok and all("tools" in s for s in servers), servers
    pids = server_pids(app)
    assert any("server-everything" in c for c in pids.values())
    assert any(c.startswith("npm exec") for c in pids.values()), "npx runs as a tree"
    assert any(c.startswith("node ") and "mcp-server-filesystem" in c for c in pids.values())

    os.kill(app.pid, signal.SIGTERM)  # the same quit path as Ctrl+Q
    assert app.wait_exit(15) == 0
    left = [f"{pid}: {pids[pid]}" for pid in pids if alive(pid)]
    assert not left, f"still running after the app ended: {left}"


def test_a_crashed_app_takes_its_servers_along(launch, web, tmp_path):
    app, page, _ = start(launch, web, tmp_path)
    ok, servers = page.call("mcpServers")
    assert ok and all("tools" in s for s in servers), servers
    pids = server_pids(app)
    assert len(pids) >= 3

    os.kill(app.pid, signal.SIGKILL)  # no quit hook runs
    app.wait_exit(15)
    poll(lambda: not any(alive(pid) for pid in pids), 10,
         message=lambda: f"still running after the crash: {[pids[p] for p in pids if alive(p)]}")


def cwd(pid: str) -> str | None:
    try:
        return os.readlink(f"/proc/{pid}/cwd")
    except OSError:
        return None


def test_the_servers_are_listed_and_called_from_a_terminal(tmp_path):
    allowed = tmp_path / "shared"
    allowed.mkdir()
    (allowed / "hello.txt").write_text("Hello from the filesystem server\n")
    home = tmp_path / "home"
    config = config_for(allowed)
    config["mcpServers"]["broken"] = {"command": "node", "args": [
        "-e", "console.error('starting'); console.error('Error: API_KEY is not set'); process.exit(3)"]}
    config["mcpServers"]["missing"] = {"command": "ondrel-no-such-mcp-server"}
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
    assert (status, err) == (1, ""), (out, err)
    assert re.search(r'^verything \("Everything"\): running, \d+ tools\n(  .*\n)*  echo — Echoes back the input string\n',
                     out, re.M), out
    assert re.search(r"^fs: running, \d+ tools\n(  .*\n)*  read_text_file — ", out, re.M), out
    assert ("broken: not running: MCP server 'broken' exited unexpectedly (exit status 3)\n"
            "  stderr: starting\n  stderr: Error: API_KEY is not set\n"
            "missing: not running: command not found: ondrel-no-such-mcp-server\n") in out, out

    hello = json.dumps({"path": str(allowed / "hello.txt")})
    calls = [
        (["verything", "echo", '{"message": "hi there"}'], 0, r"Echo: hi there\n", ""),
        (["verything", "get-tiny-image"], 0,
         r"Here's the image you requested:\nThe image above is the MCP logo.\n\[image: image/png, \d+ bytes\]\n", ""),
        (["fs", "read_text_file", hello], 0, r"Hello from the filesystem server\n", ""),
        (["fs", "read_text_file", '{"path": "/etc/hostname"}'], 1, r".*outside allowed directories.*\n", ""),
        (["broken", "echo"], 1, "", r"broken: not running: .* \(exit status 3\)\n.*  stderr: Error: API_KEY is not set\n"),
        (["nope", "echo"], 1, "", r"ondrel mcp: unknown MCP server 'nope'\nConfigured servers: verything, fs, broken, missing\n"),
    ]
    for args, want_status, want_out, want_err in calls:
        status, out, err = ondrel_mcp("call", *args)
        assert status == want_status and re.fullmatch(want_out, out, re.S) and re.fullmatch(want_err, err, re.S), \
            (args, status, out, err)


def memory_kib(pid: int) -> dict[str, int]:
    """The app's own resident set (now and at its peak) and proportional set size."""
    found = {}
    for name, key in (("status", "VmRSS"), ("status", "VmHWM"), ("smaps_rollup", "Pss")):
        for line in Path(f"/proc/{pid}/{name}").read_text().splitlines():
            if line.startswith(key + ":"):
                found[key] = int(line.split()[1])
    return found


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
    before = memory_kib(app.pid)

    for _ in range(5):  # a fresh page's first replies are slow with or without a flood
        page.call("mcpReadConfig", check_single=False)
    mark = app.log_mark()
    go.touch()
    trips, samples = [], []
    until = time.monotonic() + 4
    while time.monotonic() < until:
        ok, _ = page.call("mcpReadConfig", check_single=False)
        assert ok
        trips.append(page.last_ms)
        samples.append(memory_kib(app.pid))
    app.wait_for_log(evidence, since=mark)
    ok, result = page.call("mcpCall", ["flood", "echo", {"n": 1}])
    assert (ok, result) == (True, answer), "the session goes on after the flood, or the server was stopped"

    trips.sort()
    peak_rss = max(s["VmRSS"] for s in samples)
    peak_pss = max(s["Pss"] for s in samples)
    print(f"\n{mode}: {len(trips)} round trips, median {trips[len(trips) // 2]:.1f} ms, max {trips[-1]:.1f} ms; "
          f"RSS {before['VmRSS'] // 1024} MiB before, {peak_rss // 1024} MiB at most during; "
          f"PSS {before['Pss'] // 1024} -> {peak_pss // 1024} MiB; peak RSS ever {samples[-1]['VmHWM'] // 1024} MiB")
    assert trips[-1] < 100, f"the main loop stalled: {trips[-5:]} ms"
    assert peak_rss - before["VmRSS"] < 128 * 1024, "memory grew with the flood"
