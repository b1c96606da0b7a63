// The part of the time that is shown, and the cursor in it.
import { shownAs } from "./aggregates.js";
import { drawCursor } from "./charts.js";
import { stepAt } from "./data.js";
import { byId, overview, setAttribute, setText } from "./dom.js";
import { short, timeText } from "./format.js";
import { finest } from "./levels.js";
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

export function setCursorTime(time) {
  state.at = state.edges[stepAt(state.edges, time) + 1];
  drawCursor();
  writeCursor();
}

// Goes to a time, which comes into view if it is not.
export function goTo(time) {
  const { sequence, view } = state;
  state.at = Math.min(Math.max(time, sequence.first), sequence.to);
  if (state.at < view.from || state.at > view.to) {
    const half = (view.to - view.from) / 2;
    setView(state.at - half, state.at + half);
  }
  drawCursor();
  writeCursor();
  announce();
}

// Goes by so many of the steps that are drawn: samples, where they are.
export function moveCursor(steps) {
  const { at, edges } = state;
  const place = stepAt(edges, at) + 1 + steps;
  const isInside = at >= edges[0] && at <= edges[edges.length - 1];
  const step = edges[1] - edges[0];
  goTo(!isInside ? at : edges[place] ?? at + steps * step);
}

// What is drawn does not reach to a cursor that has gone out of view.
function pieceAtCursor(counter, drawn) {
  const { at } = state;
  const isThere = drawn && at > drawn.edges[0] && at <= drawn.edges[drawn.edges.length - 1];
  return isThere ? drawn : finest(counter, { from: at, to: at }, 1).piece;
}

function valueAt(row) {
  const { counter, piece, afterPiece } = row;
  const text = (of, drawn) => {
    const { edges, means } = pieceAtCursor(of, drawn);
    const { factor, unit } = shownAs(of);
    const isInside = state.at <= of.sequence.to;
    return short(isInside ? means[stepAt(edges, state.at)] * factor : NaN, unit);
  };
  const value = text(counter, piece);
  return counter.after ? `${value}\n${text(counter.after, afterPiece)}` : value;
}

export function writeCursor() {
  const text = timeText(state.at, state.sequence.period / 10);
  setText(byId("at"), text);
  setAttribute(overview, "aria-valuenow", String(stepAt(state.sequence.edges, state.at)));
  setAttribute(overview, "aria-valuetext", text);
  for (const row of state.visible) setText(row.cells.at, valueAt(row));
}

let announcement = 0;
export function announce() {
  clearTimeout(announcement);
  announcement = setTimeout(() => {
    const row = state.current;
    byId("live").textContent = byId("at").textContent + (row ? `, ${row.counter.name} ${valueAt(row)}` : "");
  }, 250);
}
