// How numbers and times are written.

export function short(value, unit) {
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

export const counted = (count, what) => `${count.toLocaleString("en")} ${what}${count === 1 ? "" : "s"}`;

// A time with as many decimals as a resolution wants, both in seconds: "1.25 s".
export function timeText(seconds, resolution) {
  const decimals = Math.min(9, Math.max(0, Math.ceil(-Math.log10(resolution || 1) - 1e-9)));
  return `${seconds.toFixed(decimals).replace(/^-(0(\.0+)?)$/, "$1")} s`;
}

export function spanText(seconds) {
  const digits = (number, count) => String(Number(number.toPrecision(count)));
  const rounded = Number(seconds.toPrecision(4));  // what is shown: 0.99999 ms is 1 ms
  if (rounded >= 120) return `${digits(seconds / 60, 3)} min`;
  if (rounded >= 1) return `${digits(seconds, 4)} s`;
  if (rounded >= 1e-3) return `${digits(seconds * 1e3, 4)} ms`;
  return rounded >= 1e-6 ? `${digits(seconds * 1e6, 4)} µs` : `${digits(seconds * 1e9, 4)} ns`;
}
