"""A page played as its reader would: its files are written, its commands are run, what they print is compared.

Blocks of a page, in their order:

    ```c FILE            a piece of FILE; the pieces of a file are one after the other (h and cpp alike)
    ```console TERMINAL  "$ " begins a command, "^C" interrupts the one that runs, all else is what is printed;
                         "..." stands for anything, alone on a line for any number of lines
    ```input TERMINAL    typed into what runs there

The last command of a block keeps running in every terminal but "operator"; all others must end with status 0.
"""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import time

PATIENCE = 240  # for a compiler on a busy machine; nothing waits for it to pass
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
                                          stdout=out, stderr=subprocess.STDOUT, start_new_session=True)

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

    def running(self):
        """All of the shell's process group but the shell itself."""
        found = []
        for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                group = stat.read_text(errors="replace").rpartition(")")[2].split()[2]
            except (FileNotFoundError, PermissionError, ProcessLookupError):
                continue  # it has just ended, or is another user's
            if int(group) == self.shell.pid:
                found.append(int(stat.parent.name))
        return [pid for pid in found if pid != self.shell.pid]

    def send(self, number):
        for pid in self.running():
            with contextlib.suppress(ProcessLookupError):  # it has just ended
                os.kill(pid, number)

    def await_end(self, complaint):
        end = time.monotonic() + PATIENCE
        while self.running():
            if time.monotonic() > end:
                raise Mismatch(f"{self.name}: {complaint}")
            time.sleep(0.01)

    def interrupt(self):
        self.send(signal.SIGINT)
        self.await_end("does not end when it is interrupted")

    def close(self):
        """Ends the shell and what runs in it, if anything."""
        self.shell.kill()  # first: it must not begin its next command
        self.send(signal.SIGKILL)
        self.shell.wait()
        with contextlib.suppress(BrokenPipeError):
            self.shell.stdin.close()


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
    with contextlib.ExitStack() as opened:
        for kind, name, text in BLOCK.findall(page):
            if kind not in ("console", "input"):
                continue
            if name not in terminals:
                terminals[name] = Terminal(name, folder, environment)
                opened.callback(terminals[name].close)
            terminal = terminals[name]
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
            terminal.await_end("something was left running")
            terminal.say("echo 'the end'\n")
            terminal.expect(["the end"])
    return commands
