// The list of the slowest transactions.

import { byId, make, makeButton, setNote, setText } from "./dom.js";
import { duration, visible } from "./format.js";
import { endedText, slowestTitle } from "./sentences.js";

const rows = [];

function makeRow() {
  const row = { li: make("li"), button: makeButton(), app: make("span") };
  for (const name of ["tran", "time", "when", "outcome"]) row[name] = make("span", name);
  const under = make("span", "app");
  under.append(row.app, row.outcome);
  row.button.append(row.tran, row.time, under, row.when);
  row.li.append(row.button);
  return row;
}

function fillRow(row, one, now_ns) {
  row.li.dataset.trace = one.trace;
  setText(row.tran, visible(one.transaction));
  setText(row.time, duration(one.duration_ns));
  setText(row.app, visible(one.application));
  setText(row.outcome, one.outcome === "good" ? "" : " · " + one.outcome);
  row.outcome.className = "outcome " + one.outcome;
  setText(row.when, endedText(one, now_ns));
  row.button.title = one.application + "\n" + one.transaction;
}

export function showSlowest({ classes, history, chosen }, transactions) {
  transactions.forEach((one, at) => {
    rows[at] = rows[at] || makeRow();
    fillRow(rows[at], one, classes.engine.now_ns);
    if (!rows[at].li.isConnected) byId("slow-rows").append(rows[at].li);
  });
  for (const { li } of rows.splice(transactions.length)) li.remove();
  setText(byId("slowest-of"), slowestTitle(chosen, history.class));
  setNote("slowest-note", transactions.length > 0 ? "" : "Nothing has finished in this time.");
}
