(function () {
  const host = window.__ondrelHost;
  const ondrel = window.__ondrel;
  const status = document.getElementById('host-status');
  status.textContent = host ? `running in Ondrel on ${host.platform}` : 'not running in Ondrel';
  status.className = 'host ' + (host ? 'ok' : 'missing');
  if (host) document.documentElement.style.setProperty('--inset', host.topInset + 'px');

  const log = document.getElementById('log');
  function show(kind, title, body, ms) {
    const item = document.createElement('li');
    item.className = kind;
    const head = document.createElement('div');
    head.className = 'entry-head';
    head.textContent = title;
    if (ms !== undefined) {
      const t = document.createElement('span');
      t.className = 'ms';
      t.textContent = ms.toFixed(1) + ' ms';
      head.appendChild(t);
    }
    const pre = document.createElement('pre');
    pre.textContent = body;
    item.append(head, pre);
    log.prepend(item);
  }
  document.getElementById('clear-log').onclick = () => { log.textContent = ''; };

  function pretty(value) {
    let text = typeof value === 'string' ? JSON.stringify(value) : JSON.stringify(value, null, 2);
    if (text === undefined) text = String(value);
    return text.length > 1200 ? text.slice(0, 1200) + `… (${text.length} characters)` : text;
  }

  const argsFor = {
    readFile: (f) => [f.path.value],
    readFileBase64: (f) => [f.path.value],
    writeFile: (f) => [f.path.value, f.content.value],
    pickDirectory: (f) => [f.message.value],
    setProjectDir: (f) => [f.id.value, f.path.value],
    getProjectDirs: () => [],
    exec: (f) => [f.dir.value, f.command.value],
    mcpServers: () => [],
    mcpCall: (f) => [f.server.value, f.tool.value, JSON.parse(f.arguments.value || '{}')],
    platform: () => [],
    setChromeScrim: (f) => {
      const hex = f.color.value;
      const c = [1, 3, 5].map((i) => parseInt(hex.slice(i, i + 2), 16));
      return [...c, Number(f.alpha.value)];
    },
    playSound: (f, submitter) => [submitter ? submitter.value : 'complete'],
  };

  async function run(name, args) {
    try {
      const { value, ms } = await ondrel.call(name, ...args);
      show('ok', `${name} ✓`, pretty(value), ms);
      return value;
    } catch (e) {
      show('err', `${name} ✗`, String(e.message), e.ms);
      return undefined;
    }
  }

  document.querySelectorAll('form[data-action]').forEach((form) => {
    form.addEventListener('submit', async (event) => {
      event.preventDefault();
      const name = form.dataset.action;
      let args;
      try {
        args = argsFor[name](form, event.submitter);
      } catch (e) {
        show('err', `${name} ✗`, 'bad input: ' + e.message);
        return;
      }
      const value = await run(name, args);
      if (name === 'pickDirectory' && typeof value === 'string') {
        document.getElementById('project-path').value = value;
      }
      if (name === 'readFileBase64' && typeof value === 'string') {
        const preview = document.getElementById('b64-preview');
        preview.textContent = '';
        if (value.startsWith('iVBORw0KGgo')) {
          const img = new Image();
          img.src = 'data:image/png;base64,' + value;
          preview.appendChild(img);
        }
        const size = document.createElement('span');
        size.textContent = `${Math.floor(value.length * 3 / 4)} bytes`;
        preview.appendChild(size);
      }
    });
  });
  document.getElementById('scrim-clear').onclick = () => run('setChromeScrim', []);

  // The app calls this once after every load to check the bridge.
  ondrel.handle('greet', (...args) => `hello from the demo instance (${args.join(', ')})`);
  ondrel.onCall((name, args) => show('call', `app called ${name}`, pretty(args)));

  window.addEventListener('load', () => { fetch('/__loaded').catch(() => {}); });
})();
