// Keys, and the controls that do the same.
import { byId, search } from "./dom.js";
import { stepFrame } from "./frames.js";
import { cancelOverlay, carryOrDrop } from "./overlay.js";
import { filter, focusRow, shownRows, togglePin, toggleText } from "./rows.js";
import { clearSelection, followCursor, toggleMark, zoomToSelection } from "./selection.js";
import { schedule, state } from "./state.js";
import { announce, goTo, moveCursor, pan, showAll, zoom } from "./view.js";

const zoomStep = 0.6;
const zoomIn = () => zoom(zoomStep, state.at);
const zoomOut = () => zoom(1 / zoomStep, state.at);

function goToRow(direction) {
  const shown = shownRows();
  const next = shown[Math.min(Math.max(shown.indexOf(state.current) + direction, 0), shown.length - 1)];
  if (!next) return;
  focusRow(next);
  announce();
}

const keys = {
  ArrowLeft: (event) => moveCursor(event.shiftKey ? -10 : -1),
  ArrowRight: (event) => moveCursor(event.shiftKey ? 10 : 1),
  ArrowUp: () => goToRow(-1),
  ArrowDown: () => goToRow(1),
  Home: () => goTo(-Infinity),
  End: () => goTo(Infinity),
  w: zoomIn,
  "+": zoomIn,
  "=": zoomIn,
  s: zoomOut,
  "-": zoomOut,
  a: () => pan(-0.25),
  d: () => pan(0.25),
  0: showAll,
  f: () => byId("fit").click(),
  m: toggleMark,
  z: zoomToSelection,
  ",": () => stepFrame(-1),
  ".": () => stepFrame(1),
  Escape: () => {
    cancelOverlay();
    clearSelection();
  },
  o: () => state.current && carryOrDrop(state.current),
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
    followCursor();
  }
});

search.addEventListener("input", filter);
byId("show").addEventListener("change", filter);
for (const id of ["columns", "amounts"]) byId(id).addEventListener("change", schedule);
byId("zoom-in").addEventListener("click", zoomIn);
byId("zoom-out").addEventListener("click", zoomOut);
byId("zoom-all").addEventListener("click", showAll);
byId("help").addEventListener("click", () => byId("keys").showModal());
