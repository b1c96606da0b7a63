// The frames of a trace: a lane of them above the charts, and a list of the longest.
import { fromOperands, isAmount, sumOf } from "./aggregates.js";
import { colorOf, fitCanvas } from "./charts.js";
import { lowerBound, trace } from "./data.js";
import { byId, element } from "./dom.js";
import { short, spanText, timeText } from "./format.js";
import { select } from "./selection.js";
import { schedule, state } from "./state.js";
import { goTo, moveView, timeAt } from "./view.js";

const lane = byId("frames");
const longest = 10;

// By layer; the display's own have no name.
const layers = new Map();
for (const [start, end, expectedEnd, layer, jank, isDropped] of trace.frames?.list || []) {
  if (!layers.has(layer)) layers.set(layer, []);
  layers.get(layer).push({ start, end, expectedEnd, jank, isDropped: Boolean(isDropped) });
}
let frames = [];
let starts = new Float64Array(0);
let current = -1;

const nameOf = (layer) => trace.frames.layers[layer] || "the display";
const isLate = ({ jank, isDropped }) => jank > 1 || isDropped;

function reasonOf({ jank, isDropped }) {
  const reasons = trace.frames.reasons.filter((_, i) => jank & 2 << i);
  return [...(isDropped ? ["dropped"] : []), ...reasons].join(", ") || (jank > 1 ? "late" : "on time");
}

function choose(layer) {
  frames = layers.get(layer);
  starts = Float64Array.from(frames, ({ start }) => start);
  current = -1;
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
  // Where each was to end, as far as there is room to see it.
  context.fillStyle = colorOf("--text");
  let marked = -1;
  for (let i = first; i < end; i += 1) {
    const place = x(frames[i].expectedEnd);
    if (!frames[i].expectedEnd || place < Math.max(marked + 4, 0) || place > width) continue;
    marked = place;
    context.fillRect(Math.round(place), 1, 1, height - 2);
  }
  if (current >= 0) {
    context.strokeStyle = colorOf("--text");
    context.lineWidth = 2;
    context.strokeRect(x(frames[current].start), 1, Math.max(x(frames[current].end) - x(frames[current].start), 2), height - 2);
  }
}

function describe(index) {
  const { start, end, expectedEnd } = frames[index];
  const over = expectedEnd && end > expectedEnd ? `, ${spanText(end - expectedEnd)} past its expected end` : "";
  return `Frame ${index + 1} of ${frames.length}: ${spanText(end - start)}, ${reasonOf(frames[index])}${over}`;
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
  byId("live").textContent = describe(current);
  byId("frame").textContent = describe(current);
}

export function stepFrame(direction) {
  selectFrame(current < 0 ? lowerBound(starts, state.at) : current + direction);
}

lane.addEventListener("pointerdown", (event) => {
  const time = timeAt(lane, event.clientX);
  selectFrame(Math.max(lowerBound(starts, time) - 1, 0));
});

// ---- The longest ----

// Ranges without what they share, so that no sample counts twice.
function united(ranges) {
  const result = [];
  for (const range of ranges.toSorted((a, b) => a.from - b.from)) {
    const before = result.at(-1);
    if (before && range.from <= before.to) before.to = Math.max(before.to, range.to);
    else result.push({ ...range });
  }
  return result;
}

// What a counter came to in the longest frames and in the rest of the time: an amount per second, a ratio over the sums of
// its operands. Null while samples are still being unpacked.
function compare(counter, ranges, all) {
  let isExact = true;
  const sumsOf = (of) => {
    const total = { count: 0, sum: 0 };
    for (const range of ranges) {
      const part = sumOf(of, range);
      isExact &&= part.isExact;
      total.count += part.count;
      total.sum += part.sum;
    }
    const whole = sumOf(of, all);
    isExact &&= whole.isExact;
    return [total, { count: whole.count - total.count, sum: whole.sum - total.sum }];
  };
  const sums = sumsOf(counter);
  let values = sums.map(({ sum, count }) => sum / count);
  if (isAmount(counter)) {
    values = values.map((value) => value / counter.sequence.period);
  } else if (counter.formula) {
    values = values.map((_, i) => fromOperands(counter, (operand) => sumsOf(operand)[i].sum));
  }
  if (!isExact) return null;
  if (sums.some(({ count }) => count === 0)) return { ratio: 1 };
  const [long, other] = values;
  return { counter, long, other, ratio: other ? long / other : long ? Infinity : 1 };
}

let asked = 0;
async function tellCommon(chosen) {
  const mine = asked += 1;
  const body = byId("common");
  const { sequence } = state;
  const all = { from: frames[0].start, to: frames[frames.length - 1].end };
  const ranges = united(chosen.map((index) => ({ from: frames[index].start, to: frames[index].end })));
  const results = [];
  let waiting = sequence.counters.filter(({ selected, min, max }) => selected && min !== max);
  // The samples of all are asked for at once, and come when they are unpacked.
  for (let tries = 0; waiting.length && tries < 200; tries += 1) {
    waiting = waiting.filter((counter) => {
      const result = compare(counter, ranges, all);
      if (result?.counter) results.push(result);
      return !result;
    });
    if (waiting.length) await new Promise((done) => setTimeout(done, 25));
    if (mine !== asked) return;
  }
  const distance = ({ ratio }) => Math.abs(Math.log(Math.max(ratio, 1e-9)));
  results.sort((a, b) => distance(b) - distance(a));
  body.replaceChildren(...results.slice(0, 8).map(({ counter, long, other }) => {
    const row = element("tr");
    row.append(element("th", "", counter.name), element("td", "", short(long, counter.unit)), element("td", "", short(other, counter.unit)));
    row.firstChild.scope = "row";
    return row;
  }));
}

function openLongest() {
  const byLength = frames.map((_, index) => index)
    .sort((a, b) => (frames[b].end - frames[b].start) - (frames[a].end - frames[a].start)).slice(0, longest);
  byId("longest").replaceChildren(...byLength.map((index) => {
    const frame = frames[index];
    const row = element("tr");
    const go = element("button", "", timeText(frame.start, 1e-4));
    go.type = "button";
    go.setAttribute("aria-label", `${go.textContent}: ${describe(index)}`);
    go.addEventListener("click", () => {
      byId("frame-list").close();
      selectFrame(index);
    });
    const cell = element("td");
    cell.append(go);
    row.append(cell, element("td", "", spanText(frame.end - frame.start)), element("td", "", reasonOf(frame)));
    return row;
  }));
  const looking = element("td", "", "Looking at the samples …");
  looking.colSpan = 3;
  byId("common").replaceChildren(element("tr"));
  byId("common").firstChild.append(looking);
  byId("frame-list").showModal();
  tellCommon(byLength);
}

export function startFrames() {
  if (layers.size === 0) return;
  byId("frame-row").hidden = false;
  for (const layer of [...layers.keys()].sort((a, b) => a - b)) {
    const choice = element("option", "", `${nameOf(layer)} (${layers.get(layer).length})`);
    choice.value = layer;
    byId("layer").append(choice);
  }
  byId("layer").addEventListener("change", () => choose(Number(byId("layer").value)));
  byId("frames-longest").addEventListener("click", openLongest);
  choose(Number(byId("layer").value));
}
