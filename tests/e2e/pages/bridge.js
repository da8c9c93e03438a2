// The page's half of the bridge, plus a command channel for tests.
//
// Loaded as bridge.html?ch=<channel>. The page long-polls /bridge/next for
// commands from the test (see bridge_client.py) and reports everything it
// sees with report(). With &bare=1 it leaves window.__ondrel undefined, as a
// page that never brought its half of the bridge.
(function () {
  const params = new URLSearchParams(location.search);
  const ch = params.get('ch') || '';
  const bare = params.get('bare') === '1';
  // A fresh id per page load, so the server can tell a reloaded page's poll
  // from an orphaned one of the page before.
  const inst = Math.random().toString(36).slice(2) + Date.now().toString(36);
  // Longer string replies are reported as length + digest: a 16 MB reply
  // would otherwise travel back through a report.
  const SUMMARY_OVER = 65536;

  function send(kind, data) {
    return report(kind, Object.assign({ ch: ch, inst: inst, host: location.host }, data || {}));
  }

  function postToNative(body) {
    window.webkit.messageHandlers.ondrel.postMessage(body);
  }

  // --- digests of large replies ---------------------------------------

  function hex(buffer) {
    return Array.from(new Uint8Array(buffer), function (b) { return b.toString(16).padStart(2, '0'); }).join('');
  }

  function bytesOf(text, decoding) {
    if (decoding === 'base64') {
      const binary = atob(text);
      const bytes = new Uint8Array(binary.length);
      for (let i = 0; i < binary.length; i++) bytes[i] = binary.charCodeAt(i);
      return bytes;
    }
    return new TextEncoder().encode(text);
  }

  async function summary(text, decoding) {
    const out = { length: text.length, decoding: decoding };
    try {
      const bytes = bytesOf(text, decoding);
      out.size = bytes.length;
      out.sha256 = hex(await crypto.subtle.digest('SHA-256', bytes));
    } catch (e) {
      out.error = String(e);
    }
    return out;
  }

  // --- window.__ondrel ------------------------------------------------

  // What the page asked for under each request id, so a reply can be decoded
  // the way its action encodes it.
  const asked = {};

  // Page handlers the native side may invoke; a test can replace or add
  // entries through window.__bridgeTest.handlers.
  const handlers = {
    greet: function () { return 'hello ' + Array.prototype.join.call(arguments, ' '); },
  };

  if (!bare) {
    window.__ondrel = {
      invoke: function (id, handler) {
        const args = Array.prototype.slice.call(arguments, 2);
        send('invoke', { id: id, idType: typeof id, handler: handler, args: args });
        const fn = handlers[handler];
        let answer;
        if (!fn) {
          answer = { __bridgeId: id, ok: false, error: 'no handler ' + handler };
        } else {
          try {
            answer = { __bridgeId: id, ok: true, value: fn.apply(null, args) };
          } catch (e) {
            answer = { __bridgeId: id, ok: false, error: String(e) };
          }
        }
        postToNative(answer);
      },
      __resolve: function (reqId, ok, value) {
        const entry = {
          reqId: reqId, reqIdType: typeof reqId, ok: ok, okType: typeof ok, argc: arguments.length,
        };
        if (typeof value === 'string' && value.length > SUMMARY_OVER) {
          const decoding = asked[String(reqId)] === 'readFileBase64' ? 'base64' : 'utf-8';
          summary(value, decoding).then(function (s) {
            entry.summary = s;
            send('reply', entry);
          });
          return;
        }
        entry.value = value === undefined ? null : value;
        entry.valueType = value === undefined ? 'undefined' : (value === null ? 'null' : typeof value);
        send('reply', entry);
      },
    };
  }

  window.__bridgeTest = { ch: ch, inst: inst, handlers: handlers, send: send, post: postToNative };

  // --- commands from the test -----------------------------------------

  const AsyncFunction = Object.getPrototypeOf(async function () {}).constructor;
  // The server answers a poll within 2 s. A poll still open after 4 s is
  // dead (WebKit can leave a page's fetch hanging, e.g. after a navigation
  // of the page turned into a download) and is replaced; the server keeps
  // the command until the test has seen it done, so nothing is lost.
  const POLL_GIVE_UP_MS = 4000;

  async function perform(cmd) {
    if (cmd.op === 'post') {
      for (const body of cmd.bodies) {
        if (body && typeof body === 'object' && '__reqId' in body) asked[String(body.__reqId)] = body.name;
        postToNative(body);
      }
      return null;
    }
    if (cmd.op === 'run') return await new AsyncFunction(cmd.code)();
    if (cmd.op === 'navigate') return null;  // after the report, below
    throw new Error('unknown command ' + cmd.op);
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
