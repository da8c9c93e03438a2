"""Self-update: release 1.0.0's AppDir, in a folder whose name holds a quote and a blank, checks a local
server, downloads 2.0.0, verifies it, swaps itself and starts again; alerts are answered with keys. The rules
underneath (versions, signatures, hostile archives, the swap script's failures) are the unit tests' part."""

from __future__ import annotations

import contextlib
import json
import os
import time
from pathlib import Path

import pytest
from Xlib import X

from bridge_client import BridgeClient
from harness import App, WebServer, XWindow, descendants, poll
from releases import Release, make_releases


@pytest.fixture(scope="session")
def releases(tmp_path_factory) -> list[Release]:
    return make_releases(tmp_path_factory.mktemp("releases"), "1.0.0", "2.0.0")


def processes_running(executable: Path) -> list[int]:
    def exe(entry):
        with contextlib.suppress(OSError):
            return os.readlink(f"/proc/{entry}/exe")
    return [int(e) for e in os.listdir("/proc") if e.isdigit() and exe(e) == str(executable)]


class Rig:
    """A home, 1.0.0 unpacked in apps/ under a name with a quote and a blank, and the releases served."""

    def __init__(self, launch, base: Path, releases: list[Release], page: str):
        self.launch, self.screen, self.page, self.home = launch, launch.screen, page, base / "home"
        self.server = WebServer(root=releases[0].folder.parent)
        self.appdir = releases[0].install(base / "apps" / "Joe's Apps")
        self.executable = self.appdir / "usr" / "bin" / "ondrel"
        self.home.mkdir()

    def start(self, **config) -> App:
        return self.launch(home=self.home, config={"server": self.page, **config}, binary=str(self.appdir / "AppRun"))


@pytest.fixture
def rig(launch, tmp_path, releases, web):
    r = Rig(launch, tmp_path, releases, web.url("events.html"))
    yield r
    r.server.stop()
    for pid in processes_running(r.executable):  # the apps the swap script started, and their helpers
        for p in [pid, *descendants(pid)]:
            with contextlib.suppress(ProcessLookupError, PermissionError):
                os.kill(p, 9)


def window(app: App, title: str, timeout: float = 20) -> XWindow:
    return poll(lambda: next(iter(app.screen.toplevels(pid=app.pid, title=title)), None), timeout,
                0.1, lambda: f"no {title!r} window; log:\n{app.log_text()}")


@pytest.mark.parametrize("when", ["now", "next-restart"])
def test_an_offered_update_is_downloaded_swapped_in_and_started(rig, releases, when):
    (old, new), server = releases, rig.server

    def held_back(_):  # long enough for the progress window to be seen
        time.sleep(1)
        return 200, "application/zip", (new.folder / new.zip_name).read_bytes()
    server.route(f"/2.0.0/{new.zip_name}", held_back)
    manifest = server.url("/2.0.0/latest.txt")
    app = rig.start(updateUrl=manifest)
    window(app, "Ondrel Update Available").focus()
    if when == "next-restart":
        rig.screen.key("Right", "space")  # from "Update Now" to "Update on Next Restart"
        app.wait_for_log("[Update] scheduled version 2.0.0 for next restart")
        assert app.running() and rig.executable.read_bytes() == old.binary
        app.kill()
        app = rig.start(updateUrl=manifest)
        app.wait_for_log("[Update] applying scheduled update 2.0.0")
        assert not app.windows("Ondrel"), "the main window is not built while a scheduled update runs"
    else:
        rig.screen.key("Return")
    window(app, "Ondrel Update", 10)
    assert app.wait_exit(20) == 0
    app.wait_for_log("[Update] signature ✓ key", 5)  # with the key the release was built with

    ours = {app.pid for app in rig.launch.apps}
    pid = poll(lambda: [p for p in processes_running(rig.executable) if p not in ours], 20, 0.1,
               "the AppDir was not started again")[0]
    poll(lambda: rig.screen.toplevels(pid=pid, title="Ondrel"), 20, 0.1, "the relaunched app shows no window")
    assert rig.executable.read_bytes() == new.binary


def test_a_tampered_update_is_refused_and_the_installed_app_starts_as_it_was(rig, releases):
    (old, new), server = releases, rig.server
    tampered = bytearray((new.folder / new.zip_name).read_bytes())
    tampered[len(tampered) // 2] ^= 0x01  # after signing: the genuine signature no longer matches
    signature, path = (new.folder / f"{new.zip_name}.minisig").read_bytes(), f"/t/{new.zip_name}"
    server.route(path, lambda _: (200, "application/zip", bytes(tampered)))
    server.route(f"{path}.minisig", lambda _: (200, "text/plain", signature))
    data = rig.home / ".local" / "share" / "ondrel"  # what "Update on Next Restart" leaves behind
    data.mkdir(parents=True)
    (data / "pending-update.json").write_text(json.dumps({"version": "2.0.0", "url": server.url(path)}))
    app = rig.start(updateEnabled=False)

    failed = window(app, "Update Failed")
    app.wait_for_log("[Update] signature check failed: the archive does not match its signature")
    failed.focus()
    rig.screen.key("Return")
    app.main_window()  # the old version goes on
    assert rig.executable.read_bytes() == old.binary


def test_the_page_is_answered_while_the_update_alert_is_open_and_the_menu_checks_again(launch, web):
    """The alert waits in the main loop: replies that reach the page through the main thread still arrive."""
    web.route("/rel/latest.txt", lambda _: (200, "text/plain", b"99.0\nOndrel-99.0-x86_64.zip\n"))
    bridge = BridgeClient(web)
    app = launch(bridge.url, config={"updateUrl": web.url("rel/latest.txt")})
    bridge.attach(app).wait_ready()
    alert = window(app, "Ondrel Update Available")
    assert bridge.call("mcpServers", timeout=10) == (True, [])
    assert alert.is_viewable()
    alert.focus()
    app.screen.key("Escape")
    app.wait_for_log("[Update] deferred by user")

    mark = app.log_mark()
    app.main_window().focus()
    app.screen.key("F10")
    poll(lambda: any(w.get_attributes().override_redirect and w.get_attributes().map_state == X.IsViewable
                     for w in app.screen.root.query_tree().children), 10, message="the menu did not open")
    app.screen.key("Down", "Down", "Return")  # the separator is skipped: "Check for Updates…"
    app.wait_for_log("[Update] checking ", since=mark)
