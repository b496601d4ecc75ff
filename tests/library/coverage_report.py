#!/usr/bin/env python3
"""Prints what of the library's unit its tests reach, from what llvm-cov exports (standard input).

Lines, branches both ways, and for each decision of several conditions whether each of them was seen
to decide it alone (MC/DC). Fails when something was missed that has no reason to be.
"""
import collections
import json
import re
import sys

# Why a place can't be reached, by its source line.
OVERFLOW = re.compile(r"__builtin_(add|mul)_overflow|length >= UINT32_MAX")
REASONS = {
    "overflow": "a size that overflows aborts, and nothing that fits in memory makes one",
    "compiler": "formats are checked by the compiler",
}


def compiled_lines(functions, filename):
    """The lines of functions that run in the compiler only."""
    lines = set()
    for function in functions:
        if function["filenames"][0] == filename and not function["count"] and \
                "LogFormat" in function["name"]:
            start, _, end = function["regions"][0][:3]
            lines.update(range(start, end + 1))
    return lines


def missed_branches(file):
    """Line and description; a template's instantiations count together."""
    counts = collections.Counter()
    for line, column, _, _, taken, untaken, *_ in file["branches"]:
        counts[line, column, "true"] += taken
        counts[line, column, "false"] += untaken
    return [(line, f"{column}: never {way}")
            for (line, column, way), count in counts.items() if not count]


def other_misses(file):
    for line, column, count, has_count, is_entry, _ in file["segments"]:
        if has_count and is_entry and not count:
            yield line, f"{column}: not run"
    for line, column, *_, conditions in file["mcdc_records"]:
        for number, decides in enumerate(conditions, 1):
            if not decides:
                yield line, f"{column}: condition {number} never decides alone"


def report(file, path, functions):
    """Returns how much was missed without a reason."""
    summary = file["summary"]
    print(f"{path}: " + ", ".join(
        f"{summary[kind]['covered']} of {summary[kind]['count']} {name}" for kind, name in
        (("lines", "lines"), ("branches", "branches"), ("mcdc", "conditions (MC/DC)"))))
    with open(path, encoding="utf-8") as source:
        text = source.read().splitlines()
    compiled = compiled_lines(functions, file["filename"])
    branches = missed_branches(file)
    unexplained = summary["branches"]["notcovered"] - len(branches)
    if unexplained:
        print(f"  {path}: {unexplained} branches of macros")
    places = collections.defaultdict(set)
    for line, what in branches + list(other_misses(file)):
        if OVERFLOW.search(text[line - 1]):
            places["overflow"].add(line)
        elif line in compiled:
            places["compiler"].add(line)
        else:
            unexplained += 1
            print(f"  {path}:{line}:{what}")
    for reason, lines in places.items():
        print(f"  not reached: {REASONS[reason]}: lines {', '.join(map(str, sorted(lines)))}")
    return unexplained


def main():
    data = json.load(sys.stdin)["data"][0]
    unexplained = 0
    for file in data["files"]:
        path = re.sub("^build/", "", file["filename"])
        if path.startswith("datapath_proxy/src/"):
            unexplained += report(file, path, data["functions"])
    if unexplained:
        sys.exit(f"{unexplained} missed without a reason")


if __name__ == "__main__":
    main()
