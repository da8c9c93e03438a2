"""Local MCP servers through the real window and bridge, and through `ondrel mcp` in a terminal,
against the reference servers from npm (pinned in mcp/package-lock.json). The rules underneath
(errors, time-outs, reloads that fail, framing, flooding servers) are the unit tests'."""

from __future__ import annotations

import json
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from bridge_client import BridgeClient
from harness import BINARY, descendants, poll

MCP_DIR = Path(__file__).resolve().parent / "mcp"
EVERYTHING = MCP_DIR / "node_modules/@modelcontextprotocol/server-everything/dist/index.js"


def install_reference_servers():
    installed, lock = MCP_DIR / "node_modules/.package-lock.json", MCP_DIR / "package-lock.json"
    if not (installed.exists() and installed.stat().st_mtime >= lock.stat().st_mtime and EVERYTHING.exists()):
        subprocess.run(["npm", "ci", "--no-audit", "--no-fund", "--loglevel=error"], cwd=MCP_DIR, check=True,
                       stdin=subprocess.DEVNULL, timeout=600)


@pytest.fixture(scope="module", autouse=True)
def reference_servers():
    install_reference_servers()


def config_for(allowed: Path, everything_name: str | None = "Everything") -> dict:
    # npx runs a process tree (npm exec -> sh -> node); "node" is found on the login shell's PATH.
    servers = {"fs": {"command": "npx",
                      "args": ["--prefix", str(MCP_DIR), "--no-install", "mcp-server-filesystem", str(allowed)]}}
    if everything_name:
        servers[everything_name] = {"command": "node", "args": [str(EVERYTHING), "stdio"]}
    return {"mcpServers": servers}


def proc(pid, name: str) -> str:
    """What /proc/PID/NAME holds ("" once the process is gone); for cwd, where it points."""
    try:
        path = Path(f"/proc/{pid}/{name}")
        return os.readlink(path) if name == "cwd" else path.read_bytes().replace(b"\0", b" ").decode()
    except OSError:
        return ""


def outlived(pids) -> list:  # neither gone nor a zombie
    return [pid for pid in pids if proc(pid, "stat").rsplit(")", 1)[-1][1:2] not in ("", "Z")]


def server_pids(app) -> list[int]:
    return [pid for pid in descendants(app.pid) if re.search("mcp-server|server-everything", proc(pid, "cmdline"))]


def test_servers_are_listed_called_restarted_and_do_not_outlive_a_crash(launch, web, tmp_path):
    page = BridgeClient(web)
    app = launch(page.url, config=config_for(tmp_path))
    page.attach(app).wait_ready()
    ok, servers = page.call("mcpServers", timeout=60)
    # Servers come in the order their listings finish; "Everything" loses its capital.
    assert ok and sorted((s["name"], s["command"], "error" in s) for s in servers) == [
        ("fs", "npx", False), ("verything", "node", False)], servers
    assert {"echo", "read_text_file"} <= {t["name"] for s in servers for t in s["tools"]}, servers
    assert page.call("mcpCall", "verything", "echo", {"message": "hi"}) == (True, {"text": "Echo: hi"})

    first = server_pids(app)
    ok, read = page.call("mcpReadConfig")
    assert ok and read["path"] == str(app.config_path) and json.loads(read["content"]) == config_for(tmp_path)
    saved = json.dumps(config_for(tmp_path, "Second Everything"), indent=4)
    assert page.call("mcpWriteConfig", saved) == (True, {"ok": True})
    assert app.config_path.read_text() == saved
    poll(lambda: not outlived(first), 10, message=lambda: f"old servers still running: {outlived(first)}")
    # The settings watch sees the save too and restarts them once more: a call may meet that restart.
    poll(lambda: page.call("mcpCall", "econd--verything", "echo", {"message": "x"}, timeout=60)[1] == {
        "text": "Echo: x"}, 30)

    app.config_path.write_text(json.dumps(config_for(tmp_path, None)))  # an edit on disk
    poll(lambda: [s["name"] for s in page.call("mcpServers", timeout=60)[1]] == ["fs"], 30)
    tree = server_pids(app)
    assert any(proc(pid, "cmdline").startswith("npm exec") for pid in tree), "npx runs as a tree"
    os.kill(app.pid, signal.SIGKILL)  # no quit hook runs
    app.wait_exit(15)
    poll(lambda: not outlived(tree), 10, message=lambda: f"still running after the app died: {outlived(tree)}")


def test_the_servers_are_listed_and_called_from_a_terminal(tmp_path):
    (tmp_path / "hello.txt").write_text("Hello from the filesystem server\n")
    home = tmp_path / "home"
    config = config_for(tmp_path)
    config["mcpServers"]["broken"] = {"command": "node", "args": ["-e", "console.error('no key'); process.exit(3)"]}
    (home / ".config/ondrel").mkdir(parents=True)
    (home / ".config/ondrel/config.json").write_text(json.dumps(config))

    def ondrel_mcp(*args):
        # No DISPLAY, no WAYLAND_DISPLAY: a terminal over SSH will do.
        done = subprocess.run([BINARY, "mcp", *args], env={"PATH": os.environ["PATH"], "HOME": str(home)},
                              capture_output=True, text=True, timeout=180)
        # Every server ran in HOME; none may outlive the command.
        left = [pid for pid in outlived(filter(str.isdigit, os.listdir("/proc"))) if proc(pid, "cwd") == str(home)]
        assert not left, f"still running after 'ondrel mcp {' '.join(args)}': {left}"
        return done.returncode, done.stdout, done.stderr

    status, out, err = ondrel_mcp("list")
    assert status == 1 and re.search(r'^verything \("Everything"\): running, \d+ tools$', out, re.M), (out, err)
    assert re.search(r"^fs: running, \d+ tools$", out, re.M) and "broken: not running: " in out, out
    assert ondrel_mcp("call", "fs", "read_text_file", json.dumps({"path": str(tmp_path / "hello.txt")})) == (
        0, "Hello from the filesystem server\n", "")
    status, out, err = ondrel_mcp("call", "broken", "echo")
    assert status == 1 and "stderr: no key" in err, (out, err)
