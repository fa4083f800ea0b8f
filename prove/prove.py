#!/usr/bin/env python3
"""Runs the rows of the proof, prints one table of them and writes it as JSON.

    prove.py --build FOLDER [--fast | --long] [--rows 5,6,9] [--json FILE] [--seed S] [--shuffle]
             [--times N]

scripts/prove builds and calls it. The JSON goes to build/prove.json if no FILE is named. Exits 0
when every row that ran has met its goal, else 1.
"""

import argparse
import concurrent.futures
import itertools
import json
import os
import random
import re
import signal
import subprocess
import sys
import time
import traceback
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
# What failing rows have said.
SAID = ROOT / "build" / "prove-said"
TIERS = ("fast", "default", "long")
# What somebody looks into by hand, or has a tool pass over, is not to make a row another.
BY_HAND = re.compile(
    r"(PROVE_|ORUQUARN_TEST_|GTEST_|CTEST_|EVENT_)|"
    r"(BUILD|TARGETS|TRACE|TRACEFORMAT|WAITFOR_DEFAULT|[A-Z]+SAN_OPTIONS|VALGRIND_OPTS|LD_PRELOAD)$")

# More than any row needs on two cores, so that one that hangs is told and ends.
LONGEST = {"fast": 240, "default": 3600, "long": 4 * 3600}


@dataclass
class Outcome:
    row: int
    name: str
    ok: bool
    figure: str
    goal: str
    repeat: str
    count: str = "whole"
    seconds: float = 0.0


@dataclass
class Program:
    """A row that a program of this folder makes: its name, and the count of each tier."""

    row: int
    name: str
    goal: str
    counts: dict = field(default_factory=dict)  # of a tier that takes less than the whole
    first: str = "fast"  # the first tier that runs it
    build: str = ""  # another build than the common one


PROGRAMS = [
    Program(3, "threads", "0 races; descriptors and memory back to the start", first="default",
            build="tsan"),
    Program(5, "allocation_failures", "std::bad_alloc or a documented end at every point"),
    Program(6, "system_calls", "at least 150 pairs, each as documented"),
    Program(7, "scheduler", "no difference", {"fast": 100_000}),
    Program(8, "timers", "none early, none lost", {"fast": 1_000_000}),
    Program(9, "allocations", "0"),
    Program(10, "forks", "0 wake-ups missed", {"fast": 100}),
    Program(11, "soak", "memory slope 0, counters equal, under a minute", first="default"),
    Program(12, "clock_steps", "no timer early or lost"),
    Program(13, "descriptors", "no event to the wrong owner, none lost", {"fast": 10_000}),
]


class Proof:
    def __init__(self, options):
        self.tier = options.tier
        self.times = options.times
        self.seed = options.seed
        self.build = options.build.resolve()
        self.limit = LONGEST[self.tier]

    def runs_in(self, first):
        return TIERS.index(self.tier) >= TIERS.index(first)

    def run(self, command, **environment):
        """Output and exit status of a command; None for the status when it was ended."""
        try:
            process = subprocess.Popen(
                [str(word) for word in command],
                cwd=ROOT,
                env={**{name: value for name, value in os.environ.items()
                        if not BY_HAND.match(name)}, **environment},
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                errors="replace",
                start_new_session=True,
            )
        except OSError as error:
            return str(error), 127
        with process:
            try:
                said, _ = process.communicate(timeout=self.limit)
                return said, process.returncode
            except subprocess.TimeoutExpired:
                # With the children that it has forked, which hold the pipe open.
                os.killpg(process.pid, signal.SIGKILL)
                said, _ = process.communicate()
                return said, None

    def program(self, row):
        folder = ROOT / "build" / row.build if row.build else self.build
        command = [folder / "prove" / f"prove_{row.name}"]
        count = row.counts.get(self.tier)
        if count:
            command += ["--count", count]
        if self.seed is not None:
            command += ["--seed", self.seed]
        said, status = self.run(command)
        lines = said.strip().splitlines() or [""]
        # The first line is the command that repeats the run; the row is the last, but for what a
        # sanitizer says at the end.
        repeat = next((line for line in lines if f"prove_{row.name} --count " in line),
                      " ".join(map(str, command)))
        row_lines = [line for line in lines if line.startswith('{"row"')] or [""]
        try:
            told = json.loads(row_lines[-1])
            figure, ok = told["figure"], bool(told["ok"]) and status == 0
            repeat, goal = told["repeat"], told["goal"]
        except (ValueError, KeyError, TypeError):
            figure, ok, goal = ended(status), False, row.goal
        if row.build:
            seed = re.search(r"--seed (\d+)", repeat)
            repeat = f"scripts/prove --rows {row.row}" + (f" --seed {seed[1]}" if seed else "")
        repeat = repeat.replace(f"{ROOT}/", "")
        if not ok:
            tell(f"{row.name} said", said)
        return Outcome(row.row, row.name, ok, figure, goal, repeat,
                       f"{count:,}" if count else "whole")

    # Row 1.
    def coverage(self):
        return [coverage_of(self)]

    # Row 2.
    def tools(self):
        calls = [
            lambda: self.suite("asan-ubsan", "reports of ASan, UBSan, LSan"),
            lambda: self.suite("tsan", "reports of TSan"),
            lambda: self.findings("clang-tidy", ["scripts/lint", "clang-tidy"]),
            lambda: self.findings("cppcheck", ["scripts/lint", "cppcheck"]),
        ]
        if self.runs_in("long"):
            calls.append(self.valgrind)
        outcomes = []
        for call in calls:
            begin = time.monotonic()
            outcomes.append(call())
            outcomes[-1].seconds = time.monotonic() - begin
        return outcomes

    def suite(self, preset, name):
        said, status = self.run(["scripts/test"], PRESET=preset)
        return self.of_suite(2, name, said, status, f"PRESET={preset} scripts/test")

    def valgrind(self):
        said, status = self.run(["scripts/valgrind"])
        return self.of_suite(2, "reports of valgrind", said, status, "scripts/valgrind")

    def of_suite(self, row, name, said, status, repeat):
        # One line for each run of ctest.
        found = re.findall(r"\d+% tests passed, (\d+) tests failed out of (\d+)", said)
        failed, cases = (sum(map(int, column)) for column in zip(*found)) if found else (0, 0)
        ok = status == 0 and failed == 0 and cases > 0
        skipped = len(re.findall(r"\*\*\*Skipped", said))
        figure = f"{failed} in {cases} cases" if found else ended(status)
        reports = len(re.findall(r" has a report:$", said, re.MULTILINE))
        if reports:
            figure += f", {reports} with a report"
        if skipped:
            figure += f", {skipped} skipped"
        if not ok:
            tell(name, said)
        return Outcome(row, name, ok, figure, "0", repeat)

    def findings(self, name, command):
        said, status = self.run(command)
        count = len(re.findall(r": (?:warning|error|style|performance|portability): ", said))
        ok = status == 0 and count == 0
        if not ok:
            tell(name, said)
        return Outcome(2, f"findings of {name}", ok, str(count) if count else ended(status, "0"),
                       "0", " ".join(command))

    # Row 4.
    def fuzz(self):
        if not self.runs_in("default"):
            return [self.corpus()]
        said, status = self.run(["scripts/fuzz"])
        if status != 0:
            tell("fuzz", said)
        verdicts = re.findall(r"^\w+ +(\d+|-) +(?:\d+|-) +(ok|FOUND)\b", said, re.MULTILINE)
        executions = sum(int(count) for count, _ in verdicts if count != "-")
        found = sum(verdict == "FOUND" for _, verdict in verdicts)
        ok = status == 0 and found == 0 and len(verdicts) == len(fuzz_folders())
        return [Outcome(4, "fuzz targets", ok,
                        f"{len(verdicts)} targets, {executions:,} executions, {found} found",
                        "0 crashes, 0 hangs", "scripts/fuzz", "60 s each")]

    def corpus(self):
        """What is kept of earlier runs, by programs without the fuzzer."""
        folders = fuzz_folders()
        inputs, failed = 0, []
        for folder in folders:
            said, status = self.run([self.build / "fuzz" / f"fuzz_{folder.name}", folder])
            inputs += len(list(folder.iterdir()))
            if status != 0:
                failed.append(folder.name)
                tell(f"fuzz_{folder.name}", said)
        figure = f"failed: {', '.join(failed)}" if failed else (
            f"{len(folders)} targets, {inputs} inputs, 0 crashes")
        return Outcome(4, "fuzz targets", not failed, figure, "0 crashes, 0 hangs",
                       "scripts/prove --fast --rows 4", "corpus")

    # Row 14.
    def flakes(self):
        failed, times = [], self.times
        load = [subprocess.Popen([sys.executable, "-c", "while True: pass"])
                for _ in range(os.cpu_count() or 1)]
        fast = [sys.executable, __file__, "--build", self.build, "--fast", "--shuffle",
                "--json", os.devnull]
        # Each case is a process of its own, so that its order is who runs beside it.
        suite = ["ctest", "--preset", "debug", "--schedule-random", "--no-tests=error",
                 "--parallel", os.cpu_count() or 1, "--output-on-failure"]
        try:
            for turn in range(times):
                for command in (fast + ["--seed", random.randrange(10**9)], suite):
                    said, status = self.run(command)
                    if status != 0:
                        failed.append(turn)
                        tell(f"run {turn}, {' '.join(map(str, command))}", said)
        finally:
            for process in load:
                process.kill()
                process.wait()
        return [Outcome(14, "flakes", not failed, f"{len(failed)} failures", "0 failures",
                        "scripts/prove --long --rows 14", f"{times} times, beside load")]

    def rows(self, wanted):
        """What to run, by number."""
        made = {1: ("default", self.coverage), 2: ("default", self.tools),
                4: ("fast", self.fuzz), 14: ("long", self.flakes)}
        for row in PROGRAMS:
            made[row.row] = (row.first, lambda row=row: [self.program(row)])
        return {
            number: call
            for number, (first, call) in sorted(made.items())
            if self.runs_in(first) and (not wanted or number in wanted)
        }


def fuzz_folders():
    """The inputs that are kept for each fuzz target."""
    return sorted(path for path in (ROOT / "fuzz" / "corpus").iterdir() if path.is_dir())


def coverage_of(proof):
    """Lines and branches of each folder over the whole suite."""
    strict = {"scheduler", "timers", "fdtask", "stats"}
    said, status = proof.run(["scripts/coverage", "--json"])
    try:
        folders = json.loads(said.strip().splitlines()[-1])
    except (ValueError, IndexError):
        tell("coverage", said)
        return Outcome(1, "coverage", False, ended(status), "lines / branches",
                       "scripts/coverage")
    missed = [f"{folder} not found" for folder in sorted(strict - set(folders))]
    for folder, (line, branch) in sorted(folders.items()):
        goal = (97, 90) if folder in strict else (93, 85)
        if line < goal[0] or branch < goal[1]:
            missed.append(f"{folder} {line:.1f}/{branch:.1f}")
    lowest = min(folders.items(), key=lambda item: item[1])
    figure = ("below: " + ", ".join(missed)) if missed else (
        f"lowest {lowest[0]} {lowest[1][0]:.1f}/{lowest[1][1]:.1f}")
    if status != 0 and not missed:
        tell("coverage", said)
        figure = ended(status)
    return Outcome(1, "coverage", status == 0 and not missed, figure,
                   "97/90 core, 93/85 elsewhere", "scripts/coverage")


def ended(status, well="nothing said"):
    if status is None:
        return "did not end in time"
    return well if status == 0 else f"ended with {status}"


def tell(who, said):
    """Shows the end of what a program said, and where all of it is."""
    name = re.sub(r"[^a-z0-9]+", "-", who.lower())[:60].strip("-")
    try:
        SAID.mkdir(parents=True, exist_ok=True)
        for number in itertools.count(1):
            file = SAID / f"{name}-{number}.txt"
            try:
                with open(file, "x", encoding="utf-8") as out:
                    out.write(said)
                break
            except FileExistsError:
                pass
        where = f"all of it in {file.relative_to(ROOT)}"
    except OSError as error:
        where = f"the end of it, since {error}"
    tail = "\n".join(said.strip().splitlines()[-60:])
    print(f"\n---- {who}, {where}:\n{tail}\n----", file=sys.stderr, flush=True)


def table(outcomes):
    head = ("row", "what", "figure", "goal", "count", "time", "")
    lines = [head] + [
        (str(o.row), o.name, o.figure, o.goal, o.count, f"{o.seconds:.0f} s",
         "ok" if o.ok else "MISSED")
        for o in outcomes
    ]
    widths = [max(len(line[column]) for line in lines) for column in range(len(head))]
    for line in lines:
        print("  ".join(text.ljust(width) for text, width in zip(line, widths)).rstrip())
    print("\nto repeat")
    for o in outcomes:
        print(f"  {o.row:2}  {o.repeat}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", type=Path, required=True)
    tier = parser.add_mutually_exclusive_group()
    tier.add_argument("--fast", dest="tier", action="store_const", const="fast")
    tier.add_argument("--long", dest="tier", action="store_const", const="long")
    parser.add_argument("--rows", default="")
    parser.add_argument("--json", type=Path, default=ROOT / "build" / "prove.json")
    parser.add_argument("--seed", type=int)
    parser.add_argument("--times", type=int, default=50, help="how often row 14 runs the fast tier")
    parser.add_argument("--shuffle", action="store_true", help="rows in random order")
    parser.set_defaults(tier="default")
    options = parser.parse_args()
    if options.times < 1:
        parser.error("--times takes a number from 1")
    try:
        wanted = {int(number) for number in options.rows.split(",") if number}
    except ValueError:
        parser.error(f"--rows takes numbers between commas, not '{options.rows}'")

    proof = Proof(options)
    rows = proof.rows(wanted)
    if not rows or wanted - set(rows):
        lacking = ", ".join(str(row) for row in sorted(wanted - set(rows)))
        parser.error(f"the {options.tier} tier has no row {lacking}")

    def timed(number):
        begin = time.monotonic()
        try:
            outcomes = rows[number]()
        except Exception as error:  # the other rows have their say, and the table is written
            tell(f"row {number}", traceback.format_exc())
            outcomes = [Outcome(number, "-", False, repr(error), "-", f"scripts/prove --rows {number}")]
        for outcome in outcomes:
            outcome.seconds = outcome.seconds or time.monotonic() - begin
        return outcomes

    if options.shuffle:
        # The order is part of what a seed repeats.
        numbers = list(rows)
        random.Random(options.seed).shuffle(numbers)
        rows = {number: rows[number] for number in numbers}

    # Builds and suites take all cores; the programs go side by side, one for each.
    alone = [number for number in rows if number in (1, 2, 4, 14)]
    outcomes = []
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 1) as pool:
        for made in pool.map(timed, [n for n in rows if n not in alone]):
            outcomes += made
    for number in alone:
        outcomes += timed(number)
    outcomes.sort(key=lambda outcome: outcome.row)

    print(f"tier {options.tier}\n")
    table(outcomes)
    options.json.write_text(
        json.dumps([{"tier": options.tier, **vars(o)} for o in outcomes], indent=2) + "\n",
        encoding="utf-8")
    missed = [str(o.row) for o in outcomes if not o.ok]
    print(f"\n{len(outcomes)} rows, " + (f"missed: {', '.join(missed)}" if missed else "all met"))
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
