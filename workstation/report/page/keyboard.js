// Keys, and the controls that do the same.
import { byId, search } from "./dom.js";
import { filter, shownRows, togglePin, toggleText } from "./rows.js";
import { state } from "./state.js";
import { announce, cursorTime, pan, setCursor, showAll, zoom } from "./view.js";

const zoomStep = 0.6;
const zoomIn = () => zoom(zoomStep, cursorTime());
const zoomOut = () => zoom(1 / zoomStep, cursorTime());

function goToRow(direction) {
  const shown = shownRows();
  const next = shown[Math.min(Math.max(shown.indexOf(state.current) + direction, 0), shown.length - 1)];
  if (!next) return;
  next.article.focus({ preventScroll: true });
  next.article.scrollIntoView({ block: "nearest", behavior: "instant" });
  announce();
}

const keys = {
  ArrowLeft: (event) => setCursor(state.cursor - (event.shiftKey ? 10 : 1), true),
  ArrowRight: (event) => setCursor(state.cursor + (event.shiftKey ? 10 : 1), true),
  ArrowUp: () => goToRow(-1),
  ArrowDown: () => goToRow(1),
  Home: () => setCursor(0, true),
  End: () => setCursor(Infinity, true),
  w: zoomIn,
  "+": zoomIn,
  "=": zoomIn,
  s: zoomOut,
  "-": zoomOut,
  a: () => pan(-0.25),
  d: () => pan(0.25),
  0: showAll,
  f: () => byId("fit").click(),
  p: () => state.current && togglePin(state.current),
  "/": () => {
    search.focus();
    search.select();
  },
  "?": () => byId("keys").showModal(),
};

function searchKey(event) {
  if (event.key === "Escape") {
    if (search.value) {
      search.value = "";
      filter();
    } else {
      search.blur();
    }
  } else if (event.key === "ArrowDown") {
    shownRows()[0]?.article.focus();
  } else {
    return;
  }
  event.preventDefault();
}

document.addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.metaKey || event.altKey || document.querySelector("dialog[open]")) return;
  if (event.target === search) {
    searchKey(event);
  } else if (event.target.matches("input[type=radio], select")) {
    return;
  } else if (event.key === "Enter" && event.target.row) {
    toggleText(event.target.row);
  } else if (Object.hasOwn(keys, event.key)) {
    event.preventDefault();
    keys[event.key](event);
  }
});

search.addEventListener("input", filter);
byId("show").addEventListener("change", filter);
byId("zoom-in").addEventListener("click", zoomIn);
byId("zoom-out").addEventListener("click", zoomOut);
byId("zoom-all").addEventListener("click", showAll);
byId("help").addEventListener("click", () => byId("keys").showModal());
