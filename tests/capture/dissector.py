#!/usr/bin/env python3
"""The Wireshark dissector on the golden messages: every number that a golden file names is shown at its place with
its value, the other bytes as bytes, and nothing is left out. What is malformed is marked, and not misread. Every field
has the name and the value that l2vpnctl monitor shows for it.

    dissector.py LUA GOLDEN_DIR L2VPNCTL
"""
import json
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import xml.etree.ElementTree
from pathlib import Path

HEAD = 64
TO_PROCESS, TO_OWNER = 1, 2
OWNER_TYPES = (7, 8, 13, 15)
LONGEST_OCTETS = 16


def block(kind, body):
    body += bytes(-len(body) % 4)
    return struct.pack(">II", kind, len(body) + 12) + body + struct.pack(">I", len(body) + 12)


def head(class_id, direction, length, version=1, kind=1, status=0):
    return struct.pack(">HBBBBHIIIIQQII16s", version, kind, direction, 1, 0, HEAD, class_id, 0x01020304, 4711, 1000,
                       7, 8, status, length, b"owner")


def packet(class_id, message, direction=None, kept=None, **more):
    if direction is None:
        code = struct.unpack_from(">I", message, 4)[0]
        direction = TO_OWNER if code in OWNER_TYPES else TO_PROCESS
    return head(class_id, direction, len(message), **more) + message[:kept]


def write_file(folder, packets):
    path = Path(folder) / "golden.pcapng"
    out = block(0x0A0D0D0A, struct.pack(">IHHq", 0x1A2B3C4D, 1, 0, -1))
    out += block(1, struct.pack(">HHI", 147, 0, 0))
    for data in packets:
        out += block(6, struct.pack(">IIIII", 0, 0, 0, len(data), len(data)) + data)
    path.write_bytes(out)
    return path


def monitor(program, packets):
    """What l2vpnctl says of each packet."""
    with tempfile.TemporaryDirectory() as folder:
        run = subprocess.run([program, "monitor", "--read", write_file(folder, packets), "--json", "-v"],
                             stdout=subprocess.PIPE, timeout=120, check=True)
    return [json.loads(line) for line in run.stdout.splitlines()]


def tshark(home, *arguments):
    environment = dict(os.environ, HOME=home, XDG_CONFIG_HOME=home, TZ="UTC")
    run = subprocess.run(["tshark", *arguments], env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                         timeout=120, check=False)
    if run.returncode != 0 or b"Lua:" in run.stderr:
        raise SystemExit(f"tshark failed: {run.stderr.decode()}")
    return run.stdout


def install(lua, home):
    """Puts the dissector where a user would."""
    shown = dict(re.findall(r"^([^:\n]+):\s*(.*)$", tshark(home, "-G", "folders").decode(), re.MULTILINE))
    everybodys = Path(shown["Global Lua Plugins"]) / "l2vpn.lua"
    if everybodys.exists() and everybodys.read_bytes() != Path(lua).read_bytes():
        raise SystemExit(f"{everybodys} is another dissector than {lua}, and would be loaded first: it has to go")
    personal = Path(shown["Personal Lua Plugins"])
    personal.mkdir(parents=True)
    shutil.copy(lua, personal)


def dissect(home, packets, *more):
    """A list of message elements of tshark's PDML, one a packet."""
    out = tshark(home, *more, "-r", write_file(home, packets), "-T", "pdml")
    found = []
    for shown in xml.etree.ElementTree.fromstring(out).iter("packet"):
        (proto,) = [p for p in shown.findall("proto") if p.get("name") == "l2vpn"]
        found.append(proto)
    return found


def golden_lines(path):
    for line in path.read_text().splitlines():
        words = line.split("#")[0].split()
        if words:
            yield words[-1], bytes.fromhex("".join(words[:-1]))


def leaves(element):
    """The fields that stand for bytes, outermost only."""
    for child in element:
        name = child.get("name") or ""
        if name.startswith("l2vpn.") and child.get("value") is not None:
            yield child
        elif not name.startswith("l2vpn.malformed") and not name.startswith("_ws"):
            yield from leaves(child)


def value_of(shown):
    return int(shown, 16) if shown.startswith("0x") else int(shown)


def check_message(name, lines, proto):
    """What is wrong, as text; nothing when all is well."""
    fields = [leaf for leaf in leaves(proto) if int(leaf.get("pos")) >= HEAD]
    at = HEAD
    numbers = {}
    for leaf in fields:
        if int(leaf.get("pos")) != at:
            return f"{name}: {leaf.get('name')} is at {leaf.get('pos')}, not at {at}"
        size, value, shown = int(leaf.get("size")), leaf.get("value"), leaf.get("show")
        if len(value) != 2 * size:
            return f"{name}: {leaf.get('name')} has {len(value) // 2} of {size} bytes"
        if size > 1 and re.fullmatch(r"0x[0-9a-fA-F]+|[0-9]+", shown) and size in (2, 4, 8):
            if value_of(shown) != int(value, 16):
                return f"{name}: {leaf.get('name')} is shown as {shown}, and is 0x{value}"
            numbers[at - HEAD] = bytes.fromhex(value)
        if leaf.get("name").endswith(".bits"):
            bits = {sub.get("name")[-1]: int(sub.get("show")) for sub in leaf}
            byte = int(value, 16)
            wanted = {"a": byte >> 7, "b": byte >> 6 & 1, "c": byte >> 5 & 1, "d": byte >> 4 & 1,
                      "e": byte >> 2 & 3, "f": byte & 3}
            if bits != wanted:
                return f"{name}: bits {bits}, not {wanted}"
        if leaf.get("name").endswith(".name"):
            raw = bytes.fromhex(value).split(b"\0")[0]
            text = "".join(chr(byte) if 0x20 <= byte < 0x7f else f"\\x{byte:02x}" for byte in raw)
            if shown != text:
                return f"{name}: the name is shown as {shown}, and is {text}"
        at += size
    expected = {}
    offset = 0
    for kind, data in lines:
        if kind in ("u16", "u32", "u64"):
            expected[offset] = data
        offset += len(data)
    if at - HEAD != offset:
        return f"{name}: {at - HEAD} of {offset} bytes are shown"
    if numbers != expected:
        wrong = sorted(set(numbers.items()) ^ set(expected.items()))
        return f"{name}: other numbers than the golden file has: {wrong[:4]}"
    if any(True for _ in proto.iter("field") if _.get("name") == "l2vpn.malformed"):
        return f"{name}: marked as malformed"
    return None


def monitored_fields(row):
    """{"definition.word": [a value for each AC ...], "handle": ...}"""
    found = {}
    for record in row["records"]:
        for key, value in record.items():
            fields = {f"{key}.{name}": part for name, part in value.items()} if isinstance(value, dict) else {key: value}
            for name, part in fields.items():
                if isinstance(part, str):
                    part = part.replace("\\\\", "\\")  # Wireshark shows a backslash as it is
                found.setdefault(name, []).extend(part if isinstance(part, list) else [part])
    return found


def dissected_fields(proto):
    """The same from PDML, but for bytes that are nobody's and those that a monitor's line has no room for."""
    found = {}
    for leaf in leaves(proto):
        part, _, name = leaf.get("name").removeprefix("l2vpn.").partition(".")
        shown, value = leaf.get("show"), leaf.get("value")
        if part not in ("ac", "definition", "info", "data", "record") or name == "unused":
            continue
        if name == "bits":
            shown = {sub.get("name")[-1]: int(sub.get("show")) for sub in leaf}
        elif name != "name" and (":" in shown or name.startswith(("octet", "opaque", "tail", "class_octets"))):
            shown = value
            if len(value) > 2 * LONGEST_OCTETS:
                continue
        elif name != "name":
            shown = value_of(shown)
        found.setdefault(name if part in ("ac", "record") else f"{part}.{name}", []).append(shown)
    return found


def words(*values):
    return struct.pack(f">{len(values)}I", *values)


MALFORMED = {
    "shorter than a header": packet(0, words(3, 0), direction=TO_PROCESS),
    "a wrong mark": packet(0, words(4, 0, 0, 0)),
    "an unknown type": packet(0, words(3, 5, 0, 0)),
    "a type from the other byte order": packet(0, words(0x03000000, 0x02000000, 0, 0)),
    "a type of the other direction": packet(0, words(3, 8, 1, 0, 0x11), direction=TO_PROCESS),
    "a CREATE to an owner": packet(0, words(3, 2, 0, 0), direction=TO_OWNER),
    "one byte short": packet(0, words(3, 6, 1, 0) + b"\0\0\1"),
    "one byte long": packet(0, words(3, 6, 1, 0, 0x11) + b"\0"),
    "a count that wraps in 32 bits": packet(0, words(3, 6, 0x40000001, 0, 0x11)),
    "a JOIN with a count": packet(0, words(3, 0, 1, 0)),
    "class 9 with an AC": packet(9, words(3, 3, 1, 0, 0x11, 0, 0, 0, 0)),
    "class 7 provisioned": packet(7, words(3, 7, 1, 0, 0x11)),
    "class 15": packet(15, words(3, 6, 1, 0, 0x11)),
    "class 18": packet(18, words(3, 6, 1, 0, 0x11)),
    "two protections": packet(0, words(3, 12, 0, 0) + bytes(144)),
    "a header notice with a record": packet(0, words(3, 15, 0, 0, 1)),
}


def create(*handles):
    return words(3, 2, len(handles), 3, *handles) + bytes((616 + 16) * len(handles))


# The process refuses these, and where everything stands in them is not in doubt.
NAMES_NO_AC = {
    "a CREATE of the handle 0": packet(3, create(0)),
    "a CREATE whose last handle is nobody's": packet(3, create(0x11, 0xFFFFFFFF)),
    "an UPDATE of the handle 0": packet(3, words(3, 3, 1, 0, 0) + bytes(16)),
    "a DELETE of nobody's handle": packet(3, words(3, 6, 2, 0, 0x11, 0xFFFFFFFF)),
    "a DELETE of the handle 0, of which the rest was not recorded": packet(3, words(3, 6, 2, 0, 0, 0x11), kept=20),
}

# It takes these: only what comes from an owner and names ACs has handles that must be somebody's.
SOUND = {
    "a CREATE of the least and the largest handle": packet(3, create(1, 0xFFFFFFFE)),
    "a DELETE without ACs": packet(3, words(3, 6, 0, 0)),
    "a DELETE whose wrong handle was not recorded": packet(3, words(3, 6, 2, 0, 0x11, 0), kept=20),
    "a root of the handle 0": packet(3, words(3, 14, 1, 0, 0, 0)),
    "a state of nobody's handle": packet(3, words(3, 11, 1, 0, 0xFFFFFFFF) + bytes(92)),
    "a PROV of the handle 0": packet(3, words(3, 7, 1, 0, 0) + bytes(28)),
    "an UNPROV of nobody's handle": packet(3, words(3, 8, 1, 0, 0xFFFFFFFF)),
}


def flags_of(proto):
    return {field.get("name").rsplit(".", 1)[-1] for field in proto.iter("field")
            if (field.get("name") or "").startswith("l2vpn.flags.") and field.get("show") in ("1", "True")}


FLAGS = {
    "a whole CREATE": (packet(0, words(3, 2, 0, 3)), {"begin", "end"}),
    "the end of a CREATE": (packet(0, words(3, 2, 0, 2)), {"end"}),
    "an UPDATE with the bits of a CREATE": (packet(0, words(3, 3, 0, 3)), set()),
    "a whole UPDATE": (packet(0, words(3, 3, 0, 0xC)), {"begin", "end"}),
    "the begin of a DELETE": (packet(0, words(3, 6, 0, 0x10)), {"begin"}),
    "a VLAN map": (packet(0, words(3, 9, 0, 1)), {"begin"}),
    "a protection": (packet(0, words(3, 12, 0, 3) + bytes(72)), set()),
    "a PROV with a notice": (packet(0, words(3, 7, 0, 2)), {"notice"}),
    "a bulk notice without one": (packet(0, words(3, 13, 0, 1)), set()),
    "a header notice with bit 0x2": (packet(0, words(3, 15, 0, 2)), set()),
    "a header notice whose last word has the bit as it lies": (packet(0, words(3, 15, 0, 0x02000000)), {"notice"}),
}


def has(proto, name):
    return any(field.get("name") == name for field in proto.iter("field"))


def main():
    with tempfile.TemporaryDirectory() as home:
        return check(home, *sys.argv[1:])


def check(home, lua, folder, l2vpnctl):
    install(lua, home)
    faults = []
    files = sorted(Path(folder).glob("*.hex"))
    cases = []
    for path in files:
        lines = list(golden_lines(path))
        of_class = re.search(r"class_(\d+)$", path.stem)
        cases.append((path.stem, lines, packet(int(of_class[1]) if of_class else 0, b"".join(d for _, d in lines))))
    for (name, lines, _), proto in zip(cases, dissect(home, [case[2] for case in cases]), strict=True):
        faults.append(check_message(name, lines, proto))
    packets = [case[2] for case in cases]
    for (name, _, _), row, proto in zip(cases, monitor(l2vpnctl, packets), dissect(home, packets), strict=True):
        one, other = monitored_fields(row), dissected_fields(proto)
        faults.extend(f"{name}: {field} is {one.get(field)} in the monitor and {other.get(field)} in the dissector"
                      for field in sorted(one.keys() | other.keys()) if one.get(field) != other.get(field))

    for name, proto in zip(MALFORMED, dissect(home, list(MALFORMED.values())), strict=True):
        if any(int(leaf.get("pos")) >= HEAD + 16 for leaf in leaves(proto)):
            faults.append(f"{name}: misread")

    for cases_of, is_wrong in ((MALFORMED, True), (NAMES_NO_AC, True), (SOUND, False)):
        messages = list(cases_of.values())
        for name, row, proto in zip(cases_of, monitor(l2vpnctl, messages), dissect(home, messages), strict=True):
            for program, marks in (("the monitor", "malformed" in row), ("the dissector", has(proto, "l2vpn.malformed"))):
                if marks != is_wrong:
                    faults.append(f"{name}: {program} {'marks it' if marks else 'does not mark it'}")
            if cases_of is NAMES_NO_AC and (not row["records"] or not has(proto, "l2vpn.ac.handle")):
                faults.append(f"{name}: its ACs are not shown")

    for (name, (_, wanted)), proto in zip(FLAGS.items(), dissect(home, [case[0] for case in FLAGS.values()]),
                                          strict=True):
        if flags_of(proto) != wanted:
            faults.append(f"{name}: flags {flags_of(proto)}, not {wanted}")

    delete = words(3, 6, 3, 0x30, 0x11, 0x12, 0x13)
    # Loaded twice: installed, and named beside.
    cut, other, failed = dissect(home, [packet(0, delete, kept=24), packet(0, delete, version=2),
                                        packet(0, delete, status=32)], "-X", f"lua_script:{lua}")
    if has(cut, "l2vpn.malformed") or [leaf.get("show") for leaf in leaves(cut)][-2:] != ["0x00000011", "0x00000012"]:
        faults.append("a message that was cut is not shown as far as it goes")
    if has(other, "l2vpn.type") or not has(other, "l2vpn.expert.version"):
        faults.append("a record of another version is read all the same")
    if not has(failed, "l2vpn.expert.failed"):
        faults.append("a failed send is not marked")

    faults = [fault for fault in faults if fault]
    print("\n".join(faults) or f"{len(cases)} golden messages, {len(MALFORMED) + len(NAMES_NO_AC)} malformed ones, "
          f"{len(SOUND)} that are sound, {len(FLAGS)} flags")
    return 1 if faults or not cases else 0


if __name__ == "__main__":
    sys.exit(main())
