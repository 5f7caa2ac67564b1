// A trace as a tree of bars and texts.

import assert from "node:assert/strict";
import test from "node:test";

import {
  axisOf, barOf, detailsOf, extentOf, orphansText, summaryOf, treeOf,
} from "../../engine/page/waterfall.js";

process.env.TZ = "UTC";

const BEGIN = 1700000000000000000n;
const MS = 1000000;

const span = (name, parent, fields = {}) => ({ span: name, parent, outcome: "good", ...fields });
const timed = (after, duration_ns) =>
  ({ start_ns: String(BEGIN + BigInt(after)), duration_ns, outcome: "good" });
const shape = (spans) => treeOf(spans).rows.map((row) => row.span.span + row.depth);

test("Children follow their parent in the order in which they came", () => {
  const spans = [span("a", null), span("b", "a"), span("c", "a"), span("d", "b"), span("e", null)];
  assert.deepEqual(shape(spans), ["a0", "b1", "d2", "c1", "e0"]);
  assert.equal(treeOf(spans).orphans, 0);
});

test("Spans whose parent is not there stand as roots and are counted", () => {
  const spans = [span("a", "gone"), span("b", "a"), span("c", "gone")];
  assert.deepEqual(shape(spans), ["a0", "b1", "c0"]);
  assert.equal(treeOf(spans).orphans, 2);
});

test("A span that is its own parent, or stands there twice, is shown once", () => {
  assert.deepEqual(shape([span("a", "a"), span("b", "a"), span("b", "a")]), ["a0", "b1"]);
});

test("Deep trees need no deep stack", () => {
  const ids = Array.from({ length: 20000 }, (_, at) => "s" + at);
  const spans = ids.map((id, at) => span(id, at > 0 ? ids[at - 1] : null));
  assert.equal(treeOf(spans).rows.at(-1).depth, 19999);
});

test("A trace reaches from the first begin to the last end", () => {
  assert.deepEqual(extentOf([timed(5 * MS, 10 * MS), timed(0, MS), timed(12 * MS, 8 * MS)]),
    { begin: BEGIN, whole: 20 * MS });
  assert.deepEqual(extentOf([timed(7, 0)]), { begin: BEGIN + 7n, whole: 1 });
});

test("Nanoseconds since the epoch lose no digit", () => {
  const { begin } = extentOf([timed(1, 1)]);
  assert.deepEqual(barOf(timed(3, 1), { begin, whole: 4 }), { offset: 2, left: 50, width: 25 });
});

test("A bar at the very end is still seen", () => {
  assert.equal(barOf(timed(1000, 0), { begin: BEGIN, whole: 1000 }).left, 99.6);
});

test("The axis is labelled in quarters", () => {
  assert.deepEqual(axisOf({ whole: 100 * MS }),
    ["0", "25.0\u00a0ms", "50.0\u00a0ms", "75.0\u00a0ms", "100\u00a0ms"]);
});

test("The summary tells how many, how long, when and how many went wrong", () => {
  const extent = { begin: BEGIN, whole: 100 * MS };
  assert.equal(summaryOf({ complete: true, spans: [span("a", null)] }, extent),
    "1 transaction · 100\u00a0ms · 22:13:20 · all good");
  const spans = ["good", "failed", "aborted", "abandoned", "unknown"]
    .map((outcome, at) => span("s" + at, null, { outcome }));
  assert.equal(summaryOf({ complete: false, spans }, extent),
    "the longest 5 transactions · 100\u00a0ms · 22:13:20 · 3 not good");
});

test("Parents that are missing are told", () => {
  const rest = " still running, measured by another engine, or no longer kept.";
  assert.equal(orphansText(0), "");
  assert.equal(orphansText(1), "One transaction has a parent that is" + rest);
  assert.equal(orphansText(3), "3 transactions have a parent that is" + rest);
});

test("The details have the start to the millisecond, and the process where it is known", () => {
  const one = {
    ...span("00ff", null, timed(42 * MS, 8 * MS)), application: "shop", transaction: "or\nder",
    outcome: "failed", status: 2, process: 4711, thread: 4712,
  };
  assert.deepEqual(detailsOf(one, 2 * MS), [
    ["Application", "shop"], ["Transaction", "or↵der"], ["Outcome", "failed (status 2)"],
    ["Response time", "8.00\u00a0ms"], ["Started", "14/11/2023, 22:13:20.042"],
    ["After the trace's start", "2.00\u00a0ms"], ["Process, thread", "4711, 4712"],
    ["Span", "00ff"],
  ]);
  const names = detailsOf({ ...one, process: 0 }, 0).map(([name]) => name);
  assert.ok(!names.includes("Process, thread"));
});

test("An abandoned transaction has no status", () => {
  const one = { ...span("a", null, timed(0, 0)), application: "", transaction: "" };
  assert.deepEqual(detailsOf({ ...one, outcome: "abandoned" }, 0)[2], ["Outcome", "abandoned"]);
});
