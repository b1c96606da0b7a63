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
import { counterTrace, frameTrace } from "./trace.mjs";

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
  execFileSync(process.env.COUNTERFEED_REPORT, ["--html", "--amounts=sample", ...options, "-o", join(folder, `${name}.html`), join(folder, `${name}.trace`)]);
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

const long = write("long", counterTrace({ counters: counters.slice(0, 20), samples: 20000 }));

async function openClean(url, settings) {
  const page = await browser.open(url, settings);
  await page.settle();
  assert.deepEqual(page.errors, []);
  assert.deepEqual(page.requests, [url.replace(/#.*/, "")]);
  return page;
}

const rowNamed = (name) => `[...document.querySelectorAll(".row")].find((row) => row.row.counter.name === ${JSON.stringify(name)})`;
const numbers = (page, name) => page.evaluate(`${rowNamed(name)}.row.cells.columns.map(({ label, value }) => label.textContent + " " + value.textContent)`);
const until = (page, name, expected) => page.until(`${rowNamed(name)}.row.cells.columns.map(({ value }) => value.textContent).join("|") === ${JSON.stringify(expected)}`);
const cursorValue = (page, name) => page.evaluate(`${rowNamed(name)}.row.cells.at.textContent`);
// The part of the time that is in view, in per cent.
const shareInView = `(({ sequence, view }) => (view.to - view.from) / (sequence.to - sequence.from) * 100)(window.counterfeed.state)`;
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
  assert.equal(await page.evaluate("document.querySelector('main h2').textContent.trim()"), "Pinned 1");
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
  const span = () => page.evaluate(shareInView);
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
  assert.ok(await phone.evaluate(`${shareInView} < 50`));
  await phone.close();
});

test("every sample is in the page, and is seen when it is looked at", async () => {
  const page = await openClean(`${long}#view=12.3~12.33&at=12.317`);
  await page.until(`${rowNamed("Ramp")}.row.piece.per === 1`);
  await page.settle();
  assert.equal(await cursorValue(page, "Ramp"), "12.32 k");
  await page.press("ArrowRight");
  assert.equal(await page.text("#at"), "12.3180 s");
  const values = await page.evaluate(`(() => {
    const { edges, means } = ${rowNamed("Ramp")}.row.piece;
    return [means[0], means.every((value, i) => value === means[0] + i), means.every((value, i) => Math.abs(edges[i + 1] * 1000 - value) < 1e-6)];
  })()`);
  assert.equal(values[0] % 2048, 0);
  assert.deepEqual(values.slice(1), [true, true]);
  // Half zoomed in, there are steps of 16; they have the range of their samples.
  await page.press("0");
  for (let i = 0; i < 2; i += 1) await page.press("w");
  await page.until(`${rowNamed("Ramp")}.row.piece.per === 16`);
  assert.deepEqual(await page.evaluate(`(() => { const { mins, means, maxs } = ${rowNamed("Ramp")}.row.piece;
    return [maxs[3] - mins[3], means[3] - mins[3]]; })()`), [15, 7.5]);
  await page.close();
  // The cursor's value is that of its time, in view or not.
  const far = await openClean(`${long}#view=12.3~12.33&at=5`);
  await far.until(`${rowNamed("Ramp")}.row.cells.at.textContent === "5000"`);
  await far.close();
});

test("a selection has true sums and percentiles, by address, mouse and key", async () => {
  const page = await openClean(`${long}#selection=5~6.5&amounts=total`);
  // The samples 5001 to 6500; the ends lie within steps of every level.
  await until(page, "Ramp", "5001|8.626 M|6500");
  assert.deepEqual(await numbers(page, "Ramp"), ["Min 5001", "Total 8.626 M", "Max 6500"]);
  const choose = (id, value) => page.evaluate(`{ const list = document.getElementById("${id}"); list.value = "${value}";
    list.dispatchEvent(new Event("change")); }`);
  await choose("amounts", "second");
  await page.settle();
  assert.equal((await numbers(page, "Ramp"))[0], "Min 5.001 M");
  assert.deepEqual(await Promise.all(["Ramp", "Filler 200", "Wave <b>"].map((name) => page.evaluate(`${rowNamed(name)}.row.unit.textContent`))),
    ["byte/s", "per second", "percent"]);
  // A derived counter is its expression over the sums of its operands.
  await page.evaluate(`(() => {
    const { sequence } = window.counterfeed.state;
    sequence.counterOf.get(65).formula = ["#4", 1000, "/", 100, "/"];
    document.getElementById("fit").click();
  })()`);
  await page.until(`${rowNamed("Wave <b>")}.row.cells.columns[1].value.textContent === "86.26 %"`);
  await choose("amounts", "sample");
  await choose("columns", "percentiles");
  await until(page, "Ramp", "5750|6425|6485");
  await page.press("Escape");
  assert.ok(await page.evaluate("document.getElementById('selection').hidden"));
  for (const key of ["Home", "m"]) await page.press(key);
  await page.press("ArrowRight", 8);
  await page.press("m");
  assert.match(await page.text("#selected"), /^\d+(\.\d+)? ms selected/);
  await page.press("Escape");
  const plot = await page.box(".plot");
  await page.mouse("mousePressed", plot.left + plot.width / 4, plot.y);
  await page.mouse("mouseMoved", plot.left + plot.width / 2, plot.y);
  await page.mouse("mouseReleased", plot.left + plot.width / 2, plot.y);
  await page.settle();
  assert.match(await page.text("#selected"), /^(4\.9|5)\d* s selected/);
  await page.press("z");
  assert.ok(await page.evaluate(`Math.abs(${shareInView} - 25) < 2`));
  await page.close();
});

test("what does not fit into the page is told where it is missing", async () => {
  const noise = counters.slice(0, 20).map((counter, n) => ({ ...counter, value: (i) => Math.abs(Math.sin(i * (n + 1)) * 1e9) | 0 }));
  const page = await openClean(`${write("small", counterTrace({ counters: noise, samples: 20000 }), ["--page-size=1"])}#view=5~5.02`);
  const last = rowNamed("Filler 216");
  await page.evaluate(`${last}.scrollIntoView()`);
  await page.until(`${last}.row.note.textContent !== ""`);
  assert.match(await page.evaluate(`${last}.row.note.textContent`), /^in steps of \d+ samples: /);
  assert.match(await page.text("#facts"), /the samples of \d+ counters did not fit/);
  await page.close();
  const old = await openClean(`${long}#view=5~5.02`, { before: "delete window.DecompressionStream" });
  assert.match(await old.text("#limits"), /DecompressionStream/);
  assert.ok(await old.evaluate("document.getElementById('limits').offsetHeight > 0"));
  assert.ok(await colorsIn(old, "Wave <b>") > 2);
  await old.close();
});

test("counters are drawn over others, and the address keeps everything", async () => {
  const page = await openClean(short);
  const plain = await colorsIn(page, "Wave <b>");
  await page.evaluate(`${rowNamed("Ramp")}.focus()`);
  await page.press("o");
  await page.evaluate(`${rowNamed("Wave <b>")}.focus()`);
  await page.press("o");
  assert.ok(await colorsIn(page, "Wave <b>") > plain);
  // A name that is dragged onto a chart does the same.
  const middleOf = (name, what) => page.evaluate(`(() => { const box = ${rowNamed(name)}.querySelector("${what}").getBoundingClientRect();
    return { x: box.x + box.width / 2, y: box.y + box.height / 2 }; })()`);
  const [from, to] = [await middleOf("Nothing at all", ".what"), await middleOf("Filler 200", ".plot")];
  await page.call("Input.setInterceptDrags", { enabled: true });
  await page.mouse("mousePressed", from.x, from.y, { buttons: 1 });
  for (const moved of [10, 20]) await page.mouse("mouseMoved", from.x + moved, from.y, { buttons: 1 });
  await page.settle();
  for (const type of ["dragEnter", "dragOver", "drop"]) await page.call("Input.dispatchDragEvent", { type, ...to, data: page.dragged });
  await page.mouse("mouseReleased", to.x, to.y);
  assert.equal(await page.evaluate(`${rowNamed("Filler 200")}.querySelector(".legend").textContent`), "Nothing at all");
  for (const key of ["p", "w", "f"]) await page.press(key);
  await page.until("location.hash.includes('fit') && location.hash.includes('view') && location.hash.includes('over')");
  const url = await page.evaluate("location.href");
  const look = `[...document.querySelectorAll("main h2, #view, #at, .legend, .row:first-child dd")].map((node) => node.textContent).join("|")`;
  const before = await page.evaluate(look);
  await page.close();
  const again = await openClean(url);
  await again.until(`${look} === ${JSON.stringify(before)}`);
  assert.ok(await again.evaluate("document.getElementById('fit').checked"));
  await again.click(".over");
  assert.equal(await again.evaluate("document.querySelectorAll('.over').length"), 1);
  const far = `${rowNamed("Filler 346")}.row.canvas.width`;
  assert.ok(await again.evaluate(`${far} < 2 || !${rowNamed("Filler 346")}.row.piece`));
  await again.evaluate("dispatchEvent(new Event('beforeprint'))");
  assert.ok(await again.evaluate(far) > 100);
  await again.close();
});

test("what limits a known GPU stands above, and leads to its counter", async () => {
  const busy = { id: 65538, name: "Fragment queue utilization", unit: "percent", value: () => 95, description: "It is busy. Take work away." };
  const idle = { id: 65608, name: "Texture unit utilization", unit: "percent", value: () => 5 };
  const page = await openClean(`${write("known", counterTrace({ counters: [idle, busy], samples: 50 }))}#q=texture`);
  assert.match(await page.text("#limiting"), /The fragment queue is the busiest: .* 95.*Take work away\./);
  await page.click("#limiting button");
  assert.equal(await page.evaluate("document.activeElement.row.counter.name"), busy.name);
  await page.close();
  const calm = await openClean(write("calm", counterTrace({ counters: [idle], samples: 50 })));
  assert.match(await calm.text("#limiting"), /Nothing stands out/);
  await calm.close();
  const unknown = await openClean(short);
  assert.ok(await unknown.evaluate("document.getElementById('limiting').hidden"));
  await unknown.close();
});

test("frames are shown where the samples are, and the longest are found", async () => {
  const ms = (time) => 1e9 + time * 1e6;
  // Ten frames of 9 ms and ten of 8; the eighth takes 19 ms, and misses a deadline.
  const frames = Array.from({ length: 20 }, (_, i) =>
    ({ start: ms(10 * i), end: ms(10 * i + (i === 7 ? 19 : i < 10 ? 9 : 8)), expectedEnd: ms(10 * i + 9.5), jank: i === 7 ? 64 : 1 }));
  frames.push({ start: ms(50), end: ms(60), jank: 1, layer: "Game <i>#1" });
  const page = await openClean(write("frames", Buffer.concat([counterTrace({ counters: counters.slice(0, 8), samples: 301 }),
    counterTrace({ counters: counters.slice(3, 6), samples: 301, sequence: 8 }), frameTrace(frames, 77e9)])));
  assert.ok(await page.evaluate("document.getElementById('frames').offsetHeight > 0"));
  assert.deepEqual(await page.evaluate("[...document.getElementById('layer').options].map(({ text }) => text)"),
    ["the display (20)", "Game <i>#1 (1)"]);
  const lane = await page.box("#frames");
  // Above and below the frames themselves only the marks of their expected ends stand out.
  assert.equal(await page.evaluate(`(() => {
    const { width } = document.getElementById("frames");
    const { data } = document.getElementById("frames").getContext("2d").getImageData(0, 1, width, 1);
    return data.filter((value, i) => i % 4 === 3 && value === 255).length; })()`), 20);
  await page.mouse("mousePressed", lane.left + lane.width * 0.25, lane.y);
  await page.mouse("mouseReleased", lane.left + lane.width * 0.25, lane.y);
  await page.settle();
  assert.match(await page.text("#frame"), /^Frame 8 of 20: 19 ms, the application's deadline, 9.5 ms past its expected end$/);
  // Its samples are 71 to 89: the frame begins with the end of sample 70.
  assert.deepEqual(await numbers(page, "Ramp"), ["Min 71", "Mean 80", "Max 89"]);
  await page.press(".");
  assert.match(await page.text("#frame"), /^Frame 9 of 20: 9 ms, on time$/);
  assert.deepEqual(await numbers(page, "Ramp"), ["Min 81", "Mean 85", "Max 89"]);
  await page.press("Escape");
  assert.equal(await page.text("#frame"), "");
  await page.press(".");
  assert.match(await page.text("#frame"), /^Frame 10 of 20/);
  // What the longest have in common is what --by-frame says of them.
  const told = JSON.parse(execFileSync(process.env.COUNTERFEED_REPORT, ["--by-frame", "--json", join(folder, "frames.trace")]));
  const { longest, common } = told.layers.find(({ layer }) => layer === "display");
  assert.equal(common.length, 7);
  const rowsOf = (selector) => page.evaluate(`[...document.querySelectorAll("${selector} tr")].map((row) => [...row.cells].map(({ textContent }) => textContent))`);
  await page.click("#frames-longest");
  const start = (number) => told.frames.find(({ layer, frame }) => layer === "display" && frame === number).startSeconds;
  assert.deepEqual((await rowsOf("#longest")).map(([at]) => at), longest.map((number) => `${start(number).toFixed(4)} s`));
  const size = (value) => (value >= 1e6 ? `${Number((value / 1e6).toPrecision(4))} M` : `${Number((value / 1e3).toPrecision(4))} k`);
  assert.deepEqual(await rowsOf("#common"), common.map(({ name, unit, longest: inside, others }) => (unit === "percent"
    ? [name, `${Number(inside.toPrecision(4))} %`, `${Number(others.toPrecision(4))} %`] : [`${name} ${unit}`, size(inside), size(others)])));
  await page.evaluate(readFileSync(process.env.AXE, "utf8"));
  assert.deepEqual(await page.evaluate("axe.run().then(({ violations }) => violations.map(({ id }) => id))"), []);
  await page.click("#longest button");
  assert.match(await page.text("#frame"), /^Frame 8 /);
  // Of the other sequence they are the same, as its samples are.
  const all = await rowsOf("#common");
  await page.evaluate('{ const list = document.getElementById("session"); list.value = 1; list.dispatchEvent(new Event("change")); }');
  await page.settle();
  await page.click("#frames-longest");
  assert.deepEqual(await rowsOf("#common"), all.filter(([name]) => /Filler 20[012] /.test(name)));
  await page.evaluate('{ const list = document.getElementById("layer"); list.value = 1; list.dispatchEvent(new Event("change")); }');
  await page.until("location.hash.includes('layer=1')");
  const url = await page.evaluate("location.href");
  await page.close();
  const again = await openClean(url);
  await again.press(".");
  assert.match(await again.text("#frame"), /^Frame 1 of 1: 10 ms/);
  await again.close();

  // Too many for a page: the shortest are left out, but for those in a list, and the others keep their numbers.
  const many = Array.from({ length: 66000 }, (_, i) => ({ start: ms(0.004 * i), end: ms(0.004 * i + (i < 600 ? 0.002 : 0.003)), jank: 1 }));
  many.push({ start: ms(50), end: ms(50.001), jank: 1, layer: "Rare" });
  const crowded = await openClean(`${write("many", Buffer.concat([counterTrace({ counters: counters.slice(0, 4), samples: 301 }), frameTrace(many, 0)]))}#at=0.3`);
  assert.deepEqual(await crowded.evaluate("[...document.getElementById('layer').options].map(({ text }) => text)"),
    ["the display (the longest 65,536 frames of 66,000)", "Rare (1)"]);
  await crowded.press(".");
  assert.match(await crowded.text("#frame"), /^Frame 66000 of 66000: 3 µs/);
  await crowded.close();
});

test("two traces are shown over each other, and what changed stands first", async () => {
  let seed = 1;
  const noise = () => (seed = (seed * 1103515245 + 12345) % 2 ** 31) / 2 ** 31;
  // The second trace has half as many samples of twice the length: the same rates are twice as much for each.
  const side = (per, change, more) => [
    { id: 1, name: "Steady", value: () => per * (90 + 20 * noise()) },
    { id: 2, name: "Grown", unit: "byte", value: () => per * change * (90 + 20 * noise()), description: "Is more. Hardware name: GROWN." },
    { id: 3, name: "Shrunk", unit: "percent", value: () => 40 / change + noise() },
    { ...more, value: (i) => i % 9 },
  ];
  const traceOf = (name, settings) => {
    writeFileSync(join(folder, name), counterTrace(settings));
    return join(folder, name);
  };
  const first = traceOf("first.trace", { counters: side(1, 1, { id: 8, name: "Left behind" }), samples: 4000 });
  const second = traceOf("second.trace", { counters: side(2, 1.5, { id: 9, name: "Newcomer" }), samples: 2500, period: 2e6, first: 9e9 });
  execFileSync(process.env.COUNTERFEED_REPORT, ["--compare", first, second, "--html", "--bins=2048", "-o", join(folder, "compare.html")]);
  const url = pathToFileURL(join(folder, "compare.html")).href;
  const page = await openClean(url);
  assert.deepEqual(await page.evaluate("[...document.querySelectorAll('main h2, .row')].map((node) => node.row?.counter.name ?? node.textContent.trim())"),
    ["Changed 2", "Grown", "Shrunk", "May be chance 1", "Steady"]);
  await page.until(`${rowNamed("Steady")}.row.cells.columns[0].value.textContent !== ""`);
  const shown = async (name) => (await numbers(page, name)).join(", ").replace("\n", " ");
  assert.match(await shown("Grown"), /^Before (99\.\d+|100(\.\d)?) k, After 1(49\.\d|50(\.\d)?) k, Change \+(49|50)(\.\d)? % changed$/);
  assert.match(await shown("Shrunk"), /^Before 40\.\d+ %, After 27\.\d+ %, Change −3\d(\.\d)? % changed$/);
  assert.match(await shown("Steady"), /chance\?$/);
  // Amounts are drawn as rates: those of "Steady" are at one height, those of "Grown" are not. And the first ends earlier.
  const linesOf = (name, on = page) => on.evaluate(`(() => {
    const { canvas } = ${rowNamed(name)}.row;
    const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
    const pixels = new Uint32Array(data.buffer);
    return ["--before", "--after"].map((side) => {
      const hex = getComputedStyle(document.documentElement).getPropertyValue(side).trim();
      const pixel = Number("0xff" + hex.slice(5, 7) + hex.slice(3, 5) + hex.slice(1, 3));
      const places = [...pixels.keys()].filter((at) => pixels[at] === pixel).map((at) => [at / canvas.width, at % canvas.width / canvas.width]);
      const rows = places.filter(([, x]) => x < 0.5).map(([row]) => row);
      return { height: rows.reduce((sum, row) => sum + row, 0) / rows.length, range: Math.max(...rows) - Math.min(...rows), end: Math.max(...places.map(([, x]) => x)) };
    });
  })()`);
  const [steady, grown] = [await linesOf("Steady"), await linesOf("Grown")];
  assert.ok(Math.abs(steady[0].height - steady[1].height) < 4, JSON.stringify(steady));
  assert.ok(grown[0].height - grown[1].height > 10, JSON.stringify(grown));
  assert.ok(Math.abs(steady[0].end - 0.8) < 0.02 && steady[1].end > 0.98, JSON.stringify(steady));
  const stepLengths = await page.evaluate("window.counterfeed.state.sequence.sides.map(({ edges }) => (edges[2] - edges[1]).toFixed(6))");
  assert.equal(stepLengths[0], stepLengths[1]);
  assert.match(await page.text("#sides"), /Before first\.trace.*4,000 samples, one every 1 ms.*After second\.trace.*one every 2 ms/);
  assert.match(await page.text("#alone"), /Only before: 1 counterLeft behind.*Only after: 1 counterNewcomer/);
  await page.press("ArrowDown");
  await page.press("Enter");
  assert.match(await page.text(".row .text"), /^From .* byte.* to .*: \+(49|50)(\.\d)? %, more than chance\. With a probability of 95 %/);
  // Where one side has ended, only the other has values.
  await page.press("End");
  assert.match(await cursorValue(page, "Shrunk"), /^–\n27\.\d+ %$/);
  await page.close();
  // One is drawn as the other, though only the longer has more samples than there are pixels.
  const wild = (samples, least) => traceOf(`wild-${samples}.trace`, { counters: [{ id: 1, name: "Wild", value: (i) => least + i % 2 }], samples });
  execFileSync(process.env.COUNTERFEED_REPORT, ["--compare", wild(600, 0), wild(400, 3), "--html", "-o", join(folder, "wild.html")]);
  const even = await openClean(pathToFileURL(join(folder, "wild.html")).href);
  const ranges = (await linesOf("Wild", even)).map(({ range }) => range);
  assert.ok(Math.abs(ranges[0] - ranges[1]) < 4, `${ranges}`);
  await even.close();
  const part = await openClean(`${url}#selection=4.5~4.9`, { width: 390, height: 844, isPhone: true, isDark: true });
  await part.until(`${rowNamed("Shrunk")}.row.cells.columns[0].value.textContent !== ""`);
  assert.match((await numbers(part, "Shrunk")).join(), /^Before –,After 27\.\d+ %,Change –$/);
  await part.evaluate(readFileSync(process.env.AXE, "utf8"));
  assert.deepEqual(await part.evaluate("axe.run().then(({ violations }) => violations.map(({ id, nodes }) => `${id}: ${nodes[0].html}`))"), []);
  await part.close();
});
