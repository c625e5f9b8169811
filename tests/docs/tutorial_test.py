#!/usr/bin/env python3
"""tutorial_test.py ROOT BUILD CMAKE PAGE COMMANDS: docs/PAGE, built and run as it stands, with what BUILD installs.

Its files are also in examples/tutorial, where the linters see them; both are the same.
"""

import os
import pathlib
import subprocess
import sys
import tempfile

from faults import Faults
from terminal import Mismatch, files_of, play

root, build, cmake, name, least = pathlib.Path(sys.argv[1]), *sys.argv[2:5], int(sys.argv[5])


def installed_in(prefix):
    """The environment of somebody who has installed it there."""
    subprocess.run([cmake, "--install", build, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
    package = next(pathlib.Path(prefix).rglob("l2vpn_ac.pc")).parent
    environment = {key: value for key, value in os.environ.items() if not key.startswith("L2VPN_")}
    return environment | {
        "PATH": f"{prefix}/bin:{prefix}/sbin:{os.environ['PATH']}",
        "PKG_CONFIG_PATH": str(package),
        "LD_LIBRARY_PATH": str(package.parent),
        "LC_ALL": "C",
    }


def main():
    faults = Faults()
    page = (root / "docs" / name).read_text()
    for file, text in files_of(page).items():
        path = root / "examples/tutorial" / file
        faults.check(path.exists() and path.read_text() == text, f"docs/{name}: {file} is another than {path}")
    with tempfile.TemporaryDirectory(prefix="l2vpn-docs-") as folder:
        work = pathlib.Path(folder) / "work"
        work.mkdir()
        try:
            commands = play(page, work, installed_in(f"{folder}/prefix"))
            faults.check(commands >= least, f"docs/{name}: only {commands} commands")
        except Mismatch as why:
            faults.check(False, f"docs/{name}: {why}")
    faults.end(least=2)


main()
