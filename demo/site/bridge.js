// The page's half of the Ondrel bridge: window.__ondrel with `invoke` (the
// app calls page handlers) and `__resolve` (the app answers our requests).
(function () {
  const pending = new Map();
  const handlers = new Map();
  const listeners = [];
  let nextId = 1;

  function post(message) {
    window.webkit.messageHandlers.ondrel.postMessage(message);
  }

  const ondrel = {
    available: !!(window.webkit && window.webkit.messageHandlers && window.webkit.messageHandlers.ondrel),

    // Calls a native action; resolves with its value, rejects with its error text.
    call(name, ...args) {
      const reqId = 'demo-' + nextId++;
      const started = performance.now();
      return new Promise((resolve, reject) => {
        if (!ondrel.available) {
          reject(new Error('not running inside Ondrel'));
          return;
        }
        pending.set(reqId, { resolve, reject, name, started });
        post({ __reqId: reqId, name, args });
      });
    },

    handle(name, fn) { handlers.set(name, fn); },
    onCall(fn) { listeners.push(fn); },

    __resolve(reqId, ok, value) {
      const entry = pending.get(reqId);
      if (!entry) return;
      pending.delete(reqId);
      entry.ms = performance.now() - entry.started;
      if (ok) entry.resolve({ value, ms: entry.ms });
      else entry.reject(Object.assign(new Error(String(value)), { ms: entry.ms }));
    },

    async invoke(callId, name, ...args) {
      const fn = handlers.get(name);
      listeners.forEach((l) => l(name, args));
      try {
        if (!fn) throw new Error('no handler named ' + name);
        post({ __bridgeId: callId, ok: true, value: await fn(...args) });
      } catch (e) {
        post({ __bridgeId: callId, ok: false, error: String(e.message || e) });
      }
    },
  };
  window.__ondrel = ondrel;
})();
