// Sends what a page observed back to the test's web server.
(function () {
  let seq = 0;
  window.report = function (kind, data) {
    const body = Object.assign({
      kind: kind,
      seq: seq++,
      page: location.pathname + location.search,
      frame: window !== window.top,
    }, data || {});
    return fetch('/report', {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(body),
      keepalive: true,
    }).catch(function () {});
  };
  window.addEventListener('load', function () {
    report('load', { href: location.href, title: document.title });
  });
})();
