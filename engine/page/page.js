// The page of the engine: asks for its figures every two seconds and shows them.

import { ask } from "./api.js";
import { showChart } from "./chart.js";
import { showChosen, showClasses } from "./classes.js";
import { byId, moveInList, setText } from "./dom.js";
import { slotAt } from "./plot.js";
import { traceFailure } from "./sentences.js";
import { showSlowest } from "./slowest.js";
import * as states from "./state.js";
import { showEmpty, showEngine, showGone, showSummary } from "./status.js";
import { showTrace, showWaiting } from "./trace.js";

const REFRESH_MS = 2000;
const state = states.initialState();
let turn = 0;
let timer = 0;

// ---- asking and showing -------------------------------------------------------------------------

async function askForAll() {
  const { window, sort, order, filter, chosen } = state;
  return {
    classes: await ask("/api/classes", { window, sort, order, filter }),
    history: await ask("/api/history", { class: chosen }),
    slowest: await ask("/api/slowest", { window, class: chosen }),
  };
}

async function refresh() {
  clearTimeout(timer);
  const mine = ++turn;
  try {
    const answers = await askForAll();
    // Something newer was asked for meanwhile.
    if (mine !== turn) return;
    show(answers);
  } catch {
    if (mine !== turn) return;
    showSilence();
  }
  schedule();
}

function schedule() {
  clearTimeout(timer);
  if (!state.paused && !document.hidden) timer = setTimeout(refresh, REFRESH_MS);
}

function show({ classes, history, slowest }) {
  if (states.noteAnswer(state, classes.engine.run)) showChoice();
  showEngine(classes.engine, state.paused);
  Object.assign(state, { classes, history });
  const none = classes.total.classes === 0;
  byId("empty").hidden = !none;
  byId("full").hidden = none;
  if (none) {
    showEmpty(classes.engine.prefix);
    return;
  }
  showSummary(classes.total);
  showClasses(state);
  showChart(state);
  showSlowest(state, slowest.transactions);
}

function showSilence() {
  states.noteSilence(state, new Date());
  showGone(state.goneSince, state.classes !== null);
}

async function openTrace(id) {
  state.trace = id;
  showWaiting(id);
  writeAddress();
  try {
    const trace = await ask("/api/trace/" + encodeURIComponent(id));
    if (state.trace === id) showTrace(trace);
  } catch (error) {
    if (state.trace === id) setText(byId("trace-summary"), traceFailure(error.status));
  }
}

// ---- what people do -----------------------------------------------------------------------------

function writeAddress() {
  history.replaceState(null, "", location.pathname + states.toHash(state));
}

function readAddress() {
  const { chosen, trace } = states.fromHash(location.hash);
  state.chosen = chosen;
  if (trace) openTrace(trace);
}

function showChoice() {
  showChosen(state.chosen);
  writeAddress();
}

function choose(key) {
  states.choose(state, key);
  showChoice();
  refresh();
}

function moveCursor(to) {
  if (!state.history) return;
  states.moveCursor(state, to);
  showChart(state);
}

function redraw() {
  if (state.history && !byId("full").hidden) showChart(state);
}

function listenToControls() {
  for (const input of document.querySelectorAll("input[name=window]")) {
    input.addEventListener("change", () => {
      state.window = input.value;
      refresh();
    });
  }
  byId("pause").addEventListener("click", () => {
    state.paused = !state.paused;
    byId("pause").setAttribute("aria-pressed", String(state.paused));
    setText(byId("pause"), state.paused ? "Go on" : "Pause");
    refresh();
  });
  byId("filter").addEventListener("input", () => {
    state.filter = byId("filter").value;
    refresh();
  });
  byId("chart-all").addEventListener("click", () => {
    choose(null);
    byId("plots").focus();
  });
}

function listenToLists() {
  for (const th of document.querySelectorAll("th[data-sort]")) {
    th.firstElementChild.addEventListener("click", () => {
      states.sortBy(state, th.dataset.sort);
      refresh();
    });
  }
  byId("class-rows").addEventListener("click", ({ target }) => {
    const row = target.closest("tr");
    if (row) choose(row.dataset.key === state.chosen ? null : row.dataset.key);
  });
  byId("slow-rows").addEventListener("click", ({ target }) => {
    if (target.closest("button")) openTrace(target.closest("li").dataset.trace);
  });
  for (const id of ["class-rows", "slow-rows", "trace-rows"]) {
    byId(id).addEventListener("keydown", moveInList);
  }
}

function listenToPlots() {
  const plots = byId("plots");
  plots.addEventListener("pointermove", (event) => {
    if (!state.history) return;
    const box = byId("heat").getBoundingClientRect();
    moveCursor(slotAt(event.clientX - box.left, box.width, state.history));
  });
  plots.addEventListener("pointerleave", () => moveCursor(null));
  plots.addEventListener("blur", () => moveCursor(null));
  plots.addEventListener("keydown", (event) => {
    const to = state.history ? states.cursorAfter(state, event.key) : undefined;
    if (to === undefined) return;
    event.preventDefault();
    moveCursor(to);
  });
}

function listenToTrace() {
  const dialog = byId("trace");
  byId("trace-close").addEventListener("click", () => dialog.close());
  dialog.addEventListener("close", () => {
    state.trace = null;
    writeAddress();
  });
  dialog.addEventListener("click", (event) => {
    if (event.target === dialog) dialog.close();
  });
}

function listenToKeys() {
  document.addEventListener("keydown", (event) => {
    if (byId("trace").open) return;
    const typing = event.target instanceof HTMLInputElement && event.target.type === "search";
    if (event.key === "/" && !typing) {
      event.preventDefault();
      byId("filter").focus();
    } else if (event.key === "Escape") {
      if (typing) byId("filter").blur();
      else if (state.chosen !== null) choose(null);
    }
  });
}

function listenToWindow() {
  document.addEventListener("visibilitychange", () => {
    if (!document.hidden && !state.paused) refresh();
  });
  window.addEventListener("resize", redraw);
  window.matchMedia("(prefers-color-scheme: dark)").addEventListener("change", redraw);
  window.addEventListener("hashchange", () => {
    readAddress();
    refresh();
  });
}

listenToControls();
listenToLists();
listenToPlots();
listenToTrace();
listenToKeys();
listenToWindow();
readAddress();
refresh();
