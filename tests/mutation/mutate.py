#!/usr/bin/env python3
"""
Hunts mutants of the library: of each source small changes are made, one at a time, and the tests are to
notice. A mutant whose object code is the original's is equivalent, one that the compiler refuses is none.
What survives stands in survivors.txt with its reason, or this fails.
"""

import argparse
import collections
import hashlib
import math
import queue
import re
import resource
import signal
import sys
import tempfile
import threading
import time
from pathlib import Path

import operators
from source import Source
from workshop import Broken, Build, Workshop

HERE = Path(__file__).resolve().parent
SOURCES = HERE.parents[1] / 'l2vpn' / 'lib' / 'src'
SURVIVORS = HERE / 'survivors.txt'
GOAL = 95  # per cent
VERDICTS = ('killed', 'survived', 'equivalent', 'does not compile')


def all_mutants(sources):
    parsed = [Source(path.name, path.read_text()) for path in sorted(sources.iterdir())]
    names = {token.text for source in parsed for token in source.tokens if token.kind == 'name'}
    return [mutant for source in parsed for mutant in operators.mutants_of(source, names)]


def listed_survivors(path):
    """Reasons by mutant: lines of mutants, and indented below them why they survive."""
    reasons, waiting = {}, []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith('#'):
            continue
        if not line.startswith(' '):
            if waiting and waiting[-1] in reasons:
                waiting = []
            if line in reasons or line in waiting:
                raise Broken(f'{path}:{number}: listed twice: {line}')
            waiting.append(line)
        elif not waiting:
            raise Broken(f'{path}:{number}: a reason without a mutant')
        else:
            for mutant in waiting:
                reasons[mutant] = (reasons.get(mutant, '') + ' ' + line.strip()).strip()
    for mutant in waiting:
        if mutant not in reasons:
            raise Broken(f'{path}: without a reason: {mutant}')
    return reasons


class Record:
    """A file of verdicts, a line each: what a hunt that was broken off has told already."""

    LINE = re.compile(rf'(?P<mark>[0-9a-f]{{16}}),(?P<verdict>{"|".join(VERDICTS)}),(?P<how>[^:]*): ')

    def __init__(self, path):
        self.told = {}
        if path.exists():
            for number, line in enumerate(path.read_text().splitlines(), 1):
                found = self.LINE.match(line)
                if not found:
                    raise Broken(f'{path}:{number}: is no verdict: {line}')
                self.told[found['mark']] = found['verdict'], found['how']
        self.file = path.open('a')

    @staticmethod
    def mark(mutant):
        """Of the mutant and its whole source: one of a source that has changed since is another."""
        return hashlib.sha256(f'{mutant.id} {mutant.text}'.encode()).hexdigest()[:16]

    def verdict(self, mutant):
        """None also of a survivor: the tests may be better now."""
        verdict = self.told.get(self.mark(mutant))
        return None if verdict is None or verdict[0] == 'survived' else verdict

    def add(self, mutant, verdict):
        print(f'{self.mark(mutant)},{",".join(verdict)}: {mutant.id}', file=self.file, flush=True)


class Hunt:
    """The verdicts on some mutants, worked out by several workshops."""

    def __init__(self, build, mutants, record=None, minutes=None):
        self.build, self.mutants, self.record = build, mutants, record
        self.until = time.monotonic() + 60 * minutes if minutes else math.inf
        self.verdicts = {}
        self.failure = None
        self.waiting = queue.SimpleQueue()
        for mutant in mutants:
            verdict = record.verdict(mutant) if record else None
            if verdict:
                self.verdicts[mutant.id] = verdict
            else:
                self.waiting.put(mutant)

    def work(self):
        try:
            with tempfile.TemporaryDirectory(prefix='l2vpn-mutate-') as directory:
                workshop = Workshop(self.build, Path(directory))
                while self.failure is None and time.monotonic() < self.until:
                    mutant = self.waiting.get_nowait()
                    verdict = workshop.verdict(mutant)
                    self.verdicts[mutant.id] = verdict
                    if self.record:
                        self.record.add(mutant, verdict)
                    self.show()
        except queue.Empty:
            pass
        except BaseException as error:
            self.failure = error

    def show(self):
        if sys.stdout.isatty():
            counts = self.counts()
            print(f'\r{len(self.verdicts)} of {len(self.mutants)}: '
                  + ', '.join(f'{counts[v]} {v}' for v in VERDICTS), end='\x1b[K', flush=True)

    def run(self, jobs):
        threads = [threading.Thread(target=self.work) for _ in range(jobs)]
        for thread in threads:
            thread.start()
        try:
            for thread in threads:
                thread.join()
        except BaseException as error:
            self.failure = error
            for thread in threads:
                thread.join()
        if sys.stdout.isatty():
            print('\r', end='\x1b[K')
        if self.failure is not None:
            raise self.failure
        self.mutants = [m for m in self.mutants if m.id in self.verdicts]

    def counts(self):
        return collections.Counter(verdict for verdict, _ in list(self.verdicts.values()))

    def of(self, verdict):
        return [m for m in self.mutants if self.verdicts[m.id][0] == verdict]


def tables(hunt):
    """A line for each operator, and one for each source."""
    for group in ('operator', 'file'):
        rows = {}
        for mutant in hunt.mutants:
            counts = rows.setdefault(getattr(mutant, group), collections.Counter())
            counts[hunt.verdicts[mutant.id][0]] += 1
        print(f'{group:24}' + ''.join(f'{v:>18}' for v in VERDICTS))
        for name in sorted(rows):
            print(f'{name:24}' + ''.join(f'{rows[name][v]:18}' for v in VERDICTS))


def by_chance(reason):
    """Whether a survivor may as well be killed, because threads happen to meet."""
    return reason.startswith('By chance')


def report(hunt, listed, known, whole):
    """Prints what came out; what is wrong with it, a line each."""
    faults = []
    for mutant in hunt.of('survived'):
        if mutant.id not in listed:
            faults.append(f'survived, and is not listed (line {mutant.line}): {mutant.id}')
    for mutant in hunt.mutants:
        verdict, how = hunt.verdicts[mutant.id]
        if verdict != 'survived' and mutant.id in listed and not by_chance(listed[mutant.id]):
            faults.append(f'is listed as a survivor, and {verdict} {how}: {mutant.id}')
    tables(hunt)
    counts = hunt.counts()
    tried = counts['killed'] + counts['survived']
    ratio = 100 * counts['killed'] / tried if tried else 100.0
    print(f'{len(hunt.mutants)} mutants: ' + ', '.join(f'{counts[v]} {v}' for v in VERDICTS)
          + f'; {ratio:.1f} % killed')
    if whole:
        faults += [f'is listed, and is no mutant: {entry}' for entry in listed if entry not in known]
        if ratio < GOAL:
            faults.append(f'less than {GOAL} % of the mutants were killed')
    return faults


def arguments():
    parser = argparse.ArgumentParser(prog='mutate', description=__doc__)
    parser.add_argument('--build', type=Path, required=True, metavar='DIRECTORY', help='made by ninja')
    parser.add_argument('--sample', type=int, metavar='N', help='only N mutants, drawn at random')
    parser.add_argument('--seed', type=int, default=1, metavar='S', help='what mutants are drawn by')
    parser.add_argument('--file', metavar='NAME', action='append', help='only mutants of this source, or these')
    parser.add_argument('--match', metavar='TEXT', help='only mutants whose description contains this')
    parser.add_argument('--minutes', type=int, metavar='N',
                        help='no new mutant after so many minutes; those tried are drawn at random')
    parser.add_argument('--jobs', type=int, default=1, metavar='N', help='how many at a time')
    parser.add_argument('--list', action='store_true', help='names the mutants and tries none')
    parser.add_argument('--record', type=Path, metavar='FILE',
                        help='adds what comes of each mutant; those that it has already are not tried again, '
                             'but for the survivors')
    return parser.parse_args()


def lot(seed, mutant):
    """What a sample draws by. Of each mutant alone: others that come and go do not change its lot."""
    return hashlib.sha256(f'{seed} {mutant.id}'.encode()).digest()


def chosen(options, mutants):
    names = {path.name for path in SOURCES.iterdir()}
    for name in options.file or ():
        if name not in names:
            raise Broken(f'--file: the library has no source {name}')
    mutants = [m for m in mutants if m.file in (options.file or names) and (options.match or '') in m.id]
    if options.sample is not None and options.sample < 1:
        raise Broken('--sample: at least one mutant')
    if options.minutes is not None and options.minutes < 1:
        raise Broken('--minutes: at least one minute')
    if options.sample or options.minutes:
        mutants = sorted(mutants, key=lambda m: lot(options.seed, m))[:options.sample]
    if not mutants:
        raise Broken('there are no such mutants')
    return mutants


def main():
    options = arguments()
    mutants = all_mutants(SOURCES)
    known = {mutant.id for mutant in mutants}
    selected = chosen(options, mutants)
    if options.list:
        print('\n'.join(f'{mutant.file}:{mutant.line}: {mutant.id}' for mutant in selected))
        return 0
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # either leaves nothing behind
    # A mutant may take all it can get.
    resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    listed = listed_survivors(SURVIVORS)
    selected.sort(key=lambda mutant: mutant.id in listed)  # those take all hunters: last
    record = Record(options.record) if options.record else None
    hunt = Hunt(Build(options.build.resolve(), SOURCES), selected, record, options.minutes)
    hunt.run(max(1, options.jobs))
    faults = report(hunt, listed, known, len(hunt.mutants) == len(mutants))
    print('\n'.join(faults) if faults else 'every survivor is listed with its reason')
    return 1 if faults else 0


if __name__ == '__main__':
    try:
        sys.exit(main())
    except Broken as error:
        sys.exit(f'mutate: {error}')
    except KeyboardInterrupt:
        sys.exit(130)
