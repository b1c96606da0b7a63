// Writes traces of GPU counters, byte by byte.

function varint(value) {
  const bytes = [];
  let rest = BigInt(value);
  do {
    const low = Number(rest & 0x7fn);
    rest >>= 7n;
    bytes.push(rest ? low | 0x80 : low);
  } while (rest);
  return Buffer.from(bytes);
}

export const number = (field, value) => Buffer.concat([varint(field << 3), varint(value)]);
export const text = (field, content) => {
  const bytes = Buffer.from(content);
  return Buffer.concat([varint(field << 3 | 2), varint(bytes.length), bytes]);
};
export const nested = (field, ...parts) => text(field, Buffer.concat(parts));
const real = (field, value) => {
  const bytes = Buffer.alloc(8);
  bytes.writeDoubleLE(value);
  return Buffer.concat([varint(field << 3 | 1), bytes]);
};

export const packet = (sequence, ...parts) => nested(1, ...parts, number(10, sequence));

const units = { percent: 37, "": 0, byte: 7 };

// counters: [{ id, name, unit, selected, description, value: (i) => number }]
export function counterTrace({ counters, samples, period = 1e6, first = 1e9, sequence = 7 }) {
  const specs = counters.map(({ id, name, unit = "", selected = true, description = "What it counts." }) =>
    nested(1, number(1, id), text(2, name), text(3, description), number(9, selected ? 1 : 0), number(7, units[unit])));
  const packets = [packet(sequence, number(8, 0), nested(52, nested(1, ...specs)))];
  for (let i = 0; i < samples; i += 1) {
    packets.push(packet(sequence, number(58, 5), number(8, BigInt(Math.round(first + i * period))),
      nested(52, ...counters.map(({ id, value }) => nested(2, number(1, id), real(3, value(i)))))));
  }
  return Buffer.concat(packets);
}

// A frame timeline on a clock that is so far ahead of that of the counters. frames: [{ start, end, expectedEnd, jank, layer }],
// on the counters' clock, in nanoseconds.
export function frameTrace(frames, ahead) {
  const at = (time) => BigInt(Math.round(time));
  const packets = [packet(1, nested(6, nested(1, number(1, 6), number(2, at(1e9 + ahead))), nested(1, number(1, 5), number(2, at(1e9)))))];
  frames.forEach(({ start, end, expectedEnd, jank, layer }, i) => {
    if (expectedEnd) {
      const cookie = 1000 + i;
      packets.push(packet(1, number(8, at(start + ahead)), nested(76, nested(1, number(1, cookie), number(2, i)))));
      packets.push(packet(1, number(8, at(expectedEnd + ahead)), nested(76, nested(5, number(1, cookie)))));
    }
    const what = layer ? nested(4, number(1, i), number(2, i), text(5, layer), number(9, jank))
      : nested(2, number(1, i), number(2, i), number(7, jank));
    packets.push(packet(1, number(8, at(start + ahead)), nested(76, what)));
    packets.push(packet(1, number(8, at(end + ahead)), nested(76, nested(5, number(1, i)))));
  });
  return Buffer.concat(packets);
}
