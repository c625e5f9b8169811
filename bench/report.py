#!/usr/bin/env python3
"""Tables of what was measured, the goals beside it, and, with --write, the same in docs/performance.md with
its pictures.

usage: report.py TIMES.json PIECES.json [--write DOCS]
"""

import json
import pathlib
import sys

import goals
import plots

BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"


class Run:
    """What one run measured; times in nanoseconds."""

    def __init__(self, times_path, pieces_path):
        self.all = json.loads(pathlib.Path(times_path).read_text(encoding="utf-8"))
        self.machine = self.all["machine"]
        self.jobs = {}  # (operation, class, MTU, ACs) -> {what: entry}; what was measured together stays
        for entry in self.all["times"]:
            job = (entry["operation"], entry["class"], entry["mtu"], entry["acs"])
            self.jobs.setdefault(job, {}).setdefault(entry["what"], entry)
        measured = json.loads(pathlib.Path(pieces_path).read_text(encoding="utf-8"))["benchmarks"]
        quartiles = {}
        for entry in measured:
            if entry["run_type"] == "iteration":
                quartiles.setdefault(entry["name"], []).append(entry["cpu_time"])
        self.pieces = {name: sorted(times)[(len(times) - 1) // 4] for name, times in quartiles.items()}

    def time(self, operation, class_id, mtu, acs, what):
        entry = self.jobs.get((operation, class_id, mtu, acs), {}).get(what)
        return entry["ns"] if entry else None


def table(header, rows):
    """Markdown that reads well as text, too: the first column to the left, the others to the right."""
    cells = [header] + [[str(cell) for cell in row] for row in rows]
    widths = [max(len(row[i]) for row in cells) for i in range(len(header))]

    def line(row):
        aligned = [row[0].ljust(widths[0])] + [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        return "| " + " | ".join(aligned) + " |"

    rule = "|" + "-" * (widths[0] + 2) + "|" + "|".join("-" * (width + 1) + ":" for width in widths[1:]) + "|"
    return "\n".join([line(cells[0]), rule] + [line(row) for row in cells[1:]])


def number(value):
    return f"{value:.3f}" if value < 1 else f"{value:.2f}" if value < 100 else f"{value:,.0f}"


def machine_text(run):
    machine = run.machine
    load = f" {machine['load']:.1f} programs wanted to run when it began, that which built it among them." \
        if "load" in machine else ""
    return (f"{machine['processor']}, {machine['processors']} processors ({machine['caches']}), "
            f"{machine['system']}, {machine['compiler']}, huge pages: {machine['huge_pages']}.{load}")


def goals_table(run):
    def verdict(ratio, limit, why):
        if ratio > limit:
            return f"**not met**: {why}"
        return "met, by half" if ratio <= limit / 2 else "met"

    rows = [(name, acs, number(ratio), number(limit), verdict(ratio, limit, why))
            for name, acs, ratio, limit, why in goals.judged(run)]
    met = sum(row[4].startswith("met") for row in rows)
    return (table(["goal", "ACs", "measured", "at most", ""], rows) +
            f"\n\n{met} of {len(rows)} are met. What a miss is laid to is told [above](#what-limits-it).")


def pieces_table(run):
    """Small requests, as Google Benchmark has them: the library's, and what else was measured of the same."""
    names = dict.fromkeys(name.split("/")[0] + "/" + name.rsplit("/", 1)[1] for name in run.pieces)
    others = ("library and send", "send", "sendmsg", "memcpy", "plain loop")
    rows = []
    for name in names:
        what, count = name.split("/")
        times = [run.pieces.get(f"{what}/{other}/{count}") for other in ("library",) + others]
        size = "" if count == "1" else f" of {int(count):,}"
        rows.append([what + size] + [number(time) if time else "" for time in times])
    return table(["ns", "library", *others], sorted(rows))


def rings_table(run):
    """What it costs to keep the latest messages."""
    for figure in run.all.get("process", [])[:1]:
        rows = [[of["what"], f"{of['off_ns']:,.0f}", f"{of['on_ns']:,.0f}", number(of["on_ns"] / of["off_ns"])]
                for of in figure["rings"]]
        yield (f"The rings of the latest messages, with {figure['acs']:,} ACs: the owner's (`L2VPN_CAPTURE`) and l2vpnd's "
               "(`--capture`).")
        yield table(["what", "without, ns", "with, ns", "with / without"], rows)


def spread(entry, acs):
    return f"{entry['p10'] / acs:.1f} to {entry['p90'] / acs:.1f}"


# Of each kind of job: what the others are compared with.
BASES = {"create": "library", "update": "library", "delete": "library", "provision": "library",
         "provisions": "library", "provisions received": "library and recv", "unprovision": "library",
         "notices": "library"}


def ratio_tables(run):
    for operation, base in BASES.items():
        jobs = {job: what for job, what in run.jobs.items() if job[0] == operation}
        others = list(dict.fromkeys(name for what in jobs.values() for name in what if name != base))
        rows = []
        for (_, class_id, mtu, acs), what in sorted(jobs.items()):
            library = what[base]
            rows.append([f"class {class_id}, MTU {mtu:,}, {acs:,} ACs", f"{library['ns'] / acs:.1f}",
                         spread(library, acs)] +
                        [number(library["ns"] / what[name]["ns"]) if name in what else "" for name in others])
        if rows:
            header = [operation, "ns per AC", "10 % to 90 %"] + ["/ " + other for other in others]
            yield table(header, rows)


# What a column of the ratios names that is no other way of doing the whole job.
NO_RIVALS = ("library", "library and send", "send", "memcpy", "library and recv", "recv", "copy and zero fill")


def ahead_table(run):
    """Where another way of doing the job took less time than the library, and how much the library took of it."""
    found = {}
    for (operation, class_id, mtu, acs), what in sorted(run.jobs.items()):
        mine = what.get(BASES.get(operation))
        for name, entry in what.items():
            if mine and name not in NO_RIVALS:
                job = (mine["ns"] / entry["ns"], f"{acs:,}, {mtu:,}")
                found.setdefault((f"{operation}, class {class_id}", name), []).append(job)
    rows = []
    for (job, name), ratios in found.items():
        lost = sorted(ratio for ratio in ratios if ratio[0] >= 1.005)
        if lost:
            low, high = number(lost[0][0]), number(lost[-1][0])
            rows.append([job, name, low if len(lost) == 1 else f"{low} to {high}", lost[-1][1],
                         f"{len(lost)} of {len(ratios)}"])
    return table(["job", "who is ahead", "library's time / its", "most so at: ACs, MTU", "jobs"], rows)


def sends_table(run):
    """The Linux platform's send beside a sendmsg loop."""
    for figure in run.all.get("process", [])[:1]:
        if figure["sends"]:
            rows = [[f"create of {of['acs']:,}", f"{of['messages']:,}", f"{of['bytes']:,}", number(of["platform_ns"]),
                     number(of["sendmsg_ns"]), number(of["platform_ns"] / of["sendmsg_ns"])] for of in figure["sends"]]
            yield ("The messages of a create, made before, through a link of the Linux platform's and through a socket of "
                   "the same kind by a loop of `sendmsg`, of the same pieces, each to a process that takes all:")
            yield table(["sent", "messages", "bytes", "platform, ns", "sendmsg, ns", "platform / sendmsg"], rows)


def owners_text(run):
    for figure in run.all.get("owners", []):
        yield (f"{figure['owners']} owners in one process, each a client with a thread of its own, create, update "
               f"and delete {figure['acs_each']:,} ACs, all at once: {figure['total_ms']:.0f} ms in all, on "
               f"{run.machine['processors']} processors; the longest wait for the library's lock was "
               f"{figure['longest_wait_ms']:.0f} ms, and all together needed {figure['memory_mib']:.0f} MiB "
               "beside their arrays.")


def process_table(run):
    """Requests to l2vpnd, of one owner and of many."""
    def ms(time):
        return f"{time:,.0f}" if time >= 10 else f"{time:.1f}"

    def bytes_an_ac(figure, of):
        acs = figure["acs"] * figure.get("owners", 1)
        return f"{(of['after_mib'] - of['before_mib']) * 2**20 / acs:.0f}" if of["what"] == "create" else ""

    rows = []
    for figure in run.all.get("process", []) + run.all.get("crowd", []):
        by = f"{figure['owners']} owners, {figure['acs']:,} each" if "owners" in figure else f"{figure['acs']:,}"
        for of in figure["requests"]:
            times = [of[f"{what}_ms"] for what in ("send_cpu", "store_cpu", "store_user", "store_system")]
            rows.append([f"{of['what']}, {by}", ms(of["send_ms"]), ms(of.get("longest_ms", of["send_ms"])),
                         *map(ms, times), f"{of['owner_mib']:.1f}", f"{of['before_mib']:.0f}",
                         f"{of['after_mib']:.0f}", bytes_an_ac(figure, of)])
    return table(["requests to l2vpnd", "all took, ms", "the longest", "owners' own", "l2vpnd's own", "in the program",
                  "in the kernel", "an owner's MiB", "l2vpnd's before", "after", "bytes an AC"], rows)


def measured(run):
    parts = ["Measured on: " + machine_text(run), "### Goals", goals_table(run), "### Ratios",
             "The library's time divided by that of what a column names; below 1 the library is faster. Times "
             "are lower quartiles of the thread's own time, the spread is the library's. Of *provisions received* "
             "all columns, the library's, too, have each message received first."]
    for text in ratio_tables(run):
        parts.append(text)
    parts += ["### Where others are ahead", "Of the whole requests above, every ratio beyond 1 to another way of doing all of it. Why is told "
              "[above](#what-limits-it).", ahead_table(run)]
    parts += ["### Small requests", pieces_table(run)]
    parts += sends_table(run)
    scale = list(owners_text(run)) + list(rings_table(run))
    if "process" in run.all:
        scale += ["Requests of class 0 to l2vpnd, of one owner and of many at once, each a process of its own: until "
                  "all have returned, the longest of them, and the processors' time of all owners and of l2vpnd. An "
                  "owner's memory is the most that it took beside its arrays. Of one owner the lower quartiles of "
                  "five processes are shown, of many one run.", process_table(run)]
    if scale:
        parts += ["### Scale"] + scale
    return "\n\n".join(parts)


def write(run, docs):
    path = docs / "performance.md"
    text = path.read_text(encoding="utf-8")
    if text.count(BEGIN) != 1 or text.count(END) != 1:
        sys.exit(f"report.py: {path}: needs one '{BEGIN}' and one '{END}'")
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    path.write_text(before + BEGIN + "\n\n" + measured(run) + "\n\n" + END + after, encoding="utf-8")
    plots.draw(run, docs)


def main(arguments):
    if len(arguments) not in (2, 4) or (len(arguments) == 4 and arguments[2] != "--write"):
        sys.exit("usage: report.py TIMES.json PIECES.json [--write DOCS]")
    run = Run(*arguments[:2])
    print(measured(run))
    if len(arguments) == 4:
        write(run, pathlib.Path(arguments[3]))


if __name__ == "__main__":
    main(sys.argv[1:])
