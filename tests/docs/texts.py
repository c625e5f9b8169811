"""The texts in C++ sources: every string literal that a person would read, as it stands in the code."""

import re

TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|[^\s"\'/]+|/', re.S)
# Statements that hold texts for compilers and linkers only.
ASIDE = re.compile(r"\bstatic_assert\s*\((?:[^;\"]|\"(?:\\.|[^\"\\])*\")*;|^\s*#\s*include[^\n]*|"
                   r"\[\[[^\]]*\]\]|__asm__?\s*\([^;]*;|extern \"C\"", re.M)


def literals(source):
    """The string literals, those side by side joined; a PRI macro between them is a number."""
    joined, is_open = [], False
    for found in TOKEN.finditer(ASIDE.sub(" ", source)):
        token = found.group(0)
        if token.startswith(("//", "/*")):
            continue
        if token.startswith('"'):
            text = token[1:-1].replace('\\"', '"').replace("\\n", "\n").replace("\\\\", "\\")
            if is_open:
                joined[-1] += text
            else:
                joined.append(text)
            is_open = True
        elif not (is_open and re.fullmatch(r"PRI[a-z]\d+", token)):
            is_open = False
    return joined


def is_for_people(text):
    return re.search(r"[A-Za-z]{3}", text) is not None and re.search(r"\S[ \n]|[ \n]\S", text) is not None


def fragments(text):
    """What of a text is always the same: without conversions, and without the spaces at the ends."""
    parts = re.split(r"%(?:\d|[-+ #.*]|hh|h|ll|l|z|j)*[diuxXcsp%]?|\n", text)
    return [part.strip() for part in parts if re.search(r"[A-Za-z]{2}", part)]
