"""The top 40 px of the web view: held-back clicks, window drags, double-click maximise."""

import time

import pytest

from harness import SCREEN_H, SCREEN_W, poll

BG = (240, 240, 240)
PAGE = "events.html?bg=f0f0f0"


class Strip:
    def __init__(self, app, window, web):
        self.app, self.window, self.web = app, window, web
        self.screen = app.screen
        self.offset = (0, 0)  # view origin inside the window, measured by the first test

    def at(self, x, y):
        """Window coordinates of a point given in the web view's coordinates."""
        return (x + self.offset[0], y + self.offset[1])

    def press(self, x, y, button=1):
        self.window.press(*self.at(x, y), button=button)

    def mouse(self, since):
        reports = self.web.reports("mouse", since=since)
        return [r.data for r in sorted(reports, key=lambda r: r.data["seq"])]

    def summary(self, since):
        return [(e["type"], e["x"], e["y"]) for e in self.mouse(since)]

    def wait_click(self, since):
        """Waits for the whole click; reports travel separately and may arrive out of order."""
        for kind in ("mousedown", "mouseup", "click"):
            self.web.wait_for_report("mouse", 10, since, lambda d, k=kind: d["type"] == k)


@pytest.fixture(scope="module")
def strip(module_launch, web):
    mark = web.mark()
    app = module_launch(web.url(PAGE))
    window = app.main_window()
    web.wait_for_report("load", since=mark)
    window.wait_for_pixel(600, 500, BG)
    window.focus()
    return Strip(app, window, web)


def test_web_view_fills_window_from_its_top_left_corner(strip):
    mark = strip.web.mark()
    strip.window.click(300, 300)
    strip.wait_click(mark)
    down = strip.mouse(mark)[0]
    strip.offset = (300 - down["x"], 300 - down["y"])
    assert (down["type"], down["x"], down["y"]) == ("mousedown", 300, 300)


def test_click_at_40_reaches_page_late_but_whole(strip):
    mark = strip.web.mark()
    strip.press(400, 40)
    assert strip.web.no_report("mouse", 0.8, since=mark), \
        f"page saw {strip.summary(mark)} while the strip press was still held"
    strip.screen.button_up(1)
    strip.wait_click(mark)
    assert strip.summary(mark) == [("mousedown", 400, 40), ("mouseup", 400, 40), ("click", 400, 40)]
    assert strip.mouse(mark)[0]["button"] == 0


def test_press_at_41_reaches_page_at_once(strip):
    mark = strip.web.mark()
    strip.press(450, 41)
    down = strip.web.wait_for_report("mouse", 5, mark, lambda d: d["type"] == "mousedown")
    assert (down.data["x"], down.data["y"]) == (450, 41)
    assert not strip.web.reports("mouse", mark, lambda d: d["type"] == "mouseup"), \
        "mouseup arrived before the button was released"
    strip.screen.button_up(1)
    strip.wait_click(mark)
    assert strip.summary(mark) == [("mousedown", 450, 41), ("mouseup", 450, 41), ("click", 450, 41)]


def test_moving_5px_then_releasing_is_a_click(strip):
    before = strip.window.geometry()
    mark = strip.web.mark()
    strip.press(500, 20)
    strip.window.move_pointer(*strip.at(503, 23))
    strip.window.move_pointer(*strip.at(505, 25))
    strip.screen.button_up(1)
    strip.wait_click(mark)
    events = strip.summary(mark)
    assert [e[0] for e in events] == ["mousedown", "mouseup", "click"]
    assert events[0][1:] == (500, 20)
    assert strip.window.geometry() == before


def drag(strip, x, y, moves):
    """Presses in the strip at view (x, y), moves by each offset in turn, releases."""
    origin = strip.window.to_screen(*strip.at(x, y))
    strip.press(x, y)
    for dx, dy in moves:
        strip.screen.move_pointer(origin[0] + dx, origin[1] + dy)
    strip.screen.button_up(1)


def test_moving_6px_starts_a_drag_and_page_sees_nothing(strip):
    before = strip.window.geometry()
    mark = strip.web.mark()
    drag(strip, 600, 20, [(3, 0), (6, 0)])
    assert strip.web.no_report("mouse", 1.0, since=mark), f"page saw {strip.summary(mark)}"
    after = strip.window.geometry()
    assert (after.x - before.x, after.y - before.y) == (6, 0), f"window went from {before} to {after}"


def test_dragged_window_follows_the_pointer(strip):
    before = strip.window.geometry()
    mark = strip.web.mark()
    drag(strip, 650, 25, [(0, 6), (30, 15), (60, 30), (80, 40)])
    poll(lambda: strip.window.geometry().x != before.x, 5, message="the window did not move")
    after = strip.window.geometry()
    assert (after.x - before.x, after.y - before.y) == (80, 40), \
        f"window went from {before} to {after}; the pointer moved by (80, 40)"
    assert (after.width, after.height) == (before.width, before.height)
    assert strip.web.no_report("mouse", 1.0, since=mark), f"page saw {strip.summary(mark)}"


def test_right_press_in_strip_goes_to_page(strip):
    mark = strip.web.mark()
    strip.press(700, 20, button=3)
    down = strip.web.wait_for_report("mouse", 5, mark, lambda d: d["type"] == "mousedown")
    strip.screen.button_up(3)
    assert (down.data["x"], down.data["y"], down.data["button"]) == (700, 20, 2)


def test_double_click_maximises_to_work_area_and_restores_exact_frame(strip):
    window, screen = strip.window, strip.screen
    before = window.geometry()
    mark = strip.web.mark()
    window.move_pointer(*strip.at(800, 20))
    screen.click(1, repeat=2, delay_ms=80)
    # Without a window manager the work area is the whole screen.
    poll(lambda: window.geometry().as_tuple() == (0, 0, SCREEN_W, SCREEN_H), 5,
         message=lambda: f"window is {window.geometry()}, not maximised (was {before})")
    assert not strip.web.reports("mouse", mark, lambda d: d["type"] == "dblclick")

    time.sleep(0.6)  # let the platform's double-click time pass so the next pair counts anew
    window.move_pointer(*strip.at(820, 20))
    screen.click(1, repeat=2, delay_ms=80)
    poll(lambda: window.geometry() == before, 5,
         message=lambda: f"window is {window.geometry()}, not restored to {before}")
    assert not strip.web.reports("mouse", mark, lambda d: d["type"] == "dblclick")
