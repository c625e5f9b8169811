#!/usr/bin/env python3
"""wire_test.py ROOT: the page of the wire against the headers and against every golden message.

- each field of a record lies where the header asserts it, each type and flag has the header's number
- each golden message is, line for line, what the page's tables say of its type and class
- the pictures are those that the tables make, the whole messages those of the golden files
"""

import pathlib
import re
import sys

from faults import Faults, code_blocks
from wire_page import Page, pieces_of

root = pathlib.Path(sys.argv[1])
page = Page(root)
headers = "".join((root / "l2vpn/lib/include/l2vpn" / name).read_text()
                  for name in ["l2vpn_ac_types.h", "l2vpn_ac_msg.h"])
HANDLE = [("u32", 4)]


def number(text):
    return int(text.replace(",", "").split(" ")[0].split(",")[0], 0)


def layout_of_class(what, class_id):
    """Information and data of a class: its head, and its own part where it has one."""
    head = page.layouts["Head, every class" if what == "Information" else "Words, every class"]
    parts = [layout for title, layout in page.layouts.items()
             if title.startswith(f"{what} of class") and str(class_id) in re.findall(r"\d+", title.split(":")[0])]
    return head.kinds() + [kind for part in parts for kind in part.kinds()]


def size_of(kinds):
    return sum(size for _, size in kinds)


# --- the headers -------------------------------------------------------------------------------------------


def check_records(faults):
    sizes = dict(re.findall(r"^L2VPN_ASSERT_RECORD\((\w+), (\d+),", headers, re.M))
    asserted = re.findall(r"^L2VPN_ASSERT_FIELD\((\w+), (\w+), (\d+)\);", headers, re.M)
    asserted += [("l2vpn_ac_msg_hdr_t", field, offset) for field, offset in
                 re.findall(r"offsetof\(l2vpn_ac_msg_hdr_t, (\w+)\) == (\d+)", headers)]
    layouts = [layout for layout in page.layouts.values() if layout.record]
    for layout in layouts:
        fields = {(field.base, field.offset - layout.start) for field in layout.fields}
        for record, field, offset in asserted:
            if record == layout.record:
                faults.check((field, int(offset)) in fields, f"{layout.title}: no {field} at {offset}")
        if layout.record in sizes:
            faults.check(layout.size() == int(sizes[layout.record]),
                         f"{layout.title}: {layout.size()} bytes, {sizes[layout.record]} in the header")
        at = layout.start
        for field in layout.of_class(0):
            faults.check(field.offset == at, f"{layout.title}: {field.name} at {field.offset}, not {at}")
            at += field.size
    records = {layout.record for layout in layouts}
    for record in sizes:  # those of an array's stride are made of parts
        faults.check(record in records or record in ("l2vpn_ac_info_t", "l2vpn_ac_xcid_data_t"),
                     f"{record}: no table")
    greeting = (root / "l2vpn/platform/posix/ipc/link.h").read_text()
    told = {(field.name, field.offset) for field in page.layouts["Greeting"].fields}
    for field, offset in re.findall(r"offsetof\(greeting, (\w+)\) == (\d+)", greeting):
        faults.check((field, int(offset)) in told, f"Greeting: no {field} at {offset}")


def check_numbers(faults):
    types = {row[1].strip("`"): number(row[0]) for row in page.tables["Messages"]}
    for name, code in re.findall(r"^#define (L2VPN_\w+_MSG_\w+) (\d+)u", headers, re.M):
        if not name.endswith("TYPE_MAX"):
            faults.check(types.pop(name, None) == int(code), f"{name}: is not told to be {code}")
    faults.check(not types, f"no such types: {types}")
    flags = {row[1].strip("`"): number(row[0]) for row in page.tables["Flags"] if row[1].startswith("`")}
    for name, bit in re.findall(r"^#define (L2VPN_\w+_FLAG_\w+) (0x[0-9a-f]+)u", headers, re.M):
        faults.check(flags.pop(name, None) == int(bit, 16), f"{name}: is not told to be {bit}")
    faults.check(not flags, f"no such flags: {flags}")


def check_classes(faults):
    source = (root / "l2vpn/process/wire.cpp").read_text()
    sizes = {int(n): (int(info), int(data)) for n, info, data in
             re.findall(r"^    \{(\d+), +true, +(\d+), +\w+, +(\d+)\},", source, re.M)}
    library = (root / "l2vpn/lib/src/l2vpn_ac_class.cpp").read_text()
    rows = {number(row[0]): row for row in page.tables["Sizes by class"]}
    faults.check(rows.keys() == sizes.keys(), f"classes {rows.keys() ^ sizes.keys()} are not in both")
    for class_id, (info, data) in sizes.items():
        for cell, size, what in [(rows[class_id][1], info, "Information"), (rows[class_id][2], data, "Data")]:
            if "only" in cell:
                faults.check(number(cell) == size, f"class {class_id}: {what} of {cell}, {size} in the process")
            elif "no layout" in cell:
                faults.check(size == 0, f"class {class_id}: {what} has a layout")
                without = f"{'info' if what == 'Information' else 'data'}_without_layout<{number(cell)}>"
                faults.check(re.search(rf"{without}[^;\n]*\({class_id}\),$", library, re.M),
                             f"class {class_id}: {what} is not {cell}")
            else:
                told = size_of(layout_of_class(what, class_id))
                faults.check(number(cell) == size == told,
                             f"class {class_id}: {what} of {cell}, {told} by its tables, {size} in the process")


# --- the golden messages -----------------------------------------------------------------------------------


def golden(path):
    """The bytes of a golden file, and the kinds and sizes of its fields."""
    octets, kinds = bytearray(), []
    for line in path.read_text().split("\n"):
        text, _, comment = line.partition("#")
        words = text.split()
        if not words:
            continue
        octets += bytes.fromhex("".join(words[:-1]))
        kind = words[-1].split("=")[0]
        if comment.strip() == "...":
            kinds[-1] = (kinds[-1][0], kinds[-1][1] + len(words) - 1)
        else:
            kinds.append((kind, len(words) - 1))
    return bytes(octets), kinds


def merged(kinds):
    """Bytes that follow bytes are one run: where one field of them ends is not seen on the wire."""
    result = []
    for kind, size in kinds:
        if kind == "bytes" and result and result[-1][0] == "bytes":
            result[-1] = ("bytes", result[-1][1] + size)
        else:
            result.append((kind, size))
    return result


def expected(octets, class_id):
    """The kinds that the page tells for a message of this header, and the piece sizes that it tells."""
    code, count = (int.from_bytes(octets[at:at + 4], "big") for at in (4, 8))
    row = next(row for row in page.tables["Messages"] if number(row[0]) == code)
    kinds = page.layouts["Message header: `l2vpn_ac_msg_hdr_t`"].kinds()
    wrong = []
    for what, size in pieces_of(row[3]):
        if what == "handles":
            element = HANDLE
        elif what == "definitions":
            element = page.layouts["Definition: `l2vpn_ac_defn_t`"].kinds(class_id)
        elif what in ("information", "data"):
            element = layout_of_class(what.capitalize(), class_id)
        else:
            element = next(layout for layout in page.layouts.values() if layout.record == what.strip("`")).kinds()
        if not size.startswith("size") and number(size) != size_of(element):
            wrong.append(f"{what}: {size} told, {size_of(element)} by its table")
        times = count if "× n" in size else 1
        kinds += element * times
        if what == "information" and class_id == 17:
            kinds += [("bytes", (200 - size_of(element)) * times)]
    return kinds, wrong


def check_golden(faults):
    paths = sorted((root / "tests/golden").glob("*.hex"))
    faults.check(len(paths) >= 58, f"only {len(paths)} golden messages")
    seen = set()
    for path in paths:
        octets, kinds = golden(path)
        class_id = int(re.search(r"class_(\d+)", path.stem).group(1)) if "class_" in path.stem else None
        told, wrong = expected(octets, class_id)
        faults.check(merged(kinds) == merged(told), f"{path.name}: {merged(kinds)} differs from {merged(told)}")
        for text in wrong:
            faults.check(False, f"{path.name}: {text}")
        seen.add(int.from_bytes(octets[4:8], "big"))
    for row in page.tables["Messages"]:
        faults.check(number(row[0]) in seen, f"{row[1]}: no golden message")


def check_blocks(faults):
    for line, block in code_blocks(page.text, r"hex \w+"):
        name = page.text.split("\n")[line - 2].split()[1]
        octets, _ = golden(root / f"tests/golden/{name}.hex")
        faults.check(bytes.fromhex("".join(block.split())) == octets, f"docs/wire.md:{line}: is not {name}.hex")
    for title, picture in page.pictures.items():
        faults.check(picture == page.drawn(title), f"docs/wire.md: '{title}': its picture is not of its table; "
                     "tests/docs/wire_page.py ROOT --draw makes it anew")
    faults.check(page.pictures.keys() >= page.layouts.keys(),
                 f"no picture: {page.layouts.keys() - page.pictures.keys()}")


def main():
    faults = Faults()
    check_records(faults)
    check_numbers(faults)
    check_classes(faults)
    check_golden(faults)
    check_blocks(faults)
    faults.end(least=300)


main()
