"""Measures what a sample costs as the work grows: a table, the straight lines that the figures follow, and a plot.

usage: growth.py BUILD_FOLDER SERVICE_FOLDER PLOT_FILE
"""

import sys
from pathlib import Path

from sessions import GPU, Service, all_counters

BUILD, SERVICE, PLOT = (Path(a).resolve() for a in sys.argv[1:4])
ROUNDS = 3


def spread(ids, count):
    """So many of the counters, of all kinds."""
    return [ids[i * len(ids) // count] for i in range(count)]


def fit(points):
    """The line a + b*x with the least squares of relative errors, and the largest relative error."""
    weights = [1 / y ** 2 for _, y in points]
    total = sum(weights)
    mean_x = sum(w * x for w, (x, _) in zip(weights, points)) / total
    mean_y = sum(w * y for w, (_, y) in zip(weights, points)) / total
    slope = (sum(w * (x - mean_x) * (y - mean_y) for w, (x, y) in zip(weights, points)) /
             sum(w * (x - mean_x) ** 2 for w, (x, _) in zip(weights, points)))
    base = mean_y - slope * mean_x
    return base, slope, max(abs(base + slope * x - y) / y for x, y in points)


def measure():
    """For each kind of growth its unit and, for each step, the least costs of several rounds: what disturbs only adds."""
    ids = all_counters(BUILD)
    kinds = {
        "counters": {n: {"ids": spread(ids, n)} for n in (1, 10, 100, len(ids))},
        "ms of period": {n: {"period_ms": n} for n in (1, 2, 5, 10)},
        "sessions": {n: {"sessions": n} for n in (1, 2, 4, 8)},
        "cores": {n: {"gpu": f"{GPU},cores={hex((1 << n) - 1)}"} for n in (1, 2, 4, 8, 16, 32)},
    }
    with Service(SERVICE) as service:
        usual = service.launch(BUILD)
        plans = [(kind, step, service.launch(BUILD, gpu=how.pop("gpu")) if "gpu" in how else usual, {"ids": ids, **how})
                 for kind, steps in kinds.items() for step, how in steps.items()]
        rounds = []
        # All steps in turn, so that what disturbs for a while does not disturb one of them alone.
        for number in range(ROUNDS):
            print(f"  round {number + 1} of {ROUNDS} ...", file=sys.stderr)
            rounds.append({(kind, step): service.measure(launcher, **how) for kind, step, launcher, how in plans})
    for kind, step, _, _ in plans:
        kinds[kind][step] = [min(r[kind, step][process] for r in rounds) for process in ("producer", "traced")]
    return kinds


def svg(kinds):
    """One panel for each kind: points of the sum of both processes and the line through them."""
    width, height, margin = 320, 220, 44
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{2 * width}" height="{2 * height}" font-family="sans-serif" '
             'font-size="11"><rect width="100%" height="100%" fill="white"/>']
    for number, (kind, steps) in enumerate(kinds.items()):
        points = [(x, sum(y)) for x, y in steps.items()]
        base, slope, _ = fit(points)
        right, top = max(x for x, _ in points), max(y for _, y in points) * 1.1
        inner_width, inner_height = width - margin - 16, height - margin - 24
        left, bottom = number % 2 * width + margin, number // 2 * height + 24 + inner_height

        def place(x, y):
            return f"{left + x / right * inner_width:.1f},{bottom - y / top * inner_height:.1f}"

        parts.append(f'<path d="M{left},{bottom - inner_height}V{bottom}H{left + inner_width}" fill="none" stroke="black"/>')
        parts.append(f'<path d="M{place(0, max(base, 0))}L{place(right, base + slope * right)}" stroke="#06c"/>')
        for x, y in points:
            parts.append('<circle cx="{}" cy="{}" r="3" fill="#c30"/>'.format(*place(x, y).split(",")))
            parts.append(f'<text x="{place(x, y).split(",")[0]}" y="{bottom + 14}" text-anchor="middle">{x}</text>')
        parts.append(f'<text x="{left + inner_width / 2}" y="{bottom + 30}" text-anchor="middle">{kind}</text>')
        parts.append(f'<text x="{left - 4}" y="{bottom - inner_height + 4}" text-anchor="end">{top:.0f} us</text>')
        parts.append(f'<text x="{left - 4}" y="{bottom + 4}" text-anchor="end">0</text>')
    return "\n".join([*parts, "</svg>\n"])


def main():
    kinds = measure()
    print("| what grows | steps | producer, us a sample | traced, us a sample | both follow | off by at most |")
    print("|---|---|---|---|---|---|")
    for kind, steps in kinds.items():
        base, slope, error = fit([(x, sum(y)) for x, y in steps.items()])
        columns = [", ".join(f"{y[i]:.1f}" for y in steps.values()) for i in (0, 1)]
        print(f"| {kind} | {', '.join(map(str, steps))} | {columns[0]} | {columns[1]} | "
              f"{base:.1f} + {slope:.3g} x {kind} | {error:.0%} |")
    PLOT.write_text(svg(kinds))


main()
