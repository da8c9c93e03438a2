"""The bridge through the real view: native actions and their replies, native-to-page calls, the
choosers behind it, where navigations go, and that only the instance's own top frame gets anything.

The instance is the bridge page on 127.0.0.1:<port>; "another host" is localhost on the same port;
"another origin" is the same pages from a second server.
"""

import base64
import hashlib
import json
import os
import urllib.parse

import pytest

from bridge_client import BridgeClient, Digest
from file_dialogs import choose_path, select_all_in, wait_dialog, wait_dialog_gone
from harness import blend, poll

OK = {"ok": True}
READ_LIMIT = 16 << 20


@pytest.fixture(scope="module")
def bridge(module_launch, web):
    return BridgeClient.launched(module_launch, web)[0]


def answered_once(client, req_ids, mark):
    """Every request got exactly one reply, by the time a later one was answered."""
    client.call("platform")
    counts = {rid: len(client.replies(rid, since=mark)) for rid in req_ids}
    assert set(counts.values()) == {1}, f"replies per request: {counts}"


def test_replies_reach_the_page_whole_and_once(bridge, tmp_path):
    odd = "Gr\u00fc\u00dfe \"q\" it's \\ </script>\n\t\u2028\u0001 \U0001F600"
    note, data = tmp_path / "new" / "note.txt", bytes(range(256))
    (tmp_path / "binary").write_bytes(data)
    ids = [7, -3, 7.5, "a'b \"c\" \\ d\ne", "", "\u00fcbung"]
    cases = [
        (7, "getProjectDirs", [], (True, {})),
        (-3, "writeFile", [str(note), odd], (True, OK)),
        (7.5, "readFile", [str(note)], (True, odd)),
        ("a'b \"c\" \\ d\ne", "readFileBase64", [str(tmp_path / "binary")], (True, base64.b64encode(data).decode())),
        ("", odd, [], (False, f"unknown native action '{odd}'")),
        ("\u00fcbung", "readFile", [str(tmp_path)], None),
    ]
    mark = bridge.web.mark()
    bridge.post(*[{"__reqId": rid, "name": name, "args": args} for rid, name, args, _ in cases])
    for rid, name, _, expected in cases:
        reply = bridge.wait_reply(rid if isinstance(rid, str) else json.dumps(rid), since=mark)
        assert (reply.raw["reqIdType"], reply.raw["okType"], reply.raw["argc"]) == ("string", "number", 3), name
        if expected:
            assert reply.pair == expected, name
        else:
            assert not reply.ok and str(tmp_path) in reply.value and "directory" in reply.value, reply.value
    answered_once(bridge, [r if isinstance(r, str) else json.dumps(r) for r in ids], mark)
    assert note.read_bytes() == odd.encode()


def test_reads_up_to_16_mib_reach_the_page(bridge, tmp_path):
    data = os.urandom(READ_LIMIT)
    at_limit, over = tmp_path / "at-limit.bin", tmp_path / "over.bin"
    at_limit.write_bytes(data)
    over.write_bytes(data + b"\x00")
    assert bridge.call("readFileBase64", str(at_limit), timeout=60) == (True, Digest(
        (READ_LIMIT + 2) // 3 * 4, READ_LIMIT, hashlib.sha256(data).hexdigest()))
    assert bridge.call("readFileBase64", str(over)) == (False, "file too large to present (max 16 MB)")


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
    app.wait_for_log("[Native->JS] greet → hello probe auto")
    assert bridge.wait_invoke("greet")["args"] == ["probe", "auto"]
    log, mark = app.log_mark(), web.mark()
    bridge.navigate(bridge.page_url(bare=True))
    bridge.wait_ready(since=mark, bare=True)
    app.wait_for_log("[Native->JS] greet ✗ bridge-not-ready", since=log)
    mark = web.mark()
    bridge.navigate(bridge.url)
    bridge.wait_ready(since=mark, bare=False)
    bridge.wait_invoke("greet", since=mark)


def test_folder_chooser_answers_null_when_cancelled_and_the_path_when_chosen(bridge, tmp_path):
    app = bridge.app
    folder = tmp_path / "my projects" / "alpha"
    folder.mkdir(parents=True)
    for title, answer in [("Cancel me", None), ("Choose the project folder", str(folder))]:
        mark = bridge.web.mark()
        rid = bridge.request("pickDirectory", title)
        dialog = wait_dialog(app, title=title)
        assert not bridge.replies(rid, since=mark), "answered before the chooser closed"
        if answer:
            choose_path(dialog, answer)
        else:
            app.screen.key("Escape")
        assert bridge.wait_reply(rid, since=mark).pair == (True, answer)
        wait_dialog_gone(app)
        answered_once(bridge, [rid], mark)


def test_file_input_lets_the_page_have_its_files(bridge):
    app = bridge.app
    (app.home / "picks").mkdir()
    (app.home / "picks/a.txt").write_text("a")
    (app.home / "picks/b.txt").write_text("bb")
    centre = bridge.run("""
        const stage = document.getElementById('stage');
        stage.innerHTML = `<input type="file" id="files" multiple style="height:80px">`;
        const input = document.getElementById('files');
        input.addEventListener('change', () => window.__bridgeTest.send('files', {
            names: Array.from(input.files, f => f.name), sizes: Array.from(input.files, f => f.size) }));
        const r = input.getBoundingClientRect();
        return [r.x + r.width / 2, r.y + r.height / 2];
    """)
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


@pytest.fixture(scope="module")
def nav(module_launch, web):
    """An app whose desktop hands http and https links to a script that records them."""
    client = BridgeClient(web)
    app = module_launch(client.url, start=False)
    home = app.home
    record, script = home / "browser-opened.txt", home / "bin" / "record-browser"
    script.parent.mkdir()
    script.write_text(f'#!/bin/sh\nprintf "%s\\n" "$@" >> "{record}"\n')
    script.chmod(0o755)
    (home / ".local/share/applications").mkdir(parents=True)
    (home / ".local/share/applications/recorder.desktop").write_text(
        f"[Desktop Entry]\nType=Application\nName=Recorder\nExec={script} %u\n"
        "MimeType=x-scheme-handler/http;x-scheme-handler/https;\n")
    (home / ".config").mkdir()
    (home / ".config/mimeapps.list").write_text(
        "[Default Applications]\nx-scheme-handler/https=recorder.desktop\nx-scheme-handler/http=recorder.desktop\n")
    app.env.update({"XDG_CONFIG_HOME": str(home / ".config"), "XDG_DATA_HOME": str(home / ".local/share")})
    app.start()
    client.attach(app).wait_ready()
    return client, app, record


@pytest.mark.parametrize("how, host, target, goes", [
    ("click", "localhost", None, "browser"),
    ("script", "localhost", None, "view"),
    ("click", None, "_blank", "nowhere"),
    ("click", "localhost", "_blank", "browser"),
    ("click", None, "scheme", "nowhere"),
])
def test_where_a_navigation_goes(nav, web, map_watcher, how, host, target, goes):
    client, app, record = nav
    url = client.page_url(host=host, via=f"{how}-{host}-{target}")
    if target == "scheme":  # no desktop program is started for another scheme
        url, target = "x-ondrel-test:hello", "_blank"
    opened = lambda: record.read_text().splitlines() if record.exists() else []  # noqa: E731
    before, windows, inst, log, mark = (opened(), len(map_watcher.maps_of(app.pid)), client.run(
        "return window.__bridgeTest.inst"), app.log_mark(), web.mark())
    if how == "script":
        client.navigate(url)
    else:
        attrs = f' target="{target}"' if target else ""
        app.main_window().click(*client.run(f"""
            const stage = document.getElementById('stage');
            stage.innerHTML = `<a id="link" href={json.dumps(url)}{attrs}
                style="display:block;width:400px;height:80px;font-size:40px">the link</a>`;
            const r = document.getElementById('link').getBoundingClientRect();
            return [r.x + r.width / 2, r.y + r.height / 2];"""))
    if goes == "view":
        assert client.wait_ready(since=mark)["href"] == url
    elif goes == "browser":
        app.wait_for_log(f"[External] opened in browser: {url}", since=log)
        poll(lambda: opened() == before + [url], 10, message=lambda: f"the browser was given {opened()}")
    else:  # a click is over once the page has seen it
        client.run("await new Promise(r => setTimeout(r, 1000))")
    if goes != "browser":
        assert opened() == before
        assert not [t for t in (line.text for line in app.lines[log:]) if t.startswith("[External]")]
    if goes != "view":
        assert client.run("return window.__bridgeTest.inst") == inst, "the view left the page"
        path = urllib.parse.urlsplit(url)
        assert f"{path.path}?{path.query}" not in web.requests[-50:], "the link was loaded somewhere"
    assert len(map_watcher.maps_of(app.pid)) == windows, "a window appeared"
    if goes == "view":
        mark = web.mark()
        client.navigate(client.url)
        client.wait_ready(since=mark, host=urllib.parse.urlsplit(client.url).netloc)


REFUSED = "[Bridge] refused a message from "


def forbidden(tmp_path, origin):
    """Requests for exec, readFile and writeFile and a forged envelope; and the files each would leave."""
    (tmp_path / "secret.txt").write_text("secret\n")
    marker, written = tmp_path / "command-ran", tmp_path / "written.txt"
    exec_body = {"__reqId": "x-exec", "name": "exec", "args": [str(tmp_path), f"touch {marker}"]}
    return [exec_body,
            {"__reqId": "x-read", "name": "readFile", "args": [str(tmp_path / "secret.txt")]},
            {"__reqId": "x-write", "name": "writeFile", "args": [str(written), "changed"]},
            ["0" * 32, origin, {**exec_body, "__reqId": "x-forged"}]], (marker, written)


def assert_all_refused(app, log, bodies, traces, origin):
    refusals = lambda: [t for t in (line.text for line in app.lines[log:]) if t.startswith(REFUSED)]  # noqa: E731
    poll(lambda: len(refusals()) >= len(bodies), 20, message=lambda: f"refusals so far: {refusals()}")
    assert len(refusals()) == len(bodies) and all(origin in t for t in refusals()), refusals()
    assert not [line for line in app.lines[log:] if "native action" in line.text]
    assert not any(t.exists() for t in traces)


def assert_instance_works(client, tmp_path):
    assert client.call("writeFile", str(tmp_path / "back.txt"), "back") == (True, OK)
    ok, value = client.call("exec", str(tmp_path), "cat back.txt", timeout=60)
    assert ok and value["stdout"] == "back"
    assert client.run("return window.__ondrelHost.platform") == "linux"


@pytest.fixture(scope="module")
def instance(module_launch, web):
    return BridgeClient.launched(module_launch, web)


def test_a_frame_of_another_origin_is_refused(instance, other_web, tmp_path):
    client, app = instance
    bodies, traces = forbidden(tmp_path, other_web.base)
    log, mark = app.log_mark(), other_web.mark()
    src = other_web.url("intruder.html?" + urllib.parse.urlencode({"bodies": json.dumps(bodies)}))
    client.run(f"const f = document.createElement('iframe'); f.src = {json.dumps(src)}; document.body.appendChild(f);")
    assert other_web.wait_for_report("intruder-posted", 20, mark).data["host"] == "undefined"
    assert_all_refused(app, log, bodies, traces, other_web.base)
    assert_instance_works(client, tmp_path)


@pytest.mark.parametrize("how", ["script", "redirect"])
def test_another_origin_in_the_top_frame_gets_nothing(instance, web, other_web, tmp_path, how):
    client, app = instance
    away = BridgeClient(other_web)
    target = away.url
    if how == "redirect":
        web.route("/away", lambda handler: (302, "text/plain", b"", {"Location": away.url}))
        target = web.url("away")
    # A reply still under way when the page leaves stays with the instance.
    done = tmp_path / "slow-done"
    slow = client.request("exec", str(tmp_path), f"sleep 1; touch {done}; echo late")
    mark = other_web.mark()
    client.navigate(target)
    away.attach(app).wait_ready(since=mark)
    assert away.run("return typeof window.__ondrelHost") == "undefined"
    bodies, traces = forbidden(tmp_path, other_web.base)
    log = app.log_mark()
    away.post(*bodies)
    assert_all_refused(app, log, bodies, traces, other_web.base)
    poll(done.exists, 10, message="the slow command did not finish")
    away.run("await new Promise(r => setTimeout(r, 1500))")  # past the probe's call, a second after the load
    assert not away.replies(slow) and not away.invokes(), "the other origin got a reply or a call"

    mark = web.mark()
    away.navigate(client.url)
    client.wait_ready(since=mark)
    assert_instance_works(client, tmp_path)
