"""Drives the real ondrel binary the way a user would.

One Xvfb per session, one local HTTP server per session that serves pages/
and collects what those pages report, and one App per launch of the binary.
Everything waits by polling with a deadline; nothing sleeps blindly for long.
"""

from __future__ import annotations

import ctypes
import http.server
import json
import os
import re
import signal
import socketserver
import subprocess
import tempfile
import threading
import time
import urllib.parse
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterable

from PIL import Image, ImageChops, ImageFilter, ImageOps

from Xlib import X, Xatom, display as xdisplay, error as xerror
from Xlib.protocol import event as xevent

HERE = Path(__file__).resolve().parent
PAGES = HERE / "pages"

SERVICE_DOMAIN = os.environ.get("ONDREL_SERVICE_DOMAIN", "ondrel.example")
DEMO_INSTANCE = os.environ.get("ONDREL_DEMO_INSTANCE", f"demo.on.{SERVICE_DOMAIN}")
BINARY = os.environ.get("ONDREL_BIN", str(HERE.parent.parent / "build" / "ondrel"))

SCREEN_W, SCREEN_H = 1920, 1080


class Timeout(AssertionError):
    """A wait ran out; an AssertionError so pytest shows it as a failure."""


def poll(check: Callable[[], object], timeout: float, interval: float = 0.05,
         message: str | Callable[[], str] = "condition not met"):
    """Returns the first truthy result of check(), or raises Timeout."""
    deadline = time.monotonic() + timeout
    while True:
        result = check()
        if result:
            return result
        if time.monotonic() >= deadline:
            text = message() if callable(message) else message
            raise Timeout(f"{text} (after {timeout:.1f} s)")
        time.sleep(interval)


# --------------------------------------------------------------------------
# X server


_libc = ctypes.CDLL(None, use_errno=True)
PR_SET_PDEATHSIG = 1


def _die_with_parent():
    """Runs in the child before exec: a crashed or killed test run takes it along."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Xvfb:
    def __init__(self, width: int = SCREEN_W, height: int = SCREEN_H):
        self.width, self.height = width, height
        read_fd, write_fd = os.pipe()
        self.proc = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_fd), "-screen", "0",
             f"{width}x{height}x24", "-nolisten", "tcp", "-noreset"],
            pass_fds=(write_fd,), stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True, preexec_fn=_die_with_parent)
        os.close(write_fd)
        number = b""
        with os.fdopen(read_fd, "rb") as pipe:
            # Xvfb writes the display number followed by a newline once it is ready.
            while not number.endswith(b"\n"):
                chunk = pipe.read(1)
                if not chunk:
                    raise RuntimeError("Xvfb exited before announcing its display")
                number += chunk
        self.display = f":{number.decode().strip()}"
        self.x = xdisplay.Display(self.display)

    def stop(self):
        try:
            self.x.close()
        except Exception:
            pass
        kill_group(self.proc)


def kill_group(proc: subprocess.Popen, sig=signal.SIGKILL):
    if proc.poll() is None:
        try:
            os.killpg(proc.pid, sig)
        except ProcessLookupError:
            pass
    try:
        proc.wait(timeout=5)
    except subprocess.TimeoutExpired:
        pass


@dataclass(frozen=True)
class Geometry:
    x: int
    y: int
    width: int
    height: int

    def as_tuple(self):
        return (self.x, self.y, self.width, self.height)


class XWindow:
    """A top-level client window, addressed in its own coordinates."""

    def __init__(self, screen: "Screen", wid: int):
        self.screen = screen
        self.id = wid

    @property
    def _win(self):
        return self.screen.x.create_resource_object("window", self.id)

    def geometry(self) -> Geometry:
        win = self._win
        g = win.get_geometry()
        origin = win.translate_coords(self.screen.root, 0, 0)
        return Geometry(-origin.x, -origin.y, g.width, g.height)

    def title(self) -> str | None:
        return self.screen.window_title(self.id)

    def wants_decorations(self) -> bool:
        """Whether a window manager is asked to draw its frame and title bar (_MOTIF_WM_HINTS)."""
        d = self.screen.x
        prop = self._win.get_full_property(d.intern_atom("_MOTIF_WM_HINTS"), X.AnyPropertyType)
        if prop is None or len(prop.value) < 3:
            return True  # no hint: window managers decorate
        flags, decorations = prop.value[0], prop.value[2]
        return not (flags & 2) or decorations != 0

    def is_viewable(self) -> bool:
        try:
            return self._win.get_attributes().map_state == X.IsViewable
        except xerror.XError:
            return False

    def exists(self) -> bool:
        try:
            self._win.get_attributes()
            return True
        except xerror.XError:
            return False

    def focus(self):
        """Gives this window the X input focus, as a window manager would."""
        self.screen.x.set_input_focus(self.id, X.RevertToParent, X.CurrentTime)
        self.screen.x.sync()

    def request_close(self):
        """Sends WM_DELETE_WINDOW, what a window manager's close button sends."""
        d = self.screen.x
        protocols = d.intern_atom("WM_PROTOCOLS")
        delete = d.intern_atom("WM_DELETE_WINDOW")
        msg = xevent.ClientMessage(window=self._win, client_type=protocols,
                                   data=(32, [delete, X.CurrentTime, 0, 0, 0]))
        self._win.send_event(msg, event_mask=X.NoEventMask)
        d.sync()

    # Pointer and keys, in window coordinates.
    def to_screen(self, x: float, y: float) -> tuple[int, int]:
        g = self.geometry()
        return (g.x + round(x), g.y + round(y))

    def move_pointer(self, x: float, y: float):
        self.screen.move_pointer(*self.to_screen(x, y))

    def click(self, x: float, y: float, button: int = 1, repeat: int = 1):
        self.move_pointer(x, y)
        self.screen.click(button, repeat)

    def press(self, x: float, y: float, button: int = 1):
        self.move_pointer(x, y)
        self.screen.button_down(button)

    def pixel(self, x: int, y: int) -> tuple[int, int, int]:
        g = self.geometry()
        return self.screen.screenshot((g.x + x, g.y + y, 1, 1)).getpixel((0, 0))

    def wait_for_pixel(self, x: int, y: int, expected, tol: float = 4, timeout: float = 10):
        """Waits until the pixel at (x, y) of this window shows `expected`."""
        poll(lambda: close_to(self.pixel(x, y), expected, tol), timeout,
             message=lambda: f"pixel ({x}, {y}) of the window is {self.pixel(x, y)}, "
                             f"expected {tuple(expected)} ±{tol}")

    def screenshot(self) -> Image.Image:
        g = self.geometry()
        return self.screen.screenshot((g.x, g.y, g.width, g.height))

    def __repr__(self):
        return f"XWindow(0x{self.id:x})"


class Screen:
    """The X display seen from a test: windows, pointer, keyboard, pixels."""

    def __init__(self, xvfb: Xvfb):
        self.display = xvfb.display
        self.width, self.height = xvfb.width, xvfb.height
        self.x = xvfb.x
        self.root = self.x.screen().root
        self._atoms = {name: self.x.intern_atom(name) for name in
                       ("_NET_WM_NAME", "UTF8_STRING", "_NET_WM_PID")}
        self._decoy: int | None = None

    # Windows
    def window_title(self, wid: int) -> str | None:
        win = self.x.create_resource_object("window", wid)
        try:
            prop = win.get_full_property(self._atoms["_NET_WM_NAME"], self._atoms["UTF8_STRING"])
            if prop is not None:
                value = prop.value
                return value.decode("utf-8", "replace") if isinstance(value, bytes) else str(value)
            name = win.get_wm_name()
            return name if isinstance(name, str) else (name.decode("latin-1") if name else None)
        except xerror.XError:
            return None

    def window_pid(self, wid: int) -> int | None:
        win = self.x.create_resource_object("window", wid)
        try:
            prop = win.get_full_property(self._atoms["_NET_WM_PID"], Xatom.CARDINAL)
        except xerror.XError:
            return None
        return int(prop.value[0]) if prop is not None and len(prop.value) else None

    def toplevels(self, pid: int | None = None, title: str | None = None,
                  viewable: bool = True) -> list[XWindow]:
        """Client windows on the root (there is no window manager to reparent them)."""
        found = []
        try:
            children = self.root.query_tree().children
        except xerror.XError:
            return found
        for child in children:
            try:
                attrs = child.get_attributes()
            except xerror.XError:
                continue
            if attrs.override_redirect:
                continue
            if viewable and attrs.map_state != X.IsViewable:
                continue
            if pid is not None and self.window_pid(child.id) != pid:
                continue
            if title is not None and self.window_title(child.id) != title:
                continue
            found.append(XWindow(self, child.id))
        return found

    def focus_elsewhere(self):
        """Moves the input focus to a small window of our own, so the app goes inactive."""
        if self._decoy is None:
            win = self.root.create_window(self.width - 40, self.height - 40, 30, 30, 0,
                                          self.x.screen().root_depth,
                                          background_pixel=self.x.screen().black_pixel,
                                          override_redirect=True)
            win.map()
            self.x.sync()
            self._decoy = win.id
            poll(lambda: self.x.create_resource_object("window", win.id)
                 .get_attributes().map_state == X.IsViewable, 5, message="decoy window not mapped")
        self.x.set_input_focus(self._decoy, X.RevertToParent, X.CurrentTime)
        self.x.sync()

    def focused_window(self) -> int:
        focus = self.x.get_input_focus().focus
        return focus if isinstance(focus, int) else focus.id

    # Input, through XTEST by way of xdotool
    def xdotool(self, *args: str):
        subprocess.run(["xdotool", *args], check=True, env={**os.environ, "DISPLAY": self.display},
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=20)

    def move_pointer(self, x: int, y: int):
        x, y = min(max(0, x), self.width - 1), min(max(0, y), self.height - 1)
        # xdotool's --sync waits for motion, which never comes if the pointer is already there.
        if self.pointer() != (x, y):
            self.xdotool("mousemove", "--sync", str(x), str(y))

    def pointer(self) -> tuple[int, int]:
        p = self.root.query_pointer()
        return (p.root_x, p.root_y)

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
        """Puts the pointer in the bottom-right corner, away from any window we test."""
        self.move_pointer(self.width - 5, self.height - 5)

    # Pixels
    def screenshot(self, box: tuple[int, int, int, int] | None = None) -> Image.Image:
        """What the X server shows, as RGB; box is (x, y, width, height) on the root."""
        x, y, w, h = box or (0, 0, self.width, self.height)
        x0, y0 = max(0, x), max(0, y)
        x1, y1 = min(self.width, x + w), min(self.height, y + h)
        raw = self.root.get_image(x0, y0, x1 - x0, y1 - y0, X.ZPixmap, 0xFFFFFFFF)
        img = Image.frombytes("RGB", (x1 - x0, y1 - y0), raw.data, "raw", "BGRX")
        if (x0, y0, x1, y1) == (x, y, x + w, y + h):
            return img
        full = Image.new("RGB", (w, h))
        full.paste(img, (x0 - x, y0 - y))
        return full

    def save_screenshot(self, path: Path):
        self.screenshot().save(path)


def close_to(actual: Iterable[float], expected: Iterable[float], tol: float = 4) -> bool:
    return all(abs(a - e) <= tol for a, e in zip(actual, expected))


def blend(top: Iterable[float], bottom: Iterable[float], alpha: float) -> tuple[float, ...]:
    return tuple(alpha * t + (1 - alpha) * b for t, b in zip(top, bottom))


def ocr(image: Image.Image, scale: int = 3) -> str:
    """Reads the text of a screenshot crop with tesseract, as a person would read it.

    Two readings, joined: the plain grey image, and one where every pixel that
    stands out from its surroundings is ink, so light text on a coloured
    button (which a plain pass loses) is read as well.
    """
    grey = image.convert("L")
    background = grey.filter(ImageFilter.MedianFilter(15))
    ink = ImageOps.invert(ImageChops.difference(grey, background).point(lambda v: 255 if v > 40 else 0))
    readings = []
    with tempfile.TemporaryDirectory() as tmp:
        for n, picture in enumerate((grey, ink)):
            path = Path(tmp) / f"crop{n}.png"
            picture.resize((image.width * scale, image.height * scale), Image.LANCZOS).save(path)
            out = subprocess.run(["tesseract", str(path), "-", "--psm", "6"],
                                 capture_output=True, text=True, timeout=60)
            readings.append(" ".join(out.stdout.split()))
    return " | ".join(readings)


# --------------------------------------------------------------------------
# Local web server


@dataclass
class Report:
    kind: str
    data: dict
    at: float  # time.monotonic() at arrival
    index: int


class WebServer:
    """Serves pages/ on 127.0.0.1 and collects POST /report bodies from pages.

    Tests can add their own handlers with route(path, fn); fn(handler) gets the
    request handler (its .path, .headers, .command, and .body for a POST) and
    returns (status, content_type, body_bytes[, extra_headers]).
    """

    def __init__(self, root: Path = PAGES):
        self.root = root
        self._reports: list[Report] = []
        self._cond = threading.Condition()
        self._routes: dict[str, Callable] = {}
        self.requests: list[str] = []
        server = self

        class Handler(http.server.SimpleHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def __init__(self, *a, **kw):
                super().__init__(*a, directory=str(server.root), **kw)

            def log_message(self, *args):
                pass

            def end_headers(self):
                self.send_header("Cache-Control", "no-store")
                super().end_headers()

            def _route(self):
                path = urllib.parse.urlsplit(self.path).path
                fn = server._routes.get(path)
                if fn is None:
                    return False
                status, ctype, body, *extra = fn(self)
                self.send_response(status)
                self.send_header("Content-Type", ctype)
                for name, value in (extra[0] if extra else {}).items():
                    self.send_header(name, value)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)
                return True

            def do_GET(self):
                self.body = b""
                server.requests.append(self.path)
                if not self._route():
                    super().do_GET()

            def do_POST(self):
                length = int(self.headers.get("Content-Length") or 0)
                body = self.rfile.read(length) if length else b""
                if urllib.parse.urlsplit(self.path).path == "/report":
                    try:
                        data = json.loads(body or b"{}")
                    except ValueError:
                        data = {"kind": "bad-json", "raw": body.decode("utf-8", "replace")}
                    server._add(data)
                    self.send_response(204)
                    self.send_header("Content-Length", "0")
                    self.end_headers()
                    return
                self.body = body
                if not self._route():
                    self.send_error(404)

        class Threaded(socketserver.ThreadingMixIn, http.server.HTTPServer):
            daemon_threads = True
            allow_reuse_address = True

        self.httpd = Threaded(("127.0.0.1", 0), Handler)
        self.port = self.httpd.server_address[1]
        self.base = f"http://127.0.0.1:{self.port}"
        self._thread = threading.Thread(target=self.httpd.serve_forever, daemon=True)
        self._thread.start()

    def url(self, path: str = "") -> str:
        return f"{self.base}/{path.lstrip('/')}"

    def route(self, path: str, fn: Callable):
        self._routes[path] = fn

    def stop(self):
        self.httpd.shutdown()
        self.httpd.server_close()

    def _add(self, data: dict):
        with self._cond:
            kind = str(data.get("kind", ""))
            self._reports.append(Report(kind, data, time.monotonic(), len(self._reports)))
            self._cond.notify_all()

    def mark(self) -> int:
        """A position in the report stream; waits and queries can start after it."""
        with self._cond:
            return len(self._reports)

    def reports(self, kind: str | None = None, since: int = 0,
                where: Callable[[dict], bool] | None = None) -> list[Report]:
        with self._cond:
            return [r for r in self._reports[since:]
                    if (kind is None or r.kind == kind) and (where is None or where(r.data))]

    def wait_for_report(self, kind: str, timeout: float = 20, since: int = 0,
                        where: Callable[[dict], bool] | None = None) -> Report:
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for r in self._reports[since:]:
                    if r.kind == kind and (where is None or where(r.data)):
                        return r
                left = deadline - time.monotonic()
                if left <= 0:
                    seen = [r.kind for r in self._reports[since:]]
                    raise Timeout(f"no {kind!r} report within {timeout} s; got {seen}")
                self._cond.wait(left)

    def no_report(self, kind: str, within: float, since: int = 0,
                  where: Callable[[dict], bool] | None = None) -> bool:
        """True when no matching report arrives during the next `within` seconds."""
        try:
            self.wait_for_report(kind, within, since, where)
            return False
        except Timeout:
            return True


# --------------------------------------------------------------------------
# The application


LOG_LINE = re.compile(
    r"^(?:\((?P<prog>[^:]+):(?P<pid>\d+)\): )?(?P<domain>[\w.-]+)-(?P<level>[A-Z][A-Za-z]*)(?: \*\*)?: "
    r"(?P<time>\d\d:\d\d:\d\d\.\d\d\d): (?P<text>.*)$")


@dataclass
class LogLine:
    raw: str
    domain: str | None
    level: str | None
    text: str
    at: float


def descendants(pid: int) -> list[int]:
    """All processes below pid, from /proc."""
    children: dict[int, list[int]] = {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                stat = f.read()
        except OSError:
            continue
        ppid = int(stat.rsplit(")", 1)[1].split()[1])
        children.setdefault(ppid, []).append(int(entry))
    out, todo = [], [pid]
    while todo:
        for child in children.get(todo.pop(), []):
            out.append(child)
            todo.append(child)
    return out


def rss_kib(pid: int) -> int:
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


_live_apps: set["App"] = set()


def kill_all_apps():
    for app in list(_live_apps):
        app.kill()


class App:
    """One run of the ondrel binary with its own HOME, its stderr captured."""

    def __init__(self, screen: Screen, home: Path, args: Iterable[str] = (),
                 config: object = None, config_text: str | None = None,
                 language: str | None = "en_US", lang: str = "C.UTF-8",
                 env: dict | None = None, binary: str = BINARY):
        self.screen = screen
        self.home = Path(home)
        self.args = list(args)
        self.binary = binary
        self.config_path = self.home / ".config" / "ondrel" / "config.json"
        if config is not None or config_text is not None:
            self.write_config(config_text if config_text is not None else json.dumps(config))
        self.env = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "HOME": str(self.home),
            "DISPLAY": screen.display,
            "NO_AT_BRIDGE": "1",
            "GDK_BACKEND": "x11",
            "LANG": lang,
            "XDG_RUNTIME_DIR": str(self._runtime_dir()),
            # A private session bus would need a daemon; none is wanted.
            "DBUS_SESSION_BUS_ADDRESS": "disabled:",
            # Choosers save their state through GSettings; keep it in memory.
            "GSETTINGS_BACKEND": "memory",
        }
        if language is not None:
            self.env["LANGUAGE"] = language
        self.env.update(env or {})
        self.env = {k: v for k, v in self.env.items() if v is not None}
        self.lines: list[LogLine] = []
        self._cond = threading.Condition()
        self.proc: subprocess.Popen | None = None
        self.started_at = 0.0
        self._children: set[int] = set()
        self._eof = False

    def _runtime_dir(self) -> Path:
        path = self.home / ".runtime"
        path.mkdir(parents=True, exist_ok=True, mode=0o700)
        return path

    def write_config(self, text: str):
        self.config_path.parent.mkdir(parents=True, exist_ok=True)
        self.config_path.write_text(text)

    def read_config_text(self) -> str | None:
        try:
            return self.config_path.read_text()
        except FileNotFoundError:
            return None

    # Lifecycle
    def start(self) -> "App":
        if not os.access(self.binary, os.X_OK):
            raise FileNotFoundError(f"ondrel binary not found at {self.binary} (set ONDREL_BIN)")
        self.started_at = time.monotonic()
        self.proc = subprocess.Popen([self.binary, *self.args], env=self.env, cwd=str(self.home),
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.PIPE, start_new_session=True,
                                     preexec_fn=_die_with_parent)
        _live_apps.add(self)
        threading.Thread(target=self._read_stderr, daemon=True).start()
        threading.Thread(target=self._watch_children, daemon=True).start()
        return self

    def _read_stderr(self):
        assert self.proc and self.proc.stderr
        for raw in iter(self.proc.stderr.readline, b""):
            text = raw.decode("utf-8", "replace").rstrip("\n")
            m = LOG_LINE.match(text)
            line = LogLine(text, m["domain"] if m else None, m["level"] if m else None,
                           m["text"] if m else text, time.monotonic())
            with self._cond:
                self.lines.append(line)
                self._cond.notify_all()
        with self._cond:
            self._eof = True
            self._cond.notify_all()

    def _watch_children(self):
        # WebKit's helpers may leave our process group; remember them so they can be ended too.
        while self.proc and self.proc.poll() is None:
            self._children.update(descendants(self.proc.pid))
            time.sleep(0.25)

    @property
    def pid(self) -> int:
        assert self.proc
        return self.proc.pid

    def running(self) -> bool:
        return bool(self.proc) and self.proc.poll() is None

    def wait_exit(self, timeout: float = 15) -> int:
        assert self.proc
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            raise Timeout(f"ondrel still running after {timeout} s")

    def kill(self):
        if self.proc is None:
            return
        if self.proc.poll() is None:
            self._children.update(descendants(self.proc.pid))
        kill_group(self.proc)
        for pid in self._children:
            try:
                os.kill(pid, signal.SIGKILL)
            except (ProcessLookupError, PermissionError):
                pass
        if self.proc.stderr:
            try:
                self.proc.stderr.close()
            except OSError:
                pass
        _live_apps.discard(self)

    # Log
    def messages(self) -> list[str]:
        """The app's own log lines (domain "ondrel"), text after the timestamp."""
        with self._cond:
            return [l.text for l in self.lines if l.domain == "ondrel"]

    def log_text(self) -> str:
        with self._cond:
            return "\n".join(l.raw for l in self.lines)

    def wait_for_log(self, substring: str, timeout: float = 20, since: int = 0) -> str:
        """Waits for a line from the app whose text contains substring; returns that text."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for line in self.lines[since:]:
                    if substring in line.text:
                        return line.text
                left = deadline - time.monotonic()
                if left <= 0:
                    raise Timeout(f"no log line containing {substring!r} within {timeout} s; "
                                  f"log:\n{self.log_text()}")
                if self._eof:
                    raise Timeout(f"ondrel ended (status {self.proc.poll()}) without a log line "
                                  f"containing {substring!r}; log:\n{self.log_text()}")
                self._cond.wait(left)

    def log_mark(self) -> int:
        with self._cond:
            return len(self.lines)

    # Windows
    def windows(self, title: str | None = "Ondrel") -> list[XWindow]:
        return self.screen.toplevels(pid=self.pid, title=title)

    def wait_window(self, min_width: int = 0, max_width: int = 10 ** 6, timeout: float = 20,
                    title: str = "Ondrel") -> XWindow:
        def find():
            if not self.running():
                raise AssertionError(f"ondrel exited with {self.proc.returncode} while a window "
                                     f"was awaited; log:\n{self.log_text()}")
            for w in self.windows(title):
                try:
                    g = w.geometry()
                except xerror.XError:
                    continue
                if min_width <= g.width <= max_width:
                    return w
            return None
        return poll(find, timeout, 0.1,
                    lambda: f"no {title!r} window {min_width}..{max_width} px wide; "
                            f"log:\n{self.log_text()}")

    def main_window(self, timeout: float = 20) -> XWindow:
        return self.wait_window(min_width=1000, timeout=timeout)

    def prompt_window(self, timeout: float = 20) -> XWindow:
        return self.wait_window(max_width=900, timeout=timeout)

    def total_rss_kib(self) -> int:
        return rss_kib(self.pid) + sum(rss_kib(p) for p in descendants(self.pid))


class MapWatcher:
    """Records every top-level window that gets mapped, with its pid, title and size.

    Lets a test say that a window never appeared, not merely that it is gone now.
    """

    def __init__(self, display_name: str):
        self.x = xdisplay.Display(display_name)
        self.root = self.x.screen().root
        self.root.change_attributes(event_mask=X.SubstructureNotifyMask)
        self.x.sync()
        self.mapped: list[dict] = []
        self._lock = threading.Lock()
        self._pid_atom = self.x.intern_atom("_NET_WM_PID")
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while True:
            try:
                ev = self.x.next_event()
            except Exception:
                return
            if ev.type != X.MapNotify or ev.override:
                continue
            win = ev.window
            record = {"id": win.id, "at": time.monotonic(), "pid": None, "title": None,
                      "width": None, "height": None}
            try:
                g = win.get_geometry()
                record["width"], record["height"] = g.width, g.height
                prop = win.get_full_property(self._pid_atom, Xatom.CARDINAL)
                if prop is not None and len(prop.value):
                    record["pid"] = int(prop.value[0])
                name = win.get_wm_name()
                record["title"] = name if isinstance(name, str) else None
            except xerror.XError:
                pass
            with self._lock:
                self.mapped.append(record)

    def maps_of(self, pid: int) -> list[dict]:
        with self._lock:
            return [dict(r) for r in self.mapped if r["pid"] == pid]
