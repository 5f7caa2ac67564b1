// The document.  What programs call themselves reaches it as text only.

export const byId = (id) => document.getElementById(id);

export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/// Sets a text that is not always there.
export function setNote(id, text) {
  byId(id).hidden = text === "";
  setText(byId(id), text);
}

export function make(tag, className, text) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}

export function makeButton() {
  const button = make("button");
  button.type = "button";
  return button;
}

/// The up and down arrow keys move through the buttons of a list.
export function moveInList(event) {
  const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
  if (!step) return;
  const buttons = [...event.currentTarget.querySelectorAll("td.name button, li > button")];
  const at = buttons.indexOf(document.activeElement);
  if (at < 0) return;
  event.preventDefault();
  buttons[Math.min(Math.max(at + step, 0), buttons.length - 1)].focus();
}
