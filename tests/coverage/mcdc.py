#!/usr/bin/env -S python3 -B
"""Modified condition/decision coverage of the library, of what a build's tests ran.

usage: mcdc.py BUILD-DIRECTORY

Of every decision that several conditions make (with && and ||) each condition must have been shown to turn the
decision by itself, but for those that mcdc_exceptions.txt names with a reason; an exception that is none any
more is an error too. A decision of one condition is a branch: coverage.py sees to it.
"""
import json
import re
import sys
from collections import defaultdict
from pathlib import Path

from counters import ROOT, counters_of, exceptions, fail, run

PROFDATA, COV = "llvm-profdata-19", "llvm-cov-19"
SOURCES = ROOT / "l2vpn/lib/src"


def decisions(export):
    """(file, line, column of the beginning): which of its conditions were shown to matter, in some instance."""
    found = defaultdict(list)
    for function in json.loads(export)["data"][0]["functions"]:
        for line, column, _, _, file, *_, conditions in function["mcdc_records"]:
            key = (function["filenames"][file], line, column)
            before = found[key] or [False] * len(conditions)
            found[key] = [one or other for one, other in zip(before, conditions, strict=True)]
    return {key: conditions for key, conditions in found.items() if Path(key[0]).is_relative_to(SOURCES)}


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: mcdc.py BUILD-DIRECTORY")
    what = counters_of(Path(sys.argv[1]).resolve(), PROFDATA)
    found = decisions(run(COV, "export", "-skip-expansions", *what, SOURCES))
    if not found:
        fail("no decision of the library was counted")
    excused = exceptions("mcdc_exceptions.txt", re.compile(r"condition \d+"))
    faults = []
    for (path, line, column), conditions in sorted(found.items()):
        relative = str(Path(path).relative_to(ROOT))
        text = Path(path).read_text().splitlines()[line - 1].strip()
        for number, shown in enumerate(conditions, 1):
            if not shown and not excused.excuse(relative, f"condition {number}", text):
                faults.append(f"{relative}:{line}:{column}: condition {number} of {len(conditions)} was never shown "
                              f"to matter: {text}")
    total, shown = sum(map(len, found.values())), sum(map(sum, found.values()))
    print(f"library: {shown} of {total} conditions of {len(found)} decisions shown to matter")
    faults += excused.unused()
    for fault in faults:
        print(fault, file=sys.stderr)
    sys.exit(1 if faults else 0)


main()
