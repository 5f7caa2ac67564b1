// The page of the engine: asks for its figures every two seconds and shows them. What programs call
// themselves reaches the document as text only.
"use strict";

const REFRESH_MS = 2000;
const PATIENCE_MS = 5000;
const by = (id) => document.getElementById(id);
const narrow = window.matchMedia("(max-width: 760px)");

const state = {
  window: "300", sort: "count", order: "desc", filter: "", chosen: null, paused: false,
  run: null, goneSince: null, classes: null, history: null, cursor: null, trace: null, timer: 0,
};

// ---- texts --------------------------------------------------------------------------------------

const NBSP = "\u00a0";
const NOTHING = "–";

function three(value) {
  return value >= 99.95 ? value.toFixed(0) : value >= 9.995 ? value.toFixed(1) : value.toFixed(2);
}

/// A duration as number and unit: three digits, in the largest unit that it reaches.
function durationParts(ns) {
  if (ns === null || ns === undefined) return [NOTHING, ""];
  if (ns === 0) return ["0", "s"];
  for (const [unit, size] of [["µs", 1e3], ["ms", 1e6], ["s", 1e9]]) {
    if (ns < 999.5 * size || unit === "s") {
      return ns < 1e13 ? [three(ns / size), unit] : [three(ns / 6e10), "min"];
    }
  }
}
const duration = (ns) => durationParts(ns).join(NBSP).trim();

function rate(value) {
  if (value === null || value === undefined) return NOTHING;
  if (value === 0) return "0";
  if (value < 0.01) return "<" + NBSP + "0.01";
  return value < 1000 ? three(value) : Math.round(value).toLocaleString("en");
}

function share(errors, count) {
  if (!count) return NOTHING;
  const percent = (100 * errors) / count;
  if (percent > 0 && percent < 0.1) return "<" + NBSP + "0.1" + NBSP + "%";
  const text = percent > 0 && percent < 10 ? percent.toFixed(1) : percent.toFixed(0);
  return (percent < 100 && text === "100" ? "99.9" : text) + NBSP + "%";
}

const count = (value) => (value === null ? NOTHING : value.toLocaleString("en"));
const clock = (seconds) => new Date(seconds * 1000).toLocaleTimeString("en-GB");

function age(seconds) {
  if (seconds < 1) return "now";
  if (seconds < 60) return Math.floor(seconds) + NBSP + "s ago";
  if (seconds < 3600) return Math.floor(seconds / 60) + NBSP + "min ago";
  return Math.floor(seconds / 3600) + NBSP + "h ago";
}

/// A name in one line: what is invisible, or would turn the text around, is shown as its number.
function visible(name) {
  if (name === "") return "(no name)";
  return name.replace(/[\u0000-\u001f\u007f-\u009f\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/g, (c) => {
    if (c === "\n") return "↵";
    if (c === "\t") return "⇥";
    return "⟨" + c.charCodeAt(0).toString(16).padStart(2, "0") + "⟩";
  });
}

function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

function make(tag, className, text) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}

// ---- asking -------------------------------------------------------------------------------------

async function ask(path, query) {
  const url = new URL(path, location.href);
  for (const [key, value] of Object.entries(query || {})) {
    if (value !== null && value !== "") url.searchParams.set(key, value);
  }
  const answer = await fetch(url, { cache: "no-store", signal: AbortSignal.timeout(PATIENCE_MS) });
  if (!answer.ok) throw Object.assign(new Error(answer.statusText), { status: answer.status });
  return answer.json();
}

let asked = 0;

async function refresh() {
  clearTimeout(state.timer);
  const turn = ++asked;
  try {
    const chosen = state.chosen;
    const classes = await ask("/api/classes", {
      window: state.window, sort: state.sort, order: state.order, filter: state.filter,
    });
    const history = await ask("/api/history", { class: chosen });
    const slowest = await ask("/api/slowest", { window: state.window, class: chosen });
    if (turn !== asked) return;
    answered(classes.engine);
    Object.assign(state, { classes, history });
    show(slowest);
  } catch (error) {
    if (turn !== asked) return;
    gone();
  }
  plan();
}

function plan() {
  clearTimeout(state.timer);
  if (!state.paused && !document.hidden) state.timer = setTimeout(refresh, REFRESH_MS);
}

function answered(engine) {
  state.goneSince = null;
  by("gone").hidden = true;
  document.body.classList.remove("is-gone");
  // Another run of the engine knows nothing of what was chosen.
  if (state.run !== null && state.run !== engine.run) choose(null, false);
  state.run = engine.run;
  const up = Number((BigInt(engine.now_ns) - BigInt(engine.started_ns)) / 1000000000n);
  const long = up < 60 ? up + NBSP + "s" : up < 3600 ? Math.floor(up / 60) + NBSP + "min"
    : Math.floor(up / 3600) + NBSP + "h";
  by("state").dataset.state = "serving";
  setText(by("state-text"), (state.paused ? "paused" : "serving") + ", up " + long);
  setText(by("version"), engine.version + (engine.prefix ? " · prefix " + visible(engine.prefix) : ""));
  const waiting = engine.requests_waiting === undefined ? ""
    : "requests waiting " + count(engine.requests_waiting) + "/" + count(engine.request_capacity) +
      " · threads " + count(engine.requesters);
  setText(by("engine-figures"), waiting + (engine.not_shown > 0
    ? " · " + count(engine.not_shown) + " events not shown for haste" : ""));
}

function gone() {
  if (state.goneSince === null) state.goneSince = new Date();
  by("state").dataset.state = "gone";
  setText(by("state-text"), "no answer");
  const since = state.goneSince.toLocaleTimeString("en-GB");
  setText(by("gone"), state.classes === null
    ? "The engine does not answer. Trying again every two seconds."
    : "The engine has not answered since " + since + ". These figures are from before; trying again every two seconds.");
  by("gone").hidden = false;
  document.body.classList.add("is-gone");
}

// ---- everything but traces ----------------------------------------------------------------------

function show(slowest) {
  const none = state.classes.total.classes === 0;
  by("empty").hidden = !none;
  by("full").hidden = none;
  if (none) {
    showEmpty(state.classes.engine.prefix);
    return;
  }
  showSummary(state.classes.total);
  showClasses();
  showChart();
  showSlowest(slowest.transactions);
}

function showEmpty(prefix) {
  const quoted = "'" + prefix.replace(/'/g, "'\\''") + "'";
  const environment = prefix ? "ARM_AGENT_PREFIX=" + quoted + " " : "";
  setText(by("empty-command"), environment + "armrun --app shop --transaction order -- sleep 0.2");
  by("empty-prefix").hidden = !prefix;
  if (prefix) setText(by("empty-prefix"), "This engine serves programs with ARM_AGENT_PREFIX=" + visible(prefix) + " in their environment.");
}

function showSummary(total) {
  const set = (id, value, unit, bad) => {
    const element = by(id);
    const text = value + (unit ? "\n" + unit : "");
    if (element.dataset.text !== text) {
      element.dataset.text = text;
      element.replaceChildren(value);
      if (unit) element.append(make("span", "unit", unit));
    }
    element.classList.toggle("is-bad", Boolean(bad));
  };
  set("sum-rate", rate(total.rate), "/s");
  const [errors, percent] = share(total.errors, total.count).split(/\u00a0(?=%)/);
  set("sum-errors", errors, percent, total.errors > 0);
  for (const name of ["p50", "p95", "p99"]) set("sum-" + name, ...durationParts(total[name + "_ns"]));
  set("sum-open", count(total.in_flight));
}

const classRows = new Map();

function classRow(key) {
  const found = classRows.get(key);
  if (found) return found;
  const row = { tr: make("tr"), cells: {} };
  const name = make("td", "name");
  row.button = make("button");
  row.button.type = "button";
  row.tran = make("span", "tran");
  row.app = make("span", "app");
  row.button.append(row.tran, row.app);
  name.append(row.button);
  row.tr.append(name);
  for (const [id, label] of [["rate", "Rate /s"], ["errors", "Errors"], ["p50", "p50"], ["p95", "p95"], ["p99", "p99"]]) {
    row.cells[id] = make("td");
    row.cells[id].dataset.label = label;
    row.tr.append(row.cells[id]);
  }
  const spread = make("td", "spread");
  const range = make("span", "range");
  row.bar = make("i");
  row.tick = make("b");
  range.append(row.bar, row.tick);
  spread.append(range);
  row.cells.open = make("td");
  row.cells.open.dataset.label = "In flight";
  row.tr.append(spread, row.cells.open);
  row.tr.dataset.key = key;
  row.tr.addEventListener("click", () => choose(state.chosen === key ? null : key));
  classRows.set(key, row);
  return row;
}

function fillRow(row, data, low, high) {
  setText(row.tran, visible(data.transaction));
  setText(row.app, visible(data.application));
  row.button.title = data.application + "\n" + data.transaction;
  setText(row.cells.rate, rate(data.rate));
  row.cells.rate.title = data.count === null ? "no history is kept of this class" : count(data.count) + " transactions";
  setText(row.cells.errors, share(data.errors, data.count));
  row.cells.errors.classList.toggle("is-bad", data.errors > 0);
  row.cells.errors.title = data.errors ? count(data.errors) + " failed or aborted" : "";
  for (const name of ["p50", "p95", "p99"]) {
    setText(row.cells[name], duration(data[name + "_ns"]));
    row.cells[name].classList.toggle("nothing", data[name + "_ns"] === null);
  }
  setText(row.cells.open, count(data.in_flight));
  row.cells.open.classList.toggle("nothing", data.in_flight === 0);
  const some = data.p50_ns !== null;
  row.bar.hidden = row.tick.hidden = !some;
  if (some) {
    const place = (ns) => (100 * (Math.log(Math.max(ns, 1)) - low)) / (high - low);
    row.bar.style.left = place(data.p50_ns) + "%";
    row.bar.style.width = place(data.p99_ns) - place(data.p50_ns) + "%";
    row.tick.style.left = place(data.p95_ns) + "%";
  }
  row.tr.classList.toggle("chosen", state.chosen === data.key);
  row.button.setAttribute("aria-pressed", String(state.chosen === data.key));
}

/// Rows do not move under a pointer or a cursor.
function rowsAreHeld() {
  const body = by("class-rows");
  return body.matches(":hover") || body.contains(document.activeElement);
}

let orderAsked = "";

function showClasses() {
  const { classes, total, matching } = state.classes;
  const times = classes.flatMap((c) => (c.p50_ns === null ? [] : [c.p50_ns, c.p99_ns]));
  const low = Math.log(Math.max(Math.min(...times, 1e15) * 0.9, 1));
  const high = Math.max(Math.log(Math.max(...times, 1) * 1.1), low + 1);
  const body = by("class-rows");
  const order = [state.sort, state.order, state.filter].join();
  const keys = new Set(classes.map((c) => c.key));
  for (const [key, row] of classRows) {
    if (keys.has(key)) continue;
    row.tr.remove();
    classRows.delete(key);
  }
  const held = rowsAreHeld() && order === orderAsked;
  orderAsked = order;
  classes.forEach((data, at) => {
    const row = classRow(data.key);
    fillRow(row, data, low, high);
    if (held && row.tr.isConnected) return;
    if (held) body.append(row.tr);
    else if (body.children[at] !== row.tr) body.insertBefore(row.tr, body.children[at] || null);
  });
  setText(by("classes-count"), matching === total.classes ? count(matching) : count(matching) + " of " + count(total.classes));
  const note = by("classes-note");
  note.hidden = classes.length === matching && matching > 0;
  setText(note, matching === 0 ? "No class has this in its names." : "The first " + count(classes.length) + " are shown; filter for others.");
  for (const th of document.querySelectorAll("th[data-sort]")) {
    if (th.dataset.sort === state.sort) th.setAttribute("aria-sort", state.order === "asc" ? "ascending" : "descending");
    else th.removeAttribute("aria-sort");
  }
}

const slowRows = [];

function showSlowest(transactions) {
  const list = by("slow-rows");
  const now = Number(BigInt(state.classes.engine.now_ns) / 1000000n) / 1000;
  transactions.forEach((one, at) => {
    const row = slowRows[at] || (slowRows[at] = slowRow());
    row.trace = one.trace;
    setText(row.tran, visible(one.transaction));
    setText(row.time, duration(one.duration_ns));
    setText(row.app, visible(one.application));
    const plain = one.outcome === "good";
    setText(row.outcome, plain ? "" : " · " + one.outcome);
    row.outcome.className = "outcome " + one.outcome;
    const end = Number((BigInt(one.start_ns) + BigInt(one.duration_ns)) / 1000000n) / 1000;
    setText(row.when, age(now - end));
    row.button.title = one.application + "\n" + one.transaction;
    if (!row.li.isConnected) list.append(row.li);
  });
  for (const row of slowRows.splice(transactions.length)) row.li.remove();
  const name = state.history && state.history.class;
  setText(by("slowest-of"), state.chosen && name ? "of " + visible(name.transaction).slice(0, 200) : "");
  by("slowest-note").hidden = transactions.length > 0;
  setText(by("slowest-note"), "Nothing has finished in this time.");
}

function slowRow() {
  const row = { li: make("li"), button: make("button"), trace: "" };
  row.button.type = "button";
  row.tran = make("span", "tran");
  row.time = make("span", "time");
  row.when = make("span", "when");
  row.app = make("span");
  row.outcome = make("span", "outcome");
  const under = make("span", "app");
  under.append(row.app, row.outcome);
  row.button.append(row.tran, row.time, under, row.when);
  row.button.addEventListener("click", () => openTrace(row.trace));
  row.li.append(row.button);
  return row;
}

// ---- the plots ----------------------------------------------------------------------------------

const LEFT = 52;
const RIGHT = 10;
const LABELS = 18;

function colour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

function canvasOf(id) {
  const canvas = by(id);
  const scale = window.devicePixelRatio || 1;
  const width = canvas.clientWidth;
  const height = canvas.clientHeight;
  if (canvas.width !== Math.round(width * scale) || canvas.height !== Math.round(height * scale)) {
    canvas.width = Math.round(width * scale);
    canvas.height = Math.round(height * scale);
  }
  const context = canvas.getContext("2d");
  context.setTransform(scale, 0, 0, scale, 0, 0);
  context.clearRect(0, 0, width, height);
  context.font = "11px system-ui, sans-serif";
  context.textBaseline = "middle";
  return { context, width, height };
}

/// Where things are in both plots.
function frame(width) {
  const { slots, now_slot } = state.history;
  const column = (width - LEFT - RIGHT) / slots;
  return { slots, first: now_slot - slots + 1, column, x: (at) => LEFT + at * column };
}

/// Whole decades around everything that there is, so that the scale seldom moves.
function decades(points, begins) {
  let low = Infinity;
  let high = 0;
  for (const point of points) {
    low = Math.min(low, Math.max(begins[point.steps[0][0]], 1000));
    high = Math.max(high, point.max_ns, 1000);
  }
  if (high === 0) return [5, 9];
  const from = Math.floor(Math.log10(low) + 1e-9);
  const to = Math.ceil(Math.log10(high * 1.02));
  return [from, Math.max(to, from + 2)];
}

function drawHeat(points) {
  const { context, width, height } = canvasOf("heat");
  const { first, column, x } = frame(width);
  const begins = state.history.step_begins_ns;
  const [from, to] = decades(points, begins);
  const bottom = height - 4;
  const y = (ns) => bottom - ((Math.log10(Math.max(ns, 10 ** from)) - from) / (to - from)) * (bottom - 6);
  context.textAlign = "right";
  for (let power = from; power <= to; ++power) {
    context.fillStyle = colour("--line");
    context.fillRect(LEFT, Math.round(y(10 ** power)), width - LEFT - RIGHT, 1);
    context.fillStyle = colour("--quiet");
    const [value, unit] = durationParts(10 ** power);
    context.fillText(Number(value) + NBSP + unit, LEFT - 7, Math.max(y(10 ** power), 7));
  }
  const most = Math.max(1, ...points.flatMap((p) => p.steps.map((s) => s[1])));
  const rgb = colour("--heat");
  for (const point of points) {
    for (const [step, number] of point.steps) {
      const top = step + 1 < begins.length ? y(begins[step + 1]) : y(point.max_ns * 1.05);
      const weight = most === 1 ? 0.5 : 0.14 + 0.8 * (Math.log(number) / Math.log(most));
      context.fillStyle = "rgba(" + rgb + "," + weight.toFixed(3) + ")";
      const under = y(Math.max(begins[step], 10 ** from));
      context.fillRect(x(point.slot - first), top, Math.max(column - 0.6, 1), Math.max(under - top + 0.3, 1.5));
    }
  }
  for (const [name, dash, thick] of [["p99", [2, 3], 2], ["p95", [6, 3], 1.6], ["p50", [], 1.8]]) {
    drawLine(context, points, (p) => x(p.slot - first) + column / 2, (p) => y(p[name + "_ns"]), colour("--" + name), dash, thick);
  }
  drawCursor(context, height);
}

/// Joins what is not further apart than a few slots; what stands alone is a point.
function drawLine(context, points, x, y, stroke, dash, thick) {
  const GAP = 3;
  context.save();
  context.strokeStyle = context.fillStyle = stroke;
  context.lineWidth = thick;
  context.lineJoin = "round";
  context.setLineDash(dash);
  context.beginPath();
  points.forEach((point, at) => {
    const before = points[at - 1];
    const after = points[at + 1];
    const joined = before && point.slot - before.slot <= GAP;
    if (joined) context.lineTo(x(point), y(point));
    else context.moveTo(x(point), y(point));
    if (!joined && !(after && after.slot - point.slot <= GAP)) context.fillRect(x(point) - 2, y(point) - 2, 4, 4);
  });
  context.stroke();
  context.restore();
}

function drawRates(points) {
  const { context, width, height } = canvasOf("rates");
  const { first, column, slots, x } = frame(width);
  const seconds = state.history.slot_s;
  const bottom = height - LABELS;
  const most = Math.max(0, ...points.map((p) => p.count)) / seconds;
  context.fillStyle = colour("--line");
  context.fillRect(LEFT, bottom, width - LEFT - RIGHT, 1);
  context.fillStyle = colour("--quiet");
  context.textAlign = "right";
  if (most > 0) context.fillText(Number(three(most)).toLocaleString("en") + "/s", LEFT - 7, 12);
  const tall = (number) => (number / seconds / most) * (bottom - 8);
  for (const point of points) {
    const left = x(point.slot - first);
    const wide = Math.max(column - 0.6, 1);
    context.fillStyle = colour("--good");
    const good = Math.max(tall(point.count), 1.5);
    context.globalAlpha = 0.75;
    context.fillRect(left, bottom - good, wide, good);
    context.globalAlpha = 1;
    const failed = point.errors > 0 ? Math.max(tall(point.errors), 2) : 0;
    context.fillStyle = colour("--failed");
    context.fillRect(left, bottom - failed, wide, failed);
  }
  context.fillStyle = colour("--quiet");
  const minute = 60 / seconds;
  const ROOM = 70;
  for (let at = slots; at >= 0; at -= minute) {
    const ago = Math.round((slots - at) / minute);
    if (at === 0 && column * minute < ROOM) break;
    context.textAlign = at === slots ? "right" : at === 0 ? "left" : "center";
    context.fillText(ago === 0 ? "now" : "−" + ago + NBSP + "min", x(at), height - 7);
  }
  drawCursor(context, bottom);
}

function drawCursor(context, height) {
  if (state.cursor === null) return;
  const { column, x } = frame(by("heat").clientWidth);
  context.fillStyle = colour("--text");
  context.globalAlpha = 0.55;
  context.fillRect(Math.round(x(state.cursor) + column / 2), 0, 1, height);
  context.globalAlpha = 1;
}

function showChart() {
  const history = state.history;
  const points = (history.points || []).filter((p) => p.slot > history.now_slot - history.slots && p.slot <= history.now_slot);
  drawHeat(points);
  drawRates(points);
  const of = history.class;
  setText(by("chart-of"), state.chosen === null ? "all classes" : of ? visible(of.application) + " / " + visible(of.transaction) : "this class is not known any more");
  by("chart-all").hidden = state.chosen === null;
  const note = by("plot-note");
  note.hidden = points.length > 0;
  setText(note, history.points === null
    ? "Nothing of this class has finished in the last five minutes, or too many classes are in use to keep its history."
    : "Nothing has finished in the last five minutes.");
  showReadout(points);
}

function showReadout(points) {
  const { slots, now_slot, slot_s } = state.history;
  const at = state.cursor;
  const plots = by("plots");
  const line = by("readout");
  plots.setAttribute("aria-valuenow", String(at === null ? slots - 1 : at));
  if (at === null) {
    const text = narrow.matches ? "Touch the plot for the figures of two seconds." : "Point at the plot for the figures of two seconds.";
    setText(line, text);
    plots.setAttribute("aria-valuetext", "now");
    return;
  }
  const slot = now_slot - slots + 1 + at;
  const point = points.find((p) => p.slot === slot);
  const parts = [["", clock(slot * slot_s)]];
  if (point) {
    parts.push(["", rate(point.count / slot_s) + "/s"], ["failed", count(point.errors)]);
    for (const name of ["p50", "p95", "p99", "max"]) parts.push([name, duration(point[name + "_ns"])]);
  } else {
    parts.push(["", "nothing finished"]);
  }
  line.replaceChildren(...parts.map(([name, value]) => {
    const span = make("span", "", name ? name + " " : "");
    span.append(make("b", "", value));
    return span;
  }));
  plots.setAttribute("aria-valuetext", line.textContent);
}

function moveCursor(to) {
  if (!state.history) return;
  state.cursor = to === null ? null : Math.min(Math.max(to, 0), state.history.slots - 1);
  showChart();
}

// ---- a trace ------------------------------------------------------------------------------------

/// The spans in the order of a tree: children after their parent, by start.
function treeOf(spans) {
  const known = new Map(spans.map((span) => [span.span, span]));
  const children = new Map();
  const roots = [];
  for (const span of spans) {
    if (span.parent !== null && span.parent !== span.span && known.has(span.parent)) {
      if (!children.has(span.parent)) children.set(span.parent, []);
      children.get(span.parent).push(span);
    } else {
      roots.push(span);
    }
  }
  const rows = [];
  const seen = new Set();
  const pending = roots.map((span) => [span, 0]).reverse();
  while (pending.length > 0) {
    const [span, depth] = pending.pop();
    if (seen.has(span.span)) continue;
    seen.add(span.span);
    rows.push({ span, depth });
    for (const child of (children.get(span.span) || []).slice().reverse()) pending.push([child, depth + 1]);
  }
  return { rows, orphans: roots.filter((span) => span.parent !== null).length };
}

function spanDetails(span, offset) {
  const list = make("dl");
  const add = (name, value) => {
    const group = make("div");
    group.append(make("dt", "", name), make("dd", "", value));
    list.append(group);
  };
  add("Application", visible(span.application));
  add("Transaction", visible(span.transaction));
  add("Outcome", span.outcome + (span.outcome === "abandoned" ? "" : " (status " + span.status + ")"));
  add("Response time", duration(span.duration_ns));
  const milliseconds = Number(BigInt(span.start_ns) / 1000000n);
  add("Started", new Date(milliseconds).toLocaleString("en-GB") + "." + String(milliseconds % 1000).padStart(3, "0"));
  add("After the trace's start", duration(offset));
  if (span.process) add("Process, thread", span.process + ", " + span.thread);
  add("Span", span.span);
  return list;
}

function traceRow({ span, depth }, begin, whole) {
  const MOST_INDENTED = 12;
  const offset = Number(BigInt(span.start_ns) - begin);
  const li = make("li");
  const button = make("button");
  button.type = "button";
  button.setAttribute("aria-expanded", "false");
  const label = make("span", "label");
  label.style.paddingLeft = Math.min(depth, MOST_INDENTED) * 14 + "px";
  const under = make("span", "app", visible(span.application));
  if (span.outcome !== "good") under.append(make("span", "outcome " + span.outcome, " · " + span.outcome));
  label.append(make("span", "tran", visible(span.transaction)), under);
  const lane = make("span", "lane");
  const bar = make("i", span.outcome);
  bar.style.left = Math.min((100 * offset) / whole, 99.6) + "%";
  bar.style.width = (100 * span.duration_ns) / whole + "%";
  lane.append(bar);
  button.append(label, lane, make("span", "took", duration(span.duration_ns)));
  button.addEventListener("click", () => {
    const open = button.getAttribute("aria-expanded") === "true";
    button.setAttribute("aria-expanded", String(!open));
    if (open) li.lastChild.remove();
    else li.append(spanDetails(span, offset));
  });
  li.dataset.depth = String(depth);
  li.append(button);
  return li;
}

function showTrace(trace) {
  const { spans } = trace;
  let begin = BigInt(spans[0].start_ns);
  let end = begin;
  for (const span of spans) {
    const from = BigInt(span.start_ns);
    const to = from + BigInt(span.duration_ns);
    if (from < begin) begin = from;
    if (to > end) end = to;
  }
  const whole = Math.max(Number(end - begin), 1);
  const { rows, orphans } = treeOf(spans);
  const failed = spans.filter((span) => ["failed", "aborted", "abandoned"].includes(span.outcome)).length;
  setText(by("trace-summary"), [
    (trace.complete ? "" : "the longest ") + (spans.length === 1 ? "1 transaction" : count(spans.length) + " transactions"),
    duration(whole),
    clock(Number(begin / 1000000000n)), failed > 0 ? failed + " not good" : "all good",
  ].join(" · "));
  const axis = make("div");
  axis.append(...[0, 0.25, 0.5, 0.75, 1].map((part) => make("span", "", part === 0 ? "0" : duration(whole * part))));
  by("trace-axis").replaceChildren(axis);
  by("trace-rows").replaceChildren(...rows.map((row) => traceRow(row, begin, whole)));
  const notes = [];
  if (orphans > 0) {
    notes.push((orphans === 1 ? "One transaction has a parent that is" : orphans + " transactions have a parent that is") +
      " still running, measured by another engine, or no longer kept.");
  }
  setText(by("trace-note"), notes.join(" "));
  by("trace-note").hidden = notes.length === 0;
}

async function openTrace(id) {
  const dialog = by("trace");
  state.trace = id;
  setText(by("trace-id"), id);
  for (const part of ["trace-rows", "trace-axis"]) by(part).replaceChildren();
  setText(by("trace-summary"), "…");
  by("trace-note").hidden = true;
  if (!dialog.open) dialog.showModal();
  writeAddress();
  try {
    const trace = await ask("/api/trace/" + encodeURIComponent(id));
    if (state.trace !== id) return;
    showTrace(trace);
    by("trace-rows").querySelector("button").focus();
  } catch (error) {
    if (state.trace !== id) return;
    setText(by("trace-summary"), error.status === 404 || error.status === 400
      ? "This trace is not known, or no longer kept." : "The engine does not answer.");
  }
}

// ---- what people do -----------------------------------------------------------------------------

function choose(key, andRefresh = true) {
  state.chosen = key;
  state.cursor = null;
  for (const [each, row] of classRows) {
    row.tr.classList.toggle("chosen", each === key);
    row.button.setAttribute("aria-pressed", String(each === key));
  }
  writeAddress();
  if (andRefresh) refresh();
}

/// The address names what is looked at, so that it can be handed on.
function writeAddress() {
  const parts = [];
  if (state.chosen) parts.push("class=" + state.chosen);
  if (state.trace) parts.push("trace=" + state.trace);
  history.replaceState(null, "", location.pathname + (parts.length > 0 ? "#" + parts.join("&") : ""));
}

function readAddress() {
  const parts = new URLSearchParams(location.hash.slice(1));
  const key = parts.get("class");
  const trace = parts.get("trace");
  state.chosen = key && /^[0-9a-f]{16}$/.test(key) ? key : null;
  if (trace) openTrace(trace);
}

/// The up and down arrow keys move through the buttons of a list.
function moveInList(event) {
  const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
  if (!step) return;
  const buttons = [...event.currentTarget.querySelectorAll("td.name button, li > button")];
  const at = buttons.indexOf(document.activeElement);
  if (at < 0) return;
  event.preventDefault();
  buttons[Math.min(Math.max(at + step, 0), buttons.length - 1)].focus();
}

function slotUnder(event) {
  const box = by("heat").getBoundingClientRect();
  const { column } = frame(box.width);
  return Math.floor((event.clientX - box.left - LEFT) / column);
}

function listen() {
  for (const input of document.querySelectorAll("input[name=window]")) {
    input.addEventListener("change", () => { state.window = input.value; refresh(); });
  }
  by("pause").addEventListener("click", () => {
    state.paused = !state.paused;
    by("pause").setAttribute("aria-pressed", String(state.paused));
    setText(by("pause"), state.paused ? "Go on" : "Pause");
    refresh();
  });
  by("filter").addEventListener("input", () => { state.filter = by("filter").value; refresh(); });
  by("chart-all").addEventListener("click", () => { choose(null); by("plots").focus(); });
  for (const th of document.querySelectorAll("th[data-sort]")) {
    th.firstElementChild.addEventListener("click", () => {
      const again = state.sort === th.dataset.sort;
      const first = th.dataset.sort === "transaction" ? "asc" : "desc";
      state.order = again ? (state.order === "asc" ? "desc" : "asc") : first;
      state.sort = th.dataset.sort;
      refresh();
    });
  }
  for (const id of ["class-rows", "slow-rows", "trace-rows"]) by(id).addEventListener("keydown", moveInList);
  const plots = by("plots");
  plots.addEventListener("pointermove", (event) => moveCursor(slotUnder(event)));
  plots.addEventListener("pointerleave", () => moveCursor(null));
  plots.addEventListener("blur", () => moveCursor(null));
  plots.addEventListener("keydown", (event) => {
    if (!state.history) return;
    const last = state.history.slots - 1;
    const from = state.cursor === null ? last + 1 : state.cursor;
    const to = { ArrowLeft: from - 1, ArrowRight: from + 1, Home: 0, End: last }[event.key];
    if (to === undefined) return;
    event.preventDefault();
    moveCursor(to);
  });
  by("trace-close").addEventListener("click", () => by("trace").close());
  by("trace").addEventListener("close", () => { state.trace = null; writeAddress(); });
  by("trace").addEventListener("click", (event) => { if (event.target === by("trace")) by("trace").close(); });
  document.addEventListener("keydown", (event) => {
    const typing = event.target instanceof HTMLInputElement && event.target.type === "search";
    if (event.key === "/" && !typing && !by("trace").open) {
      event.preventDefault();
      by("filter").focus();
    } else if (event.key === "Escape" && !by("trace").open) {
      if (typing) by("filter").blur();
      else if (state.chosen !== null) choose(null);
    }
  });
  document.addEventListener("visibilitychange", () => { if (!document.hidden && !state.paused) refresh(); });
  window.addEventListener("resize", () => { if (state.history && !by("full").hidden) showChart(); });
  window.matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
    if (state.history && !by("full").hidden) showChart();
  });
  window.addEventListener("hashchange", () => { readAddress(); refresh(); });
}

listen();
readAddress();
refresh();
