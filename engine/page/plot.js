// Where durations, counts and times lie in the plots: arithmetic only.

import { clock, count, duration, durationParts, NBSP, rate, three } from "./format.js";

export const LEFT = 52;
export const RIGHT = 10;

const firstSlot = ({ slots, now_slot }) => now_slot - slots + 1;

/// The columns of a plot, one for every slot of the history, and where what has a slot lies.
export function columns(width, history) {
  const column = (width - LEFT - RIGHT) / history.slots;
  const x = (at) => LEFT + at * column;
  const left = ({ slot }) => x(slot - firstSlot(history));
  const middle = (point) => left(point) + column / 2;
  return { column, x, left, middle, wide: Math.max(column - 0.6, 1) };
}

/// The slot, counted from the oldest, at a distance from the left of the plot.
export const slotAt = (distance, width, history) =>
  Math.floor((distance - LEFT) / columns(width, history).column);

/// The points that lie within the plot.
export function shownPoints(history) {
  const { points, now_slot } = history;
  const first = firstSlot(history);
  return (points || []).filter(({ slot }) => slot >= first && slot <= now_slot);
}

/// Whole decades around everything that there is, so that the scale seldom moves.
export function decades(points, begins) {
  const SHORTEST = 1000;
  let low = Infinity;
  let high = 0;
  for (const { steps, max_ns } of points) {
    low = Math.min(low, Math.max(begins[steps[0][0]], SHORTEST));
    high = Math.max(high, max_ns, SHORTEST);
  }
  if (high === 0) return [5, 9];
  const from = Math.floor(Math.log10(low) + 1e-9);
  return [from, Math.max(Math.ceil(Math.log10(high * 1.02)), from + 2)];
}

/// The height of a duration; what is shorter than the scale lies on its bottom.
export function heightScale([from, to], bottom) {
  const TOP = 6;
  return (ns) => {
    const part = (Math.log10(Math.max(ns, 10 ** from)) - from) / (to - from);
    return bottom - part * (bottom - TOP);
  };
}

export function decadeLabel(power) {
  const [value, unit] = durationParts(10 ** power);
  return Number(value) + NBSP + unit;
}

/// The heat map: how many of each time took how long, the weight by the logarithm of how many.
export function heatCells(points, begins, y) {
  const most = Math.max(1, ...points.flatMap(({ steps }) => steps.map(([, number]) => number)));
  const weight = (number) =>
    (most === 1 ? 0.5 : 0.14 + 0.8 * (Math.log(number) / Math.log(most)));
  return points.flatMap(({ slot, max_ns, steps }) => steps.map(([step, number]) => {
    // The last step has no end but the longest duration.
    const top = y(step + 1 < begins.length ? begins[step + 1] : max_ns * 1.05);
    const height = Math.max(y(begins[step]) - top + 0.3, 1.5);
    return { slot, top, height, weight: weight(number) };
  }));
}

/// The lines through points: what is not further apart than a few slots is one line.
export function lines(points) {
  const GAP = 3;
  const found = [];
  points.forEach((point, at) => {
    if (at > 0 && point.slot - points[at - 1].slot <= GAP) found[found.length - 1].push(point);
    else found.push([point]);
  });
  return found;
}

/// The bars of rates and errors, none too small to be seen, and a label of the tallest.
export function rateBars(points, slot_s, bottom) {
  const TOP = 8;
  const most = Math.max(0, ...points.map((point) => point.count)) / slot_s;
  const height = (number) => (number / slot_s / most) * (bottom - TOP);
  const bars = points.map((point) => ({
    slot: point.slot,
    all: Math.max(height(point.count), 1.5),
    errors: point.errors > 0 ? Math.max(height(point.errors), 2) : 0,
  }));
  const label = most > 0 ? Number(three(most)).toLocaleString("en") + "/s" : "";
  return { label, bars };
}

/// The labels of whole minutes; the oldest only where there is room.
export function minuteLabels({ slots, slot_s }, column) {
  const ROOM = 70;
  const minute = 60 / slot_s;
  const labels = [];
  for (let at = slots; at >= 0; at -= minute) {
    if (at === 0 && column * minute < ROOM) break;
    const ago = Math.round((slots - at) / minute);
    const align = at === slots ? "right" : at === 0 ? "left" : "center";
    labels.push({ at, align, text: ago === 0 ? "now" : "−" + ago + NBSP + "min" });
  }
  return labels;
}

/// The figures of one slot as pairs of name and text.
export function readout(history, points, at) {
  const { slot_s } = history;
  const slot = firstSlot(history) + at;
  const point = points.find((each) => each.slot === slot);
  const time = ["", clock(slot * slot_s)];
  if (!point) return [time, ["", "nothing finished"]];
  return [
    time, ["", rate(point.count / slot_s) + "/s"], ["failed", count(point.errors)],
    ...["p50", "p95", "p99", "max"].map((name) => [name, duration(point[name + "_ns"])]),
  ];
}

/// Places of percentiles from 0 to 100 on one logarithmic scale for all classes.
export function spreadScale(classes) {
  const times = classes.flatMap((one) => (one.p50_ns === null ? [] : [one.p50_ns, one.p99_ns]));
  const low = Math.log(Math.max(Math.min(...times, 1e15) * 0.9, 1));
  const high = Math.max(Math.log(Math.max(...times, 1) * 1.1), low + 1);
  return (ns) => (100 * (Math.log(Math.max(ns, 1)) - low)) / (high - low);
}
