// What a counter came to over a span of time.
import { numbers, overviewOf, stepAt } from "./data.js";
import { byId } from "./dom.js";
import { hasLevel, levelsOf, pieceOf } from "./levels.js";

// The samples of a counter whose times lie in a range: count, sum, least and greatest. Steps that are wholly inside count
// as they are; at both ends finer ones are looked at, down to the samples. Where those are not there (yet), a step counts
// if it ends inside, and the result is not exact.
export function sumOf(counter, range) {
  const { sequence } = counter;
  const result = { count: 0, sum: 0, min: Infinity, max: -Infinity, isExact: true };
  const levels = levelsOf(sequence);
  if (counter.min === counter.max) {
    const count = Math.round((Math.min(range.to, sequence.to) - Math.max(range.from, sequence.from)) / sequence.period);
    return count > 0 ? { count, sum: counter.min * count, min: counter.min, max: counter.max, isExact: true } : result;
  }
  const add = ({ mins, means, maxs }, i, count) => {
    if (means[i] !== means[i]) return;
    result.count += count;
    result.sum += means[i] * count;
    if (mins[i] < result.min) result.min = mins[i];
    if (maxs[i] > result.max) result.max = maxs[i];
  };
  const walk = (piece, per, start, depth, from, to) => {
    const { edges, means } = piece;
    const last = Math.min(stepAt(edges, to), means.length - 1);
    for (let i = stepAt(edges, from); i <= last; i += 1) {
      const [begin, end] = [edges[i], edges[i + 1]];
      if (end <= from || begin >= to) continue;
      const count = Math.min(per, sequence.samples - (start + i) * per);
      if ((begin >= from && end <= to) || per === 1) {
        if (end > from && end <= to) add(piece, i, count);
        continue;
      }
      let finer = null;
      let level = depth - 1;
      while (level >= 0 && !hasLevel(counter, levels[level])) level -= 1;
      const inside = { from: Math.max(begin, from), to: Math.min(end, to) };
      if (level >= 0) finer = pieceOf(counter, levels[level], inside);
      if (finer) {
        walk(finer, levels[level].per, finer.first, level, inside.from, inside.to);
      } else {
        result.isExact = false;
        if (end <= to) add(piece, i, count);
      }
    }
  };
  walk(overviewOf(counter), sequence.samplesPerBin, 0, levels.length, range.from, range.to);
  return result;
}

const operations = {
  "+": (a, b) => a + b,
  "-": (a, b) => a - b,
  "*": (a, b) => a * b,
  "/": (a, b) => (b === 0 ? 0 : a / b),
  max: Math.max,
};

// A ratio is its expression over the sums of its operands, which a function gives. The mean of its samples would count idle
// ones as much as busy ones.
function fromOperands(counter, sumFor) {
  const { sequence } = counter;
  const stack = [];
  for (const part of counter.formula) {
    if (typeof part === "number") {
      stack.push(part);
    } else if (part.startsWith("#")) {
      const operand = sequence.counterOf.get(Number(part.slice(1)));
      stack.push(operand ? sumFor(operand) : 0);
    } else {
      const right = stack.pop();
      stack.push(operations[part](stack.pop(), right));
    }
  }
  const value = Math.max(stack.pop(), 0);
  return counter.unit === "percent" ? Math.min(value, 100) : value;
}

// Where the operands are not there, but something to weigh the samples by is: a weight for each step of the overview.
function weighted(counter, range) {
  const { edges, means } = overviewOf(counter);
  counter.weighing ??= numbers(counter.weights, Float64Array);
  let sum = 0;
  let weight = 0;
  const last = stepAt(edges, range.to);
  for (let i = stepAt(edges, range.from); i <= last; i += 1) {
    if (means[i] !== means[i] || !counter.weighing[i]) continue;
    const inside = Math.min(edges[i + 1], range.to) - Math.max(edges[i], range.from);
    const part = counter.weighing[i] * Math.max(inside, 0) / (edges[i + 1] - edges[i]);
    sum += means[i] * part;
    weight += part;
  }
  return weight ? sum / weight : 0;
}

// Least, mean and greatest value in a range of time; for a derived counter whose operands are there the mean is what it
// came to over the whole range. The sum is that of the samples.
export function statistics(counter, range) {
  const { sequence } = counter;
  if (range.from <= sequence.from && range.to >= sequence.to) {
    const { min, max, mean, value = mean, total = mean * counter.count } = counter;
    return { min, mean: value, max, sum: total, count: counter.count, isExact: true };
  }
  const { min, max, sum, count, isExact } = sumOf(counter, range);
  if (count === 0) return { min: NaN, mean: NaN, max: NaN, sum: NaN, count, isExact };
  let mean = sum / count;
  if (counter.formula && counter.kind !== "amount") mean = fromOperands(counter, (operand) => sumOf(operand, range).sum);
  else if (counter.weights) mean = weighted(counter, range);
  return { min, mean, max, sum, count, isExact };
}

// ---- Percentiles ----

const shares = { p50: 0.5, p95: 0.95, p99: 0.99 };
const mostSamples = 1 << 18;  // sorted in some tens of milliseconds

// Of the samples in a range of time: the least value that so many of them do not exceed. Null where the samples are not
// there, or are too many.
function percentiles(counter, range) {
  const { sequence } = counter;
  const isWhole = range.from <= sequence.from && range.to >= sequence.to;
  if (isWhole && counter.p50 !== undefined) return counter;
  const key = `${range.from}~${range.to}`;
  if (counter.percentiles?.key === key) return counter.percentiles;
  if (counter.min === counter.max) return { p50: counter.min, p95: counter.min, p99: counter.min };
  if (sequence.samples * (range.to - range.from) / (sequence.to - sequence.from) > mostSamples) return null;
  const [samples] = levelsOf(sequence);
  if (samples && !hasLevel(counter, samples)) return null;
  const piece = samples ? pieceOf(counter, samples, range) : overviewOf(counter);
  if (!piece) return { isLoading: true };
  const { edges, means } = piece;
  const inside = means.filter((value, i) => value === value && edges[i + 1] > range.from && edges[i + 1] <= range.to).sort();
  const result = { key };
  for (const [name, share] of Object.entries(shares)) {
    result[name] = inside.length ? inside[Math.ceil(share * inside.length) - 1] : NaN;
  }
  counter.percentiles = result;
  return result;
}

// ---- What the columns show ----

const isAmount = ({ kind, unit }) => (kind === undefined ? unit !== "percent" : kind === "amount");

// What values of samples are multiplied by, and the unit that they then have: amounts can be shown per second.
export function shownAs(counter) {
  const isRate = isAmount(counter) && byId("amounts").value === "second";
  return { factor: isRate ? 1 / counter.sequence.period : 1, unit: isRate ? `${counter.unit}/s` : counter.unit };
}

// The same unit in words.
export function unitText(counter) {
  const { unit } = shownAs(counter);
  return unit === "/s" ? "per second" : unit;
}

export function columnsOf(counter, range) {
  const { factor, unit } = shownAs(counter);
  if (byId("columns").value === "percentiles") {
    const values = percentiles(counter, range);
    const why = values ? "" : "The samples of this range are not in the page, or too many to sort.";
    return Object.keys(shares).map((name) => ({ label: name, value: values?.[name] * factor, unit, why }));
  }
  const { min, mean, max, sum } = statistics(counter, range);
  const isTotal = isAmount(counter) && byId("amounts").value === "total";
  const middle = isTotal ? { label: "Total", value: sum } : { label: "Mean", value: mean * factor };
  return [{ label: "Min", value: min * factor, unit }, { ...middle, unit }, { label: "Max", value: max * factor, unit }];
}
