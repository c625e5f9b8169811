"""A page played as its reader would: its files are written, its commands are run, what they print is compared.

Blocks of a page, in their order:

    ```c FILE            a piece of FILE; the pieces of a file are one after the other (h and cpp alike)
    ```console TERMINAL  "$ " begins a command, "^C" interrupts the one that runs, all else is what is printed;
                         "..." stands for anything, alone on a line for any number of lines
    ```input TERMINAL    typed into what runs there

The last command of a block keeps running in every terminal but "operator"; all others must end with status 0.
"""

import pathlib
import re
import signal
import subprocess
import time

PATIENCE = 60  # for a busy machine; nothing waits for it to pass
BLOCK = re.compile(r"^```(c|h|cpp|console|input) (\S+)\n(.*?)^```$", re.M | re.S)


class Mismatch(Exception):
    pass


def matches(expected, line):
    return re.fullmatch(".*".join(re.escape(part) for part in expected.split("...")), line) is not None


class Terminal:
    """One shell, whose commands and whose programs' input come from the same pipe, as in a terminal."""

    def __init__(self, name, folder, environment):
        self.name, self.read = name, 0
        self.out = pathlib.Path(folder) / f".{name}.out"
        with open(self.out, "wb") as out:
            self.shell = subprocess.Popen(["bash", "--norc"], cwd=folder, env=environment, stdin=subprocess.PIPE,
                                          stdout=out, stderr=subprocess.STDOUT)

    def say(self, text):
        try:
            self.shell.stdin.write(text.encode())
            self.shell.stdin.flush()
        except BrokenPipeError as error:
            raise Mismatch(f"{self.name}: ended before '{text.strip()}': {self.out.read_text()}") from error

    def fresh(self):
        """The whole lines that were not looked at yet."""
        return self.out.read_text()[self.read:].split("\n")[:-1]

    def line(self, waiting_for):
        end = time.monotonic() + PATIENCE
        while not self.fresh():
            if time.monotonic() > end:
                raise Mismatch(f"{self.name}: '{waiting_for}' was not printed; all of it: {self.out.read_text()}")
            time.sleep(0.01)
        line = self.fresh()[0]
        self.read += len(line) + 1
        return line

    def expect(self, lines):
        for number, expected in enumerate(lines):
            line = self.line(expected)
            if expected == "...":
                following = lines[number + 1]
                while not matches(following, line):
                    line = self.line(following)
                self.read -= len(line) + 1
            elif not matches(expected, line):
                raise Mismatch(f"{self.name}: printed '{line}', not '{expected}'; then {self.fresh()}")

    def run(self, command, lines):
        """A command that ends, and prints these lines and no others."""
        self.say(f"{command}\necho \"status $?\"\n")
        self.expect(lines + ["status 0"])

    def children(self):
        listed = pathlib.Path(f"/proc/{self.shell.pid}/task/{self.shell.pid}/children").read_text()
        return [int(pid) for pid in listed.split()]

    def interrupt(self):
        for pid in self.children():
            subprocess.run(["kill", "-INT", str(pid)], check=True)
        end = time.monotonic() + PATIENCE
        while self.children():
            if time.monotonic() > end:
                raise Mismatch(f"{self.name}: does not end when it is interrupted")
            time.sleep(0.01)

    def close(self):
        """Ends what runs here. False: something had to be ended."""
        left = self.children() if self.shell.poll() is None else []
        for pid in left:
            subprocess.run(["kill", f"-{signal.SIGKILL.value}", str(pid)], check=False)
        self.shell.stdin.close()
        self.shell.wait(timeout=PATIENCE)
        return not left


def steps(text):
    """The commands of a console block, each with the lines printed after it; None is what runs already."""
    found = [(None, [])]
    for line in text.split("\n")[:-1]:
        if line.startswith("$ ") or line == "^C":
            found.append((line.removeprefix("$ "), []))
        else:
            found[-1][1].append(line)
    return [step for step in found if step != (None, [])]


def files_of(page):
    files = {}
    for kind, name, text in BLOCK.findall(page):
        if kind in ("c", "h", "cpp"):
            files[name] = files.get(name, "") + ("\n" if name in files and not files[name].endswith("\n\n") else "") + text
    return files


def play(page, folder, environment):
    """The number of commands that were run. Mismatch: the page does not tell what happens."""
    for name, text in files_of(page).items():
        (pathlib.Path(folder) / name).write_text(text)
    terminals, commands = {}, 0
    try:
        for kind, name, text in BLOCK.findall(page):
            if kind not in ("console", "input"):
                continue
            terminal = terminals.get(name) or terminals.setdefault(name, Terminal(name, folder, environment))
            if kind == "input":
                terminal.say(text)
                continue
            block = steps(text)
            for command, lines in block:
                commands += command is not None
                if command == "^C":
                    terminal.interrupt()
                    terminal.expect(lines)
                elif command is None:
                    terminal.expect(lines)
                elif name == "operator" or not lines or command != block[-1][0]:
                    terminal.run(command, lines)
                else:
                    terminal.say(f"{command}\n")
                    terminal.expect(lines)
        for terminal in terminals.values():
            terminal.say("echo 'the end'\n")
            terminal.expect(["the end"])
    finally:
        clean = [terminal.close() for terminal in terminals.values()]
    if not all(clean):
        raise Mismatch("something was left running")
    return commands
