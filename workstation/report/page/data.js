// The numbers of a trace as the page carries them. A piece is a run of steps of one counter: edges[i] to edges[i + 1] is
// the time that step i covers, for a sample counts what happened before it; mins, means and maxs have its values.
import { byId } from "./dom.js";

export const trace = JSON.parse(byId("trace").textContent);

// The numbers that a text holds in base64.
export function numbers(text, Type) {
  const bytes = Uint8Array.from(atob(text), (c) => c.charCodeAt(0));
  return new Type(bytes.buffer);
}

export function prepare(sequence, index) {
  const times = numbers(sequence.times, Float64Array);
  const last = times[times.length - 1];
  const period = sequence.samples > 1 ? (last - sequence.first) / (sequence.samples - 1) : 0.001;
  const edges = new Float64Array(times.length + 1);
  edges[0] = sequence.first - period;
  edges.set(times, 1);
  sequence.counters.forEach((counter, place) => Object.assign(counter, { index: place }));
  const counters = sequence.counters.filter((counter) => counter.count > 0);
  for (const counter of counters) {
    const hardware = /Hardware name: (\w+)\./.exec(counter.description);
    counter.hardware = hardware ? hardware[1] : "";
    counter.haystack = `${counter.name} ${counter.description} ${counter.id} ${counter.unit}`.toLowerCase();
  }
  const counterOf = new Map(counters.map((counter) => [counter.id, counter]));
  const result = { ...sequence, index, edges, period, counters, counterOf, from: edges[0], to: last };
  for (const counter of counters) counter.sequence = result;
  return result;
}

// A counter's whole time in the steps that are always at hand. They are unpacked when they are first asked for.
export function overviewOf(counter) {
  if (!counter.overview) {
    const means = numbers(counter.means, Float32Array);
    counter.overview = {
      edges: counter.sequence.edges,
      means,
      mins: counter.mins ? numbers(counter.mins, Float32Array) : means,
      maxs: counter.maxs ? numbers(counter.maxs, Float32Array) : means,
    };
  }
  return counter.overview;
}

// The first index whose element is not below the value.
export function lowerBound(sorted, value) {
  let low = 0;
  let high = sorted.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (sorted[middle] < value) low = middle + 1;
    else high = middle;
  }
  return low;
}

// The step that covers a time, or the one nearest to it.
export function stepAt(edges, time) {
  return Math.min(Math.max(lowerBound(edges, time) - 1, 0), edges.length - 2);
}
