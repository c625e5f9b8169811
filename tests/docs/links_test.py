#!/usr/bin/env python3
"""links_test.py ROOT: what the documents refer to is there, files and headings alike.

The pages in docs are installed by themselves, in one folder: their links stay among them.
"""

import pathlib
import re
import sys

from faults import Faults

root = pathlib.Path(sys.argv[1]).resolve()


def anchors(page):
    """The headings as links name them."""
    text = re.sub(r"^```.*?^```", "", page.read_text(), flags=re.M | re.S)
    headings = re.findall(r"^#+ (.*)$", text, re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def main():
    faults = Faults()
    pages = [root / "README.md", root / "CHANGELOG.md", *root.glob("docs/*.md"), *root.glob("examples/*/README.md"),
             *root.glob("tests/*/README.md")]
    led_to = set()
    for page in pages:
        text = re.sub(r"^```.*?^```|^    .*?$|`[^`\n]*`(?!\])", "", page.read_text(), flags=re.M | re.S)
        for target in re.findall(r"\]\(([^)\s]+)\)", text):
            if "://" in target:
                continue
            path, _, anchor = target.partition("#")
            there = (page.parent / path).resolve() if path else page
            if page.parent == root / "docs":
                faults.check(there.parent == page.parent and there.suffix in (".md", ".svg"),
                             f"{page.relative_to(root)}: {target} is not installed with it")
            led_to |= {there} - {page}
            faults.check(there.exists(), f"{page.relative_to(root)}: no {target}")
            if anchor and there.exists():
                faults.check(anchor in anchors(there), f"{page.relative_to(root)}: no heading {target}")
    for page in root.glob("docs/*.md"):
        faults.check(page in led_to, f"no page leads to docs/{page.name}")
    faults.end(least=40)


main()
