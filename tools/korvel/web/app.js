// korvel dashboard: the registry that `korvel serve` reads, in a browser, live.
//
// Pages (hash routes, so that a link or a reload opens the same page):
//   #/                      every service type with its instances counted by status
//   #/type/TYPE             the live instances of a type, updated from its event stream
//   #/type/TYPE/ID          one instance: its attributes and child records
// TYPE may hold "/" (each part is URI-encoded); an instance id is a UUID, which no part of a
// type can be, so the last part tells the two apart. A table's filter and sort are kept in the
// route's query (#/type/billing?q=eu&sort=name&dir=desc).
//
// Data: /api/v1/types (polled), /api/v1/watch?type=T (Server-Sent Events), /api/v1/instance
// (polled while its page is open), /healthz (polled). Changes from a stream go into the model at
// once and are drawn once per animation frame, so that a burst of events costs one layout.
// A server started with --token-file answers the API with 401 until it gets the token: the page
// asks for it once, keeps it for the tab (sessionStorage), and sends it as "Authorization: Bearer"
// on every API call and on the event streams, which are read with fetch() because an EventSource
// cannot send a header.
(() => {
  'use strict';

  const KNOWN_STATUSES = ['up', 'down', 'up_sending_disabled'];
  const STATUS_SYMBOLS = {up: '●', down: '■', up_sending_disabled: '◆'};
  const UUID = /^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$/i;
  const TYPES_POLL_MS = 5000;
  const INSTANCE_POLL_MS = 3000;
  const HEALTH_OK_POLL_MS = 5000;
  const HEALTH_BAD_POLL_MS = 1500;
  const REQUEST_TIMEOUT_MS = 8000;
  const CHUNK_ROWS = 50;  // rows that are rendered, or skipped out of view, together
  const LEAVING_MS = 1600;  // how long a gone instance stays in view, highlighted
  const collator = new Intl.Collator(undefined, {numeric: true, sensitivity: 'base'});

  // What the tests and the curious can read: when the first table was drawn, and what drawing
  // the changes of the live stream cost (frames that drew something, the script time they took).
  const metrics = {firstRender: null, draws: {count: 0, rows: 0, totalMs: 0, maxMs: 0}};
  window.korvelDashboard = {metrics};

  // ---- Small helpers ---------------------------------------------------------------------------

  // An element with attributes (class, text, on<event>, anything else as an attribute) and children.
  function h(tag, props, ...children) {
    const node = document.createElement(tag);
    if (props) {
      for (const key in props) {
        const value = props[key];
        if (value === null || value === undefined || value === false) continue;
        if (key === 'class') node.className = value;
        else if (key === 'text') node.textContent = value;
        else if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
        else node.setAttribute(key, value === true ? '' : String(value));
      }
    }
    append(node, children);
    return node;
  }

  // Appends nodes, texts and arrays of them; skips null, undefined and false.
  function append(node, children) {
    for (const child of children) {
      if (child === null || child === undefined || child === false) continue;
      if (Array.isArray(child)) append(node, child);
      else node.appendChild(child instanceof Node ? child : document.createTextNode(String(child)));
    }
  }

  const pad = (n) => String(n).padStart(2, '0');
  const number = (n) => n.toLocaleString('en-US');
  const dateText = (d, utc) => utc ?
    `${d.getUTCFullYear()}-${pad(d.getUTCMonth() + 1)}-${pad(d.getUTCDate())}` :
    `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}`;
  const clockText = (d, utc) => utc ?
    `${pad(d.getUTCHours())}:${pad(d.getUTCMinutes())}:${pad(d.getUTCSeconds())}` :
    `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`;
  const localText = (d) => `${dateText(d, false)} ${clockText(d, false)}`;
  const utcText = (d) => `${dateText(d, true)} ${clockText(d, true)} UTC`;
  const zoneName = (() => {
    try {
      return Intl.DateTimeFormat().resolvedOptions().timeZone || 'local time';
    } catch (e) {
      return 'local time';
    }
  })();

  // "42 s", "5 min", "3 h 20 min", "4 d 2 h".
  function durationText(ms) {
    const s = Math.max(0, Math.floor(ms / 1000));
    if (s < 60) return `${s} s`;
    const m = Math.floor(s / 60);
    if (m < 60) return `${m} min`;
    const hours = Math.floor(m / 60);
    if (hours < 48) return m % 60 ? `${hours} h ${m % 60} min` : `${hours} h`;
    const days = Math.floor(hours / 24);
    return hours % 24 ? `${days} d ${hours % 24} h` : `${days} d`;
  }
  const ago = (date) => `${durationText(Date.now() - date.getTime())} ago`;

  // "5 min ago", kept current by a timer that refreshes every such span in the page.
  function ageSpan(date) {
    const span = h('span', {class: 'age'}, ago(date));
    span.date = date;
    return span;
  }
  setInterval(() => {
    for (const span of document.querySelectorAll('#main .age')) {
      if (span.date) span.textContent = ago(span.date);
    }
  }, 10000);

  // A registration's start time: "YYYY-MM-DD HH:MM:SS.D" in UTC, D being the weekday.
  function parseStartTime(text) {
    const m = /^(\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2})/.exec(text || '');
    if (!m) return null;
    const time = Date.UTC(+m[1], +m[2] - 1, +m[3], +m[4], +m[5], +m[6]);
    return Number.isNaN(time) ? null : new Date(time);
  }

  // A time as the page shows it: local, with UTC and the age beside.
  function timeBlock(date, agePrefix) {
    // Local fields cost a time zone conversion each: each text is made once (1,000 rows).
    const local = localText(date);
    const utcFull = utcText(date);
    const utc = local.slice(0, 10) === utcFull.slice(0, 10) ? utcFull.slice(11) : utcFull;
    return h('span', {title: `${local} ${zoneName} = ${utcFull}`},
        h('time', {datetime: date.toISOString()}, local),
        h('span', {class: 'sub'}, `${utc} · ${agePrefix || ''}`, ageSpan(date)));
  }

  function statusBadge(status) {
    const known = KNOWN_STATUSES.includes(status);
    const word = status === undefined ? 'none yet' : (status === '' ? '(empty)' : status);
    return h('span', {class: `badge st-${known ? status : 'other'}`, 'data-status': status || ''},
        h('span', {class: 'sym', 'aria-hidden': 'true'}, STATUS_SYMBOLS[status] || '○'), word);
  }

  // The route's part of an address: "#/type/" + the type's parts encoded one by one.
  const typeHref = (type) => '#/type/' + type.split('/').map(encodeURIComponent).join('/');
  const instanceHref = (type, id) => typeHref(type) + '/' + encodeURIComponent(id);

  // ---- Talking to the server -------------------------------------------------------------------

  // The token of a server that requires one: asked for in the token dialog when the server
  // answers 401, kept in sessionStorage for this tab. Every request waiting for it waits for the
  // same answer of the dialog.
  const token = {
    KEY: 'korvel.token',
    asking: null,  // the promise of the open dialog

    current() {
      return sessionStorage.getItem(this.KEY) || '';
    },
    // `headers` with the token's Authorization header, when there is a token.
    headers(headers) {
      const value = this.current();
      return value ? {...headers, Authorization: `Bearer ${value}`} : headers;
    },
    // After a 401 to a request that sent `sent`: resolves once there is another token to try.
    ask(sent) {
      if (this.current() !== sent) return Promise.resolve();
      if (!this.asking) {
        sessionStorage.removeItem(this.KEY);
        this.asking = new Promise((resolve) => {
          const dialog = document.getElementById('token');
          const form = document.getElementById('token-form');
          const input = document.getElementById('token-input');
          document.getElementById('token-wrong').hidden = !sent;
          input.value = '';
          form.onsubmit = (event) => {
            event.preventDefault();
            const value = input.value.trim();
            if (!value) return;
            sessionStorage.setItem(this.KEY, value);
            dialog.close();
            this.asking = null;
            resolve();
          };
          // Escape does not dismiss it: without the token the page has nothing to show.
          dialog.oncancel = (event) => event.preventDefault();
          dialog.showModal();
          input.focus();
        });
      }
      return this.asking;
    },
  };

  // GET `url` with a time limit per try, with the token; after a 401, again once the token dialog
  // has a new one. Resolves {status, body (JSON or text), ok}; rejects only when the server
  // cannot be reached, and then tells the connection state so.
  async function request(url, asText) {
    for (;;) {
      const sent = token.current();
      const abort = new AbortController();
      const timer = setTimeout(() => abort.abort(), REQUEST_TIMEOUT_MS);
      let response;
      let text;
      try {
        response = await fetch(url, {cache: 'no-store', signal: abort.signal,
          headers: token.headers({Accept: asText ? 'text/plain' : 'application/json'})});
        text = await response.text();
        connection.reached();
      } catch (error) {
        connection.unreachable();
        throw error;
      } finally {
        clearTimeout(timer);
      }
      if (response.status === 401) {
        await token.ask(sent);
        continue;
      }
      let body = text;
      if (!asText) {
        try {
          body = JSON.parse(text);
        } catch (e) {
          body = {error: text.trim() || `HTTP ${response.status}`};
        }
      }
      return {status: response.status, ok: response.ok, body};
    }
  }

  // A Server-Sent Events stream read with fetch(), so that it carries the token, with the part of
  // EventSource's interface that TypeStream uses: listeners by event name, onopen once the answer
  // is a stream, onerror once when it fails or ends. It does not reconnect by itself; after a 401
  // it fails once the token dialog has a new token.
  class TokenEventSource {
    constructor(url) {
      this.listeners = new Map();
      this.onopen = null;
      this.onerror = null;
      this.abort = new AbortController();
      this.read(url);
    }

    addEventListener(name, handle) {
      this.listeners.set(name, handle);
    }

    close() {
      this.abort.abort();
    }

    async read(url) {
      try {
        const sent = token.current();
        const response = await fetch(url, {cache: 'no-store', signal: this.abort.signal,
          headers: token.headers({Accept: 'text/event-stream'})});
        if (response.status === 401) await token.ask(sent);
        const type = response.headers.get('Content-Type') || '';
        if (!response.ok || !type.startsWith('text/event-stream')) {
          throw new Error(`HTTP ${response.status}`);
        }
        if (this.onopen) this.onopen();
        const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
        let buffer = '';
        let name = '';
        let data = [];
        for (;;) {
          const {value, done} = await reader.read();
          if (done) break;
          buffer += value;
          let end;
          while ((end = buffer.indexOf('\n')) >= 0) {
            const line = buffer.slice(0, end).replace(/\r$/, '');
            buffer = buffer.slice(end + 1);
            if (line === '') {
              const handle = this.listeners.get(name || 'message');
              if (handle && data.length) handle({data: data.join('\n')});
              name = '';
              data = [];
            } else if (!line.startsWith(':')) {
              const colon = line.indexOf(':');
              const field = colon < 0 ? line : line.slice(0, colon);
              const text = colon < 0 ? '' : line.slice(colon + 1).replace(/^ /, '');
              if (field === 'event') name = text;
              else if (field === 'data') data.push(text);
            }
          }
        }
      } catch (e) {
        // told below, unless closed on purpose
      }
      if (!this.abort.signal.aborted && this.onerror) this.onerror();
    }
  }

  // The state shown in the top bar and the banner, made of: whether the server answers, what its
  // health check says, and the page's event stream (open, reconnecting, stale).
  const connection = {
    reachable: true,
    unreachableSince: null,
    healthOk: null,  // null until the first answer
    healthReason: '',
    unhealthySince: null,
    stream: null,  // {state: 'connecting'|'open'|'down', downSince, staleSince}
    healthTimer: null,
    tickTimer: null,
    bannerAge: null,
    unhealthyAnswers: 0,

    reached() {
      if (!this.reachable) {
        this.reachable = true;
        this.unreachableSince = null;
        this.checkSoon();
      }
      this.show();
    },
    unreachable() {
      if (this.reachable) {
        this.reachable = false;
        this.unreachableSince = new Date();
      }
      this.show();
    },
    // A page's stream; null when the page has none.
    setStream(stream) {
      this.stream = stream;
      this.show();
    },

    async checkHealth() {
      clearTimeout(this.healthTimer);
      try {
        const answer = await request('/healthz', true);
        if (answer.status === 200) {
          this.healthOk = true;
          this.unhealthySince = null;
          this.healthReason = '';
          this.unhealthyAnswers = 0;
        } else {
          if (!this.unhealthyAnswers++) this.unhealthySince = new Date();
          this.healthReason = String(answer.body).trim() || `HTTP ${answer.status}`;
          // A type's cache is briefly not current while it is made (when a page first asks for
          // the type): only a second answer in a row makes that stale. No ZooKeeper is at once.
          if (this.unhealthyAnswers > 1 || /not connected/.test(this.healthReason)) {
            this.healthOk = false;
          }
        }
      } catch (e) {
        // unreachable() has been told.
      }
      this.show();
      const healthy = this.reachable && this.healthOk && !this.unhealthyAnswers;
      clearTimeout(this.healthTimer);
      this.healthTimer = setTimeout(() => this.checkHealth(),
          healthy ? HEALTH_OK_POLL_MS : HEALTH_BAD_POLL_MS);
    },
    checkSoon() {
      clearTimeout(this.healthTimer);
      this.healthTimer = setTimeout(() => this.checkHealth(), 100);
    },

    // {state, since, message} from what is known now.
    summary() {
      const stream = this.stream;
      if (!this.reachable) {
        return {state: 'reconnecting', since: this.unreachableSince,
          short: 'Reconnecting',
          message: 'korvel serve does not answer. The page keeps trying by itself; ' +
            'what it shows may be out of date.'};
      }
      if (stream && stream.state === 'down') {
        return {state: 'reconnecting', since: stream.downSince, short: 'Reconnecting',
          message: 'The live updates stopped. The page reconnects by itself; ' +
            'what it shows may be out of date.'};
      }
      const stale = [stream && stream.staleSince, this.healthOk === false && this.unhealthySince]
          .filter(Boolean).sort((a, b) => a - b);
      if (stale.length) {
        const reason = this.healthOk === false ? this.healthReason :
          'the server has been cut off from ZooKeeper for longer than its session timeout';
        return {state: 'stale', since: stale[0], short: 'Stale',
          message: `The registry data is stale: ${reason.replace(/\.$/, '')}. ` +
            'What the page shows may be out of date; it updates by itself once the server ' +
            'reads ZooKeeper again.'};
      }
      if ((stream && stream.state === 'connecting') || this.healthOk === null) {
        return {state: 'connecting', short: 'Connecting', message: ''};
      }
      return {state: 'connected', short: stream ? 'Live' : 'Connected', message: ''};
    },

    show() {
      const s = this.summary();
      const pill = document.getElementById('conn');
      const banner = document.getElementById('banner');
      pill.dataset.state = s.state;
      const symbols = {connected: '●', connecting: '…', reconnecting: '↻', stale: '⚠'};
      pill.querySelector('.conn-sym').textContent = symbols[s.state];
      const since = s.since ? ` since ${clockText(s.since)}` : '';
      pill.querySelector('.conn-text').textContent = s.short + since;
      pill.title = s.state === 'connected' ?
        'Connected to korvel serve, which is connected to ZooKeeper' : s.message;
      if (s.state === 'reconnecting' || s.state === 'stale') {
        // Made again only when what it says changes, so that a screen reader announces it once;
        // its age moves on beside it, hidden from the announcement.
        const key = `${s.state}|${s.since && s.since.getTime()}|${s.message}`;
        if (banner.dataset.key !== key) {
          banner.dataset.key = key;
          banner.dataset.state = s.state;
          this.bannerAge = h('span', {'aria-hidden': 'true'});
          banner.replaceChildren(h('strong', null, s.state === 'stale' ? 'Stale.' : 'Disconnected.'),
              ' ', s.since ? `Since ${localText(s.since)} ` : '', this.bannerAge, ' ', s.message);
          banner.setAttribute('role', 'alert');
          banner.hidden = false;
        }
        this.bannerAge.textContent = s.since ? `(${ago(s.since)}).` : '';
        if (!this.tickTimer) this.tickTimer = setInterval(() => this.show(), 1000);
      } else {
        banner.hidden = true;
        banner.removeAttribute('role');
        banner.dataset.state = s.state;
        banner.dataset.key = '';
        clearInterval(this.tickTimer);
        this.tickTimer = null;
      }
    },
  };

  // A type's event stream, reopened after any failure with a growing delay. `sink` gets
  // reset(instances, first), added(instance), removed(instance), changed(change), and
  // failed(message) when the type itself is refused.
  class TypeStream {
    constructor(type, sink) {
      this.type = type;
      this.sink = sink;
      this.source = null;
      this.retryTimer = null;
      this.delay = 500;
      this.closed = false;
      this.first = true;
      this.state = {state: 'connecting', downSince: null, staleSince: null};
      connection.setStream(this.state);
      this.open();
    }

    open() {
      if (this.closed) return;
      const source = new TokenEventSource('/api/v1/watch?type=' + encodeURIComponent(this.type));
      this.source = source;
      const on = (name, handle) => source.addEventListener(name, (event) => {
        let data;
        try {
          data = JSON.parse(event.data);
        } catch (e) {
          return;  // not JSON: nothing to apply
        }
        handle(data);
      });
      source.onopen = () => {
        this.delay = 500;
        this.state.state = 'open';
        this.state.downSince = null;
        connection.reached();
      };
      on('snapshot', (list) => {
        this.state.state = 'open';
        this.state.downSince = null;
        this.state.staleSince = null;  // a "stale" follows when the server's cache is not current
        connection.show();
        if (metrics.firstSnapshot === undefined) metrics.firstSnapshot = performance.now();
        this.sink.reset(list, this.first);
        this.first = false;
      });
      on('current', (list) => {
        this.state.staleSince = null;
        connection.show();
        this.sink.reset(list, false);
      });
      on('stale', (data) => {
        const since = new Date(data.since);
        this.state.staleSince = Number.isNaN(since.getTime()) ? new Date() : since;
        connection.show();
      });
      on('added', (instance) => this.sink.added(instance));
      on('removed', (instance) => this.sink.removed(instance));
      on('changed', (change) => this.sink.changed(change));
      source.onerror = () => {
        source.close();
        if (this.closed) return;
        if (this.state.state !== 'down') {
          this.state.state = 'down';
          this.state.downSince = new Date();
        }
        connection.show();
        connection.checkSoon();
        this.diagnose();
        this.retryTimer = setTimeout(() => this.open(), this.delay * (0.75 + Math.random() / 2));
        this.delay = Math.min(this.delay * 2, 5000);
      };
    }

    // After a failure: a type that the server refuses (400) is not retried.
    async diagnose() {
      try {
        const answer = await request('/api/v1/instances?type=' + encodeURIComponent(this.type));
        if (answer.status === 400 && !this.closed) {
          this.close();
          this.sink.failed(answer.body.error || 'the server refuses this type');
        }
      } catch (e) {
        // unreachable: the retries go on
      }
    }

    close() {
      this.closed = true;
      clearTimeout(this.retryTimer);
      if (this.source) this.source.close();
      if (connection.stream === this.state) connection.setStream(null);
    }
  }

  // ---- Tables ----------------------------------------------------------------------------------

  // A sortable, filterable table whose rows are kept by key, so that a change redraws only the
  // cells it changed and a reorder moves rows instead of making them again. Rows are ARIA table
  // rows laid out by CSS grid rather than <tr>s (where a change in any cell lays out every row
  // again), in chunks of CHUNK_ROWS: a chunk out of view is neither styled, laid out nor painted
  // (content-visibility), so that the work of a frame does not grow with the rows.
  //   columns: [{id, label, title, value(item) for sorting, text(item) for the filter,
  //             cell(item) -> Node|string, sig(item) (what the cell shows, when more than value
  //             and text), numeric, className}]
  //   key(item), rowClass(item), predicate(item) (false: hidden, besides the filter words),
  //   onChange() (the order changed), sort and dir (the initial order), emptyText, className
  class KeyedTable {
    constructor(options) {
      this.options = options;
      this.columns = options.columns;
      this.sortId = options.sort || this.columns[0].id;
      this.sortDir = options.dir === 'desc' ? 'desc' : 'asc';
      this.terms = [];
      this.rows = new Map();  // key -> {tr, cells, sigs, item, key, haystack, sortValue, shown}
      this.order = [];        // keys of the rows in the body, in order
      this.chunks = [];       // the body's chunks of rows
      this.headers = new Map();
      const head = h('div', {role: 'row', class: 'grid-row'}, this.columns.map((column) => {
        const button = h('button', {type: 'button', title: column.title,
          onclick: () => this.sortBy(column.id)},
        column.label, h('span', {class: 'dir', 'aria-hidden': 'true'}));
        const th = h('div', {role: 'columnheader', class: `th${column.numeric ? ' num' : ''}`},
            button);
        this.headers.set(column.id, th);
        return th;
      }));
      this.body = h('div', {role: 'rowgroup', class: 'grid-body'});
      this.empty = h('p', {class: 'empty', hidden: true});
      this.table = h('div', {role: 'table', class: `grid ${options.className || ''}`,
        'aria-label': options.caption},
      h('div', {role: 'rowgroup', class: 'grid-head'}, head), this.body);
      this.element = h('div', {class: 'table-wrap'}, this.table, this.empty);
      this.showSort();
    }

    sortBy(id, dir) {
      if (dir) {
        this.sortDir = dir;
      } else {
        this.sortDir = this.sortId === id && this.sortDir === 'asc' ? 'desc' : 'asc';
      }
      this.sortId = id;
      this.showSort();
      this.options.onChange();
    }

    showSort() {
      for (const [id, th] of this.headers) {
        const active = id === this.sortId;
        if (active) th.setAttribute('aria-sort', this.sortDir === 'asc' ? 'ascending' : 'descending');
        else th.removeAttribute('aria-sort');
        th.querySelector('.dir').textContent = active ? (this.sortDir === 'asc' ? '▲' : '▼') : '';
      }
    }

    setFilter(text) {
      this.terms = text.toLowerCase().split(/\s+/).filter(Boolean);
    }

    column() {
      return this.columns.find((c) => c.id === this.sortId) || this.columns[0];
    }

    matches(row) {
      if (this.options.predicate && !this.options.predicate(row.item)) return false;
      return this.terms.every((term) => row.haystack.includes(term));
    }

    // Redraws the rows of `dirty` keys (all when null) from `items`, then filters, sorts and
    // places the rows. A key in `dirty` that `items` lacks loses its row. When no redrawn row
    // changed its place or whether it is shown, nothing else is touched: a burst of status
    // changes costs only its own rows.
    update(items, dirty) {
      const keys = dirty || new Set([...items.keys(), ...this.rows.keys()]);
      const column = this.column();
      let moved = dirty === null || this.lastSort !== `${this.sortId}|${this.sortDir}`;
      for (const key of keys) {
        const item = items.get(key);
        let row = this.rows.get(key);
        if (!item) {
          if (row) {
            row.tr.remove();
            this.rows.delete(key);
            moved = true;
          }
          continue;
        }
        if (!row) {
          row = {tr: null};
          this.rows.set(key, row);
          moved = true;
        }
        this.fill(row, item);
        const sortValue = column.value(item);
        const shown = this.matches(row);
        if (sortValue !== row.sortValue || shown !== row.shown) moved = true;
        row.sortValue = sortValue;
        row.shown = shown;
      }
      if (moved) this.arrange(column);
      this.lastSort = `${this.sortId}|${this.sortDir}`;
      this.empty.hidden = this.order.length > 0;
      this.table.hidden = this.order.length === 0;
      if (!this.order.length) {
        this.empty.textContent = this.rows.size ? 'Nothing matches the filter.' :
          this.options.emptyText;
      }
      return this.order.length;
    }

    // Filters and sorts every row, and places them.
    arrange(column) {
      const visible = [];
      for (const row of this.rows.values()) {
        row.sortValue = column.value(row.item);
        row.shown = this.matches(row);
        if (row.shown) visible.push(row);
      }
      const sign = this.sortDir === 'asc' ? 1 : -1;
      visible.sort((a, b) => {
        const x = a.sortValue, y = b.sortValue;
        const r = typeof x === 'number' && typeof y === 'number' ? x - y :
          collator.compare(String(x), String(y));
        return r * sign || collator.compare(a.key, b.key);
      });
      this.place(visible);
    }

    fill(row, item) {
      const key = this.options.key(item);
      if (!row.tr) {
        row.tr = h('div', {role: 'row', class: 'grid-row', 'data-key': key});
        row.cells = this.columns.map((column) => {
          const td = h('div', {role: 'cell', 'data-label': column.label,
            class: `td${column.numeric ? ' num' : ''}${column.className ? ' ' + column.className : ''}`});
          row.tr.append(td);
          return td;
        });
      }
      row.key = key;
      row.item = item;
      row.haystack = this.columns.map((c) => (c.text ? c.text(item) : '')).join(' ').toLowerCase();
      // A row redrawn under the keyboard focus gives it back to its new link.
      const focused = row.tr.contains(document.activeElement);
      if (!row.sigs) row.sigs = [];
      this.columns.forEach((column, i) => {
        const sig = column.sig ? column.sig(item) :
          `${column.value(item)}\u0000${column.text ? column.text(item) : ''}`;
        if (row.sigs[i] === sig) return;
        row.sigs[i] = sig;
        row.cells[i].replaceChildren(h('div', {class: 'cell'}, column.cell(item)));
      });
      if (focused) {
        const link = row.tr.querySelector('a');
        if (link) link.focus({preventScroll: true});
      }
      row.tr.className = `grid-row${this.options.rowClass ? ' ' + this.options.rowClass(item) : ''}`;
      if (item.flash) {
        // Alternating names restart the highlight without a forced layout.
        const next = row.tr.dataset.flash === `${item.flash}-a` ? `${item.flash}-b` : `${item.flash}-a`;
        row.tr.dataset.flash = next;
        item.flash = null;
      }
      return row;
    }

    // Puts the rows in the body's chunks in `visible` order, moving only rows out of place: a
    // row that leaves a chunk moves one row of each chunk after it.
    place(visible) {
      const wanted = visible.map((row) => row.key);
      const same = wanted.length === this.order.length && wanted.every((k, i) => k === this.order[i]);
      if (same) return;
      const count = Math.ceil(visible.length / CHUNK_ROWS);
      while (this.chunks.length < count) {
        const chunk = h('div', {class: 'chunk', role: 'presentation'});
        this.body.appendChild(chunk);
        this.chunks.push(chunk);
      }
      while (this.chunks.length > count) this.chunks.pop().remove();
      for (let c = 0; c < count; c++) {
        const chunk = this.chunks[c];
        let cursor = chunk.firstChild;
        const end = Math.min(visible.length, (c + 1) * CHUNK_ROWS);
        if (!cursor) {
          const fragment = document.createDocumentFragment();
          for (let i = c * CHUNK_ROWS; i < end; i++) fragment.appendChild(visible[i].tr);
          chunk.appendChild(fragment);
          continue;
        }
        for (let i = c * CHUNK_ROWS; i < end; i++) {
          const tr = visible[i].tr;
          if (tr === cursor) cursor = cursor.nextSibling;
          else chunk.insertBefore(tr, cursor);
        }
        // What is left belongs to a later chunk, which takes it, or is no longer shown.
        while (cursor) {
          const next = cursor.nextSibling;
          cursor.remove();
          cursor = next;
        }
      }
      this.order = wanted;
    }

    // The links of the rows in order, for keyboard moves.
    links() {
      return [...this.body.querySelectorAll('[role=row] > [role=cell]:first-child a')];
    }
  }

  // The route's sort (?sort=ID&dir=asc|desc), when it names a column.
  function sortFromRoute(table, query) {
    const id = query.get('sort');
    if (!id || !table.columns.some((c) => c.id === id)) return;
    table.sortId = id;
    table.sortDir = query.get('dir') === 'desc' ? 'desc' : 'asc';
    table.showSort();
  }

  // The filter box, status toggles and (at phone width) the sort select above a table.
  function toolbar(table, label, filterText, onFilter, extra) {
    const input = h('input', {type: 'search', id: 'filter', placeholder: `${label} (press /)`,
      'aria-label': label, value: filterText || '', autocomplete: 'off', spellcheck: 'false'});
    let timer = null;
    input.addEventListener('input', () => {
      clearTimeout(timer);
      timer = setTimeout(() => onFilter(input.value), 60);
    });
    input.addEventListener('keydown', (event) => {
      if (event.key === 'Escape') {
        if (input.value) {
          input.value = '';
          onFilter('');
        } else {
          input.blur();
        }
        event.preventDefault();
      }
    });
    const select = h('select', {'aria-label': 'Sort by',
      onchange: () => table.sortBy(select.value, table.sortDir)},
    table.columns.map((c) => h('option', {value: c.id, selected: c.id === table.sortId}, c.label)));
    const direction = h('button', {type: 'button', 'aria-label': 'Reverse the order',
      onclick: () => {
        table.sortBy(table.sortId, table.sortDir === 'asc' ? 'desc' : 'asc');
        direction.textContent = table.sortDir === 'asc' ? '▲' : '▼';
      }}, table.sortDir === 'asc' ? '▲' : '▼');
    const sorter = h('label', {class: 'sorter'}, h('span', null, 'Sort'), select, direction);
    return h('div', {class: 'toolbar'}, input, extra, sorter);
  }

  // The route's query as the table's state says it, replaced without a new history entry.
  function keepInRoute(base, table, filterText, more) {
    const params = new URLSearchParams();
    if (filterText) params.set('q', filterText);
    if (table.sortId !== table.options.sort || table.sortDir !== 'asc') {
      params.set('sort', table.sortId);
      params.set('dir', table.sortDir);
    }
    for (const [k, v] of Object.entries(more || {})) if (v) params.set(k, v);
    const query = params.toString();
    const hash = base + (query ? '?' + query : '');
    if (location.hash !== hash) history.replaceState(null, '', hash);
  }

  // Runs `draw` once in the next animation frame however often it is asked for until then.
  function frameScheduler(draw) {
    let pending = false;
    return () => {
      if (pending) return;
      pending = true;
      requestAnimationFrame(() => {
        pending = false;
        draw();
      });
    };
  }

  // A polite announcement for screen readers, at most one every few seconds.
  function announcer() {
    const region = h('p', {class: 'visually-hidden', 'aria-live': 'polite'});
    let counts = {added: 0, removed: 0, changed: 0};
    let timer = null;
    return {
      region,
      count(kind) {
        counts[kind]++;
        if (timer) return;
        timer = setTimeout(() => {
          const parts = Object.entries(counts).filter(([, n]) => n).map(([k, n]) => `${n} ${k}`);
          region.textContent = parts.join(', ');
          counts = {added: 0, removed: 0, changed: 0};
          timer = null;
        }, 3000);
      },
      stop() {
        clearTimeout(timer);
      },
    };
  }

  function setCrumbs(parts) {
    const nav = document.getElementById('crumbs');
    nav.replaceChildren(...parts.flatMap((part, i) => {
      const last = i === parts.length - 1;
      const node = last ? h('span', {class: 'here', 'aria-current': 'page'}, part.text) :
        h('a', {href: part.href}, part.text);
      return i ? [h('span', {class: 'sep', 'aria-hidden': 'true'}, '/'), node] : [node];
    }));
  }

  function heading(text, extra) {
    return h('h1', {tabindex: '-1'}, text, extra);
  }

  // ---- The types overview ----------------------------------------------------------------------

  class OverviewPage {
    constructor(query) {
      this.filterText = query.get('q') || '';
      this.items = new Map();
      this.dirty = null;  // the types to redraw; null: all
      this.loaded = false;
      this.timer = null;
      this.table = new KeyedTable({
        caption: 'Service types',
        className: 'types',
        key: (item) => item.type,
        sort: 'type',
        emptyText: 'No service type has a liveness directory yet.',
        rowClass: (item) => (item.up === 0 ? 'no-up' : ''),
        onChange: () => this.refilter(),
        columns: [
          {id: 'type', label: 'Type', value: (t) => t.type, text: (t) => t.type,
            cell: (t) => h('a', {href: typeHref(t.type)}, t.type), className: 'wrap'},
          {id: 'instances', label: 'Instances', numeric: true, value: (t) => t.instances,
            cell: (t) => String(t.instances)},
          ...KNOWN_STATUSES.map((status) => ({id: status, label: status, numeric: true,
            value: (t) => t.statuses[status] || 0, cell: (t) => String(t.statuses[status] || 0)})),
          {id: 'other', label: 'other', numeric: true, value: (t) => otherCount(t),
            sig: (t) => JSON.stringify(t.statuses),
            cell: (t) => {
              const others = Object.entries(t.statuses).filter(([s]) => !KNOWN_STATUSES.includes(s));
              return h('span', {title: others.map(([s, n]) => `${s || 'no status yet'}: ${n}`).join(', ')},
                  String(otherCount(t)));
            }},
          {id: 'state', label: 'State', value: (t) => (t.up === 0 ? 0 : 1) + (t.current ? 0 : 2),
            text: (t) => stateWords(t),
            cell: (t) => h('span', null,
                t.up === 0 ? h('span', {class: 'mark-none'}, '⚠ no instance up') :
                  h('span', {class: 'mark-ok'}, '✓ up'),
                t.current ? null : h('span', {class: 'sub'}, 'stale: may be out of date'))},
        ],
      });
      sortFromRoute(this.table, query);
      this.table.setFilter(this.filterText);
    }

    mount(main) {
      this.summary = h('p', {class: 'note'}, 'Loading…');
      this.updated = h('p', {class: 'note'});
      main.replaceChildren(heading('Service types'), this.summary,
          toolbar(this.table, 'Filter types', this.filterText, (text) => {
            this.filterText = text;
            this.table.setFilter(text);
            this.refilter();
          }), this.table.element, this.updated);
      this.table.table.hidden = true;
      setCrumbs([{text: 'Service types'}]);
      document.title = 'Service types — korvel';
      this.load();
    }

    refilter() {
      keepInRoute('#/', this.table, this.filterText);
      this.dirty = null;
      this.draw();
    }

    async load() {
      clearTimeout(this.timer);
      try {
        const answer = await request('/api/v1/types');
        if (this.gone) return;
        if (answer.ok && Array.isArray(answer.body)) {
          const next = new Map();
          const dirty = new Set();
          for (const t of answer.body) {
            t.statuses = t.statuses || {};
            const old = this.items.get(t.type);
            if (!old || old.instances !== t.instances || old.up !== t.up ||
                old.current !== t.current ||
                JSON.stringify(old.statuses) !== JSON.stringify(t.statuses)) {
              if (this.loaded) t.flash = old ? 'changed' : 'added';
              dirty.add(t.type);
              next.set(t.type, t);
            } else {
              next.set(t.type, old);
            }
          }
          for (const type of this.items.keys()) if (!next.has(type)) dirty.add(type);
          this.items = next;
          this.dirty = this.loaded && this.dirty ? new Set([...this.dirty, ...dirty]) : null;
          this.loaded = true;
          this.lastLoad = new Date();
          this.error = '';
        } else {
          this.error = answer.body.error || `HTTP ${answer.status}`;
        }
      } catch (e) {
        this.error = 'korvel serve does not answer';
      }
      if (this.gone) return;
      this.draw();
      this.timer = setTimeout(() => this.load(), TYPES_POLL_MS);
    }

    draw() {
      if (!this.loaded) {
        this.summary.textContent = this.error ? `Cannot read the types: ${this.error}.` : 'Loading…';
        this.summary.className = this.error ? 'note error' : 'note';
        return;
      }
      // Only the rows that changed since the last draw, unless the filter or order changed.
      const shown = this.table.update(this.items, this.dirty);
      this.dirty = new Set();
      const all = [...this.items.values()];
      const instances = all.reduce((n, t) => n + t.instances, 0);
      const none = all.filter((t) => t.up === 0).length;
      this.summary.className = 'note';
      this.summary.textContent = `${number(all.length)} ${all.length === 1 ? 'type' : 'types'}, ` +
        `${number(instances)} live ${instances === 1 ? 'instance' : 'instances'}` +
        (none ? `; ${number(none)} with no instance up` : '') +
        (shown !== all.length ? ` (${number(shown)} shown)` : '') + '.';
      this.updated.textContent = (this.error ? `Could not refresh: ${this.error}. ` : '') +
        `Read at ${clockText(this.lastLoad)}; refreshed every ${TYPES_POLL_MS / 1000} s.`;
      this.updated.className = this.error ? 'note error' : 'note';
      if (metrics.firstRender === null) markFirstRender(all.length);
    }

    unmount() {
      this.gone = true;
      clearTimeout(this.timer);
    }
  }

  const otherCount = (t) => Object.entries(t.statuses)
      .filter(([s]) => !KNOWN_STATUSES.includes(s)).reduce((n, [, c]) => n + c, 0);
  const stateWords = (t) => (t.up === 0 ? 'no instance up' : 'up') + (t.current ? '' : ' stale');

  // When the first table appeared (from the start of navigation) and with how many rows.
  function markFirstRender(rows) {
    const drawn = performance.now();
    // After the frame that shows it has been painted.
    requestAnimationFrame(() => setTimeout(() => {
      metrics.firstRender = {rows, drawnMs: drawn, paintedMs: performance.now()};
      performance.mark('korvel-first-render');
    }, 0));
  }

  // ---- A type's instances ----------------------------------------------------------------------

  class TypePage {
    constructor(type, query) {
      this.type = type;
      this.filterText = query.get('q') || '';
      this.statusFilter = query.get('status') || '';
      this.items = new Map();  // id -> {data, leaving, flash}
      this.dirty = new Set();
      this.received = false;
      this.schedule = frameScheduler(() => this.draw());
      this.announce = announcer();
      this.table = new KeyedTable({
        caption: `Live instances of ${type}`,
        className: 'instances',
        key: (item) => item.data.id,
        sort: 'name',
        emptyText: `No live instance of type ${type}.`,
        rowClass: (item) => (item.leaving ? 'leaving' : ''),
        predicate: (item) => !this.statusFilter || item.leaving ||
          (item.data.status || '') === this.statusFilter,
        onChange: () => this.refilter(),
        columns: [
          {id: 'id', label: 'Id', value: (i) => i.data.id, text: (i) => i.data.id, className: 'id',
            sig: (i) => `${i.data.id}|${i.data.service_name}`,
            cell: (i) => h('a', {href: instanceHref(this.type, i.data.id),
              'aria-label': `Instance ${i.data.service_name || ''} ${i.data.id}`.replace('  ', ' ')},
            i.data.id)},
          {id: 'status', label: 'Status', value: (i) => statusRank(i),
            text: (i) => (i.leaving ? 'gone' : i.data.status || ''),
            sig: (i) => `${i.leaving}|${i.data.status}|${i.statusFrom}|${i.statusSince}`,
            cell: (i) => (i.leaving ? h('span', {class: 'badge st-other'},
                h('span', {class: 'sym', 'aria-hidden': 'true'}, '✕'), 'gone') :
              h('span', {title: i.statusSince ?
                `${i.statusFrom === undefined ? 'set' : `changed from ${i.statusFrom || 'none'}`}` +
                ` at ${clockText(i.statusSince)}` : null}, statusBadge(i.data.status)))},
          {id: 'name', label: 'Name', value: (i) => i.data.service_name || '',
            text: (i) => i.data.service_name || '', className: 'wrap',
            cell: (i) => i.data.service_name || h('span', {class: 'muted'}, '—')},
          {id: 'host', label: 'Host', value: (i) => i.data.hostname || '',
            text: (i) => i.data.hostname || '', className: 'wrap',
            cell: (i) => i.data.hostname || h('span', {class: 'muted'}, '—')},
          {id: 'pid', label: 'PID', numeric: true, value: (i) => Number(i.data.pid) || 0,
            text: (i) => i.data.pid || '', cell: (i) => i.data.pid || '—'},
          {id: 'start', label: 'Started', title: `Local time (${zoneName}), then UTC and age`,
            value: (i) => (i.start ? i.start.getTime() : 0), text: (i) => i.data.start_time || '',
            sig: (i) => i.data.start_time,
            cell: (i) => (i.start ? timeBlock(i.start) :
              h('span', {class: 'muted'}, i.data.start_time || '—'))},
          {id: 'version', label: 'Version', value: (i) => i.data.version || '',
            text: (i) => i.data.version || '', className: 'wrap',
            cell: (i) => i.data.version || h('span', {class: 'muted'}, '—')},
          {id: 'recipe', label: 'Recipe', value: (i) => i.data.chef_recipe_name || '',
            text: (i) => i.data.chef_recipe_name || '', className: 'wrap',
            cell: (i) => i.data.chef_recipe_name || h('span', {class: 'muted'}, '—')},
        ],
      });
      sortFromRoute(this.table, query);
      this.table.setFilter(this.filterText);
    }

    mount(main) {
      this.summary = h('p', {class: 'note'}, 'Connecting to the live stream…');
      this.chips = h('div', {class: 'chips', role: 'group', 'aria-label': 'Show only a status'});
      this.problem = h('p', {class: 'error', hidden: true});
      main.replaceChildren(heading(this.type), this.summary, this.problem,
          toolbar(this.table, 'Filter instances', this.filterText, (text) => {
            this.filterText = text;
            this.table.setFilter(text);
            this.refilter();
          }, this.chips), this.table.element, this.announce.region);
      this.table.table.hidden = true;
      setCrumbs([{text: 'Service types', href: '#/'}, {text: this.type}]);
      document.title = `${this.type} — korvel`;
      this.stream = new TypeStream(this.type, this);
    }

    // The filter or the order changed: every row is placed again.
    refilter() {
      keepInRoute(typeHref(this.type), this.table, this.filterText, {status: this.statusFilter});
      this.dirty = null;  // everything: the filter or order changed
      this.schedule();
    }

    touch(id) {
      if (this.dirty) this.dirty.add(id);
      this.schedule();
    }

    // The stream's whole list: a first one as it is, a later one (after a reconnect, or when
    // the server's cache is current again) compared with what the page has.
    reset(list, first) {
      const seen = new Set();
      for (const data of list) {
        seen.add(data.id);
        const old = this.items.get(data.id);
        if (first || !old || old.leaving) {
          this.put(data, first ? null : 'added');
        } else if (JSON.stringify(old.data) !== JSON.stringify(data)) {
          if (old.data.status !== data.status) this.noteStatus(old, old.data.status);
          this.put(data, 'changed', old);
        }
      }
      for (const [id, item] of this.items) {
        if (!seen.has(id) && !item.leaving) this.leave(id);
      }
      this.received = true;
      if (first) this.dirty = null;
      this.schedule();
    }

    put(data, flash, old) {
      const item = old || {};
      // A registration writes its status after it appears: a change soon after that is part of
      // its arrival, and keeps the arrival's highlight.
      if (flash === 'added') item.addedAt = Date.now();
      else if (flash === 'changed' && Date.now() - (item.addedAt || 0) < 2000) flash = 'added';
      item.data = data;
      item.leaving = false;
      item.flash = flash;
      item.start = parseStartTime(data.start_time);
      if (flash === 'added') this.announce.count('added');
      if (flash === 'changed') this.announce.count('changed');
      this.items.set(data.id, item);
      this.touch(data.id);
    }

    noteStatus(item, from) {
      item.statusFrom = from;
      item.statusSince = new Date();
    }

    added(data) {
      this.put(data, 'added', this.items.get(data.id));
    }

    removed(data) {
      if (this.items.has(data.id)) this.leave(data.id);
    }

    leave(id) {
      const item = this.items.get(id);
      item.leaving = true;
      item.flash = null;
      this.announce.count('removed');
      this.touch(id);
      item.leaveTimer = setTimeout(() => {
        if (this.items.get(id) === item && item.leaving) {
          this.items.delete(id);
          this.touch(id);
        }
      }, LEAVING_MS);
    }

    changed(change) {
      const item = this.items.get(change.id);
      if (!item || item.leaving) return;
      const data = {...item.data};
      if (change.new === null) delete data[change.attribute];
      else data[change.attribute] = change.new;
      if (change.attribute === 'status') this.noteStatus(item, change.old === null ? undefined : change.old);
      this.put(data, 'changed', item);
    }

    failed(message) {
      this.problem.hidden = false;
      this.problem.textContent = `Cannot follow this type: ${message}.`;
      this.summary.textContent = '';
    }

    draw() {
      const dirty = this.dirty;
      this.dirty = new Set();
      if (!this.received) return;
      const started = performance.now();
      const shown = this.table.update(this.items, dirty);
      this.drawSummary(shown);
      const took = performance.now() - started;
      const draws = metrics.draws;
      draws.count++;
      draws.rows += dirty ? dirty.size : this.items.size;
      draws.totalMs += took;
      draws.maxMs = Math.max(draws.maxMs, took);
      if (metrics.firstRender === null) markFirstRender(this.items.size);
    }

    drawSummary(shown) {
      const counts = {};
      let live = 0;
      for (const item of this.items.values()) {
        if (item.leaving) continue;
        live++;
        const status = item.data.status || '';
        counts[status] = (counts[status] || 0) + 1;
      }
      // The toggles are made again only when a status appears: a redraw would take the focus.
      const statuses = [...new Set([...KNOWN_STATUSES, ...Object.keys(counts)])];
      if (statuses.join('|') !== this.chipStatuses) {
        this.chipStatuses = statuses.join('|');
        this.chipCounts = new Map();
        this.chips.replaceChildren(...statuses.map((status) => {
          const count = h('span', {class: 'count'});
          const chip = h('button', {type: 'button', class: 'chip', onclick: () => {
            this.statusFilter = this.statusFilter === status ? '' : status;
            this.refilter();
          }}, statusBadge(status), ' ', count);
          this.chipCounts.set(status, {chip, count});
          return chip;
        }));
      }
      for (const [status, {chip, count}] of this.chipCounts) {
        const pressed = this.statusFilter === status;
        chip.setAttribute('aria-pressed', String(pressed));
        chip.title = pressed ? 'Show every status' : `Show only "${status || 'no status yet'}"`;
        count.textContent = String(counts[status] || 0);
      }
      const up = counts.up || 0;
      this.summary.replaceChildren(
          `${number(live)} live ${live === 1 ? 'instance' : 'instances'}`,
          up ? `, ${number(up)} up` : h('span', {class: 'mark-none'}, ' — ⚠ no instance up'),
          shown !== this.items.size ? ` (${number(shown)} shown)` : '', '. Updated live.');
    }

    unmount() {
      this.stream.close();
      this.announce.stop();
      for (const item of this.items.values()) clearTimeout(item.leaveTimer);
    }
  }

  const statusRank = (i) => (i.leaving ? 9 : {up: 0, up_sending_disabled: 1, down: 2}[i.data.status] ?? 3);

  // ---- One instance ----------------------------------------------------------------------------

  class InstancePage {
    constructor(type, id) {
      this.type = type;
      this.id = id.toLowerCase();
      this.opened = new Date();
      this.record = null;        // the last answer of /api/v1/instance
      this.own = null;           // the instance as the stream knows it
      this.seen = new Map();     // "path\u0000attribute" -> {at, old, now}: changes seen
      this.records = new Map();  // child path -> {at, removed}: records that came or went
      this.collapsed = new Set();
      this.goneAt = null;
      this.missing = false;
      this.error = '';
      this.schedule = frameScheduler(() => this.draw());
    }

    mount(main) {
      this.status = h('span');
      this.body = h('div', null, h('p', {class: 'note'}, 'Loading…'));
      main.replaceChildren(heading(h('span', {class: 'mono'}, this.id), [' ', this.status]),
          this.body);
      setCrumbs([{text: 'Service types', href: '#/'}, {text: this.type, href: typeHref(this.type)},
        {text: this.id.slice(0, 8) + '…'}]);
      document.title = `${this.id.slice(0, 8)} · ${this.type} — korvel`;
      const page = this;
      this.stream = new TypeStream(this.type, {
        reset(list) {
          const data = list.find((i) => i.id === page.id);
          if (data) page.streamSays(data);
          else if (page.own || page.record) page.left();
        },
        added(data) {
          if (data.id === page.id) page.streamSays(data);
        },
        removed(data) {
          if (data.id === page.id) page.left();
        },
        changed(change) {
          if (change.id !== page.id) return;
          const data = {...(page.own || {id: page.id})};
          if (change.new === null) delete data[change.attribute];
          else data[change.attribute] = change.new;
          page.streamSays(data);
          page.load();  // other values of the record may have changed with it
        },
        failed(message) {
          page.failure = message;
          page.schedule();
        },
      });
      this.load();
    }

    // The instance's own attributes as the stream tells them now.
    streamSays(data) {
      const before = this.own;
      this.own = data;
      if (before) {
        for (const key of new Set([...Object.keys(before), ...Object.keys(data)])) {
          if (before[key] !== data[key]) this.note('', key, before[key] ?? null, data[key] ?? null);
        }
      }
      if (this.goneAt) {
        this.goneAt = null;
        this.load();
      }
      this.schedule();
    }

    left() {
      if (!this.goneAt) this.goneAt = new Date();
      this.schedule();
    }

    // Records that the page saw `attribute` of the record at `path` (the instance itself: "")
    // change; the same change seen twice (from the stream, then a read) keeps its first time.
    note(path, attribute, old, now) {
      const key = `${path}\u0000${attribute}`;
      const known = this.seen.get(key);
      if (known && known.now === now) return;
      this.seen.set(key, {at: new Date(), old, now});
    }

    async load() {
      clearTimeout(this.timer);
      if (this.loading) {
        this.again = true;
        return;
      }
      this.loading = true;
      const before = JSON.stringify([this.record, this.missing, this.error]);
      try {
        const answer = await request(`/api/v1/instance?type=${encodeURIComponent(this.type)}` +
          `&id=${encodeURIComponent(this.id)}`);
        if (this.gone) return;
        if (answer.status === 200) {
          this.compare(this.record, answer.body);
          this.record = answer.body;
          this.missing = false;
          this.error = '';
        } else if (answer.status === 404) {
          this.missing = true;
          this.error = '';
          if (this.record && !this.goneAt) this.goneAt = new Date();
        } else {
          this.error = answer.body.error || `HTTP ${answer.status}`;
        }
      } catch (e) {
        this.error = 'korvel serve does not answer';
      } finally {
        this.loading = false;
      }
      if (this.gone) return;
      // Drawn again only when something changed: a redraw would take the keyboard focus.
      if (JSON.stringify([this.record, this.missing, this.error]) !== before) this.schedule();
      if (this.again) {
        this.again = false;
        this.load();
      } else {
        this.timer = setTimeout(() => this.load(), INSTANCE_POLL_MS);
      }
    }

    // Notes what differs between two answers: attributes, and child records and theirs.
    compare(before, after) {
      if (!before) return;
      const diff = (path, a, b) => {
        for (const key of new Set([...Object.keys(a || {}), ...Object.keys(b || {})])) {
          const x = a && key in a ? a[key] : null;
          const y = b && key in b ? b[key] : null;
          if (x !== y) this.note(path, key, x, y);
        }
      };
      diff('', before.attributes, after.attributes);
      const paths = new Set([...Object.keys(before.children), ...Object.keys(after.children)]);
      for (const path of paths) {
        const a = before.children[path], b = after.children[path];
        if (!a || !b) this.records.set(path, {at: new Date(), removed: !b});
        diff(path, a, b);
      }
    }

    draw() {
      if (this.gone) return;
      // The element that has the focus, found again by its place after the redraw.
      const focused = document.activeElement;
      const focusKey = this.body.contains(focused) ? focused.dataset.focusKey : null;

      const status = this.own ? this.own.status : this.record && this.record.attributes.status;
      this.status.replaceChildren(this.goneAt ? h('span', {class: 'badge st-other'},
          h('span', {class: 'sym', 'aria-hidden': 'true'}, '✕'), 'gone') : statusBadge(status));
      const parts = [];
      if (this.failure) parts.push(h('p', {class: 'error'}, `Cannot follow this type: ${this.failure}.`));
      if (this.goneAt) {
        parts.push(h('p', {class: 'gone', role: 'status'},
            `This instance left at ${localText(this.goneAt)} (`, ageSpan(this.goneAt),
            '). Shown as it was last seen.'));
      }
      if (!this.record) {
        if (this.missing) {
          parts.push(h('p', {class: 'error'}, `No instance ${this.id} of type ${this.type} is ` +
            'registered. It may have left; the page shows it if it comes back.'),
          h('p', null, h('a', {href: typeHref(this.type)}, `All instances of ${this.type}`)));
        } else {
          parts.push(h('p', {class: this.error ? 'error' : 'note'},
              this.error ? `Cannot read the instance: ${this.error}.` : 'Loading…'));
        }
        this.body.replaceChildren(...parts);
        return;
      }
      const a = this.record.attributes;
      const start = parseStartTime(a.start_time);
      const fact = (name, value) => [h('dt', null, name), h('dd', null, value || '—')];
      parts.push(h('dl', {class: 'facts'},
          fact('Type', h('a', {href: typeHref(this.type)}, this.type)),
          fact('Name', a.service_name),
          fact('Host', a.hostname),
          fact('PID', a.pid),
          fact('Started', start ? timeBlock(start, 'started ') : a.start_time),
          fact('Version', a.version),
          fact('Recipe', a.chef_recipe_name)));
      parts.push(h('p', {class: 'note'}, '"Last changed" is what this page saw change since it ' +
        `opened at ${clockText(this.opened)}: the status at once, other values within ` +
        `${INSTANCE_POLL_MS / 1000} s.`));
      if (this.error) parts.push(h('p', {class: 'error'}, `Could not refresh: ${this.error}.`));
      parts.push(h('h2', {id: 'attributes'}, 'Attributes'),
          this.attributeTable('', a, 'Attributes of the instance'));
      const paths = Object.keys(this.record.children);
      for (const [path, info] of this.records) {
        if (info.removed && !paths.includes(path)) paths.push(path);
      }
      const count = Object.keys(this.record.children).length;
      parts.push(h('h2', {id: 'children'}, `Child records (${count})`));
      parts.push(paths.length ? this.tree(paths) : h('p', {class: 'note'}, 'None.'));
      this.body.replaceChildren(...parts);

      if (focusKey) {
        const again = [...this.body.querySelectorAll('[data-focus-key]')]
            .find((node) => node.dataset.focusKey === focusKey);
        if (again) again.focus({preventScroll: true});
      }
    }

    attributeTable(path, values, caption) {
      const names = Object.keys(values || {});
      for (const [key, seen] of this.seen) {
        const [p, name] = key.split('\u0000');
        if (p === path && !names.includes(name) && seen.now === null) names.push(name);
      }
      names.sort(collator.compare);
      if (!names.length) return h('p', {class: 'note'}, 'No attributes.');
      return h('div', {class: 'table-wrap'}, h('table', {class: 'attrs'},
          h('caption', {class: 'visually-hidden'}, caption),
          h('thead', null, h('tr', null, ['Name', 'Value', 'Last changed'].map((label) =>
            h('th', {scope: 'col'}, h('span', {class: 'th'}, label))))),
          h('tbody', null, names.map((name) => {
            const seen = this.seen.get(`${path}\u0000${name}`);
            const present = values && name in values;
            const recent = seen && Date.now() - seen.at.getTime() < 60000;
            return h('tr', {class: present ? null : 'removed', 'data-attribute': name},
                h('td', {class: 'mono'}, name),
                h('td', {class: 'value mono'}, present ? values[name] : '(removed)'),
                h('td', {class: `when${recent ? ' recent' : ''}`,
                  title: seen ? `was ${seen.old === null ? 'absent' : JSON.stringify(seen.old)}` : null},
                seen ? [clockText(seen.at), ' (', ageSpan(seen.at), ')'] : 'not since opened'));
          }))));
    }

    // Child records as a tree: "a/b" below "a"; a path that is only the parent of others is
    // shown too.
    tree(paths) {
      const root = {children: new Map()};
      for (const path of paths.sort(collator.compare)) {
        let node = root;
        const parts = path.split('/');
        parts.forEach((part, i) => {
          if (!node.children.has(part)) {
            node.children.set(part, {path: parts.slice(0, i + 1).join('/'), name: part,
              children: new Map()});
          }
          node = node.children.get(part);
        });
      }
      const build = (node) => h('ul', {class: 'tree', role: 'list'},
          [...node.children.values()].map((child) => {
            const values = this.record.children[child.path];
            const info = this.records.get(child.path);
            const n = values ? Object.keys(values).length : 0;
            const removed = !values && info && info.removed;
            const what = values ? `${n} ${n === 1 ? 'attribute' : 'attributes'}` :
              (removed ? 'removed' : 'no record of its own');
            const details = h('details', {open: !this.collapsed.has(child.path),
              ontoggle: () => {
                if (details.open) this.collapsed.delete(child.path);
                else this.collapsed.add(child.path);
              }},
            h('summary', {'data-focus-key': `record:${child.path}`},
                h('span', {class: 'name'}, child.name), ' ',
                h('span', {class: 'muted'}, `· ${what}` +
                  (info ? ` · ${info.removed ? 'removed' : 'appeared'} ${clockText(info.at)}` : ''))),
            h('div', {class: 'record-body'},
                (values && Object.keys(values).length) || removed ?
                  this.attributeTable(child.path, values, `Attributes of ${child.path}`) : null,
                child.children.size ? build(child) : null));
            return h('li', {class: `record${removed ? ' removed' : ''}`, 'data-path': child.path},
                details);
          }));
      return build(root);
    }

    unmount() {
      this.gone = true;
      this.stream.close();
      clearTimeout(this.timer);
    }
  }

  // ---- Routing and keys ------------------------------------------------------------------------

  function parseRoute(hash) {
    const raw = hash.replace(/^#/, '');
    const question = raw.indexOf('?');
    const path = question < 0 ? raw : raw.slice(0, question);
    const query = new URLSearchParams(question < 0 ? '' : raw.slice(question + 1));
    const parts = path.split('/').filter(Boolean).map((p) => {
      try {
        return decodeURIComponent(p);
      } catch (e) {
        return p;
      }
    });
    if (parts.length === 0) return {page: 'overview', key: '#/', query};
    if (parts[0] === 'type' && parts.length >= 2) {
      const last = parts[parts.length - 1];
      if (parts.length >= 3 && UUID.test(last)) {
        const type = parts.slice(1, -1).join('/');
        return {page: 'instance', type, id: last, key: `i:${type}:${last.toLowerCase()}`, query};
      }
      const type = parts.slice(1).join('/');
      return {page: 'type', type, key: `t:${type}`, query};
    }
    return {page: 'unknown', key: `?:${path}`, query};
  }

  let current = null;

  function route() {
    const where = parseRoute(location.hash);
    if (current && current.key === where.key) return;  // only the query changed
    if (current) current.page.unmount();
    const main = document.getElementById('main');
    let page;
    if (where.page === 'overview') page = new OverviewPage(where.query);
    else if (where.page === 'type') page = new TypePage(where.type, where.query);
    else if (where.page === 'instance') page = new InstancePage(where.type, where.id);
    else {
      page = {mount(m) {
        setCrumbs([{text: 'Service types', href: '#/'}, {text: 'Not found'}]);
        m.replaceChildren(heading('Not found'),
            h('p', null, 'No page here. ', h('a', {href: '#/'}, 'All service types')));
      }, unmount() {}};
    }
    current = {key: where.key, page, where};
    page.mount(main);
    // After a click or a key (not at the first load), the new page's heading takes the focus,
    // so that a screen reader reads where it went and keys start from there.
    if (route.moved) {
      const title = main.querySelector('h1');
      if (title) title.focus({preventScroll: true});
      window.scrollTo(0, 0);
    }
    route.moved = true;
  }

  function up() {
    const where = current && current.where;
    if (!where) return;
    if (where.page === 'instance') location.hash = typeHref(where.type);
    else if (where.page !== 'overview') location.hash = '#/';
  }

  function moveRow(step) {
    const page = current && current.page;
    if (!page || !page.table) return;
    const links = page.table.links();
    if (!links.length) return;
    const at = links.indexOf(document.activeElement);
    const next = at < 0 ? (step > 0 ? 0 : links.length - 1) :
      Math.min(links.length - 1, Math.max(0, at + step));
    links[next].focus();
    links[next].closest('[role=row]').scrollIntoView({block: 'nearest'});
  }

  function onKey(event) {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    const target = event.target;
    const typing = target instanceof HTMLInputElement || target instanceof HTMLSelectElement ||
      target instanceof HTMLTextAreaElement;
    if (typing) return;
    const dialog = document.getElementById('keys');
    if (dialog.open) return;
    const inTable = target.closest && target.closest('.grid');
    switch (event.key) {
      case '/': {
        const filter = document.getElementById('filter');
        if (filter) {
          event.preventDefault();
          filter.focus();
          filter.select();
        }
        break;
      }
      case 'j':
        moveRow(1);
        break;
      case 'k':
        moveRow(-1);
        break;
      case 'ArrowDown':
        if (inTable) {
          event.preventDefault();
          moveRow(1);
        }
        break;
      case 'ArrowUp':
        if (inTable) {
          event.preventDefault();
          moveRow(-1);
        }
        break;
      case 'u':
      case 'Backspace':
        event.preventDefault();
        up();
        break;
      case '?':
        dialog.showModal();
        break;
      default:
        break;
    }
  }

  function start() {
    document.addEventListener('keydown', onKey);
    document.getElementById('skip').addEventListener('click', (event) => {
      event.preventDefault();
      document.getElementById('main').focus();
    });
    const dialog = document.getElementById('keys');
    document.getElementById('keys-button').addEventListener('click', () => dialog.showModal());
    document.getElementById('keys-close').addEventListener('click', () => dialog.close());
    window.addEventListener('hashchange', route);
    connection.checkHealth();
    route.moved = false;
    route();
  }

  start();
})();
