// The elements of the page.

export const byId = (id) => document.getElementById(id);

export const main = byId("counters");
export const overview = byId("overview");
export const search = byId("search");

export function element(kind, className, text) {
  const result = document.createElement(kind);
  if (className) result.className = className;
  if (text !== undefined) result.textContent = text;
  return result;
}

// What is as it was costs nothing.
export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}
export function setAttribute(node, name, value) {
  if (node.getAttribute(name) !== value) node.setAttribute(name, value);
}

// The custom property that has a block's colour, and its use.
export const hueName = (block) => `--${block.toLowerCase().replace(" ", "-")}`;
export const hueOf = (block) => `var(${hueName(block)})`;
