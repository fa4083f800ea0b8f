#!/usr/bin/env python3
"""Checks the `#include` lines of the tree against its storeys.

    layering_test.py ROOT          walks the tree and reports each line that breaks a rule
    layering_test.py --self-test   feeds the check small trees with known faults

A storey uses the storeys below it: never one above, never a neighbour of the same height. A public
header carries the storey of the folder that implements it. In the folders that hold two storeys a
file belongs to the one whose CMake target compiles it, or compiles the source of the same name;
headers without such a source are named below. Umbrella headers, which gather a family for users,
may include anything, and no file of the library includes them.
"""

import re
import sys
import tempfile
from pathlib import Path

# What each storey is called in reports and in CMake (`oruquarn_storey( name ... )`).
HEIGHT = {
    "standins/base": 0,
    "standins/oru": 1,
    "standins/netns": 1,
    "standins/timeout": 1,
    "export macro": 1,
    "debug": 2,
    "containers": 3,
    "util": 4,
    "platform_lower": 4,
    "scheduler_values": 4,
    "timers_lower": 5,
    "stats_lower": 5,
    "scheduler": 6,
    "timers_upper": 7,
    "fdtask": 7,
    "stats_upper": 8,
    "platform_upper": 9,
    "framework": 10,
    # What the agents and the clients of show requests have in common.
    "tools/show": 10,
    "testing": 11,
    "tools": 11,
    "examples": 11,
    # Above the building: what looks at all of it.
    "tests": 12,
    "bench": 12,
    # The fuzz targets and the proof run what the tests have.
    "fuzz": 13,
    "prove": 13,
}
UMBRELLA = "umbrella"

SPLIT_FOLDERS = ("platform", "timers", "scheduler", "stats")

# Headers of the split folders that no source of the same name implements.
HEADERS = {
    "platform/ControlLife": "platform_lower",
    "platform/Controls": "platform_lower",
    "platform/EventHandlers": "platform_lower",
    "platform/Factories": "platform_lower",
    "platform/ThreadEnd": "platform_lower",
    "platform/Time": "platform_lower",
    "scheduler/TaskScheduler": "scheduler",
}

# Headers directly in include/Quarn.
TOP_HEADERS = {
    "Export.h": "export macro",
    "IntrusiveBookmarkLinkedList.h": "containers",
    "IntrusiveLinkedListBase.h": "containers",
    "Vector.h": "containers",
    "Debug.h": UMBRELLA,
    "DirNodeCpp.h": UMBRELLA,
    "FileLockCpp.h": UMBRELLA,
    "LibeventFactoryCpp.h": UMBRELLA,
    "PluginCpp.h": UMBRELLA,
    "Task.h": UMBRELLA,
    "TaskSchedulerCpp.h": UMBRELLA,
    "TimerWheelCpp.h": UMBRELLA,
    "UtilCpp.h": UMBRELLA,
}

# The storeys that include umbrella headers, as users do.
LIKE_USERS = ("tools", "examples", "tests", "bench", "fuzz", "prove")

STAND_INS = ("base", "oru", "netns", "timeout")
SUFFIXES = (".h", ".cc", ".c")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
STOREY_CALL = re.compile(r"oruquarn_storey\(\s*(\w+)\s+([^)]*)\)")


class Tree:
    def __init__(self, root):
        self.root = root
        self.files = sorted(
            path.relative_to(root)
            for path in root.rglob("*")
            if path.suffix in SUFFIXES and path.is_file() and not self._foreign(path)
        )
        self.known = {str(path) for path in self.files}
        self.compiled = {}
        for folder in SPLIT_FOLDERS:
            lists = root / folder / "CMakeLists.txt"
            if lists.is_file():
                text = re.sub(r"#.*", "", lists.read_text(encoding="utf-8"))
                for storey, sources in STOREY_CALL.findall(text):
                    for source in sources.split():
                        self.compiled[f"{folder}/{Path(source).stem}"] = storey

    def _foreign(self, path):
        top = path.relative_to(self.root).parts[0]
        return top.startswith(".") or top.startswith("build")

    def storey(self, path):
        """The storey of a file, UMBRELLA, or None when the table does not say."""
        parts = path.parts
        if parts[:2] == ("include", "OruQuarn"):
            return "framework"
        if parts[:2] == ("include", "Quarn"):
            if len(parts) == 3:
                return TOP_HEADERS.get(parts[2])
            parts = parts[2:]
        if parts[0] == "standins":
            return f"standins/{parts[1]}" if parts[1] in STAND_INS else None
        if len(parts) < 2:
            return None
        if parts[0] in SPLIT_FOLDERS:
            name = f"{parts[0]}/{path.stem}"
            storey = self.compiled.get(name, HEADERS.get(name))
            return storey if storey in HEIGHT else None
        # A folder within a folder may have a storey of its own.
        for folder in ("/".join(parts[:2]), parts[0]):
            if folder in HEIGHT:
                return folder
        return None

    def resolve(self, includer, quote, name):
        """The file of ours that an include line names; None for one of the system's."""
        places = ["include"] + [f"standins/{stand_in}/include" for stand_in in STAND_INS]
        if quote == '"':
            places = [str(includer.parent), ".", "tests"] + places
        for place in places:
            candidate = str(Path(place) / name)
            if candidate in self.known:
                return Path(candidate)
        return None

    def faults(self):
        found = []
        for path in self.files:
            storey = self.storey(path)
            if storey is None:
                found.append(f"{path}:1: no storey is known for this file")
                continue
            text = (self.root / path).read_text(encoding="utf-8")
            for number, line in enumerate(text.splitlines(), 1):
                match = INCLUDE.match(line)
                if match:
                    fault = self._fault(path, storey, *match.groups())
                    if fault:
                        found.append(f"{path}:{number}: {fault}")
        return found

    def _fault(self, path, storey, quote, name):
        target = self.resolve(path, quote, name)
        if target is None:
            ours = quote == '"' or name.startswith(("Quarn/", "Oru/", "OruQuarn/"))
            return f"there is no {name}" if ours else None
        if path.parts[0] in ("include", "standins") and "include" in path.parts:
            if "include" not in target.parts[:-1]:
                return f"a public header includes {target}, which is not installed"
        used = self.storey(target)
        if used is None or used == storey or storey == UMBRELLA:
            return None
        if used == UMBRELLA:
            if storey in LIKE_USERS:
                return None
            return f"{self._name(storey)} includes the umbrella header {name}"
        if HEIGHT[used] > HEIGHT[storey]:
            return f"{self._name(storey)} includes {name} of {self._name(used)} above it"
        if HEIGHT[used] == HEIGHT[storey]:
            return f"{self._name(storey)} includes {name} of its neighbour {self._name(used)}"
        return None

    @staticmethod
    def _name(storey):
        return f"storey {HEIGHT[storey]} ({storey})"


def self_test():
    clean = {
        "standins/base/include/Quarn/base/String.h": "#pragma once\n#include <string>\n",
        "standins/base/String.cc": '#include <Quarn/base/String.h>\n#include "Pool.h"\n',
        "standins/base/Pool.h": "",
        "standins/oru/include/Oru/Ptr.h": "#include <Quarn/base/String.h>\n",
        "include/Quarn/Export.h": "",
        "include/Quarn/Vector.h": "#include <Quarn/base/String.h>\n",
        "include/Quarn/debug/Trace.h": "#include <Quarn/Export.h>\n#include <Oru/Ptr.h>\n",
        "include/Quarn/util/Hash.h": "#include <Quarn/debug/Trace.h>\n",
        "include/Quarn/platform/Controls.h": "#include <Quarn/Export.h>\n",
        "include/Quarn/timers/TimerWheel.h": "#include <Quarn/platform/Controls.h>\n",
        "include/Quarn/timers/TimerTask.h": "#include <Quarn/timers/TimerWheel.h>\n",
        "include/Quarn/TimerWheelCpp.h": "#include <Quarn/timers/TimerTask.h>\n",
        "timers/CMakeLists.txt": "# oruquarn_storey( no TimerWheel.cc )\n"
        "oruquarn_storey( timers_lower TimerWheel.cc )\n"
        "oruquarn_storey( timers_upper\n   TimerTask.cc )\n",
        "timers/TimerWheel.cc": "#include <Quarn/timers/TimerWheel.h>\n",
        "timers/TimerTask.cc": "#include <Quarn/timers/TimerTask.h>\n",
        "examples/Agent.cc": '#include <Quarn/TimerWheelCpp.h>\n#include "tools/show/Wire.h"\n',
        "tools/show/Wire.h": "",
        "tools/client/Client.cc": '#include "tools/show/Wire.h"\n',
        "tests/support/Fatal.h": "",
        "tests/timers/TimerTest.cc": '#include "support/Fatal.h"\n#include <gtest/gtest.h>\n',
        "build/Generated.cc": "#include <Quarn/Nothing.h>\n",
    }
    # What a tree gets in addition, and what must be reported then.
    cases = [
        ({}, []),
        (
            {"debug/Trace.cc": "\n#  include <Quarn/util/Hash.h>\n"},
            [
                "debug/Trace.cc:2: storey 2 (debug) includes Quarn/util/Hash.h"
                " of storey 4 (util) above it"
            ],
        ),
        (
            {"util/Hash.cc": "#include <Quarn/platform/Controls.h>\n"},
            [
                "util/Hash.cc:1: storey 4 (util) includes Quarn/platform/Controls.h"
                " of its neighbour storey 4 (platform_lower)"
            ],
        ),
        (
            {"timers/TimerWheel.cc": "#include <Quarn/timers/TimerTask.h>\n"},
            [
                "timers/TimerWheel.cc:1: storey 5 (timers_lower) includes"
                " Quarn/timers/TimerTask.h of storey 7 (timers_upper) above it"
            ],
        ),
        (
            {"framework/Platform.cc": "#include <Quarn/TimerWheelCpp.h>\n"},
            [
                "framework/Platform.cc:1: storey 10 (framework) includes the umbrella header"
                " Quarn/TimerWheelCpp.h"
            ],
        ),
        (
            {"debug/Trace.cc": '#include <Quarn/debug/Gone.h>\n#include "debug/Lost.h"\n'},
            [
                "debug/Trace.cc:1: there is no Quarn/debug/Gone.h",
                "debug/Trace.cc:2: there is no debug/Lost.h",
            ],
        ),
        (
            {
                "debug/Handlers.h": "",
                "include/Quarn/util/Hash.h": '#include "debug/Handlers.h"\n',
            },
            [
                "include/Quarn/util/Hash.h:1: a public header includes debug/Handlers.h,"
                " which is not installed"
            ],
        ),
        (
            {
                "include/Quarn/Novel.h": "",
                "loose.cc": "",
                "novel/Novel.cc": "",
                "standins/novel/Novel.cc": "",
                "timers/Forgotten.cc": "",
            },
            [
                f"{name}:1: no storey is known for this file"
                for name in (
                    "include/Quarn/Novel.h",
                    "loose.cc",
                    "novel/Novel.cc",
                    "standins/novel/Novel.cc",
                    "timers/Forgotten.cc",
                )
            ],
        ),
        (
            {"testing/Clock.h": "", "tools/Top.cc": '#include "testing/Clock.h"\n'},
            [
                "tools/Top.cc:1: storey 11 (tools) includes testing/Clock.h"
                " of its neighbour storey 11 (testing)"
            ],
        ),
    ]
    failed = 0
    for more, expected in cases:
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder)
            for name, text in {**clean, **more}.items():
                (root / name).parent.mkdir(parents=True, exist_ok=True)
                (root / name).write_text(text, encoding="utf-8")
            reported = Tree(root).faults()
        if reported != expected:
            failed += 1
            print(f"tree with {', '.join(more) or 'nothing more'}:")
            print("   expected:", *expected, sep="\n      ")
            print("   reported:", *reported, sep="\n      ")
    print(f"{len(cases) - failed} of {len(cases)} trees judged as expected")
    return 1 if failed else 0


def main(arguments):
    if arguments == ["--self-test"]:
        return self_test()
    if len(arguments) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    tree = Tree(Path(arguments[0]).resolve())
    if not tree.files:
        print(f"no sources below {arguments[0]}", file=sys.stderr)
        return 2
    found = tree.faults()
    for line in found:
        print(line)
    print(f"{len(tree.files)} files, {len(found)} faults")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
