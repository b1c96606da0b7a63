// What the page shows at the moment. Whoever changes something calls schedule; then everything that has asked for it
// is painted, once a frame.

export const state = {
  sequence: null,
  view: null,          // { from, to } in seconds since the trace's first sample
  at: 0,               // the cursor: the time at which values are read
  edges: null,         // of the finest steps that are drawn
  selection: null,     // { from, to }: a part of the time whose numbers are shown
  overlays: new Map(), // of a counter, those that are drawn over it
  first: 0,            // the sequence that is shown at first
  current: null,       // the row that keys act on
  all: [],             // a row for each counter
  rows: [],            // the same in the order of the page
  visible: new Set(),  // the rows on the screen
  pinned: new Set(),   // counters
  opened: new Set(),   // the counters whose descriptions are shown
  folded: new Set(),   // the names of groups
};

const painters = [];
const writers = [];
let isScheduled = false;

// Numbers that change with every frame can't be read, and cost more than charts: while something moves, they follow now
// and then, in milliseconds.
const readable = 250;
let written = 0;
let settling = 0;

export const onPaint = (paint) => painters.push(paint);
export const onWrite = (write) => writers.push(write);

function writeAll() {
  written = performance.now();
  for (const write of writers) write();
}

export function paintNow() {
  for (const paint of painters) paint();
  writeAll();
}

export function schedule() {
  if (isScheduled) return;
  isScheduled = true;
  requestAnimationFrame(() => {
    isScheduled = false;
    if (!state.sequence) return;
    for (const paint of painters) paint();
    clearTimeout(settling);
    if (performance.now() - written > readable) writeAll();
    else settling = setTimeout(writeAll, readable);
  });
}
