"""The page's side of the bridge for tests: pages/bridge.html long-polls for commands (run code, navigate),
which go to the channel's newest poll and are kept until seen done, so none is lost to a reload or a hung
poll."""

from __future__ import annotations

import itertools
import json
import threading
import time
import urllib.parse
from dataclasses import dataclass
from typing import Any

from harness import WebServer

POLL_HOLD = 2.0  # seconds a page's poll is held open before it asks again
_ids = itertools.count(1)


@dataclass(frozen=True)
class Reply:
    ok: bool
    value: Any
    raw: dict    # the whole report: reqIdType, okType, argc, valueType...

    @property
    def pair(self) -> tuple[bool, Any]:
        return (self.ok, self.value)


class _Channel:  # the one command a test has outstanding for its page, and the page's newest poll
    def __init__(self):
        self.cond = threading.Condition()
        self.pending: dict | None = None
        self.latest_poll: tuple | None = None


def _next(channels: dict[str, _Channel], handler):
    """GET /bridge/next?ch=&inst=&n=&done=: the pending command, unless the page did it already."""
    query = {k: v[0] for k, v in urllib.parse.parse_qs(urllib.parse.urlsplit(handler.path).query).items()}
    channel, cmd = channels.get(query.get("ch", "")), None
    if channel is not None:
        poll_id, deadline = (query.get("inst"), query.get("n")), time.monotonic() + POLL_HOLD
        with channel.cond:
            channel.latest_poll = poll_id
            channel.cond.notify_all()  # an older poll, maybe of a page now gone, gives up
            while channel.latest_poll == poll_id and time.monotonic() < deadline:
                if channel.pending is not None and channel.pending["id"] != query.get("done"):
                    cmd = channel.pending
                    break
                channel.cond.wait(deadline - time.monotonic())
    return 200, "application/json", json.dumps(cmd).encode()


class BridgeClient:
    def __init__(self, web: WebServer):
        self.web, self.app = web, None
        self.name = f"c{next(_ids)}-{time.monotonic_ns() % 10 ** 9}"
        if not hasattr(web, "bridge_channels"):
            web.bridge_channels = {}
            web.route("/bridge/next", lambda handler: _next(web.bridge_channels, handler))
        self._channel = web.bridge_channels.setdefault(self.name, _Channel())
        self._req = itertools.count(1)

    def page_url(self, bare: bool = False, host: str | None = None, **extra: str) -> str:
        query = {"ch": self.name, **({"bare": "1"} if bare else {}), **extra}
        url = self.web.url("bridge.html?" + urllib.parse.urlencode(query))
        return url.replace("://127.0.0.1:", f"://{host}:", 1) if host else url

    @property
    def url(self) -> str:
        return self.page_url()

    def attach(self, app) -> "BridgeClient":
        self.app = app
        return self

    def _mine(self, extra=lambda d: True):
        return lambda d: d.get("ch") == self.name and extra(d)

    def wait_ready(self, timeout: float = 20, since: int = 0, **match) -> dict:
        return self.web.wait_for_report("bridge-ready", timeout, since, self._mine(
            lambda d: all(d.get(k) == v for k, v in match.items()))).data

    def _send(self, cmd: dict, timeout: float) -> dict:
        cmd = {"id": f"{self.name}/{next(_ids)}", **cmd}
        mark = self.web.mark()
        with self._channel.cond:
            self._channel.pending = cmd
            self._channel.cond.notify_all()
        try:
            return self.web.wait_for_report("cmd-done", timeout, mark,
                                            self._mine(lambda d: d.get("id") == cmd["id"])).data
        finally:
            self._channel.pending = None
            assert self.app is None or self.app.running(), f"ondrel exited; log:\n{self.app.log_text()}"

    def post(self, *bodies: Any, timeout: float = 20):
        self.run(f"for (const b of {json.dumps(list(bodies))}) window.webkit.messageHandlers.ondrel.postMessage(b);",
                 timeout)

    def run(self, code: str, timeout: float = 20) -> Any:
        """Runs code as the body of an async function in the page; returns its JSON result."""
        done = self._send({"op": "run", "code": code}, timeout)
        assert done.get("ok"), f"page code failed: {done.get('error')}\n{code}"
        return done.get("value")

    def navigate(self, url: str, timeout: float = 20):
        self._send({"op": "navigate", "url": url}, timeout)

    def request(self, name: Any, *args: Any) -> str:
        req_id = f"{self.name}-r{next(self._req)}"
        self.post({"__reqId": req_id, "name": name, "args": list(args)})
        return req_id

    def wait_reply(self, req_id: str, timeout: float = 20, since: int = 0) -> Reply:
        return self._reply(self.web.wait_for_report("reply", timeout, since, self._mine(
            lambda d: str(d.get("reqId")) == req_id)).data)

    def call(self, name: Any, *args: Any, timeout: float = 20) -> tuple[bool, Any]:
        mark = self.web.mark()
        return self.wait_reply(self.request(name, *args), timeout, mark).pair

    def replies(self, req_id: str, since: int = 0) -> list[Reply]:
        return [self._reply(r.data) for r in self.web.reports(
            "reply", since, self._mine(lambda d: str(d.get("reqId")) == req_id))]

    def invokes(self, since: int = 0) -> list[dict]:
        return [r.data for r in self.web.reports("invoke", since, self._mine())]

    @staticmethod
    def _reply(data: dict) -> Reply:
        return Reply(data.get("ok") == 1, data.get("value"), data)
