// The line of the engine's state, and what stands there while nothing is measured.

import { byId, make, setNote, setText } from "./dom.js";
import { count, durationParts, rate, shareParts } from "./format.js";
import {
  engineFigures, firstCommand, goneText, prefixText, stateText, versionText,
} from "./sentences.js";

export function showEngine(engine, paused) {
  setNote("gone", "");
  document.body.classList.remove("is-gone");
  byId("state").dataset.state = "serving";
  setText(byId("state-text"), stateText(engine, paused));
  setText(byId("version"), versionText(engine));
  setText(byId("engine-figures"), engineFigures(engine));
}

export function showGone(since, hasFigures) {
  byId("state").dataset.state = "gone";
  setText(byId("state-text"), "no answer");
  setNote("gone", goneText(since, hasFigures));
  document.body.classList.add("is-gone");
}

export function showEmpty(prefix) {
  setText(byId("empty-command"), firstCommand(prefix));
  setNote("empty-prefix", prefix ? prefixText(prefix) : "");
}

function setFigure(id, [value, unit]) {
  const element = byId(id);
  const text = value + "\n" + unit;
  if (element.dataset.text === text) return;
  element.dataset.text = text;
  element.replaceChildren(value);
  if (unit) element.append(make("span", "unit", unit));
}

export function showSummary(total) {
  setFigure("sum-rate", [rate(total.rate), "/s"]);
  setFigure("sum-errors", shareParts(total.errors, total.count));
  byId("sum-errors").classList.toggle("is-bad", total.errors > 0);
  for (const name of ["p50", "p95", "p99"]) {
    setFigure("sum-" + name, durationParts(total[name + "_ns"]));
  }
  setFigure("sum-open", [count(total.in_flight), ""]);
}
