#!/usr/bin/env python3
"""troubleshooting_test.py ROOT: every text that the library, the platform, l2vpnd and its tools write has an entry.

The texts are taken from the sources: every string literal that a person would read, but for those named here. An
entry's lines are the indented ones of the page; a text has one when what never changes in it stands on such a line.
"""

import pathlib
import re
import sys

from faults import Faults
from texts import ASIDE, fragments, is_for_people, literals

root = pathlib.Path(sys.argv[1])
FOLDERS = ["lib/src", "platform/common", "platform/posix", "process", "capture", "tools"]

# Files whose texts are answers, not logs.
ANSWERS = {
    "process/options.cpp": "the help, and its one line on a bad command line",
    "process/control_request.cpp": "what operators are answered: docs/process.md has their codes",
    "process/verbs.cpp": "the same",
    "process/verbs_ac.cpp": "the same",
    "process/verbs_mstp.cpp": "the same",
    "process/verbs_notify.cpp": "the same",
    "process/verbs_explain.cpp": "the same",
    "tools/command_line.cpp": "the help, and one line on a bad command line",
    "tools/command_line_watch.cpp": "the same",
    "tools/command_line_numbers.h": "the same",
    "process/number_option.h": "the same",
    "tools/views.cpp": "what is shown",
    "tools/views_tables.cpp": "the same",
    "tools/cells.cpp": "the same",
    "tools/top.cpp": "the same",
    "tools/explain_print.cpp": "the same",
    "tools/replay/tables.cpp": "the same",
    "tools/verdict.cpp": "verdicts: docs/process.md has their codes",
    "capture/describe.cpp": "what is shown",
    "tools/trace/print.cpp": "the same",
}
# Texts that nobody is shown.
NOT_LOGGED = {
    "L2VPN AC Client ctx": "names an allocation",
    "AC info msg array": "names an allocation",
    "AC data array": "names an allocation",
    "nothing wrong": "of no fault",
    "nothing is wrong": "of no fault",
    "Unknown error 4294967295": "its length is asked for",
}
# Help and progress of programs whose other texts are looked at.
HELP = {
    "Prints the trace file of an L2VPN process or interface owner.",
    "The trace file",
    "Where threads waited for locks, instead of the records",
    "One JSON object, for programs",
    "l2vpn-trace ",
    "Print the version",
    "Exit status: 0 printed, 1 the file cannot be read or is no trace file, 2 bad command line.",
}
# Files whose options are described beside what does their work: what describes them is left out.
DESCRIBED = {"tools/replay/replay.cpp", "tools/timeline/timeline.cpp"}
DESCRIPTION = re.compile(r'(?:\badd_(?:subcommand|option|flag)|\bfooter)\((?:[^;"]|"(?:\\.|[^"\\])*")*;')
# What they show and write when all goes well.
SHOWN = {
    "replayed ",
    "between record ",
    ": replayed ",
    " again: replayed ",
    "record is",
    " missing in the capture: what they did is not told",
    "the capture begins with record ",
    " of the process: what was before is not told",
    " of owners left out: the process's tell the same",
    " replayed: ",
    " were to be replayed\n",
    "spanning-tree record",
    "spanning-tree records",
    "open batch",
    "open batches",
    " more (--json has all)\n",
    "the tables are the same\n",
    "a record that makes one, number ",
    "(played once more up to it, nothing differed: it is not so each time)\n",
    '<script type="text/plain" id="',
    "</script>\n",
}
# One word alone is most often no text for people; these are.
WORDS = {"interrupted"}
COMMANDS = ("l2vpnctl ", "journalctl ")
# Texts made from conditions, not from literals.
ASSERTIONS = re.compile(r"\bL2VPN_AC_ASSERT\((.*)\);")


def entries(page):
    """The indented lines that begin a block, after an empty line, but for commands."""
    blocks = re.findall(r"(?:^|\n\n)((?:    \S?[^\n]*\n)+)(?=\n)", page)
    return [(line[4:], block) for block in blocks for line in block.split("\n") if line.strip()]


def main():
    faults = Faults()
    page = (root / "docs/troubleshooting.md").read_text()
    lines = [line for line, _ in entries(page)]
    used, patterns = set(), []
    for folder in FOLDERS:
        for path in sorted((root / "l2vpn" / folder).rglob("*")):
            name = str(path.relative_to(root / "l2vpn"))
            if path.suffix not in (".cpp", ".h") or name in ANSWERS:
                used.add(name)
                continue
            source = path.read_text()
            if name in DESCRIBED:
                used.add(name)
                source = DESCRIPTION.sub("", source)
            texts = [text for text in literals(source) if text in WORDS or is_for_people(text)]
            texts += [text for text in ASSERTIONS.findall(ASIDE.sub("", source))]
            for text in texts:
                if text in NOT_LOGGED or text in HELP | SHOWN:
                    used.add(text)
                    continue
                parts = fragments(text)
                if parts:
                    patterns.append(re.compile(".*?".join(re.escape(part) for part in parts)))
                    faults.check(any(patterns[-1].search(line) for line in lines),
                                 f"l2vpn/{name}: '{text}' has no entry in docs/troubleshooting.md")
    for name in ANSWERS.keys() | NOT_LOGGED.keys() | HELP | SHOWN | DESCRIBED:
        faults.check(name in used, f"'{name}' is no text or file of the sources any more")
    for line, block in entries(page):
        faults.check(line.startswith(COMMANDS) or any(pattern.search(line) for pattern in patterns),
                     f"docs/troubleshooting.md: '{line}' is no text of the sources any more")
        faults.check(re.search(rf"{re.escape(block)}\n+[A-Z`(-].", page) or line.startswith(COMMANDS),
                     f"docs/troubleshooting.md: nothing is told of '{line}'")
    faults.end(least=250)


main()
