"""Where mutants are tried: compiles what a mutant changes, links it, and runs the tests against it."""

import contextlib
import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import time
from pathlib import Path

LIBRARY = 'lib/libl2vpn_ac.so.1.0.0'
OBJECTS = 'lib/libl2vpn_ac_objects.a'

# What hunts a mutant, quickest first: a program and its arguments. They load the library that the
# environment names; those of INSIDE have its objects linked into them.
INSIDE = ('lib_unit_test', 'lib_limits_test')
HUNTERS = (
    ('contract_test',),
    *((name,) for name in INSIDE),
    ('lock_test',),
    ('torture_test',),
)


class Broken(Exception):
    """Something is wrong with the build or the tests, not with a mutant."""


def run(command, seconds, cwd=None, env=None):
    """The exit status of a command, None if it had to be ended; nothing of it is left behind."""
    process = subprocess.Popen(command, cwd=cwd, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        return process.wait(seconds)
    except subprocess.TimeoutExpired:
        return None
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()


class Build:
    """A build of the tree: how it compiles and links."""

    def __init__(self, directory, sources):
        self.directory, self.sources = directory, sources
        self.units, self.options = {}, []
        try:
            entries = json.loads((directory / 'compile_commands.json').read_text())
        except OSError as error:
            raise Broken(f'{directory}: no build of the tests: {error}') from error
        for entry in entries:
            command = shlex.split(entry['command'])
            output = command[command.index('-o') + 1]
            if 'l2vpn_ac.dir' in output:
                self.units[Path(entry['file']).name] = output
                self.options = [o for o in command[:command.index('-o')] if not re.match('-g|-W', o)]
        if not self.units:
            raise Broken(f'{directory}: does not build the library')
        self.links = {name: self._link(name) for name in (LIBRARY, *(f'bin/{n}' for n in INSIDE))}
        self.reached = {name: self._reached(name) for name in self.units}

    def _link(self, target):
        lines = subprocess.run(['ninja', '-t', 'commands', target], cwd=self.directory, text=True,
                               capture_output=True, check=False).stdout.splitlines()
        if not lines:
            raise Broken(f'{self.directory}: ninja does not know how to link {target}')
        return [word for word in shlex.split(lines[-1]) if word not in (':', '&&')]

    def _reached(self, name, seen=None):
        """The sources that a unit includes, itself among them."""
        seen = seen if seen is not None else set()
        if name not in seen:
            seen.add(name)
            for other in re.findall(r'#include "(\w+\.h)"', (self.sources / name).read_text()):
                if (self.sources / other).exists():
                    self._reached(other, seen)
        return seen

    def units_of(self, name):
        return [unit for unit in self.units if name in self.reached[unit]]


class Workshop:
    """One place to work in: a copy of the sources, one mutant in it at a time."""

    def __init__(self, build, directory):
        self.build, self.directory = build, directory
        self.seconds = {}
        shutil.copytree(build.sources, directory / 'src')
        self.original = {unit: self._compile(unit) for unit in build.units}
        if None in self.original.values():
            raise Broken('the library does not compile as it is')

    def _compile(self, unit):
        """The object code of a unit, None if it is none."""
        output = self.directory / (unit + '.o')
        # Without debug information and with the paths of the repository: equal code, equal objects.
        command = [*self.build.options, '-w', f'-ffile-prefix-map={self.directory}/src/=l2vpn/lib/src/',
                   '-o', str(output), '-c', str(self.directory / 'src' / unit)]
        if run(command, 60, cwd=self.build.directory) != 0:
            return None
        return output.read_bytes()

    def _link(self, target, units):
        command = list(self.build.links[target])
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

    def _hunt(self, hunter, units, seconds):
        name = hunter[0]
        program = self.build.directory / 'bin' / name
        # Freed memory holds rubbish, so that who reads it is found out.
        env = dict(os.environ, GTEST_FAIL_FAST='1', MALLOC_PERTURB_='165')
        if name in INSIDE:
            program = self._link(f'bin/{name}', units)
            if program is None:
                return 'does not link'
        else:
            env['L2VPN_AC_LIBRARY'] = str(self.directory / Path(LIBRARY).name)
            env['LD_LIBRARY_PATH'] = str(self.build.directory / Path(LIBRARY).parent) # it looks beside itself
        status = run([str(program), *hunter[1:]], seconds, cwd=self.directory, env=env)
        return 'passes' if status == 0 else 'fails' if status is not None else 'hangs'

    def check(self):
        """The library as it is passes, and how long each of its tests takes."""
        if self._link(LIBRARY, self.build.units) is None:
            raise Broken('the library does not link as it is')
        for hunter in HUNTERS:
            begin = time.monotonic()
            result = self._hunt(hunter, self.build.units, 600)
            if result != 'passes':
                raise Broken(f'{hunter[0]} {result} with the library as it is')
            self.seconds[hunter] = 10 + 4 * (time.monotonic() - begin)

    def verdict(self, mutant):
        """killed (and by what), survived, equivalent, or does not compile."""
        path = self.directory / 'src' / mutant.file
        units = self.build.units_of(mutant.file)
        path.write_text(mutant.text)
        try:
            return self._verdict(units)
        finally:
            shutil.copy(self.build.sources / mutant.file, path)
            for unit in units:
                (self.directory / (unit + '.o')).write_bytes(self.original[unit])

    def _verdict(self, units):
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
            result = self._hunt(hunter, changed, self.seconds[hunter])
            if result == 'does not link':
                return 'does not compile', ''
            if result != 'passes':
                return 'killed', f'{hunter[0]} {result}'
        return 'survived', ''
