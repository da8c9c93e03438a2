// The page's half of the bridge, plus a command channel for tests (see bridge_client.py).
// Loaded as bridge.html?ch=<channel>; with &bare=1 it leaves window.__ondrel undefined, as a page
// that never brought its half of the bridge.
(function () {
  const params = new URLSearchParams(location.search);
  const ch = params.get('ch') || '';
  const bare = params.get('bare') === '1';
  // A fresh id per page load, so the server can tell a reloaded page's poll from an orphaned one.
  const inst = Math.random().toString(36).slice(2) + Date.now().toString(36);

  function send(kind, data) {
    return report(kind, Object.assign({ ch: ch, inst: inst, host: location.host }, data || {}));
  }

  if (!bare) {
    window.__ondrel = {
      // The probe's "greet" is the only call the app makes.
      invoke: function (id, handler, ...args) {
        send('invoke', { id: id, handler: handler, args: args });
        const answer = { __bridgeId: id, ok: true, value: 'hello ' + args.join(' ') };
        window.webkit.messageHandlers.ondrel.postMessage(answer);
      },
      __resolve: function (reqId, ok, value) {
        send('reply', { reqId: reqId, reqIdType: typeof reqId, ok: ok, okType: typeof ok, argc: arguments.length,
                        value: value === undefined ? null : value });
      },
    };
  }

  window.__bridgeTest = { inst: inst, send: send };

  const AsyncFunction = Object.getPrototypeOf(async function () {}).constructor;
  // The server answers a poll within 2 s. A poll still open after 4 s is dead (WebKit can leave a
  // fetch hanging after a navigation turned into a download) and is replaced; the server keeps the
  // command until the test has seen it done, so nothing is lost.
  const POLL_GIVE_UP_MS = 4000;

  async function poll() {
    let n = 0;
    let lastDone = '';
    for (;;) {
      let cmd = null;
      const abort = new AbortController();
      const timer = setTimeout(function () { abort.abort(); }, POLL_GIVE_UP_MS);
      try {
        const r = await fetch('/bridge/next?ch=' + encodeURIComponent(ch) + '&inst=' + inst + '&n=' + (n++) +
                              '&done=' + encodeURIComponent(lastDone), { cache: 'no-store', signal: abort.signal });
        cmd = await r.json();
      } catch (e) {
        await new Promise(function (done) { setTimeout(done, 100); });
        continue;
      } finally {
        clearTimeout(timer);
      }
      if (!cmd || cmd.id === lastDone) continue;
      lastDone = cmd.id;
      let result;
      try {
        // A navigation happens after the report, below.
        result = { ok: true, value: cmd.op === 'run' ? await new AsyncFunction(cmd.code)() : null };
      } catch (e) {
        result = { ok: false, error: String(e && e.stack || e) };
      }
      await send('cmd-done', Object.assign({ id: cmd.id }, result));
      if (cmd.op === 'navigate') location.href = cmd.url;
    }
  }

  window.addEventListener('load', function () {
    send('bridge-ready', { bare: bare, href: location.href });
    poll();
  });
})();
