#!/usr/bin/env python3
"""Compares the lines that the tests did not run with the page that gives each its reason.

coverage.py JSON [--lines]: JSON is gcovr's. Prints the lines of each file that were run; with --lines also
those that were not. Fails when an uncovered function is not in the table of coverage.md, or the total is
below 95%.
"""

import json
import re
import sys
from pathlib import Path

PAGE = Path(__file__).resolve().parent / "coverage.md"
WANTED = 95.0
# | `file` | `function`, `function` | reason |
ROW = re.compile(r"^\| `([\w./]+)` \| (.+?) \|")


def listed():
    rows = (ROW.match(line) for line in PAGE.read_text().splitlines())
    return {(row[1], function) for row in rows if row for function in re.findall(r"`(\w+)`", row[2])}


def function_at(functions, line):
    """The name, without its arguments, of the function that begins at or above the line."""
    begun = [(at, name) for at, name in functions if at <= line]
    return re.sub(r"\(.*", "", max(begun)[1].replace("(anonymous namespace)::", "")) if begun else "inlined"


def main():
    wants_lines = "--lines" in sys.argv
    uncovered, total, total_run = {}, 0, 0
    files = json.loads(Path(sys.argv[1]).read_text())["files"]
    for each in sorted(files, key=lambda f: f["file"]):
        name = re.sub(r"^(shared/src|include)/", "", each["file"])
        counts = {}
        for line in each["lines"]:
            if not line.get("gcovr/noncode"):
                counts[line["line_number"]] = counts.get(line["line_number"], 0) + line["count"]
        run = sum(count > 0 for count in counts.values())
        total, total_run = total + len(counts), total_run + run
        functions = [(f["lineno"], f["name"]) for f in each["functions"]]
        for line in sorted(n for n, count in counts.items() if count == 0):
            uncovered.setdefault((name, function_at(functions, line)), []).append(line)
        if counts:
            print(f"{100 * run / len(counts):6.1f}% {run:5} of {len(counts):5}  {name}")
    figure = 100 * total_run / max(total, 1)
    print(f"{figure:6.1f}% {total_run:5} of {total:5}  lines of the library")
    known = listed()
    if wants_lines:
        for (name, function), lines in uncovered.items():
            print(f"{name}: {function}: {' '.join(map(str, lines))}")
    missing = [place for place in uncovered if place not in known]
    for name, function in missing:
        lines = " ".join(map(str, uncovered[name, function]))
        print(f"not run and not in {PAGE.name}: {name} {function}, lines {lines}")
    for name, function in sorted(known - set(uncovered)):
        print(f"in {PAGE.name}, and run this time: {name} {function}")
    return 1 if missing or figure < WANTED else 0


sys.exit(main())
