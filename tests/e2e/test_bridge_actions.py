"""Native actions requested by the page, answered through window.__ondrel.__resolve."""

import base64
import hashlib
import json
import os
import platform
import pwd
import re
import time

import pytest

from bridge_client import BridgeClient, Digest
from harness import blend

OK = {"ok": True}
SETTLE = 0.5  # seconds a reply stays alone before it counts as answered once
READ_LIMIT = 16777216


@pytest.fixture(scope="module")
def bridge(module_launch, web):
    return BridgeClient.launched(module_launch, web)[0]


def post_all(bridge, cases):
    """Posts every case's body in one go; returns {label: reply} once each has a reply."""
    mark = bridge.web.mark()
    bridge.post(*[body for _, body, _ in cases])
    replies = {}
    for label, body, _ in cases:
        replies[label] = bridge.wait_reply(body["__reqId"], since=mark)
    return mark, replies


def assert_each_answered_once(bridge, cases, mark):
    """No request got a second reply while we waited a little longer."""
    time.sleep(SETTLE)  # room for a late duplicate to arrive
    counts = {label: len(bridge.replies(body["__reqId"], since=mark)) for label, body, _ in cases}
    assert all(n == 1 for n in counts.values()), f"replies per request: {counts}"


def check_cases(cases, replies):
    wrong = []
    for label, _, expected in cases:
        got = replies[label].pair
        good = expected(*got) if callable(expected) else got == expected
        if not good:
            wrong.append(f"{label}: got {got!r}, expected {getattr(expected, 'text', expected)!r}")
    assert not wrong, "\n".join(wrong)


def failure_naming(path, reason):
    def check(ok, value):
        return ok is False and isinstance(value, str) and path in value and reason in value
    check.text = f"failure naming {path!r} and {reason!r}"
    return check


def expected_platform():
    entry = pwd.getpwuid(os.getuid())
    numbers = [int(n) for n in re.findall(r"\d+", platform.release().split("-")[0])[:3]]
    numbers += [0] * (3 - len(numbers))
    return {"name": "Linux", "version": ".".join(map(str, numbers)), "user": entry.pw_name, "home": entry.pw_dir}


def test_every_action_answers_once_with_its_value_or_error(bridge, tmp_path):
    missing = str(tmp_path / "missing.txt")
    (tmp_path / "empty").write_bytes(b"")
    (tmp_path / "latin1.txt").write_bytes("Gr\u00fc\u00dfe".encode("latin-1"))
    (tmp_path / "binary").write_bytes(bytes(range(256)))
    n = iter(range(1000))

    def req(name, *args, **extra):
        return {"__reqId": f"{bridge.name}-batch{next(n)}", "name": name, "args": list(args), **extra}

    cases = [
        # Before anything was stored: an empty dictionary, not null.
        ("getProjectDirs fresh", req("getProjectDirs"), (True, {})),
        ("platform", req("platform"), (True, expected_platform())),
        ("platform without args key", {"__reqId": f"{bridge.name}-noargs", "name": "platform"},
         (True, expected_platform())),
        ("setProjectDir no args", req("setProjectDir"), (False, "setProjectDir expects [projectId, path]")),
        ("setProjectDir one arg", req("setProjectDir", "p1"), (False, "setProjectDir expects [projectId, path]")),
        ("setProjectDir number path", req("setProjectDir", "p1", 5),
         (False, "setProjectDir expects [projectId, path]")),
        ("getProjectDirs after refusals", req("getProjectDirs"), (True, {})),
        ("readFile no args", req("readFile"), (False, "readFile expects [path]")),
        ("readFile number path", req("readFile", 42), (False, "readFile expects [path]")),
        ("readFile missing", req("readFile", missing), failure_naming(missing, "No such file or directory")),
        ("readFile directory", req("readFile", str(tmp_path)), failure_naming(str(tmp_path), "directory")),
        ("readFile invalid UTF-8", req("readFile", str(tmp_path / "latin1.txt")),
         failure_naming(str(tmp_path / "latin1.txt"), "UTF-8")),
        ("readFile empty", req("readFile", str(tmp_path / "empty")), (True, "")),
        ("readFileBase64 no args", req("readFileBase64"), (False, "readFileBase64 expects [path]")),
        ("readFileBase64 missing", req("readFileBase64", missing),
         failure_naming(missing, "No such file or directory")),
        ("readFileBase64 empty", req("readFileBase64", str(tmp_path / "empty")), (True, "")),
        ("readFileBase64 all byte values", req("readFileBase64", str(tmp_path / "binary")),
         (True, base64.b64encode(bytes(range(256))).decode())),
        ("writeFile no args", req("writeFile"), (False, "writeFile expects [path, content]")),
        ("writeFile number path", req("writeFile", 7, "x"), (False, "writeFile expects [path, content]")),
        ("writeFile under a file", req("writeFile", str(tmp_path / "empty" / "x.txt"), "x"),
         failure_naming(str(tmp_path / "empty"), "Not a directory")),
        ("setChromeScrim removal", req("setChromeScrim", 255, 255, 255), (True, OK)),
        ("playSound default", req("playSound"), (True, OK)),
        ("playSound error", req("playSound", "error"), (True, OK)),
        ("playSound unknown sound", req("playSound", "Complete"), (True, OK)),
        ("playSound number", req("playSound", 3), (True, OK)),
        ("case differs", req("ReadFile", missing), (False, "unknown native action 'ReadFile'")),
        ("all capitals", req("PLATFORM"), (False, "unknown native action 'PLATFORM'")),
        ("trailing blank", req("platform "), (False, "unknown native action 'platform '")),
        ("empty name", req(""), (False, "unknown native action ''")),
        ("no name", {"__reqId": f"{bridge.name}-noname", "args": []}, (False, "unknown native action '(null)'")),
        ("null name", req(None), (False, "unknown native action '(null)'")),
    ]
    mark, replies = post_all(bridge, cases)
    check_cases(cases, replies)
    assert_each_answered_once(bridge, cases, mark)
    assert not (tmp_path / "empty" / "x.txt").exists()


def test_request_id_comes_back_as_its_text(bridge):
    ids = [7, 0, -3, 7.5, "it's \"quoted\" \\ and\nsplit", "", "\u00fcbung \u2713"]
    cases = [(repr(i), {"__reqId": i, "name": "getProjectDirs", "args": []}, None) for i in ids]
    mark = bridge.web.mark()
    bridge.post(*[body for _, body, _ in cases])
    texts = {7: "7", 0: "0", -3: "-3", 7.5: "7.5"}
    for reqid in ids:
        reply = bridge.wait_reply(texts.get(reqid, reqid), since=mark)
        assert reply.raw["reqIdType"] == "string", f"{reqid!r} arrived as {reply.raw['reqIdType']}"
        assert reply.req_id == texts.get(reqid, reqid)
        assert (reply.ok_raw, reply.raw["okType"], reply.raw["argc"]) == (1, "number", 3)


def test_error_text_reaches_the_page_as_one_string(bridge):
    # Quotes, backslashes, control characters and script-ending text in the
    # name all come back inside the error text, unchanged.
    name = "it's \"odd\" \\ </script>\n\t\u2028\u0001 \U0001F600"
    mark = bridge.web.mark()
    rid = bridge.request(name)
    reply = bridge.wait_reply(rid, since=mark)
    assert (reply.ok_raw, reply.value) == (0, f"unknown native action '{name}'")
    assert reply.raw["valueType"] == "string"
    time.sleep(SETTLE)
    assert len(bridge.replies(rid, since=mark)) == 1


def test_written_text_reads_back_unchanged(bridge, tmp_path):
    app = bridge.app
    text = ("Gr\u00fc\u00dfe, \u4e16\u754c \u2014 \"quoted\" \\ back\\slash\n\ttab\r\nline"
            "\u0001ctl \U0001F600 \u2028 end")
    path = tmp_path / "not" / "yet" / "there" / "note.txt"

    assert bridge.call("writeFile", str(path), text) == (True, OK)
    assert path.read_bytes() == text.encode("utf-8")
    assert bridge.call("readFile", str(path)) == (True, text)
    assert bridge.call("readFileBase64", str(path)) == (True, base64.b64encode(text.encode("utf-8")).decode())

    # Content left out writes an empty file, over the old one.
    assert bridge.call("writeFile", str(path)) == (True, OK)
    assert path.read_bytes() == b""
    assert bridge.call("writeFile", str(path), 12) == (True, OK)
    assert path.read_bytes() == b""

    # A bare name is relative to the app's working directory (its HOME here).
    assert bridge.call("writeFile", "relative-note.txt", "here") == (True, OK)
    assert (app.home / "relative-note.txt").read_text() == "here"


def test_reads_go_up_to_16_mib(bridge, tmp_path):
    data = os.urandom(READ_LIMIT)
    at_limit, over = tmp_path / "at-limit.bin", tmp_path / "over.bin"
    at_limit.write_bytes(data)
    over.write_bytes(data + b"\x00")

    ok, value = bridge.call("readFileBase64", str(at_limit), timeout=60)
    assert ok, value
    assert value == Digest(length=(READ_LIMIT + 2) // 3 * 4, size=READ_LIMIT,
                           sha256=hashlib.sha256(data).hexdigest())
    assert bridge.call("readFileBase64", str(over)) == (False, "file too large to present (max 16 MB)")

    # readFile has the same cap, counted in bytes of the file.
    text = "\u00e9" * (READ_LIMIT // 2)
    at_limit.write_text(text, encoding="utf-8")
    over.write_text(text + "x", encoding="utf-8")
    ok, value = bridge.call("readFile", str(at_limit), timeout=60)
    assert ok, value
    assert value == Digest(length=len(text), size=READ_LIMIT,
                           sha256=hashlib.sha256(text.encode("utf-8")).hexdigest())
    assert bridge.call("readFile", str(over)) == (False, "file too large to present (max 16 MB)")


BUTTON_CENTRES = [(28, 22), (52, 22), (76, 22)]


def test_scrim_tints_the_window_buttons_and_goes_again(bridge):
    screen = bridge.app.screen
    window = bridge.app.main_window()
    window.focus()
    screen.park_pointer()
    assert bridge.call("setChromeScrim") == (True, OK)
    base = [window.pixel(x, y) for x, y in BUTTON_CENTRES]
    assert all(min(colour) < 200 for colour in base), f"no coloured buttons under the scrim: {base}"

    def expect(colours, what):
        for (x, y), colour in zip(BUTTON_CENTRES, colours):
            try:
                window.wait_for_pixel(x, y, colour, tol=3, timeout=5)
            except AssertionError as exc:
                raise AssertionError(f"{what}: {exc}") from None

    steps = [
        ([0, 0, 0, 0.5], [blend((0, 0, 0), b, 0.5) for b in base], "half black"),
        ([255, 255, 255], base, "three numbers remove it"),
        ([0, 0, 255, 3], [(0, 0, 255)] * 3, "alpha above 1 is capped at 1"),
        ([40, 200, 120, 0], base, "alpha 0 removes it"),
        ([255, 255, 255, 0.25], [blend((255, 255, 255), b, 0.25) for b in base], "quarter white"),
        ([0, 0, 0, "0.5"], base, "a non-number alpha removes it"),
    ]
    for args, colours, what in steps:
        assert bridge.call("setChromeScrim", *args) == (True, OK), what
        expect(colours, what)


def test_project_folders_survive_a_restart(launch, web):
    first = BridgeClient(web)
    app = launch(first.url)
    first.attach(app).wait_ready()
    assert first.call("getProjectDirs") == (True, {})
    assert first.call("setProjectDir", "alpha", "/srv/alpha") == (True, OK)
    assert first.call("setProjectDir", "beta", "~/not/expanded/../kept") == (True, OK)
    assert first.call("setProjectDir", "alpha", "/srv/alpha-2") == (True, OK)
    assert first.call("setProjectDir", "alpha") == (False, "setProjectDir expects [projectId, path]")
    stored = {"alpha": "/srv/alpha-2", "beta": "~/not/expanded/../kept"}
    assert first.call("getProjectDirs") == (True, stored)
    defaults = app.home / ".local" / "share" / "ondrel" / "defaults.json"
    assert json.loads(defaults.read_text()) == {"projectDirs": stored}
    app.kill()

    second = BridgeClient(web)
    again = launch(second.url, home=app.home)
    second.attach(again).wait_ready()
    assert second.call("getProjectDirs") == (True, stored)
