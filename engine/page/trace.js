// The dialog with a trace.

import { byId, make, makeButton, setNote, setText } from "./dom.js";
import { duration, visible } from "./format.js";
import { axisOf, barOf, detailsOf, extentOf, orphansText, summaryOf, treeOf } from "./waterfall.js";

function makeDetails(span, offset) {
  const list = make("dl");
  for (const [name, text] of detailsOf(span, offset)) {
    const group = make("div");
    group.append(make("dt", "", name), make("dd", "", text));
    list.append(group);
  }
  return list;
}

function makeLabel(span, depth) {
  const MOST_INDENTED = 12;
  const label = make("span", "label");
  label.style.paddingLeft = Math.min(depth, MOST_INDENTED) * 14 + "px";
  const under = make("span", "app", visible(span.application));
  if (span.outcome !== "good") {
    under.append(make("span", "outcome " + span.outcome, " · " + span.outcome));
  }
  label.append(make("span", "tran", visible(span.transaction)), under);
  return label;
}

function makeRow({ span, depth }, extent) {
  const { offset, left, width } = barOf(span, extent);
  const li = make("li");
  const button = makeButton();
  button.setAttribute("aria-expanded", "false");
  const lane = make("span", "lane");
  const bar = make("i", span.outcome);
  bar.style.left = left + "%";
  bar.style.width = width + "%";
  lane.append(bar);
  button.append(makeLabel(span, depth), lane, make("span", "took", duration(span.duration_ns)));
  button.addEventListener("click", () => {
    const open = button.getAttribute("aria-expanded") === "true";
    button.setAttribute("aria-expanded", String(!open));
    if (open) li.lastChild.remove();
    else li.append(makeDetails(span, offset));
  });
  li.dataset.depth = String(depth);
  li.append(button);
  return li;
}

export function showTrace(trace) {
  const extent = extentOf(trace.spans);
  const { rows, orphans } = treeOf(trace.spans);
  setText(byId("trace-summary"), summaryOf(trace, extent));
  const axis = make("div");
  axis.append(...axisOf(extent).map((text) => make("span", "", text)));
  byId("trace-axis").replaceChildren(axis);
  byId("trace-rows").replaceChildren(...rows.map((row) => makeRow(row, extent)));
  setNote("trace-note", orphansText(orphans));
  byId("trace-rows").querySelector("button").focus();
}

/// The dialog before its trace has come.
export function showWaiting(id) {
  setText(byId("trace-id"), id);
  for (const part of ["trace-rows", "trace-axis"]) byId(part).replaceChildren();
  setText(byId("trace-summary"), "…");
  setNote("trace-note", "");
  if (!byId("trace").open) byId("trace").showModal();
}
