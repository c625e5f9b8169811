#!/usr/bin/env python3
"""The page that l2vpnctl timeline makes, in a browser: it is clicked, zoomed, filtered, and what it shows is compared
with what l2vpnctl monitor says of the same capture. Then the same with 100,000 messages.

    timeline_test.py L2VPNCTL
"""

import pathlib
import re
import subprocess
import sys
import tempfile

from browser import Browser
from samples import MANY, beside, large, parts, restarted, small, strange

program = sys.argv[1]
HEAD_HEIGHT = 46  # of the picture's own head, in pixels


def check(condition, what):
    if not condition:
        raise RuntimeError(what)


def check_equal(found, expected, what):
    check(found == expected, f"{what}: {found!r}, not {expected!r}")


def monitor(path, *choice):
    """Of each record what is printed: its line, and those of its ACs."""
    out = subprocess.run([program, "monitor", "--read", str(path), "-v", *choice], stdout=subprocess.PIPE,
                         timeout=300, check=True, text=True).stdout
    found = []
    for line in out.splitlines():
        if line.startswith("    "):
            found[-1].append(line.strip())
        elif not line.startswith("("):
            found.append([line])
    return found


def is_failure(record):
    return re.search(" (FAILED|MALFORMED): | REFUSED| DOWN: ", record[0]) is not None


def digits(text):
    return int(re.sub(r"\D", "", text))


class Page(Browser):
    def show(self, path):
        self.open(path)
        self.wait("the page", lambda: not self.is_seen("#loading") or "cannot" in self.text("#loading"))
        check(not self.is_seen("#loading"), self.text("#loading"))
        self.wait("the view", lambda: self.text("#view") != "")

    def settle(self):
        """What was done has been drawn."""
        self.ask("POST", f"{self.session}/execute/async",
                 {"script": "requestAnimationFrame(() => requestAnimationFrame(() => arguments[0]()))", "args": []})

    def in_sight(self):
        self.settle()
        return digits(re.match(r"In sight: (\S+) of|In sight: nothing(0?)", self.text("#view")).group(1) or "0")

    def count(self):
        self.settle()
        return digits(self.text("#count").split(" ")[0])

    def box(self):
        return self.run("const box = document.getElementById('lanes').getBoundingClientRect();"
                        "return [box.left, box.top, box.width, box.height]")

    def middle(self):
        left, top, width, height = self.box()
        return left + width / 2, top + height / 2

    def details(self):
        return [self.text("#line"),
                *self.run("return [...document.querySelectorAll('#records div')].map((row) => row.textContent)")]

    def chosen(self):
        return digits(self.text("#details-title").split(" of ")[0]) if self.is_seen("#details") else 0

    def expect_details(self, number, record):
        self.wait(f"record {number + 1}", lambda: self.chosen() == number + 1)
        check_equal(self.details(), record, f"record {number + 1}")

    def pixels(self, name):
        """How many pixels of the picture have this colour of the page."""
        self.settle()
        return self.run("""
            const canvas = document.getElementById("lanes");
            const style = getComputedStyle(document.documentElement).getPropertyValue("--" + arguments[0]).trim();
            const want = [1, 3, 5].map((at) => parseInt(style.slice(at, at + 2), 16));
            const {data} = canvas.getContext("2d").getImageData(0, 0, canvas.width - 40, canvas.height);
            let n = 0;
            for (let i = 0; i < data.length; i += 4) {
              n += want.every((value, part) => Math.abs(data[i + part] - value) < 8) ? 1 : 0;
            }
            return n;""", name)

    def check_quiet(self):
        words = [word for word in self.said() if word["level"] == "SEVERE"]
        check_equal(words, [], "the console")
        check_equal(self.run("return performance.getEntriesByType('resource').length"), 0, "what was fetched")


def clicks(page, records):
    """Each record is where it is drawn, and says what monitor says."""
    page.click("#fit")
    check_equal(page.in_sight(), len(records), "in sight")
    left, top, _, height = page.box()
    for number, record in enumerate(records):
        row = (height - HEAD_HEIGHT) / len(records)
        page.click_at(left + 250, top + HEAD_HEIGHT + (number + 0.5) * row)
        page.expect_details(number, record)
        if number == 0:  # the details take room from the picture, once
            page.click("#fit")
            left, top, _, height = page.box()
    page.click("#close")
    page.settle()
    check(not page.is_seen("#details"), "the details stay")


def keys(page, records):
    page.click("#fit")
    failures = [number for number, record in enumerate(records) if is_failure(record)]
    check(len(failures) >= 4, f"the capture has only {len(failures)} failures")
    page.run("document.getElementById('lanes').focus()")
    page.key("Down")
    page.expect_details(0, records[0])
    page.key("Down")
    page.expect_details(1, records[1])
    page.key("Up")
    page.expect_details(0, records[0])
    for number in failures:
        page.key("n")
        page.expect_details(number, records[number])
    page.key("N")
    page.expect_details(failures[-2], records[failures[-2]])
    page.click("#before")
    page.expect_details(failures[-2] - 1, records[failures[-2] - 1])
    page.key("Escape")
    page.wait("the end of the details", lambda: not page.is_seen("#details"))


def zooms(page, all_of_them):
    page.click("#fit")
    x, y = page.middle()
    for scale in ["#by-time", "#by-order"]:
        page.click(scale)
        check_equal(page.run("return document.querySelector(arguments[0]).ariaPressed", scale), "true", scale)
        check_equal(page.in_sight(), all_of_them, f"{scale} shows")
        page.wheel(x, y, -600)
        nearer = page.in_sight()
        check(nearer < all_of_them, f"{scale}: the wheel does not zoom: {nearer}")
        page.wheel(x, y, 4000)
        check_equal(page.in_sight(), all_of_them, "zoomed out")
    for nearer, further in [("+", "-"), ("#zoom-in", "#zoom-out")]:
        do = page.click if nearer.startswith("#") else page.key
        do(nearer)
        do(nearer)
        check(page.in_sight() < all_of_them, f"{nearer} does not zoom")
        do(further)
        do(further)
        check_equal(page.in_sight(), all_of_them, further)
    page.click("#zoom-in")
    page.click("#zoom-in")
    page.key("PageUp")
    page.settle()
    before = page.text("#view")
    page.drag(x, y + 60, x, y - 60)
    page.settle()
    check(page.text("#view") != before, "dragging does not move")
    page.key("PageUp")
    page.settle()
    check_equal(page.text("#view"), before, "moved back")
    page.key("0")
    check_equal(page.in_sight(), all_of_them, "0 shows")


def filters(page, path, chosen):
    def expect(what, *choice):
        expected = len(monitor(path, *choice))
        page.wait(f"{what} {choice}: {expected} records", lambda: page.count() == expected)
        check_equal(page.in_sight(), expected, f"{what} in sight")

    def clear():
        page.click("#clear")
        expect("clear")

    for selector, text, *choice in chosen:
        if selector in ("#handle", "#name"):
            page.type(selector, text)
        else:
            page.choose(selector, text)
        expect(selector, *choice)
        clear()
    page.choose("#type", "CREATE")
    page.type("#handle", "0x12")
    expect("type and handle", "--type", "CREATE", "--handle", "0x12")
    clear()
    page.type("#handle", "0x1z")
    check_equal(page.run("return document.getElementById('handle').ariaInvalid"), "true", "a handle that is none")
    clear()
    page.type("#name", "nothing is called that")
    page.wait("nothing", lambda: page.is_seen("#empty"))
    clear()
    check(not page.is_seen("#empty"), "records, and none")


def missing(page):
    """A line from side to side, red and dotted, before what came behind a gap."""
    page.choose("#owner", "portd-2[4002], class 3, owner 2")
    page.choose("#type", "CREATE")
    page.wait("two records", lambda: page.count() == 2)
    check(page.pixels("bad") > 50, "records are missing, and nothing says so")
    page.click("#clear")
    page.choose("#owner", "portd-1[4001], class 3, owner 1")
    page.choose("#type", "CREATE")
    page.wait("three records", lambda: page.count() == 3)
    check_equal(page.pixels("bad"), 0, "red where nothing is missing")
    page.click("#clear")


def colours(page):
    """What is drawn is what is there, in either theme, and can be read."""
    def brightness(colour):
        parts = [int(colour[at:at + 2], 16) / 255 for at in (1, 3, 5)]
        red, green, blue = (p / 12.92 if p <= 0.03928 else ((p + 0.055) / 1.055) ** 2.4 for p in parts)
        return 0.2126 * red + 0.7152 * green + 0.0722 * blue

    pictures = set()
    for theme in ["light", "dark"]:
        page.emulate(theme)
        page.settle()
        check_equal(page.run("return document.documentElement.dataset.theme"), theme, "theme")
        pictures.add(page.screenshot())
        colour = {name: page.run("return getComputedStyle(document.documentElement).getPropertyValue('--' +"
                                 " arguments[0]).trim()", name)
                  for name in ["ink", "soft", "in", "out", "bad", "up", "down", "begin", "paper", "ground"]}
        for name in ["ink", "soft", "in", "out", "bad", "up", "down", "begin"]:
            for ground in ["paper", "ground"]:
                light, dark = sorted([brightness(colour[name]), brightness(colour[ground])], reverse=True)
                ratio = (light + 0.05) / (dark + 0.05)
                check(ratio >= 4.5, f"{theme}: {name} on {ground} has a contrast of {ratio:.1f}")
        page.click("#fit")
        for name in ["in", "out", "bad", "up", "down"]:
            check(page.pixels(name) > 0, f"{theme}: nothing is drawn in the colour '{name}'")
        page.choose("#type", "JOIN")
        page.wait("JOIN alone", lambda: page.count() == 1)
        check(page.pixels("in") > 0, "JOIN is not drawn")
        for name in ["out", "bad", "up"]:
            check_equal(page.pixels(name), 0, f"{theme}: what is not shown, in the colour '{name}'")
        page.click("#clear")
    check_equal(len(pictures), 2, "themes that differ")
    page.click("#theme")
    page.settle()
    check_equal(page.run("return document.documentElement.dataset.theme"), "light", "the button's theme")


def make(folder, name, write, *more):
    path = write(folder / f"{name}.pcapng")
    html = folder / f"{name}.html"
    subprocess.run([program, "timeline", str(path), *map(str, more), "-o", str(html)], timeout=300, check=True)
    return path, html


def run_small(page, folder):
    path, html = make(folder, "small", small)
    records = monitor(path)
    check_equal(len(records), 16, "records")
    page.show(html)
    check_equal(page.text("#title"), "small.pcapng", "title")
    summary = page.text("#summary")
    for part in ["16 records", "3 owners", "4 failures", "4 missing"]:
        check(part in summary, f"'{part}' is not in '{summary}'")
    clicks(page, records)
    keys(page, records)
    zooms(page, len(records))
    filters(page, path, [
        ("#owner", "portd-2[4002], class 3, owner 2", "--owner", "2"),
        ("#class", "3", "--class", "3"),
        ("#type", "CREATE", "--type", "CREATE"),
        ("#type", "PROV", "--type", "PROV"),
        ("#handle", "0x12", "--handle", "0x12"),
        ("#handle", "17", "--handle", "17"),
        ("#name", "port1/?", "--name", "port1/?"),
        ("#name", "trunk*", "--name", "trunk*"),
        ("#name", "ort2", "--name", "*ort2*"),
    ])
    page.click("#failures")
    failures = sum(map(is_failure, records))
    page.wait("failures only", lambda: page.count() == failures)
    page.click("#clear")
    missing(page)
    check_equal(page.pixels("begin"), 0, "another process, and there is one")
    colours(page)
    page.check_quiet()


def run_restarted(page, folder):
    """Each run of the process has its lanes, and where the second begins is told, also of what two files hold."""
    copy = restarted(folder / "copy.pcapng")
    path, html = make(folder, "restarted", restarted, copy)
    records = monitor(path)
    check_equal(len(records), 5, "records")
    page.show(html)
    summary = page.text("#summary")
    for part in ["5 records", "2 owners", "2 processes"]:
        check(part in summary, f"'{part}' is not in '{summary}'")
    check(page.pixels("begin") > 50, "another process begins, and nothing says so")
    check(page.pixels("bad") > 8, "the batch of the first process is not left open")
    for process, first, count in [(1, 0, 2), (2, 2, 3)]:
        page.choose("#owner", f"portd-1[4001], class 3, process {process}, owner 1")
        page.wait(f"what process {process} was told", lambda: page.count() == count)
        page.run("document.getElementById('lanes').focus()")
        page.key("Down")
        page.expect_details(first, records[first])
        page.key("Escape")
        page.wait("the end of the details", lambda: not page.is_seen("#details"))
    check_equal(page.pixels("bad"), 0, "a batch of the second process that is left open")
    page.check_quiet()


def run_beside(page, folder):
    """Records of two processes that take turns are of no more than two."""
    path, html = make(folder, "beside", beside)
    check_equal(len(monitor(path)), 22, "records")
    page.show(html)
    summary = page.text("#summary")
    for part in ["22 records", "2 owners", "2 processes"]:
        check(part in summary, f"'{part}' is not in '{summary}'")
    for process in (1, 2):
        page.choose("#owner", f"portd-1[4001], class 3, process {process}, owner 1")
        page.wait(f"what process {process} was told", lambda: page.count() == 11)
    page.check_quiet()


def run_put_together(page, folder):
    """Parts of one capture that were written to one file are of one process."""
    first, second, both = (folder / name for name in ("part.pcapng.1", "part.pcapng", "both.pcapng"))
    parts(first, second)
    subprocess.run([program, "capture", "-w", str(both), "--from-ring", str(first), "--from-ring", str(second)],
                   timeout=300, check=True)
    _, html = make(folder, "put-together", lambda _: both)
    page.show(html)
    summary = page.text("#summary")
    for part in ["3 records", "1 owners"]:
        check(part in summary, f"'{part}' is not in '{summary}'")
    check("processes" not in summary, f"'{summary}' of one process")
    check_equal(page.pixels("begin"), 0, "another process, and there is one")
    page.check_quiet()


def run_strange(page, folder):
    _, html = make(folder, "strange", strange)
    page.show(html)
    options = "return [...document.querySelectorAll(arguments[0] + ' option')].slice(1).map((one) => one.text)"
    check_equal(page.run(options, "#type"), ["CREATE", "unknown type"], "types")
    check_equal(page.run(options, "#owner"), ["portd-1[77], class 3, owner 1, 9"], "lanes")
    for name, count in [("CREATE", 1), ("unknown type", 300)]:
        page.choose("#type", name)
        page.wait(f"{count} of {name}", lambda: page.count() == count)
    page.check_quiet()


def run_large(page, folder):
    path, html = make(folder, "large", large)
    print(f"{MANY} messages: {html.stat().st_size} bytes, {html.stat().st_size / MANY:.0f} a message")
    page.show(html)
    check_equal(page.in_sight(), MANY, "in sight")
    check("as density" in page.text("#view"), "arrows without number")
    check(page.pixels("bad") > 0, "failures do not stay in sight")
    check(page.pixels("up") > 0, "links that come do not stay in sight")
    for scale in ["#by-time", "#by-order"]:
        page.click(scale)
        check_equal(page.in_sight(), MANY, f"{scale} shows")
    x, y = page.middle()
    while page.in_sight() > 40:
        before = page.in_sight()
        page.wheel(x, y, -1500)
        check(page.in_sight() < before, f"the wheel does not zoom: {before}")
    check("as density" not in page.text("#view"), "few messages are no arrows")
    page.click_at(x, y)
    page.wait("details", lambda: page.is_seen("#details"))
    chosen = page.chosen() - 1
    records = monitor(path)
    check_equal(page.details(), records[chosen], f"record {chosen + 1}")
    failure = next(number for number in range(chosen + 1, MANY) if is_failure(records[number]))
    page.click("#failure")
    page.expect_details(failure, records[failure])
    handle = re.search("handle=(0x[0-9a-f]+)", records[chosen][1]).group(1)
    page.type("#handle", handle)
    expected = len(monitor(path, "--handle", handle))
    page.wait(f"{expected} records of {handle}", lambda: page.count() == expected)
    page.click("#clear")
    page.wait("all of them", lambda: page.count() == MANY)
    page.check_quiet()


def main():
    with tempfile.TemporaryDirectory() as folder, Page() as page:
        page.emulate("light")
        run_small(page, pathlib.Path(folder))
        run_strange(page, pathlib.Path(folder))
        run_restarted(page, pathlib.Path(folder))
        run_beside(page, pathlib.Path(folder))
        run_put_together(page, pathlib.Path(folder))
        run_large(page, pathlib.Path(folder))


if __name__ == "__main__":
    main()
