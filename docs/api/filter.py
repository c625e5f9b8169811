#!/usr/bin/env python3
"""filter.py HEADER: the header with its comments as Doxygen wants them.

The headers are written for readers of headers. Here a comment that stands before a declaration becomes that
declaration's, one behind a member the member's, and the first one the file's; what is indented stays as it is.
"""

import re
import sys

COMMENT = re.compile(r"/\*(.*?)\*/", re.S)


def escaped(text):
    return re.sub(r"([\\@<>#%&])", r"\\\1", text)


def formatted(lines):
    """Paragraphs as they are, what is indented as a block of its own."""
    result, verbatim = [], False
    for at, line in enumerate(lines):
        following = next((later for later in lines[at:] if later.strip()), "")
        indented = line.startswith("  ") if line.strip() else verbatim and following.startswith("  ")
        if indented != verbatim:
            result.append("@verbatim" if indented else "@endverbatim")
            verbatim = indented
        result.append(line if verbatim else escaped(line))
    return result + (["@endverbatim"] if verbatim else [])


def lines_of(body):
    lines = [re.sub(r"^\s*\* ?", "", line).rstrip() for line in body.split("\n")]
    return [line.strip() if at == 0 else line for at, line in enumerate(lines)]


def converted(source, name):
    result, at, is_first = [], 0, True
    for found in COMMENT.finditer(source):
        before = source[source.rfind("\n", 0, found.start()) + 1:found.start()]
        result.append(source[at:found.start()])
        at = found.end()
        lines = lines_of(found.group(1))
        if lines[0].startswith("---"):
            continue  # a rule between sections
        mark = "/**< " if before.strip() else "/** "
        text = "\n".join(formatted(lines))
        if is_first:
            text, is_first = f"@file {name}\n{text}", False
        result.append(f"{mark}{text}\n*/" if "\n" in text else f"{mark}{text} */")
    return "".join(result) + source[at:]


def main():
    path = sys.argv[1]
    with open(path, encoding="utf-8") as file:
        source = file.read()
    name = "/".join(path.split("/")[-2:])
    sys.stdout.write(converted(source, name))


main()
