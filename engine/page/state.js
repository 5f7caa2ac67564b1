// What the reader looks at, and how that changes.

export const initialState = () => ({
  window: "300", sort: "count", order: "desc", filter: "", chosen: null, paused: false,
  run: null, goneSince: null, classes: null, history: null, cursor: null, trace: null,
});

/// Figures are sorted by the largest first, names by the first; the same column again turns round.
export function sortBy(state, column) {
  const first = column === "transaction" ? "asc" : "desc";
  const turned = state.order === "asc" ? "desc" : "asc";
  state.order = column === state.sort ? turned : first;
  state.sort = column;
}

export function choose(state, key) {
  state.chosen = key;
  state.cursor = null;
}

/// Notes an answer of a run of the engine.  Another run knows nothing of what was chosen: returns
/// whether that has been dropped.
export function noteAnswer(state, run) {
  const another = state.run !== null && state.run !== run;
  if (another) choose(state, null);
  state.run = run;
  state.goneSince = null;
  return another;
}

export function noteSilence(state, now) {
  if (state.goneSince === null) state.goneSince = now;
}

export function moveCursor(state, to) {
  state.cursor = to === null ? null : Math.min(Math.max(to, 0), state.history.slots - 1);
}

/// Where a key moves the cursor to; undefined when it is none that does.
export function cursorAfter(state, key) {
  const last = state.history.slots - 1;
  const from = state.cursor === null ? last + 1 : state.cursor;
  return { ArrowLeft: from - 1, ArrowRight: from + 1, Home: 0, End: last }[key];
}

/// What is looked at as the end of an address, so that it can be handed on.
export function toHash(state) {
  const parts = [];
  if (state.chosen) parts.push("class=" + state.chosen);
  if (state.trace) parts.push("trace=" + state.trace);
  return parts.length > 0 ? "#" + parts.join("&") : "";
}

export function fromHash(hash) {
  const parts = new URLSearchParams(hash.slice(1));
  const key = parts.get("class");
  return { chosen: /^[0-9a-f]{16}$/.test(key) ? key : null, trace: parts.get("trace") || null };
}
