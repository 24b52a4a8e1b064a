// The collector's inspector. Reads the collector's JSON API under
// /inspect/api/ and shows it; polls for what arrives. Every value that came
// from a device is put into the page as text (textContent), never as markup.
'use strict';

const POLL_MS = 1000;
const MAX_ROWS = 500;         // event rows kept in the list
const PAGE = 100;             // rows per request
const CHART_TYPES = 8;        // types drawn separately; the rest are "other"
const COLORS = ['#1f6feb', '#2da44e', '#bf8700', '#cf222e', '#8250df', '#1b7c83', '#bc4c00',
                '#6e7781', '#a0a7b0'];

const state = {
  tab: 'events',
  filter: {session: '', type: '', q: ''},
  paused: false,
  newest: {event: 0, error: 0, problem: 0},   // largest ids shown
  oldestEvent: null,                          // where the next older page starts (before=)
  searchedTo: null,                           // where a search stopped, when it did
  listRun: 0,                                 // the event list being filled (a new one stops the last)
  known: null,                                // the last summary read
  chartPeriod: '60:1',
  sessionsShown: -1,
  lastSessionsRead: 0,
  pending: 0,                                 // events that arrived while paused
};

const $ = (id) => document.getElementById(id);

function el(tag, props, ...children) {
  const node = document.createElement(tag);
  if (props) {
    for (const [key, value] of Object.entries(props)) {
      if (key === 'text') node.textContent = value;
      else if (key === 'class') node.className = value;
      else node.setAttribute(key, value);
    }
  }
  for (const child of children) {
    if (child === null || child === undefined) continue;
    node.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return node;
}

function svg(tag, attributes) {
  const node = document.createElementNS('http://www.w3.org/2000/svg', tag);
  for (const [key, value] of Object.entries(attributes || {})) node.setAttribute(key, value);
  return node;
}

const pad = (n, w = 2) => String(n).padStart(w, '0');
function timeText(ms) {
  if (typeof ms !== 'number' || !isFinite(ms)) return '–';
  const d = new Date(ms);
  if (isNaN(d.getTime())) return String(ms);
  return `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())} ` +
         `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}.${pad(d.getMilliseconds(), 3)}`;
}
const shortId = (id) => (typeof id === 'string' && id.length > 8 ? id.slice(0, 8) : String(id));
const pretty = (value) => JSON.stringify(value, null, 2);
function oneLine(value) {
  const text = typeof value === 'string' ? value : JSON.stringify(value);
  return text === undefined ? '' : text;
}
function cell(text, cls) { return el('td', cls ? {class: cls, text} : {text}); }
// Names a device chose may be of any length: lists show the start of them.
const clip = (text, length = 120) =>
  (typeof text === 'string' && text.length > length ? text.slice(0, length) + '…' : text);

async function api(path, params) {
  const query = new URLSearchParams();
  for (const [key, value] of Object.entries(params || {})) {
    if (value !== '' && value !== null && value !== undefined) query.set(key, value);
  }
  const url = '/inspect/api/' + path + (query.toString() ? '?' + query : '');
  const res = await fetch(url, {cache: 'no-store'});
  if (!res.ok) throw new Error(`${url}: ${res.status}`);
  return res.json();
}

// ---- address bar: the tab and filters live in the fragment ----

function readHash() {
  const params = new URLSearchParams(location.hash.slice(1));
  state.tab = params.get('tab') || 'events';
  state.filter.session = params.get('session') || '';
  state.filter.type = params.get('type') || '';
  state.filter.q = params.get('q') || '';
  if (params.get('paused') === '1') state.paused = true;
}

function writeHash() {
  const params = new URLSearchParams();
  if (state.tab !== 'events') params.set('tab', state.tab);
  for (const key of ['session', 'type', 'q']) if (state.filter[key]) params.set(key, state.filter[key]);
  const text = params.toString();
  history.replaceState(null, '', text ? '#' + text : location.pathname);
}

// ---- tabs, pause ----

function showTab(tab) {
  state.tab = tab;
  for (const button of document.querySelectorAll('#tabs button')) {
    button.classList.toggle('active', button.dataset.tab === tab);
  }
  for (const view of document.querySelectorAll('.view')) view.hidden = view.id !== 'view-' + tab;
  writeHash();
}

function showStatus(text, cls) {
  const status = $('status');
  status.textContent = text;
  status.className = 'status' + (cls ? ' ' + cls : '');
}

function setPaused(paused) {
  state.paused = paused;
  $('pause').textContent = paused ? 'Resume' : 'Pause';
  if (!paused) {
    state.pending = 0;
    poll();
  } else {
    showStatus('paused', 'paused');
  }
}

// ---- summary, filters' choices ----

function showTotals(summary) {
  const totals = $('totals');
  totals.replaceChildren();
  for (const [label, key] of [['session', 'sessions'], ['event', 'events'],
                              ['error report', 'errors'], ['problem', 'problems']]) {
    totals.append(el('span', null, el('b', {text: summary[key]}),
                     ` ${label}${summary[key] === 1 ? '' : 's'}`));
  }
  $('count-events').textContent = summary.events;
  $('count-sessions').textContent = summary.sessions;
  $('count-errors').textContent = summary.errors;
  $('count-problems').textContent = summary.problems;

  const select = $('filter-type');
  const chosen = state.filter.type;
  select.replaceChildren(el('option', {value: '', text: 'all types'}));
  for (const t of summary.eventTypes) {
    // A type cut by the collector cannot be asked for by its start.
    const option = el('option', {value: t.eventType, text: `${clip(t.eventType, 60)} (${t.count})`});
    if ('eventTypeLength' in t) option.disabled = true;
    select.append(option);
  }
  if (chosen && !summary.eventTypes.some((t) => t.eventType === chosen)) {
    select.append(el('option', {value: chosen, text: chosen}));
  }
  select.value = chosen;
}

// ---- events ----

function eventRow(event) {
  const data = 'eventData' in event ? oneLine(event.eventData) : event.dataPreview;
  const dataCell = el('td', {class: 'data'}, data.length > 200 ? data.slice(0, 200) : data);
  if ('dataPreview' in event || data.length > 200) {
    dataCell.append(el('span', {class: 'cut', text: ` … (${event.dataLength || data.length} bytes)`}));
  }
  const row = el('tr', {class: 'event'},
                 cell(timeText(event.received), 'time'), cell(timeText(event.eventTime), 'time'),
                 cell(shortId(event.sessionId), 'mono'), cell(clip(event.eventType), 'type'), dataCell);
  row.dataset.id = event.id;
  row.addEventListener('click', () => toggleDetail(row, event));
  return row;
}

async function toggleDetail(row, event) {
  const next = row.nextElementSibling;
  if (next && next.classList.contains('detail')) {
    next.remove();
    return;
  }
  const box = el('td', {colspan: 5});
  const detail = el('tr', {class: 'detail'}, box);
  row.after(detail);
  const skew = typeof event.eventTime === 'number' ? event.eventTime - event.received : null;
  box.append(el('div', {class: 'times'},
                el('div', null, el('b', {text: 'Service time (eventData.timestamp)'}), timeText(event.eventTime)),
                el('div', null, el('b', {text: 'Arrived at the collector'}), timeText(event.received)),
                el('div', null, el('b', {text: 'Difference'}), skew === null ? '–' : `${skew} ms`),
                el('div', null, el('b', {text: 'Session'}), event.sessionId),
                el('div', null, el('b', {text: 'Type'}), event.eventType)));
  const pre = el('pre', {text: 'loading…'});
  box.append(pre);
  try {
    const detail = await api('events/' + encodeURIComponent(event.id));
    if ('eventData' in detail) {
      pre.textContent = pretty(detail.eventData);
    } else {
      showInPieces(box, pre, event.id, detail);
    }
  } catch (e) {
    pre.textContent = 'could not load: ' + e.message;
  }
}

// Data too large to show whole: its first piece as the collector sent it,
// more on request, the whole as a download. Never parsed here.
const PIECE = 65536;
function showInPieces(box, pre, id, detail) {
  const url = `/inspect/api/events/${encodeURIComponent(id)}/data`;
  let loaded = new TextEncoder().encode(detail.dataPiece).length;
  const decoder = new TextDecoder();
  pre.textContent = detail.dataPiece;
  const note = el('span', {class: 'cut'});
  const more = el('button', {class: 'more', type: 'button', text: 'Show more'});
  const showNote = () => {
    note.textContent = `first ${loaded} of ${detail.dataLength} bytes `;
    more.hidden = loaded >= detail.dataLength;
  };
  more.addEventListener('click', async () => {
    more.disabled = true;
    try {
      const res = await fetch(`${url}?offset=${loaded}&length=${PIECE}`, {cache: 'no-store'});
      if (!res.ok) throw new Error(`${res.status}`);
      const bytes = new Uint8Array(await res.arrayBuffer());
      loaded += bytes.length;
      pre.append(decoder.decode(bytes, {stream: loaded < detail.dataLength}));
      showNote();
    } catch (e) {
      note.textContent = 'could not load more: ' + e.message;
    } finally {
      more.disabled = false;
    }
  });
  showNote();
  box.append(el('div', {class: 'pieces'}, note, more, ' ',
                el('a', {class: 'download', href: url, download: `event-${id}-data.json`,
                         text: `download all (${detail.dataLength} bytes)`})));
}

function eventParams(extra) {
  return Object.assign({session: state.filter.session, type: state.filter.type, q: state.filter.q,
                        limit: PAGE}, extra);
}

// What a page of the list says of the next one: a search answers with what
// it found in its slice of time and where it stopped (searchedTo), so the
// next older page starts there rather than after the last row.
function notePage(page, asked = PAGE) {
  const rows = page.events;
  state.searchedTo = page.searchedTo ?? null;
  if (state.searchedTo !== null) state.oldestEvent = state.searchedTo;
  else if (rows.length) state.oldestEvent = rows[rows.length - 1].id;
  else state.oldestEvent = null;
  $('older').hidden = rows.length < asked && state.searchedTo === null;
}

// Goes on with a search that stopped, a request at a time, until `wanted`
// rows were added, every event was searched, or the list was replaced.
async function searchOn(run, wanted) {
  const body = $('events');
  while (run === state.listRun && state.searchedTo !== null && wanted > 0) {
    $('events-note').textContent = `Searching older events (below #${state.searchedTo})…`;
    const asked = Math.min(wanted, PAGE);
    const page = await api('events', eventParams({before: state.searchedTo, limit: asked}));
    if (run !== state.listRun) return;
    body.append(...page.events.map(eventRow));
    wanted -= page.events.length;
    notePage(page, asked);
  }
  if (run === state.listRun) $('events-note').textContent = body.children.length ? '' : 'No events match.';
}

async function loadEvents() {
  const body = $('events');
  const run = ++state.listRun;
  const page = await api('events', eventParams());
  if (run !== state.listRun) return;
  body.replaceChildren(...page.events.map(eventRow));
  state.newest.event = Math.max(state.known ? state.known.lastEventId : 0,
                                page.events.length ? page.events[0].id : 0);
  notePage(page);
  $('events-note').textContent = page.events.length ? '' : 'No events match.';
  if (state.searchedTo !== null) await searchOn(run, PAGE - page.events.length);
}

async function loadOlderEvents() {
  if (state.oldestEvent === null) return;
  const run = ++state.listRun;
  const page = await api('events', eventParams({before: state.oldestEvent}));
  if (run !== state.listRun) return;
  $('events').append(...page.events.map(eventRow));
  notePage(page);
  if (state.searchedTo !== null) await searchOn(run, PAGE - page.events.length);
}

async function loadNewEvents(lastEventId) {
  const body = $('events');
  const burst = 1000;
  const page = await api('events', eventParams({after: state.newest.event, limit: burst}));
  if (page.events.length === burst || page.searchedTo !== undefined) {
    // More arrived than one read takes (or searches): start again from the newest.
    await loadEvents();
    return;
  }
  // Pages come newest first, as the list shows them.
  const fresh = page.events.map(eventRow);
  for (const row of fresh) row.classList.add('fresh');
  body.prepend(...fresh);
  state.newest.event = Math.max(lastEventId, page.events.length ? page.events[0].id : 0);
  if (state.searchedTo === null) $('events-note').textContent = body.children.length ? '' : 'No events match.';
  if (body.children.length <= MAX_ROWS && state.searchedTo !== null) return;
  while (body.children.length > MAX_ROWS) body.lastElementChild.remove();
  // Older pages go on below the last row shown (a search too, from there).
  state.searchedTo = null;
  const last = body.lastElementChild;
  if (last && last.dataset.id) state.oldestEvent = Number(last.dataset.id);
}

// ---- sessions and hellos ----

function definitionList(entries) {
  const list = el('dl');
  for (const [key, value] of entries) {
    list.append(el('dt', {text: key}), el('dd', {text: value === null || value === undefined ? '–' : oneLine(value)}));
  }
  return list;
}

async function loadSessions() {
  const page = await api('sessions', {limit: 500});
  state.lastSessionsRead = Date.now();
  const rows = [];
  const cards = [];
  const select = $('filter-session');
  const chosen = state.filter.session;
  select.replaceChildren(el('option', {value: '', text: 'all sessions'}));
  for (const s of page.sessions) {
    const hello = s.hello && typeof s.hello === 'object' ? s.hello : {};
    const skew = s.serviceTime - s.received;
    const row = el('tr', {class: 'session', title: 'Show the events of this session'},
                   cell(hello.applicationName ?? '–', 'type'), cell(hello.applicationVersion ?? '–'),
                   cell(hello.platformName ?? '–'), cell(hello.propertyName ?? '–'),
                   el('td', s.throttled ? {class: 'yes', text: 'yes'} : {text: 'no'}),
                   cell(`${skew >= 0 ? '+' : ''}${skew} ms`, 'mono'),
                   cell(timeText(s.received), 'time'), cell(timeText(s.lastSeen), 'time'),
                   cell(s.eventCount), cell(s.sessionId, 'mono'));
    row.addEventListener('click', () => {
      state.filter.session = s.sessionId;
      showTab('events');
      applyFilters();
    });
    rows.push(row);
    select.append(el('option', {value: s.sessionId,
                                text: `${shortId(s.sessionId)} ${hello.applicationName ?? ''} (${s.eventCount})`}));
    cards.push(el('div', {class: 'card'},
                  el('h3', {text: `${timeText(s.received)} — ${hello.applicationName ?? 'hello'}`}),
                  el('b', {text: 'Hello (what the client sent)'}),
                  typeof s.hello === 'object' && s.hello !== null
                      ? definitionList(Object.entries(s.hello))
                      : el('pre', {text: oneLine(s.hello)}),
                  el('a', {href: `/inspect/api/sessions/${encodeURIComponent(s.sessionId)}/hello`,
                           download: `hello-${s.sessionId}.json`,
                           text: `the whole hello (${s.helloLength} bytes)`}),
                  el('b', {text: 'Answer (what the collector said)'}),
                  definitionList([['sessionId', s.sessionId], ['timestamp', `${s.serviceTime} (${timeText(s.serviceTime)})`],
                                  ['throttled', s.throttled], ['Cookie sent', s.cookie]])));
  }
  if (chosen && !page.sessions.some((s) => s.sessionId === chosen)) {
    select.append(el('option', {value: chosen, text: shortId(chosen)}));
  }
  select.value = chosen;
  $('sessions').replaceChildren(...(rows.length ? rows : [emptyRow(10, 'No sessions yet.')]));
  $('hellos').replaceChildren(...(cards.length ? cards : [el('p', {class: 'empty', text: 'No hello exchanges yet.'})]));
}

function emptyRow(columns, text) {
  return el('tr', null, el('td', {colspan: columns, class: 'empty', text}));
}

// ---- error reports and problems: newest first, new ones added on top ----

function errorRow(e) {
  const whole = 'data' in e;
  const details = el('details', null,
                     el('summary', {text: (whole ? oneLine(e.data) : e.dataPreview).slice(0, 120)}),
                     el('pre', {text: whole ? pretty(e.data)
                                            : `${e.dataPreview} … (${e.dataLength} bytes)`}));
  return el('tr', null, cell(timeText(e.received), 'time'), cell(timeText(e.errorTime), 'time'),
            cell(shortId(e.sessionId), 'mono'), cell(e.applicationName ?? '–'),
            cell(oneLine(e.errorCode), 'type'), el('td', {class: 'data'}, details));
}

function problemRow(p) {
  const body = el('td');
  if (p.bodyBytes > 0) {
    const size = p.bodyLength > p.bodyBytes ? `first ${p.bodyBytes} of ${p.bodyLength} bytes`
                                            : `${p.bodyBytes} bytes`;
    body.append(el('a', {href: `/inspect/api/problems/${encodeURIComponent(p.id)}/body`,
                         download: `problem-${p.id}-body.bin`, text: `download (${size})`}));
  } else {
    body.textContent = p.bodyBytes === 0 ? 'empty' : '–';
  }
  return el('tr', null, cell(timeText(p.received), 'time'), cell(`${p.method} ${p.path}`, 'mono'),
            el('td', null, el('span', {class: 'layer', text: p.layer || 'request'})),
            cell(p.description), body);
}

async function loadNewRows(kind, rowOf, key, lastId) {
  const body = $(kind);
  if (state.newest[key] >= lastId && body.children.length) return;
  const page = await api(kind, {after: state.newest[key] || '', limit: PAGE});
  const items = page[kind];
  if (items.length) {
    if (!state.newest[key]) body.replaceChildren();
    body.prepend(...items.map(rowOf));
    state.newest[key] = items[0].id;
  } else if (!body.children.length) {
    body.append(emptyRow(6, kind === 'errors' ? 'No error reports.' : 'No problems: every post passed its checks.'));
  }
  while (body.children.length > MAX_ROWS) body.lastElementChild.remove();
}

// ---- chart: stacked bars of events per bucket and type ----

async function loadChart() {
  const [period, bucket] = state.chartPeriod.split(':').map(Number);
  const rate = await api('rate', {period, bucket});
  $('chart-unit').textContent = bucket === 1 ? 'second' : bucket === 60 ? 'minute' : `${bucket / 60} minutes`;
  const totals = new Map();
  for (const b of rate.buckets) totals.set(b.eventType, (totals.get(b.eventType) || 0) + b.count);
  const ranked = [...totals.entries()].sort((a, b) => b[1] - a[1]).map(([t]) => t);
  const shown = ranked.slice(0, CHART_TYPES);
  const series = shown.concat(ranked.length > CHART_TYPES ? ['other'] : []);
  const seriesOf = (type) => (shown.includes(type) ? type : 'other');
  const count = Math.max(1, Math.round((rate.to - rate.from) / rate.bucketMs) + 1);
  const stacks = Array.from({length: count}, () => new Map());
  for (const b of rate.buckets) {
    const i = Math.round((b.start - rate.from) / rate.bucketMs);
    if (i < 0 || i >= count) continue;
    const s = seriesOf(b.eventType);
    stacks[i].set(s, (stacks[i].get(s) || 0) + b.count);
  }
  let peak = 1;
  for (const stack of stacks) peak = Math.max(peak, [...stack.values()].reduce((a, b) => a + b, 0));

  const width = 1000, height = 160, left = 40, bottom = 18, top = 6;
  const plot = svg('svg', {viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: 'none', role: 'img',
                           'aria-label': 'events per bucket by type', id: 'rate-chart'});
  const barWidth = (width - left) / count;
  const scale = (height - bottom - top) / peak;
  plot.append(svg('line', {class: 'axis', x1: left, y1: height - bottom, x2: width, y2: height - bottom}));
  for (const fraction of [0.5, 1]) {
    const y = height - bottom - peak * fraction * scale;
    plot.append(svg('line', {class: 'axis', x1: left, y1: y, x2: width, y2: y, 'stroke-dasharray': '3 3'}));
    const label = svg('text', {x: left - 4, y: y + 3, 'text-anchor': 'end'});
    label.textContent = String(Math.round(peak * fraction));
    plot.append(label);
  }
  stacks.forEach((stack, i) => {
    let y = height - bottom;
    series.forEach((s, k) => {
      const n = stack.get(s);
      if (!n) return;
      const h = n * scale;
      y -= h;
      const bar = svg('rect', {x: left + i * barWidth, y, width: Math.max(1, barWidth - 0.5), height: h,
                               fill: COLORS[k % COLORS.length]});
      const tip = svg('title');
      tip.textContent = `${timeText(rate.from + i * rate.bucketMs)}: ${s} × ${n}`;
      bar.append(tip);
      plot.append(bar);
    });
  });
  for (const [i, text] of [[0, timeText(rate.from).slice(11, 19)], [count - 1, 'now']]) {
    const label = svg('text', {x: left + i * barWidth, y: height - 4, 'text-anchor': i ? 'end' : 'start'});
    label.textContent = text;
    plot.append(label);
  }
  $('chart').replaceChildren(plot);
  const legend = $('chart-legend');
  legend.replaceChildren(...series.map((s, k) => {
    const item = el('span', {text: `${clip(s, 60)} (${s === 'other' ? ranked.slice(CHART_TYPES).reduce((a, t) => a + totals.get(t), 0) : totals.get(s)})`});
    item.style.setProperty('--swatch', COLORS[k % COLORS.length]);
    return item;
  }));
  if (!series.length) legend.append(el('span', {class: 'empty', text: 'No events in this period.'}));
}

// ---- the loop ----

let polling = false;
let lastChart = 0;

async function poll() {
  if (polling) return;
  polling = true;
  try {
    const summary = await api('summary');
    const previous = state.known;
    if (state.paused) {
      state.pending = Math.max(0, summary.lastEventId - state.newest.event);
      showStatus(`paused — ${state.pending} new event${state.pending === 1 ? '' : 's'}`, 'paused');
      return;
    }
    state.known = summary;
    showTotals(summary);
    const changed = !previous || previous.lastEventId !== summary.lastEventId ||
                    previous.sessions !== summary.sessions;
    if (summary.lastEventId > state.newest.event) await loadNewEvents(summary.lastEventId);
    if (changed || state.sessionsShown < 0) {
      await loadSessions();
      state.sessionsShown = summary.sessions;
    }
    await loadNewRows('errors', errorRow, 'error', summary.lastErrorId);
    await loadNewRows('problems', problemRow, 'problem', summary.lastProblemId);
    if (changed || Date.now() - lastChart > 5000) {
      await loadChart();
      lastChart = Date.now();
    }
    showStatus(`live — updated ${timeText(summary.now).slice(11, 19)}`);
  } catch (e) {
    showStatus('collector unreachable', 'down');
  } finally {
    polling = false;
  }
}

async function applyFilters() {
  writeHash();
  $('filter-session').value = state.filter.session;
  $('filter-type').value = state.filter.type;
  $('filter-text').value = state.filter.q;
  try {
    await loadEvents();
  } catch (e) {
    $('events-note').textContent = 'Could not load events: ' + e.message;
  }
}

async function start() {
  readHash();
  showTab(state.tab);
  $('filter-text').value = state.filter.q;
  for (const button of document.querySelectorAll('#tabs button')) {
    button.addEventListener('click', () => showTab(button.dataset.tab));
  }
  $('pause').addEventListener('click', () => setPaused(!state.paused));
  $('filter-session').addEventListener('change', (e) => { state.filter.session = e.target.value; applyFilters(); });
  $('filter-type').addEventListener('change', (e) => { state.filter.type = e.target.value; applyFilters(); });
  let typing = null;
  $('filter-text').addEventListener('input', (e) => {
    clearTimeout(typing);
    typing = setTimeout(() => { state.filter.q = e.target.value; applyFilters(); }, 250);
  });
  $('filters').addEventListener('submit', (e) => e.preventDefault());
  $('filter-clear').addEventListener('click', () => {
    state.filter = {session: '', type: '', q: ''};
    applyFilters();
  });
  $('older').addEventListener('click', () => loadOlderEvents());
  $('chart-period').addEventListener('change', (e) => { state.chartPeriod = e.target.value; loadChart(); });

  try {
    const summary = await api('summary');
    state.known = summary;
    showTotals(summary);
    await loadEvents();
    await loadSessions();
    state.sessionsShown = summary.sessions;
    await loadNewRows('errors', errorRow, 'error', summary.lastErrorId);
    await loadNewRows('problems', problemRow, 'problem', summary.lastProblemId);
    await loadChart();
    lastChart = Date.now();
    $('filter-session').value = state.filter.session;
    $('filter-type').value = state.filter.type;
    showStatus('live');
  } catch (e) {
    showStatus('collector unreachable', 'down');
  }
  document.body.dataset.ready = '1';
  if (state.paused) setPaused(true);
  setInterval(poll, POLL_MS);
}

document.addEventListener('DOMContentLoaded', start);
