"""Every microbenchmark runs, once round its loop, and does what it says."""

import json
import subprocess
import sys
import unittest

ALLOCATOR = sys.argv.pop()
MICRO = sys.argv.pop()


def run(program, *options):
    """The benchmarks that ran, by name."""
    said = subprocess.run([program, '--benchmark_format=json', '--benchmark_min_time=0', *options], check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    return {row['name']: row for row in json.loads(said)['benchmarks']}


class Micro(unittest.TestCase):
    def check(self, rows, *wanted):
        for name, row in rows.items():
            with self.subTest(name):
                self.assertFalse(row.get('error_occurred'), row.get('error_message'))
        for name in wanted:
            self.assertTrue([row for row in rows if row.split('/')[0] == name], name)

    def test_pieces_of_a_request(self):
        self.check(run(MICRO), 'Parse', 'ParseTarget', 'FormatUtf16', 'FormatUtf16Text', 'Dispatch', 'BuildReply',
                   'TakeAndGiveBlock', 'TakeAndGiveFrameBlock', 'FindClient')

    def test_allocator(self):
        """A day of it takes long; the run that is taken and given back does not."""
        self.check(run(ALLOCATOR, '--benchmark_filter=TakeAndGive'), 'TakeAndGive')


unittest.main()
