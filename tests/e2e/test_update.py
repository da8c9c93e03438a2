"""Self-update, end to end: a packaged AppDir started from a temporary folder
checks a local update server, downloads, verifies, swaps itself and starts
again.

The releases are built by packaging/make-release (1.0.0 installed, 2.0.0
offered), both trusting one minisign key and signed with it. The AppDir
lives in a folder whose name holds a quote and a blank. Alerts are found as
X windows by their titles, read with OCR and answered with the keyboard.
"""

from __future__ import annotations

import json
import os
import time
from pathlib import Path

import pytest

import harness
from bridge_client import BridgeClient
from harness import App, XWindow, poll
from releases import (Release, Served, SigningKey, UpdateServer, appdir_entries, kill_tree, make_key, make_release,
                      processes_running, sign, symlink_info, write_zip)

PAGE = b"<!doctype html><html><head><title>update test</title></head><body>instance</body></html>"


@pytest.fixture(scope="session")
def keys(tmp_path_factory) -> tuple[SigningKey, SigningKey]:
    """The releases' key, and another one."""
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
    """One user: a home folder, release 1.0.0 unpacked in apps/, a folder for
    the archives the server offers, and a folder beside them that nothing may
    ever write into."""

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
        """Starts the installed AppDir; every start shares the one home."""
        self.home.mkdir(exist_ok=True)
        return self.launch(home=self.home, config=config, binary=str(self.appdir / "AppRun"), **kw)

    def schedule(self, version: str, url: str):
        """What "Update on Next Restart" leaves behind."""
        self.data.mkdir(parents=True, exist_ok=True)
        self.record.write_text(json.dumps({"version": version, "url": url}))

    def window(self, app: App, title: str, timeout: float = 20) -> XWindow:
        return poll(lambda: next(iter(self.screen.toplevels(pid=app.pid, title=title)), None), timeout,
                    0.1, lambda: f"no {title!r} window; log:\n{app.log_text()}")

    def relaunched(self, timeout: float = 20) -> int:
        """The process the swap script started from the AppDir."""
        ours = {app.pid for app in self.launch.apps}
        found = poll(lambda: [p for p in processes_running(self.executable) if p not in ours], timeout, 0.1,
                     "the AppDir was not started again")
        return found[0]

    def close(self):
        # The apps started here end with `launch`; the swap script's are ours.
        for pid in processes_running(self.executable):
            kill_tree(pid)
        # The shared clean-up parks the pointer with a synchronous move, which
        # stalls for seconds when the pointer is parked already; these tests
        # never move it, so move it off first.
        if self.screen.pointer() == (self.screen.width - 5, self.screen.height - 5):
            self.screen.move_pointer(self.screen.width // 2, self.screen.height // 2)


@pytest.fixture
def rig(launch, tmp_path, releases, server):
    r = Rig(launch, tmp_path, releases[0], server)
    yield r
    r.close()


def read(window: XWindow) -> str:
    return harness.ocr(window.screenshot())


def menu(rig: Rig, window: XWindow, downs: int):
    """Picks an item of the Ondrel menu with the keyboard (F10, then Down to the item)."""
    window.focus()
    for key in ["F10"] + ["Down"] * downs + ["Return"]:
        rig.screen.key(key)
        time.sleep(0.25)  # each step opens or moves something that must be there for the next


def about_text(rig: Rig, window: XWindow, pid: int) -> str:
    """Opens Ondrel ▸ About Ondrel and reads the panel."""
    menu(rig, window, 1)
    panel = poll(lambda: next(iter(rig.screen.toplevels(pid=pid, title="About Ondrel")), None), 10, 0.1,
                 "no About panel")
    time.sleep(0.3)
    text = read(panel)
    panel.focus()
    rig.screen.key("Return")
    poll(lambda: not panel.is_viewable(), 10, message="About panel still shown")
    return text


def bar_fill(window: XWindow) -> int:
    """Width of the bar's blue fill counted from its left end (0 when the fill does not start there)."""
    shot = window.screenshot()
    best = 0
    for y in range(44, 61):  # the bar's 16-px allocation; the theme draws a thinner trough inside it
        width = 0
        for x in range(20, 360):
            r, g, b = shot.getpixel((x, y))
            if b - r < 60:
                if width or x > 24:
                    break
                continue
            width += 1
        best = max(best, width)
    return best


def test_update_now_downloads_swaps_and_relaunches(rig, server, releases, keys):
    old, new = releases
    # Slow enough to watch the bar fill: 24 pieces, 0.1 s apart.
    manifest = server.publish(new, chunks=24, pause=0.1)
    app = rig.start(rig.config(updateUrl=manifest))

    alert = rig.window(app, "Ondrel Update Available")
    assert app.wait_for_log("[Update] current 1.0.0 / remote 2.0.0")
    time.sleep(0.3)
    text = read(alert)
    for words in ("Ondrel Update Available", "A new version of Ondrel (2.0.0) is available.",
                  "You are running 1.0.0.", "Update now, or update on your next restart?",
                  "Update Now", "Update on Next Restart", "Later"):
        assert words in text, text
    manifest_request = server.requests[-1]
    assert manifest_request[0] == "/rel/latest.txt"
    assert manifest_request[1].get("User-Agent") == "ondrel-linux-updater"

    alert.focus()
    rig.screen.key("Return")
    progress = rig.window(app, "Ondrel Update", 10)
    assert progress.geometry().width == 380 and progress.geometry().height == 96
    assert "Updating to 2.0.0" in read(progress)
    fills = []
    while app.running() and progress.is_viewable() and len(fills) < 40:
        fills.append(bar_fill(progress))
        time.sleep(0.05)
    assert any(0 < f < 300 for f in fills), f"no partly filled bar seen: {fills}"
    assert fills == sorted(fills), f"the bar went backwards: {fills}"

    assert app.wait_exit(20) == 0
    size = len(new.zip_path.read_bytes())
    key = keys[0]
    for line in (f"[Update] downloaded {rig.data / 'updates' / new.zip_name} ({size} bytes)",
                 f"[Update] verify {new.zip_name} ({size} bytes, magic zip ✓)",
                 f"[Update] signature ✓ key {key.key_id}, trusted comment “timestamp:",
                 "[Update] unpack exited 0",
                 f"[Update] extracted bundle at {rig.data / 'updates' / 'stage' / 'Ondrel.AppDir'}",
                 f"[Update] swap started; relaunching {rig.appdir}"):
        assert app.wait_for_log(line, 5).startswith(line)

    pid = rig.relaunched()
    window = poll(lambda: next(iter(rig.screen.toplevels(pid=pid, title="Ondrel")), None), 20, 0.1,
                  "the relaunched app shows no window")
    assert rig.executable.read_bytes() == new.binary
    assert sorted(p.name for p in rig.appdir.parent.iterdir()) == ["Ondrel.AppDir"]
    assert not (rig.data / "updates" / "stage" / "Ondrel.AppDir").exists()
    log = (rig.data / "updates" / "install.log").read_text()
    assert f"moved {rig.appdir}.ondrel.new to {rig.appdir}\n" in log, log
    assert f"started {rig.appdir}\n" in log and "failed" not in log, log
    assert "Version 2.0.0 (build 7)" in about_text(rig, window, pid)


def test_next_restart_writes_the_record_and_the_next_start_applies_it(rig, server, releases):
    old, new = releases
    # No length: the bar has nothing to measure against and stays indeterminate.
    manifest = server.publish(new, send_length=False, chunks=10, pause=0.1)
    app = rig.start(rig.config(updateUrl=manifest))
    alert = rig.window(app, "Ondrel Update Available")
    alert.focus()
    rig.screen.key("Right")  # from "Update Now" to "Update on Next Restart"
    rig.screen.key("space")
    app.wait_for_log("[Update] scheduled version 2.0.0 for next restart")
    assert json.loads(rig.record.read_text()) == {"version": "2.0.0", "url": server.url(f"/rel/{new.zip_name}")}
    assert app.running() and rig.executable.read_bytes() == old.binary
    app.kill()

    again = rig.start(rig.config(updateUrl=manifest))
    again.wait_for_log(f"[Update] applying scheduled update 2.0.0 ({server.url('/rel/' + new.zip_name)})")
    progress = rig.window(again, "Ondrel Update", 10)
    assert not again.windows("Ondrel"), "the main window is not built while a scheduled update runs"
    assert not rig.record.exists()
    assert "Updating to 2.0.0" in read(progress)
    fills = []
    while again.running() and progress.is_viewable() and len(fills) < 20:
        fills.append(bar_fill(progress))
        time.sleep(0.05)
    assert not any(f > 300 for f in fills), f"an indeterminate bar never fills: {fills}"
    assert again.wait_exit(20) == 0
    rig.relaunched()
    assert rig.executable.read_bytes() == new.binary


def test_error_page_is_refused_and_the_progress_window_is_reused(rig, server, releases):
    old, new = releases
    manifest = server.publish(new)
    del server.files[f"/rel/{new.zip_name}"]  # the archive is missing too: a 404 page again
    rig.schedule("9.9.9", server.url("/gone/Ondrel-9.9.9-x86_64.zip"))
    app = rig.start(rig.config(updateUrl=manifest))

    failed = rig.window(app, "Update Failed")
    # The error page arrives at once: the progress window has come and gone.
    first = rig.screen.toplevels(pid=app.pid, title="Ondrel Update", viewable=False)
    assert len(first) == 1 and not first[0].is_viewable()
    size = len((rig.data / "updates" / "Ondrel-9.9.9-x86_64.zip").read_bytes())
    assert size > 0
    app.wait_for_log(f"[Update] verify Ondrel-9.9.9-x86_64.zip ({size} bytes, magic NOT A ZIP)")
    time.sleep(0.3)
    text = read(failed)
    assert "Update Failed" in text
    assert f"The downloaded file ({size} bytes) is not a valid zip archive." in text, text
    assert not rig.record.exists(), "a failing update is not retried"

    failed.focus()
    rig.screen.key("Return")
    app.main_window()  # the start goes on with the old version
    assert rig.executable.read_bytes() == old.binary

    # The start-up check offers 2.0.0; the same progress window comes back.
    alert = rig.window(app, "Ondrel Update Available")
    alert.focus()
    rig.screen.key("Return")
    failed = rig.window(app, "Update Failed")
    again = rig.screen.toplevels(pid=app.pid, title="Ondrel Update", viewable=False)
    assert [w.id for w in again] == [first[0].id]
    app.wait_for_log(f"[Update] verify {new.zip_name} (")
    # The start came through a scheduled update, so a failure still ends the
    # event loop, here the application's own: it quits.
    failed.focus()
    rig.screen.key("Return")
    assert app.wait_exit(10) == 0
    assert rig.executable.read_bytes() == old.binary


def refused_archive(kind: str, rig: Rig, releases, keys) -> tuple[Path, str, str, str]:
    """An archive the installed app must refuse: (archive, version offered,
    the log line that says why, words of the alert)."""
    old, new = releases
    key, other = keys
    # Hostile entries first, then a bundle that would install if they were let through.
    # The staging folder is six levels below the test folder that holds `outside`.
    hostile = {
        "dotdot": [("../../../../../../outside/dotdot.txt", b"escaped")],
        "absolute": [(str(rig.outside / "absolute.txt"), b"escaped")],
        "symlink": [(symlink_info("link"), str(rig.outside).encode()), ("link/through.txt", b"escaped")],
    }
    if kind in hostile:
        # Signed with the right key: unpacking is the last line of defence.
        archive = write_zip(rig.served / "hostile.zip", hostile[kind] + appdir_entries(new))
        sign(archive, key, "version:3.0")
        return (archive, "3.0", "[Update] unpack exited 1",
                "did not contain a Ondrel.AppDir bundle to install (unpack exit 1)")
    if kind == "no_apprun":
        archive = write_zip(rig.served / "noapprun.zip",
                            [(info, data) for info, data in appdir_entries(new) if info.filename != "Ondrel.AppDir/AppRun"])
        sign(archive, key, "version:3.0")
        return archive, "3.0", "[Update] refused bundle ", "could not be started: it has no AppRun"
    if kind == "no_bundle":
        archive = write_zip(rig.served / "nobundle.zip",
                            [("README.txt", b"release notes"), ("Ondrel/usr/lib/x.so", b"\x7fELF")])
        sign(archive, key, "version:3.0")
        return (archive, "3.0", "[Update] unpack exited 0",
                "did not contain a Ondrel.AppDir bundle to install (unpack exit 0)")

    failed = "[Update] signature check failed: "
    if kind == "replayed_old_release":
        # 1.0.0's genuine zip and signature, offered as 3.0.0.
        archive = rig.served / old.zip_name
        archive.write_bytes(old.zip_path.read_bytes())
        Path(f"{archive}.minisig").write_bytes(old.signature.read_bytes())
        return (archive, "3.0.0", failed + "its signature is for another release (trusted comment “timestamp:",
                "is for another release")
    archive = rig.served / new.zip_name
    data = bytearray(new.zip_path.read_bytes())
    if kind == "tampered":
        data[len(data) // 2] ^= 0x01
        archive.write_bytes(bytes(data))
        Path(f"{archive}.minisig").write_bytes(new.signature.read_bytes())
        return archive, "2.0.0", failed + "the archive does not match its signature", "does not match its signature"
    archive.write_bytes(bytes(data))
    if kind == "other_key":
        sign(archive, other, "version:2.0.0")
        return (archive, "2.0.0", failed + f"it is signed with key {other.key_id}, not with this copy's key {key.key_id}",
                "is signed with key")
    assert kind == "no_signature"
    return (archive, "2.0.0", failed + f"its signature {rig.server.url('/rel/' + new.zip_name)}.minisig could not be "
            "fetched (HTTP 404)", "could not be fetched (HTTP 404)")


@pytest.mark.parametrize("kind", ["tampered", "other_key", "replayed_old_release", "no_signature",
                                  "dotdot", "absolute", "symlink", "no_bundle", "no_apprun"])
def test_refused_archive_leaves_the_installed_app_as_it_was(rig, server, releases, keys, kind):
    old, new = releases
    archive, version, why, words = refused_archive(kind, rig, releases, keys)
    rig.schedule(version, server.offer(archive))
    app = rig.start(rig.config(updateEnabled=False))

    failed = rig.window(app, "Update Failed")
    app.wait_for_log(why)
    time.sleep(0.3)
    text = read(failed)
    assert words in text and "Your current version is unchanged." in text, text
    updates = rig.data / "updates"
    if why.startswith("[Update] signature check failed"):
        assert "The update could not be verified" in text, text
    if why.startswith(("[Update] signature check failed", "[Update] refused bundle")):
        assert not (updates / archive.name).exists(), "the download is deleted"
        assert not (updates / "stage").exists(), "nothing is unpacked"
    assert list(rig.outside.iterdir()) == []
    assert sorted(p.name for p in rig.base.iterdir()) == ["apps", "home", "outside", "served"]
    failed.focus()
    rig.screen.key("Return")
    app.main_window()  # the old version goes on
    assert rig.executable.read_bytes() == old.binary
    assert sorted(p.name for p in rig.appdir.parent.iterdir()) == ["Ondrel.AppDir"]


def test_the_page_is_answered_while_the_update_alert_is_open(launch, web, server):
    """The alert waits for its answer in the main loop: replies that reach the
    page through the main thread (here the MCP server list's) still arrive."""
    server.files["/rel/latest.txt"] = Served(b"99.0\nOndrel-99.0-x86_64.zip\n")
    bridge = BridgeClient(web)
    app = launch(bridge.url, config={"updateUrl": server.url("/rel/latest.txt")})
    bridge.attach(app).wait_ready()
    alert = poll(lambda: next(iter(app.screen.toplevels(pid=app.pid, title="Ondrel Update Available")), None), 20,
                 0.1, "no update alert")
    assert bridge.call("mcpServers", timeout=10) == (True, [])
    assert alert.is_viewable()
    alert.focus()
    app.screen.key("Escape")
    app.wait_for_log("[Update] deferred by user")


def test_a_swap_that_cannot_move_the_new_app_in_starts_the_old_one_again(rig, server, releases):
    old, new = releases
    # A `mv` first on PATH that refuses to move the unpacked AppDir, as a
    # full disk would; the swap script inherits the app's environment.
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

    pid = rig.relaunched()
    poll(lambda: rig.screen.toplevels(pid=pid, title="Ondrel"), 20, 0.1, "the old app shows no window")
    assert rig.executable.read_bytes() == old.binary
    assert sorted(p.name for p in rig.appdir.parent.iterdir()) == ["Ondrel.AppDir"]
    log = (rig.data / "updates" / "install.log").read_text()
    assert f"failed: moving {staged} to {rig.appdir}.ondrel.new\n" in log, log
    assert f"started {rig.appdir}\n" in log, log


def test_record_with_an_empty_url_is_left_in_place(rig, server):
    rig.schedule("2.0.0", "")
    before = rig.record.read_bytes()
    app = rig.start(rig.config(updateEnabled=False))
    app.main_window()
    app.wait_for_log("[Update] auto-update disabled")
    assert rig.record.read_bytes() == before
    assert not any("applying scheduled update" in m for m in app.messages())
    assert not (rig.data / "updates").exists()


def test_disabled_updates_skip_both_checks_and_about_says_disabled(rig, server, releases):
    manifest = server.publish(releases[1])
    app = rig.start(rig.config(updateEnabled=False, updateUrl=manifest))
    window = app.main_window()
    line = "[Update] auto-update disabled (updateEnabled=false) — skipping"
    app.wait_for_log(line, 10)

    menu(rig, window, 2)  # the separator is skipped: "Check for Updates…"
    poll(lambda: app.messages().count(line) == 2, 10, message="the menu check did not run")

    text = about_text(rig, window, app.pid)
    assert "Version 1.0.0 (build 1)" in text, text
    assert "Instance Server: 127.0.0.1" in text, text
    assert "Update Source: disabled" in text, text
    assert "/rel/latest.txt" not in server.paths_requested()
    assert not any(w.title() == "Ondrel Update Available" for w in rig.screen.toplevels(pid=app.pid))
