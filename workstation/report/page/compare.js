// Two traces side by side: each chart has both, and the numbers say what changed.
import { shownAs, statistics } from "./aggregates.js";
import { prepare, trace } from "./data.js";
import { byId, element, setText } from "./dom.js";
import { counted, short, spanText } from "./format.js";
import { state } from "./state.js";

export const comparison = trace.comparison || null;
export const sideHues = { before: "--before", after: "--after" };

// One sequence of the counters that both sides have: counters of the first side, each with the one of the other side as
// "after", and as "change" what the comparison of the whole traces says. Times run from each trace's first sample.
export function prepareComparison() {
  const [before, after] = trace.sequences.map(prepare);
  const counters = comparison.counters.flatMap((change) => {
    const counter = before.counterOf.get(change.beforeId);
    const other = after.counterOf.get(change.afterId);
    return counter && other ? [Object.assign(counter, { after: other, change })] : [];
  });
  const longer = after.to > before.to ? after : before;
  const counterOf = new Map(counters.map((counter) => [counter.id, counter]));
  return { ...longer, index: 0, counters, counterOf, from: Math.min(before.from, after.from), sides: [before, after] };
}

export function verdictOf({ changed, p }) {
  return changed ? "more than chance" : p === null ? "too short to tell" : "may be chance";
}

const shortVerdicts = { "more than chance": "changed", "may be chance": "chance?", "too short to tell": "too short" };

function percentOf(before, after) {
  if (before === 0 && after === 0) return 0;
  return (after - before) / Math.abs(before) * 100;
}

function changeText(percent) {
  if (Number.isNaN(percent)) return "–";
  if (!Number.isFinite(percent)) return "new";
  return `${percent > 0 ? "+" : percent < 0 ? "−" : ""}${Number(Math.abs(percent).toPrecision(3))} %`;
}

// What both sides came to over a range of time. Whether a change is more than chance is known of the whole traces.
export function changeColumns(counter, range) {
  const { sequence } = state;
  const { change, after } = counter;
  const isWhole = range.from <= sequence.from && range.to >= sequence.to;
  const valueOf = (of) => statistics(of, range).mean * shownAs(of).factor;
  const values = isWhole ? [change.before, change.after] : [valueOf(counter), valueOf(after)];
  const text = changeText(percentOf(...values));
  return [
    { label: "Before", value: values[0] },
    { label: "After", value: values[1] },
    { label: "Change", text: isWhole ? `${text}\n${shortVerdicts[verdictOf(change)]}` : text, isStrong: isWhole && change.changed },
  ];
}

// In words, for a counter's description.
export function changeSentence({ change }) {
  const { before, after, low, high, p, unit, kind } = change;
  const value = (number) => `${short(number, kind === "amount" ? "" : unit)}${unit && unit !== "percent" ? ` ${unit}` : ""}`;
  const size = changeText(percentOf(before, after));
  const parts = [`From ${value(before)} to ${value(after)}: ${size}, ${verdictOf(change)}.`];
  if (low !== null && before) {
    const ends = [low, high].map((end) => changeText(end / Math.abs(before) * 100));
    parts.push(`With a probability of 95 % the change lies between ${ends.join(" and ")};`,
      `chance alone makes one as large with a probability of ${p < 0.001 ? "less than 0.001" : Number(p.toPrecision(2))}.`);
  }
  return parts.join(" ");
}

function nameList(title, names) {
  const details = element("details");
  details.append(element("summary", "", `${title}: ${counted(names.length, "counter")}`), element("p", "", names.join(", ")));
  return details;
}

// What the head of the page says of the two sides, and what could not be compared.
export function tellComparison({ sides, counters }) {
  const names = [comparison.before, comparison.after];
  ["before", "after"].forEach((side, i) => {
    const { samples, period, first, to, file } = sides[i];
    const more = names[i].length > 1 ? `, the first of ${names[i].length} recordings; the numbers are of all` : "";
    const facts = `${counted(samples, "sample")}, one every ${spanText(period)}, ${spanText(to - first)}${more}`;
    const entry = element("span", `side ${side}`);
    const title = element("strong", "", i ? "After" : "Before");
    entry.append(element("i"), title, ` ${file ?? names[i][0]} `, element("small", "", facts));
    byId("sides").append(entry);
  });
  byId("sides").hidden = false;
  const changed = counters.filter(({ change }) => change.changed).length;
  setText(byId("facts"), `${counted(changed, "counter")} of ${counters.length} changed by more than chance ` +
    `(at a level of ${comparison.level * 100} % over all)`);
  const { failed, onlyBefore, onlyAfter } = comparison;
  if (failed.length) {
    const list = element("ul");
    list.append(...failed.map((text) => element("li", "", text)));
    byId("failed").append(element("strong", "", "Limits that do not hold"), list);
    byId("failed").hidden = false;
  }
  if (onlyBefore.length) byId("alone").append(nameList("Only before", onlyBefore));
  if (onlyAfter.length) byId("alone").append(nameList("Only after", onlyAfter));
  byId("alone").hidden = onlyBefore.length + onlyAfter.length === 0;
}

// Amounts are compared per second, for periods may differ.
export function restrictControls() {
  document.documentElement.classList.add("comparison");
  byId("amounts").value = "second";
  for (const id of ["amounts", "columns", "session"]) byId(id).closest(".pick").hidden = true;
  byId("by-change").hidden = false;
  byId("show").querySelector("[value=changing]").textContent = "those that changed";
}
