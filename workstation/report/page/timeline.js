// The head of the page: overview, ruler, and what they say of the view.
import { colorOf, drawSeries, fitCanvas, pixelsOf, scaleOf, ticks } from "./charts.js";
import { overviewOf } from "./data.js";
import { byId, hueName, overview, setText } from "./dom.js";
import { spanText, timeText } from "./format.js";
import { state } from "./state.js";

const { fontFamily } = getComputedStyle(document.body);

function drawRuler(view) {
  const ruler = byId("ruler");
  const width = ruler.clientWidth;
  if (!fitCanvas(ruler, width, ruler.clientHeight)) return;
  const context = ruler.getContext("2d");
  const ratio = window.devicePixelRatio || 1;
  context.setTransform(ratio, 0, 0, ratio, 0, 0);
  context.clearRect(0, 0, width, ruler.clientHeight);
  const { step, at } = ticks(view, width);
  context.font = `11.5px ${fontFamily}`;
  context.fillStyle = colorOf("--muted");
  context.textBaseline = "top";
  for (const time of at) {
    const x = (time - view.from) / (view.to - view.from) * width;
    context.fillRect(Math.round(x), 0, 1, 5);
    const text = timeText(time, step);
    const half = context.measureText(text).width / 2;
    context.fillText(text, Math.min(Math.max(0, x - half), width - 2 * half), 7);
  }
}

// Drawn anew only when it would look different.
let drawn = [];
function drawOverview(sequence) {
  const canvas = overview.querySelector("canvas");
  const { clientWidth: width, clientHeight: height } = canvas;
  const { counters } = sequence;
  const counter = state.current?.counter || counters.find(({ name }) => name === "GPU active cycles") ||
    counters.find(({ min, max }) => max > min) || counters[0];
  if (!counter) return;
  const hue = colorOf(hueName(counter.block));
  const now = [counter, width, height, hue, byId("fit").checked];
  if (now.every((part, i) => part === drawn[i])) return;
  if (!fitCanvas(canvas, width, height)) return;
  drawn = now;
  const piece = overviewOf(sequence, counter);
  const image = pixelsOf(canvas);
  drawSeries(image, piece, sequence, scaleOf(counter, piece, sequence), hue);
  canvas.getContext("2d").putImageData(image, 0, 0);
}

export function drawTimeline() {
  const { sequence, view } = state;
  drawRuler(view);
  drawOverview(sequence);
  const span = sequence.to - sequence.from;
  byId("window").style.left = `${(view.from - sequence.from) / span * 100}%`;
  byId("window").style.width = `${(view.to - view.from) / span * 100}%`;
}

export function writeTimeline() {
  const { view } = state;
  const amounts = byId("amounts").value;
  const heads = byId("columns").value === "percentiles" ? ["p50", "p95", "p99"]
    : ["Min", amounts === "total" ? "Total" : "Mean", "Max"];
  heads.forEach((text, i) => setText(document.querySelectorAll(".heads span")[i + 1], text));
  const from = Math.max(view.from, 0);  // the time that the first sample counted lies before it
  setText(byId("view"), `${timeText(from, (view.to - from) / 1000)} to ` +
    `${timeText(view.to, (view.to - from) / 1000)} (${spanText(view.to - from)})`);
}
