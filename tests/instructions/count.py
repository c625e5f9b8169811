#!/usr/bin/env python3
"""Counts the library's instructions in requests, and holds them against stored figures.

usage: count.py VALGRIND PROGRAM FIGURES [--store]

Only instructions of the library itself count: those of the C library differ between processors, which have
different copies of memcpy() to choose from. The figures are of one compiler; CMake leaves the test out where
there is another, because to pass there would say nothing.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

LIBRARY = "libl2vpn_ac.so"
TOLERANCE = 0.03

# A line of costs, and one that names an object: "ob=(3) /usr/lib/x.so" at first, "ob=(3)" from then on.
COST = re.compile(r"[+\-*\d]\S* (\d+)$")
OBJECT = re.compile(r"(c?ob)=\((\d+)\)(?: (.+))?$")


def instructions_in(dump):
    """The name that a dump was given, and the library's own instructions in it."""
    name, names, inside, callee, total = None, {}, False, False, 0
    for line in dump.read_text(encoding="utf-8").splitlines():
        if line.startswith("desc: Trigger: Client Request: "):
            name = line.rsplit(" ", 1)[1]
        elif match := OBJECT.match(line):
            kind, number, path = match.groups()
            if path:
                names[number] = path
            if kind == "ob":
                inside = pathlib.Path(names[number]).name.startswith(LIBRARY)
        elif line.startswith("calls="):
            callee = True  # the next line is what the callee cost
        elif match := COST.match(line):
            if inside and not callee:
                total += int(match.group(1))
            callee = False
    return name, total


def count(valgrind, program):
    with tempfile.TemporaryDirectory() as folder:
        command = [valgrind, "--tool=callgrind", "--collect-atstart=no", "--dump-line=no",
                   f"--callgrind-out-file={folder}/dump", program]
        done = subprocess.run(command, capture_output=True, text=True, timeout=300, check=False)
        if done.returncode != 0:
            sys.exit(f"count.py: {program}: exit status {done.returncode}\n{done.stderr}")
        measured = dict(instructions_in(dump) for dump in pathlib.Path(folder).glob("dump*"))
    measured.pop(None, None)  # of the end of the program
    return measured


def read(figures):
    stored = {}
    for number, line in enumerate(figures.read_text(encoding="utf-8").splitlines(), 1):
        words = line.split("#")[0].split()
        if not words:
            continue
        if len(words) != 2 or not words[1].isdigit():
            sys.exit(f"count.py: {figures}:{number}: '{line}' is not NAME INSTRUCTIONS")
        stored[words[0]] = int(words[1])
    return stored


def store(figures, measured):
    """The comments at the head stay."""
    head = [line for line in figures.read_text(encoding="utf-8").splitlines() if line.startswith("#")]
    lines = head + [f"{name:<18} {instructions:>6}" for name, instructions in measured.items()]
    figures.write_text("\n".join(lines) + "\n", encoding="utf-8")


def faults_in(measured, stored):
    for name in sorted(measured.keys() | stored.keys()):
        if name not in measured or name not in stored:
            yield f"{name}: {'measured' if name in measured else 'stored'} only: store the figures anew"
        elif measured[name] == 0:
            yield f"{name}: nothing was counted"
        elif measured[name] > stored[name] * (1 + TOLERANCE):
            yield f"{name}: {measured[name]} instructions, {stored[name]} are stored: too many"
        elif measured[name] < stored[name] * (1 - TOLERANCE):
            yield f"{name}: {measured[name]} instructions, {stored[name]} are stored: store the new figure"


def main(arguments):
    if len(arguments) not in (3, 4) or (len(arguments) == 4 and arguments[3] != "--store"):
        sys.exit(__doc__)
    measured = count(arguments[0], arguments[1])
    figures = pathlib.Path(arguments[2])
    if len(arguments) == 4:
        store(figures, dict(sorted(measured.items())))
        return
    faults = list(faults_in(measured, read(figures)))
    for name, instructions in sorted(measured.items()):
        print(f"{name:<18} {instructions:>6}")
    if faults:
        sys.exit("\n".join(faults + [f"to store: {' '.join([sys.argv[0]] + arguments)} --store"]))


if __name__ == "__main__":
    main(sys.argv[1:])
