#!/usr/bin/env python3
"""Configures without tests, with what only tests and benchmarks need hidden, and looks at how that builds all that
users get: by commands that the build with tests, which was made, has run just so. So they need not run again.

usage: build_without_tests.py SOURCE-DIRECTORY BUILD-DIRECTORY CMAKE
"""

import pathlib
import re
import subprocess
import sys
import tempfile

PROGRAMS = ["l2vpnd", "l2vpnctl", "l2vpn-trace", "l2vpn-owner", "l2vpn-minimal"]
LIBRARIES = ["libl2vpn_ac.so", "libl2vpn_platform.so", "libl2vpn_sim.so"]


def options_of(build):
    """How a build was configured: compilers, their options, and this project's, but for the benchmarks."""
    cache = pathlib.Path(build, "CMakeCache.txt").read_text(encoding="utf-8")
    wanted = (r"^((?:CMAKE_(?:BUILD_TYPE|PREFIX_PATH|INSTALL_\w+|(?:C|CXX)_(?:COMPILER|FLAGS)\w*|\w+_LINKER_FLAGS\w*)"
              r"|\w+_DIR|L2VPN_(?!BENCH)\w+):\w+=.*)$")
    return [f"-D{entry}" for entry in re.findall(wanted, cache, re.M) if ":INTERNAL=" not in entry]


def commands(build, targets):
    """What ninja would run for the targets, with the folder that it runs in left open."""
    ninja = subprocess.run(["ninja", "-C", build, "-t", "commands", *targets], check=True, capture_output=True, text=True)
    return {line.replace(build, "BUILD") for line in ninja.stdout.splitlines()}


def main():
    source, tested, cmake = sys.argv[1:]
    # Beside the other one, so that paths from the one lead where those from the other do.
    with tempfile.TemporaryDirectory(dir=pathlib.Path(tested).parent) as build:
        subprocess.run([cmake, "-S", source, "-B", build, "-G", "Ninja", "--no-warn-unused-cli", *options_of(tested),
                        "-DBUILD_TESTING=OFF", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON",
                        "-DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON"], check=True, stdout=subprocess.DEVNULL)
        wanted = commands(build, [f"bin/{name}" for name in PROGRAMS] + [f"lib/{name}" for name in LIBRARIES])
        wanted |= commands(build, ["all"])
    made = commands(tested, ["all"])
    bad = sorted(wanted - made)
    for command in bad:
        print(f"with tests this is not run, or not like this: {command}")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
