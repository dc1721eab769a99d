#!/usr/bin/env python3
"""The README's session runs as it stands: its sh blocks, one after another in one shell, as somebody types them who has
./run going. Only the server's address is another. What it says that is printed ("# -> text") is printed, in that order.

usage: session.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..'))
sys.path.insert(0, os.path.join(ROOT, 'tests', 'e2e'))
from wire import Server  # noqa: E402

PROGRAMS = None
ADDRESS = 'http://127.0.0.1:8080'


class Readme(unittest.TestCase):
    def setUp(self):
        with open(os.path.join(ROOT, 'README.md'), encoding='utf-8') as page:
            self.text = page.read()

    def test_the_session_runs_as_it_stands(self):
        blocks = re.findall(r'(?m)^```sh\n(.*?)^```$', self.text, re.DOTALL)
        self.assertGreaterEqual(len(blocks), 3)
        script = ''.join(blocks)
        self.assertIn(ADDRESS, script)
        server = Server(PROGRAMS.zemhost)
        self.addCleanup(server.remove)
        # The clone as ./run leaves it: the programs, and a volume with its folder and page.
        os.makedirs(os.path.join(server.folder, 'build', 'release'))
        os.symlink(os.path.dirname(os.path.abspath(PROGRAMS.zem)), os.path.join(server.folder, 'build', 'release', 'bin'))
        os.mkdir(os.path.join(server.volume, 'media'))
        shutil.copy(os.path.join(ROOT, 'apps', 'console', 'console.html'), os.path.join(server.volume, 'media'))
        address = 'http://127.0.0.1:%d' % server.port
        done = subprocess.run(['bash', '-euo', 'pipefail', '-c', script.replace(ADDRESS, address)], cwd=server.folder,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300,
                              env={**os.environ, 'ZEM_SERVER': address})
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertEqual(done.stderr, '')
        printed = iter(done.stdout.splitlines())
        for line in re.findall(r'(?m)^# -> (.*)$', script):
            self.assertIn(line, printed, 'not printed, or not in this order; all of it:\n' + done.stdout)


if __name__ == '__main__':
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--zem', required=True)
    PROGRAMS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
