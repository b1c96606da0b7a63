// What a step of zooming costs: the page that counterfeed-report writes beside uPlot with as many charts of the same
// size and numbers. CPU time is that of all processes of the browser.
//
//   node zoom.mjs PAGE UPLOT    a page whose trace has 14 counters or more; uPlot's folder of npm's package
import { readFileSync, readdirSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { pathToFileURL } from "node:url";
import { startBrowser } from "../../tests/workstation/report/page/browser.mjs";

const [, , pageFile, uplotFolder] = process.argv;
const charts = 14;
const steps = 60;
const height = 66 * charts + 140;
const size = { width: 1280, height };

const other = join(tmpdir(), `uplot-${process.pid}.html`);
writeFileSync(other, `<!doctype html><meta charset="utf-8"><style>body { margin: 0; } ${
  readFileSync(join(uplotFolder, "dist/uPlot.min.css"))}</style><body><script>${
  readFileSync(join(uplotFolder, "dist/uPlot.iife.min.js"), "utf8")}</script><script>
  window.show = (times, all, height, hasAxes) => {
    window.plots = all.map((values) => new uPlot({
      width: 570 + 40 * hasAxes, height: height + 20 * hasAxes, legend: { show: false }, cursor: { show: false },
      scales: { x: { time: false } }, axes: [{ show: hasAxes, size: 20 }, { show: hasAxes, size: 40 }],
      series: [{}, { stroke: "#1b69c9", fill: "#1b69c933", width: 1 }],
    }, [times, values], document.body));
  };
</script>`);

// Of a process and all that it started, in milliseconds.
function cpuTime(root) {
  const processes = readdirSync("/proc").filter((name) => /^\d+$/.test(name)).flatMap((name) => {
    try {
      const fields = readFileSync(`/proc/${name}/stat`, "utf8").replace(/^.*\) /, "").split(" ");
      return [{ id: Number(name), parent: Number(fields[1]), time: (Number(fields[11]) + Number(fields[12])) * 10 }];
    } catch {
      return [];
    }
  });
  const family = new Set([root]);
  for (let size = 0; size !== family.size;) {
    size = family.size;
    for (const { id, parent } of processes) if (family.has(parent)) family.add(id);
  }
  return processes.filter(({ id }) => family.has(id)).reduce((sum, { time }) => sum + time, 0);
}

const zoomed = `const center = from + (to - from) * 0.4, part = (step) => 1 - 0.95 * Math.abs(Math.sin(step / 9));
  const range = (step) => [center - (center - from) * part(step), center + (to - center) * part(step)];
  const frame = () => new Promise((done) => requestAnimationFrame(() => setTimeout(done)));`;
const loops = {
  page: `(async () => {
    const { state, setView } = window.counterfeed; const { from, to } = state.sequence; ${zoomed}
    for (let step = 0; step < ${steps}; step += 1) { setView(...range(step)); await frame(); }
    return state.visible.size; })()`,
  uPlot: `(async () => {
    const { min: from, max: to } = window.plots[0].scales.x; ${zoomed}
    for (let step = 0; step < ${steps}; step += 1) {
      const [min, max] = range(step);
      for (const plot of window.plots) plot.setScale("x", { min, max });
      await frame();
    }
    return window.plots.length; })()`,
};

const browser = await startBrowser(process.env.BROWSER || "chromium");
const page = await browser.open(pathToFileURL(pageFile).href, size);
await page.settle();
const data = await page.evaluate(`(() => {
  const { state, overviewOf } = window.counterfeed;
  const pieces = [...state.visible].map(({ counter }) => overviewOf(counter));
  return [[...pieces[0].edges.slice(1)], pieces.map(({ means }) => [...means])]; })()`);
await page.evaluate(`for (const row of [...window.counterfeed.state.visible].slice(${charts})) row.article.hidden = true`);
const tabs = { page };
for (const [name, hasAxes] of [["uPlot with its axes", true], ["uPlot's lines alone", false]]) {
  tabs[name] = await browser.open(pathToFileURL(other).href, size);
  await tabs[name].evaluate(`show(${JSON.stringify(data[0])}, ${JSON.stringify(data[1].slice(0, charts))}, 54, ${hasAxes})`);
}
const results = Object.fromEntries(Object.keys(tabs).map((name) => [name, []]));
for (let round = 0; round < 6; round += 1) {
  for (const [name, tab] of Object.entries(tabs)) {
    await tab.call("Page.bringToFront");
    await tab.settle();
    const before = cpuTime(browser.pid);
    const count = await tab.evaluate(loops[name === "page" ? "page" : "uPlot"]);
    const time = (cpuTime(browser.pid) - before) / steps;
    if (round > 0) results[name].push(time);  // the first warms up
    else console.log(`${name}: ${count} charts of ${data[0].length} points`);
  }
}
for (const [name, times] of Object.entries(results)) {
  times.sort((a, b) => a - b);
  console.log(`${name}: ${times[times.length >> 1].toFixed(1)} ms of CPU time a step (${times[0].toFixed(1)} to ${times.at(-1).toFixed(1)})`);
}
await browser.close();
rmSync(other);
