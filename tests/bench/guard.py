"""What bench/guard makes of counts: which rises fail, which falls are told, and how it reads what callgrind wrote."""

import contextlib
import importlib.machinery
import importlib.util
import io
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
ROOT = Path(__file__).resolve().parent.parent.parent
loader = importlib.machinery.SourceFileLoader('guard', str(ROOT / 'bench/guard'))
guard = importlib.util.module_from_spec(importlib.util.spec_from_loader('guard', loader))
loader.exec_module(guard)

KNOWN = {'ours': 10000.0, 'others': 1000.0, 'calls': 3.0, 'allocations': 0.0}

DUMP = '''version: 1
events: Ir
ob=(1) /build/lib/libzemplatform.so
fl=(1) ???
fn=(1) Parse
0 70
cob=(2) /lib/libc.so.6
cfn=(2) memcpy
calls=3 0
0 900
0 5
ob=(2)
fn=(2)
0 25
totals: 1000
'''


def compared(**changed):
    with contextlib.redirect_stdout(io.StringIO()):
        return guard.compare({'work': {**KNOWN, **changed}}, {'work': KNOWN})


class Guard(unittest.TestCase):
    def test_a_rise_of_more_than_3_percent_fails(self):
        self.assertEqual((['work, ours: 10000 to 10301'], []), compared(ours=10301.0))
        self.assertEqual(([], []), compared(ours=10299.0))

    def test_every_column_decides(self):
        self.assertEqual(1, len(compared(others=1040.0)[0]))
        self.assertEqual(1, len(compared(calls=4.0)[0]))
        self.assertEqual(1, len(compared(allocations=1.0)[0]))

    def test_a_fall_is_told_and_does_not_fail(self):
        self.assertEqual(([], ['work, ours: 10000 to 9600']), compared(ours=9600.0))

    def test_work_that_is_new_or_gone_fails(self):
        with contextlib.redirect_stdout(io.StringIO()):
            rose, _ = guard.compare({'new': KNOWN}, {'old': KNOWN})
        self.assertEqual(['new is not in the table', 'old is no longer counted'], rose)

    def test_what_another_machine_decides(self):
        facts, _ = guard.read_table()
        self.assertEqual(guard.COLUMNS, guard.decided(facts, facts))
        self.assertEqual(('ours', 'calls', 'allocations'), guard.decided(facts, {**facts, 'processor': 'another'}))
        self.assertEqual((), guard.decided(facts, {**facts, 'compiler': 'another'}))
        with contextlib.redirect_stdout(io.StringIO()):
            self.assertEqual(([], []), guard.compare({'work': {**KNOWN, 'others': 2000.0}}, {'work': KNOWN}, ('ours',)))

    def test_the_table_in_the_tree_can_be_read(self):
        facts, rows = guard.read_table()
        self.assertLessEqual({'compiler', 'libraries', 'valgrind', 'processor'}, set(facts))
        self.assertIn('keep-alive', rows)
        for row in rows.values():
            self.assertEqual(list(guard.COLUMNS), list(row))

    def test_costs_are_each_functions_own(self):
        with tempfile.TemporaryDirectory() as folder:
            path = Path(folder) / 'dump'
            path.write_text(DUMP)
            self.assertEqual({('libzemplatform.so', 'Parse'): 75, ('libc.so.6', 'memcpy'): 25}, dict(guard.costs(path)))


unittest.main()
