#!/usr/bin/env python3
"""Prints what of the library's unit its tests reach, from what llvm-cov exports (standard input).

Lines, branches both ways, and for each decision of several conditions whether each of them was seen
to decide it alone (MC/DC). Fails when something was missed that can be reached.
"""
import collections
import json
import re
import sys

# A size that overflows aborts, and nothing that fits in memory makes one.
OVERFLOW = re.compile(r"__builtin_(add|mul)_overflow|length >= UINT32_MAX")


def misses(file):
    """Line and description; a template's instantiations count together."""
    counts = collections.Counter()
    for line, column, _, _, taken, untaken, *_ in file["branches"]:
        counts[line, f"{column}: never true"] += taken
        counts[line, f"{column}: never false"] += untaken
    yield from (place for place, count in counts.items() if not count)
    for line, column, count, has_count, is_entry, _ in file["segments"]:
        if has_count and is_entry and not count:
            yield line, f"{column}: not run"
    for line, column, *_, conditions in file["mcdc_records"]:
        for number, decides in enumerate(conditions, 1):
            if not decides:
                yield line, f"{column}: condition {number} never decides alone"


status = 0
for its in json.load(sys.stdin)["data"][0]["files"]:
    path = re.sub("^build/", "", its["filename"])
    if path.startswith("datapath_proxy/src/"):
        print(path, *(f"{its['summary'][kind]['covered']} of {its['summary'][kind]['count']} {kind}"
                      for kind in ("lines", "branches", "mcdc")), sep=", ")
        with open(path, encoding="utf-8") as source:
            text = source.read().splitlines()
        for missed_line, what in misses(its):
            if not OVERFLOW.search(text[missed_line - 1]):
                print(f"  {path}:{missed_line}:{what}")
                status = 1
sys.exit(status)
