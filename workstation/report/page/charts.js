// Drawing: a counter's chart, and what charts and time line share.
import { columnsOf, shownAs } from "./aggregates.js";
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

// Gives a canvas as many pixels as it takes on the screen; false while it has no size.
export function fitCanvas(canvas, width, height) {
  const ratio = window.devicePixelRatio || 1;
  if (width < 2 || height < 2) return false;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  return true;
}

// The pixels of a canvas, empty, to be written and put.
const images = new WeakMap();
export function pixelsOf(canvas) {
  const { width, height } = canvas;
  let image = images.get(canvas);
  if (image?.width === width && image.height === height) {
    image.out.fill(0);
  } else {
    image = new ImageData(width, height);
    image.out = new Uint32Array(image.data.buffer);
    images.set(canvas, image);
  }
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

// A colour over a pixel that is opaque or empty.
function mix(rgb, alpha, under) {
  if (under === 0) return (rgb | alpha << 24) >>> 0;
  const part = (shift) => {
    const below = under >>> shift & 0xff;
    return Math.round(below + ((rgb >>> shift & 0xff) - below) * alpha / 255) << shift;
  };
  return (part(0) | part(8) | part(16) | 0xff << 24) >>> 0;
}

const opaque = (color) => (pixelOf(color) | 0xff << 24) >>> 0;

// Draws the means as a line, what is below it, and the band from the least to the greatest values. All edges are upright
// or level, so the pixels are written themselves: what a chart costs is in its size, however many steps it shows.
export function drawSeries(image, piece, range, scale, color, isLineOnly = false) {
  const { width, height, out } = image;
  const ratio = window.devicePixelRatio || 1;
  const rgb = pixelOf(color);
  const line = opaque(color);
  // What may be there already, and what it becomes.
  const unders = [0, opaque(colorOf("--grid")), opaque(colorOf("--selection"))];
  const [area, band, both] = [0x33, 0x38, 0x60].map((alpha) => unders.map((under) => mix(rgb, alpha, under)));
  const thick = Math.max(1, Math.round(1.25 * ratio));
  const margin = 3 * ratio;
  const factor = (height - margin - thick) / (scale.top - scale.bottom);
  const y = (value) => Math.min(Math.max(Math.round(margin + (scale.top - value) * factor), 0), height - thick);
  const base = y(Math.min(Math.max(0, scale.bottom), scale.top));
  fillColumns(piece, range, width);
  const { mins, means, maxs } = columns;
  const fill = (x, from, to, [plain, onGrid, onSelection]) => {
    for (let at = from * width + x, end = to * width + x; at < end; at += width) {
      const under = out[at];
      out[at] = under === 0 ? plain : under === unders[1] ? onGrid : under === unders[2] ? onSelection : under;
    }
  };
  let before = -1;
  for (let x = 0; x < width; x += 1) {
    if (means[x] !== means[x]) {
      before = -1;
      continue;
    }
    const level = y(means[x]);
    if (!isLineOnly) {
      const [top, bottom] = [y(maxs[x]), y(mins[x])];
      const [high, low] = [Math.min(level, base), Math.max(level, base)];
      if (bottom > top) {
        fill(x, Math.max(top, high), Math.min(bottom, low), both);
        fill(x, top, Math.min(bottom, high), band);
        fill(x, Math.max(top, low), bottom, band);
        fill(x, high, Math.min(low, top), area);
        fill(x, Math.max(high, bottom), low, area);
      } else {
        fill(x, high, low, area);
      }
    }
    const joined = before < 0 ? level : before;
    const end = (Math.max(level, joined) + thick) * width;
    for (let at = Math.min(level, joined) * width + x; at < end; at += width) out[at] = line;
    before = level;
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

// The selection, and lines at round values and times, on pixels that are empty.
function drawGrid(image, counter, scale) {
  const { width, height, out } = image;
  const { view, selection } = state;
  const x = (time) => Math.round((time - view.from) / (view.to - view.from) * width);
  const fill = (from, to, pixel) => {
    const [left, right] = [Math.max(from, 0), Math.min(to, width)];
    for (let row = 0; row < height && left < right; row += 1) out.fill(pixel, row * width + left, row * width + right);
  };
  if (selection) fill(x(selection.from), Math.max(x(selection.to), x(selection.from) + 1), opaque(colorOf("--selection")));
  const grid = opaque(colorOf("--grid"));
  const ratio = window.devicePixelRatio || 1;
  for (const { y } of levelsOfScale(shown(scale, shownAs(counter).factor), height / ratio)) {
    const row = Math.min(Math.round(y * ratio), height - 1);
    out.fill(grid, row * width, (row + 1) * width);
  }
  for (const time of ticks(view, width / ratio).at) fill(x(time), x(time) + 1, grid);
  out.fill(grid, (height - 1) * width);
}

// The cursor's line is drawn into the charts: an element over each would cost the browser a layer each.
export function drawCursor() {
  const { view, at, visible } = state;
  const share = (at - view.from) / (view.to - view.from);
  for (const row of visible) {
    const { canvas } = row;
    const image = images.get(canvas);
    if (!image || image.width !== canvas.width || !canvas.width) continue;
    const place = share >= 0 && share <= 1 ? Math.min(Math.round(share * canvas.width), canvas.width - 1) : -1;
    if (place === row.place) continue;
    const context = canvas.getContext("2d");
    if (row.place >= 0) context.putImageData(image, 0, 0, row.place, 0, 1, canvas.height);
    row.place = place;
    context.fillStyle = colorOf("--cursor");
    if (place >= 0) context.fillRect(place, 0, 1, canvas.height);
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

function drawRow(row) {
  const { sequence, view } = state;
  const { counter, width, height } = row;
  Object.assign(row, finest(sequence, counter, view, width));
  const span = ({ edges }) => edges[edges.length - 1] - edges[0];
  if (span(row.piece) < span(state)) state.edges = row.piece.edges;
  row.scale = scaleOf(counter, row.piece, view);
  // What is of one unit has one scale, so that it can be compared.
  for (const other of state.overlays.get(counter) || []) {
    if (other.unit !== counter.unit || other.unit === "") continue;
    const scale = scaleOf(other, finest(sequence, other, view, width).piece, view);
    row.scale = { bottom: Math.min(row.scale.bottom, scale.bottom), top: Math.max(row.scale.top, scale.top) };
  }
  if (!fitCanvas(row.canvas, width, height)) return;
  const image = pixelsOf(row.canvas);
  drawGrid(image, counter, row.scale);
  drawSeries(image, row.piece, view, row.scale, colorOf(hueName(counter.block)));
  (state.overlays.get(counter) || []).forEach((other, i) => {
    const { piece } = finest(sequence, other, view, width);
    const isAlike = other.unit === counter.unit && other.unit !== "";
    drawSeries(image, piece, view, isAlike ? row.scale : scaleOf(other, piece, view), colorOf(overlayHues[i]), true);
  });
  row.canvas.getContext("2d").putImageData(image, 0, 0);
  row.place = -1;
}

const shown = ({ bottom, top }, factor) => ({ bottom: bottom * factor, top: top * factor });

function writeScale({ counter, scale, height, marks, plot }) {
  const { factor } = shownAs(counter);
  const levels = levelsOfScale(shown(scale, factor), height);
  while (marks.length < levels.length) {
    const mark = element("span", "mark");
    marks.push(mark);
    plot.append(mark);
  }
  marks.forEach((mark, i) => {
    setText(mark, levels[i] ? short(levels[i].value, counter.unit) : "");
    const place = levels[i] ? `${Math.round(levels[i].y)}px` : "";
    if (mark.style.top !== place) mark.style.top = place;
  });
}

// The numbers are those of the selection, or of the view where nothing is selected.
export function writeRows() {
  for (const row of state.visible) {
    const { counter, scale, missing, note, cells, plot } = row;
    if (!scale) continue;  // not drawn yet
    const columns = columnsOf(counter, state.selection || state.view);
    note.hidden = !missing;
    setText(note, missing ? `in steps of ${missing} samples: finer ones did not fit into the page` : "");
    writeScale(row);
    columns.forEach(({ label, value, unit, why }, i) => {
      const cell = cells.columns[i];
      setText(cell.label, label);
      setText(cell.value, short(value, unit ?? counter.unit));
      setAttribute(cell.value, "title", why || "");
    });
    setAttribute(plot, "aria-label", `Chart of ${counter.name}: ` +
      columns.map(({ label }, i) => `${label} ${cells.columns[i].value.textContent}`).join(", "));
  }
}
