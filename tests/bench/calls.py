"""A request costs one receive and one send, a frame one sendfile, and no allocation: counted, not measured. bench/guard
looks at the rest."""

import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv.pop()
REQUESTS = 128

# kind: sendfile calls a request
READS = {'keep-alive': 0, 'get-file-info': 0, 'get-status': 0, 'read-64k': 1, 'read-1m': 1, 'read-64k-x22': 22,
         'read-1m-x22': 22}


class Calls(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory(prefix='calls-') as folder:
            said = subprocess.run([PROGRAM, folder, str(REQUESTS)], check=True, stdout=subprocess.PIPE, text=True).stdout
        cls.counts = {}
        for line in said.splitlines():
            name, *fields = line.split()
            cls.counts[name] = dict(zip(fields[::2], map(int, fields[1::2])))

    def test_one_receive_and_one_send(self):
        for kind, files in READS.items():
            with self.subTest(kind):
                counts = self.counts[kind]
                self.assertEqual((REQUESTS,) * 3, (counts['requests'], counts['recv'], counts['send']))
                self.assertEqual(files * REQUESTS, counts['sendfile'])
                self.assertEqual((0, 0), (counts['setsockopt'], counts['ioctl']))

    def test_no_allocation(self):
        for kind in READS:
            with self.subTest(kind):
                self.assertEqual(0, self.counts[kind]['allocations'])

    def test_a_frame_is_received_in_place(self):
        """The head with the first bytes, then what is left of the entity's table, then all of the frame."""
        counts = self.counts['write-64k']
        self.assertEqual((REQUESTS, REQUESTS), (counts['requests'], counts['send']))
        self.assertLessEqual(counts['recv'], 3 * REQUESTS)


unittest.main()
