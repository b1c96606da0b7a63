// A headless browser, driven over its debugging pipe.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

const flags = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
  "--disable-component-update", "--disable-sync", "--hide-scrollbars", "--remote-debugging-pipe"];

export async function startBrowser(program, moreFlags = []) {
  const profile = mkdtempSync(join(tmpdir(), "counterfeed-page-"));
  const child = spawn(program, [...flags, ...moreFlags, `--user-data-dir=${profile}`, "about:blank"],
    { stdio: ["ignore", "ignore", "ignore", "pipe", "pipe"] });
  const [, , , toBrowser, fromBrowser] = child.stdio;
  const waiting = new Map();
  const listeners = new Set();
  let last = 0;
  let rest = "";
  fromBrowser.setEncoding("utf8");
  fromBrowser.on("data", (piece) => {
    const messages = (rest + piece).split("\0");
    rest = messages.pop();
    for (const message of messages.map((text) => JSON.parse(text))) {
      const call = waiting.get(message.id);
      waiting.delete(message.id);
      if (!call) for (const listener of listeners) listener(message);
      else if (message.error) call.reject(new Error(`${call.method}: ${message.error.message}`));
      else call.resolve(message.result);
    }
  });
  child.on("exit", () => {
    for (const { reject, method } of waiting.values()) reject(new Error(`the browser ended during ${method}`));
  });
  const send = (method, params = {}, sessionId = undefined) => new Promise((resolve, reject) => {
    last += 1;
    waiting.set(last, { resolve, reject, method });
    toBrowser.write(`${JSON.stringify({ id: last, method, params, sessionId })}\0`);
  });

  return {
    pid: child.pid,
    // Opens a page, and collects what goes wrong on it and what it asks the network for.
    async open(url, { width = 1280, height = 900, isPhone = false, isDark = false, before = "" } = {}) {
      const { targetId } = await send("Target.createTarget", { url: "about:blank" });
      const { sessionId } = await send("Target.attachToTarget", { targetId, flatten: true });
      const call = (method, params) => send(method, params, sessionId);
      const page = { errors: [], requests: [], call };
      const loaded = new Promise((resolve) => {
        listeners.add(({ method, params, sessionId: of }) => {
          if (of !== sessionId) return;
          if (method === "Runtime.exceptionThrown") {
            page.errors.push(params.exceptionDetails.exception?.description || params.exceptionDetails.text);
          } else if (method === "Log.entryAdded" && params.entry.level === "error") {
            page.errors.push(params.entry.text);
          } else if (method === "Network.requestWillBeSent") {
            page.requests.push(params.request.url);
          } else if (method === "Input.dragIntercepted") {
            page.dragged = params.data;
          } else if (method === "Page.loadEventFired") {
            resolve();
          }
        });
      });
      for (const domain of ["Page", "Runtime", "Log", "Network"]) await call(`${domain}.enable`);
      await call("Emulation.setDeviceMetricsOverride",
        { width, height, deviceScaleFactor: isPhone ? 2 : 1, mobile: isPhone });
      await call("Emulation.setTouchEmulationEnabled", { enabled: isPhone });
      await call("Emulation.setEmulatedMedia", { features: [
        { name: "prefers-color-scheme", value: isDark ? "dark" : "light" },
        { name: "prefers-reduced-motion", value: "reduce" }] });
      if (before) await call("Page.addScriptToEvaluateOnNewDocument", { source: before });
      await call("Page.navigate", { url });
      await loaded;

      // The value of an expression in the page, which may be a promise.
      page.evaluate = async (expression) => {
        const { result, exceptionDetails } =
          await call("Runtime.evaluate", { expression, awaitPromise: true, returnByValue: true });
        if (exceptionDetails) throw new Error(exceptionDetails.exception?.description || exceptionDetails.text);
        return result.value;
      };
      // Two frames later everything that was scheduled is painted; numbers follow a little later.
      page.settle = () => page.evaluate(
        "new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(done, 300))))");
      page.until = async (expression) => {
        const end = Date.now() + 10000;
        while (!await page.evaluate(expression)) {
          if (Date.now() > end) throw new Error(`never came true: ${expression}`);
          await new Promise((done) => setTimeout(done, 30));
        }
      };
      page.text = (selector) => page.evaluate(`document.querySelector(${JSON.stringify(selector)}).textContent`);
      page.press = async (key, modifiers = 0) => {
        const text = key.length === 1 ? key : key === "Enter" ? "\r" : undefined;
        await call("Input.dispatchKeyEvent", { type: text ? "keyDown" : "rawKeyDown", key, text, modifiers });
        await call("Input.dispatchKeyEvent", { type: "keyUp", key, modifiers });
        await page.settle();
      };
      page.mouse = (type, x, y, more = {}) =>
        call("Input.dispatchMouseEvent", { type, x, y, button: "left", clickCount: 1, ...more });
      page.click = async (selector) => {
        const { x, y } = await page.box(selector);
        await page.mouse("mousePressed", x, y);
        await page.mouse("mouseReleased", x, y);
        await page.settle();
      };
      // The middle of an element, and its size.
      page.box = (selector) => page.evaluate(`(() => {
        const box = document.querySelector(${JSON.stringify(selector)}).getBoundingClientRect();
        return { x: box.x + box.width / 2, y: box.y + box.height / 2, left: box.x, width: box.width, height: box.height };
      })()`);
      page.touch = (type, points) => call("Input.dispatchTouchEvent",
        { type, touchPoints: points.map(([x, y], id) => ({ x, y, id })) });
      page.screenshot = async () =>
        Buffer.from((await call("Page.captureScreenshot", { format: "png" })).data, "base64");
      page.close = () => send("Target.closeTarget", { targetId });
      return page;
    },
    async close() {
      await send("Browser.close").catch(() => {});
      if (child.exitCode === null && child.signalCode === null) await once(child, "exit");
      rmSync(profile, { recursive: true, force: true, maxRetries: 5 });
    },
  };
}
