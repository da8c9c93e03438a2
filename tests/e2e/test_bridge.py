"""The bridge through the real view: native actions and their replies, native-to-page calls, the
choosers behind it, where navigations go, and that only the instance's own top frame gets anything.

The instance is the bridge page on 127.0.0.1:<port>; "another host" is localhost on the same port;
"another origin" is the same pages from a second server.
"""

import hashlib
import json
import os
import urllib.parse

import pytest

from bridge_client import BridgeClient
from file_dialogs import choose_path, select_all_in, wait_dialog, wait_dialog_gone
from harness import blend, poll

OK = {"ok": True}


@pytest.fixture(scope="module")
def bridge(module_launch, web):
    """The instance in an app whose desktop hands http and https links to a script that records them."""
    client = BridgeClient(web)
    app = module_launch(client.url, start=False)
    script = app.home / "bin/record-browser"
    script.parent.mkdir()
    script.write_text(f'#!/bin/sh\nprintf "%s\\n" "$@" >> "{app.home}/browser-opened.txt"\n')
    script.chmod(0o755)
    (app.home / ".local/share/applications").mkdir(parents=True)
    (app.home / ".local/share/applications/recorder.desktop").write_text(
        f"[Desktop Entry]\nType=Application\nName=Recorder\nExec={script} %u\n"
        "MimeType=x-scheme-handler/http;x-scheme-handler/https;\n")
    (app.home / ".config").mkdir()
    (app.home / ".config/mimeapps.list").write_text(
        "[Default Applications]\nx-scheme-handler/https=recorder.desktop\nx-scheme-handler/http=recorder.desktop\n")
    client.attach(app.start()).wait_ready()
    return client


def test_replies_reach_the_page_whole(bridge, tmp_path):
    odd = "Gr\u00fc\u00dfe \"q\" it's \\ </script>\n\t\u2028\u0001 \U0001F600"
    note = tmp_path / "new" / "note.txt"
    # The page's own request ids, quotes and all; a number comes back as its text.
    cases = [
        (7, "writeFile", [str(note), odd], OK),
        ("a'b \"c\" \\ d\ne\r\u00fc", "readFile", [str(note)], odd),
        ("", "getProjectDirs", [], {}),
    ]
    mark = bridge.web.mark()
    bridge.post(*[{"__reqId": rid, "name": name, "args": args} for rid, name, args, _ in cases])
    for rid, name, _, value in cases:
        reply = bridge.wait_reply(str(rid), since=mark)
        assert (reply.raw["reqIdType"], reply.raw["okType"], reply.raw["argc"]) == ("string", "number", 3), name
        assert reply.pair == (True, value), name
    assert note.read_bytes() == odd.encode()


def test_reads_of_16_mib_reach_the_page_whole(bridge, tmp_path):
    # Characters of two and four bytes, quotes and backslashes fall where the long reply is cut in pieces.
    size, unit = 16 << 20, "a\u00fc\U0001F600\"\\\n".encode()
    data = unit * (size // len(unit)) + b"x" * (size % len(unit))
    (tmp_path / "big.txt").write_bytes(data)
    # Hashed in the page: the replies would not fit in a report.
    hashes = bridge.run("""
        const ondrel = window.__ondrel, resolve = ondrel.__resolve, hashes = [];
        const bytes = { readFile: (s) => new TextEncoder().encode(s),
                        readFileBase64: (s) => Uint8Array.from(atob(s), (c) => c.charCodeAt(0)) };
        for (const name in bytes) {
          const value = await new Promise((done) => {
            ondrel.__resolve = (id, ok, value) => done(ok === 1 ? value : null);
            window.webkit.messageHandlers.ondrel.postMessage({ __reqId: 'big', name: name, args: [%s] });
          });
          const hash = new Uint8Array(await crypto.subtle.digest('SHA-256', bytes[name](value)));
          hashes.push(Array.from(hash, (b) => b.toString(16).padStart(2, '0')).join(''));
        }
        ondrel.__resolve = resolve;
        return hashes;""" % json.dumps(str(tmp_path / "big.txt")), timeout=120)
    assert hashes == [hashlib.sha256(data).hexdigest()] * 2


def test_scrim_tints_the_window_buttons(bridge):
    window = bridge.app.main_window()
    window.focus()
    bridge.app.screen.park_pointer()
    centres = [(28, 22), (52, 22), (76, 22)]
    assert bridge.call("setChromeScrim") == (True, OK)
    base = [window.pixel(x, y) for x, y in centres]
    for args, colours in [([0, 0, 0, 0.5], [blend((0, 0, 0), b, 0.5) for b in base]), ([255, 255, 255], base)]:
        assert bridge.call("setChromeScrim", *args) == (True, OK)
        for (x, y), colour in zip(centres, colours):
            window.wait_for_pixel(x, y, colour, tol=3, timeout=5)


def test_the_page_answers_the_probe_unless_it_has_no_bridge(bridge, web):
    app = bridge.app
    app.wait_for_log("[Native->JS] greet → hello probe auto")  # the page joins what it was given
    log, mark = app.log_mark(), web.mark()
    bridge.navigate(bridge.page_url(bare=True))
    bridge.wait_ready(since=mark, bare=True)
    app.wait_for_log("[Native->JS] greet ✗ bridge-not-ready", since=log)
    mark = web.mark()
    bridge.navigate(bridge.url)
    bridge.wait_ready(since=mark, bare=False)


def test_folder_chooser_answers_null_when_cancelled_and_the_path_when_chosen(bridge, tmp_path):
    app = bridge.app
    folder = tmp_path / "my projects" / "alpha"
    folder.mkdir(parents=True)
    for title, answer in [("Cancel me", None), ("Choose the project folder", str(folder))]:
        mark = bridge.web.mark()
        rid = bridge.request("pickDirectory", title)
        dialog = wait_dialog(app, title=title)
        assert not bridge.replies(rid, since=mark), "answered before the chooser closed"
        choose_path(dialog, answer) if answer else app.screen.key("Escape")
        assert bridge.wait_reply(rid, since=mark).pair == (True, answer)
        wait_dialog_gone(app)


def on_stage(client, html):
    """Shows html in the page; the centre of its element, to click."""
    return client.run(f"""const stage = document.getElementById('stage');
        stage.innerHTML = {json.dumps(html)};
        const r = stage.firstElementChild.getBoundingClientRect();
        return [r.x + r.width / 2, r.y + r.height / 2];""")


def test_file_input_lets_the_page_have_its_files(bridge):
    app = bridge.app
    (app.home / "picks").mkdir()
    (app.home / "picks/a.txt").write_text("a")
    (app.home / "picks/b.txt").write_text("bb")
    centre = on_stage(bridge, '<input type="file" multiple style="height:80px">')
    bridge.run("""const input = document.querySelector('#stage input');
        input.addEventListener('change', () => window.__bridgeTest.send('files', {
            names: Array.from(input.files, f => f.name), sizes: Array.from(input.files, f => f.size) }));""")
    mark = bridge.web.mark()
    app.main_window().click(*centre)
    select_all_in(wait_dialog(app), "~/picks")
    chosen = bridge.web.wait_for_report("files", since=mark, where=lambda d: d.get("ch") == bridge.name).data
    wait_dialog_gone(app)
    assert sorted(zip(chosen["names"], chosen["sizes"])) == [("a.txt", 1), ("b.txt", 2)]


def test_a_download_is_saved_where_the_dialog_says_or_not_at_all(bridge, web):
    app = bridge.app
    payload = os.urandom(300_000)
    # A type no web view shows, so the response becomes a download.
    web.route("/dl/quarterly.bin", lambda handler: (200, "application/x-ondrel-test", payload))
    web.route("/dl/discarded.bin", lambda handler: (200, "application/x-ondrel-test", b"x" * 1000))
    inst = bridge.run("return window.__bridgeTest.inst")
    for name, key, outcome in [("quarterly.bin", "Return", "finished"), ("discarded.bin", "Escape", "cancelled")]:
        log = app.log_mark()
        bridge.navigate(web.url(f"dl/{name}"))
        wait_dialog(app)
        app.wait_for_log(f"[Download] save panel for '{name}'", since=log)
        app.screen.key(key)  # Return: the suggested name, in the folder the dialog opened in
        app.wait_for_log(f"[Download] {outcome}", since=log)
        wait_dialog_gone(app)
    assert (app.home / "Downloads" / "quarterly.bin").read_bytes() == payload
    assert not list(app.home.rglob("discarded*")), "the cancelled download left files"
    assert bridge.run("return window.__bridgeTest.inst") == inst, "the view left the page"


@pytest.mark.parametrize("how, target, goes", [
    ("click", None, "browser"),
    ("script", None, "view"),
    ("click", "_blank", "browser"),
])
def test_where_a_navigation_to_another_host_goes(bridge, web, map_watcher, how, target, goes):
    app, record = bridge.app, bridge.app.home / "browser-opened.txt"
    url = bridge.page_url(host="localhost", via=f"{how}-{target}")
    opened = lambda: record.read_text().splitlines() if record.exists() else []  # noqa: E731
    before, windows, inst, log, mark = (opened(), len(map_watcher.maps_of(app.pid)), bridge.run(
        "return window.__bridgeTest.inst"), app.log_mark(), web.mark())
    if how == "script":
        bridge.navigate(url)
    else:
        attrs = f' target="{target}"' if target else ""
        app.main_window().click(*on_stage(bridge, f'<a href="{url}"{attrs} style="display:block;width:400px;'
                                                  'height:80px;font-size:40px">the link</a>'))
    if goes == "view":
        assert bridge.wait_ready(since=mark)["href"] == url
        assert not [t for t in (line.text for line in app.lines[log:]) if t.startswith("[External]")]
        mark = web.mark()
        bridge.navigate(bridge.url)
        bridge.wait_ready(since=mark, host=urllib.parse.urlsplit(bridge.url).netloc)
    else:
        app.wait_for_log(f"[External] opened in browser: {url}", since=log)
        poll(lambda: opened() == before + [url], 10, message=lambda: f"the browser was given {opened()}")
        assert bridge.run("return window.__bridgeTest.inst") == inst, "the view left the page"
        path = urllib.parse.urlsplit(url)
        assert f"{path.path}?{path.query}" not in web.requests[-50:], "the link was loaded somewhere"
    assert len(map_watcher.maps_of(app.pid)) == windows, "a window appeared"


def test_only_the_instances_own_top_frame_is_heard_or_answered(bridge, web, other_web, tmp_path):
    app, away, marker = bridge.app, BridgeClient(other_web), tmp_path / "command-ran"
    body = {"__reqId": "x-exec", "name": "exec", "args": [str(tmp_path), f"touch {marker}"]}
    bodies = [body, ["0" * 32, other_web.base, {**body, "__reqId": "x-forged"}]]  # plain, and a forged envelope

    def all_refused(since):
        refusals = lambda: [t for t in (line.text for line in app.lines[since:]) if "[Bridge] refused" in t]  # noqa
        poll(lambda: len(refusals()) >= len(bodies), 20, message=lambda: f"refusals so far: {refusals()}")
        assert len(refusals()) == len(bodies) and all(other_web.base in t for t in refusals()), refusals()
        assert not [line for line in app.lines[since:] if "native action" in line.text] and not marker.exists()

    # A frame of another origin inside the instance's page.
    log, mark = app.log_mark(), other_web.mark()
    src = other_web.url("intruder.html?" + urllib.parse.urlencode({"bodies": json.dumps(bodies)}))
    bridge.run(f"const f = document.createElement('iframe'); f.src = {json.dumps(src)}; document.body.appendChild(f);")
    assert other_web.wait_for_report("intruder-posted", 20, mark).data["host"] == "undefined"
    all_refused(log)

    # Another origin in the top frame, while a reply to the instance is still under way.
    done = tmp_path / "slow-done"
    slow = bridge.request("exec", str(tmp_path), f"sleep 1; touch {done}; echo late")
    mark = other_web.mark()
    bridge.navigate(away.url)
    away.attach(app).wait_ready(since=mark)
    assert away.run("return typeof window.__ondrelHost") == "undefined"
    log = app.log_mark()
    away.post(*bodies)
    all_refused(log)
    poll(done.exists, 10, message="the slow command did not finish")
    away.run("await new Promise(r => setTimeout(r, 1500))")  # past the probe's call, a second after the load
    assert not away.replies(slow) and not away.invokes(), "the other origin got a reply or a call"

    mark = web.mark()
    away.navigate(bridge.url)
    bridge.wait_ready(since=mark)
    ok, value = bridge.call("exec", str(tmp_path), "echo back", timeout=60)
    assert ok and value["stdout"] == "back\n" and bridge.run("return window.__ondrelHost.platform") == "linux"
