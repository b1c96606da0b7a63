// Writes traces of 14 counters to measure a page with: node traces.mjs FOLDER. Each becomes a page by
//
//   counterfeed-report --html --bins 2048 --amounts=sample -o PAGE TRACE
import { writeFileSync } from "node:fs";
import { join } from "node:path";
import { counterTrace } from "../../tests/workstation/report/page/trace.mjs";

let seed = 1;
const random = () => (seed = (seed * 1103515245 + 12345) % 2 ** 31) / 2 ** 31;

function write(name, samples, value) {
  const counters = Array.from({ length: 14 }, (_, n) =>
    ({ id: 200 + n, name: `Counter ${n}`, unit: n % 3 ? "" : "percent", value: (i) => value(i, n) }));
  writeFileSync(join(process.argv[2], `${name}.trace`), counterTrace({ counters, samples }));
}

write("waves", 2048, (i, n) => 50 + 50 * Math.sin(i / (40 + 11 * n)));
write("busy", 2048, (i, n) => (Math.floor(i / (60 + 7 * n)) % 2 ? 0 : 20 + 80 * random()));
write("waves-long", 60000, (i, n) => 50 + 50 * Math.sin(i / (1000 + 311 * n)));
write("noise-long", 60000, () => 100 * random());
