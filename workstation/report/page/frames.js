// The frames of a trace: a lane of them above the charts, and a list of the longest.
import { colorOf, fitCanvas } from "./charts.js";
import { lowerBound, trace } from "./data.js";
import { byId, element, setText } from "./dom.js";
import { counted, short, spanText, timeText } from "./format.js";
import { select } from "./selection.js";
import { schedule, state } from "./state.js";
import { goTo, moveView, timeAt } from "./view.js";

const lane = byId("frames");
const leastRoom = 6;  // pixels for a frame and the mark beside it

// By layer. Numbers go on by one, except where frames did not fit into the page.
const layers = new Map();
for (const [start, end, expectedEnd, layer, jank, isDropped, given] of trace.frames?.list || []) {
  if (!layers.has(layer)) layers.set(layer, []);
  const number = given ?? (layers.get(layer).at(-1)?.number ?? 0) + 1;
  layers.get(layer).push({ number, start, end, expectedEnd, jank, isDropped: Boolean(isDropped) });
}
let frames = [];
let starts = new Float64Array(0);
let total = 0;
let current = -1;
let chosen = null;  // the selection that it is

const isLate = ({ jank, isDropped }) => jank > 1 || isDropped;

function reasonOf({ jank, isDropped }) {
  const reasons = trace.frames.reasons.filter((_, i) => jank & 2 << i);
  return [...(isDropped ? ["dropped"] : []), ...reasons].join(", ") || ["not judged", "on time"][jank] || "late";
}

function choose(layer) {
  frames = layers.get(layer);
  total = trace.frames.layers[layer].frames;
  starts = Float64Array.from(frames, ({ start }) => start);
  current = -1;
  byId("frames-longest").disabled = !contrastOf(layer);
  schedule();
}

// ---- The lane ----

// In each column of pixels the worst of its frames: a late one among many is not to be missed.
export function drawFrames() {
  if (layers.size === 0) return;
  const width = lane.parentElement.clientWidth;
  const height = lane.clientHeight;
  if (!fitCanvas(lane, width, height)) return;
  const context = lane.getContext("2d");
  const ratio = window.devicePixelRatio || 1;
  context.setTransform(ratio, 0, 0, ratio, 0, 0);
  context.clearRect(0, 0, width, height);
  const { view } = state;
  const x = (time) => (time - view.from) / (view.to - view.from) * width;
  const first = Math.max(lowerBound(starts, view.from) - 2, 0);
  const end = lowerBound(starts, view.to);
  for (const late of [false, true]) {
    context.fillStyle = colorOf(late ? "--late" : "--accent");
    let done = -1;
    for (let i = first; i < end; i += 1) {
      if (isLate(frames[i]) !== late) continue;
      const left = Math.max(x(frames[i].start), 0);
      const right = Math.min(x(frames[i].end), width);
      if (right < done || right < 0) continue;
      done = Math.max(right, left + 1);
      context.fillRect(left, late ? 3 : 6, Math.max(done - left - (right - left > 4 ? 1 : 0), 1), late ? height - 6 : height - 12);
    }
  }
  // Where each was to end, if there is room to see it.
  context.fillStyle = colorOf("--text");
  for (let i = first; i < end && (end - first) * leastRoom < width; i += 1) {
    const place = x(frames[i].expectedEnd);
    if (frames[i].expectedEnd && place >= 0 && place <= width) context.fillRect(Math.round(place), 1, 1, height - 2);
  }
  const isSelected = current >= 0 && state.selection === chosen;
  setText(byId("frame"), isSelected ? describe(current) : "");
  if (isSelected) {
    context.strokeStyle = colorOf("--text");
    context.lineWidth = 2;
    context.strokeRect(x(frames[current].start), 1, Math.max(x(frames[current].end) - x(frames[current].start), 2), height - 2);
  }
}

function describe(index) {
  const { number, start, end, expectedEnd } = frames[index];
  const over = expectedEnd && end > expectedEnd ? `, ${spanText(end - expectedEnd)} past its expected end` : "";
  return `Frame ${number} of ${total}: ${spanText(end - start)}, ${reasonOf(frames[index])}${over}`;
}

function selectFrame(index) {
  if (frames.length === 0) return;
  current = Math.min(Math.max(index, 0), frames.length - 1);
  const { start, end } = frames[current];
  const { view } = state;
  if (start < view.from || end > view.to) {
    const half = Math.max((view.to - view.from) / 2, (end - start) * 2);
    moveView((start + end) / 2 - half, (start + end) / 2 + half);
  }
  goTo(end);
  select(start, end);
  chosen = state.selection;
  byId("live").textContent = describe(current);
}

export function stepFrame(direction) {
  selectFrame(current < 0 || state.selection !== chosen ? lowerBound(starts, state.at) : current + direction);
}

lane.addEventListener("pointerdown", (event) => {
  const time = timeAt(lane, event.clientX);
  selectFrame(Math.max(lowerBound(starts, time) - 1, 0));
});

// ---- The longest ----

// None of those beyond the first 64 layers.
const contrastOf = (layer) => trace.frames.contrasts[state.sequence.index]?.[layer];

function commonRow({ id, name, unit, longest, others }) {
  const row = element("tr");
  const head = element("th", "", name);
  head.scope = "row";
  const counterUnit = state.sequence.counterOf.get(id).unit;
  if (unit && counterUnit !== "percent") head.append(" ", element("small", "", unit));
  row.append(head, ...[longest, others].map((value) => element("td", "", short(value ?? NaN, counterUnit))));
  return row;
}

function openLongest() {
  const { longest, common } = contrastOf(Number(byId("layer").value));
  byId("longest").replaceChildren(...longest.map((number) => {
    const index = frames.findIndex((frame) => frame.number === number);
    const { start, end } = frames[index];
    const row = element("tr");
    const go = element("button", "", timeText(start, 1e-4));
    go.type = "button";
    go.setAttribute("aria-label", `${go.textContent}: ${describe(index)}`);
    go.addEventListener("click", () => {
      byId("frame-list").close();
      selectFrame(index);
    });
    const cell = element("td");
    cell.append(go);
    row.append(cell, element("td", "", spanText(end - start)), element("td", "", reasonOf(frames[index])));
    return row;
  }));
  byId("common").replaceChildren(...common.map(commonRow));
  byId("common-part").hidden = common.length === 0;
  byId("no-common").hidden = common.length !== 0;
  byId("frame-list").showModal();
}

export function startFrames() {
  if (layers.size === 0) return;
  byId("frame-row").hidden = false;
  byId("layer").addEventListener("change", () => choose(Number(byId("layer").value)));
  byId("frames-longest").addEventListener("click", openLongest);
  choose(Number(byId("layer").value));
}

// They are there before the address is read, which says which one is chosen.
function offerLayers() {
  for (const layer of [...layers.keys()].sort((a, b) => a - b)) {
    const { name, frames: all } = trace.frames.layers[layer];
    const { length } = layers.get(layer);
    const shown = length < all ? `the longest ${counted(length, "frame")} of ${all.toLocaleString("en")}` : all;
    const choice = element("option", "", `${name || "the display"} (${shown})`);
    choice.value = layer;
    byId("layer").append(choice);
  }
}
offerLayers();
