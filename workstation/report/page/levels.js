// The levels of detail: the samples, and steps of ever more of them. The overview is the coarsest. The others are packed,
// each counter's in runs of steps, and are unpacked when they are looked at. A piece of one is made of whole runs.
import { overviewOf, numbers, stepAt, trace } from "./data.js";
import { byId } from "./dom.js";
import { schedule } from "./state.js";

export const canUnpack = !trace.levels?.packed || typeof DecompressionStream === "function";

// ---- Runs ----

const lines = new Map();  // of an element, by its id
function linesOf(id) {
  if (!lines.has(id)) lines.set(id, byId(id)?.textContent.trimEnd().split("\n") ?? null);
  return canUnpack ? lines.get(id) : null;
}

async function inflate(bytes) {
  if (!trace.levels.packed) return bytes;
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("deflate"));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

// The first bytes of all numbers come first, then their second ones, and so on.
function unshuffle(bytes, Type) {
  const size = Type.BYTES_PER_ELEMENT;
  const count = bytes.length / size;
  const result = new Uint8Array(bytes.length);
  for (let part = 0; part < size; part += 1) {
    for (let i = 0, from = part * count, to = part; i < count; i += 1, to += size) result[to] = bytes[from + i];
  }
  return new Type(result.buffer);
}

function numbersOf(bytes) {
  const kind = String.fromCharCode(bytes[0]);
  const rest = bytes.subarray(1);
  if (kind !== "i") return unshuffle(rest, kind === "f" ? Float32Array : Float64Array);
  const least = -(2 ** 31);  // stands for no number
  return Float64Array.from(unshuffle(rest, Int32Array), (value) => (value === least ? NaN : value));
}

// Those used last; the others are unpacked again when they are wanted.
const cacheSize = 96e6;
const runs = new Map();
let cached = 0;

// The numbers of a run, or null: then everything is painted again when they are there.
function runAt(id, index) {
  const key = `${id}:${index}`;
  const known = runs.get(key);
  if (known !== undefined) {
    if (known) {
      runs.delete(key);
      runs.set(key, known);
    }
    return known;
  }
  runs.set(key, null);
  inflate(numbers(linesOf(id)[index], Uint8Array)).then((bytes) => {
    const values = numbersOf(bytes);
    runs.set(key, values);
    cached += values.byteLength;
    for (const [oldest, old] of runs) {
      if (cached <= cacheSize) break;
      if (!old || oldest === key) continue;
      runs.delete(oldest);
      cached -= old.byteLength;
    }
    schedule();
  });
  return null;
}

function runsAt(id, first, last) {
  const result = [];
  for (let i = first; i <= last; i += 1) result.push(runAt(id, i));
  return result.includes(null) ? null : result;
}

// ---- Pieces ----

// The levels of a sequence, finest first. The overview is not among them.
export function levelsOf(sequence) {
  if (!sequence.levels) {
    sequence.levels = [];
    for (let per = 1; per < sequence.samplesPerBin; per *= trace.levels.steps) {
      sequence.levels.push({
        index: sequence.levels.length, per, run: per === 1 ? trace.levels.samplesInRun : trace.levels.stepsInRun,
        count: Math.ceil(sequence.samples / per), times: `level-${sequence.index}-t-${sequence.levels.length}`,
      });
    }
  }
  return sequence.levels;
}

function concatenate(parts, Type) {
  const result = new Type(parts.reduce((sum, part) => sum + part.length, 0));
  let at = 0;
  for (const part of parts) {
    result.set(part, at);
    at += part.length;
  }
  return result;
}

// The edges of the steps of some runs.
function edgesOf(sequence, level, first, last) {
  const key = `${first}-${last}`;
  if (level.edges?.key === key) return level.edges.values;
  const parts = runsAt(level.times, first, last);
  if (!parts) return null;
  const values = new Float64Array(parts.reduce((sum, part) => sum + part.length - 1, 1));
  let at = 0;
  for (const part of parts) {
    let time = part[0];
    values[at] = time / 1e9;
    for (let i = 1; i < part.length; i += 1) values[at + i] = (time += part[i]) / 1e9;
    at += part.length - 1;
  }
  if (first === 0) values[0] = sequence.from;
  level.edges = { key, values };
  return values;
}

// The runs of a level that hold a range of time, and the edges of their steps; null while they are not unpacked. The
// place of a time is found level by level: a trace can have millions of samples.
function findRuns(sequence, level, range) {
  const levels = levelsOf(sequence);
  let from = stepAt(sequence.edges, range.from) * sequence.samplesPerBin;
  let to = (stepAt(sequence.edges, range.to) + 1) * sequence.samplesPerBin;
  for (let i = levels.length - 1; i >= level.index; i -= 1) {
    const { per, run, count, times } = levels[i];
    if (!linesOf(times)) return null;
    const first = Math.floor(from / per / run);
    const last = Math.floor((Math.min(Math.ceil(to / per), count) - 1) / run);
    if (last - first < 1 && i > level.index) continue;  // nothing to gain
    const edges = edgesOf(sequence, levels[i], first, last);
    if (!edges) return null;
    if (i === level.index) return { first, last, edges };
    const start = first * run;
    from = (start + stepAt(edges, range.from)) * per;
    to = (start + stepAt(edges, range.to) + 1) * per;
  }
  return null;
}

const idOf = ({ sequence, index }, level) => `level-${sequence.index}-${index}-${level.index}`;
export const hasLevel = (counter, level) => linesOf(idOf(counter, level)) !== null;

// A counter's steps of one level around a range of time; null while they are not unpacked.
export function pieceOf(counter, level, range) {
  const found = findRuns(counter.sequence, level, range);
  if (!found) return null;
  const { first, last, edges } = found;
  const key = `${level.index}:${first}-${last}`;
  counter.pieces = counter.pieces || new Map();
  if (counter.pieces.has(key)) return counter.pieces.get(key);
  const parts = runsAt(idOf(counter, level), first, last);
  if (!parts) return null;
  const piece = { edges, per: level.per, first: first * level.run };
  if (level.per === 1) {
    piece.mins = piece.means = piece.maxs = concatenate(parts, Float64Array);
  } else {
    for (const [name, place] of [["mins", 0], ["maxs", 1], ["means", 2]]) {
      const third = (part) => part.subarray(part.length / 3 * place, part.length / 3 * (place + 1));
      piece[name] = concatenate(parts.map(third), Float32Array);
    }
  }
  if (counter.pieces.size >= 6) counter.pieces.delete(counter.pieces.keys().next().value);
  counter.pieces.set(key, piece);
  return piece;
}

// What to draw of a counter: steps about as fine as the columns of pixels, as far as they are unpacked. With what is
// missing, if finer ones did not fit into the page: how many samples a step has at the least.
export function finest(counter, range, width) {
  const { sequence } = counter;
  const isConstant = counter.min === counter.max;
  const steps = sequence.samples * (range.to - range.from) / (sequence.to - sequence.from);
  const enough = width * 0.75;
  const piece = overviewOf(counter);
  let missing = 0;
  if (isConstant || steps / sequence.samplesPerBin >= enough) return { piece, missing };
  const levels = levelsOf(sequence);
  let wanted = levels.findLastIndex(({ per }) => steps / per >= enough);
  wanted = Math.max(wanted, 0);
  for (let i = wanted; i < levels.length; i += 1) {
    if (!hasLevel(counter, levels[i])) {
      missing = i + 1 < levels.length ? levels[i + 1].per : sequence.samplesPerBin;
      continue;
    }
    const found = pieceOf(counter, levels[i], range);
    if (found) return { piece: found, missing };
  }
  return { piece, missing };
}
