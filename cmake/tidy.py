#!/usr/bin/env python3
"""Runs clang-tidy over the sources, several at a time, and prints each finding once.

    tidy.py --build FOLDER [--jobs N] [FILE...]

What a source was found to hold is kept in the build folder for as long as the source, the headers
that it includes, its compile command, .clang-tidy and clang-tidy itself stay the same.

Exits 0 when there is no finding, 1 when there is one, and 2 when a source could not be looked
through: it has no compile command, or clang-tidy failed.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import re
import subprocess
import sys
from functools import lru_cache
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TIDY = "clang-tidy-14"
HEAD = re.compile(r"^(?P<file>\S[^:]*):(?P<line>\d+):\d+: (?:warning|error): .* \[(?P<check>[^\]]+)\]$")


class Failure(Exception):
    """A source that was not looked through."""


def sources(build):
    """The first compile command of every source under version control, also written as a project."""
    listed = subprocess.run(["git", "ls-files", "-z", "*.c", "*.cc"], cwd=ROOT, check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    tracked = {str(ROOT / name) for name in listed.split("\0") if name and (ROOT / name).exists()}
    commands = {}
    for entry in json.loads((build / "compile_commands.json").read_text(encoding="utf-8")):
        if entry["file"] in tracked:
            commands.setdefault(entry["file"], entry)
    project = build / "sources"
    project.mkdir(exist_ok=True)
    (project / "compile_commands.json").write_text(
        json.dumps(list(commands.values()), indent=1), encoding="utf-8")
    lacking = sorted(tracked - set(commands))
    if lacking:
        raise Failure("no compile command for " + ", ".join(lacking))
    return project, commands


@lru_cache(maxsize=None)
def digest(name):
    return hashlib.sha256(Path(name).read_bytes()).hexdigest()


@lru_cache(maxsize=None)
def tool():
    version = subprocess.run([TIDY, "--version"], check=True, stdout=subprocess.PIPE, text=True)
    # The processor it runs on is among what it says.
    return re.search(r"version \S+", version.stdout)[0]


def state(command, included):
    """Everything that the findings in a source depend on; empty when a header has gone."""
    settings = [folder / ".clang-tidy" for folder in Path(command["file"]).parents]
    read = [str(name) for name in settings if name.exists()] + included
    try:
        return hashlib.sha256(
            json.dumps([tool(), command, [[name, digest(name)] for name in read]]).encode()
        ).hexdigest()
    except OSError:
        return ""


def look_through(project, command):
    """What clang-tidy says of a source, and whether it was asked anew."""
    source = command["file"]
    kept = project / (hashlib.sha256(source.encode()).hexdigest() + ".json")
    try:
        known = json.loads(kept.read_text(encoding="utf-8"))
        if known["state"] == state(command, known["included"]):
            return known["said"], False
    except (OSError, ValueError, KeyError):
        pass
    done = subprocess.run([TIDY, "-p", str(project), "--quiet", "--extra-arg=-H", source],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          errors="replace", check=False)
    heads = list(filter(None, map(HEAD.match, done.stdout.splitlines())))
    # What does not compile was not looked through; in our own files that is a finding.
    foreign = [head[0] for head in heads if head["check"] == "clang-diagnostic-error"
               and not Path(head["file"]).is_relative_to(ROOT)]
    if foreign:
        raise Failure(f"{source} does not compile:\n" + "\n".join(foreign))
    if done.returncode != 0 and not heads:
        raise Failure(f"{TIDY} ended with {done.returncode} on {source}:\n"
                      + "\n".join(done.stderr.splitlines()[-20:]))
    # A header that was included is told as dots for the depth, and its name.
    folder = Path(command["directory"])
    included = [source] + sorted(
        {str(folder / name) for name in re.findall(r"^\.+ (.+)$", done.stderr, re.M)})
    if len(included) == 1 and "#include" in Path(source).read_text(encoding="utf-8"):
        raise Failure(f"{TIDY} names no header of {source}")
    kept.write_text(json.dumps({"state": state(command, included), "included": included,
                                "said": done.stdout}), encoding="utf-8")
    return done.stdout, True


def findings(said):
    """Pairs of what makes a finding the same and its lines; none of the system's headers."""
    found, ours = [], False
    for line in said.splitlines():
        head = HEAD.match(line)
        if head:
            ours = Path(head["file"]).is_relative_to(ROOT)
            if ours:
                name = os.path.relpath(head["file"], ROOT)
                key = name, int(head["line"]), head["check"]
                found.append((key, [line.replace(head["file"], name, 1)]))
        elif ours:
            found[-1][1].append(line)
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--project-only", action="store_true",
                        help="no more than the compile commands of the sources")
    parser.add_argument("files", nargs="*", type=Path)
    options = parser.parse_args()

    all_found, failed, anew = {}, [], 0
    try:
        project, commands = sources(options.build.resolve())
        if options.project_only:
            return 0
        wanted = [str(file.resolve()) for file in options.files] or sorted(commands)
        unknown = [name for name in wanted if name not in commands]
        if unknown:
            raise Failure("not a source of the project: " + ", ".join(unknown))
    except Failure as failure:
        print(f"lint: {failure}", file=sys.stderr)
        return 2

    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        asked = [pool.submit(look_through, project, commands[name]) for name in wanted]
        for answer in asked:
            try:
                said, fresh = answer.result()
                anew += fresh
                for key, lines in findings(said):
                    all_found.setdefault(key, lines)
            except (Failure, OSError) as failure:
                failed.append(str(failure))
    for _, lines in sorted(all_found.items()):
        print("\n".join(lines))
    for failure in failed:
        print(f"lint: {failure}", file=sys.stderr)
    print(f"lint: {TIDY}: {len(wanted)} sources, {anew} of them looked through anew,"
          f" {len(all_found)} findings", file=sys.stderr)
    return 2 if failed else 1 if all_found else 0


if __name__ == "__main__":
    sys.exit(main())
