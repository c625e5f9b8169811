"""Where mutants are tried: compiles what a mutant changes, links it, and runs the tests against it."""

import contextlib
import json
import math
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import time
from pathlib import Path

LIBRARY = 'lib/libl2vpn_ac.so.1.0.0'
OBJECTS = 'lib/libl2vpn_ac_objects.a'

# What hunts a mutant, quickest first: a program and its arguments. They load the library that the
# environment names; those of INSIDE have its objects linked into them, and include its headers: what these
# define is theirs too, and a mutant of one has to be in both.
INSIDE = ('lib_unit_test', 'lib_limits_test', 'lib_entries_test', 'lib_uses_test')
HUNTERS = (
    ('contract_test',),
    *((name,) for name in INSIDE),
    ('lock_test',),
    ('torture_test',),
)

FAVOURITES = 12  # tests that are tried before all others

# The headers of the system and the interfaces, which no mutant changes, are read once.
HEADERS = 'headers.h'


class Broken(Exception):
    """Something is wrong with the build or the tests, not with a mutant."""


def run(command, seconds, cwd=None, env=None, output=subprocess.DEVNULL):
    """The exit status of a command, None if it had to be ended; nothing of it is left behind."""
    process = subprocess.Popen(command, cwd=cwd, env=env, stdin=subprocess.DEVNULL, stdout=output,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        return process.wait(seconds)
    except subprocess.TimeoutExpired:
        return None
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()


def stopped_at(said):
    """The first test that failed, else the last that was begun: what a test program printed tells it."""
    failed = re.findall(r'^\[  FAILED  \] ([^\s,]+)', said, re.M)
    begun = re.findall(r'^\[ RUN      \] (\S+)', said, re.M)
    return failed[0] if failed else begun[-1] if begun else ''


class Build:
    """A build of the tree: how it compiles and links."""

    def __init__(self, directory, sources):
        self.directory, self.sources = directory, sources
        self.units, self.options = {}, []
        self.tests = {name: {} for name in INSIDE}  # by source: the object and how it is compiled
        try:
            entries = json.loads((directory / 'compile_commands.json').read_text())
        except OSError as error:
            raise Broken(f'{directory}: no build of the tests: {error}') from error
        for entry in entries:
            command = shlex.split(entry['command'])
            output = command[command.index('-o') + 1]
            options = command[:command.index('-o')]
            if 'l2vpn_ac.dir' in output:
                self.units[Path(entry['file']).name] = output
                self.options = [o for o in options if not re.match('-g|-W', o)]
            for name in INSIDE:
                if f'{name}.dir' in output:
                    if Path(entry['file']).name.startswith('unity_'):
                        raise Broken(f'{directory}: {name} is compiled in a batch, which hides what its sources include')
                    self.tests[name][Path(entry['file'])] = output, options
        if not self.units:
            raise Broken(f'{directory}: does not build the library')
        self.links = {name: self._link(name) for name in (LIBRARY, *(f'bin/{n}' for n in INSIDE))}
        self.reached = {name: self._reached(sources / name) for name in self.units}
        for units in self.tests.values():
            self.reached |= {path: self._reached(path) for path in units}

    def _link(self, target):
        lines = subprocess.run(['ninja', '-t', 'commands', target], cwd=self.directory, text=True,
                               capture_output=True, check=False).stdout.splitlines()
        if not lines:
            raise Broken(f'{self.directory}: ninja does not know how to link {target}')
        return [word for word in shlex.split(lines[-1]) if word not in (':', '&&')]

    def _reached(self, path, seen=None):
        """The sources that a unit includes, itself among them."""
        seen = seen if seen is not None else set()
        if path.name not in seen:
            seen.add(path.name)
            for other in re.findall(r'#include "(\w+\.h)"', path.read_text()):
                if (self.sources / other).exists():
                    self._reached(self.sources / other, seen)
        return seen

    def headers(self):
        """What the sources include of others', one of another machine left out."""
        names = {name for path in self.sources.iterdir()
                 for name in re.findall(r'#include (<.*>)', path.read_text())}
        return ''.join(f'#if __has_include({name})\n#include {name}\n#endif\n' for name in sorted(names))

    def units_of(self, name):
        return [unit for unit in self.units if name in self.reached[unit]]

    def tests_of(self, program, name):
        """Of a program of INSIDE the objects of what includes a source, and how each is compiled."""
        return [(output, options, path) for path, (output, options) in self.tests[program].items()
                if name in self.reached[path]]


class Workshop:
    """One place to work in: a copy of the sources, one mutant in it at a time."""

    def __init__(self, build, directory):
        self.build, self.directory = build, directory
        self.limits = {}  # by hunter: how long it may take
        self.killers = {}  # by source and hunter: what tests killed its mutants, the latest first
        shutil.copytree(build.sources, directory / 'src')
        (directory / HEADERS).write_text(build.headers())
        run([*build.options, '-w', '-x', 'c++-header', '-o', f'{HEADERS}.gch', HEADERS], 60, cwd=directory)
        self.original = {unit: self._compile(unit) for unit in build.units}
        if None in self.original.values():
            raise Broken('the library does not compile as it is')
        library = self._link(LIBRARY, build.units)
        if library is None:
            raise Broken('the library does not link as it is')
        (directory / 'original').mkdir()
        library.rename(directory / 'original' / library.name)  # tests know it by its name

    def _compile(self, unit):
        """The object code of a unit, None if it is none."""
        output = self.directory / (unit + '.o')
        # Without debug information and with the paths of the repository: equal code, equal objects.
        command = [*self.build.options, '-w', f'-ffile-prefix-map={self.directory}/src/=l2vpn/lib/src/',
                   '-include', str(self.directory / HEADERS),
                   '-o', str(output), '-c', str(self.directory / 'src' / unit)]
        status = run(command, 300, cwd=self.build.directory)
        if status is None:
            raise Broken(f'{unit} is compiled for longer than five minutes')
        return output.read_bytes() if status == 0 else None

    def _compile_test(self, options, path):
        """The object of a test that includes the library's headers, None if it is none."""
        output = self.directory / (path.name + '.o')
        command = [*options, '-w', '-iquote', str(self.directory / 'src'), '-o', str(output), '-c', str(path)]
        status = run(command, 300, cwd=self.build.directory)
        if status is None:
            raise Broken(f'{path.name} is compiled for longer than five minutes')
        return output if status == 0 else None

    def _link(self, target, units, tests=()):
        command = list(self.build.links[target])
        for original, made in tests:
            command[command.index(original)] = str(made)
        for unit in units:
            made = str(self.directory / (unit + '.o'))
            if self.build.units[unit] in command:
                command[command.index(self.build.units[unit])] = made
            else: # before the archive: the linker takes what it meets first
                command.insert(command.index(OBJECTS), made)
        output = self.directory / Path(target).name
        command[command.index('-o') + 1] = str(output)
        if run(command, 60, cwd=self.build.directory) != 0:
            return None
        return output

    def _run(self, hunter, program, library, limit, tests=()):
        """None if the tests pass, else how they do not, and the test at which they stopped."""
        # Freed memory holds rubbish, so that who reads it is found out. The library looks beside itself.
        env = dict(os.environ, GTEST_FAIL_FAST='1', MALLOC_PERTURB_='165', L2VPN_AC_LIBRARY=str(library),
                   LD_LIBRARY_PATH=str(self.build.directory / Path(LIBRARY).parent))
        seconds, processor = limit
        command = ['prlimit', f'--cpu={processor}', str(program), *hunter[1:]]
        if tests:
            command.append('--gtest_filter=' + ':'.join(tests))
        with open(self.directory / 'output', 'w+b') as output:
            status = run(command, seconds, cwd=self.directory, env=env, output=output)
            if status == 0:
                return None
            output.seek(0)
            said = output.read().decode(errors='replace')
        return 'hangs' if status in (None, -signal.SIGXCPU) else 'fails', stopped_at(said)

    def _limit(self, hunter):
        """How long a hunter may take and compute; it must pass with the library as it is."""
        if hunter not in self.limits:
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            begin = time.monotonic()
            result = self._run(hunter, self.build.directory / 'bin' / hunter[0],
                               self.directory / 'original' / Path(LIBRARY).name, (600, 600))
            if result is not None:
                raise Broken(f'{hunter[0]} {result[0]} with the library as it is: {result[1]}')
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            used = after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime
            self.limits[hunter] = (10 + 4 * (time.monotonic() - begin), 3 + math.ceil(4 * used))
        return self.limits[hunter]

    def _hunt(self, hunter, source, units):
        """Whether a hunter kills the mutant, and how; first the tests that have killed others of its source."""
        name = hunter[0]
        program = self.build.directory / 'bin' / name
        if name in INSIDE:
            tests = [(original, self._compile_test(options, path))
                     for original, options, path in self.build.tests_of(name, source)]
            if None in (made for _, made in tests):
                return 'killed', f'{name} does not compile'
            program = self._link(f'bin/{name}', units, tests)
            if program is None:
                return 'does not compile', ''
        killers = self.killers.setdefault((source, hunter), [])
        for tests in ([killers[:FAVOURITES], ()] if killers else [()]):
            result = self._run(hunter, program, self.directory / Path(LIBRARY).name, self._limit(hunter), tests)
            if result is not None:
                how, test = result
                if test:
                    killers[:] = [test, *(k for k in killers if k != test)]
                return 'killed', f'{name} {how} {test}'.strip()
        return None

    def verdict(self, mutant):
        """killed (and by what), survived, equivalent, or does not compile."""
        path = self.directory / 'src' / mutant.file
        units = self.build.units_of(mutant.file)
        path.write_text(mutant.text)
        try:
            return self._verdict(mutant.file, units)
        finally:
            shutil.copy(self.build.sources / mutant.file, path)
            for unit in units:
                (self.directory / (unit + '.o')).write_bytes(self.original[unit])

    def _verdict(self, source, units):
        changed = []
        for unit in units:
            code = self._compile(unit)
            if code is None:
                return 'does not compile', ''
            if code != self.original[unit]:
                changed.append(unit)
        if not changed:
            return 'equivalent', ''
        if self._link(LIBRARY, self.build.units) is None:
            return 'does not compile', ''
        for hunter in HUNTERS:
            result = self._hunt(hunter, source, changed)
            if result is not None:
                return result
        return 'survived', ''
