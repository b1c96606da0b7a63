// Drawing: a counter's chart, and what charts and time line share.
import { statistics } from "./aggregates.js";
import { overviewOf, stepAt } from "./data.js";
import { byId, hueName, setAttribute, setText } from "./dom.js";
import { short } from "./format.js";
import { state } from "./state.js";

// The colours of the theme, by the name of the custom property. Asking the style each time would cost more than drawing.
let known = new Map();

export function readColors() {
  known = new Map();
}

export function colorOf(name) {
  if (!known.has(name)) known.set(name, getComputedStyle(document.documentElement).getPropertyValue(name).trim());
  return known.get(name);
}

// A colour as one pixel of image data, without its opacity.
const pixels = new Map();
function pixelOf(color) {
  if (!pixels.has(color)) {
    const context = new OffscreenCanvas(1, 1).getContext("2d");
    context.fillStyle = color;
    context.fillRect(0, 0, 1, 1);
    const [red, green, blue] = context.getImageData(0, 0, 1, 1).data;
    pixels.set(color, red | green << 8 | blue << 16);
  }
  return pixels.get(color);
}

// A context whose units are CSS pixels; null while the canvas has no size.
export function contextOf(canvas, width, height) {
  const ratio = window.devicePixelRatio || 1;
  if (width < 2 || height < 2) return null;
  const context = canvas.getContext("2d");
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  context.setTransform(ratio, 0, 0, ratio, 0, 0);
  context.clearRect(0, 0, width, height);
  return context;
}

export function scaleOf(counter, stats) {
  if (byId("fit").checked && stats.max > stats.min) return { bottom: stats.min, top: stats.max };
  const top = counter.unit === "percent" ? 100 : Math.max(counter.max, 0);
  const bottom = Math.min(counter.min, 0);
  return { bottom, top: top > bottom ? top : bottom + 1 };
}

// The least, mean and greatest value of a piece in each of so many columns; not-a-number where there is none. Where steps
// are wider than columns, a column has the step in its middle.
const columns = { mins: new Float64Array(0), means: new Float64Array(0), maxs: new Float64Array(0) };
function fillColumns(piece, range, count) {
  const { edges, mins, means, maxs } = piece;
  if (columns.means.length < count) for (const name of Object.keys(columns)) columns[name] = new Float64Array(count);
  const span = (range.to - range.from) / count;
  const last = means.length - 1;
  let i = stepAt(edges, range.from);
  const isDense = stepAt(edges, range.to) - i >= count;
  for (let column = 0; column < count; column += 1) {
    const from = range.from + span * (isDense ? column : column + 0.5);
    while (i < last && edges[i + 1] <= from) i += 1;
    let min = mins[i];
    let max = maxs[i];
    let sum = means[i];
    if (isDense) {
      const until = from + span;
      let added = 1;
      for (let j = i + 1; j <= last && edges[j] < until; j += 1) {
        if (mins[j] < min || min !== min) min = mins[j];
        if (maxs[j] > max || max !== max) max = maxs[j];
        if (means[j] === means[j]) {
          sum = sum === sum ? sum + means[j] : means[j];
          added += 1;
        }
      }
      if (means[i] !== means[i]) added -= 1;
      sum /= added;
    } else if (edges[i] > from || edges[i + 1] < from) {
      sum = NaN;
    }
    columns.mins[column] = min;
    columns.means[column] = sum;
    columns.maxs[column] = max;
  }
}

// Draws the means as a line, what is below it, and the band from the least to the greatest values. All edges are upright
// or level, so the pixels are written themselves: what a chart costs is in its size, however many steps it shows.
export function drawSeries(context, piece, range, scale, color) {
  const { width, height } = context.canvas;
  const ratio = window.devicePixelRatio || 1;
  const image = context.createImageData(width, height);
  const out = new Uint32Array(image.data.buffer);
  const rgb = pixelOf(color);
  const area = rgb | 0x33 << 24;
  const band = rgb | 0x38 << 24;
  const both = rgb | 0x60 << 24;
  const line = rgb | 0xff << 24;
  const thick = Math.max(1, Math.round(1.25 * ratio));
  const margin = 3 * ratio;
  const factor = (height - margin - thick) / (scale.top - scale.bottom);
  const y = (value) => Math.min(Math.max(Math.round(margin + (scale.top - value) * factor), 0), height - thick);
  const base = y(Math.min(Math.max(0, scale.bottom), scale.top));
  fillColumns(piece, range, width);
  const { mins, means, maxs } = columns;
  const fill = (x, from, to, pixel) => {
    for (let at = from * width + x, end = to * width + x; at < end; at += width) out[at] = pixel;
  };
  let before = -1;
  for (let x = 0; x < width; x += 1) {
    if (means[x] !== means[x]) {
      before = -1;
      continue;
    }
    const level = y(means[x]);
    const top = y(maxs[x]);
    const bottom = y(mins[x]);
    fill(x, Math.min(level, base), Math.max(level, base), area);
    if (bottom > top) {
      fill(x, top, bottom, band);
      fill(x, Math.max(top, Math.min(level, base)), Math.min(bottom, Math.max(level, base)), both);
    }
    const joined = before < 0 ? level : before;
    fill(x, Math.min(level, joined), Math.max(level, joined) + thick, line);
    before = level;
  }
  context.putImageData(image, 0, 0);
}

export function ticks(range, width) {
  const rough = (range.to - range.from) / Math.max(2, width / 95);
  const power = 10 ** Math.floor(Math.log10(rough));
  const step = [1, 2, 5, 10].map((n) => n * power).find((n) => n >= rough);
  const result = [];
  for (let n = Math.ceil(range.from / step); n * step <= range.to; n += 1) result.push(n * step);
  return { step, at: result };
}

// Behind what is drawn already.
function drawGrid(context, width, height) {
  const { view } = state;
  context.globalCompositeOperation = "destination-over";
  context.fillStyle = colorOf("--grid");
  for (const time of ticks(view, width).at) {
    context.fillRect(Math.round((time - view.from) / (view.to - view.from) * width), 0, 1, height);
  }
  context.fillRect(0, height - 1, width, 1);
  context.globalCompositeOperation = "source-over";
}

// To read sizes after something was changed makes the browser lay the page out again: all are read first.
export function drawRows() {
  for (const row of state.visible) {
    row.width = row.plot.clientWidth;
    row.height = row.plot.clientHeight;
  }
  for (const row of state.visible) drawRow(row);
}

function drawRow(row) {
  const { counter, width, height } = row;
  row.stats = statistics(counter, state.view);
  row.scale = scaleOf(counter, row.stats);
  const context = contextOf(row.canvas, width, height);
  if (context) {
    drawSeries(context, overviewOf(state.sequence, counter), state.view, row.scale, colorOf(hueName(counter.block)));
    drawGrid(context, width, height);
  }
}

export function writeRows() {
  for (const { counter, stats, scale, top, cells, plot } of state.visible) {
    if (!stats) continue;  // not drawn yet
    setText(top, counter.max > 0 || counter.unit === "percent" ? short(scale.top, counter.unit) : "");
    for (const key of ["min", "mean", "max"]) setText(cells[key], short(stats[key], counter.unit));
    setAttribute(plot, "aria-label", `Chart of ${counter.name}: minimum ${cells.min.textContent}, ` +
      `mean ${cells.mean.textContent}, maximum ${cells.max.textContent}`);
  }
}
