// A trace as a tree of bars and texts.

import { clock, count, duration, visible } from "./format.js";

/// The spans in the order of a tree: children after their parent, by start.
export function treeOf(spans) {
  const known = new Set(spans.map(({ span }) => span));
  const children = new Map();
  const roots = [];
  for (const span of spans) {
    if (span.parent !== span.span && known.has(span.parent)) {
      if (!children.has(span.parent)) children.set(span.parent, []);
      children.get(span.parent).push(span);
    } else {
      roots.push(span);
    }
  }
  const rows = [];
  const seen = new Set();
  const pending = roots.map((span) => [span, 0]).reverse();
  while (pending.length > 0) {
    const [span, depth] = pending.pop();
    if (seen.has(span.span)) continue;
    seen.add(span.span);
    rows.push({ span, depth });
    for (const child of [...(children.get(span.span) || [])].reverse()) {
      pending.push([child, depth + 1]);
    }
  }
  return { rows, orphans: roots.filter(({ parent }) => parent !== null).length };
}

/// Begin, as a BigInt, and length of everything together, in nanoseconds.
export function extentOf(spans) {
  const begins = spans.map((span) => BigInt(span.start_ns));
  const ends = spans.map((span, at) => begins[at] + BigInt(span.duration_ns));
  const begin = begins.reduce((a, b) => (b < a ? b : a));
  const end = ends.reduce((a, b) => (b > a ? b : a));
  return { begin, whole: Math.max(Number(end - begin), 1) };
}

/// A span's distance from the begin, and its bar in hundredths; one at the end is still seen.
export function barOf(span, { begin, whole }) {
  const offset = Number(BigInt(span.start_ns) - begin);
  const left = Math.min((100 * offset) / whole, 99.6);
  return { offset, left, width: (100 * span.duration_ns) / whole };
}

export const axisOf = ({ whole }) =>
  [0, 0.25, 0.5, 0.75, 1].map((part) => (part === 0 ? "0" : duration(whole * part)));

export function summaryOf({ complete, spans }, { begin, whole }) {
  const bad = spans.filter(({ outcome }) => ["failed", "aborted", "abandoned"].includes(outcome));
  return [
    (complete ? "" : "the longest ") + count(spans.length) +
      (spans.length === 1 ? " transaction" : " transactions"),
    duration(whole),
    clock(Number(begin / 1000000000n)),
    bad.length > 0 ? bad.length + " not good" : "all good",
  ].join(" · ");
}

export function orphansText(orphans) {
  if (orphans === 0) return "";
  return (orphans === 1 ? "One transaction has a parent that is"
    : orphans + " transactions have a parent that is") +
    " still running, measured by another engine, or no longer kept.";
}

function startText(span) {
  const milliseconds = Number(BigInt(span.start_ns) / 1000000n);
  const rest = String(milliseconds % 1000).padStart(3, "0");
  return new Date(milliseconds).toLocaleString("en-GB") + "." + rest;
}

/// All that is known of a span, as pairs of name and text.
export function detailsOf(span, offset) {
  const status = span.outcome === "abandoned" ? "" : " (status " + span.status + ")";
  return [
    ["Application", visible(span.application)],
    ["Transaction", visible(span.transaction)],
    ["Outcome", span.outcome + status],
    ["Response time", duration(span.duration_ns)],
    ["Started", startText(span)],
    ["After the trace's start", duration(offset)],
    ...(span.process ? [["Process, thread", span.process + ", " + span.thread]] : []),
    ["Span", span.span],
  ];
}
