#!/usr/bin/env -S python3 -B
"""Line and branch coverage of what a build's tests ran, held against what is asked of each part.

usage: coverage.py BUILD-DIRECTORY

Of the library every line and every branch must have run, but for those that exceptions.txt names with a
reason; an exception that is none any more is an error too. Of the other parts a share is asked for. Functions
that only the compiler runs (constexpr, never called at run time) are left out, and named.
"""
import json
import re
import sys
from collections import defaultdict
from pathlib import Path

from counters import ROOT, counters_of, exceptions, fail, run

PROFDATA, COV = "llvm-profdata-14", "llvm-cov-14"

# A part, its directories, and the share of its lines and of its branches that must have run; 1: all of them.
PARTS = [
    ("library", ["l2vpn/lib/src"], 1, 1),
    ("platform", ["l2vpn/platform/common", "l2vpn/platform/posix"], 0.95, 0.95),
    ("simulated platform", ["l2vpn/platform/sim"], 0.95, 0.95),
    ("process", ["l2vpn/process"], 0.9, 0),
    ("recordings", ["l2vpn/capture"], 0.9, 0),
    ("tools", ["l2vpn/tools"], 0.9, 0),
]


def head(text, line):
    """The line that a function's body begins in, with the signature before it."""
    rows = [text[line - 1]]
    while rows[0].strip() == "{" or rows[0].startswith((" " * 24,)):
        line -= 1
        rows.insert(0, text[line - 1])
    return " ".join(rows)


def compile_time(export, source):
    """The functions that never ran because the compiler runs them: by their first line, the lines."""
    never, ran = {}, set()
    for function in json.loads(export)["data"][0]["functions"]:
        first, _, last = function["regions"][0][:3]
        if function["filenames"][0] != source[0]:
            continue
        within = range(first, last + 1)
        if function["count"] > 0:
            ran.update(within)
        elif "constexpr" in head(source[1], first):
            never[first] = set(within)
    return {first: within - ran for first, within in never.items() if within - ran}


class file_coverage:
    def __init__(self, path):
        self.path = path
        self.text = Path(path).read_text().splitlines()
        self.lines = defaultdict(int)
        self.branches = defaultdict(int)

    def leave_out(self, lines):
        self.lines = {line: count for line, count in self.lines.items() if line not in lines}
        self.branches = {key: count for key, count in self.branches.items() if key[0] not in lines}

    def missed(self):
        """What did not run: pairs of its kind and its line."""
        result = {("line", line) for line, count in self.lines.items() if count == 0}
        dead = {line for _, line in result}
        return result | {("branch", key[0]) for key, count in self.branches.items() if count == 0 and key[0] not in dead}


def read_lcov(text):
    files, current = {}, None
    for row in text.splitlines():
        key, _, value = row.partition(":")
        if key == "SF":
            current = files.setdefault(value, file_coverage(value))
        elif key == "DA":
            line, count = value.split(",")[:2]
            current.lines[int(line)] += int(count)
        elif key == "BRDA":
            line, block, branch, count = value.split(",")
            current.branches[(int(line), block, branch)] += 0 if count == "-" else int(count)
    return files


def share(have, of):
    return f"{have / of:7.2%} of {of}" if of else "   none"


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: coverage.py BUILD-DIRECTORY")
    what = counters_of(Path(sys.argv[1]).resolve(), PROFDATA)
    excused = exceptions("exceptions.txt", re.compile("line|branch"))
    faults, compilers = [], []
    for name, folders, asked_lines, asked_branches in PARTS:
        sources = [ROOT / folder for folder in folders]
        files = read_lcov(run(COV, "export", "-format=lcov", *what, *sources))
        files = {path: file for path, file in files.items() if any(Path(path).is_relative_to(s) for s in sources)}
        functions = run(COV, "export", "-skip-expansions", *what, *sources)
        if not files:
            fail(f"{name}: no source of it was counted")
        total = defaultdict(int)
        for path, file in sorted(files.items()):
            relative = str(Path(path).relative_to(ROOT))
            for first, lines in sorted(compile_time(functions, (path, file.text)).items()):
                file.leave_out(lines)
                compilers.append(f"{relative}:{first}: {head(file.text, first).strip()}")
            for kind, line in sorted(file.missed(), key=lambda miss: miss[1]):
                text = file.text[line - 1].strip()
                if excused.excuse(relative, kind, text):
                    continue
                total[kind] += 1
                if (asked_lines if kind == "line" else asked_branches) == 1:
                    faults.append(f"{relative}:{line}: {kind} never ran: {text}")
            total["lines"] += len(file.lines)
            total["branches"] += len(file.branches)
        lines, branches = total["lines"] - total["line"], total["branches"] - total["branch"]
        print(f"{name:20} lines {share(lines, total['lines']):18} branches {share(branches, total['branches'])}")
        if lines < asked_lines * total["lines"]:
            faults.append(f"{name}: fewer than {asked_lines:.0%} of the lines ran")
        if branches < asked_branches * total["branches"]:
            faults.append(f"{name}: fewer than {asked_branches:.0%} of the branches ran")
    print("only the compiler runs, and no test counts:", *compilers, sep="\n  ")
    faults += excused.unused()
    for fault in faults:
        print(fault, file=sys.stderr)
    sys.exit(1 if faults else 0)


main()
