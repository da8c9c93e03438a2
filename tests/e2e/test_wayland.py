"""A smoke run on Wayland: the app, not told which backend to use and given
no X display, runs natively under Weston. The page loads and the bridge
answers; a click in the drag strip reaches the page; a double click there
maximises and a second one restores, and a drag moves the window, both as
Weston's own scene graph reports them; a file chooser opens and cancels.

Weston runs on an Xvfb of its own through its X11 backend: its headless
backend has no input devices, and sway (whose headless backend does) does
not maximise windows. The pointer is moved inside Weston's output with
xdotool, and Weston hands it to its clients as Wayland input.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

import pytest

from bridge_client import BridgeClient
from harness import Geometry, Screen, Xvfb, kill_group, poll, _die_with_parent

WIDTH, HEIGHT = 1600, 1000
SOCKET = "ondrel-wayland-0"

VIEW = re.compile(r"View \d+ \(role xdg_toplevel, PID (?P<pid>\d+), .*?top-level window '(?P<title>[^']*)'.*?\):\n"
                  r"\s*position: \((?P<x0>-?\d+), (?P<y0>-?\d+)\) -> \((?P<x1>-?\d+), (?P<y1>-?\d+)\)")


@dataclass
class Weston:
    screen: Screen         # its own Xvfb, whose root its output covers from (0, 0)
    runtime: Path
    proc: subprocess.Popen

    @property
    def socket(self) -> str:
        return str(self.runtime / SOCKET)

    def toplevels(self, pid: int) -> dict[str, Geometry]:
        """The app's windows by title, where Weston itself has put them."""
        env = {**os.environ, "XDG_RUNTIME_DIR": str(self.runtime), "WAYLAND_DISPLAY": SOCKET}
        graph = subprocess.run(["weston-debug", "scene-graph"], env=env, capture_output=True, text=True,
                               timeout=20).stdout
        return {m["title"]: Geometry(int(m["x0"]), int(m["y0"]), int(m["x1"]) - int(m["x0"]),
                                     int(m["y1"]) - int(m["y0"]))
                for m in VIEW.finditer(graph) if int(m["pid"]) == pid}


@pytest.fixture(scope="module")
def weston(tmp_path_factory):
    missing = [tool for tool in ("weston", "weston-debug") if not shutil.which(tool)]
    if missing:
        pytest.skip(f"{', '.join(missing)} not installed (scripts/install-deps installs the weston package)")
    base = tmp_path_factory.mktemp("weston")
    runtime = base / "runtime"
    runtime.mkdir(mode=0o700)
    config = base / "weston.ini"
    # No panel: a maximised window then fills the output.
    config.write_text("[core]\nidle-time=0\n[shell]\npanel-position=none\n")
    log = base / "weston.log"
    xvfb = Xvfb(WIDTH, HEIGHT)
    proc = subprocess.Popen(
        ["weston", "--backend=x11-backend.so", "--use-pixman", f"--width={WIDTH}", f"--height={HEIGHT}",
         f"--socket={SOCKET}", f"--config={config}", f"--log={log}",
         "--debug"],  # lets weston-debug read the scene graph
        env={**os.environ, "DISPLAY": xvfb.display, "XDG_RUNTIME_DIR": str(runtime)},
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT,
        start_new_session=True, preexec_fn=_die_with_parent)
    try:
        screen = Screen(xvfb)
        up = Weston(screen, runtime, proc)
        try:
            # Up once its output window covers the X screen and the shell has drawn the background.
            poll(lambda: proc.poll() is None and screen.toplevels(viewable=True)
                 and screen.screenshot((WIDTH // 2, HEIGHT // 2, 1, 1)).getpixel((0, 0)) != (0, 0, 0), 30, 0.1)
        except AssertionError:
            text = log.read_text(errors="replace")[-3000:] if log.exists() else "(no log)"
            pytest.skip(f"weston did not start on Xvfb (status {proc.poll()}); its log:\n{text}")
        yield up
    finally:
        kill_group(proc)
        xvfb.stop()


class Session:
    def __init__(self, weston: Weston, bridge: BridgeClient, app):
        self.weston, self.bridge, self.app = weston, bridge, app
        self.screen = weston.screen

    def frame(self) -> Geometry:
        return self.weston.toplevels(self.app.pid)["Ondrel"]

    def wait_frame(self, expected: Geometry, why: str):
        poll(lambda: self.frame() == expected, 10, 0.1,
             message=lambda: f"{why}: Weston shows the window at {self.frame()}, not {expected}")

    def point(self, x: int, y: int, frame: Geometry | None = None) -> tuple[int, int]:
        """Output coordinates of a point of the window (its view's own coordinates)."""
        g = frame or self.frame()
        return (g.x + x, g.y + y)

    def double_click_strip(self, x: int):
        self.screen.move_pointer(*self.point(x, 20))
        self.screen.click(1, repeat=2, delay_ms=80)

    def mouse(self, since: int) -> list[tuple]:
        reports = sorted(self.bridge.web.reports("mouse", since=since), key=lambda r: r.data["seq"])
        return [(r.data["type"], r.data["x"], r.data["y"]) for r in reports]


@pytest.fixture(scope="module")
def session(weston, module_launch, web):
    bridge = BridgeClient(web)
    # Nothing names a backend, and there is no X display to fall back to.
    app = module_launch(bridge.url, env={"GDK_BACKEND": None, "DISPLAY": None, "WAYLAND_DISPLAY": weston.socket})
    bridge.attach(app).wait_ready(timeout=60)
    s = Session(weston, bridge, app)
    poll(lambda: "Ondrel" in weston.toplevels(app.pid), 20, 0.2, "no Wayland window of ondrel in Weston")
    bridge.run("for (const type of ['mousedown', 'mouseup', 'click', 'dblclick'])"
               "  addEventListener(type, e => report('mouse', {type, x: e.clientX, y: e.clientY}), true);"
               "return true")
    return s


def test_page_loads_and_the_bridge_answers(session):
    ok, platform = session.bridge.call("platform")
    assert ok and platform["name"] == "Linux", platform
    assert session.frame().width == 1260 and session.frame().height == 900


def test_click_in_the_strip_reaches_the_page(session):
    mark = session.bridge.web.mark()
    session.screen.move_pointer(*session.point(400, 20))
    session.screen.click(1)
    poll(lambda: session.mouse(mark) == [("mousedown", 400, 20), ("mouseup", 400, 20), ("click", 400, 20)], 10,
         message=lambda: f"the page saw {session.mouse(mark)}")


def test_double_click_maximises_through_the_compositor_and_a_second_restores(session):
    before = session.frame()
    mark = session.bridge.web.mark()
    session.double_click_strip(800)
    session.wait_frame(Geometry(0, 0, WIDTH, HEIGHT), "not maximised")
    time.sleep(0.6)  # past the double-click time, so the next pair counts anew
    session.double_click_strip(820)
    session.wait_frame(before, "not restored")
    assert not any(kind == "dblclick" for kind, *_ in session.mouse(mark)), session.mouse(mark)


def test_drag_in_the_strip_moves_the_window(session):
    before = session.frame()
    mark = session.bridge.web.mark()
    x, y = session.point(600, 20)
    session.screen.move_pointer(x, y)
    session.screen.button_down(1)
    for dx, dy in [(3, 0), (6, 0), (40, 20)]:
        session.screen.move_pointer(x + dx, y + dy)
    # The button stays down until Weston has taken the move over: a release
    # that overtook the app's request would leave nothing to move.
    poll(lambda: session.frame().x != before.x, 10, 0.1, "Weston did not start moving the window")
    session.screen.move_pointer(x + 80, y + 40)
    expected = Geometry(before.x + 80, before.y + 40, before.width, before.height)
    session.wait_frame(expected, "not dragged by (80, 40)")
    session.screen.button_up(1)
    assert session.frame() == expected
    assert session.mouse(mark) == [], "a drag is not a click"


def test_file_chooser_opens_and_cancels(session):
    mark = session.bridge.web.mark()
    rid = session.bridge.request("pickDirectory", "Choose a project")
    poll(lambda: "Choose a project" in session.weston.toplevels(session.app.pid), 10, 0.1, "no chooser window")
    session.screen.key("Escape")  # Weston gave the new window the keyboard
    assert session.bridge.wait_reply(rid, since=mark).pair == (True, None)
    poll(lambda: "Choose a project" not in session.weston.toplevels(session.app.pid), 10, 0.1, "chooser still open")
