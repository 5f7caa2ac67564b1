// Figures and names as text.

import assert from "node:assert/strict";
import test from "node:test";

import {
  age, clock, count, duration, durationParts, rate, share, shareParts, since, visible,
} from "../../engine/page/format.js";

process.env.TZ = "UTC";

function expectTexts(format, expected) {
  for (const [value, text] of expected) assert.equal(format(value), text, String(value));
}

test("Durations have three digits in the largest unit that they reach", () => {
  expectTexts(duration, [
    [0, "0\u00a0s"], [1, "0.00\u00a0µs"], [999, "1.00\u00a0µs"], [12345, "12.3\u00a0µs"],
    [999499, "999\u00a0µs"], [999500, "1.00\u00a0ms"], [1e6, "1.00\u00a0ms"],
    [99949999, "99.9\u00a0ms"], [99950000, "100\u00a0ms"], [999499999, "999\u00a0ms"],
    [999500000, "1.00\u00a0s"], [1.5e9, "1.50\u00a0s"],
  ]);
});

test("Durations from ten thousand seconds on are told in minutes", () => {
  expectTexts(duration, [[9999e9, "9999\u00a0s"], [1e13, "167\u00a0min"], [6e13, "1000\u00a0min"]]);
});

test("Durations that are not known are a dash without a unit", () => {
  assert.equal(duration(null), "–");
  assert.deepEqual(durationParts(undefined), ["–", ""]);
});

test("Rates below a hundredth are not told as none, nor none as some", () => {
  expectTexts(rate, [
    [null, "–"], [undefined, "–"], [0, "0"], [0.0099, "<\u00a00.01"], [0.01, "0.01"],
    [9.994, "9.99"], [9.995, "10.0"], [123.4, "123"], [999.4, "999"], [1000, "1,000"],
    [1234567.8, "1,234,568"],
  ]);
});

test("Shares of nothing are a dash, and only a whole is a hundred", () => {
  const percent = (part, whole) => share(part, whole);
  assert.equal(percent(0, 0), "–");
  assert.equal(percent(1, null), "–");
  assert.equal(percent(0, 7), "0\u00a0%");
  assert.equal(percent(1, 1001), "<\u00a00.1\u00a0%");
  assert.equal(percent(1, 1000), "0.1\u00a0%");
  assert.equal(percent(1, 11), "9.1\u00a0%");
  assert.equal(percent(20, 100), "20\u00a0%");
  assert.equal(percent(999, 1000), "99.9\u00a0%");
  assert.equal(percent(9999, 10000), "99.9\u00a0%");
  assert.equal(percent(3, 3), "100\u00a0%");
  assert.deepEqual(shareParts(1, 1001), ["<\u00a00.1", "%"]);
});

test("Counts are grouped, and a dash where there is none", () => {
  expectTexts(count, [[null, "–"], [0, "0"], [999, "999"], [1234567, "1,234,567"]]);
});

test("Times of day have seconds", () => {
  assert.equal(clock(1700000000), "22:13:20");
});

test("Spans of time are rounded down to whole units", () => {
  expectTexts(since, [
    [0, "0\u00a0s"], [59.9, "59\u00a0s"], [60, "1\u00a0min"], [3599, "59\u00a0min"],
    [3600, "1\u00a0h"], [90000, "25\u00a0h"],
  ]);
});

test("What ended within a second ended now", () => {
  expectTexts(age, [[-3, "now"], [0.99, "now"], [1, "1\u00a0s ago"], [61, "1\u00a0min ago"]]);
});

test("Names show what is invisible or turns text around as numbers", () => {
  expectTexts(visible, [
    ["", "(no name)"], ["order <b>", "order <b>"], ["two\nlines", "two↵lines"],
    ["a\tb", "a⇥b"], ["\u0000", "⟨00⟩"], ["\u007f", "⟨7f⟩"], ["\u009f", "⟨9f⟩"],
    ["\u200b\u202e", "⟨200b⟩⟨202e⟩"], ["\u2060\u2069\ufeff", "⟨2060⟩⟨2069⟩⟨feff⟩"], ["ä€😀", "ä€😀"],
  ]);
});
