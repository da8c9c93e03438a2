"""Talks to the app's bridge from the page's side, for tests.

The app is launched on `BridgeClient.url` (pages/bridge.html with a channel
id). That page implements window.__ondrel (invoke with a "greet" handler,
__resolve reporting every reply) and long-polls the test's web server for
commands, so a test can make the page post any body to the "ondrel" message
handler and watch what comes back:

    bridge = BridgeClient(web)
    app = launch(bridge.url)
    bridge.attach(app).wait_ready()
    ok, value = bridge.call("platform")
    bridge.post({"__bridgeId": "9-9", "ok": True})   # any body, as the page would post it
    bridge.replies("r1")                              # every reply seen for a request id

A string reply longer than 64 KiB is not reported whole: `value` is then a
Digest of its length and the SHA-256 of its bytes (Base64-decoded for
readFileBase64, UTF-8 otherwise). Several clients (channels) can share one web
server; each page load of a channel is a new page instance. A command goes
to the newest poll of the channel's page and is kept until the test has seen
it done, so none is lost to a reload or a hung poll.
"""

from __future__ import annotations

import itertools
import json
import threading
import time
import urllib.parse
from dataclasses import dataclass
from typing import Any

from harness import Timeout, WebServer

POLL_HOLD = 2.0  # seconds a page's poll is held open before it asks again

_ids = itertools.count(1)


@dataclass(frozen=True)
class Digest:
    length: int  # characters of the reply string
    size: int    # bytes after decoding
    sha256: str


@dataclass(frozen=True)
class Reply:
    req_id: Any        # as __resolve received it (always a string when the app is right)
    ok: bool
    ok_raw: Any        # the flag exactly as passed: 1 or 0
    value: Any         # the JSON value, or a Digest for a long string
    raw: dict          # the whole report

    @property
    def pair(self) -> tuple[bool, Any]:
        return (self.ok, self.value)


class _Channel:
    """The one command a test has outstanding for its page, and the page's newest poll.

    A command stays until the test has seen it done: a poll that carried it
    may have died on the way (the page then polls again and gets it again;
    it runs each command id once)."""

    def __init__(self):
        self.cond = threading.Condition()
        self.pending: dict | None = None
        self.latest_poll: str | None = None

    def put(self, cmd: dict):
        with self.cond:
            self.pending = cmd
            self.cond.notify_all()

    def clear(self, cmd: dict):
        with self.cond:
            if self.pending is cmd:
                self.pending = None


class _Registry:
    """One per web server: routes /bridge/next polls to their channel."""

    def __init__(self, web: WebServer):
        self.channels: dict[str, _Channel] = {}
        self.lock = threading.Lock()
        web.route("/bridge/next", self._next)

    @classmethod
    def of(cls, web: WebServer) -> "_Registry":
        registry = getattr(web, "_bridge_registry", None)
        if registry is None:
            registry = web._bridge_registry = cls(web)
        return registry

    def channel(self, name: str) -> _Channel:
        with self.lock:
            return self.channels.setdefault(name, _Channel())

    def _next(self, handler):
        query = urllib.parse.parse_qs(urllib.parse.urlsplit(handler.path).query)
        get = lambda key: query.get(key, [""])[0]  # noqa: E731
        with self.lock:
            channel = self.channels.get(get("ch"))
        poll_id, done = (get("inst"), get("n")), get("done")
        cmd = None
        if channel is not None:
            deadline = time.monotonic() + POLL_HOLD
            with channel.cond:
                channel.latest_poll = poll_id
                channel.cond.notify_all()  # an older poll, maybe of a page now gone, gives up
                while channel.latest_poll == poll_id:
                    if channel.pending is not None and channel.pending["id"] != done:
                        cmd = channel.pending
                        break
                    left = deadline - time.monotonic()
                    if left <= 0:
                        break
                    channel.cond.wait(left)
        return 200, "application/json", json.dumps(cmd).encode()


class BridgeClient:
    def __init__(self, web: WebServer, app=None, channel: str | None = None, bare: bool = False,
                 host: str | None = None):
        self.web = web
        self.app = app
        self.name = channel or f"c{next(_ids)}-{time.monotonic_ns() % 10 ** 9}"
        self._channel = _Registry.of(web).channel(self.name)
        self._req = itertools.count(1)
        self.bare = bare
        self.host = host

    # Where the page lives
    def page_url(self, bare: bool | None = None, host: str | None = None, **extra: str) -> str:
        """The bridge page on this channel; host (e.g. "localhost") replaces 127.0.0.1."""
        query = {"ch": self.name, **extra}
        if bare if bare is not None else self.bare:
            query["bare"] = "1"
        url = self.web.url("bridge.html?" + urllib.parse.urlencode(query))
        host = host or self.host
        if host:
            url = url.replace("://127.0.0.1:", f"://{host}:", 1)
        return url

    @property
    def url(self) -> str:
        return self.page_url()

    def attach(self, app) -> "BridgeClient":
        self.app = app
        return self

    @classmethod
    def launched(cls, launch, web) -> tuple["BridgeClient", object]:
        """A new app on a bridge page of its own, ready for calls: (client, app)."""
        client = cls(web)
        app = launch(client.url)
        client.attach(app).wait_ready()
        return client, app

    def _mine(self, extra=None):
        def check(data):
            return data.get("ch") == self.name and (extra is None or extra(data))
        return check

    def wait_ready(self, timeout: float = 20, since: int = 0, **match) -> dict:
        """Waits for a page of this channel to finish loading and start polling; returns its report."""
        report = self.web.wait_for_report(
            "bridge-ready", timeout, since,
            self._mine(lambda d: all(d.get(k) == v for k, v in match.items()))).data
        return report

    # Commands
    def _send(self, cmd: dict, timeout: float) -> dict:
        cmd = {"id": f"{self.name}/{next(_ids)}", **cmd}
        mark = self.web.mark()
        self._channel.put(cmd)
        try:
            done = self.web.wait_for_report("cmd-done", timeout, mark,
                                            self._mine(lambda d: d.get("id") == cmd["id"])).data
        except Timeout:
            self._check_app()
            raise
        finally:
            self._channel.clear(cmd)
        return done

    def _check_app(self):
        if self.app is not None and not self.app.running():
            raise AssertionError(f"ondrel exited with {self.app.proc.returncode}; log:\n{self.app.log_text()}")

    def post(self, *bodies: Any, timeout: float = 20):
        """Has the page post each body, as given, to window.webkit.messageHandlers.ondrel."""
        done = self._send({"op": "post", "bodies": list(bodies)}, timeout)
        if not done.get("ok"):
            raise AssertionError(f"the page could not post {bodies!r}: {done.get('error')}")

    def run(self, code: str, timeout: float = 20) -> Any:
        """Runs code as the body of an async function in the page; returns its (JSON) result."""
        done = self._send({"op": "run", "code": code}, timeout)
        if not done.get("ok"):
            raise AssertionError(f"page code failed: {done.get('error')}\n{code}")
        return done.get("value")

    def navigate(self, url: str, timeout: float = 20):
        """A script navigation of the view (location.href = url), made once the test knows of it."""
        self._send({"op": "navigate", "url": url}, timeout)

    # Requests
    def new_req_id(self) -> str:
        return f"{self.name}-r{next(self._req)}"

    def request(self, name: Any, *args: Any, req_id: Any = None, body: dict | None = None) -> Any:
        """Posts one native-action request without waiting for its reply; returns its request id.

        body, when given, is posted as it is (for requests without a name or args)."""
        if body is None:
            req_id = self.new_req_id() if req_id is None else req_id
            body = {"__reqId": req_id, "name": name, "args": list(args)}
        self.post(body)
        return body.get("__reqId")

    def wait_reply(self, req_id: Any, timeout: float = 20, since: int = 0) -> Reply:
        text = req_id if isinstance(req_id, str) else json.dumps(req_id)
        try:
            report = self.web.wait_for_report(
                "reply", timeout, since, self._mine(lambda d: str(d.get("reqId")) == text))
        except Timeout:
            self._check_app()
            raise
        return self._reply(report.data)

    def call(self, name: Any, *args: Any, timeout: float = 20, req_id: Any = None) -> tuple[bool, Any]:
        """Runs one native action from the page; returns (ok, value) of its reply."""
        mark = self.web.mark()
        rid = self.request(name, *args, req_id=req_id)
        return self.wait_reply(rid, timeout, mark).pair

    def replies(self, req_id: Any, since: int = 0) -> list[Reply]:
        """Every reply this channel's pages have received for req_id so far."""
        text = req_id if isinstance(req_id, str) else json.dumps(req_id)
        return [self._reply(r.data) for r in self.web.reports(
            "reply", since, self._mine(lambda d: str(d.get("reqId")) == text))]

    def invokes(self, since: int = 0, handler: str | None = None) -> list[dict]:
        """Native-to-page calls the page received (id, handler, args)."""
        return [r.data for r in self.web.reports(
            "invoke", since, self._mine(lambda d: handler is None or d.get("handler") == handler))]

    def wait_invoke(self, handler: str | None = None, since: int = 0, timeout: float = 20) -> dict:
        """Waits for the page to receive a native-to-page call (of handler); returns it."""
        return self.web.wait_for_report(
            "invoke", timeout, since, self._mine(lambda d: handler is None or d.get("handler") == handler)).data

    @staticmethod
    def _reply(data: dict) -> Reply:
        if "summary" in data:
            s = data["summary"]
            if "error" in s:
                raise AssertionError(f"the page could not digest the reply: {s['error']}")
            value: Any = Digest(s["length"], s["size"], s["sha256"])
        else:
            value = data.get("value")
        return Reply(data.get("reqId"), data.get("ok") == 1, data.get("ok"), value, data)
