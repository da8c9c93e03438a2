"""The main window and its drawn chrome, the drag strip, the first-run prompt, where the server
address comes from, and how the app ends."""

import json
import os
import subprocess
from pathlib import Path

import pytest

from harness import BINARY, DEMO_INSTANCE, SCREEN_H, SCREEN_W, Geometry, blend, poll
from test_mcp import EVERYTHING, install_reference_servers

WHITE = (255, 255, 255)
BUTTONS = [(28, (255, 59, 48)), (52, (255, 204, 0)), (76, (40, 205, 65))]  # close, minimise, fullscreen
CY = 22
DEMO = DEMO_INSTANCE if "://" in DEMO_INSTANCE else f"https://{DEMO_INSTANCE}"


def open_page(launch, web, page, **kw):
    mark = web.mark()
    app = launch(web.url(page), **kw)
    window = app.main_window()
    web.wait_for_report("load", since=mark, where=lambda d: d["page"] == "/" + page)
    return app, window


def test_window_appears_centred_undecorated_and_only_the_top_frame_gets_the_host_object(launch, web):
    mark = web.mark()
    app, window = open_page(launch, web, "host.html")
    assert window.title() == "Ondrel" and len(app.windows()) == 1
    assert window.geometry() == Geometry((SCREEN_W - 1260) // 2, (SCREEN_H - 900) // 2, 1260, 900)
    assert not window.wants_decorations(), "a window manager would give the window a title bar"
    main = web.wait_for_report("host-main", since=mark).data
    assert (main["present"], main["value"], main["topInsetType"]) == (True, {"platform": "linux", "topInset": 28},
                                                                    "number")
    frame = web.wait_for_report("host-frame", since=mark).data
    assert frame["frame"] and not frame["present"], f"the iframe sees window.__ondrelHost = {frame['value']}"


def has_glyph(image, cx, colour, fill):
    """Whether some pixel near the button's centre has moved halfway from its fill to the dark glyph colour."""
    c = max(range(3), key=lambda i: abs(fill[i] - colour[i] * 0.5))
    span = fill[c] - colour[c] * 0.5
    return any((fill[c] - image.getpixel((cx + dx, CY + dy))[c]) / span > 0.5
               for dx in range(-4, 4) for dy in range(-4, 4))


def test_buttons_show_their_glyph_on_hover_only_and_fade_when_inactive(launch, web):
    app, window = open_page(launch, web, "events.html?bg=ffffff")
    window.wait_for_pixel(600, 500, WHITE)
    window.focus()
    for cx, colour in BUTTONS:
        window.wait_for_pixel(cx, CY, colour, tol=3)
    for cx, colour in BUTTONS:
        window.move_pointer(cx, CY)
        image = poll(lambda: (lambda im: has_glyph(im, cx, colour, colour) and im)(window.screenshot()), 5,
                     message=f"no glyph on the hovered button at {cx}")
        assert [has_glyph(image, x, c, c) for x, c in BUTTONS] == [x == cx for x, _ in BUTTONS]
        corners = [image.getpixel((cx + dx, CY + dy)) for dx in (-10, 9) for dy in (-10, 9)]
        assert corners == [WHITE] * 4, f"the page around the hovered button shows {corners}"
        app.screen.park_pointer()
        poll(lambda: not has_glyph(window.screenshot(), cx, colour, colour), 5, message="the glyph stays")

    app.screen.focus_elsewhere()
    for cx, colour in BUTTONS:
        window.wait_for_pixel(cx, CY, blend(colour, WHITE, 0.55))
    window.focus()
    for cx, colour in BUTTONS:
        window.wait_for_pixel(cx, CY, colour)


def test_drag_strip_holds_clicks_back_drags_and_maximises(launch, web):
    app, window = open_page(launch, web, "events.html?bg=f0f0f0")
    window.focus()
    screen = app.screen

    def events(mark):
        return [(d["type"], d["x"], d["y"], d["button"])
                for d in sorted((r.data for r in web.reports("mouse", since=mark)), key=lambda d: d["seq"])]

    def wait_click(mark, x, y):
        want = [(t, x, y, 0) for t in ("mousedown", "mouseup", "click")]
        poll(lambda: events(mark) == want, 5, message=lambda: f"the page saw {events(mark)}, not {want}")

    # A press in the strip is held back until it is known to be a click; a straight drag moves the window.
    mark = web.mark()
    window.press(400, 40)
    assert web.no_report("mouse", 0.5, since=mark), f"the page saw {events(mark)} during a strip press"
    screen.button_up(1)
    wait_click(mark, 400, 40)
    before, origin = window.geometry(), window.to_screen(600, 20)
    mark = web.mark()
    window.press(600, 20)
    for dx in (3, 6):
        screen.move_pointer(origin[0] + dx, origin[1])
    screen.button_up(1)
    want = Geometry(before.x + 6, before.y, before.width, before.height)
    poll(lambda: window.geometry() == want, 5, message=lambda: f"window at {window.geometry()}, not {want}")
    window.click(300, 300)  # a drag is not a click: the next thing the page hears is the click after it
    wait_click(mark, 300, 300)

    before = window.geometry()
    mark = web.mark()
    window.move_pointer(800, 20)
    screen.click(1, repeat=2, delay_ms=80)
    # Without a window manager the work area is the whole screen.
    poll(lambda: window.geometry() == Geometry(0, 0, SCREEN_W, SCREEN_H), 5,
         message=lambda: f"window is {window.geometry()}, not maximised")
    window.move_pointer(820, 20)  # far from the last click on screen, so a new pair
    screen.click(1, repeat=2, delay_ms=80)
    poll(lambda: window.geometry() == before, 5, message=lambda: f"window is {window.geometry()}, not {before}")
    assert not [e for e in events(mark) if e[0] == "dblclick"]


def test_log_panel_takes_the_bottom_200_px_and_gives_them_back(launch, web):
    page, bar = (32, 64, 96), (255, 0, 255)  # the page's 20 px bar pinned to the bottom of its viewport
    app, window = open_page(launch, web, "events.html?bg=204060")
    height = window.geometry().height
    window.focus()
    window.wait_for_pixel(600, height - 10, bar)
    app.screen.key("ctrl+l")
    window.wait_for_pixel(600, height - 210, bar)
    assert window.pixel(600, height - 100) not in (bar, page), "the panel shows the page"
    app.screen.key("ctrl+l")
    window.wait_for_pixel(600, height - 10, bar)
    window.wait_for_pixel(600, height - 100, page)


@pytest.mark.parametrize("window, how", [("main", "close-request"), ("main", "close-button"), ("main", "ctrl+q"),
                                         ("prompt", "close-request"), ("prompt", "Escape")])
def test_closing_the_main_window_or_the_prompt_quits(launch, web, map_watcher, window, how):
    if window == "main":
        app, win = open_page(launch, web, "events.html")
    else:
        app = launch()
        win = app.prompt_window()
    win.focus()
    if how == "close-request":
        win.request_close()
    elif how == "close-button":
        win.click(28, 22)
    else:
        app.screen.key(how)
    assert app.wait_exit() == 0
    if window == "prompt":  # nothing is saved and the main window never appeared
        assert json.loads(app.config_path.read_text()) == {"mcpServers": {}}
        widths = [m["width"] for m in map_watcher.maps_of(app.pid)]
        assert widths and all(w < 1000 for w in widths), f"windows mapped by the app: {widths}"


def running(fragment: str) -> list[int]:
    found = []
    for entry in os.listdir("/proc"):
        try:
            cmdline = Path(f"/proc/{entry}/cmdline").read_bytes().replace(b"\0", b" ").decode()
            if fragment in cmdline and Path(f"/proc/{entry}/stat").read_text().split(") ")[1][0] != "Z":
                found.append(int(entry))
        except (OSError, ValueError):
            pass
    return found


def test_a_second_launch_hands_its_address_to_the_first(launch, web, other_web, tmp_path):
    install_reference_servers()
    daemon = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address",
                               f"--address=unix:path={tmp_path}/bus"], stdout=subprocess.PIPE, text=True)
    try:
        bus = {"DBUS_SESSION_BUS_ADDRESS": daemon.stdout.readline().strip()}
        config = {"mcpServers": {"Everything": {"command": "node", "args": [str(EVERYTHING), "stdio"]}}}
        first, _ = open_page(launch, web, "events.html", config=config, env=bus)
        poll(lambda: len(running(str(EVERYTHING))) == 1, 20, message="the first launch's MCP server starts")
        mark = other_web.mark()
        second = launch(other_web.url("events.html"), home=first.home, env=bus)
        assert second.wait_exit() == 0
        other_web.wait_for_report("load", since=mark)
        assert running(BINARY) == [first.pid]
        assert len(running(str(EVERYTHING))) == 1, "the second launch started MCP servers"
    finally:
        daemon.terminate()
        daemon.wait()


@pytest.mark.parametrize("config_text, typed", [(None, None), ('["server", "https://x.on.ondrel.example"]', "chosen")],
                         ids=["demo-address", "typed-over-a-broken-file"])
def test_the_first_run_prompt_loads_and_saves_the_address(launch, web, config_text, typed):
    chosen = web.url("select.html?src=prompt") if typed else DEMO
    app = launch(config_text=config_text)
    prompt = app.prompt_window()
    prompt.focus()
    if typed:
        app.screen.key("ctrl+a")
        app.screen.type_text(chosen)
    app.screen.key("Return")
    app.wait_for_log(f"[Server] loading {chosen} (chosen in the first-run prompt)")
    app.main_window()
    poll(lambda: not prompt.is_viewable(), 5, message="the prompt stayed on screen")
    # The MCP registry made the file with its empty "mcpServers" at start, unless one was there.
    assert json.loads(app.config_path.read_text()) == {"server": chosen, **({} if typed else {"mcpServers": {}})}
