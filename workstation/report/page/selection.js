// A range of time that is selected: the numbers are then of it, and not of the view.
import { byId, setText } from "./dom.js";
import { spanText, timeText } from "./format.js";
import { schedule, state } from "./state.js";
import { moveView } from "./view.js";

let mark = null;  // where a range was begun by key

export function select(from, to) {
  const { sequence } = state;
  const range = { from: Math.max(Math.min(from, to), sequence.from), to: Math.min(Math.max(from, to), sequence.to) };
  state.selection = range.to > range.from ? range : null;
  schedule();
}

export function clearSelection() {
  mark = null;
  state.selection = null;
  schedule();
}

// The first time begins a range at the cursor, which then takes its end along; the second time ends it.
export function toggleMark() {
  mark = mark === null ? state.at : null;
  if (mark !== null) state.selection = null;
  schedule();
}

export function followCursor() {
  if (mark !== null && state.at !== mark) {
    const before = state.selection;
    const [from, to] = [Math.min(mark, state.at), Math.max(mark, state.at)];
    if (!before || before.from !== from || before.to !== to) select(from, to);
  }
}

export function zoomToSelection() {
  if (state.selection) moveView(state.selection.from, state.selection.to);
}

export function writeSelection() {
  const { selection } = state;
  byId("selection").hidden = !selection;
  byId("mark").setAttribute("aria-pressed", String(mark !== null));
  if (!selection) return;
  const step = (selection.to - selection.from) / 100;
  setText(byId("selected"), `${spanText(selection.to - selection.from)} selected: ${timeText(selection.from, step)} to ` +
    timeText(selection.to, step));
}

byId("mark").addEventListener("click", toggleMark);
byId("selection-zoom").addEventListener("click", zoomToSelection);
byId("selection-clear").addEventListener("click", clearSelection);
