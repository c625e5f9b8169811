#!/usr/bin/env python3
"""What a hunt keeps and learns: its record, and the tests that killed."""

import tempfile
import types
import unittest
from pathlib import Path

from mutate import Record
from workshop import Broken, stopped_at


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


if __name__ == '__main__':
    unittest.main()
