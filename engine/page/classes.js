// The table of classes.

import { byId, make, makeButton, setNote, setText } from "./dom.js";
import { count, duration, rate, share, visible } from "./format.js";
import { spreadScale } from "./plot.js";
import { classesCount, classesNote } from "./sentences.js";

const PERCENTILES = ["p50", "p95", "p99"];
const rows = new Map();
let shownOrder = "";

function makeRow(key) {
  const row = { tr: make("tr"), cells: {}, button: makeButton() };
  const addCell = (id, label) => {
    row.cells[id] = make("td");
    row.cells[id].dataset.label = label;
    row.tr.append(row.cells[id]);
  };
  row.tr.dataset.key = key;
  row.tran = make("span", "tran");
  row.app = make("span", "app");
  row.button.append(row.tran, row.app);
  const name = make("td", "name");
  name.append(row.button);
  row.tr.append(name);
  addCell("rate", "Rate /s");
  addCell("errors", "Errors");
  for (const percentile of PERCENTILES) addCell(percentile, percentile);
  row.bar = make("i");
  row.tick = make("b");
  const range = make("span", "range");
  range.append(row.bar, row.tick);
  const spread = make("td", "spread");
  spread.append(range);
  row.tr.append(spread);
  addCell("open", "In flight");
  return row;
}

function rowOf(key) {
  if (!rows.has(key)) rows.set(key, makeRow(key));
  return rows.get(key);
}

function fillRow({ button, tran, app, cells, bar, tick }, data, place) {
  setText(tran, visible(data.transaction));
  setText(app, visible(data.application));
  button.title = data.application + "\n" + data.transaction;
  setText(cells.rate, rate(data.rate));
  cells.rate.title = data.count === null
    ? "no history is kept of this class" : count(data.count) + " transactions";
  setText(cells.errors, share(data.errors, data.count));
  cells.errors.classList.toggle("is-bad", data.errors > 0);
  cells.errors.title = data.errors ? count(data.errors) + " failed or aborted" : "";
  for (const name of PERCENTILES) {
    setText(cells[name], duration(data[name + "_ns"]));
    cells[name].classList.toggle("nothing", data[name + "_ns"] === null);
  }
  setText(cells.open, count(data.in_flight));
  cells.open.classList.toggle("nothing", data.in_flight === 0);
  bar.hidden = tick.hidden = data.p50_ns === null;
  if (bar.hidden) return;
  bar.style.left = place(data.p50_ns) + "%";
  bar.style.width = place(data.p99_ns) - place(data.p50_ns) + "%";
  tick.style.left = place(data.p95_ns) + "%";
}

export function showChosen(chosen) {
  for (const [key, { tr, button }] of rows) {
    tr.classList.toggle("chosen", key === chosen);
    button.setAttribute("aria-pressed", String(key === chosen));
  }
}

function removeOthers(classes) {
  const keys = new Set(classes.map(({ key }) => key));
  for (const [key, { tr }] of rows) {
    if (keys.has(key)) continue;
    tr.remove();
    rows.delete(key);
  }
}

/// Rows do not move under a pointer or a cursor, unless another order was asked for.
function rowsAreHeld(order) {
  const body = byId("class-rows");
  const again = order === shownOrder;
  shownOrder = order;
  return again && (body.matches(":hover") || body.contains(document.activeElement));
}

function showRows({ classes }, order) {
  const place = spreadScale(classes);
  const body = byId("class-rows");
  removeOthers(classes);
  const held = rowsAreHeld(order);
  classes.forEach((data, at) => {
    const row = rowOf(data.key);
    fillRow(row, data, place);
    if (held && row.tr.isConnected) return;
    if (held) body.append(row.tr);
    else if (body.children[at] !== row.tr) body.insertBefore(row.tr, body.children[at] || null);
  });
}

export function showClasses({ classes, chosen, sort, order, filter }) {
  showRows(classes, [sort, order, filter].join());
  showChosen(chosen);
  const { matching, total } = classes;
  setText(byId("classes-count"), classesCount(matching, total.classes));
  setNote("classes-note", classesNote(classes.classes.length, matching));
  for (const th of document.querySelectorAll("th[data-sort]")) {
    if (th.dataset.sort !== sort) th.removeAttribute("aria-sort");
    else th.setAttribute("aria-sort", order === "asc" ? "ascending" : "descending");
  }
}
