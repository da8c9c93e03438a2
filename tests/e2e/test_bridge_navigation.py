"""Which navigations stay in the view and which go to the user's browser.

The app is loaded from 127.0.0.1; "another host" is localhost on the same
port, which serves the same pages. The desktop's default browser is a script
in the temporary HOME that records the addresses it is given.
"""

import json
import time
import urllib.parse

import pytest

from bridge_client import BridgeClient
from harness import poll

QUIET = 1.0  # seconds in which nothing may happen, for "does nothing"


def install_recording_browser(home):
    """Makes a script the handler of http and https links for this HOME; returns its record file."""
    record = home / "browser-opened.txt"
    script = home / "bin" / "record-browser"
    script.parent.mkdir(parents=True, exist_ok=True)
    script.write_text(f'#!/bin/sh\nprintf "%s\\n" "$@" >> "{record}"\n')
    script.chmod(0o755)
    apps = home / ".local" / "share" / "applications"
    apps.mkdir(parents=True, exist_ok=True)
    (apps / "recorder.desktop").write_text(
        "[Desktop Entry]\nType=Application\nName=Recorder\n"
        f"Exec={script} %u\nMimeType=x-scheme-handler/http;x-scheme-handler/https;\n")
    config = home / ".config"
    config.mkdir(parents=True, exist_ok=True)
    (config / "mimeapps.list").write_text(
        "[Default Applications]\n"
        "x-scheme-handler/https=recorder.desktop\n"
        "x-scheme-handler/http=recorder.desktop\n")
    return record


@pytest.fixture(scope="module")
def nav(module_launch, web):
    client = BridgeClient(web)
    app = module_launch(client.url, start=False)
    env = {"XDG_CONFIG_HOME": str(app.home / ".config"), "XDG_DATA_HOME": str(app.home / ".local" / "share")}
    app.env.update(env)
    record = install_recording_browser(app.home)
    app.start()
    client.attach(app)
    client.wait_ready()
    app.main_window()
    return client, app, record


def opened(record):
    return record.read_text().splitlines() if record.exists() else []


def place_link(client, href, target=None):
    """Puts one large link on the page; returns its centre in window coordinates."""
    attrs = f' target="{target}"' if target else ""
    rect = client.run(f"""
        const stage = document.getElementById('stage');
        stage.innerHTML = `<a id="link" href={json.dumps(href)}{attrs}
            style="display:block;width:400px;height:80px;font-size:40px">the link</a>`;
        const r = document.getElementById('link').getBoundingClientRect();
        return [r.x + r.width / 2, r.y + r.height / 2];
    """)
    return rect


def page_instance(client):
    return client.run("return window.__bridgeTest.inst")


def was_requested(web, url):
    parts = urllib.parse.urlsplit(url)
    path = parts.path + ("?" + parts.query if parts.query else "")
    return path in web.requests


def elsewhere(client):
    """The address both the clicked link and the script navigation go to."""
    return client.page_url(host="localhost", via="elsewhere")


def test_clicked_link_to_another_host_goes_to_the_browser(nav, web):
    client, app, record = nav
    window = app.main_window()
    before, inst = opened(record), page_instance(client)
    url = elsewhere(client)
    log = app.log_mark()

    window.click(*place_link(client, url))
    app.wait_for_log(f"[External] opened in browser: {url}", since=log)
    poll(lambda: opened(record) == before + [url], 10,
         message=lambda: f"the browser was given {opened(record)[len(before):]}, not {url}")

    time.sleep(QUIET)
    assert not was_requested(web, url), "the view loaded the link as well"
    assert page_instance(client) == inst, "the view left the page"


def test_script_navigation_to_the_same_address_stays_in_the_view(nav, web):
    client, app, record = nav
    before = opened(record)
    url = elsewhere(client)
    log, mark = app.log_mark(), web.mark()

    client.navigate(url)
    ready = client.wait_ready(since=mark)
    assert ready["href"] == url
    assert not [t for t in [line.text for line in app.lines[log:]] if t.startswith("[External]")]
    assert opened(record) == before

    # Back on the instance's own host for the tests that follow.
    mark = web.mark()
    client.navigate(client.url)
    client.wait_ready(since=mark, host=urllib.parse.urlsplit(client.url).netloc)


def test_clicked_link_on_the_same_host_stays_in_the_view(nav, web):
    client, app, record = nav
    before = opened(record)
    url = client.page_url(via="same-host")
    log, mark = app.log_mark(), web.mark()

    app.main_window().click(*place_link(client, url))
    assert client.wait_ready(since=mark)["href"] == url
    assert not [line for line in app.lines[log:] if line.text.startswith("[External]")]
    assert opened(record) == before


def test_new_window_link_opens_only_another_host(nav, web, map_watcher):
    client, app, record = nav
    window = app.main_window()
    inst = page_instance(client)

    # Same host: nothing at all happens.
    same = client.page_url(via="blank-same")
    log, mapped = app.log_mark(), len(map_watcher.maps_of(app.pid))
    window.click(*place_link(client, same, target="_blank"))
    time.sleep(QUIET)
    assert not [line.text for line in app.lines[log:] if line.text.startswith("[External]")]
    assert not was_requested(web, same), "the link was loaded somewhere"
    assert len(map_watcher.maps_of(app.pid)) == mapped, "a window appeared"
    assert page_instance(client) == inst, "the view left the page"

    # Another host: the browser gets it, the view stays.
    other = client.page_url(host="localhost", via="blank-other")
    before = opened(record)
    window.click(*place_link(client, other, target="_blank"))
    app.wait_for_log(f"[External] opened in browser: {other}", since=log)
    poll(lambda: opened(record) == before + [other], 10,
         message=lambda: f"the browser was given {opened(record)[len(before):]}, not {other}")
    assert not was_requested(web, other)
    assert len(map_watcher.maps_of(app.pid)) == mapped, "a window appeared"
    assert page_instance(client) == inst, "the view left the page"
