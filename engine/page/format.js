// Figures and names as text.

export const NBSP = "\u00a0";
export const NOTHING = "–";

export function three(value) {
  return value >= 99.95 ? value.toFixed(0) : value >= 9.995 ? value.toFixed(1) : value.toFixed(2);
}

/// A duration as number and unit: three digits, in the largest unit that it reaches.
export function durationParts(ns) {
  if (ns === null || ns === undefined) return [NOTHING, ""];
  if (ns === 0) return ["0", "s"];
  if (ns >= 1e13) return [three(ns / 6e10), "min"];
  const [unit, size] = ns < 999.5e3 ? ["µs", 1e3] : ns < 999.5e6 ? ["ms", 1e6] : ["s", 1e9];
  return [three(ns / size), unit];
}

export const duration = (ns) => durationParts(ns).join(NBSP).trim();

export function rate(value) {
  if (value === null || value === undefined) return NOTHING;
  if (value === 0) return "0";
  if (value < 0.01) return "<" + NBSP + "0.01";
  return value < 1000 ? three(value) : Math.round(value).toLocaleString("en");
}

/// A share of a whole as number and unit; some is never told as none, nor almost all as all.
export function shareParts(part, whole) {
  if (!whole) return [NOTHING, ""];
  const percent = (100 * part) / whole;
  if (percent > 0 && percent < 0.1) return ["<" + NBSP + "0.1", "%"];
  const text = percent > 0 && percent < 10 ? percent.toFixed(1) : percent.toFixed(0);
  return [percent < 100 && text === "100" ? "99.9" : text, "%"];
}

export const share = (part, whole) => shareParts(part, whole).join(NBSP).trim();

export const count = (value) => (value === null ? NOTHING : value.toLocaleString("en"));

export const clock = (seconds) => new Date(seconds * 1000).toLocaleTimeString("en-GB");

export function since(seconds) {
  if (seconds < 60) return Math.floor(seconds) + NBSP + "s";
  if (seconds < 3600) return Math.floor(seconds / 60) + NBSP + "min";
  return Math.floor(seconds / 3600) + NBSP + "h";
}

export const age = (seconds) => (seconds < 1 ? "now" : since(seconds) + " ago");

const INVISIBLE =
  /[\u0000-\u001f\u007f-\u009f\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/g;

/// A name in one line: what is invisible, or would turn the text around, is shown as its number.
export function visible(name) {
  if (name === "") return "(no name)";
  return name.replace(INVISIBLE, (c) => {
    if (c === "\n") return "↵";
    if (c === "\t") return "⇥";
    return "⟨" + c.charCodeAt(0).toString(16).padStart(2, "0") + "⟩";
  });
}
