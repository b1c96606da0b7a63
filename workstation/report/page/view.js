// The part of the time that is shown, and the cursor in it.
import { overviewOf, stepAt } from "./data.js";
import { byId, overview, setAttribute, setText } from "./dom.js";
import { short, timeText } from "./format.js";
import { schedule, state } from "./state.js";

const calm = matchMedia("(prefers-reduced-motion: reduce)");

// ---- View ----

export function setView(from, to) {
  const { sequence } = state;
  const all = sequence.to - sequence.from;
  const least = Math.min(Math.max(sequence.period * 4, 1e-6), all);
  const span = Math.min(Math.max(to - from, least), all);
  const start = Math.min(Math.max(from, sequence.from), sequence.to - span);
  state.view = { from: start, to: start + span };
  schedule();
}

let glide = 0;
export function moveView(from, to) {
  cancelAnimationFrame(glide);
  if (calm.matches) {
    setView(from, to);
    return;
  }
  const start = state.view;
  const began = performance.now();
  const frame = (now) => {
    const part = Math.min(1, (now - began) / 140);
    const eased = 1 - (1 - part) ** 3;
    setView(start.from + (from - start.from) * eased, start.to + (to - start.to) * eased);
    if (part < 1) glide = requestAnimationFrame(frame);
  };
  glide = requestAnimationFrame(frame);
}

export function zoom(factor, around, isSmooth = true) {
  const { view } = state;
  const center = Math.min(Math.max(around, view.from), view.to);
  const move = isSmooth ? moveView : setView;
  move(center - (center - view.from) * factor, center + (view.to - center) * factor);
}

export function pan(share, isSmooth = true) {
  const { sequence, view } = state;
  const span = view.to - view.from;
  const from = Math.min(Math.max(view.from + share * span, sequence.from), sequence.to - span);
  (isSmooth ? moveView : setView)(from, from + span);
}

export function showAll() {
  moveView(state.sequence.from, state.sequence.to);
}

export function timeAt(plot, clientX) {
  const box = plot.getBoundingClientRect();
  return state.view.from + (clientX - box.left) / box.width * (state.view.to - state.view.from);
}

// ---- Cursor ----

export const cursorTime = () => state.sequence.edges[state.cursor + 1];

export function setCursor(step, isByKey = false) {
  const { sequence, view } = state;
  state.cursor = Math.min(Math.max(step, 0), sequence.edges.length - 2);
  const time = cursorTime();
  if (isByKey && (time < view.from || time > view.to)) {
    const half = (view.to - view.from) / 2;
    setView(time - half, time + half);
  }
  drawCursor();
  writeCursor();
  if (isByKey) announce();
}

export const setCursorTime = (time) => setCursor(stepAt(state.sequence.edges, time));

const valueAt = (counter) => short(overviewOf(state.sequence, counter).means[state.cursor], counter.unit);

// The line in each chart is moved by itself: a property that all inherit would have the style of all computed anew.
export function drawCursor() {
  const { view, visible } = state;
  const share = (cursorTime() - view.from) / (view.to - view.from);
  for (const { line, width } of visible) {
    const place = share >= 0 && share <= 1 ? `translateX(${Math.round(share * width)}px)` : "scale(0)";
    if (line.style.transform !== place) line.style.transform = place;
  }
}

export function writeCursor() {
  const text = timeText(cursorTime(), state.sequence.period / 10);
  setText(byId("at"), text);
  setAttribute(overview, "aria-valuenow", String(state.cursor));
  setAttribute(overview, "aria-valuetext", text);
  for (const { counter, cells } of state.visible) setText(cells.at, valueAt(counter));
}

let announcement = 0;
export function announce() {
  clearTimeout(announcement);
  announcement = setTimeout(() => {
    const counter = state.current?.counter;
    byId("live").textContent = byId("at").textContent + (counter ? `, ${counter.name} ${valueAt(counter)}` : "");
  }, 250);
}
