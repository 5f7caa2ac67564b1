// What the page says of the engine and its figures.

import { age, count, since, visible } from "./format.js";

const seconds = (ns) => Number(ns / 1000000000n);

export function stateText(engine, paused) {
  const up = since(seconds(BigInt(engine.now_ns) - BigInt(engine.started_ns)));
  return (paused ? "paused" : "serving") + ", up " + up;
}

export function versionText(engine) {
  return engine.version + (engine.prefix ? " · prefix " + visible(engine.prefix) : "");
}

export function engineFigures(engine) {
  const parts = [];
  if (engine.requests_waiting !== undefined) {
    const [waiting, capacity] = [engine.requests_waiting, engine.request_capacity].map(count);
    parts.push("requests waiting " + waiting + "/" + capacity);
    parts.push("threads " + count(engine.requesters));
  }
  if (engine.not_shown > 0) parts.push(count(engine.not_shown) + " events not shown for haste");
  return parts.join(" · ");
}

export function goneText(goneSince, hasFigures) {
  if (!hasFigures) return "The engine does not answer. Trying again every two seconds.";
  return "The engine has not answered since " + goneSince.toLocaleTimeString("en-GB") +
    ". These figures are from before; trying again every two seconds.";
}

/// The command that sends a first transaction, for a shell.
export function firstCommand(prefix) {
  const quoted = "'" + prefix.replace(/'/g, "'\\''") + "'";
  const environment = prefix ? "ARM_AGENT_PREFIX=" + quoted + " " : "";
  return environment + "armrun --app shop --transaction order -- sleep 0.2";
}

export function prefixText(prefix) {
  return "This engine serves programs with ARM_AGENT_PREFIX=" + visible(prefix) +
    " in their environment.";
}

export function classesCount(matching, all) {
  return matching === all ? count(matching) : count(matching) + " of " + count(all);
}

/// What is missing from the list of classes; empty when nothing is.
export function classesNote(shown, matching) {
  if (matching === 0) return "No class has this in its names.";
  if (shown === matching) return "";
  return "The first " + count(shown) + " are shown; filter for others.";
}

/// Whose response times are plotted.
export function chartTitle(chosen, name) {
  if (chosen === null) return "all classes";
  if (!name) return "this class is not known any more";
  return visible(name.application) + " / " + visible(name.transaction);
}

export function emptyPlotText(points) {
  return points === null
    ? "Nothing of this class has finished in the last five minutes, or too many classes are in " +
      "use to keep its history."
    : "Nothing has finished in the last five minutes.";
}

export function slowestTitle(chosen, name) {
  return chosen && name ? "of " + visible(name.transaction).slice(0, 200) : "";
}

/// How long before a time, in nanoseconds as all times of answers, a transaction ended.
export function endedText({ start_ns, duration_ns }, now_ns) {
  const milliseconds = (BigInt(now_ns) - BigInt(start_ns) - BigInt(duration_ns)) / 1000000n;
  return age(Number(milliseconds) / 1000);
}

export function traceFailure(status) {
  return status === 404 || status === 400
    ? "This trace is not known, or no longer kept." : "The engine does not answer.";
}
