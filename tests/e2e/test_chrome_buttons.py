"""The three drawn window buttons, read pixel by pixel off the screen."""

import pytest
from PIL import Image, ImageDraw

from harness import blend, close_to, ocr, poll

WHITE = (255, 255, 255)
CENTRE_Y = 22
BUTTONS = [  # centre x, colour, glyph and tooltip
    (28, (255, 59, 48), "Close"),
    (52, (255, 204, 0), "Minimize"),
    (76, (40, 205, 65), "Fullscreen"),
]
INACTIVE_ALPHA = 0.55
BOX = 4  # the glyphs lie within 4 px of the centre, well inside the circle of radius 7


def dark(colour):
    return tuple(c * 0.5 for c in colour)


def reference_glyph(name, scale=16):
    """Coverage of each pixel of the box around the centre by the glyph, drawn
    independently at 16x and averaged down. The centre is a pixel corner."""
    size = 2 * BOX * scale
    img = Image.new("L", (size, size), 0)
    draw = ImageDraw.Draw(img)

    def pt(u, v):  # u, v relative to the centre, y downwards
        return ((BOX + u) * scale, (BOX + v) * scale)

    def stroke(a, b, width=1.8):
        draw.line([pt(*a), pt(*b)], fill=255, width=round(width * scale))
        r = width / 2 * scale
        for u, v in (a, b):  # round caps
            x, y = pt(u, v)
            draw.ellipse([x - r, y - r, x + r, y + r], fill=255)

    if name == "Close":
        stroke((-3, -3), (3, 3))
        stroke((-3, 3), (3, -3))
    elif name == "Minimize":
        stroke((-3, 0), (3, 0))
    else:
        draw.polygon([pt(-3, -3), pt(-3, -3 + 4.2), pt(-3 + 4.2, -3)], fill=255)
        draw.polygon([pt(3, 3), pt(3, 3 - 4.2), pt(3 - 4.2, 3)], fill=255)
    small = img.resize((2 * BOX, 2 * BOX), Image.BOX)
    return [[small.getpixel((i, j)) / 255 for i in range(2 * BOX)] for j in range(2 * BOX)]


def glyph_coverage(image, cx, colour, fill):
    """How far each pixel of the box moved from the circle's fill toward the glyph colour."""
    glyph = dark(colour)
    channel = max(range(3), key=lambda i: abs(fill[i] - glyph[i]))
    span = fill[channel] - glyph[channel]
    return [[min(1.0, max(0.0, (fill[channel] - image.getpixel((cx - BOX + i, CENTRE_Y - BOX + j))[channel]) / span))
             for i in range(2 * BOX)] for j in range(2 * BOX)]


def has_glyph(image, cx, colour, fill):
    return max(max(row) for row in glyph_coverage(image, cx, colour, fill)) > 0.5


def check_glyph(image, cx, colour, name, fill):
    """The glyph has the required shape and, where it covers a pixel fully, the full dark colour."""
    want = reference_glyph(name)
    got = glyph_coverage(image, cx, colour, fill)
    worst = max(abs(w - g) for wr, gr in zip(want, got) for w, g in zip(wr, gr))
    assert worst <= 0.3, f"{name} glyph shape differs by {worst:.2f}:\n" + "\n".join(
        " ".join(f"{g:.1f}/{w:.1f}" for g, w in zip(gr, wr)) for gr, wr in zip(got, want))
    for j, row in enumerate(want):
        for i, cover in enumerate(row):
            if cover >= 0.99:
                pixel = image.getpixel((cx - BOX + i, CENTRE_Y - BOX + j))
                assert close_to(pixel, dark(colour), 8), \
                    f"{name} glyph pixel {pixel}, expected the full dark colour {dark(colour)}"


def page_around(image, cx):
    """The four corner pixels of a button's 20x20 square, outside its circle."""
    left, top = cx - 10, CENTRE_Y - 10
    return [image.getpixel(p) for p in ((left, top), (left + 19, top), (left, top + 19), (left + 19, top + 19))]


def circle_stats(image, cx, colour):
    """Coverage-weighted centre and covered area of the circle around (cx, CENTRE_Y) on white."""
    channel = max(range(3), key=lambda i: abs(WHITE[i] - colour[i]))
    span = WHITE[channel] - colour[channel]
    total = sx = sy = 0.0
    for y in range(CENTRE_Y - 11, CENTRE_Y + 11):
        for x in range(cx - 11, cx + 11):
            cover = min(1.0, max(0.0, (WHITE[channel] - image.getpixel((x, y))[channel]) / span))
            total += cover
            sx += cover * (x + 0.5)
            sy += cover * (y + 0.5)
    return {"area": total, "cx": sx / total if total else None, "cy": sy / total if total else None}


def wait_image(window, predicate, message, timeout=5):
    """Screenshots the window until predicate(image) holds; returns that image."""
    return poll(lambda: (lambda im: predicate(im) and im)(window.screenshot()), timeout, message=message)


@pytest.fixture(scope="module")
def chrome(module_launch, web):
    mark = web.mark()
    app = module_launch(web.url("events.html?bg=ffffff"))
    window = app.main_window()
    web.wait_for_report("load", since=mark)
    window.wait_for_pixel(600, 500, WHITE)
    window.focus()
    app.screen.park_pointer()
    return app, window


def test_buttons_are_round_centred_and_coloured(chrome):
    _, window = chrome
    image = wait_image(
        window, lambda im: all(close_to(im.getpixel((cx, CENTRE_Y)), c, 3) for cx, c, _ in BUTTONS),
        lambda: f"button centres are {[window.pixel(cx, CENTRE_Y) for cx, _, _ in BUTTONS]}", 10)

    for cx, colour, name in BUTTONS:
        stats = circle_stats(image, cx, colour)
        assert abs(stats["cx"] - cx) <= 0.3 and abs(stats["cy"] - CENTRE_Y) <= 0.3, (name, stats)
        # A circle of diameter 14 covers pi * 7^2 = 154 pixels.
        assert 140 <= stats["area"] <= 168, (name, stats)
        assert not has_glyph(image, cx, colour, colour), f"{name} shows a glyph while not hovered"


@pytest.mark.parametrize("index", [0, 1, 2], ids=[b[2] for b in BUTTONS])
def test_hover_shows_glyph_and_tooltip_on_that_button_only(chrome, index):
    app, window = chrome
    window.focus()
    cx, colour, name = BUTTONS[index]
    window.move_pointer(cx, CENTRE_Y)

    image = wait_image(window, lambda im: has_glyph(im, cx, colour, colour),
                       f"no glyph on the hovered {name} button")
    check_glyph(image, cx, colour, name, colour)
    for other, (ox, ocolour, oname) in enumerate(BUTTONS):
        if other != index:
            assert not has_glyph(image, ox, ocolour, ocolour), f"{oname} shows a glyph while {name} is hovered"

    poll(lambda: name in ocr(app.screen.screenshot(
             tuple(window.to_screen(cx - 60, CENTRE_Y - 10)) + (200, 90))), 5, 0.3,
         message=f"no {name!r} tooltip near the pointer")

    app.screen.park_pointer()
    wait_image(window, lambda im: not has_glyph(im, cx, colour, colour),
               f"glyph stays on {name} after the pointer left")


def test_page_stays_visible_around_buttons_when_they_redraw(chrome):
    app, window = chrome
    window.focus()
    for cx, colour, name in BUTTONS:
        window.move_pointer(cx, CENTRE_Y)
        image = wait_image(window, lambda im: has_glyph(im, cx, colour, colour),
                           f"no glyph on the hovered {name} button")
        assert page_around(image, cx) == [WHITE] * 4, \
            f"while {name} is hovered, its 20x20 square shows {page_around(image, cx)}, not the white page"
        app.screen.park_pointer()
        image = wait_image(window, lambda im: not has_glyph(im, cx, colour, colour),
                           f"glyph stays on {name} after the pointer left")
        assert page_around(image, cx) == [WHITE] * 4, \
            f"after hovering {name}, its 20x20 square shows {page_around(image, cx)}, not the white page"


def test_inactive_window_draws_circles_at_55_percent(chrome):
    app, window = chrome
    app.screen.focus_elsewhere()

    faded = [blend(colour, WHITE, INACTIVE_ALPHA) for _, colour, _ in BUTTONS]
    wait_image(window, lambda im: all(close_to(im.getpixel((cx, CENTRE_Y)), want, 4)
                                      for (cx, _, _), want in zip(BUTTONS, faded)),
               lambda: f"inactive circle centres are {[window.pixel(b[0], CENTRE_Y) for b in BUTTONS]}, "
                       f"expected {faded}")

    for (cx, colour, name), fill in zip(BUTTONS, faded):
        window.move_pointer(cx, CENTRE_Y)
        image = wait_image(window, lambda im: has_glyph(im, cx, colour, fill),
                           f"no glyph on the hovered {name} button of the inactive window")
        check_glyph(image, cx, colour, name, fill)
    app.screen.park_pointer()

    window.focus()
    wait_image(window, lambda im: all(close_to(im.getpixel((cx, CENTRE_Y)), c, 4) for cx, c, _ in BUTTONS),
               "circles did not return to full colour when the window was active again")
