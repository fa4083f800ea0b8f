#!/usr/bin/env python3
"""Makes the tables and plots of docs/performance.md from the figures of bench_peers.

    performance.py FIGURES          prints the tables
    performance.py FIGURES FOLDER   also writes them into FOLDER/performance.md, between their
                                    marks, and the plots into FOLDER/performance

Fails, and writes nothing, when a side did not look at its descriptors between two units where it
has to.
"""

import json
import math
import statistics
import sys
import textwrap
from pathlib import Path

# Looks at the descriptors that a unit of the row comes with; none where sides do as they like. A
# round trip is two units.
LOOKS = {"turn": 1, "pairs_one": 2}

STEPS = ("insert", "move", "cancel", "expire")

PLOTS = {
    "turn": ("turn", "run", "A run, of tasks that wait in turn"),
    "ask": ("requests", "ask", "Asking for a run"),
    "insert": ("timers", "insert", "Starting a timer"),
    "cancel": ("timers", "cancel", "Stopping a timer"),
    "expire": ("timers", "expire", "A timer that expires"),
}

COLOURS = ("#c00000", "#404040", "#1f77b4", "#e08000", "#2ca02c", "#9467bd", "#8c6d3f")


def size(n):
    return {10**4: "10 thousand", 10**5: "100 thousand", 10**6: "1 million"}.get(n, str(n))


def number(value):
    return f"{value:.1f}" if value < 100 else f"{value:,.0f}".replace(",", " ")


class Figures:
    def __init__(self, text):
        figures = json.loads(text)
        self.machine = figures["machine"]
        self.sides = figures["sides"]
        self.rows = {(row["row"], row["n"], row["step"]): row["sides"] for row in figures["rows"]}

    def sizes(self, row):
        return sorted({n for name, n, _ in self.rows if name == row})

    def faults(self):
        """The sides that did not do the work of a row."""
        for (row, n, step), sides in self.rows.items():
            for side, cell in sides.items():
                looks = (cell or {}).get("looks_per_unit", math.inf)
                if row in LOOKS and looks < 0.999 * LOOKS[row]:
                    yield f"{side} looked {looks:.3f} times a unit in {row}/{n}"

    def spread(self):
        """How far apart the middle half of a cell's slices lies, as parts of the median."""
        spreads = []
        for sides in self.rows.values():
            for cell in sides.values():
                slices = (cell or {}).get("slices", [])
                if len(slices) >= 3:
                    low, _, high = statistics.quantiles(slices, n=4, method="inclusive")
                    spreads.append((high - low) / cell["ns"])
        return spreads

    def line(self, title, key, unit=1.0, batches=False):
        """A line of a table, in nanoseconds or a multiple of them; with `batches` also how many
        units there are to a look."""
        sides = self.rows[key]
        cells = [title]
        for side in self.sides:
            cell = sides[side]
            if cell is None:
                cells.append("not reached")
            elif "over_ns" in cell:
                cells.append(f"> {number(cell['over_ns'] / unit)}")
            else:
                units = 2 / cell["looks_per_unit"] if batches else 1
                cells.append(
                    number(cell["ns"] / unit) + (f" ({units:.0f})" if units >= 1.5 else "")
                )
        ours = sides[self.sides[0]]
        peers = [
            cell["ns"]
            for cell in (sides[side] for side in self.sides[2:])
            if cell is not None and "ns" in cell
        ]
        cells.append(f"{ours['ns'] / min(peers):.2f}" if ours and "ns" in ours and peers else "")
        return "| " + " | ".join(cells) + " |"

    def table(self, head, lines):
        names = [head, *self.sides, "ours to the best peer"]
        return "\n".join(
            ["| " + " | ".join(names) + " |", "|---" + "|---:" * (len(names) - 1) + "|", *lines]
        )

    def tables(self):
        """The tables that there are figures for, by the name of their marks."""
        made = {"peers-machine": self.about()}
        if turns := self.sizes("turn"):
            made["peers-turn"] = self.table(
                "ns a unit",
                [
                    self.line("alone" if n == 1 else f"{size(n)} in turn", ("turn", n, "run"))
                    for n in turns
                    if n in (1, 1000)
                ],
            )
            made["peers-growth-turn"] = self.table(
                "ns a run, tasks in turn",
                [self.line(size(n), ("turn", n, "run")) for n in turns if n > 1],
            )
        if timers := self.sizes("timers"):
            for name, wanted in (("peers-timers", lambda n: n >= 10000),
                                 ("peers-growth-timers", lambda n: n < 10000)):
                made[name] = self.table(
                    "ns a timer",
                    [
                        self.line(f"{step}, {size(n)}", ("timers", n, step))
                        for step in STEPS
                        for n in timers
                        if wanted(n)
                    ],
                )
        if pairs := self.sizes("pairs"):
            made["peers-pairs"] = self.table(
                "µs a round trip",
                [
                    self.line("1 pair", ("pairs", 1, "round trip"), 1e3),
                    *(
                        self.line(f"{n} pairs, one a look", ("pairs_one", n, "round trip"), 1e3)
                        for n in pairs
                        if n > 1
                    ),
                    *(
                        self.line(f"{n} pairs, as it comes", ("pairs", n, "round trip"), 1e3, True)
                        for n in pairs
                        if n > 1
                    ),
                ],
            )
        if requests := self.sizes("requests"):
            made["peers-growth-ask"] = self.table(
                "ns to ask for a run", [self.line(size(n), ("requests", n, "ask")) for n in requests]
            )
        return made

    def about(self):
        machine = self.machine
        spreads = self.spread()
        return textwrap.fill(
            f"Taken on a {'virtual ' if machine['virtual'] else ''}machine with "
            f"{machine['cores']} cores, {machine['system']}, {machine['compiler']}, release build; "
            f"{', '.join(machine['versions'])}. The load average was {machine['load']} when it "
            f"began. The middle half of a cell's slices lies within "
            f"{100 * statistics.median(spreads):.0f} % of its median for one cell in two, and "
            f"within {100 * statistics.quantiles(spreads, n=20)[-1]:.0f} % for 19 in 20.",
            100,
        )

    def plot(self, row, step, title):
        """A curve for each side over the number of tasks or timers, both axes logarithmic."""
        curves = {
            side: [
                (n, self.rows[(row, n, step)][side]["ns"])
                for n in self.sizes(row)
                if n > 1 and "ns" in (self.rows[(row, n, step)][side] or {})
            ]
            for side in self.sides
        }
        values = [ns for curve in curves.values() for _, ns in curve]
        low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
        left, top, width, height = 70, 40, 430, 280

        def x(n):
            return left + width * (math.log10(n) - 1) / 5

        def y(ns):
            return top + height * (high - math.log10(ns)) / (high - low)

        out = [
            '<svg xmlns="http://www.w3.org/2000/svg" width="620" height="370" '
            'font-family="sans-serif" font-size="12">',
            '<rect width="620" height="370" fill="white"/>',
            f'<text x="{left}" y="24" font-size="14" font-weight="bold">{title}</text>',
            f'<text x="{left - 8}" y="24" text-anchor="end">ns</text>',
            f'<text x="{left + width / 2:.0f}" y="{top + height + 42}" text-anchor="middle">'
            "how many there are</text>",
        ]
        for power in range(1, 7):
            at = x(10**power)
            out.append(f'<path d="M{at:.0f} {top}v{height}" stroke="#ddd"/>')
            label = f"{10**power:,}".replace(",", " ")
            out.append(
                f'<text x="{at:.0f}" y="{top + height + 20}" text-anchor="middle">{label}</text>'
            )
        for power in range(low, high + 1):
            at = y(10.0**power)
            out.append(f'<path d="M{left} {at:.0f}h{width}" stroke="#ddd"/>')
            label = f"{10**power:,}".replace(",", " ")
            out.append(f'<text x="{left - 8}" y="{at + 4:.0f}" text-anchor="end">{label}</text>')
        for place, (side, curve) in enumerate(curves.items()):
            colour, thick = COLOURS[place % len(COLOURS)], 3 if place == 0 else 1.5
            points = " ".join(f"{x(n):.1f},{y(ns):.1f}" for n, ns in curve)
            dash = ' stroke-dasharray="5 3"' if place == 1 else ""
            out.append(
                f'<polyline points="{points}" fill="none" stroke="{colour}" '
                f'stroke-width="{thick}"{dash}/>'
            )
            out += [
                f'<circle cx="{x(n):.1f}" cy="{y(ns):.1f}" r="3" fill="{colour}"/>'
                for n, ns in curve
            ]
            at = top + 10 + 22 * place
            out.append(
                f'<path d="M{left + width + 14} {at}h22" stroke="{colour}" '
                f'stroke-width="{thick}"{dash}/>'
            )
            out.append(f'<text x="{left + width + 42}" y="{at + 4}">{side}</text>')
        return "\n".join(out) + "\n</svg>\n"

    def write(self, folder):
        text = (folder / "performance.md").read_text(encoding="utf-8")
        for name, table in self.tables().items():
            begin, end = f"<!-- {name}: begin -->\n", f"<!-- {name}: end -->"
            before, mark, rest = text.partition(begin)
            _, closing, after = rest.partition(end)
            if not mark or not closing:
                sys.exit(f"performance.md has no place for {name}")
            text = f"{before}{begin}{table}\n{end}{after}"
        (folder / "performance.md").write_text(text, encoding="utf-8")
        (folder / "performance").mkdir(exist_ok=True)
        for name, (row, step, title) in PLOTS.items():
            if self.sizes(row):
                plot = self.plot(row, step, title)
                (folder / "performance" / f"{name}.svg").write_text(plot, encoding="utf-8")


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    figures = Figures(Path(sys.argv[1]).read_text(encoding="utf-8"))
    for table in figures.tables().values():
        print(table, end="\n\n")
    faults = list(figures.faults())
    for fault in faults:
        print(fault, file=sys.stderr)
    if faults:
        sys.exit(1)
    if len(sys.argv) == 3:
        figures.write(Path(sys.argv[2]))


if __name__ == "__main__":
    main()
