// The plots of the last five minutes.

import { byId, make, setNote, setText } from "./dom.js";
import {
  columns, decadeLabel, decades, heatCells, heightScale, LEFT, lines, minuteLabels, rateBars,
  readout, RIGHT, shownPoints,
} from "./plot.js";
import { chartTitle, emptyPlotText } from "./sentences.js";

const narrow = window.matchMedia("(max-width: 760px)");

function colour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

/// A canvas, emptied, in the pixels of the screen.
function canvasOf(id) {
  const canvas = byId(id);
  const scale = window.devicePixelRatio || 1;
  const { clientWidth: width, clientHeight: height } = canvas;
  const [wide, tall] = [Math.round(width * scale), Math.round(height * scale)];
  if (canvas.width !== wide || canvas.height !== tall) {
    canvas.width = wide;
    canvas.height = tall;
  }
  const context = canvas.getContext("2d");
  context.setTransform(scale, 0, 0, scale, 0, 0);
  context.clearRect(0, 0, width, height);
  context.font = "11px system-ui, sans-serif";
  context.textBaseline = "middle";
  return { context, width, height };
}

function drawLevel(context, width, y, label) {
  context.fillStyle = colour("--line");
  context.fillRect(LEFT, Math.round(y), width - LEFT - RIGHT, 1);
  context.fillStyle = colour("--quiet");
  context.textAlign = "right";
  context.fillText(label, LEFT - 7, Math.max(y, 7));
}

function drawHeat({ history, cursor }, points) {
  const { context, width, height } = canvasOf("heat");
  const place = columns(width, history);
  const begins = history.step_begins_ns;
  const scale = decades(points, begins);
  const y = heightScale(scale, height - 4);
  for (let power = scale[0]; power <= scale[1]; ++power) {
    drawLevel(context, width, y(10 ** power), decadeLabel(power));
  }
  const rgb = colour("--heat");
  for (const cell of heatCells(points, begins, y)) {
    context.fillStyle = "rgba(" + rgb + "," + cell.weight.toFixed(3) + ")";
    context.fillRect(place.left(cell), cell.top, place.wide, cell.height);
  }
  for (const [name, dash, thick] of [["p99", [2, 3], 2], ["p95", [6, 3], 1.6], ["p50", [], 1.8]]) {
    context.strokeStyle = context.fillStyle = colour("--" + name);
    context.lineWidth = thick;
    context.setLineDash(dash);
    for (const line of lines(points)) {
      drawLine(context, line.map((point) => [place.middle(point), y(point[name + "_ns"])]));
    }
  }
  drawCursor(context, cursor, place, height);
}

/// What stands alone is a point.
function drawLine(context, places) {
  if (places.length === 1) context.fillRect(places[0][0] - 2, places[0][1] - 2, 4, 4);
  context.lineJoin = "round";
  context.beginPath();
  for (const place of places) context.lineTo(...place);
  context.stroke();
}

function drawRates({ history, cursor }, points) {
  const LABELS = 18;
  const { context, width, height } = canvasOf("rates");
  const place = columns(width, history);
  const bottom = height - LABELS;
  const { label, bars } = rateBars(points, history.slot_s, bottom);
  drawLevel(context, width, bottom, "");
  context.fillText(label, LEFT - 7, 12);
  const drawBars = (name, opacity, heightOf) => {
    context.fillStyle = colour(name);
    context.globalAlpha = opacity;
    for (const bar of bars) {
      const tall = heightOf(bar);
      context.fillRect(place.left(bar), bottom - tall, place.wide, tall);
    }
  };
  drawBars("--good", 0.75, ({ all }) => all);
  drawBars("--failed", 1, ({ errors }) => errors);
  context.fillStyle = colour("--quiet");
  for (const { at, align, text } of minuteLabels(history, place.column)) {
    context.textAlign = align;
    context.fillText(text, place.x(at), height - 7);
  }
  drawCursor(context, cursor, place, bottom);
}

function drawCursor(context, cursor, { column, x }, height) {
  if (cursor === null) return;
  context.fillStyle = colour("--text");
  context.globalAlpha = 0.55;
  context.fillRect(Math.round(x(cursor) + column / 2), 0, 1, height);
  context.globalAlpha = 1;
}

function showReadout({ history, cursor }, points) {
  const plots = byId("plots");
  const line = byId("readout");
  plots.setAttribute("aria-valuenow", String(cursor === null ? history.slots - 1 : cursor));
  if (cursor === null) {
    const how = narrow.matches ? "Touch" : "Point at";
    setText(line, how + " the plot for the figures of two seconds.");
    plots.setAttribute("aria-valuetext", "now");
    return;
  }
  line.replaceChildren(...readout(history, points, cursor).map(([name, text]) => {
    const span = make("span", "", name ? name + " " : "");
    span.append(make("b", "", text));
    return span;
  }));
  plots.setAttribute("aria-valuetext", line.textContent);
}

export function showChart(state) {
  const { history, chosen } = state;
  const points = shownPoints(history);
  drawHeat(state, points);
  drawRates(state, points);
  setText(byId("chart-of"), chartTitle(chosen, history.class));
  byId("chart-all").hidden = chosen === null;
  setNote("plot-note", points.length > 0 ? "" : emptyPlotText(history.points));
  showReadout(state, points);
}
