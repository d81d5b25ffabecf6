'use strict';
// One flowpath, from the JSON in this page. Texts come from agents: they only ever become text nodes.
(() => {
  const data = JSON.parse(document.getElementById('flowpath').textContent);
  const [DEPTH, SEGMENT, KIND, AT, WALL, SELF, CPU, WAIT, SYNC, IO, SUSPENDED, NAME, NOTE, GROUP] = Array(14).keys();
  const METHOD = 0;
  const rowHeight = 22;

  const element = (tag, className, ...content) => {
    const made = document.createElement(tag);
    if (className) made.className = className;
    made.append(...content.map((c) => (c instanceof Node ? c : String(c))));
    return made;
  };
  const ms = (value) => (value === null ? '-' : value.toLocaleString('en', {maximumFractionDigits: 3}));
  const nameOf = (call) => data.names[call[NAME]];
  const heading = (title, count) => element('h2', '', title, ' ', element('small', '', count));

  // --- the head ---

  const showHead = () => {
    const f = data.flowpath;
    document.title = 'Flowpath ' + f.fpi;
    document.getElementById('title').textContent = f.url;
    const facts = [
      ['flowpath', f.fpi], ['instance', f.instance], ['begin (UTC)', f.begin], ['duration', ms(f.ms) + ' ms'],
      ['status', f.status, f.is_error], ['methods', f.methods], ['callouts', f.callouts],
      ['errors', f.errors, f.errors > 0], ['CPU', ms(f.cpu) + ' ms'], ['waiting', ms(f.wait) + ' ms'],
      ['synchronisation', ms(f.sync) + ' ms'], ['I/O', ms(f.io) + ' ms'], ['suspended', ms(f.suspension) + ' ms'],
      ['queued', ms(f.queue) + ' ms'], ['correlation', f.correlation], ['parent', f.parent],
    ];
    for (const [title, value, isBad] of facts)
      if (value !== '' && value !== null)
        document.getElementById('facts').append(element('span', '', title, ' ', element('b', isBad ? 'bad' : '', value)));
    for (const problem of data.problems)
      document.getElementById('facts').append(element('b', 'bad', problem));
  };

  // --- a list that draws only the rows in sight ---

  const rowList = (label, head, drawRow) => {
    const space = element('div', 'space');
    const list = element('div', 'list', head, space);
    list.tabIndex = 0;
    list.setAttribute('role', 'region');
    list.setAttribute('aria-label', label);
    let rows = [];
    const draw = () => {
      const first = Math.max(0, Math.floor(list.scrollTop / rowHeight) - 10);
      const last = Math.min(rows.length, Math.ceil((list.scrollTop + list.clientHeight) / rowHeight) + 10);
      space.replaceChildren();
      for (let i = first; i < last; ++i) {
        const row = drawRow(rows[i], i);
        row.classList.add('row');
        row.style.top = i * rowHeight + 'px';
        space.append(row);
      }
    };
    list.addEventListener('scroll', () => requestAnimationFrame(draw));
    addEventListener('resize', draw);
    return {
      list, draw,
      set(to) { rows = to; space.style.height = rows.length * rowHeight + 'px'; draw(); },
      reveal(i) {
        const top = i * rowHeight;
        if (top < list.scrollTop) list.scrollTop = top;
        else if (top + 3 * rowHeight > list.scrollTop + list.clientHeight)
          list.scrollTop = top + 3 * rowHeight - list.clientHeight;
        draw();
      },
    };
  };

  const bar = (className, begin, length, whole) => {
    const made = element('div', 'bar ' + className);
    const from = Math.min(100, Math.max(0, (100 * begin) / whole));
    made.style.left = from + '%';
    made.style.width = Math.min(100 - from, Math.max(0, (100 * length) / whole)) + '%';
    return made;
  };

  // --- waterfall: segments and their callouts, by time ---

  const showWaterfall = () => {
    const rows = [];
    for (const s of data.segments)
      rows.push({at: s.at, ms: s.ms, group: 'segment', text: 'segment ' + s.number + '  ' + s.thread});
    for (const c of data.calls)
      if (c[KIND] !== METHOD && c[AT] !== null)
        rows.push({at: data.segments[c[SEGMENT]].at + c[AT], ms: c[WALL] || 0, group: c[GROUP], text: nameOf(c), note: c[NOTE]});
    rows.sort((a, b) => a.at - b.at); // stable: a segment stands before what it calls at once
    const begin = rows.reduce((least, r) => Math.min(least, r.at), 0);
    const whole = Math.max(1, rows.reduce((most, r) => Math.max(most, r.at + r.ms), data.flowpath.ms) - begin);
    const list = rowList('Waterfall', element('div', 'head', element('span', 'label', 'segment or callout'),
      element('span', 'num', 'at ms'), element('span', 'num', 'ms'), element('span', 'track')), (r) => {
      const track = element('div', 'track', bar(r.group, r.at - begin, r.ms, whole));
      const row = element('div', '', element('span', 'label', r.group === 'segment' ? r.text : '   ' + r.text),
        element('span', 'num', ms(r.at)), element('span', 'num', ms(r.ms)), track);
      row.title = r.text + (r.note ? '\n' + r.note : '');
      return row;
    });
    const keys = ['segment', 'database', 'http', 'messaging', 'other', 'error'].map((k) =>
      element('span', 'key', element('span', 'bar ' + k), k));
    document.getElementById('waterfall').append(heading('Waterfall', rows.length), element('div', 'tools', ...keys), list.list);
    list.set(rows);
  };

  // --- the call tree ---

  const showTree = () => {
    const calls = data.calls;
    const ends = new Int32Array(calls.length); // behind each call's subtree
    const open = [];
    calls.forEach((c, i) => {
      while (open.length && (calls[open.at(-1)][SEGMENT] !== c[SEGMENT] || calls[open.at(-1)][DEPTH] >= c[DEPTH]))
        ends[open.pop()] = i;
      open.push(i);
    });
    while (open.length) ends[open.pop()] = calls.length;

    const folded = new Set();
    let visible = [], found = new Set(), active = -1;
    const head = element('div', 'head', ...['at ms', 'wall ms', 'self ms', 'CPU ms'].map((t) => element('span', 'num', t)),
      element('span', 'track small'), element('span', 'fold'), element('span', 'name', 'call'));
    const waits = (c) => [['waiting', WAIT], ['synchronisation', SYNC], ['I/O', IO], ['suspended', SUSPENDED]]
      .filter(([, column]) => c[column]).map(([title, column]) => title + ' ' + ms(c[column]) + ' ms');
    const drawSegment = (s) => element('div', '', element('b', 'name',
      'segment ' + s.number + ', ' + s.thread + ', tier ' + s.tier + ', ' + ms(s.ms) + ' ms' + (s.problem ? ': ' + s.problem : '')));
    const list = rowList('Call tree', head, (i, place) => {
      if (i < 0) return drawSegment(data.segments[-1 - i]);
      const c = calls[i];
      const whole = Math.max(1, data.segments[c[SEGMENT]].ms);
      const track = element('div', 'track small');
      if (c[KIND] === METHOD && c[WALL] !== null)
        track.append(bar('below', c[AT], c[WALL], whole), bar('self', c[AT], c[SELF] || 0, whole));
      else if (c[AT] !== null) track.append(bar(c[GROUP], c[AT], c[WALL] || 0, whole));
      const fold = element('button', 'fold', ends[i] > i + 1 ? (folded.has(i) ? '▸' : '▾') : '');
      fold.tabIndex = -1;
      fold.addEventListener('click', () => toggle(i));
      const note = [...waits(c), c[NOTE]].filter(Boolean).join(', ');
      const name = element('span', 'name', '  '.repeat(Math.min(c[DEPTH], 60)) + (c[KIND] === METHOD ? '' : '→ ') + nameOf(c));
      if (note) name.append(element('span', 'note', '  ' + note));
      const row = element('div', (found.has(i) ? 'found ' : '') + (place === active ? 'active' : ''),
        ...[AT, WALL, SELF, CPU].map((column) => element('span', 'num', ms(c[column]))), track, fold, name);
      row.title = nameOf(c) + (note ? '\n' + note : '');
      return row;
    });
    const refresh = () => {
      visible = [];
      let segment = -1;
      for (let i = 0; i <= calls.length; ) {
        for (const upTo = i < calls.length ? calls[i][SEGMENT] : data.segments.length - 1; segment < upTo; )
          visible.push(-1 - ++segment);
        if (i === calls.length) break;
        visible.push(i);
        i = folded.has(i) ? ends[i] : i + 1;
      }
      list.set(visible);
    };
    const toggle = (i) => { if (!folded.delete(i) && ends[i] > i + 1) folded.add(i); refresh(); };
    const move = (to) => { active = Math.max(0, Math.min(visible.length - 1, to)); list.reveal(active); };
    list.list.addEventListener('keydown', (event) => {
      const i = visible[active];
      const keys = {
        ArrowDown: () => move(active + 1), ArrowUp: () => move(active - 1), Home: () => move(0),
        End: () => move(visible.length - 1), PageDown: () => move(active + 20), PageUp: () => move(active - 20),
        ArrowLeft: () => i >= 0 && !folded.has(i) && toggle(i), ArrowRight: () => folded.has(i) && toggle(i),
        Enter: () => i >= 0 && toggle(i),
      };
      if (keys[event.key]) { keys[event.key](); event.preventDefault(); }
    });
    const search = element('input');
    search.type = 'search';
    search.placeholder = 'find a method, query or backend';
    search.setAttribute('aria-label', search.placeholder);
    const hits = element('span', 'none');
    search.addEventListener('input', () => {
      const text = search.value.toLowerCase();
      found = new Set(text ? [...calls.keys()].filter((i) => nameOf(calls[i]).toLowerCase().includes(text)) : []);
      if (found.size) { folded.clear(); refresh(); move(visible.indexOf(found.values().next().value)); }
      hits.textContent = text ? found.size + ' found' : '';
      list.draw();
    });
    const foldSmall = element('button', '', 'fold what takes less than 1 %');
    foldSmall.addEventListener('click', () => {
      calls.forEach((c, i) => {
        if (c[KIND] === METHOD && ends[i] > i + 1 && c[WALL] * 100 < data.flowpath.ms) folded.add(i);
      });
      refresh();
    });
    const unfold = element('button', '', 'unfold all');
    unfold.addEventListener('click', () => { folded.clear(); refresh(); });
    document.getElementById('tree').append(heading('Call tree', calls.length + ' calls in ' + data.segments.length + ' segments'),
      element('div', 'tools', search, hits, foldSmall, unfold), list.list);
    refresh();
  };

  // --- tables ---

  const table = (columns, rows) => {
    const head = element('tr', '', ...columns.map(([title, isNumber]) => element('th', isNumber ? 'n' : '', title)));
    const body = rows.map((row) => element('tr', '', ...row.map((cell, i) => element('td', columns[i][1] ? 'n' : '', cell))));
    return element('div', 'scroll', element('table', '', element('thead', '', head), element('tbody', '', ...body)));
  };
  const section = (id, title, rows, content) => document.getElementById(id).append(heading(title, rows.length),
    rows.length ? content(rows) : element('p', 'none', 'none'));

  const showTables = () => {
    section('queries', 'Queries', data.queries, (rows) => table(
      [['calls', true], ['ms', true], ['longest ms', true], ['errors', true], ['backend'], ['query']],
      rows.map((q) => [q.calls, ms(q.ms), ms(q.longest), q.errors, q.backend, element('code', '', q.text)])));
    section('exceptions', 'Exceptions', data.exceptions, (rows) => table([['time (UTC)'], ['exception'], ['thrown at']],
      rows.map((x) => [x.time, element('div', '', element('b', 'bad', x.type), ' ', x.message,
        element('pre', '', [x.cause, x.stack].filter(Boolean).join('\n'))), x.thrown_at])));
    section('details', 'Details', data.details, (rows) => table([['segment'], ['kind'], ['name'], ['value']],
      rows.map((d) => [d.segment, d.kind, d.name, element('pre', '', d.value)])));
  };

  showHead();
  showWaterfall();
  showTree();
  showTables();
  document.documentElement.dataset.ready = 'yes';
})();
