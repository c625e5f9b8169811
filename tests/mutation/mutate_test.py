#!/usr/bin/env python3
"""What a hunt keeps and learns: its record, the tests that killed, and where a mutant of a header is."""

import json
import subprocess
import tempfile
import types
import unittest
from pathlib import Path
from unittest import mock

import workshop
from mutate import Record, all_mutants
from workshop import Broken, Build, Workshop, stopped_at


def mutant(name, text='int f() { return 1; }'):
    return types.SimpleNamespace(id=f'f.cpp f: {name}', text=text)


class RecordTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = Path(directory.name) / 'record'

    def kept(self, *verdicts):
        """The record as the next hunt finds it."""
        record = Record(self.path)
        for one, verdict in verdicts:
            record.add(one, verdict)
        record.file.close()
        again = Record(self.path)
        again.file.close()
        return again

    def test_what_was_told_is_not_tried_again(self):
        killed = 'killed', 'contract_test fails classes/golden.create/7'
        record = self.kept((mutant('a'), killed), (mutant('b'), ('equivalent', '')),
                           (mutant('c'), ('does not compile', '')))
        self.assertEqual(record.verdict(mutant('a')), killed)
        self.assertEqual(record.verdict(mutant('b')), ('equivalent', ''))
        self.assertEqual(record.verdict(mutant('c')), ('does not compile', ''))
        self.assertIsNone(record.verdict(mutant('d')))

    def test_a_survivor_is_tried_again(self):
        self.assertIsNone(self.kept((mutant('a'), ('survived', ''))).verdict(mutant('a')))

    def test_a_mutant_of_a_source_that_has_changed_is_another(self):
        record = self.kept((mutant('a'), ('killed', 'lock_test hangs')))
        self.assertIsNone(record.verdict(mutant('a', 'int f() { return 2; }')))

    def test_a_later_hunt_adds_to_it(self):
        self.kept((mutant('a'), ('survived', '')))
        record = self.kept((mutant('a'), ('killed', 'lock_test hangs')), (mutant('b'), ('equivalent', '')))
        self.assertEqual(record.verdict(mutant('a')), ('killed', 'lock_test hangs'))
        self.assertEqual(record.verdict(mutant('b')), ('equivalent', ''))

    def test_a_wrong_line_is_told(self):
        self.path.write_text('0123456789abcdef,killed,lock_test hangs: f\nrubbish\n')
        with self.assertRaisesRegex(Broken, 'record:2: is no verdict: rubbish'):
            Record(self.path)


class StoppedAtTest(unittest.TestCase):
    def test_the_first_that_failed(self):
        self.assertEqual(stopped_at('[ RUN      ] a.b\n[       OK ] a.b (0 ms)\n[ RUN      ] x/a.c/1\n'
                                    '[  FAILED  ] x/a.c/1, where GetParam() = 7 (0 ms)\n[ RUN      ] a.d\n'
                                    '[  SKIPPED ] a.d (0 ms)\n[  FAILED  ] 1 test, listed below:\n'), 'x/a.c/1')

    def test_the_last_that_was_begun_where_it_crashed_or_hung(self):
        self.assertEqual(stopped_at('[ RUN      ] a.b\n[       OK ] a.b (0 ms)\n[ RUN      ] a.c\n'), 'a.c')

    def test_none(self):
        self.assertEqual(stopped_at('cannot be loaded\n'), '')


class HeaderTest(unittest.TestCase):
    """A library of one unit, and a test program that calls what the library's header defines."""

    FILES = {
        'src/sum.h': 'inline int sum(int a, int b)\n{\n    return a + b;\n}\n',
        'src/sum.cpp': '#include "sum.h"\nint sum_of(int a, int b) { return sum(a, b); }\n',
        'test.cpp': '#include "sum.h"\nint main() { return sum(1, 2) != 3; }\n',
        'build.ninja': """\
rule cc
  command = c++ -O0 -fPIC -I../src -o $out -c $in
rule so
  command = c++ -shared -o $out $in
rule ar
  command = ar rcs $out $in
rule exe
  command = c++ -o $out $in
build l2vpn_ac.dir/sum.o: cc ../src/sum.cpp
build lib/libl2vpn_ac.so.1.0.0: so l2vpn_ac.dir/sum.o
build lib/libl2vpn_ac_objects.a: ar l2vpn_ac.dir/sum.o
build inside.dir/test.o: cc ../test.cpp
build bin/inside: exe inside.dir/test.o lib/libl2vpn_ac_objects.a
""",
    }

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)
        for name in ('src', 'build', 'shop'):
            (self.root / name).mkdir()
        for name, text in self.FILES.items():
            (self.root / ('build' if name == 'build.ninja' else '.') / name).write_text(text)
        (self.root / 'build' / 'compile_commands.json').write_text(json.dumps([
            {'file': str(self.root / source), 'command': f'c++ -O0 -fPIC -I../src -o {output} -c ../{source}'}
            for source, output in (('src/sum.cpp', 'l2vpn_ac.dir/sum.o'), ('test.cpp', 'inside.dir/test.o'))]))
        subprocess.run(['ninja'], cwd=self.root / 'build', check=True, stdout=subprocess.DEVNULL)

    def test_its_mutants_are_in_the_tests_that_include_it(self):
        with mock.patch.multiple(workshop, INSIDE=('inside',), HUNTERS=(('inside',),)):
            shop = Workshop(Build(self.root / 'build', self.root / 'src'), self.root / 'shop')
            verdicts = {m.changed: shop.verdict(m) for m in all_mutants(self.root / 'src') if m.file == 'sum.h'}
        self.assertEqual(verdicts['+ -> -'], ('killed', 'inside fails'))
        self.assertEqual(verdicts['return a + b; -> return {};'], ('killed', 'inside fails'))

    def test_a_batch_which_hides_what_is_included_is_refused(self):
        commands = self.root / 'build' / 'compile_commands.json'
        commands.write_text(commands.read_text().replace('/test.cpp"', '/unity_0_cxx.cxx"'))
        with mock.patch.multiple(workshop, INSIDE=('inside',)), self.assertRaisesRegex(workshop.Broken, 'batch'):
            Build(self.root / 'build', self.root / 'src')


if __name__ == '__main__':
    unittest.main()
