"""Runs "exec" requests through a real app window, as the page would.

An app with its own HOME shows the bridge page (BridgeClient); requests are
posted from the page and answered through the real bridge. The app can run
as an unprivileged user, for which HOME and its runtime folder are handed
over to that user.
"""

from __future__ import annotations

import os
import tempfile
from dataclasses import dataclass
from pathlib import Path

from bridge_client import BridgeClient
from harness import BINARY, App, Screen, WebServer

UNPRIVILEGED_UID = 65534  # nobody: present on every Debian system


@dataclass
class Result:
    ok: bool
    value: object

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
    def __init__(self, screen: Screen, web: WebServer, home: Path, *, user: bool = False,
                 env: dict | None = None, binary: str = BINARY):
        self.home = Path(home)
        self.user = user
        self.bridge = BridgeClient(web)
        if user:
            args = [f"--reuid={UNPRIVILEGED_UID}", f"--regid={UNPRIVILEGED_UID}", "--clear-groups",
                    "--", binary, self.bridge.url]
            self.app = App(screen, self.home, args=args, env=env, binary="/usr/bin/setpriv")
            self.own(self.home)  # including the runtime folder App made
        else:
            self.app = App(screen, self.home, args=[self.bridge.url], env=env, binary=binary)

    def start(self) -> "ExecClient":
        self.app.start()
        self.bridge.attach(self.app).wait_ready(timeout=30)
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

    def send(self, args: list) -> str:
        """Posts an "exec" request with exactly these arguments; returns its request id."""
        return self.bridge.request("exec", *args)

    def wait(self, req_id: str, timeout: float = 60) -> Result:
        reply = self.bridge.wait_reply(req_id, timeout)
        return Result(reply.ok, reply.value)

    def call(self, directory, command, timeout: float = 60) -> Result:
        return self.wait(self.send([directory, command]), timeout)

    def run(self, command: str, directory: str = "~", timeout: float = 60) -> Result:
        """A command that must be answered with ok true."""
        result = self.call(directory, command, timeout)
        assert result.ok, f"exec failed: {result.value!r}"
        return result

    def stop(self):
        self.app.kill()


def user_home_base() -> Path:
    """A folder an unprivileged user can reach (pytest's own is private to root)."""
    base = Path(tempfile.mkdtemp(prefix="ondrel-e2e-"))
    os.chmod(base, 0o755)
    return base
