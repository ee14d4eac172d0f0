#!/usr/bin/env python3
"""Merges what gcov has of several objects into one file that gcovr prints (gcovr --add-tracefile).

Arguments: the tree, the build directory, the rooms, separated by commas. The instances of a template are one
function here: a branch of it is taken when one of them takes it. (gcovr 5.2 has each beside the others, and loses
sight of which branches are exceptions'.)
"""

import json
import re
import subprocess
import sys
from collections import defaultdict
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path


def counted(data):
    """What gcov has of one object. None when nothing ran."""
    done = subprocess.run(["gcov", "--json-format", "--stdout", "--branch-probabilities", str(data)],
                          capture_output=True, cwd=data.parent)
    return json.loads(done.stdout) if done.returncode == 0 and done.stdout else None


def main():
    tree, build, rooms = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve(), sys.argv[3].split(",")
    lines = defaultdict(lambda: defaultdict(int))  # file -> line -> how often it ran
    # file -> line -> (where its function starts, its layout) -> how often each branch was taken
    branches = defaultdict(lambda: defaultdict(dict))
    with ThreadPoolExecutor() as pool:
        objects = [o for o in pool.map(counted, sorted(build.rglob("*.gcda"))) if o]
    for part in objects:
        for file in part["files"]:
            path = Path(part["current_working_directory"], file["file"]).resolve()
            if not path.is_relative_to(tree) or path.relative_to(tree).parts[0] not in rooms:
                continue
            name = str(path.relative_to(tree))
            start = {f["name"]: (f["start_line"], f["start_column"]) for f in file["functions"]}
            for line in file["lines"]:
                number = line["line_number"]
                lines[name][number] += line["count"]
                # The compiler's own, which it leaves out of the program only when it optimises, are at the ends of
                # blocks.
                text = path.read_text().splitlines()[number - 1]
                taken = [b["count"] for b in line["branches"] if not b["throw"]]
                if not taken or not re.search(r"\w", text):
                    continue
                layout = tuple(b["fallthrough"] for b in line["branches"] if not b["throw"])
                key = (start.get(line.get("function_name")), layout)
                before = branches[name][number].get(key, [0] * len(taken))
                branches[name][number][key] = [a + b for a, b in zip(before, taken)]
    files = [{"file": name, "functions": [], "lines": [
        {"line_number": number, "count": count, "gcovr/noncode": False, "gcovr/excluded": False,
         "branches": [{"count": n, "fallthrough": False, "throw": False}
                      for taken in branches[name][number].values() for n in taken]}
        for number, count in sorted(found.items())]} for name, found in sorted(lines.items())]
    json.dump({"gcovr/format_version": "0.3", "files": files}, sys.stdout)


if __name__ == "__main__":
    main()
