"""The goals: ratios within one run, and how each comes from what was measured; and why one may be missed."""

import pathlib
from dataclasses import dataclass


@dataclass(frozen=True)
class Goal:
    name: str
    limits: dict  # largest ratio that meets it, by number of ACs
    operation: str
    over: str  # what the library is compared with
    what: str = "library"
    class_id: int = 0
    mtu: int = 65536
    why: str = ""  # what stands in the way where it is missed


def ratios(limit_300, limit_10000, limit_200000):
    return {300: limit_300, 10000: limit_10000, 200000: limit_200000}


# Each reason has its paragraph in docs/performance.md.
MEMORY, PAGES, CLOSE, STORE, GROWN = "memory", "fresh pages", "instructions", "storing", "growth"

OUTBOUND = (
    Goal("create / send of the same messages", ratios(0.10, 0.22, 0.50), "create", "send", why=MEMORY),
    Goal("create / packed copy", ratios(0.30, 0.55, 0.90), "create", "packed copy", why=MEMORY),
    Goal("create / stream buffer", ratios(0.12, 0.22, 0.45), "create", "stream buffer", why=MEMORY),
    Goal("create / field by field", ratios(0.12, 0.22, 0.45), "create", "field by field", why=MEMORY),
    Goal("create / FlatBuffers tables", ratios(0.18, 0.30, 0.60), "create", "FlatBuffers tables", why=MEMORY),
    Goal("create / FlatBuffers structs", ratios(0.18, 0.30, 0.60), "create", "FlatBuffers structs", why=MEMORY),
    Goal("create / Cap'n Proto", ratios(0.18, 0.30, 0.60), "create", "Cap'n Proto", why=MEMORY),
    Goal("create / protobuf", ratios(0.03, 0.07, 0.17), "create", "protobuf", why=MEMORY),
    Goal("create and send / send", ratios(1.15, 1.25, 1.60), "create", "send", "library and send", why=MEMORY),
    Goal("delete / plain loops", ratios(0.50, 0.90, 0.90), "delete", "plain loops", why=PAGES),
    Goal("delete / send of the same messages", ratios(0.18, 1.3, 1.8), "delete", "send", why=PAGES),
)

PROVISION = Goal("provision of class 8 / copy and zero fill", {24: 1.4}, "provision", "copy and zero fill",
                 class_id=8)

# Pieces, measured by Google Benchmark: name, the library's, the other's, the limit.
PIECES = (
    ("create of one AC / one sendmsg", "create of one/library/1", "create of one/sendmsg/1", 0.08),
    ("delete of one AC / one sendmsg", "delete of one/library/1", "delete of one/sendmsg/1", 0.08),
    ("VLAN map of 4,094 / plain loop", "VLAN map/library/4094", "VLAN map/plain loop/4094", 0.35),
    ("port request of 300 / memcpy", "port request/library/300", "port request/memcpy/300", 2),
    ("port request of 10,000 / memcpy", "port request/library/10000", "port request/memcpy/10000", 2),
    ("root of 300 / memcpy", "root/library/300", "root/memcpy/300", 8),
    ("root of 10,000 / memcpy", "root/library/10000", "root/memcpy/10000", 8),
)

# The most that an AC may cost at a million, in terms of what it costs at 10,000, beside memcpy's growth.
GROWTH = 2.0

# The process's own time for a create of so many ACs, in terms of the owner's own.
STORED, STORE_LIMIT = 200000, 1.0

# Instructions of the library's an AC, of requests of 300: not a ratio, but what tests/instructions holds.
FIGURES = pathlib.Path(__file__).resolve().parents[1] / "tests" / "instructions" / "figures.txt"
INSTRUCTIONS = (("create", 110), ("delete", 9), ("update", 64))


def stored_instructions():
    words = (line.split() for line in FIGURES.read_text(encoding="utf-8").splitlines() if line[:1] != "#")
    return {name: int(figure) for name, figure in words}


def growth_of(run, what, acs, base=10000):
    """How many times more an AC costs at `acs` than at `base`."""
    at, at_base = run.time("create", 0, 65536, acs, what), run.time("create", 0, 65536, base, what)
    return (at / acs) / (at_base / base) if at and at_base else None


def judged(run):
    """Rows of (name, size, ratio, limit, why it may be missed); what this run did not measure has no row."""
    for goal in OUTBOUND + (PROVISION,):
        for acs, limit in goal.limits.items():
            job = (goal.class_id, goal.mtu, acs)
            mine = run.time(goal.operation, *job, goal.what)
            other = run.time(goal.operation, *job, goal.over)
            if mine and other:
                why = CLOSE if acs == 300 else goal.why
                yield goal.name, f"{acs:,}", mine / other, limit, why
    for name, mine, other, limit in PIECES:
        if mine in run.pieces and other in run.pieces:
            yield name, "", run.pieces[mine] / run.pieces[other], limit, CLOSE
    growth = run.jobs.get(("growth", 0, 65536, 1000000))
    if growth:
        library, memcpy = (growth[f"{what} at 1,000,000"]["ns"] / growth[f"{what} at 10,000"]["ns"]
                           for what in ("library", "memcpy"))
        yield "growth of create's cost of an AC / memcpy's", "1,000,000", library / memcpy, GROWTH, GROWN
    for figure in run.all.get("process", []):
        if figure["acs"] == STORED:
            create = next(of for of in figure["requests"] if of["what"] == "create")
            ratio = create["store_cpu_ms"] / create["send_cpu_ms"]
            yield "l2vpnd stores a create / the owner sends it", f"{STORED:,}", ratio, STORE_LIMIT, STORE
    figures = stored_instructions()
    for name, limit in INSTRUCTIONS:
        yield f"instructions of {name}, an AC (as stored)", "300", figures[f"{name}/300"] / 300, limit, CLOSE
