"""What the checks of the documents share: faults are gathered, printed one a line, and make the exit status."""

import re
import subprocess
import sys


class Faults:
    def __init__(self):
        self.lines = []
        self.checked = 0

    def check(self, holds, text):
        self.checked += 1
        if not holds:
            self.lines.append(text)

    def end(self, least):
        """`least`: a check that looked at fewer things than that has looked in the wrong place."""
        self.check(self.checked >= least, f"only {self.checked} checks were made, {least} are expected")
        for line in self.lines:
            print(line, file=sys.stderr)
        if not self.lines:
            print(f"{self.checked} checks, no fault")
        sys.exit(1 if self.lines else 0)


def output_of(*command, given=None):
    """Both outputs and the status of a command that may fail."""
    done = subprocess.run(command, input=given, capture_output=True, text=True, timeout=120, check=False)
    return done.returncode, done.stdout + done.stderr


def code_blocks(page, language):
    """The fenced blocks of a language on a page, each with the number of its first line."""
    blocks = []
    for found in re.finditer(rf"^```{language}\n(.*?)^```$", page, re.M | re.S):
        blocks.append((page.count("\n", 0, found.start(1)) + 1, found.group(1)))
    return blocks
