// What is shown stands in the page's address: a reload keeps it, and so does a link that is mailed.
import { trace } from "./data.js";
import { byId, search } from "./dom.js";
import { state } from "./state.js";

const texts = { q: search, show: byId("show"), columns: byId("columns"), amounts: byId("amounts"), layer: byId("layer") };

export function readAddress() {
  return new URLSearchParams(location.hash.slice(1));
}

const range = (text) => {
  const [from, to] = (text || "").split("~").map(Number);
  return to > from ? { from, to } : null;
};

let usualGroup = "block";

// The controls, before the rows are made.
export function restoreControls(address) {
  for (const [name, control] of Object.entries(texts)) {
    if (address.has(name)) control.value = address.get(name);
    else if (name === "amounts" && trace.amounts) control.value = trace.amounts;
    if (control.selectedIndex === -1) control.selectedIndex = 0;
  }
  byId("fit").checked = address.has("fit");
  usualGroup = trace.comparison ? "change" : "block";
  const groups = trace.comparison ? ["change", "block", "unit"] : ["block", "unit"];
  const group = groups.includes(address.get("group")) ? address.get("group") : usualGroup;
  document.querySelector(`input[name=group][value=${group}]`).checked = true;
}

// What belongs to a sequence, before its rows are made.
export function restoreSequence(address) {
  const { sequence } = state;
  const counters = (name) => (address.get(name) || "").split(",").flatMap((id) => sequence.counterOf.get(Number(id)) ?? []);
  state.pinned = new Set(counters("pin"));
  for (const text of address.getAll("over")) {
    const [host, ...others] = text.split(",").flatMap((id) => sequence.counterOf.get(Number(id)) ?? []);
    if (others.length) state.overlays.set(host, others);
  }
  const view = range(address.get("view"));
  if (view && view.from < sequence.to && view.to > sequence.from) {
    state.view = { from: Math.max(view.from, sequence.from), to: Math.min(view.to, sequence.to) };
  }
  state.selection = range(address.get("selection"));
  const at = Number(address.get("at"));
  if (address.has("at") && at >= sequence.from && at <= sequence.to) state.at = at;
}

let waiting = 0;
export function writeAddress() {
  clearTimeout(waiting);
  waiting = setTimeout(() => {
    const { sequence, view, selection } = state;
    const address = new URLSearchParams();
    const second = (time) => String(Number(time.toFixed(9)));
    const rangeText = ({ from, to }) => `${second(from)}~${second(to)}`;
    for (const [name, control] of Object.entries(texts)) {
      const usual = name === "amounts" && trace.amounts || (control.options?.[0]?.value ?? "");
      if (control.value !== usual) address.set(name, control.value);
    }
    if (byId("fit").checked) address.set("fit", "");
    const group = document.querySelector("input[name=group]:checked").value;
    if (group !== usualGroup) address.set("group", group);
    if (sequence.index !== state.first) address.set("sequence", sequence.index);
    if (state.pinned.size) address.set("pin", [...state.pinned].map(({ id }) => id).join());
    for (const [host, others] of state.overlays) address.append("over", [host, ...others].map(({ id }) => id).join());
    if (view.from > sequence.from || view.to < sequence.to) address.set("view", rangeText(view));
    if (selection) address.set("selection", rangeText(selection));
    address.set("at", second(state.at));
    history.replaceState(null, "", `#${address}`);
  }, 300);
}
