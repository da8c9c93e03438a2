"""Drives the real ondrel binary in Xvfb, with a local web server collecting what its pages report."""

from __future__ import annotations

import contextlib
import ctypes
import http.server
import json
import os
import re
import signal
import socketserver
import subprocess
import threading
import time
import urllib.parse
from collections import namedtuple
from pathlib import Path
from typing import Callable, Iterable

from PIL import Image
from Xlib import X, Xatom, display as xdisplay, error as xerror
from Xlib.protocol import event as xevent

HERE = Path(__file__).resolve().parent
SERVICE_DOMAIN = os.environ.get("ONDREL_SERVICE_DOMAIN", "ondrel.example")
DEMO_INSTANCE = os.environ.get("ONDREL_DEMO_INSTANCE", f"demo.on.{SERVICE_DOMAIN}")
BINARY = os.environ.get("ONDREL_BIN", str(HERE.parent.parent / "build" / "ondrel"))
SCREEN_W, SCREEN_H = 1920, 1080


class Timeout(AssertionError):  # pytest shows a wait that ran out as a failure, not an error
    pass


def poll(check: Callable[[], object], timeout: float, interval: float = 0.05,
         message: str | Callable[[], str] = "condition not met"):
    deadline = time.monotonic() + timeout
    while not (result := check()):
        if time.monotonic() >= deadline:
            raise Timeout(f"{message() if callable(message) else message} (after {timeout:.1f} s)")
        time.sleep(interval)
    return result


_libc = ctypes.CDLL(None, use_errno=True)


def _die_with_parent():  # a crashed or killed test run takes its children along
    _libc.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Xvfb:
    def __init__(self, width: int = SCREEN_W, height: int = SCREEN_H):
        self.width, self.height = width, height
        read_fd, write_fd = os.pipe()
        self.proc = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_fd), "-screen", "0", f"{width}x{height}x24", "-nolisten", "tcp",
             "-noreset"], pass_fds=(write_fd,), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, start_new_session=True, preexec_fn=_die_with_parent)
        os.close(write_fd)
        with os.fdopen(read_fd, "rb") as pipe:  # the display number, once it is ready
            number = pipe.readline()
        if not number.endswith(b"\n"):
            raise RuntimeError("Xvfb exited before announcing its display")
        self.display = f":{number.decode().strip()}"
        self.x = xdisplay.Display(self.display)

    def stop(self):
        self.x.close()
        kill_group(self.proc)


def kill_group(proc: subprocess.Popen):
    if proc.poll() is None:  # once reaped, the number may belong to someone else
        with contextlib.suppress(ProcessLookupError):
            os.killpg(proc.pid, signal.SIGKILL)
    with contextlib.suppress(subprocess.TimeoutExpired):
        proc.wait(timeout=5)


Geometry = namedtuple("Geometry", "x y width height")


class XWindow:
    def __init__(self, screen: "Screen", wid: int):
        self.screen, self.id = screen, wid
        self._win = screen.x.create_resource_object("window", wid)

    def geometry(self) -> Geometry:
        g = self._win.get_geometry()
        origin = self._win.translate_coords(self.screen.root, 0, 0)
        return Geometry(-origin.x, -origin.y, g.width, g.height)

    def title(self) -> str | None:
        try:
            prop = self._win.get_full_property(self.screen.x.intern_atom("_NET_WM_NAME"),
                                               self.screen.x.intern_atom("UTF8_STRING"))
        except xerror.XError:
            return None
        return prop and prop.value.decode("utf-8", "replace")

    def wants_decorations(self) -> bool:  # _MOTIF_WM_HINTS
        prop = self._win.get_full_property(self.screen.x.intern_atom("_MOTIF_WM_HINTS"), X.AnyPropertyType)
        return prop is None or len(prop.value) < 3 or not (prop.value[0] & 2) or prop.value[2] != 0

    def is_viewable(self) -> bool:
        try:
            return self._win.get_attributes().map_state == X.IsViewable
        except xerror.XError:
            return False

    def focus(self):  # what a window manager would do
        self.screen.x.set_input_focus(self.id, X.RevertToParent, X.CurrentTime)
        self.screen.x.sync()

    def request_close(self):  # what a window manager's close button sends
        d = self.screen.x
        data = (32, [d.intern_atom("WM_DELETE_WINDOW"), X.CurrentTime, 0, 0, 0])
        self._win.send_event(xevent.ClientMessage(window=self._win, client_type=d.intern_atom("WM_PROTOCOLS"),
                                                  data=data), event_mask=X.NoEventMask)
        d.sync()

    def to_screen(self, x: float, y: float) -> tuple[int, int]:
        g = self.geometry()
        return (g.x + round(x), g.y + round(y))

    def move_pointer(self, x: float, y: float):
        self.screen.move_pointer(*self.to_screen(x, y))

    def click(self, x: float, y: float):
        self.move_pointer(x, y)
        self.screen.click(1)

    def pixel(self, x: int, y: int) -> tuple[int, int, int]:
        return self.screen.screenshot((*self.to_screen(x, y), 1, 1)).getpixel((0, 0))

    def wait_for_pixel(self, x: int, y: int, expected, tol: float = 4, timeout: float = 10):
        poll(lambda: all(abs(a - e) <= tol for a, e in zip(self.pixel(x, y), expected)), timeout,
             message=lambda: f"pixel ({x}, {y}) is {self.pixel(x, y)}, expected {tuple(expected)} ±{tol}")

    def screenshot(self) -> Image.Image:
        g = self.geometry()
        return self.screen.screenshot((g.x, g.y, g.width, g.height))


class Screen:
    def __init__(self, xvfb: Xvfb):
        self.display, self.width, self.height, self.x = xvfb.display, xvfb.width, xvfb.height, xvfb.x
        self.root = self.x.screen().root

    def toplevels(self, pid: int, title: str | None = None) -> list[XWindow]:
        """The mapped top-level windows of process pid, only those with this title if one is given."""
        found = []
        for child in self.root.query_tree().children:
            with contextlib.suppress(xerror.XError):  # a window that went away meanwhile
                attrs = child.get_attributes()
                prop = child.get_full_property(self.x.intern_atom("_NET_WM_PID"), Xatom.CARDINAL)
                window = XWindow(self, child.id)
                if (not attrs.override_redirect and attrs.map_state == X.IsViewable and prop
                        and prop.value[0] == pid and title in (None, window.title())):
                    found.append(window)
        return found

    def focus_elsewhere(self):
        self.x.set_input_focus(X.NONE, X.RevertToNone, X.CurrentTime)
        self.x.sync()

    def xdotool(self, *args: str):
        subprocess.run(["xdotool", *args], check=True, env={**os.environ, "DISPLAY": self.display},
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=20)

    def move_pointer(self, x: int, y: int):
        x, y = min(max(0, x), self.width - 1), min(max(0, y), self.height - 1)
        # xdotool's --sync waits for motion, which never comes if the pointer is already there.
        p = self.root.query_pointer()
        if (p.root_x, p.root_y) != (x, y):
            self.xdotool("mousemove", "--sync", str(x), str(y))

    def button_down(self, button: int = 1):
        self.xdotool("mousedown", str(button))

    def button_up(self, button: int = 1):
        self.xdotool("mouseup", str(button))

    def click(self, button: int = 1, repeat: int = 1, delay_ms: int = 60):
        self.xdotool("click", "--repeat", str(repeat), "--delay", str(delay_ms), str(button))

    def key(self, *keys: str):
        self.xdotool("key", "--clearmodifiers", *keys)

    def type_text(self, text: str):
        self.xdotool("type", "--delay", "20", text)

    def park_pointer(self):
        self.move_pointer(self.width - 5, self.height - 5)

    def screenshot(self, box: tuple[int, int, int, int] | None = None) -> Image.Image:
        x, y, w, h = box or (0, 0, self.width, self.height)
        x0, y0, x1, y1 = max(0, x), max(0, y), min(self.width, x + w), min(self.height, y + h)
        raw = self.root.get_image(x0, y0, x1 - x0, y1 - y0, X.ZPixmap, 0xFFFFFFFF)
        return Image.frombytes("RGB", (x1 - x0, y1 - y0), raw.data, "raw", "BGRX")


def blend(top: Iterable[float], bottom: Iterable[float], alpha: float) -> tuple[float, ...]:
    return tuple(alpha * t + (1 - alpha) * b for t, b in zip(top, bottom))


Report = namedtuple("Report", "kind data at")  # at: time.monotonic() on arrival


class WebServer:
    """Serves pages/ and collects POST /report; route(path, fn): fn(handler) -> (status, type, body)."""

    def __init__(self, root: Path = HERE / "pages"):  # the benches serve a folder of their own
        self._reports: list[Report] = []
        self._cond = threading.Condition()
        self._routes: dict[str, Callable] = {}
        self.requests: list[str] = []
        server = self

        class Handler(http.server.SimpleHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def __init__(self, *a, **kw):
                super().__init__(*a, directory=str(root), **kw)

            def log_message(self, *args):
                pass

            def end_headers(self):
                self.send_header("Cache-Control", "no-store")
                super().end_headers()

            def _reply(self, status, ctype, body):
                self.send_response(status)
                self.send_header("Content-Type", ctype)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                with contextlib.suppress(BrokenPipeError):  # a page that went away meanwhile
                    self.wfile.write(body)

            def do_GET(self):
                server.requests.append(self.path)
                fn = server._routes.get(urllib.parse.urlsplit(self.path).path)
                if fn:
                    self._reply(*fn(self))
                else:
                    super().do_GET()

            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
                if urllib.parse.urlsplit(self.path).path != "/report":
                    return self.send_error(404)
                data = json.loads(body or b"{}")
                with server._cond:
                    server._reports.append(Report(str(data.get("kind", "")), data, time.monotonic()))
                    server._cond.notify_all()
                self._reply(204, "text/plain", b"")

        class Threaded(socketserver.ThreadingMixIn, http.server.HTTPServer):
            daemon_threads = True
            allow_reuse_address = True

        self.httpd = Threaded(("127.0.0.1", 0), Handler)
        self.base = f"http://127.0.0.1:{self.httpd.server_address[1]}"
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()

    def url(self, path: str = "") -> str:
        return f"{self.base}/{path.lstrip('/')}"

    def route(self, path: str, fn: Callable):
        self._routes[path] = fn

    def stop(self):
        self.httpd.shutdown()
        self.httpd.server_close()

    def mark(self) -> int:
        with self._cond:
            return len(self._reports)

    def reports(self, kind: str | None = None, since: int = 0, where: Callable[[dict], bool] | None = None):
        with self._cond:
            return [r for r in self._reports[since:]
                    if (kind is None or r.kind == kind) and (where is None or where(r.data))]

    def wait_for_report(self, kind: str, timeout: float = 20, since: int = 0,
                        where: Callable[[dict], bool] | None = None) -> Report:
        deadline = time.monotonic() + timeout
        with self._cond:
            while not (found := self.reports(kind, since, where)):
                if not self._cond.wait(deadline - time.monotonic()) and time.monotonic() >= deadline:
                    raise Timeout(f"no {kind!r} report within {timeout} s; got "
                                  f"{[r.kind for r in self._reports[since:]]}")
            return found[0]


# The app's own lines: "ondrel-Message: 12:34:56.789: text"
LOG_LINE = re.compile(r"^(?:\([^:]+:\d+\): )?(?P<domain>[\w.-]+)-[A-Z][A-Za-z]*(?: \*\*)?: "
                      r"\d\d:\d\d:\d\d\.\d\d\d: (?P<text>.*)$")
LogLine = namedtuple("LogLine", "raw domain text")


def descendants(pid: int) -> list[int]:
    children: dict[int, list[int]] = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):  # a process that ended meanwhile
            ppid = int(Path(f"/proc/{entry}/stat").read_text().rsplit(")", 1)[1].split()[1])
            children.setdefault(ppid, []).append(int(entry))
    out, todo = [], [pid]
    while todo:
        found = children.get(todo.pop(), [])
        out += found
        todo += found
    return out


def rss_kib(pid: int) -> int:
    status = Path(f"/proc/{pid}/status").read_text().splitlines()
    return int(next(line for line in status if line.startswith("VmRSS:")).split()[1])


class App:
    def __init__(self, screen: Screen, home: Path, args: Iterable[str] = (), config: object = None,
                 env: dict | None = None, binary: str = BINARY):
        self.screen, self.home, self.args, self.binary = screen, Path(home), list(args), binary
        self.config_path = self.home / ".config" / "ondrel" / "config.json"
        if config is not None:
            self.config_path.parent.mkdir(parents=True, exist_ok=True)
            self.config_path.write_text(json.dumps(config))
        runtime = self.home / ".runtime"
        runtime.mkdir(parents=True, exist_ok=True, mode=0o700)
        self.env = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": str(self.home), "DISPLAY": screen.display,
            "NO_AT_BRIDGE": "1", "GDK_BACKEND": "x11", "LANG": "C.UTF-8", "LANGUAGE": "en_US",
            "XDG_RUNTIME_DIR": str(runtime),
            "DBUS_SESSION_BUS_ADDRESS": "disabled:",  # a private session bus would need a daemon
            "GSETTINGS_BACKEND": "memory",  # choosers save their state through GSettings
            **(env or {})}
        self.lines: list[LogLine] = []
        self._cond = threading.Condition()
        self.proc: subprocess.Popen | None = None
        self._children: set[int] = set()
        self._eof = False

    def start(self) -> "App":
        env = {k: v for k, v in self.env.items() if v is not None}
        self.started_at = time.monotonic()  # the start-up bench times from here
        self.proc = subprocess.Popen([self.binary, *self.args], env=env, cwd=str(self.home),
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                     start_new_session=True, preexec_fn=_die_with_parent)
        threading.Thread(target=self._read_stderr, daemon=True).start()
        threading.Thread(target=self._watch_children, daemon=True).start()
        return self

    def _read_stderr(self):
        for raw in iter(self.proc.stderr.readline, b""):
            text = raw.decode("utf-8", "replace").rstrip("\n")
            m = LOG_LINE.match(text)
            with self._cond:
                self.lines.append(LogLine(text, m["domain"] if m else None, m["text"] if m else text))
                self._cond.notify_all()
        with self._cond:
            self._eof = True
            self._cond.notify_all()

    def _watch_children(self):
        # WebKit's helpers may leave our process group; remember them so they can be ended too.
        while self.proc.poll() is None:
            self._children.update(descendants(self.proc.pid))
            time.sleep(0.25)

    @property
    def pid(self) -> int:
        return self.proc.pid

    def running(self) -> bool:
        return bool(self.proc) and self.proc.poll() is None

    def wait_exit(self, timeout: float = 15) -> int:
        poll(lambda: self.proc.poll() is not None, timeout, message="ondrel is still running")
        return self.proc.returncode

    def kill(self):
        if self.proc is None:
            return
        if self.proc.poll() is None:
            self._children.update(descendants(self.proc.pid))
        kill_group(self.proc)
        for pid in self._children:
            with contextlib.suppress(ProcessLookupError, PermissionError):
                os.kill(pid, signal.SIGKILL)
        self.proc.stderr.close()

    def messages(self) -> list[str]:
        with self._cond:
            return [line.text for line in self.lines if line.domain == "ondrel"]

    def log_text(self) -> str:
        with self._cond:
            return "\n".join(line.raw for line in self.lines)

    def log_mark(self) -> int:
        with self._cond:
            return len(self.lines)

    def wait_for_log(self, substring: str, timeout: float = 20, since: int = 0) -> str:
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for line in self.lines[since:]:
                    if substring in line.text:
                        return line.text
                left = deadline - time.monotonic()
                if left <= 0 or self._eof:
                    raise Timeout(f"no log line containing {substring!r} within {timeout} s (status "
                                  f"{self.proc.poll()}); log:\n{self.log_text()}")
                self._cond.wait(left)

    def windows(self, title: str | None = "Ondrel") -> list[XWindow]:
        return self.screen.toplevels(pid=self.pid, title=title)

    def main_window(self, timeout: float = 20, prompt: bool = False) -> XWindow:
        """The main window, or with prompt=True the first-run prompt: both are titled "Ondrel", the prompt narrower."""
        def find():
            assert self.running(), f"ondrel exited with {self.proc.returncode}; log:\n{self.log_text()}"
            with contextlib.suppress(xerror.XError):  # a window that went away meanwhile
                return next((w for w in self.windows() if (w.geometry().width < 1000) == prompt), None)
        return poll(find, timeout, 0.1, lambda: f"no {'prompt' if prompt else 'main window'}; log:\n{self.log_text()}")


class MapWatcher:
    """Every top-level window ever mapped, so a test can say that one never appeared."""

    def __init__(self, display_name: str):
        self.x = xdisplay.Display(display_name)
        self.x.screen().root.change_attributes(event_mask=X.SubstructureNotifyMask)
        self.x.sync()
        self.mapped: list[dict] = []
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        pid_atom = self.x.intern_atom("_NET_WM_PID")
        while True:
            try:
                ev = self.x.next_event()
            except xerror.ConnectionClosedError:
                return
            if ev.type != X.MapNotify or ev.override:
                continue
            with contextlib.suppress(xerror.XError):
                prop = ev.window.get_full_property(pid_atom, Xatom.CARDINAL)
                self.mapped.append({"pid": int(prop.value[0]) if prop else None,
                                    "width": ev.window.get_geometry().width})

    def maps_of(self, pid: int) -> list[dict]:
        return [r for r in list(self.mapped) if r["pid"] == pid]
