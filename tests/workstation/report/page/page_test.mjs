// The page that counterfeed-report writes, in a real browser: node page_test.mjs
//
// COUNTERFEED_REPORT names the program, BROWSER the browser, and AXE the script of axe-core.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { pathToFileURL } from "node:url";
import { startBrowser } from "./browser.mjs";
import { counterTrace } from "./trace.mjs";

const folder = mkdtempSync(join(tmpdir(), "counterfeed-page-"));
let browser;

before(async () => {
  browser = await startBrowser(process.env.BROWSER);
});
after(async () => {
  await browser?.close();
  rmSync(folder, { recursive: true, force: true });
});

function write(name, trace, options = []) {
  writeFileSync(join(folder, `${name}.trace`), trace);
  execFileSync(process.env.COUNTERFEED_REPORT, ["--html", ...options, "-o", join(folder, `${name}.html`), join(folder, `${name}.trace`)]);
  return pathToFileURL(join(folder, `${name}.html`)).href;
}

// 150 counters, so that most are not on the screen: "ramp" has the number of the sample as its value.
const counters = [
  { id: 4, name: "Ramp", unit: "byte", value: (i) => i, description: "Rises. Hardware name: RAMP_UP." },
  { id: 65, name: "Wave <b>", unit: "percent", value: (i) => 50 + 50 * Math.sin(i / 7) },
  { id: 66, name: "Nothing at all", value: () => 0, selected: false },
];
for (let id = 200; id < 347; id += 1) counters.push({ id, name: `Filler ${id}`, selected: id < 250, value: (i) => (i * id) % 1000 });
const short = write("short", counterTrace({ counters, samples: 301 }));

async function openClean(url, settings) {
  const page = await browser.open(url, settings);
  await page.settle();
  assert.deepEqual(page.errors, []);
  assert.deepEqual(page.requests, [url]);
  return page;
}

const rowNamed = (name) => `[...document.querySelectorAll(".row")].find((row) => row.row.counter.name === ${JSON.stringify(name)})`;
const cursorValue = (page, name) => page.evaluate(`${rowNamed(name)}.row.cells.at.textContent`);
// Whether anything was painted into a chart besides grid lines: pixels of more than a few colours.
const colorsIn = (page, name) => page.evaluate(`(() => {
  const { canvas } = ${rowNamed(name)}.row;
  const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
  return new Set(new Uint32Array(data.buffer)).size;
})()`);

for (const [kind, settings] of Object.entries({
  "a desktop": {}, "a dark desktop": { isDark: true }, "a phone": { width: 390, height: 844, isPhone: true },
  "a dark phone": { width: 390, height: 844, isPhone: true, isDark: true },
})) {
  test(`on ${kind} it opens without an error, shows charts, and is accessible`, async () => {
    const page = await openClean(short, settings);
    assert.equal(await page.text("#file"), "short.trace");
    assert.equal(await page.evaluate("document.querySelectorAll('.row').length"), counters.length);
    assert.ok(await colorsIn(page, "Wave <b>") > 4);
    assert.ok(await page.evaluate("document.documentElement.scrollWidth <= innerWidth"), "wider than the screen");
    await page.click("article .what");
    await page.evaluate(readFileSync(process.env.AXE, "utf8"));
    for (const place of ["page", "keys"]) {
      const findings = await page.evaluate(`axe.run().then(({ violations }) => violations.map(
        ({ id, help, nodes }) => id + ": " + help + ": " + nodes.slice(0, 3).map(({ target }) => target.join(" ")).join(", ")))`);
      assert.deepEqual(findings, [], place);
      await page.click("#help");
    }
    await page.close();
  });
}

test("search shows what fits, and leaves the rows as they are", async () => {
  const page = await openClean(short);
  await page.press("/");
  assert.equal(await page.evaluate("document.activeElement.id"), "search");
  await page.evaluate("new MutationObserver((all) => { window.changed = (window.changed || 0) + all.length; })" +
    ".observe(document.getElementById('counters'), { childList: true, subtree: true, attributeFilter: ['class'] })");
  const shown = () => page.evaluate("[...document.querySelectorAll('.row')].filter((row) => row.offsetHeight).map((row) => row.row.counter.name)");
  await page.call("Input.insertText", { text: "ramp_up" });
  await page.settle();
  assert.deepEqual(await shown(), ["Ramp"]);
  assert.match(await page.text("#found"), /^1 of 150 counters$/);
  await page.press("ArrowDown");
  assert.equal(await page.evaluate("document.activeElement.row.counter.name"), "Ramp");
  await page.press("/");
  await page.call("Input.insertText", { text: "no such" });
  await page.settle();
  assert.deepEqual(await shown(), []);
  assert.ok(await page.evaluate("document.querySelector('.nothing').offsetHeight > 0"));
  await page.press("Escape");
  assert.equal((await shown()).length, 150);
  assert.ok(await page.evaluate("(window.changed || 0) < 60"), "rows were made again");
  await page.evaluate("document.getElementById('show').value = 'changing'; document.getElementById('show').dispatchEvent(new Event('change'))");
  assert.ok(!(await shown()).includes("Nothing at all"));
  await page.close();
});

test("keys move the cursor, the view and the focus, and values are those of the samples", async () => {
  const page = await openClean(short);
  const cursor = () => cursorValue(page, "Ramp");
  await page.press("Home");
  assert.equal(await cursor(), "0");
  await page.press("ArrowRight");
  assert.equal(await cursor(), "1");
  await page.press("ArrowRight", 8);
  assert.equal(await cursor(), "11");
  await page.press("End");
  assert.equal(await cursor(), "300");
  assert.equal(await page.text("#at"), "0.3000 s");
  const span = () => page.evaluate("document.getElementById('view').textContent.match(/\\((.*)\\)/)[1]");
  const whole = await span();
  for (const key of ["w", "w", "a"]) await page.press(key);
  assert.notEqual(await span(), whole);
  await page.press("0");
  assert.equal(await span(), whole);
  await page.press("ArrowDown");
  await page.press("ArrowDown");
  await page.press("Enter");
  assert.match(await page.evaluate("document.activeElement.querySelector('.text').textContent"), /What it counts|Rises/);
  const name = await page.evaluate("document.activeElement.row.counter.name");
  await page.press("p");
  assert.equal(await page.evaluate("document.querySelector('h2').textContent.trim()"), "Pinned 1");
  assert.equal(await page.evaluate("document.querySelector('.row').row.counter.name"), name);
  assert.equal(await page.evaluate("document.activeElement.closest('.row').row.counter.name"), name);
  await page.press("?");
  assert.ok(await page.evaluate("document.getElementById('keys').open"));
  await page.press("ArrowRight");
  assert.equal(await cursor(), "300");
  await page.close();
});

test("mouse and fingers zoom", async () => {
  const page = await openClean(short);
  const plot = await page.box(".plot");
  const span = () => page.evaluate("parseFloat(document.getElementById('window').style.width)");
  await page.call("Input.dispatchMouseEvent", { type: "mouseWheel", x: plot.x, y: plot.y, deltaX: 0, deltaY: -200, modifiers: 2 });
  await page.settle();
  const afterWheel = await span();
  assert.ok(afterWheel < 60, `${afterWheel}`);
  await page.mouse("mousePressed", plot.x, plot.y);
  await page.mouse("mouseReleased", plot.x, plot.y);
  await page.mouse("mousePressed", plot.x, plot.y, { clickCount: 2 });
  await page.mouse("mouseReleased", plot.x, plot.y, { clickCount: 2 });
  await page.settle();
  assert.equal(await span(), 100);
  await page.close();

  const phone = await openClean(short, { width: 390, height: 844, isPhone: true });
  const chart = await phone.box(".plot");
  const points = (apart) => [[chart.x - apart, chart.y], [chart.x + apart, chart.y]];
  await phone.touch("touchStart", points(30));
  for (const apart of [40, 60, 90]) await phone.touch("touchMove", points(apart));
  await phone.touch("touchEnd", []);
  await phone.settle();
  assert.ok(await phone.evaluate("parseFloat(document.getElementById('window').style.width) < 50"));
  await phone.close();
});
