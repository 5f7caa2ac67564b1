// Where durations, counts and times lie in the plots.

import assert from "node:assert/strict";
import test from "node:test";

import {
  columns, decadeLabel, decades, heatCells, heightScale, lines, minuteLabels, rateBars, readout,
  shownPoints, slotAt, spreadScale,
} from "../../engine/page/plot.js";

process.env.TZ = "UTC";

const HISTORY = { slots: 150, now_slot: 1000, slot_s: 2 };
const MS = 1e6;
const BEGINS = [0, 1000, 2000, 4 * MS, 8 * MS];

const near = (actual, expected) => assert.ok(Math.abs(actual - expected) < 1e-9,
  actual + " is not " + expected);

test("Columns share the width between the margins", () => {
  const { column, x, left, middle, wide } = columns(362, HISTORY);
  assert.equal(column, 2);
  assert.deepEqual([0, 150].map(x), [52, 352]);
  assert.deepEqual([851, 1000].map((slot) => left({ slot })), [52, 350]);
  assert.equal(middle({ slot: 851 }), 53);
  assert.equal(wide, 1.4);
  assert.equal(columns(212, HISTORY).wide, 1);
});

test("A place in the plot is that of the column that it lies in", () => {
  const at = (distance) => slotAt(distance, 362, HISTORY);
  assert.deepEqual([52, 53.9, 54, 351.9, 51.9].map(at), [0, 0, 1, 149, -1]);
});

test("Points outside the plot's time are not shown", () => {
  const points = [850, 851, 1000, 1001].map((slot) => ({ slot }));
  assert.deepEqual(shownPoints({ ...HISTORY, points }), [{ slot: 851 }, { slot: 1000 }]);
  assert.deepEqual(shownPoints({ ...HISTORY, points: null }), []);
});

test("The scale has whole decades around all durations, two at least", () => {
  const point = (step, max_ns) => ({ steps: [[step, 1]], max_ns });
  assert.deepEqual(decades([], BEGINS), [5, 9]);
  assert.deepEqual(decades([point(3, 5 * MS)], BEGINS), [6, 8]);
  assert.deepEqual(decades([point(1, 1500), point(4, 123 * MS)], BEGINS), [3, 9]);
  assert.deepEqual(decades([point(3, 99 * MS)], BEGINS), [6, 9]);
  assert.deepEqual(decades([point(1, 99000)], BEGINS), [3, 6]);
});

test("Durations below a microsecond are drawn as one", () => {
  assert.deepEqual(decades([{ steps: [[0, 4]], max_ns: 0 }], BEGINS), [3, 5]);
});

test("Each decade is as high as the next, and nothing lies below the bottom", () => {
  const y = heightScale([6, 9], 306);
  assert.deepEqual([MS, 10 * MS, 100 * MS, 1000 * MS].map(y).map(Math.round), [306, 206, 106, 6]);
  assert.equal(y(1), 306);
  assert.equal(y(0), 306);
});

test("Decades are labelled without digits that say nothing", () => {
  assert.deepEqual([3, 5, 6, 9, 10].map(decadeLabel),
    ["1\u00a0µs", "100\u00a0µs", "1\u00a0ms", "1\u00a0s", "10\u00a0s"]);
});

test("A cell of the heat map reaches from the begin of its step to that of the next", () => {
  const y = (ns) => 100 - ns / MS;
  const [cell] = heatCells([{ slot: 900, max_ns: 7 * MS, steps: [[3, 1]] }], BEGINS, y);
  assert.equal(cell.slot, 900);
  assert.equal(cell.top, 92);
  near(cell.height, 4.3);
});

test("The last step of the heat map ends beyond the longest duration", () => {
  const y = (ns) => 100 - ns / MS;
  const [cell] = heatCells([{ slot: 900, max_ns: 20 * MS, steps: [[4, 1]] }], BEGINS, y);
  near(cell.top, 79);
  near(cell.height, 13.3);
});

test("The weight of a cell goes by the logarithm of how many are in it", () => {
  const weights = (...numbers) => heatCells(
    numbers.map((number, slot) => ({ slot, max_ns: MS, steps: [[3, number]] })), BEGINS, () => 0,
  ).map(({ weight }) => weight);
  assert.deepEqual(weights(1, 1), [0.5, 0.5]);
  const [least, middle, most] = weights(1, 10, 100);
  near(least, 0.14);
  near(middle, 0.54);
  near(most, 0.94);
});

test("Cells too low to be seen are made visible", () => {
  const [cell] = heatCells([{ slot: 1, max_ns: MS, steps: [[3, 1]] }], BEGINS, () => 50);
  assert.equal(cell.height, 1.5);
});

test("Lines end where more than two slots are empty", () => {
  const slots = (points) => lines(points.map((slot) => ({ slot })))
    .map((line) => line.map(({ slot }) => slot));
  assert.deepEqual(slots([]), []);
  assert.deepEqual(slots([5]), [[5]]);
  assert.deepEqual(slots([1, 2, 5, 9, 12, 20]), [[1, 2, 5], [9, 12], [20]]);
});

test("Bars are as high as their rates, but never too low to be seen", () => {
  const points = [
    { slot: 1, count: 2000, errors: 1000 }, { slot: 2, count: 1000, errors: 1 },
    { slot: 3, count: 1, errors: 0 },
  ];
  const { label, bars } = rateBars(points, 2, 108);
  assert.equal(label, "1,000/s");
  assert.deepEqual(bars, [
    { slot: 1, all: 100, errors: 50 }, { slot: 2, all: 50, errors: 2 },
    { slot: 3, all: 1.5, errors: 0 },
  ]);
  assert.deepEqual(rateBars([], 2, 108), { label: "", bars: [] });
});

test("Minutes are labelled, the oldest only where there is room", () => {
  const texts = (column) => minuteLabels(HISTORY, column).map(({ text }) => text);
  const four = ["now", "−1\u00a0min", "−2\u00a0min", "−3\u00a0min", "−4\u00a0min"];
  assert.deepEqual(texts(2), four);
  assert.deepEqual(texts(3), [...four, "−5\u00a0min"]);
  assert.deepEqual(minuteLabels(HISTORY, 3).map(({ at, align }) => at + " " + align),
    ["150 right", "120 center", "90 center", "60 center", "30 center", "0 left"]);
});

test("The readout tells the figures of its slot", () => {
  const point = {
    slot: 851, count: 1000, errors: 2, p50_ns: MS, p95_ns: 2 * MS, p99_ns: 3 * MS, max_ns: 4e9,
  };
  assert.deepEqual(readout(HISTORY, [point], 0), [
    ["", "00:28:22"], ["", "500/s"], ["failed", "2"], ["p50", "1.00\u00a0ms"],
    ["p95", "2.00\u00a0ms"], ["p99", "3.00\u00a0ms"], ["max", "4.00\u00a0s"],
  ]);
  assert.deepEqual(readout(HISTORY, [point], 1), [["", "00:28:24"], ["", "nothing finished"]]);
});

test("Percentiles of all classes lie on one logarithmic scale", () => {
  const place = spreadScale([
    { p50_ns: MS, p99_ns: 10 * MS }, { p50_ns: 10 * MS, p99_ns: 100 * MS },
    { p50_ns: null, p99_ns: null },
  ]);
  assert.ok(place(MS) > 0);
  assert.ok(place(100 * MS) < 100);
  near(place(10 * MS) - place(MS), place(100 * MS) - place(10 * MS));
  near(place(0.9 * MS), 0);
  near(place(110 * MS), 100);
});

test("The scale of one duration alone, or of none, is still one", () => {
  for (const classes of [[], [{ p50_ns: 0, p99_ns: 0 }], [{ p50_ns: MS, p99_ns: MS }]]) {
    const place = spreadScale(classes)(MS);
    assert.ok(Number.isFinite(place), String(place));
  }
});
