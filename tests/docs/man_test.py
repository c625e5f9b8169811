#!/usr/bin/env python3
"""man_test.py ROOT BINARIES CC: the manual pages against the programs, the library and its header.

- mandoc has nothing to warn of; what a page refers to is there
- every exported function has a page, with the header's declaration, and its examples compile
- every verb and option that a program's --help tells of is on its page, and the page tells of no other
"""

import pathlib
import re
import sys

from faults import Faults, output_of

root, binaries, compiler = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
pages = {path.name: path.read_text() for path in sorted((root / "docs/man").glob("*.[0-9]"))}
exports = (root / "tests/abi/libl2vpn_ac.exports").read_text().split()
header = (root / "l2vpn/lib/include/l2vpn/l2vpn_ac_api.h").read_text()
programs = {"l2vpnd": "8", "l2vpnctl": "1", "l2vpn-trace": "1", "l2vpn-owner": "1"}

# What the examples that are statements take for granted.
FRAME = """
#include <err.h>
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>
#include <string.h>
extern ifhtype handle, *ifh, *ifh2;
extern uint32_t n, m;
extern l2vpn_ac_defn_t *defns, *defns2;
extern l2vpn_ac_info_t info, *infos, *infos2;
extern l2vpn_msti_vid_map_t first[2000], second[2094];
extern event_mgr_p events;
extern l2vpn_ac_callback_vector_t callbacks;
extern l2vpn_ac_client_hd_t client;
extern qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t arg);
void example(void);
void example(void)
{
"""


def check_lint(faults):
    for name in pages:
        status, said = output_of("mandoc", "-T", "lint", "-W", "warning", str(root / "docs/man" / name))
        faults.check(status == 0 and not said, f"{name}: {said.strip()}")
    for name, text in pages.items():
        for other, section in re.findall(r"^\.(?:It )?Xr (\S+) (\d)", text, re.M):
            is_ours = other.startswith(("l2vpn", "lib"))
            faults.check(not is_ours or f"{other}.{section}" in pages, f"{name}: no page {other}({section})")
        for section in ["NAME", "SYNOPSIS", "DESCRIPTION", "EXAMPLES", "SEE ALSO"]:
            faults.check(f"\n.Sh {section}\n" in text, f"{name}: no section {section}")


def parameters(text):
    return [re.sub(r"\s+", " ", part).strip() for part in text.split(",")]


def declared(function):
    """The parameters as the header has them."""
    found = re.search(rf"^qerrno {function}\(([^)]*)\);", header, re.M)
    return parameters(found.group(1)) if found else None


def told(page):
    """The parameters as the page's synopsis has them."""
    synopsis = page.split("\n.Sh SYNOPSIS\n")[1].split("\n.Sh ")[0]
    return re.findall(r'^\.Fa "(.*)"$', synopsis, re.M) or re.findall(r'^\.Fn \S+ "(.*)"$', synopsis, re.M)


def check_functions(faults):
    faults.check(len(exports) == 10, f"{len(exports)} exported functions, not 10")
    faults.check({name[:-2] for name in pages if name.endswith(".3")} == set(exports),
                 "the pages of section 3 are not those of the exported functions")
    overview = pages.get("l2vpn_ac.7", "")
    for function in exports:
        page = pages.get(f"{function}.3")
        faults.check(page is not None, f"{function}: no page")
        if page is None:
            continue
        faults.check(f"\n.Nm {function}\n" in page, f"{function}.3: its name is another")
        faults.check(told(page) == declared(function),
                     f"{function}.3: declared {declared(function)}, told {told(page)}")
        for section in ["LIBRARY", "RETURN VALUES", "THREADS"]:
            faults.check(f"\n.Sh {section}\n" in page, f"{function}.3: no section {section}")
        faults.check("*" not in "".join(declared(function)) or "connect" in function or
                     "\n.Sh OWNERSHIP\n" in page, f"{function}.3: no section OWNERSHIP")
        faults.check(re.search(r"^\.It 0 Pq Dv EOK$", page, re.M) or "nodeid" in function,
                     f"{function}.3: no status 0")
        faults.check(re.search(r"^\.It 22 Pq Dv EINVAL$", page, re.M), f"{function}.3: no status 22")
        faults.check(f".It Xr {function} 3\n" in overview, f"l2vpn_ac.7: does not list {function}")


def check_examples(faults):
    include = [f"-I{root / part}" for part in ["l2vpn/lib/include", "l2vpn/platform/include"]]
    for name, page in pages.items():
        if not name.endswith((".3", ".7")):
            continue
        blocks = re.findall(r"^\.Bd -literal\n(.*?)^\.Ed$", page, re.M | re.S)
        faults.check(blocks, f"{name}: no example")
        for block in blocks:
            block = block.replace("\\e", "\\")
            is_whole = block.startswith("#include")
            source = block if is_whole else f"{FRAME}{block}}}\n"
            status, said = output_of(compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", "-fsyntax-only",
                                     *include, "-x", "c", "-", given=source)
            faults.check(status == 0, f"{name}: its example does not compile: {said}")


def helps(program, *verbs):
    """The texts of --help of a program and of all its verbs, with the verbs."""
    status, text = output_of(str(binaries / program), *verbs, "--help")
    found = [(verbs, text)] if status == 0 else []
    for verb in re.findall(r"^  ([a-z][a-z-]*)\s", text.partition("\nSubcommands:\n")[2], re.M):
        found += helps(program, *verbs, verb)
    return found


def check_program(faults, program, section):
    name = f"{program}.{section}"
    page = pages.get(name)
    faults.check(page is not None, f"{program}: no page")
    if page is None:
        return
    on_page = set(re.findall(r"\\-([a-z][a-z-]+)", page))
    texts = helps(program)
    faults.check(texts, f"{program}: --help fails")
    in_help = {option for _, text in texts for option in re.findall(r"^  (?:-\w,)?--([a-z-]+)", text, re.M)}
    faults.check(len(in_help) > 2, f"{program}: --help tells of no options")
    for option in sorted(in_help | on_page):
        faults.check(option in on_page, f"{name}: no option --{option}")
        faults.check(option in in_help, f"{name}: --{option}, which {program} does not have")
    # A verb is on the page as an item, alone or with the verb that it stands below.
    items = " , ".join(re.findall(r"^\.It Cm (.*)$", page, re.M)).split(" , ")
    for verbs, text in texts:
        if verbs and "\nSubcommands:\n" not in text:
            faults.check(" ".join(verbs) in items, f"{name}: no verb {' '.join(verbs)}")
    faults.check("\n.Sh EXIT STATUS\n" in page, f"{name}: no section EXIT STATUS")
    for number in re.findall(r"\b([0-9]) ", text_of_exit_status(texts)):
        exits = page.partition("\n.Sh EXIT STATUS\n")[2].partition("\n.Sh ")[0]
        faults.check(f"\n.It {number}\n" in exits, f"{name}: no exit status {number}")


def text_of_exit_status(texts):
    return texts[0][1].partition("Exit status:")[2].partition(".")[0] if texts else ""


def main():
    faults = Faults()
    check_lint(faults)
    check_functions(faults)
    check_examples(faults)
    for program, section in programs.items():
        check_program(faults, program, section)
    faults.end(least=200)


main()
