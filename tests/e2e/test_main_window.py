"""The main window as it first appears, and what the page finds at document start."""

import pytest

from harness import SCREEN_H, SCREEN_W

EXPECTED_HOST = {"platform": "linux", "topInset": 28}


@pytest.fixture(scope="module")
def host_app(module_launch, web):
    mark = web.mark()
    app = module_launch(web.url("host.html"))
    window = app.main_window()
    return app, window, web, mark


def test_window_is_titled_sized_and_centred(host_app):
    app, window, _, _ = host_app
    assert window.title() == "Ondrel"
    geometry = window.geometry()
    assert (geometry.width, geometry.height) == (1260, 900)
    assert (geometry.x, geometry.y) == ((SCREEN_W - 1260) // 2, (SCREEN_H - 900) // 2)
    assert len(app.windows()) == 1, "more than one Ondrel window is on screen"
    assert not window.wants_decorations(), "a window manager would give the window a title bar"


def test_page_sees_host_object_before_its_own_scripts(host_app):
    _, _, web, mark = host_app
    seen = web.wait_for_report("host-main", since=mark).data
    assert seen["present"], "window.__ondrelHost was not set when the page's first script ran"
    assert seen["value"] == EXPECTED_HOST
    assert seen["topInsetType"] == "number"


def test_iframe_does_not_get_host_object(host_app):
    _, _, web, mark = host_app
    web.wait_for_report("host-main", since=mark)
    seen = web.wait_for_report("host-frame", since=mark).data
    assert seen["frame"], "the report did not come from the iframe"
    assert not seen["present"], f"the iframe sees window.__ondrelHost = {seen['value']}"
