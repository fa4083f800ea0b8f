#!/usr/bin/env python3
"""Makes the table of docs/performance.md from the figures of bench_steps.

    table.py FIGURES          prints the table
    table.py FIGURES FOLDER   writes it into FOLDER/performance.md, between its marks
"""

import json
import sys
from pathlib import Path


def table(steps):
    shapes = list(steps[0]["ms"])
    lines = ["| Step, ms | " + " | ".join(shapes) + " | quanta, at 100k |",
             "|---|" + "---:|" * (len(shapes) + 1)]
    for step in steps:
        cells = [f"{step['ms'][shape]:.2f}" for shape in shapes] + [f"{step['quanta']:.1f}"]
        lines.append(f"| {step['step']} | " + " | ".join(cells) + " |")
    return "\n".join(lines) + "\n"


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    made = table(json.loads(Path(sys.argv[1]).read_text(encoding="utf-8")))
    if len(sys.argv) == 2:
        print(made, end="")
        return
    document = Path(sys.argv[2]) / "performance.md"
    begin, end = "<!-- steps: begin -->\n", "<!-- steps: end -->"
    before, mark, rest = document.read_text(encoding="utf-8").partition(begin)
    _, closing, after = rest.partition(end)
    if not mark or not closing:
        sys.exit("performance.md has no place for the steps")
    document.write_text(f"{before}{begin}{made}{end}{after}", encoding="utf-8")


if __name__ == "__main__":
    main()
