#!/usr/bin/env python3
"""reasons_test.py ROOT: the codes of l2vpnctl explain, which scripts rely on, in the sources and in the documents.

Verdicts are in docs/process.md and in the manual page, steps and notes in docs/process.md; each code of the documents
is one of the sources, and what the process says of an AC is known to l2vpnctl.
"""

import pathlib
import re
import sys

from faults import Faults

root = pathlib.Path(sys.argv[1])
CODE = r"[a-z]+(?:-[a-z]+)*(?::[a-z]+(?:-[a-z]+)*)?"


def source(name):
    return (root / "l2vpn" / name).read_text()


def codes(text, pattern):
    return set(re.findall(pattern, text))


def table(page, heading):
    """The codes in the first column of the table with this heading; DROP is `dropped:REASON`."""
    rows = page.partition(f"\n| {heading} |")[2].partition("\n\n")[0].split("\n")[2:]
    return {code for row in rows for code in re.findall(r"`([^`]+)`", row.split("|")[1])}


def main():
    faults = Faults()
    page = (root / "docs/process.md").read_text()
    manual = (root / "docs/man/l2vpnctl.1").read_text()
    verdict, chain, explain = (source(f"tools/{name}.cpp") for name in ("verdict", "chain", "explain"))

    verdicts = codes(verdict, rf'\{{"({CODE})",\s+"')
    reasons = codes(source("process/verbs_explain.cpp"), rf'\{{"((?:not-)?provisioned(?::{CODE})?)",')
    notes = codes(verdict + explain, rf'note\("({CODE})"')
    made = "".join(re.findall(r"\.code = [^;]*;|step_of\([^;]*;", chain, re.S))
    steps = codes(made, rf'"({CODE})"')
    for found, least, what in [(verdicts, 18, "verdicts"), (reasons, 8, "reasons"), (notes, 8, "notes"),
                               (steps, 16, "steps")]:
        faults.check(len(found) >= least, f"only {len(found)} {what} found in the sources: {sorted(found)}")
    for code in sorted(reasons - verdicts):
        faults.check(False, f"l2vpnctl does not know the process's reason {code}")
    listed = manual.partition("The codes of verdicts:")[2].partition("\n.It")[0]
    in_manual = set(re.findall(rf"^\.Ql ({CODE})", listed, re.M))
    for where, documented, wanted in [("docs/process.md", table(page, "verdict"), verdicts),
                                      ("docs/man/l2vpnctl.1", in_manual, verdicts),
                                      ("docs/process.md", table(page, "step"), steps | {"dropped:REASON"}),
                                      ("docs/process.md", table(page, "note"), notes)]:
        for code in sorted(documented | wanted):
            faults.check(code in documented, f"{where}: no code {code}")
            faults.check(code in wanted, f"{where}: {code} is no code of the sources")
    faults.end(least=60)


main()
