"""GTK file choosers the app opens (folder picker, file inputs, save dialog), driven by keys."""

from __future__ import annotations

import time

from harness import App, XWindow, poll


def wait_dialog(app: App, title: str | None = None, timeout: float = 10) -> XWindow:
    """The app's first top-level window other than its main one, painted and given the focus."""
    def find():
        for window in app.screen.toplevels(pid=app.pid):
            name = window.title()
            if name != "Ondrel" and (title is None or name == title):
                return window
        return None
    dialog = poll(find, timeout, 0.05, lambda: f"no dialog {title or ''} from ondrel; titles: "
                  f"{[w.title() for w in app.screen.toplevels(pid=app.pid)]}")
    poll(lambda: _painted(dialog), timeout, 0.05, "the dialog was never painted")
    dialog.focus()
    return dialog


def dialog_open(app: App) -> bool:
    return any(w.title() != "Ondrel" for w in app.screen.toplevels(pid=app.pid))


def wait_dialog_gone(app: App, timeout: float = 10):
    poll(lambda: not dialog_open(app), timeout, 0.05, "the dialog is still open")


def _painted(window: XWindow) -> bool:
    image = window.screenshot().reduce(8)
    return image.getcolors(maxcolors=4096) is None or len(image.getcolors(maxcolors=4096)) > 3


def _file_list(window: XWindow):
    """The chooser's file list and its column headers. Left out: the sidebar; the location
    entry above, whose blinking cursor would count as change; the buttons below, which
    light up on Return before the chooser has acted on it."""
    g = window.geometry()
    return window.screen.screenshot((g.x + 180, g.y + 45, g.width - 180, g.height - 145))


SELECTED = (53, 132, 228)  # the theme's selected-row blue


def _has_selected_row(image) -> bool:
    return sum(1 for p in image.reduce(2).getdata() if p == SELECTED) > 500


def _settle(window: XWindow, before, timeout: float = 5, loaded: bool = False):
    """Waits until the file list looks different from `before` and has stopped changing.

    loaded: also wait for a selected row, which GTK puts on the first file once a
    folder has been read (an empty list can look settled while it still loads)."""
    last = None

    def check():
        nonlocal last
        image = _file_list(window)
        now = image.tobytes()
        if now == before:
            return False
        settled = now == last and (not loaded or _has_selected_row(image))
        last = now
        return settled
    poll(check, timeout, 0.1, "the file list did not change or never came to rest")


def go_home(dialog: XWindow):
    # GTK's chooser opens on "Recent", where a typed location is ignored;
    # from a real folder (Alt+Home) it is followed.
    before = _file_list(dialog).tobytes()
    dialog.screen.key("alt+Home")
    try:
        _settle(dialog, before, timeout=2)
    except AssertionError:
        pass  # it showed the home folder already


def type_location(dialog: XWindow, path: str):
    """Ctrl+L, the path, Return: opens a folder (path ending in /) or accepts the path."""
    go_home(dialog)
    dialog.screen.key("ctrl+l")
    dialog.screen.type_text(path)
    # Inline completion may still be running; let the entry settle before Return.
    time.sleep(0.1)
    before = _file_list(dialog).tobytes()
    dialog.screen.key("Return")
    return before


def choose_path(dialog: XWindow, path: str, attempts: int = 3):
    """Types path into the chooser and accepts it; Return again if the entry's completion took it."""
    type_location(dialog, path)
    for _ in range(attempts):
        try:
            poll(lambda: not dialog.is_viewable(), 1.5)
            return
        except AssertionError:
            dialog.screen.key("Return")
    raise AssertionError(f"the chooser did not take {path}")


def select_all_in(dialog: XWindow, folder: str, attempts: int = 3):
    """Opens folder in the chooser, then Ctrl+A (select all, where selection allows) and Return.

    The location entry's completion may swallow the Return meant to open the
    folder (the entry is still there then, and Ctrl+A selects its text), so
    Ctrl+A and Return are repeated until the chooser closes."""
    before = type_location(dialog, folder.rstrip("/") + "/")
    for _ in range(attempts):
        try:
            _settle(dialog, before, timeout=1.5, loaded=True)
        except AssertionError:
            pass  # nothing moved: the list is as it was
        before = _file_list(dialog).tobytes()
        dialog.screen.key("ctrl+a")
        dialog.screen.key("Return")
        try:
            poll(lambda: not dialog.is_viewable(), 1.5)
            return
        except AssertionError:
            continue
    raise AssertionError(f"the chooser did not take the files in {folder}")
