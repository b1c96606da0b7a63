// Drawing: a counter's chart, and what charts and time line share.
import { columnsOf, shownAs, unitText } from "./aggregates.js";
import { changeColumns, sideHues } from "./compare.js";
import { stepAt } from "./data.js";
import { byId, element, hueName, setAttribute, setText } from "./dom.js";
import { short } from "./format.js";
import { finest } from "./levels.js";
import { overlayHues } from "./overlay.js";
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

// Gives a canvas as many pixels as it takes on the screen, and just that size: the browser would stretch it by a fraction of
// a pixel, at each frame. False while it has no size.
export function fitCanvas(canvas, width, height) {
  const ratio = window.devicePixelRatio || 1;
  if (width < 2 || height < 2) return false;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
    canvas.style.width = `${canvas.width / ratio}px`;
    canvas.style.height = `${canvas.height / ratio}px`;
  }
  return true;
}

// A canvas without transparency: then nothing below it is drawn, and nothing mixed. What it is called with first, counts.
export const contextOf = (canvas) => canvas.getContext("2d", { alpha: false });

// The pixels of a canvas, in the colour of the page's panels, to be written and put.
const images = new WeakMap();
export function pixelsOf(canvas) {
  const { width, height } = canvas;
  let image = images.get(canvas);
  if (image?.width !== width || image.height !== height) {
    image = new ImageData(width, height);
    image.out = new Int32Array(image.data.buffer);
    image.under = new Int32Array(height);
    images.set(canvas, image);
  }
  image.out.fill(opaque(colorOf("--panel")));
  return image;
}

// From the least to the greatest value of what is drawn, where heights are to fit it.
export function scaleOf(counter, piece, range) {
  if (byId("fit").checked) {
    const { edges, mins, maxs } = piece;
    const last = stepAt(edges, range.to);
    let [bottom, top] = [Infinity, -Infinity];
    for (let i = stepAt(edges, range.from); i <= last; i += 1) {
      if (mins[i] < bottom) bottom = mins[i];
      if (maxs[i] > top) top = maxs[i];
    }
    if (top > bottom) return { bottom, top };
  }
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
  const end = stepAt(edges, range.to);
  const isDense = end - i >= (Math.min(edges[end + 1], range.to) - Math.max(edges[i], range.from)) / span;
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
      // Of two traces the shorter ends within the view.
      sum = edges[i + 1] > from && edges[i] < until ? sum / added : NaN;
    } else if (edges[i] > from || edges[i + 1] < from) {
      sum = NaN;
    }
    columns.mins[column] = min;
    columns.means[column] = sum;
    columns.maxs[column] = max;
  }
}

// A colour over an opaque pixel. Pixels are signed numbers: opaque ones are then small, which the browser's compiler keeps
// in registers.
function mix(rgb, alpha, under) {
  const part = (shift) => {
    const below = under >>> shift & 0xff;
    return Math.round(below + ((rgb >>> shift & 0xff) - below) * alpha / 255) << shift;
  };
  return part(0) | part(8) | part(16) | 0xff << 24;
}

const opaque = (color) => pixelOf(color) | 0xff << 24;

// What is below a line, the band around it, and both: the opacities of its colour.
const shades = [0x33, 0x38, 0x60];

function fillColumn({ out, width }, x, from, to, pixel) {
  for (let at = from * width + x, end = to * width + x; at < end; at += width) out[at] = pixel;
}

let levels = new Int32Array(0);  // of the line in each column; below 0 where there is none
let following = new Int32Array(0);

// What is between the line and the base. From the top down a row is filled wherever the one above it is, and where the
// line begins: most of it is copied.
function fillArea({ out, width }, base, pixel) {
  if (following.length < width) following = new Int32Array(width);
  const begins = new Int32Array(base + 1).fill(-1);  // the columns of each level, as a list through "following"
  for (let x = 0; x < width; x += 1) {
    const level = levels[x];
    if (level < 0) continue;
    if (level > base) {
      fillColumn({ out, width }, x, base, level, pixel);
    } else {
      following[x] = begins[level];
      begins[level] = x;
    }
  }
  let isBegun = false;
  for (let row = 0; row < base; row += 1) {
    const start = row * width;
    if (isBegun) out.copyWithin(start, start - width, start);
    for (let x = begins[row]; x >= 0; x = following[x]) {
      out[start + x] = pixel;
      isBegun = true;
    }
  }
}

// Draws the means as a line, with hasArea what is below it, and with hasBand the band from the least to the greatest
// values. A dashed line has gaps. All edges are upright or level, so the pixels are written themselves: what a chart costs
// is in its size, however many steps it shows.
export function drawSeries(image, piece, range, scale, color, { hasArea = true, hasBand = hasArea, isDashed = false } = {}) {
  const { width, height, out } = image;
  const ratio = window.devicePixelRatio || 1;
  const rgb = pixelOf(color);
  const line = opaque(color);
  const panel = opaque(colorOf("--panel"));
  const [area, band, both] = shades.map((alpha) => mix(rgb, alpha, panel));
  const thick = Math.max(1, Math.round(1.25 * ratio));
  const margin = 3 * ratio;
  const factor = (height - margin - thick) / (scale.top - scale.bottom);
  const lowest = height - thick;
  const zero = margin + scale.top * factor + 0.5;
  const y = (value) => Math.min(Math.max(Math.floor(zero - value * factor), 0), lowest);
  const base = y(Math.min(Math.max(0, scale.bottom), scale.top));
  const dash = Math.round(4 * ratio);
  fillColumns(piece, range, width);
  const { mins, means, maxs } = columns;
  if (levels.length < width) levels = new Int32Array(width);
  for (let x = 0; x < width; x += 1) levels[x] = means[x] === means[x] ? y(means[x]) : -1;
  if (hasArea) fillArea(image, base, area);
  let before = -1;
  for (let x = 0; x < width; x += 1) {
    const level = levels[x];
    if (level < 0) {
      before = -1;
      continue;
    }
    if (hasBand) {
      const high = Math.min(level, base);
      const low = Math.max(level, base);
      const top = y(maxs[x]);
      const bottom = y(mins[x]);
      if (bottom > top) {
        fillColumn(image, x, top, Math.min(bottom, high), band);
        fillColumn(image, x, Math.max(top, high), Math.min(bottom, low), both);
        fillColumn(image, x, Math.max(top, low), bottom, band);
      }
    }
    const joined = before < 0 ? level : before;
    before = level;
    const [from, to] = [Math.min(level, joined), Math.max(level, joined) + thick];
    if (!isDashed) {
      fillColumn(image, x, from, to, line);
    } else {
      for (let row = from; row < to; row += 1) if ((x + row) % (2 * dash) < dash) out[row * width + x] = line;
    }
  }
}

// The part of an overview that is in view: tinted, between two lines that stand even where it is narrow.
export function drawWindow({ width, height, out }, whole, view) {
  const accent = colorOf("--accent");
  const panel = opaque(colorOf("--panel"));
  const tinted = mix(pixelOf(accent), 0x24, panel);
  const x = (time) => Math.round((time - whole.from) / (whole.to - whole.from) * width);
  const edge = Math.round(2 * (window.devicePixelRatio || 1));
  const left = Math.min(x(view.from), width - 2 * edge);
  const right = Math.max(x(view.to), left + 2 * edge);
  for (let row = 0; row < height; row += 1) {
    const start = row * width;
    for (let at = start + left, end = start + right; at < end; at += 1) if (out[at] === panel) out[at] = tinted;
    for (const from of [start + left, start + right - edge]) out.fill(opaque(accent), from, from + edge);
  }
}

export function ticks(range, width) {
  const rough = (range.to - range.from) / Math.max(2, width / 95);
  const power = 10 ** Math.floor(Math.log10(rough));
  const step = [1, 2, 5, 10].map((n) => n * power).find((n) => n >= rough);
  const result = [];
  for (let n = Math.ceil(range.from / step); n * step <= range.to; n += 1) result.push(n * step);
  return { step, at: result };
}

// The round values of a scale, with their places from the top.
function levelsOfScale(scale, height) {
  const rough = (scale.top - scale.bottom) / Math.max(2, height / 26);
  const power = 10 ** Math.floor(Math.log10(rough));
  const step = [1, 2, 2.5, 5, 10].map((n) => n * power).find((n) => n >= rough * (1 - 1e-9));
  const result = [];
  for (let n = Math.ceil(scale.bottom / step - 1e-9); n * step <= scale.top * (1 + 1e-9) && result.length < 9; n += 1) {
    result.push({ value: n * step, y: 3 + (scale.top - n * step) / (scale.top - scale.bottom) * (height - 4) });
  }
  return result;
}

// The selection, and lines at round values and times, under the series: lines stay, other pixels take on the colour below.
function drawGrid(image, counter, scale, color) {
  const { width, height, out } = image;
  const { view, selection } = state;
  const rgb = pixelOf(color);
  const panel = opaque(colorOf("--panel"));
  const above = shades.map((alpha) => mix(rgb, alpha, panel));
  const lay = (name) => {
    const below = opaque(colorOf(name));
    const over = shades.map((alpha) => mix(rgb, alpha, below));
    return (at) => {
      const pixel = out[at];
      if (pixel === panel) out[at] = below;
      else if (pixel === above[0]) out[at] = over[0];
      else if (pixel === above[1]) out[at] = over[1];
      else if (pixel === above[2]) out[at] = over[2];
    };
  };
  const x = (time) => Math.round((time - view.from) / (view.to - view.from) * width);
  const grid = lay("--grid");
  const ratio = window.devicePixelRatio || 1;
  const level = (row) => {
    for (let at = row * width, end = at + width; at < end; at += 1) grid(at);
  };
  for (const { y } of levelsOfScale(shown(scale, shownAs(counter).factor), height / ratio)) {
    level(Math.min(Math.round(y * ratio), height - 1));
  }
  level(height - 1);
  for (const time of ticks(view, width / ratio).at) {
    const place = x(time);
    if (place >= 0 && place < width) for (let at = place; at < out.length; at += width) grid(at);
  }
  if (!selection) return;
  const put = lay("--selection");
  const left = Math.max(x(selection.from), 0);
  const right = Math.min(Math.max(x(selection.to), x(selection.from) + 1), width);
  for (let row = 0; row < height; row += 1) for (let at = left; at < right; at += 1) put(row * width + at);
}

// The cursor's line stands among the pixels: an element over each chart would cost the browser a layer each, and a line of
// the browser's a second drawing. What it covers is kept.
function placeCursor(row, image) {
  const { view, at } = state;
  const { width, height, out, under } = image;
  const share = (at - view.from) / (view.to - view.from);
  if (row.place >= 0) for (let y = 0; y < height; y += 1) out[y * width + row.place] = under[y];
  row.place = share >= 0 && share <= 1 ? Math.min(Math.round(share * width), width - 1) : -1;
  if (row.place < 0) return;
  const cursor = opaque(colorOf("--cursor"));
  for (let y = 0, place = row.place; y < height; y += 1, place += width) {
    under[y] = out[place];
    out[place] = cursor;
  }
}

export function drawCursor() {
  for (const row of state.visible) {
    const { canvas, place } = row;
    const image = images.get(canvas);
    if (!image || image.width !== canvas.width || !canvas.width) continue;
    placeCursor(row, image);
    if (row.place === place) continue;
    for (const column of [place, row.place]) {
      if (column >= 0) contextOf(canvas).putImageData(image, 0, 0, column, 0, 1, canvas.height);
    }
  }
}

// To read sizes after something was changed makes the browser lay the page out again: all are read first.
export function drawRows() {
  for (const row of state.visible) {
    row.width = row.plot.clientWidth;
    row.height = row.plot.clientHeight;
  }
  state.edges = state.sequence.edges;
  for (const row of state.visible) drawRow(row);
}

// A scale of one counter in the units of another's samples, whose period may be another.
function inUnitsOf(counter, other, { bottom, top }) {
  const factor = shownAs(other).factor / shownAs(counter).factor;
  return { bottom: bottom * factor, top: top * factor };
}

// What is of one unit has one scale, so that it can be compared.
function scaleOfRow({ counter, piece, afterPiece, width }) {
  const { view } = state;
  const { after } = counter;
  const scales = [scaleOf(counter, piece, view)];
  if (after) scales.push(inUnitsOf(counter, after, scaleOf(after, afterPiece, view)));
  for (const other of state.overlays.get(counter) || []) {
    if (isAlike(counter, other)) scales.push(scaleOf(other, finest(other, view, width).piece, view));
  }
  return {
    bottom: Math.min(...scales.map(({ bottom }) => bottom)),
    top: Math.max(...scales.map(({ top }) => top)),
  };
}

const isAlike = (counter, other) => other.unit === counter.unit && other.unit !== "";

function drawRow(row) {
  const { view } = state;
  const { counter, width, height } = row;
  const { after } = counter;
  Object.assign(row, finest(counter, view, width));
  if (after) {
    const { piece, missing } = finest(after, view, width);
    Object.assign(row, { afterPiece: piece, missing: Math.max(row.missing, missing) });
  }
  // The cursor goes by the steps that are drawn: of two traces those of the longer.
  const { edges } = after && after.sequence.to > counter.sequence.to ? row.afterPiece : row.piece;
  const span = (all) => all[all.length - 1] - all[0];
  if (span(edges) < span(state.edges)) state.edges = edges;
  row.scale = scaleOfRow(row);
  if (!fitCanvas(row.canvas, width, height)) return;
  const image = pixelsOf(row.canvas);
  const color = colorOf(after ? sideHues.before : hueName(counter.block));
  drawSeries(image, row.piece, view, row.scale, color, { hasBand: !after, isDashed: Boolean(after) });
  drawGrid(image, counter, row.scale, color);
  if (after) {
    const scale = inUnitsOf(after, counter, row.scale);
    drawSeries(image, row.afterPiece, view, scale, colorOf(sideHues.after), { hasArea: false });
  }
  (state.overlays.get(counter) || []).forEach((other, i) => {
    const { piece } = finest(other, view, width);
    const scale = isAlike(counter, other) ? row.scale : scaleOf(other, piece, view);
    drawSeries(image, piece, view, scale, colorOf(overlayHues[i]), { hasArea: false });
  });
  row.place = -1;
  placeCursor(row, image);
  contextOf(row.canvas).putImageData(image, 0, 0);
}

const shown = ({ bottom, top }, factor) => ({ bottom: bottom * factor, top: top * factor });

function writeScale({ counter, scale, height, marks, plot }) {
  const { factor } = shownAs(counter);
  const values = levelsOfScale(shown(scale, factor), height);
  while (marks.length < values.length) {
    const mark = element("span", "mark");
    marks.push(mark);
    plot.append(mark);
  }
  marks.forEach((mark, i) => {
    setText(mark, values[i] ? short(values[i].value, counter.unit) : "");
    const place = values[i] ? `${Math.round(values[i].y)}px` : "";
    if (mark.style.top !== place) mark.style.top = place;
  });
}

// The numbers are those of the selection, or of the view where nothing is selected.
export function writeRows() {
  for (const row of state.visible) {
    const { counter, scale, missing, note, cells, plot } = row;
    if (!scale) continue;  // not drawn yet
    const unit = unitText(counter);
    setText(row.unit, unit);
    if (row.unit.hidden !== !unit) row.unit.hidden = !unit;
    const figures = (counter.after ? changeColumns : columnsOf)(counter, state.selection || state.view);
    note.hidden = !missing;
    setText(note, missing ? `in steps of ${missing} samples: finer ones did not fit into the page` : "");
    writeScale(row);
    figures.forEach(({ label, value, unit, why, text, isStrong }, i) => {
      const cell = cells.columns[i];
      setText(cell.label, label);
      setText(cell.value, text ?? short(value, unit ?? counter.unit));
      cell.value.classList.toggle("strong", Boolean(isStrong));
      setAttribute(cell.value, "title", why || "");
    });
    setAttribute(plot, "aria-label", `Chart of ${counter.name}: ` +
      figures.map(({ label }, i) => `${label} ${cells.columns[i].value.textContent}`).join(", "));
  }
}
