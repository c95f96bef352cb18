// The page of norvane web: receives the followed files' lines as Server-Sent Events from /events
// and shows them. Log text only ever reaches the page as text (textContent, text nodes), never as
// HTML.
'use strict';

(() => {
  const $ = (id) => document.getElementById(id);
  const logEl = $('log');
  const sourcesEl = $('sources');
  const filterEl = $('filter');
  const pauseEl = $('pause');
  const followEl = $('follow');
  const countsEl = $('counts');
  const linkEl = $('link');
  const toggles = { re: $('regex'), cs: $('case'), inv: $('invert') };

  let maxLines = 20000;
  const records = [];  // what the view shows, oldest first: {el, textEl, source, text, sys, marked}
  let pending = [];    // arrived, shown at the next render
  let held = [];       // arrived while paused
  let heldLines = 0;   // lines among them, dropped ones included
  let heldDropped = 0;
  let paused = false;
  let follow = true;
  let below = 0;       // lines added below the view while not following
  let unseen = 0;      // lines added while the tab was hidden
  let renderTimer = 0;
  const sources = [];  // by index: {label, name, state, text, pattern, colour, off, chip, shown}
  let instance = null;
  let lastId = '';
  let stream = null;

  // ---- The address: the token (used once, then kept in a cookie) and the filter ----
  const params = new URLSearchParams(location.search);
  const token = params.get('token');
  const filter = {
    q: params.get('q') || '',
    re: params.get('re') === '1',
    cs: params.get('case') === '1',
    inv: params.get('invert') === '1',
    rx: null,
    low: '',
    bad: false,
  };

  function saveAddress() {
    const next = new URLSearchParams();
    if (filter.q) next.set('q', filter.q);
    if (filter.re) next.set('re', '1');
    if (filter.cs) next.set('case', '1');
    if (filter.inv) next.set('invert', '1');
    const query = next.toString();
    history.replaceState(null, '', location.pathname + (query ? '?' + query : ''));
  }

  // ---- Filtering ----
  function compile() {
    filter.rx = null;
    filter.bad = false;
    filter.low = filter.q.toLowerCase();
    if (filter.q && filter.re) {
      try {
        filter.rx = new RegExp(filter.q, filter.cs ? '' : 'i');
      } catch (error) {
        filter.bad = true;
      }
    }
    filterEl.classList.toggle('bad', filter.bad);
    filterEl.title = filter.bad ? 'Not a valid regular expression: every line is shown' : '';
  }

  // Where the filter matches text: [start, end], or null.
  function find(text) {
    if (filter.rx) {
      const hit = filter.rx.exec(text);
      return hit ? [hit.index, hit.index + hit[0].length] : null;
    }
    const at = filter.cs ? text.indexOf(filter.q) : text.toLowerCase().indexOf(filter.low);
    return at < 0 ? null : [at, at + filter.q.length];
  }

  function active() {
    return filter.q !== '' && !filter.bad;
  }

  // Shows or hides one record and marks what matched.
  function apply(rec) {
    const source = sources[rec.source];
    let visible = !(source && source.off);
    let range = null;
    if (visible && !rec.sys && active()) {
      range = find(rec.text);
      visible = (range !== null) !== filter.inv;
      if (filter.inv) range = null;
    }
    rec.el.hidden = !visible;
    if (range && range[1] > range[0]) {
      const mark = document.createElement('mark');
      mark.textContent = rec.text.slice(range[0], range[1]);
      rec.textEl.replaceChildren(rec.text.slice(0, range[0]), mark, rec.text.slice(range[1]));
      rec.marked = true;
    } else if (rec.marked) {
      rec.textEl.textContent = rec.text;
      rec.marked = false;
    }
    return visible;
  }

  function refilter() {
    compile();
    for (const rec of records) apply(rec);
    for (const [key, el] of Object.entries(toggles)) el.setAttribute('aria-pressed', String(filter[key]));
    saveAddress();
    updateCounts();
    if (follow) toEnd();
  }

  // ---- Records and rendering ----
  function makeRecord(source, text, sys, kind) {
    return { el: null, textEl: null, source, text, sys, kind, marked: false };
  }

  // Lines that name a problem stand out.
  const severity = /\b(?:(ERROR|ERR|FATAL|CRIT(?:ICAL)?|EMERG|ALERT|PANIC)|(WARN(?:ING)?))\b/;

  function build(rec) {
    const el = document.createElement('div');
    el.className = rec.sys ? 'l sys ' + rec.kind : 'l';
    const level = rec.sys ? null : severity.exec(rec.text.slice(0, 300));
    if (level) el.classList.add(level[1] ? 'error' : 'warning');
    const sourceEl = document.createElement('span');
    const source = sources[rec.source];
    sourceEl.className = 's' + (source ? ' c' + source.colour : '');
    sourceEl.textContent = source ? source.name : 'norvane';
    if (source) sourceEl.title = source.label;
    const textEl = document.createElement('span');
    textEl.className = 't';
    textEl.textContent = rec.text;
    el.append(sourceEl, textEl);
    rec.el = el;
    rec.textEl = textEl;
  }

  // Keeps the last maxLines of a queue, at once when exact, else in bulk so that adding stays
  // cheap. Returns how many lines it dropped.
  function trim(queue, exact) {
    if (queue.length <= (exact ? maxLines : 2 * maxLines)) return 0;
    return queue.splice(0, queue.length - maxLines).filter((rec) => !rec.sys).length;
  }

  function add(rec) {
    if (paused) {
      held.push(rec);
      if (!rec.sys) heldLines++;
      heldDropped += trim(held, false);
      updatePause();
      return;
    }
    pending.push(rec);
    trim(pending, false);
    if (!renderTimer) renderTimer = setTimeout(render, 40);
  }

  function atEnd() {
    return logEl.scrollHeight - logEl.scrollTop - logEl.clientHeight < 8;
  }

  function render() {
    renderTimer = 0;
    const batch = pending.length > maxLines ? pending.slice(-maxLines) : pending;
    pending = [];
    if (batch.length === 0) return;
    // A scroll whose event has not arrived yet counts too.
    if (follow && !atEnd()) follow = false;
    const fragment = document.createDocumentFragment();
    let shown = 0;
    for (const rec of batch) {
      build(rec);
      if (apply(rec)) shown++;
      fragment.appendChild(rec.el);
      records.push(rec);
    }
    logEl.appendChild(fragment);
    const excess = records.length - maxLines;
    if (excess > 0) {
      for (const rec of records.splice(0, excess)) rec.el.remove();
    }
    const empty = logEl.querySelector('.empty');
    if (empty) empty.remove();
    if (document.hidden) {
      unseen += shown;
      updateTitle();
    }
    if (follow) {
      toEnd();
    } else {
      below += shown;
      updateFollow();
    }
    updateCounts();
  }

  function toEnd() {
    logEl.scrollTop = logEl.scrollHeight;
  }

  function updateFollow() {
    followEl.hidden = follow;
    followEl.textContent = below > 0 ? `\u2193 ${below} new line${below === 1 ? '' : 's'}` : '\u2193 Follow';
  }

  function updatePause() {
    pauseEl.classList.toggle('paused', paused);
    pauseEl.setAttribute('aria-pressed', String(paused));
    pauseEl.textContent = paused ? `Resume \u00b7 ${heldLines} new` : 'Pause';
  }

  function updateCounts() {
    let shown = 0;
    for (const rec of records) if (!rec.el.hidden && !rec.sys) shown++;
    const total = records.filter((rec) => !rec.sys).length;
    const parts = [`${total.toLocaleString()} line${total === 1 ? '' : 's'}`];
    if (shown !== total) parts.push(`${shown.toLocaleString()} shown`);
    if (paused) parts.push('paused');
    else if (!follow) parts.push('scrolled up');
    countsEl.textContent = parts.join(' \u00b7 ');
  }

  function updateTitle() {
    const names = sources.filter((s) => !s.pattern).map((s) => s.name);
    const base = names.length === 1 ? `${names[0]} \u2014 norvane` : 'norvane web';
    document.title = unseen > 0 ? `(${unseen}) ${base}` : base;
  }

  // ---- Sources ----
  function shortNames() {
    const known = sources.filter(Boolean);  // a page that fell behind may have missed one
    const daemons = new Set(known.map((s) => s.label.slice(0, s.label.indexOf('/'))));
    let longest = 4;
    for (const source of known) {
      source.name = daemons.size > 1 ? source.label : source.label.slice(source.label.indexOf('/') + 1);
      if (!source.pattern) longest = Math.max(longest, source.name.length);
    }
    logEl.style.setProperty('--source-width', Math.min(longest, 24) + 'ch');
    logEl.style.setProperty('--source-width-narrow', Math.min(longest, 10) + 'ch');
    logEl.classList.toggle('single', known.filter((s) => !s.pattern).length <= 1);
  }

  function drawChip(source) {
    if (!source.chip) {
      const chip = document.createElement('button');
      chip.type = 'button';
      const dot = document.createElement('span');
      dot.className = 'dot';
      const name = document.createElement('span');
      name.className = 'name';
      const state = document.createElement('span');
      state.className = 'state';
      chip.append(dot, name, state);
      chip.addEventListener('click', () => {
        source.off = !source.off;
        drawChip(source);
        refilter();
      });
      sourcesEl.appendChild(chip);
      source.chip = chip;
    }
    const chip = source.chip;
    chip.className = `chip c${source.colour}` + (source.pattern ? ' pattern' : '') + (source.off ? ' off' : '');
    chip.dataset.state = source.state;
    chip.setAttribute('aria-pressed', String(!source.off));
    chip.querySelector('.name').textContent = source.name;
    chip.querySelector('.state').textContent = source.state;
    chip.title = `${source.label}: ${source.state}${source.text ? ' \u2014 ' + source.text : ''}` +
      (source.pattern ? '' : ' (click to hide or show its lines)');
  }

  // A source's state item (from the greeting, or from the feed).
  function update(item) {
    if (!sources[item.s]) sources[item.s] = { colour: item.s % 8, off: false, chip: null };
    Object.assign(sources[item.s], { label: item.label, pattern: item.pattern, state: item.state, text: item.text });
    shortNames();
    for (const source of sources) if (source) drawChip(source);
    updateTitle();
  }

  // A change of state in the feed also shows in the view, where it happened among the lines.
  function onState(item) {
    update(item);
    if (item.text) add(makeRecord(item.s, item.text, true, item.state));
  }

  // ---- The stream ----
  function onHello(hello) {
    if (instance && hello.instance !== instance) {
      add(makeRecord(-1, 'norvane web was restarted; what it kept follows', true, 'notice'));
    }
    instance = hello.instance;
    maxLines = hello.maxLines;
    for (const item of hello.sources) update(item);
  }

  function onFeed(items) {
    for (const item of items) {
      if ('t' in item) add(makeRecord(item.s, item.t, false, ''));
      else if ('notice' in item) add(makeRecord(item.s, item.notice, true, 'notice'));
      else if ('skipped' in item) add(makeRecord(-1, `${item.skipped} lines or states skipped: this page fell behind`, true, 'notice'));
      else if ('state' in item) onState(item);
    }
  }

  function setLink(state, text) {
    linkEl.className = 'link ' + state;
    linkEl.textContent = text;
  }

  function connect() {
    const query = new URLSearchParams();
    if (token) query.set('token', token);
    if (lastId) query.set('last', lastId);
    const text = query.toString();
    stream = new EventSource('events' + (text ? '?' + text : ''));
    stream.addEventListener('hello', (event) => onHello(JSON.parse(event.data)));
    stream.addEventListener('feed', (event) => {
      lastId = event.lastEventId;
      onFeed(JSON.parse(event.data));
    });
    stream.onopen = () => setLink('live', 'live');
    stream.onerror = () => {
      if (stream.readyState === EventSource.CLOSED) {
        // Refused (a token that is no longer valid, too many views): asked again in a while.
        stream.close();
        setLink('down', 'refused by norvane web; trying again');
        setTimeout(connect, 5000);
      } else {
        setLink('down', 'norvane web unreachable; trying again');
      }
    };
  }

  // ---- Controls ----
  function setPaused(on) {
    paused = on;
    if (!paused) {
      heldDropped += trim(held, true);
      pending.push(...held);
      held = [];
      if (heldDropped > 0) {
        // Last, where it is seen: the lines before it were only the last ones.
        pending.push(makeRecord(-1, `${heldDropped} earlier lines dropped while paused: only the last ${maxLines} are kept`, true, 'notice'));
        heldDropped = 0;
      }
      heldLines = 0;
      render();
    }
    updatePause();
    updateCounts();
  }

  function setTheme(theme) {
    document.documentElement.dataset.theme = theme;
    try {
      localStorage.setItem('norvane-theme', theme);
    } catch (error) {
      // Storage may be refused; the theme then lasts as long as the page.
    }
  }

  function init() {
    let theme = null;
    try {
      theme = localStorage.getItem('norvane-theme');
    } catch (error) {
      theme = null;
    }
    document.documentElement.dataset.theme =
      theme || (matchMedia('(prefers-color-scheme: dark)').matches ? 'dark' : 'light');

    filterEl.value = filter.q;
    let typing = 0;
    filterEl.addEventListener('input', () => {
      clearTimeout(typing);
      typing = setTimeout(() => {
        filter.q = filterEl.value;
        refilter();
      }, records.length > 5000 ? 120 : 0);
    });
    filterEl.addEventListener('keydown', (event) => {
      if (event.key === 'Escape') {
        filterEl.value = '';
        filter.q = '';
        refilter();
      }
    });
    for (const [key, el] of Object.entries(toggles)) {
      el.addEventListener('click', () => {
        filter[key] = !filter[key];
        refilter();
      });
    }
    pauseEl.addEventListener('click', () => setPaused(!paused));
    $('clear').addEventListener('click', () => {
      for (const rec of records) rec.el.remove();
      records.length = 0;
      below = 0;
      updateFollow();
      updateCounts();
    });
    $('wrap').addEventListener('click', (event) => {
      const on = logEl.classList.toggle('wrap');
      event.currentTarget.setAttribute('aria-pressed', String(on));
    });
    $('theme').addEventListener('click', () => {
      setTheme(document.documentElement.dataset.theme === 'dark' ? 'light' : 'dark');
    });
    followEl.addEventListener('click', () => {
      follow = true;
      below = 0;
      toEnd();
      updateFollow();
      updateCounts();
    });
    logEl.addEventListener('scroll', () => {
      if (atEnd() === follow) return;
      follow = !follow;
      if (follow) below = 0;
      updateFollow();
      updateCounts();
    });
    document.addEventListener('keydown', (event) => {
      if (event.key === '/' && document.activeElement !== filterEl) {
        event.preventDefault();
        filterEl.focus();
      }
    });
    document.addEventListener('visibilitychange', () => {
      if (!document.hidden) {
        unseen = 0;
        updateTitle();
      }
    });
    window.addEventListener('resize', () => follow && toEnd());
    window.addEventListener('pagehide', () => stream && stream.close());

    const empty = document.createElement('div');
    empty.className = 'empty';
    empty.textContent = 'Waiting for lines\u2026';
    logEl.appendChild(empty);

    refilter();
    updatePause();
    connect();
  }

  init();
})();
