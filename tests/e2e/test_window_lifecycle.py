"""Quitting the main window, and the log panel behind Ctrl+L."""

import os
import subprocess
from pathlib import Path

import pytest

from harness import BINARY, ocr, poll
from test_mcp import EVERYTHING

PAGE_BG = (32, 64, 96)
BAR = (255, 0, 255)  # the page's 20 px bar pinned to the bottom of its viewport
PAGE = "events.html?bg=204060"


def start(launch, web, page=PAGE):
    mark = web.mark()
    app = launch(web.url(page))
    window = app.main_window()
    web.wait_for_report("load", since=mark)
    window.wait_for_pixel(600, 500, PAGE_BG)
    return app, window


@pytest.mark.parametrize("how", ["close-request", "close-button", "ctrl+q"])
def test_closing_the_main_window_quits(launch, web, how):
    app, window = start(launch, web)
    if how == "close-request":
        window.request_close()
    elif how == "close-button":
        window.click(28, 22)
    else:
        window.focus()
        app.screen.key("ctrl+q")
    assert app.wait_exit() == 0
    assert not window.exists() or not window.is_viewable()


def panel_text(app, window):
    g = window.geometry()
    return ocr(app.screen.screenshot((g.x, g.y + g.height - 200, g.width, 200)))


def test_ctrl_l_toggles_log_panel_and_keeps_its_text(launch, web):
    app, window = start(launch, web)
    height = window.geometry().height
    window.focus()
    window.wait_for_pixel(600, height - 10, BAR)

    app.screen.key("ctrl+l")
    # The web view gives up exactly its bottom 200 px: the page's bottom bar moves up by 200.
    window.wait_for_pixel(600, height - 200 - 10, BAR)
    window.wait_for_pixel(600, height - 200 - 25, PAGE_BG)
    below = window.pixel(600, height - 100)
    assert below not in (BAR, PAGE_BG), f"the panel area shows page colours {below}"
    text = poll(lambda: (lambda t: "command line" in t.lower() and t)(panel_text(app, window)), 10, 0.3,
                message=lambda: f"the log panel reads {panel_text(app, window)!r}")
    assert "loading" in text

    app.screen.key("ctrl+l")
    window.wait_for_pixel(600, height - 10, BAR)
    window.wait_for_pixel(600, height - 100, PAGE_BG)

    # A line logged while the panel is hidden must be there when it comes back.
    mark = web.mark()
    app.screen.key("ctrl+r")
    app.wait_for_log("[Reload] reloading webview")
    web.wait_for_report("load", since=mark)
    app.screen.key("ctrl+l")
    window.wait_for_pixel(600, height - 200 - 10, BAR)
    text = poll(lambda: (lambda t: "reloading webview" in t.lower() and t)(panel_text(app, window)), 10, 0.3,
                message=lambda: f"the log panel reads {panel_text(app, window)!r}")
    assert "command line" in text.lower(), f"earlier lines lost: {text!r}"


@pytest.fixture
def session_bus(tmp_path):
    daemon = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address",
                               f"--address=unix:path={tmp_path}/bus"], stdout=subprocess.PIPE, text=True)
    yield daemon.stdout.readline().strip()
    daemon.terminate()
    daemon.wait()


def running(fragment: str) -> list[int]:
    """Processes of this machine whose command line holds fragment."""
    found = []
    for entry in os.listdir("/proc"):
        try:
            cmdline = Path(f"/proc/{entry}/cmdline").read_bytes().replace(b"\0", b" ").decode()
        except (OSError, ValueError):
            continue
        if fragment in cmdline and Path(f"/proc/{entry}/stat").read_text().split(") ")[1][0] != "Z":
            found.append(int(entry))
    return found


def test_a_second_launch_hands_its_address_to_the_first(launch, web, other_web, session_bus):
    bus = {"DBUS_SESSION_BUS_ADDRESS": session_bus}
    config = {"mcpServers": {"Everything": {"command": "node", "args": [str(EVERYTHING), "stdio"]}}}
    mark = web.mark()
    first = launch(web.url(PAGE), config=config, env=bus)
    first.main_window()
    web.wait_for_report("load", since=mark)
    poll(lambda: len(running(str(EVERYTHING))) == 1, 20, message="the first launch's MCP server starts")

    other_mark = other_web.mark()
    second = launch(other_web.url(PAGE), home=first.home, env=bus)
    assert second.wait_exit() == 0
    first.wait_for_log(f"[Server] loading {other_web.url(PAGE)} (from command line)")
    other_web.wait_for_report("load", since=other_mark)
    assert running(BINARY) == [first.pid]
    assert len(running(str(EVERYTHING))) == 1
