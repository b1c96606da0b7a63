// What a counter came to over a span of time.
import { overviewOf, stepAt } from "./data.js";
import { state } from "./state.js";

// Least, mean and greatest value in a range of time. A step that the range only touches does not count.
export function statistics(counter, range) {
  const { sequence } = state;
  if (range.from <= sequence.from && range.to >= sequence.to) return counter;
  const { edges, means, mins, maxs } = overviewOf(sequence, counter);
  let first = stepAt(edges, range.from);
  const last = stepAt(edges, range.to);
  if (first < last && edges[first + 1] <= range.from) first += 1;
  let min = Infinity;
  let max = -Infinity;
  let sum = 0;
  let count = 0;
  for (let i = first; i <= last; i += 1) {
    if (!Number.isNaN(means[i])) {
      min = Math.min(min, mins[i]);
      max = Math.max(max, maxs[i]);
      sum += means[i];
      count += 1;
    }
  }
  return count ? { min, mean: sum / count, max } : { min: NaN, mean: NaN, max: NaN };
}
