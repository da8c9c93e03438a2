"""Shared fixtures: one X server and two web servers per session, apps per test or module."""

import itertools
import sys
from pathlib import Path

import pytest
from Xlib import X

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


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failure's report shows the screen at that moment and the log of each app of the test (or module)."""
    rep = (yield).get_result()
    launchers = [item.funcargs[name] for name in ("launch", "module_launch") if name in item.funcargs]
    if rep.failed and launchers:
        shot = launchers[0].base / "failure.png"
        launchers[0].screen.screenshot().save(shot)
        rep.sections.append(("screenshot at failure", str(shot)))
        for app in (app for launcher in launchers for app in launcher.apps):
            rep.sections.append((f"ondrel {app.args}, status {app.proc and app.proc.poll()}", app.log_text()))


class Launcher:
    """launch(*args, config=, env=, binary=, start=True, home=None): an app with a fresh HOME (or again in `home`)."""

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

    def close(self):
        for app in self.apps:
            app.kill()


@pytest.fixture
def launch(screen, tmp_path):
    launcher = Launcher(screen, tmp_path)
    yield launcher
    launcher.close()


@pytest.fixture(scope="module")
def module_launch(screen, tmp_path_factory, request):
    """Like launch, but the apps live for the whole module."""
    launcher = Launcher(screen, tmp_path_factory.mktemp(request.module.__name__))
    yield launcher
    launcher.close()


@pytest.fixture(autouse=True)
def _clean_input(screen):  # a test that failed halfway leaves neither the button held nor the pointer on a window
    yield
    if screen.root.query_pointer().mask & X.Button1Mask:
        screen.button_up(1)
    screen.park_pointer()
