// What the reader looks at, and how that changes.

import assert from "node:assert/strict";
import test from "node:test";

import {
  choose, cursorAfter, fromHash, initialState, moveCursor, noteAnswer, noteSilence, sortBy, toHash,
} from "../../engine/page/state.js";

const KEY = "0123456789abcdef";

test("The page begins with five minutes of all classes, the busiest first", () => {
  const { window, sort, order, filter, chosen, paused, trace } = initialState();
  assert.deepEqual({ window, sort, order, filter, chosen, paused, trace }, {
    window: "300", sort: "count", order: "desc", filter: "", chosen: null, paused: false,
    trace: null,
  });
  assert.notEqual(initialState(), initialState());
});

test("A column sorts by the largest first, and the other way the second time", () => {
  const state = initialState();
  const orders = ["p95", "p95", "p95", "errors"].map((column) => {
    sortBy(state, column);
    return state.sort + " " + state.order;
  });
  assert.deepEqual(orders, ["p95 desc", "p95 asc", "p95 desc", "errors desc"]);
});

test("Names sort from the first letter", () => {
  const state = initialState();
  sortBy(state, "transaction");
  assert.equal(state.order, "asc");
  sortBy(state, "transaction");
  assert.equal(state.order, "desc");
});

test("A choice drops the place in the plot", () => {
  const state = { ...initialState(), cursor: 7 };
  choose(state, KEY);
  assert.equal(state.chosen, KEY);
  assert.equal(state.cursor, null);
});

test("Another run of the engine drops what was chosen", () => {
  const state = initialState();
  choose(state, KEY);
  assert.equal(noteAnswer(state, "one"), false);
  assert.equal(noteAnswer(state, "one"), false);
  assert.equal(state.chosen, KEY);
  assert.equal(noteAnswer(state, "two"), true);
  assert.equal(state.chosen, null);
  assert.equal(noteAnswer(state, "two"), false);
});

test("Silence counts from its first moment until the next answer", () => {
  const state = initialState();
  noteSilence(state, 10);
  noteSilence(state, 12);
  assert.equal(state.goneSince, 10);
  noteAnswer(state, "one");
  assert.equal(state.goneSince, null);
  noteSilence(state, 14);
  assert.equal(state.goneSince, 14);
});

test("The cursor stays within the plot", () => {
  const state = { ...initialState(), history: { slots: 150 } };
  const places = [7, -1, 150, 149.5, null].map((to) => {
    moveCursor(state, to);
    return state.cursor;
  });
  assert.deepEqual(places, [7, 0, 149, 149, null]);
});

test("Arrow keys move the cursor from where it is, or from the newest slot", () => {
  const state = { ...initialState(), history: { slots: 150 } };
  assert.equal(cursorAfter(state, "ArrowLeft"), 149);
  state.cursor = 20;
  assert.equal(cursorAfter(state, "ArrowLeft"), 19);
  assert.equal(cursorAfter(state, "ArrowRight"), 21);
  assert.equal(cursorAfter(state, "Home"), 0);
  assert.equal(cursorAfter(state, "End"), 149);
  assert.equal(cursorAfter(state, "Enter"), undefined);
});

test("An address leads back to what it names", () => {
  assert.equal(toHash(initialState()), "");
  assert.equal(toHash({ chosen: KEY, trace: null }), "#class=" + KEY);
  const both = { chosen: KEY, trace: "00ff" };
  assert.equal(toHash(both), "#class=" + KEY + "&trace=00ff");
  assert.deepEqual(fromHash(toHash(both)), both);
});

test("An address that names no class is one of all classes", () => {
  for (const hash of ["", "#", "#class=", "#class=" + KEY.toUpperCase(), "#class=" + KEY + "0"]) {
    assert.deepEqual(fromHash(hash), { chosen: null, trace: null }, hash);
  }
});
