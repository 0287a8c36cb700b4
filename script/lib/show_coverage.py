#!/usr/bin/env python3
"""Adds up a report of gcovr (JSON) by directory; writes the lines that never ran to a file."""

import json
import sys
from collections import defaultdict
from dataclasses import dataclass


@dataclass
class Count:
    lines: int = 0
    lines_run: int = 0
    branches: int = 0
    branches_run: int = 0

    def add(self, line):
        self.lines += 1
        self.lines_run += line["count"] > 0
        self.branches += len(line["branches"])
        self.branches_run += sum(branch["count"] > 0 for branch in line["branches"])


def counted(report):
    for file in report["files"]:
        for line in file["lines"]:
            if not line.get("gcovr/noncode") and not line.get("gcovr/excluded"):
                yield file["file"], line


def places_of(name):
    """The directory and the tree that it stands in."""
    parts = name.split("/")
    yield parts[0] + "/"
    if len(parts) > 2:
        yield "/".join(parts[:2]) + "/"


def percent(part, whole):
    return f"{100 * part / whole:5.1f} %" if whole else "    -  "


def main(report_name, uncovered_name):
    with open(report_name) as file:
        report = json.load(file)
    counts = defaultdict(Count)
    uncovered = []
    for name, line in counted(report):
        for place in places_of(name):
            counts[place].add(line)
        if line["count"] == 0:
            uncovered.append((name, line["line_number"]))
    print(f"{'directory':<22}{'lines':>8}{'run':>9}{'branches':>10}{'taken':>9}")
    for place, count in sorted(counts.items()):
        print(
            f"{place:<22}{count.lines:>8}{percent(count.lines_run, count.lines):>9}"
            f"{count.branches:>10}{percent(count.branches_run, count.branches):>9}"
        )
    with open(uncovered_name, "w") as file:
        for name, number in sorted(uncovered):
            with open(name) as source:
                text = source.read().splitlines()[number - 1].strip()
            file.write(f"{name}:{number}: {text}\n")
    print(f"{len(uncovered)} lines did not run: {uncovered_name}")


if __name__ == "__main__":
    main(*sys.argv[1:])
