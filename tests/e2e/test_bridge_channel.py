"""The message channel itself: the load probe, native-to-page calls and their answers, odd bodies."""

import json
import re
import time

import pytest

from bridge_client import BridgeClient

CALL_ID = re.compile(r"^(\d+)-(\d+)$")


@pytest.fixture(scope="module")
def channel(module_launch, web):
    return BridgeClient.launched(module_launch, web)


def texts_since(app, mark):
    return [line.text for line in app.lines[mark:]]


def check_call_id(call_id, seq):
    m = CALL_ID.match(call_id)
    assert m, f"call id {call_id!r} is not <sequence>-<seconds>"
    assert int(m[1]) == seq, f"call id {call_id!r}: expected sequence number {seq}"
    assert abs(int(m[2]) - time.time()) < 120, f"call id {call_id!r}: time part is not now"


def test_probe_finds_the_bridge_and_logs_the_greet_answer(channel):
    client, app = channel
    app.wait_for_log("[Native->JS] greet → hello probe auto")
    texts = texts_since(app, 0)
    probe = [t for t in texts if t.startswith("[Probe]")][:4]  # the first page load's
    assert probe == [
        "[Probe] page finished loading",
        "[Probe] window.__ondrel keys = invoke,__resolve (err (null))",
        "[Probe] typeof invoke = function (err (null))",
        "[Probe] auto-firing an RPC call to 'greet'",
    ]
    invoke = client.wait_invoke("greet")
    assert invoke["args"] == ["probe", "auto"] and invoke["idType"] == "string"
    check_call_id(invoke["id"], 1)  # the first call of the run
    start = texts.index("[Native->JS] startup probe")
    assert texts[start + 1] == f"  request id={invoke['id']} invoke(greet)"

    def first(text):
        return next(line.at for line in app.lines if line.text == text)
    delay = first("[Probe] auto-firing an RPC call to 'greet'") - first("[Probe] page finished loading")
    assert 0.9 <= delay <= 3, f"greet fired {delay:.2f} s after the load, not about 1 s"


def test_page_without_bridge_answers_bridge_not_ready(channel, web):
    client, app = channel
    app.wait_for_log("[Native->JS] greet → hello probe auto")  # the first page's probe is over
    log, mark = app.log_mark(), web.mark()
    client.navigate(client.page_url(bare=True))
    client.wait_ready(since=mark, bare=True)
    app.wait_for_log("[Native->JS] greet ✗ bridge-not-ready", since=log)
    texts = texts_since(app, log)
    assert "[Probe] window.__ondrel keys = NO __ondrel (err (null))" in texts
    assert "[Probe] typeof invoke = undefined (err (null))" in texts
    (request,) = [t for t in texts if t.startswith("  request id=")]
    check_call_id(request.split("=", 1)[1].split()[0], 2)
    assert not client.invokes(since=mark), "a page without __ondrel was invoked"

    # Back on a page with the bridge, the next probe is answered again.
    log, mark = app.log_mark(), web.mark()
    client.navigate(client.url)
    client.wait_ready(since=mark, bare=False)
    app.wait_for_log("[Native->JS] greet → hello probe auto", since=log)
    check_call_id(client.wait_invoke("greet", since=mark)["id"], 3)


def test_answers_without_a_pending_call_are_logged_stale(channel, web):
    client, app = channel
    app.wait_for_log("[Native->JS] greet → hello probe auto")
    call_id = client.wait_invoke("greet")["id"]
    log, mark = app.log_mark(), web.mark()
    client.post(
        {"__bridgeId": call_id, "ok": True, "value": "again"},  # answered already
        {"__bridgeId": "999-1", "ok": False, "error": "never asked"},
        # An answer only, although it also looks like a request.
        {"__bridgeId": "998-1", "__reqId": "both-ids", "name": "platform", "args": []},
        {"__bridgeId": 12345, "ok": True},
        {"__reqId": "after", "name": "getProjectDirs", "args": []},
    )
    client.wait_reply("after", since=mark)
    texts = texts_since(app, log)
    assert [t for t in texts if "stale" in t] == [
        f"[JS->Native] stale response id={call_id}",
        "[JS->Native] stale response id=999-1",
        "[JS->Native] stale response id=998-1",
        "[JS->Native] stale response id=12345",
    ]
    assert not [t for t in texts if t.startswith("[Native->JS] greet")], "a stale answer reached the call's block"
    assert [t for t in texts if "native action" in t] == [
        "[JS->Native] native action 'getProjectDirs' (req after) args=[]"]
    assert not client.replies("both-ids", since=mark)


def test_bodies_that_are_not_requests_are_only_logged(channel, web):
    client, app = channel
    log, mark = app.log_mark(), web.mark()
    body = {"hello": "w\u00f6rld", "n": [1, 2]}
    client.post("a string", 5, None, [1, "two"], True, body, {"__reqId": "after", "name": "platform"})
    client.wait_reply("after", since=mark)
    channel_lines = [t for t in texts_since(app, log) if t.startswith("[JS->Native]")]
    assert channel_lines[:5] == ["[JS->Native] ondrel"] * 5
    # The dictionary is logged as JSON; its key order is not fixed.
    assert channel_lines[5].startswith("[JS->Native] {")
    assert json.loads(channel_lines[5][len("[JS->Native] "):]) == body
    assert channel_lines[6:] == ["[JS->Native] native action 'platform' (req after) args=[]"]
    assert [r.data["reqId"] for r in client.web.reports("reply", since=mark)] == ["after"]
