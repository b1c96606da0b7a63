// Mouse and touch.
import { main, overview } from "./dom.js";
import { clearSelection, followCursor, select } from "./selection.js";
import { state } from "./state.js";
import { moveView, pan, setCursorTime, setView, showAll, timeAt, zoom } from "./view.js";

// ---- Charts ----

const fingers = new Map();
let drag = null;

main.addEventListener("pointerdown", (event) => {
  const plot = event.target.closest(".plot");
  if (!plot || event.button !== 0) return;
  if (event.pointerType === "touch") {
    fingers.set(event.pointerId, event.clientX);
    setCursorTime(timeAt(plot, event.clientX));
  } else {
    drag = { plot, start: event.clientX, isMoved: false };
    plot.setPointerCapture(event.pointerId);
  }
});

function pinch(event, plot) {
  const [a, b] = [...fingers.keys()];
  const other = fingers.get(event.pointerId === a ? b : a);
  const before = Math.abs(fingers.get(event.pointerId) - other);
  const now = Math.abs(event.clientX - other);
  fingers.set(event.pointerId, event.clientX);
  if (before > 10 && now > 10) zoom(before / now, timeAt(plot, (event.clientX + other) / 2), false);
}

main.addEventListener("pointermove", (event) => {
  const plot = drag ? drag.plot : event.target.closest(".plot");
  if (!plot) return;
  if (event.pointerType === "touch" && fingers.size === 2 && fingers.has(event.pointerId)) {
    pinch(event, plot);
    return;
  }
  if (drag && Math.abs(event.clientX - drag.start) > 4) drag.isMoved = true;
  const { view } = state;
  const inside = (time) => Math.min(Math.max(time, view.from), view.to);
  if (drag?.isMoved) select(inside(timeAt(plot, drag.start)), inside(timeAt(plot, event.clientX)));
  setCursorTime(inside(timeAt(plot, event.clientX)));
  followCursor();
});

// Dragging selects; with Shift it zooms. A click where nothing is selected selects nothing.
function endDrag(event) {
  fingers.delete(event.pointerId);
  if (drag && event.type === "pointerup") {
    if (!drag.isMoved) clearSelection();
    else if (event.shiftKey && state.selection) {
      moveView(state.selection.from, state.selection.to);
      clearSelection();
    }
  }
  drag = null;
}
main.addEventListener("pointerup", endDrag);
main.addEventListener("pointercancel", endDrag);

main.addEventListener("dblclick", (event) => {
  if (event.target.closest(".plot")) showAll();
});

main.addEventListener("wheel", (event) => {
  const plot = event.target.closest(".plot");
  if (!plot) return;
  const sideways = event.shiftKey ? event.deltaY || event.deltaX : event.deltaX;
  if (event.ctrlKey || event.metaKey) {
    event.preventDefault();
    zoom(Math.exp(event.deltaY * 0.004), timeAt(plot, event.clientX), false);
  } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
    event.preventDefault();
    pan(sideways / plot.clientWidth, false);
  }
}, { passive: false });

// ---- Overview ----

let grabbed = null;

function overviewTime(event) {
  const { sequence } = state;
  const box = overview.getBoundingClientRect();
  return sequence.from + (event.clientX - box.left) / box.width * (sequence.to - sequence.from);
}

overview.addEventListener("pointerdown", (event) => {
  overview.setPointerCapture(event.pointerId);
  const time = overviewTime(event);
  const span = state.view.to - state.view.from;
  if (time < state.view.from || time > state.view.to) setView(time - span / 2, time + span / 2);
  grabbed = time - state.view.from;
  setCursorTime(time);
});
overview.addEventListener("pointermove", (event) => {
  if (grabbed === null) return;
  const from = overviewTime(event) - grabbed;
  setView(from, from + (state.view.to - state.view.from));
  setCursorTime(overviewTime(event));
});
for (const kind of ["pointerup", "pointercancel"]) {
  overview.addEventListener(kind, () => {
    grabbed = null;
  });
}
