// Counters drawn over the chart of another: by dragging a name onto a chart, or by a key or button on the one and then on
// the other.
import { byId, element, main } from "./dom.js";
import { schedule, state } from "./state.js";

const mostOverlays = 4;
export const overlayHues = ["--over-1", "--over-2", "--over-3", "--over-4"];

let carried = null;

function tell(text) {
  byId("live").textContent = text;
}

export function showOverlays(row) {
  const others = state.overlays.get(row.counter) || [];
  row.legend.replaceChildren(...others.map((counter, i) => {
    const entry = element("button", "over", counter.name);
    entry.type = "button";
    entry.title = "Take it out of this chart";
    entry.setAttribute("aria-label", `Take ${counter.name} out of the chart of ${row.counter.name}`);
    entry.style.setProperty("--hue", `var(${overlayHues[i]})`);
    entry.addEventListener("click", () => remove(row, counter));
    return entry;
  }));
}

function remove(row, counter) {
  const others = state.overlays.get(row.counter).filter((other) => other !== counter);
  if (others.length) state.overlays.set(row.counter, others);
  else state.overlays.delete(row.counter);
  showOverlays(row);
  schedule();
}

function overlay(row, counter) {
  const others = state.overlays.get(row.counter) || [];
  if (counter === row.counter || others.includes(counter)) return;
  state.overlays.set(row.counter, [...others, counter].slice(-mostOverlays));
  showOverlays(row);
  tell(`${counter.name} is drawn over ${row.counter.name}`);
  schedule();
}

export function cancelOverlay() {
  carried?.lay.setAttribute("aria-pressed", "false");
  carried = null;
}

export function carryOrDrop(row) {
  if (row.counter.after) return;  // the chart has two lines already
  if (!carried) {
    carried = row;
    row.lay.setAttribute("aria-pressed", "true");
    tell(`${row.counter.name}: go to another chart and press o again to draw it there`);
    return;
  }
  const { counter } = carried;
  const isSame = carried === row;
  cancelOverlay();
  if (!isSame) overlay(row, counter);
}

main.addEventListener("dragstart", (event) => {
  const row = event.target.closest?.(".row")?.row;
  if (!row) return;
  carried = row;
  event.dataTransfer.setData("text/plain", row.counter.name);
  event.dataTransfer.effectAllowed = "copy";
});
main.addEventListener("dragover", (event) => {
  if (carried && event.target.closest(".plot")) event.preventDefault();
});
main.addEventListener("drop", (event) => {
  const row = event.target.closest(".row")?.row;
  if (!carried || !row) return;
  event.preventDefault();
  carryOrDrop(row);
});
main.addEventListener("dragend", cancelOverlay);
