#!/usr/bin/env python3
"""Reads docs/wire.md: its tables are the layouts, its pictures are drawn from them.

wire_page.py ROOT --draw writes the pictures anew, after a table was changed.
"""

import dataclasses
import pathlib
import re
import sys

PICTURE = re.compile(r"^```text\n(.*?)^```\n", re.M | re.S)


@dataclasses.dataclass
class Field:
    offset: int
    size: int
    name: str
    kinds: list  # (kind, size) of each element
    classes: str  # "all", "others", or numbers

    @property
    def base(self):
        return re.split(r"[.\[ ]", self.name)[0]


@dataclasses.dataclass
class Layout:
    title: str
    record: str  # the C type, or ""
    start: int  # of the first field, within the element on the wire
    fields: list

    def of_class(self, class_id):
        """The fields of a class, in order."""
        named = {(f.offset, n) for f in self.fields for n in re.findall(r"\d+", f.classes)}
        taken = []
        for field in self.fields:
            numbers = re.findall(r"\d+", field.classes)
            is_named = any((field.offset, str(class_id)) == entry for entry in named)
            if field.classes == "all" or str(class_id) in numbers or (field.classes == "others" and not is_named):
                taken.append(field)
        # A wide field of the other classes covers what is behind its offset, too.
        return [f for f in taken if f.classes != "others" or
                not any(g is not f and f.offset <= g.offset < f.offset + f.size for g in taken)]

    def kinds(self, class_id=0):
        return [kind for field in self.of_class(class_id) for kind in field.kinds]

    def size(self, class_id=0):
        return sum(size for _, size in self.kinds(class_id))


def rows_of(table):
    lines = [line for line in table.strip().split("\n") if line.startswith("|")]
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]
    return rows[0], rows[2:]


def kinds_of(text, size):
    found = re.fullmatch(r"(?:(\d+) × )?(u16|u32|u64|bytes|bits)", text)
    if not found:
        raise ValueError(f"'{text}' is no kind")
    count = int(found.group(1) or 1)
    return [(found.group(2), size // count)] * count


class Page:
    def __init__(self, root):
        self.path = pathlib.Path(root) / "docs/wire.md"
        self.text = self.path.read_text()
        self.layouts, self.tables, self.pictures = {}, {}, {}
        for section in re.split(r"^(?=##+ )", self.text, flags=re.M):
            title = section.split("\n", 1)[0].lstrip("# ")
            table = re.search(r"^\|.*?(?=^[^|]|\Z)", section, re.M | re.S)
            if not table:
                continue
            header, rows = rows_of(table.group(0))
            if header[0] == "offset":
                self.layouts[title] = self.layout(title, rows)
            else:
                self.tables[title] = rows
            picture = PICTURE.search(section)
            if picture:
                self.pictures[title] = picture.group(1)

    @staticmethod
    def layout(title, rows):
        record = re.search(r"`(\w+)`", title)
        fields = []
        for row in rows:
            offset, size = int(row[0].replace(",", "")), int(row[1].replace(",", ""))
            classes = row[4] if len(row) > 4 else "all"
            fields.append(Field(offset, size, row[2].strip("`"), kinds_of(row[3], size), classes))
        return Layout(title, record.group(1) if record else "", fields[0].offset if fields else 0, fields)

    def drawn(self, title):
        if title in self.layouts:
            return picture_of_record(self.layouts[title])
        if title == "Messages":
            return picture_of_messages(self.tables[title])
        return None

    def draw(self):
        """The page with its pictures drawn anew."""
        def redraw(section):
            title = section.split("\n", 1)[0].lstrip("# ")
            picture = self.drawn(title) if title in self.pictures else None
            return section if picture is None else PICTURE.sub(lambda _: f"```text\n{picture}```\n", section, count=1)
        return "".join(redraw(section) for section in re.split(r"^(?=##+ )", self.text, flags=re.M))


# --- pictures: four bytes a row, sixteen characters a byte -------------------------------------------------

WIDTH = 16


def cells_of(layout):
    """(offset, size, label), one after the other; variants of the same bytes share one cell."""
    cells = []
    for field in sorted(layout.fields, key=lambda f: (f.offset, -f.size)):
        if cells and field.offset < cells[-1][0] + cells[-1][1]:
            continue
        count = len(field.kinds)
        for n, (_, size) in enumerate(field.kinds):
            label = field.name if count == 1 else f"{field.name}[{n}]"
            variants = [f for f in layout.fields if f.offset == field.offset]
            cells.append((field.offset + n * size, size, field.base if len(variants) > 1 else label))
    return cells


def picture_of_record(layout):
    cells = cells_of(layout)
    begin, end = cells[0][0], cells[-1][0] + cells[-1][1]
    lines = [(" " * 8 + "".join(str(byte).ljust(WIDTH) for byte in range(4))).rstrip()]
    at, is_top = begin - begin % 4, True
    while at < end:
        row_end = min(at + 4, end)
        parts = [(max(at, o), min(row_end, o + s), (o, s, label)) for o, s, label in cells
                 if o < row_end and o + s > at]
        width = WIDTH * (row_end - at)
        rule = " " * 6 + "+" + "".join("+" if (n + 1) % WIDTH == 0 else "-" for n in range(width))
        long = parts[0] if len(parts) == 1 and parts[0][2][0] <= at and parts[0][2][1] > 8 else None
        continues = not is_top and parts[0][2][0] < at
        lines.append(rule if not continues else " " * 6 + "|" + " " * (width - 1) + "|")
        if long and long[2][0] + long[2][1] - at > 4:
            offset, size, label = long[2]
            last = (offset + size) - (offset + size) % 4
            last = last if last > at else offset + size
            told = f"{label}, {size:,} bytes" if offset == at else f"{label}, on to byte {offset + size - 1:,}"
            lines.append(f"{at:5} /{(' ' + told).ljust(width - 1)}/")
            at, is_top = last, False
            if at >= end:
                row_end = end
                lines.append(" " * 6 + "+" + "".join("+" if (n + 1) % WIDTH == 0 else "-" for n in range(width)))
                return "\n".join(lines) + "\n"
            continue
        text = ""
        for start, stop, (offset, size, label) in parts:
            room = WIDTH * (stop - start) - 1
            is_begin = start == offset
            told = label if size <= 8 or not is_begin else f"{label}, {size:,} bytes"
            text += "|" + (" " + told if is_begin else "").ljust(room)[:room]
        lines.append(f"{at:5} {text}|")
        at, is_top = row_end, False
    lines.append(" " * 6 + "+" + "".join("+" if (n + 1) % WIDTH == 0 else "-" for n in range(width)))
    return "\n".join(lines) + "\n"


def pieces_of(text):
    """'handles, 4 × n; definitions, 616 × n' as (what, size) pairs; nothing for 'nothing'."""
    return [tuple(part.strip() for part in piece.split(",", 1)) for piece in text.split(";") if "," in piece]


def picture_of_messages(rows):
    lines = []
    for row in rows:
        name = row[1].strip("`")
        boxes = [("header", "16")] + [(what.strip("`"), size) for what, size in pieces_of(row[3])]
        labels = [f" {what} " for what, _ in boxes]
        sizes = [f" {size} " for _, size in boxes]
        widths = [max(len(a), len(b)) for a, b in zip(labels, sizes)]
        rule = "+" + "+".join("-" * width for width in widths) + "+"
        lines += [name, rule, "|" + "|".join(a.ljust(w) for a, w in zip(labels, widths)) + "|",
                  "|" + "|".join(b.ljust(w) for b, w in zip(sizes, widths)) + "|", rule, ""]
    return "\n".join(lines[:-1]) + "\n"


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[2] != "--draw":
        sys.exit("usage: wire_page.py ROOT --draw")
    a_page = Page(sys.argv[1])
    a_page.path.write_text(a_page.draw())
