"""Runs "exec" requests through a real app window, as the page would.

The app loads pages/exec.html with a private queue path on the test web
server; requests put on that queue are posted by the page to the bridge, and
the page reports each reply back.
"""

from __future__ import annotations

import itertools
import json
import os
import queue
import shutil
import tempfile
import uuid
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable

from harness import BINARY, App, Screen, Timeout, WebServer

UNPRIVILEGED_UID = 65534  # nobody: present on every Debian system

_ids = itertools.count(1)


@dataclass
class Reply:
    ok: bool
    value: object
    ms: float  # from the page's postMessage to its __resolve

    @property
    def stdout(self) -> str:
        return self.value["stdout"]

    @property
    def stderr(self) -> str:
        return self.value["stderr"]

    @property
    def exit(self) -> int:
        return self.value["exit"]


class ExecClient:
    """One app showing exec.html, with its own HOME, driven through a queue.

    user=True runs the app as an unprivileged user (needs root to set up):
    HOME and the runtime folder then belong to that user.
    """

    def __init__(self, screen: Screen, web: WebServer, home: Path, *, user: bool = False,
                 env: dict | None = None, binary: str = BINARY):
        self.web = web
        self.home = Path(home)
        self.user = user
        self.token = uuid.uuid4().hex
        self._queue: queue.Queue = queue.Queue()
        path = f"/exec-queue/{self.token}"
        web.route(path, self._serve_queue)
        url = web.url(f"exec.html?queue={path}")
        if user:
            args = [f"--reuid={UNPRIVILEGED_UID}", f"--regid={UNPRIVILEGED_UID}", "--clear-groups",
                    "--", binary, url]
            self.app = App(screen, self.home, args=args, env=env, binary="/usr/bin/setpriv")
            self.own(self.home)
        else:
            self.app = App(screen, self.home, args=[url], env=env, binary=binary)

    def start(self) -> "ExecClient":
        since = self.web.mark()
        self.app.start()
        self.web.wait_for_report("exec-page-ready", timeout=30, since=since,
                                 where=lambda d: self.token in str(d.get("queue")))
        return self

    def own(self, *paths: Path):
        """Hands paths (recursively) to the app's user, as if that user had made them."""
        if not self.user:
            return
        for top in paths:
            os.lchown(top, UNPRIVILEGED_UID, UNPRIVILEGED_UID)
            if top.is_dir() and not top.is_symlink():
                for root, dirs, files in os.walk(top):
                    for name in dirs + files:
                        os.lchown(os.path.join(root, name), UNPRIVILEGED_UID, UNPRIVILEGED_UID)

    def _serve_queue(self, handler):
        items = []
        try:
            items.append(self._queue.get(timeout=5))
            while True:
                items.append(self._queue.get_nowait())
        except queue.Empty:
            pass
        return 200, "application/json", json.dumps(items).encode()

    def send(self, args: list, name: str = "exec") -> str:
        req_id = f"{self.token[:8]}-{next(_ids)}"
        self._queue.put({"reqId": req_id, "name": name, "args": args})
        return req_id

    def wait(self, req_id: str, timeout: float = 60) -> Reply:
        resolved = self.web.wait_for_report("resolved", timeout=timeout,
                                            where=lambda d: d.get("reqId") == req_id)
        sent = self.web.wait_for_report("sent", timeout=1, where=lambda d: d.get("reqId") == req_id)
        return Reply(resolved.data["ok"], resolved.data["value"],
                     resolved.data["t"] - sent.data["t"])

    def call(self, directory, command, timeout: float = 60) -> Reply:
        return self.wait(self.send([directory, command]), timeout)

    def run(self, command: str, directory: str = "~", timeout: float = 60) -> Reply:
        """A command that must be answered with ok true."""
        reply = self.call(directory, command, timeout)
        assert reply.ok, f"exec failed: {reply.value!r}"
        return reply

    def stop(self):
        self.app.kill()


def user_home_base() -> Path:
    """A folder an unprivileged user can reach (pytest's own is private to root)."""
    base = Path(tempfile.mkdtemp(prefix="ondrel-e2e-"))
    os.chmod(base, 0o755)
    return base


def remove_tree(path: Path):
    shutil.rmtree(path, ignore_errors=True)


def lines_with(text: str, marker: str) -> Iterable[str]:
    return [line for line in text.splitlines() if marker in line]


__all__ = ["ExecClient", "Reply", "Timeout", "UNPRIVILEGED_UID", "user_home_base", "remove_tree", "lines_with"]
