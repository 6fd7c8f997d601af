// The debug page: every request goes to the device's debug service through the
// front end; answers are read as streams so that long downloads show progress,
// live traces appear as they come, and errors are told in words.
'use strict';

const CGI = 'cgi-bin/nph-debug.cgi';
// Names the runtime trace understands; the checked ones form its "trace" list.
const RTRACE_ITEMS = ['smaps', 'status', 'smapstot', 'filenr', 'meminfo', 'diskinfo',
  'iostat', 'pagetypeinfo', 'hearth', 'event', 'pidstat'];
// The service's default set ("fast").
const RTRACE_DEFAULT = ['smapstot', 'filenr', 'meminfo', 'diskinfo', 'iostat', 'event', 'pidstat'];

const $ = (id) => document.getElementById(id);

function setStatus(name, kind, text, detail) {
  const el = $(name + '-status');
  el.className = 'status' + (kind ? ' ' + kind : '');
  el.textContent = text;
  if (detail) {
    const d = document.createElement('span');
    d.className = 'detail';
    d.textContent = detail;
    el.appendChild(d);
  }
}

function size(n) {
  if (n < 1024) return n + ' bytes';
  if (n < 1024 * 1024) return (n / 1024).toFixed(1) + ' KiB';
  return (n / 1048576).toFixed(1) + ' MiB';
}

// Text of an HTML or plain error body, for the small print.
function bodyText(raw) {
  const doc = new DOMParser().parseFromString(raw, 'text/html');
  return (doc.body ? doc.body.textContent : raw).replace(/\s+/g, ' ').trim();
}

// What a failed answer means for the person in front of the page.
function explain(status, raw, badRequest) {
  const said = bodyText(raw);
  if (status === 400)
    return [badRequest || 'The device did not accept this request.', said];
  if (status === 500)
    return ['The debug service on the device failed inside and could not complete the request. ' +
      'Try again; if it keeps failing, the device may need a restart.', said];
  if (status === 503) {
    if (/not running/i.test(said))
      return ['The debug service is not running on the device, so nothing can be collected.', said];
    return ['The device is busy making another debug archive. Please try again when it is finished.', said];
  }
  return ['The device answered with an unexpected status (HTTP ' + status + ').', said];
}

function fileName(res, fallback) {
  const m = /filename="([^"]*)"/.exec(res.headers.get('Content-Disposition') || '');
  return m && m[1] ? m[1] : fallback;
}

function blobOf(r) {
  return new Blob(r.chunks, { type: r.res.headers.get('Content-Type') || 'application/octet-stream' });
}

function save(blob, name) {
  const a = document.createElement('a');
  a.href = URL.createObjectURL(blob);
  a.download = name;
  document.body.appendChild(a);
  a.click();
  a.remove();
  setTimeout(() => URL.revokeObjectURL(a.href), 60000);
}

// One request to the service.  Streams the body to onData(chunk, total); resolves
// to {res, chunks, total, stopped} or null after showing the error.
async function run(name, query, opts) {
  const ctl = new AbortController();
  if (opts.onStart) opts.onStart(() => ctl.abort());
  const url = CGI + (opts.path || '') + (query ? '?' + query : '');
  let res;
  try {
    res = await fetch(url, { signal: ctl.signal, cache: 'no-store' });
  } catch (e) {
    if (ctl.signal.aborted) { setStatus(name, '', 'Stopped.'); return null; }
    setStatus(name, 'error', 'The device could not be reached or closed the connection without an answer.', String(e));
    return null;
  }
  if (!res.ok) {
    const [text, detail] = explain(res.status, await res.text().catch(() => ''), opts.badRequest);
    setStatus(name, 'error', text, detail);
    return null;
  }
  if (opts.onHeaders) opts.onHeaders();
  const reader = res.body.getReader();
  const chunks = [];
  let total = 0, stopped = false;
  try {
    for (;;) {
      const { done, value } = await reader.read();
      if (done) break;
      if (opts.keep !== false) chunks.push(value);
      total += value.length;
      if (opts.onData) opts.onData(value, total);
    }
  } catch (e) {
    if (!ctl.signal.aborted) {
      setStatus(name, 'error', 'The connection to the device broke off after ' + size(total) + '.', String(e));
      return null;
    }
    stopped = true;
  }
  return { res, chunks, total, stopped };
}

function busy(ids, on) {
  for (const [id, whenBusy] of Object.entries(ids)) $(id).disabled = on ? !whenBusy : whenBusy;
}

// Debug archive.
for (const fmt of ['tgz', 'tar']) {
  $('archive-' + fmt).addEventListener('click', async () => {
    const buttons = { 'archive-tgz': false, 'archive-tar': false };
    busy(buttons, true);
    setStatus('archive', 'busy', 'Making the debug archive…');
    const r = await run('archive', '', {
      path: '/debug.' + fmt,
      onData: (c, n) => setStatus('archive', 'busy', 'Making the debug archive… ' + size(n) + ' received'),
    });
    busy(buttons, false);
    if (!r) return;
    const name = fileName(r.res, 'debug.' + fmt);
    save(blobOf(r), name);
    setStatus('archive', 'ok', 'Saved ' + name + ' (' + size(r.total) + ').');
  });
}

// Packet capture.
$('pcap-start').addEventListener('click', async () => {
  const q = new URLSearchParams({ cmd: 'pcapdump', duration: $('pcap-duration').value || '0',
    totalsize: $('pcap-size').value || '0' });
  const buttons = { 'pcap-start': false, 'pcap-stop': true };
  busy(buttons, true);
  setStatus('pcap', 'busy', 'Capturing…');
  const r = await run('pcap', q.toString(), {
    onStart: (stop) => { $('pcap-stop').onclick = stop; },
    onData: (c, n) => setStatus('pcap', 'busy', 'Capturing… ' + size(n)),
  });
  busy(buttons, false);
  if (!r) return;
  const name = fileName(r.res, 'pcapdump.cap');
  save(blobOf(r), name);
  setStatus('pcap', 'ok', (r.stopped ? 'Stopped. ' : '') + 'Saved ' + name + ' (' + size(r.total) + ').');
});

// Process list.
$('ps-show').addEventListener('click', async () => {
  $('ps-show').disabled = true;
  setStatus('ps', 'busy', 'Reading the process list…');
  const r = await run('ps', 'cmd=ps', {});
  $('ps-show').disabled = false;
  if (!r) return;
  const blob = new Blob(r.chunks, { type: 'text/plain' });
  $('ps-out').textContent = await blob.text();
  $('ps-out').hidden = false;
  $('ps-save').href = URL.createObjectURL(blob);
  $('ps-save').hidden = false;
  setStatus('ps', 'ok', 'Process list of ' + new Date().toLocaleTimeString() + '.');
});

// Live system-call trace: the text goes into the page as it arrives; Stop closes
// the connection, which ends the trace on the device.
const TRACE_KEEP = 512 * 1024;
$('strace-start').addEventListener('click', async () => {
  const pid = $('strace-pid').value.trim();
  const q = new URLSearchParams({ cmd: 'strace' });
  if (pid) q.set('pid', pid);
  const out = $('strace-out');
  const dec = new TextDecoder();
  out.textContent = '';
  out.hidden = false;
  $('strace-save').hidden = true;
  const buttons = { 'strace-start': false, 'strace-stop': true };
  busy(buttons, true);
  setStatus('strace', 'busy', 'Connecting…');
  let lines = 0;
  const r = await run('strace', q.toString(), {
    badRequest: 'No running process matches "' + (pid || 'all processes') +
      '". Give process ids or program names of running processes, separated by commas.',
    onStart: (stop) => { $('strace-stop').onclick = stop; },
    onHeaders: () => setStatus('strace', 'busy', 'Tracing…'),
    onData: (c) => {
      const text = dec.decode(c, { stream: true });
      lines += (text.match(/\n/g) || []).length;
      const stick = out.scrollTop + out.clientHeight >= out.scrollHeight - 4;
      out.textContent = (out.textContent + text).slice(-TRACE_KEEP);
      if (stick) out.scrollTop = out.scrollHeight;
      setStatus('strace', 'busy', 'Tracing… ' + lines + ' lines');
    },
  });
  busy(buttons, false);
  if (!r) { if (!out.textContent) out.hidden = true; return; }
  $('strace-save').href = URL.createObjectURL(new Blob(r.chunks, { type: 'text/plain' }));
  $('strace-save').hidden = false;
  setStatus('strace', 'ok', (r.stopped ? 'Trace stopped' : 'The traced processes have ended') +
    ' after ' + lines + ' lines.');
});

// Runtime trace.
const items = $('rtrace-items');
for (const n of RTRACE_ITEMS) {
  const l = document.createElement('label');
  const c = document.createElement('input');
  c.type = 'checkbox';
  c.value = n;
  c.id = 'rtrace-' + n;
  c.checked = RTRACE_DEFAULT.includes(n);
  l.append(c, n);
  items.appendChild(l);
}
$('rtrace-start').addEventListener('click', async () => {
  const q = new URLSearchParams({ cmd: 'rtrace', interval: $('rtrace-interval').value || '10' });
  const picked = RTRACE_ITEMS.filter((n) => $('rtrace-' + n).checked);
  if (picked.length) q.set('trace', picked.join(','));
  const buttons = { 'rtrace-start': false, 'rtrace-stop': true };
  busy(buttons, true);
  setStatus('rtrace', 'busy', 'Sampling…');
  const r = await run('rtrace', q.toString(), {
    onStart: (stop) => { $('rtrace-stop').onclick = stop; },
    onData: (c, n) => setStatus('rtrace', 'busy', 'Sampling… ' + size(n) + ' received'),
  });
  busy(buttons, false);
  if (!r) return;
  const name = fileName(r.res, 'rtrace');
  save(blobOf(r), name);
  setStatus('rtrace', 'ok', 'Saved ' + name + ' (' + size(r.total) + ').');
});

// Core dump of one process.
$('core-start').addEventListener('click', async () => {
  const pid = $('core-pid').value.trim();
  if (!pid) {
    setStatus('core', 'error', 'Enter the id or the name of a running process.');
    return;
  }
  $('core-start').disabled = true;
  setStatus('core', 'busy', 'Dumping ' + pid + '…');
  const r = await run('core', new URLSearchParams({ cmd: 'coredump', pid }).toString(), {
    badRequest: 'No running process has the id or name "' + pid + '".',
    onData: (c, n) => setStatus('core', 'busy', 'Dumping ' + pid + '… ' + size(n)),
  });
  $('core-start').disabled = false;
  if (!r) return;
  const name = fileName(r.res, 'core');
  save(blobOf(r), name);
  setStatus('core', 'ok', 'Saved ' + name + ' of ' + pid + ' (' + size(r.total) + ').');
});

// Waiting for the next crash.
$('listen-start').addEventListener('click', async () => {
  const buttons = { 'listen-start': false, 'listen-stop': true };
  busy(buttons, true);
  setStatus('listen', 'busy', 'Waiting for a process to crash…');
  const r = await run('listen', 'listen', {
    path: '/core',
    onStart: (stop) => { $('listen-stop').onclick = stop; },
    onHeaders: () => setStatus('listen', 'busy', 'A core file is arriving…'),
    onData: (c, n) => setStatus('listen', 'busy', 'A core file is arriving… ' + size(n)),
  });
  busy(buttons, false);
  if (!r) {
    if (!$('listen-status').classList.contains('error')) setStatus('listen', '', 'Stopped waiting.');
    return;
  }
  if (r.stopped || r.total === 0) { setStatus('listen', '', 'Stopped waiting.'); return; }
  const name = fileName(r.res, 'core');
  save(blobOf(r), name);
  setStatus('listen', 'ok', 'Saved ' + name + ' (' + size(r.total) + ') of the process that crashed.');
});
