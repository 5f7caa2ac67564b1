// What the page says of the engine and its figures.

import assert from "node:assert/strict";
import test from "node:test";

import {
  chartTitle, classesCount, classesNote, emptyPlotText, endedText, engineFigures, firstCommand,
  goneText, prefixText, slowestTitle, stateText, traceFailure, versionText,
} from "../../engine/page/sentences.js";

process.env.TZ = "UTC";

const ENGINE = {
  version: "1.2.3", prefix: "", started_ns: "1700000000000000000", now_ns: "1700000125000000000",
  requests_waiting: 3, request_capacity: 1024, requesters: 1200, not_shown: 0,
};

test("The state tells since when the engine runs, and whether the page is paused", () => {
  assert.equal(stateText(ENGINE, false), "serving, up 2\u00a0min");
  assert.equal(stateText(ENGINE, true), "paused, up 2\u00a0min");
});

test("The version has the prefix beside it, in one line", () => {
  assert.equal(versionText(ENGINE), "1.2.3");
  assert.equal(versionText({ ...ENGINE, prefix: "a\nb" }), "1.2.3 · prefix a↵b");
});

test("The queue and what was not shown are told where they are known", () => {
  assert.equal(engineFigures(ENGINE), "requests waiting 3/1,024 · threads 1,200");
  assert.equal(engineFigures({ ...ENGINE, not_shown: 1500 }),
    "requests waiting 3/1,024 · threads 1,200 · 1,500 events not shown for haste");
  assert.equal(engineFigures({ not_shown: 0 }), "");
  assert.equal(engineFigures({ not_shown: 2 }), "2 events not shown for haste");
});

test("An engine that is gone is told with the time of its last answer, if there was one", () => {
  const since = new Date(1700000000000);
  assert.equal(goneText(since, true), "The engine has not answered since 22:13:20. These figures " +
    "are from before; trying again every two seconds.");
  assert.equal(goneText(since, false),
    "The engine does not answer. Trying again every two seconds.");
});

test("The first command quotes the prefix for a shell", () => {
  assert.equal(firstCommand(""), "armrun --app shop --transaction order -- sleep 0.2");
  assert.equal(firstCommand("it's $(x)"), "ARM_AGENT_PREFIX='it'\\''s $(x)' " +
    "armrun --app shop --transaction order -- sleep 0.2");
  assert.equal(prefixText("it's"),
    "This engine serves programs with ARM_AGENT_PREFIX=it's in their environment.");
});

test("The number of classes tells how many the filter leaves", () => {
  assert.equal(classesCount(1200, 1200), "1,200");
  assert.equal(classesCount(2, 1200), "2 of 1,200");
});

test("Classes that are not in the list are told", () => {
  assert.equal(classesNote(5, 5), "");
  assert.equal(classesNote(500, 1200), "The first 500 are shown; filter for others.");
  assert.equal(classesNote(0, 0), "No class has this in its names.");
});

test("Plots and lists name the class that they are of", () => {
  const name = { application: "shop", transaction: "or\nder" };
  assert.equal(chartTitle(null, undefined), "all classes");
  assert.equal(chartTitle("0123456789abcdef", name), "shop / or↵der");
  assert.equal(chartTitle("0123456789abcdef", undefined), "this class is not known any more");
  assert.equal(slowestTitle(null, name), "");
  assert.equal(slowestTitle("0123456789abcdef", name), "of or↵der");
  assert.equal(slowestTitle("0123456789abcdef", undefined), "");
  const longest = { application: "shop", transaction: "x".repeat(3619) };
  assert.equal(slowestTitle("0123456789abcdef", longest), "of " + "x".repeat(200));
});

test("A plot without points tells a class without history from one at rest", () => {
  assert.equal(emptyPlotText([]), "Nothing has finished in the last five minutes.");
  assert.match(emptyPlotText(null), /too many classes are in use to keep its history\.$/);
});

test("The end of a transaction is told from the engine's clock", () => {
  const one = { start_ns: "1700000000000000000", duration_ns: 2500000000 };
  assert.equal(endedText(one, "1700000003499999999"), "now");
  assert.equal(endedText(one, "1700000003500000000"), "1\u00a0s ago");
});

test("A trace that is not known is told from an engine that does not answer", () => {
  for (const status of [400, 404]) {
    assert.equal(traceFailure(status), "This trace is not known, or no longer kept.");
  }
  for (const status of [500, undefined]) {
    assert.equal(traceFailure(status), "The engine does not answer.");
  }
});
