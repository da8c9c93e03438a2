(function () {
  const host = window.__ondrelHost;
  const status = document.getElementById('host-status');
  document.getElementById('host-object').textContent =
    host ? JSON.stringify(host, null, 2) : 'window.__ondrelHost is not set: open this page in Ondrel.';
  status.textContent = host ? `running in Ondrel on ${host.platform}` : 'not running in Ondrel';
  status.className = 'host ' + (host ? 'ok' : 'missing');
  if (host) document.documentElement.style.setProperty('--inset', host.topInset + 'px');
  // Lets a headless run know the page is up (ignored by a plain server).
  window.addEventListener('load', () => { fetch('/__loaded').catch(() => {}); });
})();
