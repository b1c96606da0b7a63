// The rows of the page: one for each counter, made once, then moved between groups, shown and hidden.
import { changeSentence, verdictOf } from "./compare.js";
import { byId, element, hueOf, main, search } from "./dom.js";
import { counted } from "./format.js";
import { carryOrDrop, showOverlays } from "./overlay.js";
import { schedule, state } from "./state.js";

const nothing = element("p", "nothing", "No counter fits.");
let groups = [];  // { section, list, link, size, rows }

const onScreen = new IntersectionObserver((entries) => {
  for (const { target, isIntersecting } of entries) {
    const { row } = target;
    if (isIntersecting) {
      state.visible.add(row);
    } else {
      state.visible.delete(row);
      row.canvas.width = row.canvas.height = 0;  // gives its memory back
    }
  }
  schedule();
}, { rootMargin: "150px" });

// ---- One row ----

function button(className, text) {
  const result = element("button", className, text);
  result.type = "button";
  return result;
}

function makeRow(counter) {
  const article = element("article", "row row-grid");
  const row = { counter, article, width: 0, height: 0, place: -1 };
  article.row = row;
  article.tabIndex = -1;
  article.style.setProperty("--hue", hueOf(counter.block));
  article.setAttribute("aria-label", counter.name);

  const name = element("div", "name");
  row.what = button("what", counter.name);
  row.pin = button("pin");
  row.pin.title = "Pin to the top";
  row.pin.setAttribute("aria-label", `Pin ${counter.name} to the top`);
  row.what.tabIndex = row.pin.tabIndex = -1;
  const detail = element("p");
  row.unit = element("span", "unit", counter.unit);
  row.unit.hidden = !counter.unit;
  detail.append(row.unit);
  if (counter.hardware) detail.append(element("code", "", counter.hardware));
  row.lay = button("lay", "+");
  row.lay.title = "Draw it over another chart";
  row.lay.setAttribute("aria-label", `Draw ${counter.name} over another chart`);
  row.lay.setAttribute("aria-pressed", "false");
  row.lay.tabIndex = -1;
  row.lay.hidden = Boolean(counter.after);
  row.legend = element("div", "legend");
  name.append(row.what, row.lay, row.pin, detail, row.legend);
  row.what.draggable = !counter.after;

  row.plot = element("div", "plot");
  row.plot.setAttribute("role", "img");
  row.plot.setAttribute("aria-label", `Chart of ${counter.name}`);
  row.canvas = element("canvas");
  row.note = element("span", "note");
  row.note.hidden = true;
  row.plot.append(row.canvas, row.note);
  row.marks = [];

  const list = element("dl", "numbers");
  const cells = ["Cursor", "Min", "Mean", "Max"].map((text) => {
    const pair = element("div");
    const [label, value] = [element("dt", "", text), element("dd")];
    pair.append(label, value);
    list.append(pair);
    return { label, value };
  });
  row.cells = { at: cells[0].value, columns: cells.slice(1) };
  article.append(name, row.plot, list);
  showText(row);
  showPin(row);
  showOverlays(row);
  row.lay.addEventListener("click", () => carryOrDrop(row));
  row.what.addEventListener("click", () => toggleText(row));
  row.pin.addEventListener("click", () => togglePin(row));
  article.addEventListener("focusin", () => setCurrent(row));
  article.addEventListener("pointerdown", () => setCurrent(row));
  return row;
}

// One row at a time is on the way of the Tab key.
export function setCurrent(row) {
  if (state.current === row) return;
  for (const [other, isCurrent] of [[state.current, false], [row, true]]) {
    if (!other) continue;
    other.article.classList.toggle("current", isCurrent);
    other.article.tabIndex = other.what.tabIndex = other.lay.tabIndex = other.pin.tabIndex = isCurrent ? 0 : -1;
  }
  state.current = row;
  schedule();
}

function showText(row) {
  const isOpen = state.opened.has(row.counter);
  row.what.setAttribute("aria-expanded", String(isOpen));
  for (const text of row.article.querySelectorAll(".text")) text.remove();
  if (!isOpen) return;
  if (row.counter.change) row.article.append(element("p", "text", changeSentence(row.counter)));
  row.article.append(element("p", "text", row.counter.description || "No description."));
}

export function toggleText(row) {
  if (!state.opened.delete(row.counter)) state.opened.add(row.counter);
  showText(row);
}

function showPin(row) {
  const isPinned = state.pinned.has(row.counter);
  row.pin.textContent = isPinned ? "★" : "☆";
  row.pin.setAttribute("aria-pressed", String(isPinned));
}

export function togglePin(row) {
  if (!state.pinned.delete(row.counter)) state.pinned.add(row.counter);
  const hadFocus = row.article.contains(document.activeElement) && document.activeElement;
  showPin(row);
  arrange();
  if (hadFocus) hadFocus.focus({ preventScroll: true });
}

// ---- Groups ----

function makeGroup(name, hue, rows) {
  const section = element("section");
  section.id = `group-${name.toLowerCase().replace(/\W+/g, "-")}`;
  section.style.setProperty("--hue", hue);
  const heading = element("h2", "group");
  const title = button("", `${name} `);
  const size = element("small");
  title.append(size);
  heading.append(title);
  const list = element("div", "rows");
  list.append(...rows.map(({ article }) => article));
  const fold = () => {
    list.hidden = state.folded.has(name);
    title.setAttribute("aria-expanded", String(!list.hidden));
  };
  fold();
  title.addEventListener("click", () => {
    if (!state.folded.delete(name)) state.folded.add(name);
    fold();
  });
  section.append(heading, list);
  const link = element("a");
  link.href = `#${section.id}`;
  link.addEventListener("click", (event) => {
    event.preventDefault();  // the address is the view's
    section.scrollIntoView();
    title.focus({ preventScroll: true });
  });
  link.style.setProperty("--hue", hue);
  return { name, section, link, size, rows };
}

const verdictNames = {
  "more than chance": "Changed", "may be chance": "May be chance", "too short to tell": "Too short to tell",
};

// Puts the rows into their groups: what is pinned comes first.
export function arrange() {
  const by = document.querySelector("input[name=group]:checked").value;
  const byUnit = by === "unit";
  const nameOf = {
    block: ({ block }) => block,
    unit: ({ unit }) => unit || "plain counts",
    change: ({ change }) => verdictNames[verdictOf(change)],
  }[by];
  const rowsOf = new Map();
  for (const row of state.all) {
    const { counter } = row;
    const name = state.pinned.has(counter) ? "Pinned" : nameOf(counter);
    if (!rowsOf.has(name)) rowsOf.set(name, []);
    rowsOf.get(name).push(row);
  }
  const rank = (name) => (name === "Pinned" ? 0 : byUnit && name === "plain counts" ? 2 : 1);
  const names = [...rowsOf.keys()].sort((a, b) => rank(a) - rank(b) || (byUnit ? a.localeCompare(b) : 0));
  const hue = (name) => (by !== "block" || name === "Pinned" ? "var(--accent)" : hueOf(name));
  groups = names.map((name) => makeGroup(name, hue(name), rowsOf.get(name)));
  main.replaceChildren(...groups.map(({ section }) => section), nothing);
  byId("jump").replaceChildren(...groups.map(({ link }) => link));
  state.rows = groups.flatMap(({ rows }) => rows);
  filter();
}

function isWanted(counter, words, show) {
  return words.every((word) => counter.haystack.includes(word)) &&
    (show !== "selected" || counter.selected) &&
    (show !== "changing" || (counter.change ? counter.change.changed : counter.max > counter.min));
}

// Shows the rows that are searched for, and those that are pinned.
export function filter() {
  const words = search.value.toLowerCase().split(/\s+/).filter(Boolean);
  const show = byId("show").value;
  let found = 0;
  for (const { name, section, link, size, rows } of groups) {
    let shown = 0;
    for (const { article, counter } of rows) {
      const isShown = state.pinned.has(counter) || isWanted(counter, words, show);
      if (article.hidden === isShown) article.hidden = !isShown;
      shown += isShown;
    }
    size.textContent = shown;
    link.textContent = `${name} ${shown}`;
    section.hidden = link.hidden = shown === 0;
    found += shown;
  }
  nothing.hidden = found !== 0;
  byId("found").textContent = `${found} of ${counted(state.all.length, "counter")}`;
  if (!state.current || state.current.article.hidden) {
    setCurrent(null);
    const first = shownRows()[0];
    if (first) first.article.tabIndex = 0;  // the way in for the Tab key
  }
  measureHeader();
  schedule();
}

export const shownRows = () => state.rows.filter(({ article }) => !article.hidden && !article.parentElement.hidden);

export function focusRow({ article }) {
  article.focus({ preventScroll: true });
  article.scrollIntoView({ block: "nearest", behavior: "instant" });
}

// The counter of that name, which a search or a folded group may have hidden.
export function goToCounter(name) {
  const row = state.all.find(({ counter }) => counter.name === name);
  if (!row) return;
  search.value = "";
  byId("show").value = "all";
  state.folded.clear();
  arrange();
  focusRow(row);
}

export function makeRows() {
  onScreen.disconnect();
  state.visible.clear();
  state.current = null;
  state.all = state.sequence.counters.map(makeRow);
  for (const { article } of state.all) onScreen.observe(article);
  arrange();
}

// What stays at the top of the screen must not cover what is scrolled to. On a phone that is the time alone.
export function measureHeader() {
  const height = document.querySelector("header").offsetHeight || document.querySelector(".time").offsetHeight;
  document.documentElement.style.setProperty("--header", `${height}px`);
}

// Paper has no screen: all charts that are not hidden are drawn.
export function showForPrint() {
  document.documentElement.classList.add("printing");
  for (const row of shownRows()) state.visible.add(row);
}

export function showForScreen() {
  document.documentElement.classList.remove("printing");
  onScreen.disconnect();
  for (const { article } of state.all) onScreen.observe(article);
}
