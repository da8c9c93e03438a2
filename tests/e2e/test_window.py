"""The main window and its drawn chrome, the drag strip, how the app ends, a second launch and the
first-run prompt: what only the running app shows. Where the server address comes from is unit-tested."""

import json
import subprocess

import pytest

from harness import DEMO_INSTANCE, SCREEN_H, SCREEN_W, Geometry, blend, poll

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
    assert len(app.windows()) == 1
    assert window.geometry() == Geometry((SCREEN_W - 1260) // 2, (SCREEN_H - 900) // 2, 1260, 900)
    assert not window.wants_decorations(), "a window manager would give the window a title bar"
    main = web.wait_for_report("host-main", since=mark).data
    assert (main["present"], main["value"]) == (True, {"platform": "linux", "topInset": 28})
    frame = web.wait_for_report("host-frame", since=mark).data
    assert frame["frame"] and not frame["present"], f"the iframe sees window.__ondrelHost = {frame['value']}"


def has_glyph(image, cx, colour):  # the dark glyph shows in the 8x8 px at the button's centre
    return any(max(abs(a - b) for a, b in zip(image.getpixel((cx + dx, CY + dy)), colour)) > 40
               for dx in range(-4, 4) for dy in range(-4, 4))


def test_buttons_fade_when_inactive_and_glyph_on_hover_and_the_log_panel_takes_the_bottom_200_px(launch, web):
    page, bar = (32, 64, 96), (255, 0, 255)  # the page's 20 px bar is pinned to the bottom of its viewport
    app, window = open_page(launch, web, "events.html?bg=204060")
    height = window.geometry().height
    window.wait_for_pixel(600, height - 10, bar)
    for focus, alpha in [(app.screen.focus_elsewhere, 0.55), (window.focus, 1)]:
        focus()
        for cx, colour in BUTTONS:
            window.wait_for_pixel(cx, CY, blend(colour, page, alpha), tol=3)
    for cx, colour in BUTTONS:
        window.move_pointer(cx, CY)
        image = poll(lambda: (lambda im: has_glyph(im, cx, colour) and im)(window.screenshot()), 5,
                     message=f"no glyph on the hovered button at {cx}")
        assert [has_glyph(image, x, c) for x, c in BUTTONS] == [x == cx for x, _ in BUTTONS]
        corners = [image.getpixel((cx + dx, CY + dy)) for dx in (-10, 9) for dy in (-10, 9)]
        assert corners == [page] * 4, f"the page around the hovered button shows {corners}"
        app.screen.park_pointer()
        poll(lambda: not has_glyph(window.screenshot(), cx, colour), 5, message="the glyph stays")

    app.screen.key("ctrl+l")
    window.wait_for_pixel(600, height - 210, bar)
    assert window.pixel(600, height - 100) not in (bar, page), "the panel shows the page"
    app.screen.key("ctrl+l")
    window.wait_for_pixel(600, height - 10, bar)
    window.wait_for_pixel(600, height - 100, page)


def test_drag_strip_holds_clicks_back_drags_and_maximises(launch, web):
    app, window = open_page(launch, web, "events.html?bg=f0f0f0")
    screen = app.screen

    def events(mark):
        return [(d["type"], d["x"], d["y"], d["button"])
                for d in sorted((r.data for r in web.reports("mouse", since=mark)), key=lambda d: d["seq"])]

    # A straight drag moves the window, and the page hears nothing of it: not even the press, which the
    # strip holds back until it is known to be a click. A click in the strip reaches the page whole.
    before, origin = window.geometry(), window.to_screen(600, 20)
    mark = web.mark()
    window.move_pointer(600, 20)
    screen.button_down(1)
    for dx in (3, 6):
        screen.move_pointer(origin[0] + dx, origin[1])
    screen.button_up(1)
    want = Geometry(before.x + 6, before.y, before.width, before.height)
    poll(lambda: window.geometry() == want, 5, message=lambda: f"window at {window.geometry()}, not {want}")
    window.click(400, 20)
    clicked = [(t, 400, 20, 0) for t in ("mousedown", "mouseup", "click")]
    poll(lambda: events(mark) == clicked, 5, message=lambda: f"the page saw {events(mark)}, not {clicked}")

    before, mark = window.geometry(), web.mark()
    window.move_pointer(800, 20)
    screen.click(1, repeat=2, delay_ms=80)
    # Without a window manager the work area is the whole screen.
    poll(lambda: window.geometry() == Geometry(0, 0, SCREEN_W, SCREEN_H), 5,
         message=lambda: f"window is {window.geometry()}, not maximised")
    window.move_pointer(820, 20)  # far from the last click on screen, so a new pair
    screen.click(1, repeat=2, delay_ms=80)
    poll(lambda: window.geometry() == before, 5, message=lambda: f"window is {window.geometry()}, not {before}")
    assert not [e for e in events(mark) if e[0] == "dblclick"]


@pytest.mark.parametrize("prompt, how", [(False, "close-request"), (False, "close-button"), (False, "ctrl+q"),
                                         (True, "close-request"), (True, "Escape")])
def test_closing_the_main_window_or_the_prompt_quits(launch, web, map_watcher, prompt, how):
    app = launch() if prompt else launch(web.url("events.html"))
    window = app.main_window(prompt=prompt)
    window.focus()
    if how == "close-request":
        window.request_close()
    elif how == "close-button":
        window.click(BUTTONS[0][0], CY)  # close
    else:
        app.screen.key(how)
    assert app.wait_exit() == 0
    if prompt:  # the main window never appeared
        widths = [m["width"] for m in map_watcher.maps_of(app.pid)]
        assert widths and all(w < 1000 for w in widths), f"windows mapped by the app: {widths}"


def test_a_second_launch_hands_its_address_to_the_first(launch, web, other_web, tmp_path):
    daemon = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address",
                               f"--address=unix:path={tmp_path}/bus"], stdout=subprocess.PIPE, text=True)
    try:
        bus = {"DBUS_SESSION_BUS_ADDRESS": daemon.stdout.readline().strip()}
        first, _ = open_page(launch, web, "events.html", env=bus)
        first.wait_for_log("[MCP] ")  # the registry reads the settings in the launch that owns the window
        mark = other_web.mark()
        second = launch(other_web.url("events.html"), home=first.home, env=bus)
        assert second.wait_exit() == 0
        other_web.wait_for_report("load", since=mark)
        assert not [m for m in second.messages() if m.startswith("[MCP]")], "the second launch started MCP servers"
    finally:
        daemon.terminate()
        daemon.wait()


def test_the_first_run_prompt_loads_and_saves_the_address(launch):
    app = launch()
    prompt = app.main_window(prompt=True)
    prompt.focus()
    # The prompt offers the demo instance, ready for more to be typed after it.
    app.screen.type_text("/welcome")
    app.screen.key("Return")
    chosen = f"{DEMO}/welcome"
    app.wait_for_log(f"[Server] loading {chosen} (chosen in the first-run prompt)")
    app.main_window()
    poll(lambda: not prompt.is_viewable(), 5, message="the prompt stayed on screen")
    # The MCP registry made the file with its empty "mcpServers" at start.
    assert json.loads(app.config_path.read_text()) == {"server": chosen, "mcpServers": {}}
