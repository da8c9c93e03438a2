"""Self-update: release 1.0.0's AppDir, in a folder whose name holds a quote and a blank, checks a local
server, downloads 2.0.0, verifies it, swaps itself and starts again; alerts are answered with keys."""

from __future__ import annotations

import json
import os
from pathlib import Path

import pytest
from Xlib import X

from bridge_client import BridgeClient
from harness import App, XWindow, poll
from releases import (Release, Served, SigningKey, UpdateServer, appdir_entries, kill_tree, make_key, make_release,
                      processes_running, sign, symlink_info, write_zip)

PAGE = b"<!doctype html><html><head><title>update test</title></head><body>instance</body></html>"


@pytest.fixture(scope="session")
def keys(tmp_path_factory) -> tuple[SigningKey, SigningKey]:
    out = tmp_path_factory.mktemp("keys")
    return make_key(out / "release"), make_key(out / "other")


@pytest.fixture(scope="session")
def releases(tmp_path_factory, keys) -> tuple[Release, Release]:
    out = tmp_path_factory.mktemp("releases")
    return (make_release("1.0.0", "1", out / "1.0.0", keys[0]),
            make_release("2.0.0", "7", out / "2.0.0", keys[0]))


@pytest.fixture
def server():
    s = UpdateServer()
    s.files["/page.html"] = Served(PAGE)
    yield s
    s.stop()


class Rig:
    """A home, 1.0.0 unpacked in apps/, the archives served, and `outside`, which nothing may write into."""

    def __init__(self, launch, base: Path, old: Release, server: UpdateServer):
        self.launch, self.screen, self.server = launch, launch.screen, server
        self.base = base
        self.home = base / "home"
        self.outside = base / "outside"
        self.outside.mkdir()
        self.served = base / "served"
        self.served.mkdir()
        self.appdir = old.install(base / "apps" / "Joe's Apps")
        self.executable = self.appdir / "usr" / "bin" / "ondrel"
        self.data = self.home / ".local" / "share" / "ondrel"
        self.record = self.data / "pending-update.json"

    def config(self, **extra) -> dict:
        return {"server": self.server.url("/page.html"), **extra}

    def start(self, config: dict, **kw) -> App:
        self.home.mkdir(exist_ok=True)
        return self.launch(home=self.home, config=config, binary=str(self.appdir / "AppRun"), **kw)

    def schedule(self, version: str, url: str):  # what "Update on Next Restart" leaves behind
        self.data.mkdir(parents=True, exist_ok=True)
        self.record.write_text(json.dumps({"version": version, "url": url}))

    def relaunched(self, timeout: float = 20) -> int:
        """The app the swap script started again, once it shows its window."""
        ours = {app.pid for app in self.launch.apps}
        pid = poll(lambda: [p for p in processes_running(self.executable) if p not in ours], timeout, 0.1,
                   "the AppDir was not started again")[0]
        poll(lambda: self.screen.toplevels(pid=pid, title="Ondrel"), 20, 0.1, "the relaunched app shows no window")
        return pid

    def close(self):
        for pid in processes_running(self.executable):  # the apps the swap script started
            kill_tree(pid)


def window(app: App, title: str, timeout: float = 20) -> XWindow:
    return poll(lambda: next(iter(app.screen.toplevels(pid=app.pid, title=title)), None), timeout,
                0.1, lambda: f"no {title!r} window; log:\n{app.log_text()}")


@pytest.fixture
def rig(launch, tmp_path, releases, server):
    r = Rig(launch, tmp_path, releases[0], server)
    yield r
    r.close()


def popup_shown(screen) -> bool:
    return any(w.get_attributes().override_redirect and w.get_attributes().map_state == X.IsViewable
               for w in screen.root.query_tree().children)


def menu(screen, window: XWindow, downs: int):
    window.focus()
    screen.key("F10")
    poll(lambda: popup_shown(screen), 10, message="the menu did not open")
    screen.key(*["Down"] * downs, "Return")


@pytest.mark.parametrize("when", ["now", "next-restart"])
def test_an_offered_update_is_downloaded_swapped_in_and_started(rig, server, releases, keys, when):
    old, new = releases
    # Slow enough for the progress window to be seen; without a length for the next restart.
    manifest = server.publish(new, chunks=10, pause=0.1, send_length=when == "now")
    app = rig.start(rig.config(updateUrl=manifest))
    alert = window(app, "Ondrel Update Available")
    app.wait_for_log("[Update] current 1.0.0 / remote 2.0.0")
    assert server.requests[-1][0] == "/rel/latest.txt"
    assert server.requests[-1][1].get("User-Agent") == "ondrel-linux-updater"
    alert.focus()
    if when == "next-restart":
        rig.screen.key("Right", "space")  # from "Update Now" to "Update on Next Restart"
        app.wait_for_log("[Update] scheduled version 2.0.0 for next restart")
        assert json.loads(rig.record.read_text()) == {"version": "2.0.0", "url": server.url(f"/rel/{new.zip_name}")}
        assert app.running() and rig.executable.read_bytes() == old.binary
        app.kill()
        app = rig.start(rig.config(updateUrl=manifest))
        app.wait_for_log("[Update] applying scheduled update 2.0.0")
        assert not app.windows("Ondrel"), "the main window is not built while a scheduled update runs"
        assert not rig.record.exists()
    else:
        rig.screen.key("Return")
    window(app, "Ondrel Update", 10)
    assert app.wait_exit(20) == 0
    for line in (f"[Update] signature ✓ key {keys[0].key_id}", "[Update] unpack exited 0",
                 f"[Update] swap started; relaunching {rig.appdir}"):
        app.wait_for_log(line, 5)

    rig.relaunched()
    assert rig.executable.read_bytes() == new.binary
    assert sorted(p.name for p in rig.appdir.parent.iterdir()) == ["Ondrel.AppDir"]
    assert not (rig.data / "updates" / "stage" / "Ondrel.AppDir").exists()
    log = (rig.data / "updates" / "install.log").read_text()
    assert f"moved {rig.appdir}.ondrel.new to {rig.appdir}\n" in log and "failed" not in log, log


def refused_archive(kind: str, rig: Rig, releases, keys) -> tuple[Path | None, str, str]:
    """(archive, version offered, the log line that says why it is refused)."""
    old, new = releases
    key, other = keys
    if kind == "error_page":  # nothing served there: a 404 page is downloaded
        return None, "9.9.9", "[Update] verify Ondrel-9.9.9-x86_64.zip ("
    # Hostile entries first, then a bundle that would install if they were let through.
    # The staging folder is six levels below the test folder that holds `outside`.
    unsigned = {
        "dotdot": [("../../../../../../outside/dotdot.txt", b"escaped")] + appdir_entries(new),
        "absolute": [(str(rig.outside / "absolute.txt"), b"escaped")] + appdir_entries(new),
        "symlink": [(symlink_info("link"), str(rig.outside).encode()), ("link/through.txt", b"escaped")]
        + appdir_entries(new),
        "no_apprun": [(info, data) for info, data in appdir_entries(new) if info.filename != "Ondrel.AppDir/AppRun"],
        "no_bundle": [("README.txt", b"release notes"), ("Ondrel/usr/lib/x.so", b"\x7fELF")],
    }
    if kind in unsigned:
        # Signed with the right key: unpacking is the last line of defence.
        archive = write_zip(rig.served / f"{kind}.zip", unsigned[kind])
        sign(archive, key, "version:3.0")
        why = {"no_apprun": "[Update] refused bundle ", "no_bundle": "[Update] unpack exited 0"}
        return archive, "3.0", why.get(kind, "[Update] unpack exited 1")

    failed = "[Update] signature check failed: "
    if kind == "replayed_old_release":  # 1.0.0's genuine zip and signature, offered as 3.0.0
        archive = rig.served / old.zip_name
        archive.write_bytes(old.zip_path.read_bytes())
        Path(f"{archive}.minisig").write_bytes(old.signature.read_bytes())
        return archive, "3.0.0", failed + "its signature is for another release"
    archive = rig.served / new.zip_name
    data = bytearray(new.zip_path.read_bytes())
    if kind == "tampered":
        data[len(data) // 2] ^= 0x01
        Path(f"{archive}.minisig").write_bytes(new.signature.read_bytes())
    archive.write_bytes(bytes(data))
    if kind == "other_key":
        sign(archive, other, "version:2.0.0")
    return archive, "2.0.0", failed + {"tampered": "the archive does not match its signature",
                                       "other_key": f"it is signed with key {other.key_id}, not with this copy's key",
                                       "no_signature": "its signature "}[kind]


@pytest.mark.parametrize("kind", ["tampered", "other_key", "replayed_old_release", "no_signature", "error_page",
                                  "dotdot", "absolute", "symlink", "no_bundle", "no_apprun"])
def test_refused_archive_leaves_the_installed_app_as_it_was(rig, server, releases, keys, kind):
    old, new = releases
    archive, version, why = refused_archive(kind, rig, releases, keys)
    rig.schedule(version, server.offer(archive) if archive else server.url("/gone/Ondrel-9.9.9-x86_64.zip"))
    app = rig.start(rig.config(updateEnabled=False))

    failed = window(app, "Update Failed")
    app.wait_for_log(why)
    if why.startswith(("[Update] signature check failed", "[Update] refused bundle")):
        assert not (rig.data / "updates" / archive.name).exists(), "the download is deleted"
        assert not (rig.data / "updates" / "stage").exists(), "nothing is unpacked"
    assert not rig.record.exists(), "a failing update is not retried"
    assert list(rig.outside.iterdir()) == []
    assert sorted(p.name for p in rig.base.iterdir()) == ["apps", "home", "outside", "served"]
    failed.focus()
    rig.screen.key("Return")
    app.main_window()  # the old version goes on
    assert rig.executable.read_bytes() == old.binary
    assert sorted(p.name for p in rig.appdir.parent.iterdir()) == ["Ondrel.AppDir"]


def test_the_page_is_answered_while_the_update_alert_is_open(launch, web, server):
    """The alert waits in the main loop: replies that reach the page through the main thread still arrive."""
    server.files["/rel/latest.txt"] = Served(b"99.0\nOndrel-99.0-x86_64.zip\n")
    bridge = BridgeClient(web)
    app = launch(bridge.url, config={"updateUrl": server.url("/rel/latest.txt")})
    bridge.attach(app).wait_ready()
    alert = window(app, "Ondrel Update Available")
    assert bridge.call("mcpServers", timeout=10) == (True, [])
    assert alert.is_viewable()
    alert.focus()
    app.screen.key("Escape")
    app.wait_for_log("[Update] deferred by user")


def test_a_swap_that_cannot_move_the_new_app_in_starts_the_old_one_again(rig, server, releases):
    old, new = releases
    # A `mv` that refuses to move the unpacked AppDir, as a full disk would; the swap script inherits PATH.
    staged = rig.data / "updates" / "stage" / "Ondrel.AppDir"
    shim = rig.base / "bin"
    shim.mkdir()
    (shim / "mv").write_text('#!/bin/sh\n[ "$1" = "$REFUSE" ] && { echo "mv: No space left on device" >&2; exit 1; }\n'
                             'exec /bin/mv "$@"\n')
    (shim / "mv").chmod(0o755)
    env = {"PATH": f"{shim}:{os.environ.get('PATH', '/usr/bin:/bin')}", "REFUSE": str(staged)}
    rig.schedule(new.version, server.offer(new.zip_path))
    app = rig.start(rig.config(updateEnabled=False), env=env)
    app.wait_for_log(f"[Update] swap started; relaunching {rig.appdir}")
    assert app.wait_exit(20) == 0

    rig.relaunched()
    assert rig.executable.read_bytes() == old.binary
    assert sorted(p.name for p in rig.appdir.parent.iterdir()) == ["Ondrel.AppDir"]
    log = (rig.data / "updates" / "install.log").read_text()
    assert f"failed: moving {staged} to {rig.appdir}.ondrel.new\n" in log, log
    assert f"started {rig.appdir}\n" in log, log


def test_disabled_updates_skip_both_checks(rig, server, releases):
    app = rig.start(rig.config(updateEnabled=False, updateUrl=server.publish(releases[1])))
    main = app.main_window()
    line = "[Update] auto-update disabled (updateEnabled=false) — skipping"
    app.wait_for_log(line, 10)
    menu(rig.screen, main, 2)  # the separator is skipped: "Check for Updates…"
    poll(lambda: app.messages().count(line) == 2, 10, message="the menu check did not run")
    assert "/rel/latest.txt" not in [path for path, _ in server.requests]
    assert not rig.screen.toplevels(pid=app.pid, title="Ondrel Update Available")
