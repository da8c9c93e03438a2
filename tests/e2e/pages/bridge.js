// The page's half of the bridge, plus a command channel for tests (see bridge_client.py).
// Loaded as bridge.html?ch=<channel>; with &bare=1 it leaves window.__ondrel undefined, as a page
// that never brought its half of the bridge.
(function () {
  const params = new URLSearchParams(location.search);
  const ch = params.get('ch') || '';
  const bare = params.get('bare') === '1';
  // A fresh id per page load, so the server can tell a reloaded page's poll from an orphaned one.
  const inst = Math.random().toString(36).slice(2) + Date.now().toString(36);
  const SUMMARY_OVER = 65536;  // longer string replies are reported as length + digest
  const asked = {};  // request id -> action name, to know how a long reply is encoded

  function send(kind, data) {
    return report(kind, Object.assign({ ch: ch, inst: inst, host: location.host }, data || {}));
  }

  function postToNative(body) {
    window.webkit.messageHandlers.ondrel.postMessage(body);
  }

  async function summary(text, decoding) {
    const out = { length: text.length };
    try {
      const bytes = decoding === 'base64' ? Uint8Array.from(atob(text), function (c) { return c.charCodeAt(0); })
                                          : new TextEncoder().encode(text);
      out.size = bytes.length;
      out.sha256 = Array.from(new Uint8Array(await crypto.subtle.digest('SHA-256', bytes)),
                              function (b) { return b.toString(16).padStart(2, '0'); }).join('');
    } catch (e) {
      out.error = String(e);
    }
    return out;
  }

  const handlers = {
    greet: function () { return 'hello ' + Array.prototype.join.call(arguments, ' '); },
  };

  if (!bare) {
    window.__ondrel = {
      invoke: function (id, handler) {
        const args = Array.prototype.slice.call(arguments, 2);
        send('invoke', { id: id, handler: handler, args: args });
        let answer;
        try {
          answer = { __bridgeId: id, ok: true, value: handlers[handler].apply(null, args) };
        } catch (e) {
          answer = { __bridgeId: id, ok: false, error: String(e) };
        }
        postToNative(answer);
      },
      __resolve: function (reqId, ok, value) {
        const entry = { reqId: reqId, reqIdType: typeof reqId, ok: ok, okType: typeof ok, argc: arguments.length };
        if (typeof value === 'string' && value.length > SUMMARY_OVER) {
          summary(value, asked[String(reqId)] === 'readFileBase64' ? 'base64' : 'utf-8').then(function (s) {
            entry.summary = s;
            send('reply', entry);
          });
          return;
        }
        entry.value = value === undefined ? null : value;
        send('reply', entry);
      },
    };
  }

  window.__bridgeTest = { inst: inst, send: send };

  const AsyncFunction = Object.getPrototypeOf(async function () {}).constructor;
  // The server answers a poll within 2 s. A poll still open after 4 s is dead (WebKit can leave a
  // fetch hanging after a navigation turned into a download) and is replaced; the server keeps the
  // command until the test has seen it done, so nothing is lost.
  const POLL_GIVE_UP_MS = 4000;

  async function perform(cmd) {
    if (cmd.op === 'post') {
      for (const body of cmd.bodies) {
        if (body && typeof body === 'object' && '__reqId' in body) asked[String(body.__reqId)] = body.name;
        postToNative(body);
      }
    } else if (cmd.op === 'run') {
      return await new AsyncFunction(cmd.code)();
    }
    return null;  // navigate: after the report, below
  }

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
        result = { ok: true, value: await perform(cmd) };
      } catch (e) {
        result = { ok: false, error: String(e && e.stack || e) };
      }
      if (result.value === undefined) result.value = null;
      await send('cmd-done', Object.assign({ id: cmd.id }, result));
      if (cmd.op === 'navigate') location.href = cmd.url;
    }
  }

  window.addEventListener('load', function () {
    send('bridge-ready', { bare: bare, href: location.href });
    poll();
  });
})();
