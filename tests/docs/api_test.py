#!/usr/bin/env python3
"""api_test.py ROOT FOLDER EXPORTS: Doxygen makes the site of the public headers, and has nothing to warn of.

Every exported function is there with the statuses that it can have, and so is every record and every header.
"""

import html
import os
import pathlib
import re
import shutil
import sys

from faults import Faults, output_of

root, folder = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]).absolute()
exports = (root / sys.argv[3]).read_text().split()


def text_of(page):
    return html.unescape(re.sub(r"<[^>]+>", "", page.read_text())) if page.exists() else ""


def main():
    faults = Faults()
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    os.chdir(root)
    settings = (root / "docs/api/Doxyfile").read_text() + f"\nOUTPUT_DIRECTORY = {folder}\n"
    status, said = output_of("doxygen", "-", given=settings)
    faults.check(status == 0 and not said, f"doxygen ended with {status}: {said}")
    site = folder / "html"
    api = text_of(site / "l2vpn__ac__api_8h.html")
    for function in exports:
        faults.check(f"{function}()" in api, f"{function}: not on the site")
    for status in ["EOK  connected", "35   a callback of the client is running", "22   no such client"]:
        faults.check(status in api, f"'{status}' is not on the site")
    types = (root / "l2vpn/lib/include/l2vpn/l2vpn_ac_types.h").read_text()
    for record in re.findall(r"^} (l2vpn_\w+_t);$", types, re.M):
        page = site / f"struct{record.replace('_', '__')}.html"
        faults.check(page.exists(), f"{record}: no page")
    for header in sorted(root.glob("l2vpn/*/include/*/*.h")):
        page = site / f"{header.stem.replace('_', '__')}_8h.html"
        faults.check(page.exists(), f"{header.name}: no page")
    faults.end(least=40)


main()
