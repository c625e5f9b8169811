#!/usr/bin/env python3
"""The probes in the built files are those of docs/probes.md, with as many values; scripts use no others.

usage: probes_test.py ROOT READELF LIBRARY PLATFORM PROCESS

READELF is GNU's. With BPFTRACE in the environment the scripts are compiled by that program, too, which root alone
may do: docs/probes.md.
"""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

ROW = re.compile(r"^\| `([\w.]+)` \| `(\w+:\w+)` \|(.*)\|$", re.M)
NOTE = re.compile(r"Provider: (\w+)\s+Name: (\w+)\s+Location: \S+ Base: \S+ Semaphore: (\S+)\s+Arguments:(.*)")
ATTACHED = re.compile(r"^usdt:@\w+@/([\w.]+):(\w+:\w+)$", re.M)


def documented(root):
    """Of each file its probes, with the number of their values."""
    found = {}
    for file, name, values in ROW.findall((root / "docs/probes.md").read_text()):
        names = [value.strip() for value in values.split("|")]
        used = [value for value in names if value]
        assert names[:len(used)] == used, f"docs/probes.md: {name}: values with a gap"
        found.setdefault(file, {})[name] = len(used)
    return found


def built(readelf, path):
    text = subprocess.run([readelf, "-n", "-W", path], check=True, capture_output=True, text=True,
                          env={**os.environ, "LC_ALL": "C"}).stdout
    found = {}
    for provider, name, semaphore, values in NOTE.findall(text.replace(",", "")):
        assert int(semaphore, 16) == 0, f"{path}: {name}: waits to be switched on"
        count = len(re.findall(r"-?\d@", values))
        assert found.setdefault(f"{provider}:{name}", count) == count, f"{path}: {name}: not always the same values"
    return found


def faults_of(script, text, table):
    """What a script wants that is not there."""
    attached = list(ATTACHED.finditer(text))
    if not attached:
        yield f"{script}: looks at nothing"
    if text.count("usdt:") != len(attached):
        yield f"{script}: a probe that is not understood"
    for place, match in enumerate(attached):
        file, name = match.groups()
        end = attached[place + 1].start() if place + 1 < len(attached) else len(text)
        wanted = max([int(number) for number in re.findall(r"\barg(\d)\b", text[match.end():end])], default=-1)
        if name not in table.get(file, {}):
            yield f"{script}: {file} has no {name}"
        elif wanted >= table[file][name]:
            yield f"{script}: {name} has no arg{wanted}"


def compiled(bpftrace, script, text, files):
    for name, path in files.items():
        text = re.sub(rf"@\w+@/{re.escape(name)}:", f"{path}:", text)
    with tempfile.NamedTemporaryFile("w", suffix=".bt") as made:
        made.write(text)
        made.flush()
        done = subprocess.run([bpftrace, "-d", made.name], capture_output=True, text=True, timeout=120, check=False)
    return [] if done.returncode == 0 else [f"{script}: {done.stderr.strip()}"]


def main(root, readelf, library, platform, process):
    bpftrace = os.environ.get("BPFTRACE")
    files = {"libl2vpn_ac.so.1": library, "libl2vpn_platform.so.1": platform, "l2vpnd": process}
    table = documented(Path(root))
    faults = []
    for name, path in files.items():
        if (there := built(readelf, path)) != table.get(name):
            faults.append(f"{name} has {there}, docs/probes.md says {table.get(name)}")
    scripts = sorted(Path(root, "packaging/bpftrace").glob("*.bt.in"))
    assert len(scripts) == 3
    for script in scripts:
        text = script.read_text()
        faults += faults_of(script.name, text, table)
        if bpftrace:
            faults += compiled(bpftrace, script.name, text, files)
    sys.exit("\n".join(faults) if faults else 0)


main(*sys.argv[1:])
