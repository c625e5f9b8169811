#!/usr/bin/env python3
"""fields_test.py ROOT: the fields of spanning-tree records, as headers call them and as tools show them.

docs/wire.md, which is held against the headers, has the names of the headers by offset; the process's table of fields
has the names that are shown. Where the two differ, docs/process.md says so, and nowhere else.
"""

import pathlib
import re
import sys

from faults import Faults

root = pathlib.Path(sys.argv[1])
RECORDS = {
    "IS_ROOT": ("l2vpn_msti_root_t", "s_msti_root"),
    "STATE": ("l2vpn_mstp_req_t", "s_mstp_state"),
    "VID_MAP": ("l2vpn_msti_vid_map_t", "s_vid_map"),
    "PROTECTED": ("l2vpn_mstp_prot_t", "s_protection"),
}


def of_header(page, record):
    """{offset: name}"""
    rows = page.partition(f": `{record}`\n")[2].partition("\n```")[0]
    return {int(at): name for at, name in re.findall(r"^\| (\d+) \| \d+ \| `(\w+)` \|", rows, re.M)}


def of_tools(source, fields):
    text = re.search(rf"constexpr std::array {fields} = \{{(.*?)\}};", source, re.S)[1]
    return {int(at): name for name, at in re.findall(r'"(\w+)", (\d+)', text)}


def told(page):
    """{(record, name of the header): name that is shown}"""
    rows = page.partition("\n| record | field |")[2].partition("\n\n")[0]
    return {(record, field): shown
            for records, field, shown in re.findall(r"^\| ([A-Z_, ]+) \| `(\w+)` \|.*\| `(\w+)` \|$", rows, re.M)
            for record in records.split(", ")}


def main():
    faults = Faults()
    wire = (root / "docs/wire.md").read_text()
    source = (root / "l2vpn/process/fields.cpp").read_text()
    expected = {}
    for record, (struct, fields) in RECORDS.items():
        header, tools = of_header(wire, struct), of_tools(source, fields)
        faults.check(header.keys() == tools.keys(), f"{record}: fields at {sorted(header)} in docs/wire.md, "
                                                    f"at {sorted(tools)} in the process's table")
        for at in header.keys() & tools.keys():
            faults.check(True, "")
            if header[at] != tools[at]:
                expected[(record, header[at])] = tools[at]
    documented = told((root / "docs/process.md").read_text())
    for record, field in sorted(expected.keys() | documented.keys()):
        shown, said = expected.get((record, field)), documented.get((record, field))
        faults.check(shown == said, f"{record}: {field} is shown as {shown or field}, and docs/process.md says {said}")
    faults.end(least=16 + 7)


main()
