"""GTK file choosers the app opens (folder picker, file inputs, save dialog), driven by keys.

Paths are typed into the location entry (Ctrl+L), whose completion may swallow a Return, so Return is
repeated until the chooser closes.
"""

from __future__ import annotations

from harness import App, XWindow, poll


def wait_dialog(app: App, title: str | None = None, timeout: float = 10) -> XWindow:
    """The app's first top-level window other than its main one, painted and given the focus."""
    def find():
        return next((w for w in app.screen.toplevels(pid=app.pid)
                     if w.title() != "Ondrel" and title in (None, w.title())), None)
    dialog = poll(find, timeout, 0.05, f"no dialog {title or ''} from ondrel")
    poll(lambda: len(dialog.screenshot().reduce(8).getcolors(maxcolors=4096) or range(99)) > 3, timeout, 0.05,
         "the dialog was never painted")
    dialog.focus()
    return dialog


def wait_dialog_gone(app: App, timeout: float = 10):
    poll(lambda: all(w.title() == "Ondrel" for w in app.screen.toplevels(pid=app.pid)), timeout, 0.05,
         "the dialog is still open")


def _file_list(window: XWindow) -> bytes:
    """The chooser's file list, without the sidebar, the blinking location entry and the buttons."""
    g = window.geometry()
    return window.screen.screenshot((g.x + 180, g.y + 45, g.width - 180, g.height - 145)).tobytes()


def _settled(window: XWindow, before: bytes, timeout: float, still: int = 1):
    """Waits until the file list differs from `before` and has not changed over `still` looks 0.1 s apart;
    quietly gives up."""
    last, same = [None], [0]

    def check():
        now = _file_list(window)
        same[0] = same[0] + 1 if now == last[0] else 0
        last[0] = now
        return now != before and same[0] >= still
    try:
        poll(check, timeout, 0.1)
    except AssertionError:
        pass


def _return_until_closed(dialog: XWindow, path: str, keys=("Return",), attempts: int = 3):
    for _ in range(attempts):
        before = _file_list(dialog)
        dialog.screen.key(*keys)
        try:
            return poll(lambda: not dialog.is_viewable(), 1.5)
        except AssertionError:
            _settled(dialog, before, 1.5)
    raise AssertionError(f"the chooser did not take {path}")


def choose_path(dialog: XWindow, path: str):
    """Types path into the chooser and accepts it."""
    dialog.screen.key("ctrl+l")
    dialog.screen.type_text(path)
    _return_until_closed(dialog, path)


def select_all_in(dialog: XWindow, folder: str):
    """Opens folder in the chooser (once it has been read, GTK selects its first file), then Ctrl+A and Return."""
    dialog.screen.key("ctrl+l")
    dialog.screen.type_text(folder.rstrip("/") + "/")
    before = _file_list(dialog)
    dialog.screen.key("Return")
    # A busy machine lists the folder's files in more than one paint: select all only once it has rested.
    _settled(dialog, before, 5, still=5)
    _return_until_closed(dialog, folder, keys=("ctrl+a", "Return"))
