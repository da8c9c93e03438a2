"""Shared fixtures: one X server and one web server per session, apps per test or module."""

from __future__ import annotations

import itertools
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

import harness  # noqa: E402
from harness import App, MapWatcher, Screen, WebServer, Xvfb  # noqa: E402


@pytest.fixture(scope="session")
def xvfb():
    server = Xvfb()
    yield server
    harness.kill_all_apps()
    server.stop()


@pytest.fixture(scope="session")
def screen(xvfb) -> Screen:
    return Screen(xvfb)


@pytest.fixture(scope="session")
def web() -> WebServer:
    server = WebServer()
    yield server
    server.stop()


@pytest.fixture(scope="session")
def other_web() -> WebServer:
    """The same pages from another origin (another port on 127.0.0.1)."""
    server = WebServer()
    yield server
    server.stop()


@pytest.fixture(scope="session")
def map_watcher(xvfb) -> MapWatcher:
    return MapWatcher(xvfb.display)


@pytest.hookimpl(hookwrapper=True, tryfirst=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    rep = outcome.get_result()
    setattr(item, "rep_" + rep.when, rep)


def _failed(node) -> bool:
    return any(getattr(getattr(node, "rep_" + when, None), "failed", False)
               for when in ("setup", "call"))


class Launcher:
    """Starts apps with a fresh HOME each; ends every one of them at teardown."""

    def __init__(self, screen: Screen, base: Path):
        self.screen = screen
        self.base = base
        self.apps: list[App] = []
        self._n = itertools.count()

    def __call__(self, *args: str, start: bool = True, home: Path | None = None, **kw) -> App:
        """home: run in that HOME again (a restart) instead of a fresh one."""
        if home is None:
            home = self.base / f"home{next(self._n)}"
            home.mkdir(parents=True)
        app = App(self.screen, home, args=args, **kw)
        self.apps.append(app)
        return app.start() if start else app

    def close(self, failed: bool, label: str):
        if failed:
            shot = self.base / "failure.png"
            try:
                self.screen.save_screenshot(shot)
                print(f"\n[e2e] screenshot at failure: {shot}")
            except Exception as exc:  # the X server may be the thing that broke
                print(f"\n[e2e] no screenshot: {exc}")
            for app in self.apps:
                print(f"[e2e] {label}: ondrel {app.args} status={app.proc and app.proc.poll()} log:")
                print(app.log_text() or "(empty)")
        for app in self.apps:
            app.kill()


@pytest.fixture
def launch(screen, tmp_path, request):
    """launch(*args, config=..., language=..., start=True, home=None) -> App, ended after the test."""
    launcher = Launcher(screen, tmp_path)
    yield launcher
    launcher.close(_failed(request.node), request.node.name)


@pytest.fixture(scope="module")
def module_launch(screen, tmp_path_factory, request):
    """Like launch, but the apps live for the whole module (for tests that can share one)."""
    launcher = Launcher(screen, tmp_path_factory.mktemp(request.module.__name__))
    yield launcher
    failed = any(_failed(item) for item in request.session.items
                 if item.module is request.module)
    launcher.close(failed, request.module.__name__)


@pytest.fixture(autouse=True)
def _clean_input(screen):
    """No test starts with a button still held or the pointer over a window from before."""
    yield
    pointer = screen.root.query_pointer()
    for button, mask in ((1, 0x100), (2, 0x200), (3, 0x400)):
        if pointer.mask & mask:
            screen.button_up(button)
    screen.park_pointer()


def pytest_report_header(config):
    return [f"ondrel binary: {harness.BINARY}",
            f"service domain: {harness.SERVICE_DOMAIN}, demo instance: {harness.DEMO_INSTANCE}"]
