"""Shared fixtures: one X server and two web servers per session, apps per test or module."""

from __future__ import annotations

import itertools
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

from harness import App, MapWatcher, Screen, WebServer, Xvfb  # noqa: E402


@pytest.fixture(scope="session")
def screen() -> Screen:
    xvfb = Xvfb()
    yield Screen(xvfb)
    xvfb.stop()


# The web servers' threads end with the session.
@pytest.fixture(scope="session")
def web() -> WebServer:
    return WebServer()


@pytest.fixture(scope="session")
def other_web() -> WebServer:  # the same pages from another origin (another port)
    return WebServer()


@pytest.fixture(scope="session")
def map_watcher(screen) -> MapWatcher:
    return MapWatcher(screen.display)


@pytest.hookimpl(hookwrapper=True, tryfirst=True)
def pytest_runtest_makereport(item, call):
    rep = (yield).get_result()
    setattr(item, "rep_" + rep.when, rep)


def _failed(node) -> bool:
    return any(getattr(getattr(node, "rep_" + when, None), "failed", False) for when in ("setup", "call"))


class Launcher:
    """launch(*args, config=..., env=..., binary=..., start=True, home=None) starts an app with a fresh HOME,
    or again in `home` (a restart); every one is ended at teardown."""

    def __init__(self, screen: Screen, base: Path):
        self.screen, self.base, self.apps = screen, base, []
        self._n = itertools.count()

    def __call__(self, *args: str, start: bool = True, home: Path | None = None, **kw) -> App:
        if home is None:
            home = self.base / f"home{next(self._n)}"
            home.mkdir(parents=True)
        app = App(self.screen, home, args=args, **kw)
        self.apps.append(app)
        return app.start() if start else app

    def close(self, failed: bool, label: str):
        if failed:
            shot = self.base / "failure.png"
            self.screen.screenshot().save(shot)
            print(f"\n[e2e] screenshot at failure: {shot}")
            for app in self.apps:
                print(f"[e2e] {label}: ondrel {app.args} status={app.proc and app.proc.poll()} log:")
                print(app.log_text() or "(empty)")
        for app in self.apps:
            app.kill()


@pytest.fixture
def launch(screen, tmp_path, request):
    launcher = Launcher(screen, tmp_path)
    yield launcher
    launcher.close(_failed(request.node), request.node.name)


@pytest.fixture(scope="module")
def module_launch(screen, tmp_path_factory, request):
    """Like launch, but the apps live for the whole module."""
    launcher = Launcher(screen, tmp_path_factory.mktemp(request.module.__name__))
    yield launcher
    launcher.close(any(_failed(item) for item in request.session.items if item.module is request.module),
                   request.module.__name__)


@pytest.fixture(autouse=True)
def _clean_input(screen):
    yield
    mask = screen.root.query_pointer().mask
    for button in (1, 2, 3):
        if mask & (0x80 << button):
            screen.button_up(button)
    screen.park_pointer()
