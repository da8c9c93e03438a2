"""Only the instance's own top frame reaches native actions.

The instance is the bridge page on 127.0.0.1:<port>; "another origin" is the
same pages from a second server on another port. Every forbidden request
would leave a trace if it ran: a marker the command creates, a file written,
a native-action log line.
"""

import json
import urllib.parse

import pytest

from bridge_client import BridgeClient
from harness import poll

REFUSED = "[Bridge] refused a message from "


@pytest.fixture(scope="module")
def instance(module_launch, web):
    return BridgeClient.launched(module_launch, web)


def forbidden(tmp_path, origin):
    """Requests for exec, readFile and writeFile, and one forged envelope; and what each would leave."""
    secret = tmp_path / "secret.txt"
    secret.write_text("secret\n")
    marker, written = tmp_path / "command-ran", tmp_path / "written.txt"
    bodies = [
        {"__reqId": "x-exec", "name": "exec", "args": [str(tmp_path), f"touch {marker}"]},
        {"__reqId": "x-read", "name": "readFile", "args": [str(secret)]},
        {"__reqId": "x-write", "name": "writeFile", "args": [str(written), "changed"]},
        # Dressed up as the top frame's envelope, with a guessed key.
        ["0" * 32, origin, {"__reqId": "x-forged", "name": "exec", "args": [str(tmp_path), f"touch {marker}"]}],
    ]
    return bodies, (marker, written)


def texts_since(app, log):
    return [line.text for line in app.lines[log:]]


def assert_all_refused(app, log, count, origin):
    """Waits for one refusal per body; none of them was dispatched."""
    refusals = lambda: [t for t in texts_since(app, log) if t.startswith(REFUSED)]  # noqa: E731
    poll(lambda: len(refusals()) >= count, 20, message=lambda: f"refusals so far: {refusals()}")
    assert len(refusals()) == count
    assert all(origin in t for t in refusals()), refusals()
    assert not [t for t in texts_since(app, log) if "native action" in t]


def assert_instance_works(client, tmp_path):
    path = tmp_path / "back.txt"
    assert client.call("writeFile", str(path), "back")[0]
    assert client.call("readFile", str(path)) == (True, "back")
    ok, value = client.call("exec", str(tmp_path), "cat back.txt", timeout=60)
    assert ok and value["stdout"] == "back"
    assert client.run("return window.__ondrelHost.platform") == "linux"


def test_a_frame_of_another_origin_is_refused(instance, web, other_web, tmp_path):
    client, app = instance
    origin = other_web.base
    bodies, traces = forbidden(tmp_path, origin)
    log, mark = app.log_mark(), other_web.mark()
    src = other_web.url("intruder.html?" + urllib.parse.urlencode({"bodies": json.dumps(bodies)}))
    client.run(f"const f = document.createElement('iframe'); f.src = {json.dumps(src)};"
               "document.body.appendChild(f);")
    posted = other_web.wait_for_report("intruder-posted", 20, mark).data
    assert posted["host"] == "undefined", "the frame was given the host object"
    assert_all_refused(app, log, len(bodies), origin)
    assert not any(t.exists() for t in traces)
    assert_instance_works(client, tmp_path)


@pytest.mark.parametrize("how", ["script", "redirect"])
def test_another_origin_in_the_top_frame_gets_nothing(instance, web, other_web, tmp_path, how):
    client, app = instance
    away = BridgeClient(other_web)
    if how == "script":
        target = away.url
    else:
        web.route("/away", lambda handler: (302, "text/plain", b"", {"Location": away.url}))
        target = web.url("away")
    mark = other_web.mark()
    client.navigate(target)
    away.attach(app).wait_ready(since=mark)
    assert away.run("return typeof window.__ondrelHost") == "undefined"

    bodies, traces = forbidden(tmp_path, other_web.base)
    log = app.log_mark()
    away.post(*bodies)
    assert_all_refused(app, log, len(bodies), other_web.base)
    assert not any(t.exists() for t in traces)

    # Back on the instance, the bridge is there again.
    mark = web.mark()
    away.navigate(client.url)
    client.wait_ready(since=mark)
    assert_instance_works(client, tmp_path)
