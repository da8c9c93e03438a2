"""Under Weston, given no X display, the app runs natively: the bridge answers, maximising and dragging
go through the compositor (as Weston's scene graph reports them; a move needs the serial of the press
that began it, which X11 never checks), a file chooser opens and cancels. Weston runs on an Xvfb of its
own (its headless backend has no input devices), driven with xdotool."""

import os
import re
import shutil
import subprocess

import pytest

from bridge_client import BridgeClient
from harness import Geometry, Screen, Timeout, Xvfb, _die_with_parent, kill_group, poll

WIDTH, HEIGHT = 1600, 1000
VIEW = re.compile(r"View \d+ \(role xdg_toplevel, PID (?P<pid>\d+), .*?top-level window '(?P<title>[^']*)'.*?\):\n"
                  r"\s*position: \((?P<x0>-?\d+), (?P<y0>-?\d+)\) -> \((?P<x1>-?\d+), (?P<y1>-?\d+)\)")


@pytest.fixture(scope="module")
def weston(tmp_path_factory):
    """(screen, env for Wayland clients); screen is Weston's Xvfb, whose root its output covers."""
    if not shutil.which("weston") or not shutil.which("weston-debug"):
        pytest.skip("weston not installed (scripts/install-deps installs the weston package)")
    base = tmp_path_factory.mktemp("weston")
    (base / "runtime").mkdir(mode=0o700)
    # No panel: a maximised window then fills the output.
    (base / "weston.ini").write_text("[core]\nidle-time=0\n[shell]\npanel-position=none\n")
    xvfb = Xvfb(WIDTH + 20, HEIGHT)  # a strip beside the output, for the pointer to come in from
    env = {"XDG_RUNTIME_DIR": str(base / "runtime"), "WAYLAND_DISPLAY": "ondrel-wayland-0"}
    proc = subprocess.Popen(
        ["weston", "--backend=x11-backend.so", "--use-pixman", f"--width={WIDTH}", f"--height={HEIGHT}",
         "--socket=ondrel-wayland-0", f"--config={base / 'weston.ini'}", f"--log={base / 'weston.log'}",
         "--debug"],  # lets weston-debug read the scene graph
        env={**os.environ, "DISPLAY": xvfb.display, "XDG_RUNTIME_DIR": env["XDG_RUNTIME_DIR"]},
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT,
        start_new_session=True, preexec_fn=_die_with_parent)
    screen = Screen(xvfb)
    try:
        try:  # up once the shell has drawn the background
            poll(lambda: proc.poll() is None and screen.screenshot((WIDTH // 2, HEIGHT // 2, 1, 1)).getpixel((0, 0))
                 != (0, 0, 0), 30, 0.1)
        except Timeout:
            pytest.skip(f"weston did not start on Xvfb; its log:\n{(base / 'weston.log').read_text()[-3000:]}")
        # Weston's X11 backend heeds the pointer, and so the keyboard, once it has come into the output.
        screen.move_pointer(WIDTH + 10, 10)
        screen.move_pointer(WIDTH // 2, HEIGHT // 2)
        yield screen, env
    finally:
        kill_group(proc)
        xvfb.stop()


def test_the_app_runs_natively_and_the_compositor_moves_its_window(weston, launch, web):
    screen, wayland = weston

    def frames(pid):
        graph = subprocess.run(["weston-debug", "scene-graph"], env={**os.environ, **wayland}, capture_output=True,
                               text=True, timeout=20).stdout
        return {m["title"]: Geometry(int(m["x0"]), int(m["y0"]), int(m["x1"]) - int(m["x0"]),
                                     int(m["y1"]) - int(m["y0"])) for m in VIEW.finditer(graph) if int(m["pid"]) == pid}

    def wait_frame(expected):
        poll(lambda: frames(app.pid).get("Ondrel") == expected, 10, 0.1,
             message=lambda: f"Weston shows the window at {frames(app.pid).get('Ondrel')}, not {expected}")

    bridge = BridgeClient(web)
    # Nothing names a backend, and there is no X display to fall back to.
    app = launch(bridge.url, env={"GDK_BACKEND": None, "DISPLAY": None,
                                  "WAYLAND_DISPLAY": f"{wayland['XDG_RUNTIME_DIR']}/ondrel-wayland-0"})
    bridge.attach(app).wait_ready(timeout=60)
    before = poll(lambda: frames(app.pid).get("Ondrel"), 20, 0.2, "no Wayland window of ondrel in Weston")
    assert (before.width, before.height) == (1260, 900)
    for x, expected in [(800, Geometry(0, 0, WIDTH, HEIGHT)), (820, before)]:  # far apart on screen: two pairs
        frame = frames(app.pid)["Ondrel"]
        screen.move_pointer(frame.x + x, frame.y + 20)
        screen.click(1, repeat=2, delay_ms=80)
        wait_frame(expected)
    x, y = before.x + 600, before.y + 20
    screen.move_pointer(x, y)
    screen.button_down(1)
    for dx, dy in [(3, 0), (6, 0), (40, 20)]:
        screen.move_pointer(x + dx, y + dy)
    # The button stays down until Weston has taken the move over: a release
    # that overtook the app's request would leave nothing to move.
    poll(lambda: frames(app.pid)["Ondrel"].x != before.x, 10, 0.1, "Weston did not start moving the window")
    screen.move_pointer(x + 80, y + 40)
    wait_frame(Geometry(before.x + 80, before.y + 40, before.width, before.height))
    screen.button_up(1)

    rid = bridge.request("pickDirectory", "Choose a project")
    poll(lambda: "Choose a project" in frames(app.pid), 10, 0.1, "no chooser window")
    screen.key("Escape")  # Weston gave the new window the keyboard
    assert bridge.wait_reply(rid).pair == (True, None)
