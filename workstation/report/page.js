"use strict";
// A chart for each counter of a trace. The charts share one view, a part of the trace's time, and one cursor in it.
// Only what is on the screen is drawn: a page can have hundreds of charts.
(() => {
  const byId = (id) => document.getElementById(id);
  const trace = JSON.parse(byId("trace").textContent);
  const calm = matchMedia("(prefers-reduced-motion: reduce)");
  const hueOf = (block) => `var(--${block.toLowerCase().replace(" ", "-")})`;

  // ---- Data ----

  function numbers(text, Type) {
    const bytes = Uint8Array.from(atob(text), (c) => c.charCodeAt(0));
    return new Type(bytes.buffer);
  }

  // edges[i] to edges[i + 1] is the time that bin i covers: a sample counts what happened before it.
  function prepare(sequence) {
    const times = numbers(sequence.times, Float64Array);
    const last = times[times.length - 1];
    const period = sequence.samples > 1 ? (last - sequence.first) / (sequence.samples - 1) : 0.001;
    const edges = new Float64Array(times.length + 1);
    edges[0] = sequence.first - period;
    edges.set(times, 1);
    const counters = sequence.counters.filter((c) => c.count > 0);
    for (const counter of counters) {
      const hardware = /Hardware name: (\w+)\./.exec(counter.description);
      counter.hardware = hardware ? hardware[1] : "";
      counter.haystack = `${counter.name} ${counter.description} ${counter.id} ${counter.unit}`.toLowerCase();
    }
    return { ...sequence, times, edges, period, counters };
  }

  // The arrays of a counter are unpacked when it is first shown.
  function unpack(counter) {
    if (typeof counter.means === "string") {
      counter.means = numbers(counter.means, Float32Array);
      counter.mins = counter.mins ? numbers(counter.mins, Float32Array) : counter.means;
      counter.maxs = counter.maxs ? numbers(counter.maxs, Float32Array) : counter.means;
    }
    return counter;
  }

  // The first index whose element is not below the value.
  function lowerBound(sorted, value) {
    let low = 0;
    let high = sorted.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (sorted[middle] < value) low = middle + 1;
      else high = middle;
    }
    return low;
  }

  function short(value, unit) {
    if (value === undefined || Number.isNaN(value)) return "–";
    const digits = (number) => String(Number(number.toPrecision(4)));
    if (unit === "percent") return `${digits(Math.abs(value) < 1 ? Number(value.toFixed(3)) : value)} %`;
    const size = Number(Math.abs(value).toPrecision(4));
    for (const [scale, suffix] of [[1e12, "T"], [1e9, "G"], [1e6, "M"], [1e3, "k"]]) {
      if (size >= scale * (scale === 1e3 ? 10 : 1)) {
        return size / scale >= 1e5 ? value.toExponential(2) : `${digits(value / scale)} ${suffix}`;
      }
    }
    return size !== 0 && size < 1e-4 ? value.toExponential(2) : digits(value);
  }

  const counted = (count, what) => `${count.toLocaleString("en")} ${what}${count === 1 ? "" : "s"}`;

  // Time in the step of the axis: "1.25 s", "12.5 ms".
  function timeText(seconds, resolution) {
    const decimals = Math.min(9, Math.max(0, Math.ceil(-Math.log10(resolution || 1) - 1e-9)));
    return `${seconds.toFixed(decimals).replace(/^-(0(\.0+)?)$/, "$1")} s`;
  }
  function spanText(seconds) {
    if (seconds >= 120) return `${Number((seconds / 60).toPrecision(3))} min`;
    if (seconds >= 1) return `${Number(seconds.toPrecision(4))} s`;
    return seconds >= 1e-3 ? `${Number((seconds * 1e3).toPrecision(4))} ms` : `${Number((seconds * 1e6).toPrecision(4))} µs`;
  }

  // ---- State ----

  let sequence;
  let view;              // { from, to } in seconds since the trace's first sample
  let cursor = 0;        // the bin at which values are read
  let current = null;    // the row that keys act on
  let rows = [];         // in the order of the page
  let colors = {};
  const pinned = new Set();
  const opened = new Set();  // the counters whose descriptions are shown
  const visible = new Set();
  const folded = new Set();

  const whole = () => ({ from: sequence.edges[0], to: sequence.times[sequence.times.length - 1] });
  const search = byId("search");
  const main = byId("counters");
  const overview = byId("overview");

  // ---- Drawing ----

  let isScheduled = false;
  function schedule() {
    if (!isScheduled) {
      isScheduled = true;
      requestAnimationFrame(() => {
        isScheduled = false;
        drawAll();
      });
    }
  }

  function readColors() {
    const style = getComputedStyle(document.documentElement);
    colors = { get: (name) => style.getPropertyValue(name).trim() };
  }

  // A context whose units are CSS pixels; null while the canvas has no size.
  function contextOf(canvas, width, height) {
    const ratio = window.devicePixelRatio || 1;
    if (width < 2 || height < 2) return null;
    if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
    }
    const context = canvas.getContext("2d");
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, height);
    return context;
  }

  function binsIn(range) {
    const first = Math.max(0, lowerBound(sequence.edges, range.from) - 1);
    const last = Math.min(sequence.times.length - 1, lowerBound(sequence.times, range.to));
    return [first, last];
  }

  // Least, mean and greatest value in a range of time.
  function statistics(counter, range) {
    const everything = whole();
    if (range.from <= everything.from && range.to >= everything.to) {
      return { min: counter.min, mean: counter.mean, max: counter.max };
    }
    let [first, last] = binsIn(range);
    // A bin that the view only touches does not count.
    if (first < last && sequence.times[first] <= range.from) first += 1;
    let min = Infinity;
    let max = -Infinity;
    let sum = 0;
    let count = 0;
    for (let i = first; i <= last; i += 1) {
      if (!Number.isNaN(counter.means[i])) {
        min = Math.min(min, counter.mins[i]);
        max = Math.max(max, counter.maxs[i]);
        sum += counter.means[i];
        count += 1;
      }
    }
    return count ? { min, mean: sum / count, max } : { min: NaN, mean: NaN, max: NaN };
  }

  function scaleOf(counter, stats) {
    if (byId("fit").checked && stats.max > stats.min) return { bottom: stats.min, top: stats.max };
    const top = counter.unit === "percent" ? 100 : Math.max(counter.max, 0);
    const bottom = Math.min(counter.min, 0);
    return { bottom, top: top > bottom ? top : bottom + 1 };
  }

  // Steps where there is room for them; otherwise, in each column of pixels, the range of its values and their mean.
  function drawSeries(context, counter, range, scale, width, height, hue) {
    const [first, last] = binsIn(range);
    const x = (time) => (time - range.from) / (range.to - range.from) * width;
    const y = (value) => 3 + (1 - (value - scale.bottom) / (scale.top - scale.bottom)) * (height - 4);
    const base = y(Math.min(Math.max(0, scale.bottom), scale.top));
    const band = new Path2D();
    const line = new Path2D();
    const area = new Path2D();
    let isDrawing = false;
    let end = 0;
    const column = (left, right, min, mean, max) => {
      const level = y(mean);
      if (max > min) band.rect(left, y(max), right - left, Math.max(0.75, y(min) - y(max)));
      area.rect(left, Math.min(level, base), right - left, Math.abs(level - base));
      if (isDrawing && left - end < 0.01) line.lineTo(left, level);
      else line.moveTo(left, level);
      line.lineTo(right, level);
      isDrawing = true;
      end = right;
    };
    if (last - first < width / 1.5) {
      for (let i = first; i <= last; i += 1) {
        if (!Number.isNaN(counter.means[i])) {
          column(x(sequence.edges[i]), x(sequence.edges[i + 1]), counter.mins[i], counter.means[i], counter.maxs[i]);
        }
      }
    } else {
      let begin = first;
      for (let left = 0; left < width; left += 1) {
        const from = range.from + left / width * (range.to - range.from);
        const until = range.from + (left + 1) / width * (range.to - range.from);
        while (begin < last && sequence.edges[begin + 1] <= from) begin += 1;
        let min = Infinity;
        let max = -Infinity;
        let sum = 0;
        let count = 0;
        for (let i = begin; i <= last && sequence.edges[i] < until; i += 1) {
          if (!Number.isNaN(counter.means[i])) {
            min = Math.min(min, counter.mins[i]);
            max = Math.max(max, counter.maxs[i]);
            sum += counter.means[i];
            count += 1;
          }
        }
        if (count) column(left, left + 1, min, sum / count, max);
      }
    }
    context.fillStyle = hue;
    context.globalAlpha = 0.22;
    context.fill(band);
    context.globalAlpha = 0.2;
    context.fill(area);
    context.globalAlpha = 1;
    context.strokeStyle = hue;
    context.lineWidth = last - first < width / 1.5 ? 1.5 : 1;
    context.lineJoin = "round";
    context.stroke(line);
  }

  function ticks(range, width) {
    const rough = (range.to - range.from) / Math.max(2, width / 95);
    const power = 10 ** Math.floor(Math.log10(rough));
    const step = [1, 2, 5, 10].map((n) => n * power).find((n) => n >= rough);
    const result = [];
    for (let n = Math.ceil(range.from / step); n * step <= range.to; n += 1) result.push(n * step);
    return { step, at: result };
  }

  function drawGrid(context, width, height) {
    context.fillStyle = colors.get("--grid");
    for (const time of ticks(view, width).at) {
      context.fillRect(Math.round((time - view.from) / (view.to - view.from) * width), 0, 1, height);
    }
    context.fillRect(0, height - 1, width, 1);
  }

  function drawRow(row) {
    const counter = unpack(row.counter);
    const width = row.plot.clientWidth;
    const height = row.plot.clientHeight;
    const stats = statistics(counter, view);
    const scale = scaleOf(counter, stats);
    const context = contextOf(row.canvas, width, height);
    if (context) {
      drawGrid(context, width, height);
      context.save();
      context.beginPath();
      context.rect(0, 0, width, height);
      context.clip();
      drawSeries(context, counter, view, scale, width, height, colors.get(row.hue));
      context.restore();
    }
    row.top.textContent = counter.max > 0 || counter.unit === "percent" ? short(scale.top, counter.unit) : "";
    for (const key of ["min", "mean", "max"]) row.cells[key].textContent = short(stats[key], counter.unit);
    row.plot.setAttribute("aria-label", `Chart of ${counter.name}: minimum ${short(stats.min, counter.unit)}, ` +
      `mean ${short(stats.mean, counter.unit)}, maximum ${short(stats.max, counter.unit)}`);
  }

  function drawTimeline() {
    const ruler = byId("ruler");
    const width = ruler.clientWidth;
    const context = contextOf(ruler, width, ruler.clientHeight);
    if (context) {
      const { step, at } = ticks(view, width);
      context.font = `11.5px ${getComputedStyle(document.body).fontFamily}`;
      context.fillStyle = colors.get("--muted");
      context.textBaseline = "top";
      for (const time of at) {
        const x = (time - view.from) / (view.to - view.from) * width;
        context.fillRect(Math.round(x), 0, 1, 5);
        const text = timeText(time, step);
        const half = context.measureText(text).width / 2;
        context.fillText(text, Math.min(Math.max(0, x - half), width - 2 * half), 7);
      }
    }
    const canvas = overview.querySelector("canvas");
    const small = contextOf(canvas, canvas.clientWidth, canvas.clientHeight);
    const counter = current ? current.counter : sequence.counters.find((c) => c.name === "GPU active cycles") ||
      sequence.counters.find((c) => c.max > c.min) || sequence.counters[0];
    if (small && counter) {
      unpack(counter);
      const stats = { min: counter.min, max: counter.max };
      drawSeries(small, counter, whole(), scaleOf(counter, stats), canvas.clientWidth, canvas.clientHeight,
        colors.get(`--${counter.block.toLowerCase().replace(" ", "-")}`));
    }
    const all = whole();
    const share = (time) => `${((time - all.from) / (all.to - all.from)) * 100}%`;
    byId("window").style.left = share(view.from);
    byId("window").style.width = `${(view.to - view.from) / (all.to - all.from) * 100}%`;
    const from = Math.max(view.from, 0);  // the time that the first sample counted lies before it
    byId("view").textContent = `${timeText(from, (view.to - from) / 1000)} to ` +
      `${timeText(view.to, (view.to - from) / 1000)} (${spanText(view.to - from)})`;
  }

  function drawCursor() {
    const time = sequence.times[cursor];
    const share = (time - view.from) / (view.to - view.from);
    document.documentElement.style.setProperty("--at", share);
    main.classList.toggle("cursor-outside", share < 0 || share > 1);
    const text = timeText(time, sequence.period / 10);
    byId("at").textContent = text;
    overview.setAttribute("aria-valuenow", cursor);
    overview.setAttribute("aria-valuetext", text);
    for (const row of visible) {
      row.cells.at.textContent = short(unpack(row.counter).means[cursor], row.counter.unit);
    }
  }

  function drawAll() {
    if (!sequence || sequence.times.length === 0) return;
    drawTimeline();
    for (const row of visible) drawRow(row);
    drawCursor();
  }

  // ---- View and cursor ----

  function setView(from, to) {
    const all = whole();
    const least = Math.max(sequence.period * 4, 1e-6);
    const span = Math.min(Math.max(to - from, Math.min(least, all.to - all.from)), all.to - all.from);
    const start = Math.min(Math.max(from, all.from), all.to - span);
    view = { from: start, to: start + span };
    schedule();
  }

  let glide = 0;
  function moveView(from, to) {
    cancelAnimationFrame(glide);
    if (calm.matches) {
      setView(from, to);
      return;
    }
    const start = { ...view };
    const began = performance.now();
    const frame = (now) => {
      const part = Math.min(1, (now - began) / 140);
      const eased = 1 - (1 - part) ** 3;
      setView(start.from + (from - start.from) * eased, start.to + (to - start.to) * eased);
      if (part < 1) glide = requestAnimationFrame(frame);
    };
    glide = requestAnimationFrame(frame);
  }

  function zoom(factor, around, isSmooth = true) {
    const center = Math.min(Math.max(around, view.from), view.to);
    (isSmooth ? moveView : setView)(center - (center - view.from) * factor, center + (view.to - center) * factor);
  }

  function pan(share, isSmooth = true) {
    const all = whole();
    const span = view.to - view.from;
    const from = Math.min(Math.max(view.from + share * span, all.from), all.to - span);
    (isSmooth ? moveView : setView)(from, from + span);
  }

  const timeAt = (plot, clientX) => {
    const box = plot.getBoundingClientRect();
    return view.from + (clientX - box.left) / box.width * (view.to - view.from);
  };

  function setCursor(bin, isByKey = false) {
    cursor = Math.min(Math.max(bin, 0), sequence.times.length - 1);
    const time = sequence.times[cursor];
    if (isByKey && (time < view.from || time > view.to)) {
      const half = (view.to - view.from) / 2;
      setView(time - half, time + half);
    }
    drawCursor();
    if (isByKey) announce();
  }
  const setCursorTime = (time) => setCursor(lowerBound(sequence.times, time));

  let announcement = 0;
  function announce() {
    clearTimeout(announcement);
    announcement = setTimeout(() => {
      const value = current && unpack(current.counter).means[cursor];
      byId("live").textContent = byId("at").textContent +
        (current ? `, ${current.counter.name} ${short(value, current.counter.unit)}` : "");
    }, 250);
  }

  // ---- Page ----

  function element(kind, className, text) {
    const result = document.createElement(kind);
    if (className) result.className = className;
    if (text !== undefined) result.textContent = text;
    return result;
  }

  const onScreen = new IntersectionObserver((entries) => {
    for (const { target, isIntersecting } of entries) {
      const row = target.row;
      if (isIntersecting) {
        visible.add(row);
      } else {
        visible.delete(row);
        row.canvas.width = row.canvas.height = 0;  // gives its memory back
      }
    }
    schedule();
  }, { rootMargin: "150px" });

  function makeRow(counter) {
    const article = element("article", "row row-grid");
    const row = { counter, article, hue: `--${counter.block.toLowerCase().replace(" ", "-")}`, cells: {} };
    article.row = row;
    article.tabIndex = -1;
    article.style.setProperty("--hue", hueOf(counter.block));
    article.setAttribute("aria-label", counter.name);

    const name = element("div", "name");
    row.what = element("button", "what", counter.name);
    row.what.type = "button";
    row.pin = element("button", "pin", pinned.has(counter) ? "★" : "☆");
    row.pin.type = "button";
    row.pin.title = "Pin to the top";
    row.pin.setAttribute("aria-label", `Pin ${counter.name} to the top`);
    row.pin.setAttribute("aria-pressed", pinned.has(counter) ? "true" : "false");
    row.what.tabIndex = row.pin.tabIndex = -1;
    const detail = element("p");
    if (counter.unit) detail.append(element("span", "unit", counter.unit));
    if (counter.hardware) detail.append(element("code", "", counter.hardware));
    name.append(row.what, row.pin, detail);

    row.plot = element("div", "plot");
    row.plot.setAttribute("role", "img");
    row.canvas = element("canvas");
    row.top = element("span", "top");
    row.plot.append(row.canvas, row.top);

    const list = element("dl", "numbers");
    for (const [key, label] of [["at", "Cursor"], ["min", "Min"], ["mean", "Mean"], ["max", "Max"]]) {
      const pair = element("div");
      row.cells[key] = element("dd");
      pair.append(element("dt", "", label), row.cells[key]);
      list.append(pair);
    }
    article.append(name, row.plot, list);
    showText(row);
    row.what.addEventListener("click", () => toggleText(row));
    row.pin.addEventListener("click", () => togglePin(row));
    article.addEventListener("focusin", () => setCurrent(row));
    article.addEventListener("pointerdown", () => setCurrent(row));
    return row;
  }

  function setCurrent(row) {
    if (current === row) return;
    for (const [old, isCurrent] of [[current, false], [row, true]]) {
      if (!old) continue;
      old.article.classList.toggle("current", isCurrent);
      old.article.tabIndex = old.what.tabIndex = old.pin.tabIndex = isCurrent ? 0 : -1;
    }
    current = row;
    schedule();
  }

  function showText(row) {
    const isOpen = opened.has(row.counter);
    row.what.setAttribute("aria-expanded", String(isOpen));
    if (isOpen) row.article.append(element("p", "text", row.counter.description || "No description."));
    else row.article.querySelector(".text")?.remove();
  }

  function toggleText(row) {
    if (!opened.delete(row.counter)) opened.add(row.counter);
    showText(row);
  }

  function togglePin(row) {
    const { counter } = row;
    if (!pinned.delete(counter)) pinned.add(counter);
    build(counter);
  }

  function isWanted(counter) {
    const words = search.value.toLowerCase().split(/\s+/).filter(Boolean);
    const show = byId("show").value;
    return words.every((word) => counter.haystack.includes(word)) &&
      (show !== "selected" || counter.selected) && (show !== "changing" || counter.max > counter.min);
  }

  // What stays at the top of the screen must not cover what is scrolled to. On a phone that is the time alone.
  function measureHeader() {
    const height = document.querySelector("header").offsetHeight || document.querySelector(".time").offsetHeight;
    document.documentElement.style.setProperty("--header", `${height}px`);
  }

  // Lays the page out anew. The row of one counter keeps the focus.
  function build(focused) {
    const byUnit = document.querySelector("input[name=group]:checked").value === "unit";
    const groups = new Map();
    if (pinned.size) groups.set("Pinned", [...pinned]);
    const wanted = sequence.counters.filter((counter) => isWanted(counter) && !pinned.has(counter));
    const order = [...wanted];
    if (byUnit) order.sort((a, b) => (a.unit || "\uffff").localeCompare(b.unit || "\uffff"));
    for (const counter of order) {
      const name = byUnit ? counter.unit || "plain counts" : counter.block;
      if (!groups.has(name)) groups.set(name, []);
      groups.get(name).push(counter);
    }
    onScreen.disconnect();
    visible.clear();
    rows = [];
    current = null;
    main.replaceChildren();
    byId("jump").replaceChildren();
    let number = 0;
    for (const [name, counters] of groups) {
      number += 1;
      const section = element("section");
      section.id = `group-${number}`;
      section.style.setProperty("--hue", byUnit || name === "Pinned" ? "var(--accent)" : hueOf(name));
      const heading = element("h2", "group");
      const button = element("button", "", name);
      button.type = "button";
      button.append(" ", element("small", "", String(counters.length)));
      heading.append(button);
      const list = element("div", "rows");
      const fold = (isFolded) => {
        list.hidden = isFolded;
        button.setAttribute("aria-expanded", String(!isFolded));
      };
      fold(folded.has(name));
      button.addEventListener("click", () => {
        if (!folded.delete(name)) folded.add(name);
        fold(folded.has(name));
      });
      for (const counter of counters) {
        const row = makeRow(counter);
        rows.push(row);
        list.append(row.article);
        onScreen.observe(row.article);
      }
      section.append(heading, list);
      main.append(section);
      const link = element("a", "", `${name} ${counters.length}`);
      link.href = `#${section.id}`;
      link.style.setProperty("--hue", section.style.getPropertyValue("--hue"));
      byId("jump").append(link);
    }
    if (rows.length === 0) main.append(element("p", "nothing", "No counter fits."));
    else rows[0].article.tabIndex = 0;  // the way in for the Tab key
    byId("found").textContent = `${wanted.length + pinned.size} of ${counted(sequence.counters.length, "counter")}`;
    const row = focused && rows.find((each) => each.counter === focused);
    if (row) row.article.focus({ preventScroll: true });
    measureHeader();
    schedule();
  }

  function openSequence(index) {
    sequence = prepare(trace.sequences[index]);
    pinned.clear();
    opened.clear();
    view = whole();
    cursor = sequence.times.length >> 1;
    overview.setAttribute("aria-valuemin", 0);
    overview.setAttribute("aria-valuemax", sequence.times.length - 1);
    const every = sequence.samples > 1 ? ` · one every ${spanText(sequence.period)}` : "";
    const bins = sequence.samplesPerBin > 1 ? ` · a point is ${sequence.samplesPerBin} samples` : "";
    byId("facts").textContent = `${counted(sequence.counters.length, "counter")} · ${counted(sequence.samples, "sample")}` +
      `${every} · ${spanText(sequence.times[sequence.times.length - 1] - sequence.first)}${bins}`;
    build();
  }

  // ---- Pointers ----

  const fingers = new Map();
  let drag = null;
  const brush = element("div");
  brush.id = "brush";

  main.addEventListener("pointerdown", (event) => {
    const plot = event.target.closest(".plot");
    if (!plot || event.button !== 0) return;
    if (event.pointerType === "touch") {
      fingers.set(event.pointerId, event.clientX);
      setCursorTime(timeAt(plot, event.clientX));
    } else {
      drag = { plot, start: event.clientX };
      plot.setPointerCapture(event.pointerId);
    }
  });
  main.addEventListener("pointermove", (event) => {
    const plot = drag ? drag.plot : event.target.closest(".plot");
    if (!plot) return;
    if (event.pointerType === "touch" && fingers.size === 2 && fingers.has(event.pointerId)) {
      const [a, b] = [...fingers.keys()];
      const other = fingers.get(event.pointerId === a ? b : a);
      const before = Math.abs(fingers.get(event.pointerId) - other);
      const now = Math.abs(event.clientX - other);
      fingers.set(event.pointerId, event.clientX);
      if (before > 10 && now > 10) zoom(before / now, timeAt(plot, (event.clientX + other) / 2), false);
      return;
    }
    if (drag && Math.abs(event.clientX - drag.start) > 4) {
      const box = plot.getBoundingClientRect();
      const ends = [drag.start, event.clientX].map((x) => Math.min(Math.max(x, box.left), box.right)).sort((a, b) => a - b);
      brush.style.left = `${ends[0] - box.left}px`;
      brush.style.width = `${ends[1] - ends[0]}px`;
      if (!brush.isConnected) plot.append(brush);
    }
    setCursorTime(timeAt(plot, event.clientX));
  });
  const endDrag = (event) => {
    fingers.delete(event.pointerId);
    if (drag && brush.isConnected && event.type === "pointerup") {
      const [from, to] = [timeAt(drag.plot, drag.start), timeAt(drag.plot, event.clientX)].sort((a, b) => a - b);
      moveView(Math.max(from, view.from), Math.min(to, view.to));
    }
    brush.remove();
    drag = null;
  };
  main.addEventListener("pointerup", endDrag);
  main.addEventListener("pointercancel", endDrag);
  main.addEventListener("dblclick", (event) => {
    if (event.target.closest(".plot")) showAll();
  });
  main.addEventListener("wheel", (event) => {
    const plot = event.target.closest(".plot");
    if (!plot) return;
    const sideways = event.shiftKey ? event.deltaY || event.deltaX : event.deltaX;
    if (event.ctrlKey || event.metaKey) {
      event.preventDefault();
      zoom(Math.exp(event.deltaY * 0.004), timeAt(plot, event.clientX), false);
    } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      event.preventDefault();
      pan(sideways / plot.clientWidth, false);
    }
  }, { passive: false });

  function showAll() {
    const all = whole();
    moveView(all.from, all.to);
  }

  let grabbed = null;
  const overviewTime = (event) => {
    const box = overview.getBoundingClientRect();
    const all = whole();
    return all.from + (event.clientX - box.left) / box.width * (all.to - all.from);
  };
  overview.addEventListener("pointerdown", (event) => {
    overview.setPointerCapture(event.pointerId);
    const time = overviewTime(event);
    const span = view.to - view.from;
    if (time < view.from || time > view.to) setView(time - span / 2, time + span / 2);
    grabbed = time - view.from;
    setCursorTime(time);
  });
  overview.addEventListener("pointermove", (event) => {
    if (grabbed === null) return;
    const from = overviewTime(event) - grabbed;
    setView(from, from + (view.to - view.from));
    setCursorTime(overviewTime(event));
  });
  for (const kind of ["pointerup", "pointercancel"]) overview.addEventListener(kind, () => { grabbed = null; });

  // ---- Keys and controls ----

  function step(direction) {
    const shown = rows.filter((row) => !row.article.parentElement.hidden);
    const index = shown.indexOf(current);
    const next = shown[Math.min(Math.max(index + direction, 0), shown.length - 1)];
    if (next) {
      next.article.focus({ preventScroll: true });
      next.article.scrollIntoView({ block: "nearest", behavior: "instant" });
      announce();
    }
  }

  const zoomStep = 0.6;
  const time = () => sequence.times[cursor];
  const keys = {
    ArrowLeft: (event) => setCursor(cursor - (event.shiftKey ? 10 : 1), true),
    ArrowRight: (event) => setCursor(cursor + (event.shiftKey ? 10 : 1), true),
    ArrowUp: () => step(-1),
    ArrowDown: () => step(1),
    Home: () => setCursor(0, true),
    End: () => setCursor(sequence.times.length, true),
    w: () => zoom(zoomStep, time()),
    "+": () => zoom(zoomStep, time()),
    "=": () => zoom(zoomStep, time()),
    s: () => zoom(1 / zoomStep, time()),
    "-": () => zoom(1 / zoomStep, time()),
    a: () => pan(-0.25),
    d: () => pan(0.25),
    0: showAll,
    f: () => byId("fit").click(),
    p: () => current && togglePin(current),
    "/": () => { search.focus(); search.select(); },
    "?": () => byId("keys").showModal(),
  };
  document.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || byId("keys").open) return;
    if (event.target === search) {
      if (event.key === "Escape") {
        if (search.value) { search.value = ""; build(); } else search.blur();
        event.preventDefault();
      } else if (event.key === "ArrowDown" && rows.length) {
        event.preventDefault();
        rows[0].article.focus();
      }
      return;
    }
    if (event.target.matches("input[type=radio], select")) return;
    if (event.key === "Enter" && event.target.row) {
      toggleText(event.target.row);
      return;
    }
    if (Object.hasOwn(keys, event.key)) {
      event.preventDefault();
      keys[event.key](event);
    }
  });

  document.querySelector(".tools").addEventListener("submit", (event) => event.preventDefault());
  search.addEventListener("input", () => build());
  for (const control of document.querySelectorAll("input[name=group], #show")) control.addEventListener("change", () => build());
  byId("fit").addEventListener("change", schedule);
  byId("zoom-in").addEventListener("click", () => zoom(zoomStep, time()));
  byId("zoom-out").addEventListener("click", () => zoom(1 / zoomStep, time()));
  byId("zoom-all").addEventListener("click", showAll);
  byId("help").addEventListener("click", () => byId("keys").showModal());

  const prefersDark = matchMedia("(prefers-color-scheme: dark)");
  function setTheme(isDark) {
    document.documentElement.dataset.theme = isDark ? "dark" : "light";
    byId("theme").textContent = isDark ? "Light" : "Dark";
    byId("theme").setAttribute("aria-label", `Switch to ${isDark ? "light" : "dark"} colours`);
    readColors();
    schedule();
  }
  prefersDark.addEventListener("change", () => setTheme(prefersDark.matches));
  byId("theme").addEventListener("click", () => setTheme(document.documentElement.dataset.theme !== "dark"));

  // ---- Start ----

  document.title = `${trace.file} – GPU counters`;
  byId("file").textContent = trace.file;
  if (trace.problems.length) {
    const list = element("ul");
    for (const problem of trace.problems) list.append(element("li", "", problem));
    byId("problems").append(element("strong", "", "This trace is damaged. What could be read of it is shown."), list);
    byId("problems").hidden = false;
  }
  trace.sequences.forEach((each, index) => {
    const choice = element("option", "", `${each.number} (${counted(each.counters.length, "counter")})`);
    choice.value = index;
    byId("session").append(choice);
  });
  byId("session-pick").hidden = trace.sequences.length < 2;
  byId("session").addEventListener("change", () => openSequence(Number(byId("session").value)));
  setTheme(prefersDark.matches);
  const largest = trace.sequences.reduce((best, each, index) =>
    (each.counters.length > trace.sequences[best].counters.length ? index : best), 0);
  byId("session").value = largest;
  openSequence(largest);
  new ResizeObserver(() => {
    measureHeader();
    schedule();
  }).observe(document.body);
})();
