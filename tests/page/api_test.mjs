// Questions to the engine, with an engine that is played.

import assert from "node:assert/strict";
import test from "node:test";

import { ask } from "../../engine/page/api.js";

/// Answers the next questions; returns the list of what was asked.
function playEngine(answer) {
  const asked = [];
  globalThis.fetch = async (target, options) => {
    asked.push({ target, ...options });
    return answer;
  };
  return asked;
}

const GOOD = { ok: true, json: async () => ({ classes: [] }) };

test("Questions leave out what is not asked for, and quote the rest", async () => {
  const asked = playEngine(GOOD);
  const query = { window: "0", filter: "a&b=ä", class: null, sort: "" };
  assert.deepEqual(await ask("/api/classes", query), { classes: [] });
  await ask("/api/classes");
  await ask("/api/history", { class: null });
  assert.deepEqual(asked.map(({ target }) => target),
    ["/api/classes?window=0&filter=a%26b%3D%C3%A4", "/api/classes", "/api/history"]);
});

test("Answers are never those of a cache, and do not stay away for ever", async () => {
  const asked = playEngine(GOOD);
  await ask("/api/classes");
  assert.equal(asked[0].cache, "no-store");
  assert.ok(asked[0].signal instanceof AbortSignal);
});

test("A refusal carries its status", async () => {
  playEngine({ ok: false, status: 404, statusText: "Not Found" });
  await assert.rejects(ask("/api/trace/00"), { status: 404, message: "Not Found" });
});
