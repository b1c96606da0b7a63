// Opens the trace.
import { readAddress, restoreControls, restoreSequence, writeAddress } from "./address.js";
import { drawRows, readColors, writeRows } from "./charts.js";
import { comparison, prepareComparison, restrictControls, tellComparison } from "./compare.js";
import { overviewOf, prepare, trace } from "./data.js";
import { byId, element, overview } from "./dom.js";
import { counted, spanText } from "./format.js";
import { drawFrames, startFrames } from "./frames.js";
import { canUnpack, hasLevel, levelsOf } from "./levels.js";
import { arrange, goToCounter, makeRows, measureHeader, showForPrint, showForScreen } from "./rows.js";
import { writeSelection } from "./selection.js";
import { onPaint, onWrite, paintNow, schedule, state } from "./state.js";
import { drawTimeline, writeTimeline } from "./timeline.js";
import { setView, writeCursor } from "./view.js";

const prefersDark = matchMedia("(prefers-color-scheme: dark)");

function setTheme(isDark) {
  document.documentElement.dataset.theme = isDark ? "dark" : "light";
  byId("theme").textContent = isDark ? "Light" : "Dark";
  byId("theme").setAttribute("aria-label", `${isDark ? "Light" : "Dark"} colours`);
  readColors();
  schedule();
}

function tellProblems() {
  if (trace.problems.length === 0) return;
  const list = element("ul");
  list.append(...trace.problems.map((problem) => element("li", "", problem)));
  byId("problems").append(element("strong", "", "This trace is damaged. What could be read of it is shown."), list);
  byId("problems").hidden = false;
}

function tellLimits() {
  if (canUnpack) return;
  byId("limits").textContent = "This browser can't unpack the samples: it has no DecompressionStream. The charts " +
    "show the steps of the overview, however far one zooms in.";
  byId("limits").hidden = false;
}

// What the counters say of the workload; with a name before it, where there are several. A GPU that is not known has no
// such list.
function tellLimiting(names, sequences) {
  const entries = sequences.flatMap(({ limits }, i) => {
    if (!limits) return [];
    const name = names[i] ? `${names[i]}: ` : "";
    if (limits.length === 0) return [element("li", "", `${name}Nothing stands out.`)];
    return limits.map(({ finding, counter, advice }) => {
      const entry = element("li");
      const go = element("button", "", finding);
      go.type = "button";
      go.addEventListener("click", () => goToCounter(counter));
      entry.append(name, go, ` ${advice}`);
      return entry;
    });
  });
  byId("limiting").hidden = entries.length === 0;
  byId("limiting").querySelector("ul").replaceChildren(...entries);
}

function factsOf(sequence) {
  const facts = [counted(sequence.counters.length, "counter"), counted(sequence.samples, "sample")];
  if (sequence.samples > 1) facts.push(`one every ${spanText(sequence.period)}`);
  facts.push(spanText(sequence.to - sequence.first));
  return facts.join(" · ");
}

const lacksSamples = (counter) => canUnpack && counter.sequence.samplesPerBin > 1 && counter.min !== counter.max &&
  !hasLevel(counter, levelsOf(counter.sequence)[0]);

function openSequence(index, address = new URLSearchParams()) {
  const sequence = comparison ? prepareComparison() : prepare(trace.sequences[index], index);
  state.sequence = sequence;
  state.pinned.clear();
  state.opened.clear();
  state.overlays.clear();
  state.selection = null;
  state.view = { from: sequence.from, to: sequence.to };
  state.edges = sequence.edges;
  state.at = sequence.edges[sequence.edges.length >> 1];
  overview.setAttribute("aria-valuemin", 0);
  overview.setAttribute("aria-valuemax", sequence.edges.length - 2);
  if (comparison) tellComparison(sequence);
  else byId("facts").textContent = factsOf(sequence);
  const lost = sequence.counters.filter((counter) => lacksSamples(counter) || (counter.after && lacksSamples(counter.after))).length;
  if (lost) byId("facts").append(` · the samples of ${counted(lost, "counter")} did not fit into the page`);
  if (comparison) tellLimiting(["Before", "After"], sequence.sides);
  else tellLimiting([], [sequence]);
  restoreSequence(address);
  makeRows();
}

function start() {
  document.title = `${trace.file} – GPU counters`;
  byId("file").textContent = trace.file;
  tellProblems();
  tellLimits();
  const { sequences } = trace;
  sequences.forEach((each, index) => {
    const choice = element("option", "", `${each.number} (${counted(each.counters.length, "counter")})`);
    choice.value = index;
    byId("session").append(choice);
  });
  byId("session-pick").hidden = sequences.length < 2;
  byId("session").addEventListener("change", () => openSequence(Number(byId("session").value)));
  for (const control of document.querySelectorAll("input[name=group]")) control.addEventListener("change", arrange);
  byId("fit").addEventListener("change", schedule);
  document.querySelector(".tools").addEventListener("submit", (event) => event.preventDefault());
  prefersDark.addEventListener("change", () => setTheme(prefersDark.matches));
  byId("theme").addEventListener("click", () => setTheme(document.documentElement.dataset.theme !== "dark"));
  setTheme(prefersDark.matches);

  for (const paint of [drawRows, drawTimeline, drawFrames]) onPaint(paint);
  for (const write of [writeTimeline, writeRows, writeCursor, writeSelection, writeAddress]) onWrite(write);
  const sizes = sequences.map(({ counters }) => counters.length);
  const largest = comparison ? 0 : sizes.indexOf(Math.max(...sizes));
  const address = readAddress();
  const wanted = Number(address.get("sequence") ?? largest);
  const chosen = sequences[wanted] ? wanted : largest;
  state.first = largest;
  restoreControls(address);
  if (comparison) restrictControls();
  byId("session").value = chosen;
  openSequence(chosen, address);
  startFrames();
  addEventListener("hashchange", () => location.reload());  // by hand or by a link: what the page writes itself does not tell
  let theme = "light";
  addEventListener("beforeprint", () => {
    theme = document.documentElement.dataset.theme;
    setTheme(false);  // paper is light
    showForPrint();
    paintNow();
  });
  addEventListener("afterprint", () => {
    setTheme(theme === "dark");
    showForScreen();
  });
  new ResizeObserver(() => {
    measureHeader();
    schedule();
  }).observe(document.body);
}

start();

// For the browser's console, and for measurements.
window.counterfeed = { state, setView, overviewOf };
