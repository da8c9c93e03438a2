"""How long a window takes to answer input, measured from outside.

Every few milliseconds the probe sends the window a _NET_WM_PING, the message
a window manager sends to find out whether a client still answers; GTK answers
it from its main loop when it handles X events, like any key or click. The
time to the answer is how late the main loop is for input at that moment.
"""

from __future__ import annotations

import select
import threading
import time

from Xlib import X, display as xdisplay
from Xlib.protocol import event as xevent


class InputProbe:
    def __init__(self, display_name: str, window_id: int, interval: float = 0.005):
        self.d = xdisplay.Display(display_name)
        self.root = self.d.screen().root
        self.window = self.d.create_resource_object("window", window_id)
        self.interval = interval
        self.samples: list[tuple[float, float]] = []  # (sent at, seconds to the answer)
        self._stop = threading.Event()
        self._protocols = self.d.intern_atom("WM_PROTOCOLS")
        self._ping = self.d.intern_atom("_NET_WM_PING")
        # The answer goes to the root window, as the window manager's would.
        self.root.change_attributes(event_mask=X.SubstructureNotifyMask)
        self.d.sync()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def start(self) -> "InputProbe":
        self._thread.start()
        return self

    def stop(self) -> list[tuple[float, float]]:
        self._stop.set()
        self._thread.join(timeout=30)
        try:
            self.d.close()
        except Exception:
            pass
        return self.samples

    def _run(self):
        stamp = 0
        while not self._stop.is_set():
            stamp = (stamp + 1) & 0x7FFFFFFF
            message = xevent.ClientMessage(window=self.window, client_type=self._protocols,
                                           data=(32, [self._ping, stamp, self.window.id, 0, 0]))
            sent = time.monotonic()
            self.window.send_event(message, event_mask=X.NoEventMask)
            self.d.flush()
            if self._wait_answer(stamp):
                self.samples.append((sent, time.monotonic() - sent))
            time.sleep(self.interval)

    def _wait_answer(self, stamp: int) -> bool:
        while not self._stop.is_set():
            if not self.d.pending_events():
                select.select([self.d.fileno()], [], [], 0.05)
                continue
            ev = self.d.next_event()
            if ev.type == X.ClientMessage and ev.client_type == self._protocols:
                fmt, data = ev.data
                if data[0] == self._ping and data[1] == stamp:
                    return True
        return False
