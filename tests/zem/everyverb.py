"""Every verb of zem with --json, away from a terminal: what a script relies on, whichever verb it calls. A verb that the manual
names and this table does not is a failure.

usage: everyverb.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import json
import os
import re
import subprocess
import tempfile
import unittest

import zemcase

# In an order in which each finds what it needs; $ is a folder of this machine.
RUNS = [
    ('mkdir', ['media/new']),
    ('put', ['$/mjpeg.mov', 'media/put']),
    ('import', ['$/mjpeg.mov', 'media/whole']),
    ('export', ['media/whole', '$/out.mov']),
    ('info', ['media/put.v0']),
    ('framemd5', ['media/put.v0', '--count', '2']),
    ('frames', ['media/put.v0', '--count', '2']),
    ('read', ['media/put.v0', '--count', '2', '-o', '$/frames']),
    ('marks', ['media/put.v0']),
    ('stripe', ['media/put.v0', '10:00:00:00']),
    ('erase', ['media/put.v0', '--from', '0', '--count', '1']),
    ('flush', ['media/put.v0']),
    ('stat', ['media/put.v0']),
    ('df', []),
    ('get', ['media/put.v0', '-o', '$/whole']),
    ('mv', ['media/put.v0', 'media/new/v0']),
    ('rm', ['media/new/v0', 'media/put.a0']),
    ('status', []),
    ('clients', []),
    ('top', ['--count', '2', '--interval', '0.1']),
    ('bench', ['--seconds', '0.1', '--connections', '1', '--frames', '2', '--frame-size', '4k']),
    ('doctor', []),
    ('join', ['--id', 'script']),
    ('keepalive', ['--id', 'script']),
    ('realtime', ['--id', 'script']),
    ('config push', ['--id', 'script', '$/config.xml']),
    ('config set', ['--id', 'script', 'readAhead', '4']),
    ('leave', ['--id', 'script']),
    ('help', ['put']),
    ('completion', ['bash']),
    ('manual', ['man']),
]


class EveryVerb(zemcase.ZemCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix='zem-every-')
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        os.symlink(self.path('mjpeg.mov'), os.path.join(self.folder, 'mjpeg.mov'))
        with open(os.path.join(self.folder, 'config.xml'), 'w', encoding='utf-8') as file:
            file.write('<channelConfig readAhead="4"/>')

    def test_json_is_objects_and_nothing_else(self):
        named = re.findall(r'(?m)^\*\*`zem ([a-z0-9]+(?: (?:push|set))?)[ `]', self.zem('manual', 'markdown'))
        self.assertEqual(sorted(verb for verb, _ in RUNS), sorted(named))
        for verb, arguments in RUNS:
            with self.subTest(verb):
                done = self.run_zem('--json', *verb.split(), *(one.replace('$', self.folder) for one in arguments))
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertEqual(done.stderr, '')  # no progress, no colour, no summary
                lines = done.stdout.split('\n')
                self.assertEqual(lines.pop(), '')
                self.assertGreaterEqual(len(lines), 1)
                for line in lines:
                    self.assertIsInstance(json.loads(line), dict)
                self.assertNotIn('\x1b', done.stdout)

    def test_nobody_there_is_one_object_and_3(self):
        for verb, arguments in RUNS:
            if verb in ('help', 'completion', 'manual', 'doctor'):  # all but the last ask nobody, the last one tells more
                continue
            with self.subTest(verb):
                done = subprocess.run([zemcase.PROGRAMS.zem, '--server', 'http://127.0.0.1:1', '--json', *verb.split(),
                                       *(one.replace('$', self.folder) for one in arguments)],
                                      capture_output=True, text=True, timeout=300)
                self.assertEqual(done.returncode, 3, done.stdout + done.stderr)
                self.assertEqual(json.loads(done.stdout.rstrip('\n').split('\n')[-1])['exit_code'], 3)
                self.assertIn('127.0.0.1:1', done.stderr)


zemcase.main()
