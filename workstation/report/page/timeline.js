// The head of the page: overview, ruler, and what they say of the view.
import { colorOf, contextOf, drawSeries, drawWindow, fitCanvas, pixelsOf, scaleOf, ticks } from "./charts.js";
import { comparison } from "./compare.js";
import { overviewOf } from "./data.js";
import { byId, hueName, overview, setText } from "./dom.js";
import { spanText, timeText } from "./format.js";
import { state } from "./state.js";

const { fontFamily } = getComputedStyle(document.body);

function drawRuler(view) {
  const ruler = byId("ruler");
  const width = ruler.parentElement.clientWidth;
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
    const isFirst = x < 30;
    const isLast = x > width - 30;
    context.textAlign = isFirst ? "left" : isLast ? "right" : "center";
    context.fillText(timeText(time, step), isFirst ? 0 : isLast ? width : x, 7);
  }
}

// The counter is drawn anew only when it would look different. The part in view is drawn over it: an element that moves
// over the canvas makes the browser put its layers together again at each step.
let drawn = [];
let base = null;  // without the part in view
function drawOverview(sequence, view) {
  const canvas = overview.querySelector("canvas");
  const { clientWidth: width, clientHeight: height } = overview;
  const { counters } = sequence;
  const counter = state.current?.counter || counters.find(({ name }) => name === "GPU active cycles") ||
    counters.find(({ min, max }) => max > min) || counters[0];
  if (!counter) return;
  const hue = colorOf(hueName(counter.block));
  if (!fitCanvas(canvas, width, height)) return;
  const now = [counter, canvas.width, canvas.height, hue, byId("fit").checked];
  const image = pixelsOf(canvas);
  if (now.every((part, i) => part === drawn[i])) {
    image.out.set(base);
  } else {
    drawn = now;
    const piece = overviewOf(counter);
    drawSeries(image, piece, sequence, scaleOf(counter, piece, sequence), hue);
    base = image.out.slice();
  }
  drawWindow(image, sequence, view);
  contextOf(canvas).putImageData(image, 0, 0);
}

export function drawTimeline() {
  drawRuler(state.view);
  drawOverview(state.sequence, state.view);
}

export function writeTimeline() {
  const { view } = state;
  const amounts = byId("amounts").value;
  const heads = comparison ? ["Before", "After", "Change"] : byId("columns").value === "percentiles" ? ["p50", "p95", "p99"]
    : ["Min", amounts === "total" ? "Total" : "Mean", "Max"];
  heads.forEach((text, i) => setText(document.querySelectorAll(".heads span")[i + 1], text));
  const from = Math.max(view.from, 0);  // the time that the first sample counted lies before it
  setText(byId("view"), `${timeText(from, (view.to - from) / 1000)} to ` +
    `${timeText(view.to, (view.to - from) / 1000)} (${spanText(view.to - from)})`);
}
