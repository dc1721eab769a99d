#!/usr/bin/env python3
"""Whole clips in and out: zem import and zem export change no frame, and keep times and timecode.

usage: wholeclips.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import clips  # noqa: E402
from wire import Server  # noqa: E402

PROGRAMS = None

# What comes in, and the container in which it leaves.
TRIPS = {
    'mjpeg.mov': 'mov', 'prores.mov': 'mov', 'raw.mov': 'mov', 'h264.mp4': 'mp4', 'fragments.mp4': 'mov',
    'h264.mkv': 'mov', 'mpeg2.mxf': 'mxf', 'dv.mxf': 'mxf', 'dnxhd-atom.mxf': 'mxf', 'mjpeg.avi': 'mov',
    'dv.avi': 'mov', 'mpeg2.ts': 'mov', 'sound.wav': 'mov',
}


def probe(path, entries, stream):
    done = subprocess.run(['ffprobe', '-v', 'error', '-of', 'json', '-select_streams', stream, '-show_entries', entries,
                           path], check=True, capture_output=True, text=True)
    return json.loads(done.stdout)


class WholeClips(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix='zem-whole-')
        cls.server = Server(PROGRAMS.zemhost)
        os.mkdir(os.path.join(cls.server.volume, 'media'))

    @classmethod
    def tearDownClass(cls):
        code = cls.server.stop()
        cls.server.remove()
        cls.folder.cleanup()
        assert code == 0, 'zemhost ended with %d' % code

    def zem(self, *arguments, code=0):
        done = subprocess.run([PROGRAMS.zem, '--server', 'http://127.0.0.1:%d' % self.server.port, *arguments],
                              capture_output=True, text=True, timeout=120)
        self.assertEqual(done.returncode, code, ' '.join(arguments) + ': ' + done.stderr)
        return done.stdout

    def path(self, name):
        path = os.path.join(self.folder.name, name)
        return path if os.path.exists(path) else clips.make(self.folder.name, name)

    def trip(self, name):
        source = self.path(name)
        here = 'media/' + name
        self.zem('import', source, here)
        target = os.path.join(self.folder.name, 'out-%s.%s' % (name, TRIPS[name]))
        self.zem('export', here, target)
        self.assertFalse(os.path.exists(target + '.part'))
        numbers = {'v': 0, 'a': 0}
        for kind in clips.CLIPS[name][2]:
            letter = 'a' if kind == 'p' else kind
            stream = '%s:%d' % (letter, numbers[letter])
            file = '%s.%s%d' % (here, letter, numbers[letter])
            numbers[letter] += 1
            if kind == 'p':
                there = clips.payload(source, stream)
                self.assertEqual(clips.payload(target, stream), there, name + ' ' + stream)
                frames = clips.columns(self.zem('framemd5', file))
                self.assertEqual(sum(size for size, _ in frames), len(there))
            else:
                expected = clips.framemd5(source, stream)
                self.assertEqual(clips.columns(self.zem('framemd5', file)), expected, file)
                self.assertEqual(clips.framemd5(target, stream), expected, name + ' ' + stream)
        return source, target

    def test_times_and_timecode_come_back(self):
        for name in ('h264.mp4', 'mjpeg.mov'):
            source, target = self.path(name), os.path.join(self.folder.name, 'times.mov')
            self.zem('import', '--force', source, 'media/times')
            self.zem('export', '--force', 'media/times', target)
            times = [[(packet['pts_time'], packet.get('flags')) for packet in
                      probe(path, 'packet=pts_time,flags', 'v:0')['packets']] for path in (source, target)]
            self.assertEqual(*times)
            tags = [probe(path, 'stream_tags=timecode', 'v:0')['streams'][0].get('tags') for path in (source, target)]
            self.assertEqual(*tags)

    def test_sound_is_cut_to_the_pictures(self):
        self.zem('import', self.path('mjpeg.mov'), 'media/cut')
        sizes = [size for size, _ in clips.columns(self.zem('framemd5', 'media/cut.a0'))]
        self.assertEqual(sizes[:5], [3204, 3202, 3204, 3202, 3204])
        info = [json.loads(self.zem('info', 'media/cut.' + stream, '--json')) for stream in ('v0', 'a0')]
        self.assertEqual(info[0]['frames'], info[1]['frames'])

    def test_what_was_put_leaves_when_its_frames_stand_alone(self):
        source = self.path('mjpeg.mov')
        self.zem('put', source, 'media/put')
        target = os.path.join(self.folder.name, 'put.mov')
        self.zem('export', 'media/put', target)
        self.assertEqual(clips.framemd5(target, 'v:0'), clips.framemd5(source, 'v:0'))
        self.assertEqual(clips.payload(target, 'a:0'), clips.payload(source, 'a:0'))

    def test_a_container_that_leaves_frames_out_is_found_out(self):
        self.zem('import', self.path('dv.avi'), 'media/uneven')  # the sound is longer than the pictures
        target = os.path.join(self.folder.name, 'uneven.mxf')
        self.zem('export', 'media/uneven', target, code=1)
        self.assertFalse(os.path.exists(target))
        self.zem('export', '--allow-short', 'media/uneven', target)
        self.assertLess(len(clips.framemd5(target, 'v:0')), 20)

    def test_refusals(self):
        target = os.path.join(self.folder.name, 'refused.mov')
        self.zem('export', 'media/nothing', target, code=1)
        self.zem('import', self.path('mjpeg.mov'), 'media/once')
        self.zem('import', self.path('mjpeg.mov'), 'media/once', code=1)
        self.zem('export', 'media/once', os.path.join(self.folder.name, 'refused.nonsense'), code=2)
        self.zem('export', 'media/once', target)
        self.zem('export', 'media/once', target, code=5)
        # A frame that is gone, a frame too many, a description that is none.
        self.zem('erase', 'media/once.v0', '--from', '3', '--count', '1')
        self.zem('export', '--force', 'media/once', target, code=1)
        self.zem('mv', 'media/once.v0', 'media/aside.v0')
        self.zem('export', '--force', 'media/once', target, code=1)
        self.zem('mv', 'media/once.clip', 'media/aside.clip')
        self.zem('mv', 'media/aside.v0', 'media/once.clip')
        self.zem('export', '--force', 'media/once', target, code=4)
        # DV in no container for it: nothing is left behind.
        self.zem('import', self.path('prores.mov'), 'media/prores')
        wrong = os.path.join(self.folder.name, 'wrong.avi')
        with open(wrong, 'w', encoding='utf-8') as out:
            out.write('kept')
        self.zem('export', 'media/prores', os.path.join(self.folder.name, 'wrong.wav'), code=5)
        self.assertFalse(os.path.exists(os.path.join(self.folder.name, 'wrong.wav.part')))
        self.zem('export', 'media/prores', wrong, code=5)
        with open(wrong, encoding='utf-8') as kept:
            self.assertEqual(kept.read(), 'kept')


def add_trip(name):
    def test(self):
        self.trip(name)
    setattr(WholeClips, 'test_trip_' + name.replace('.', '_').replace('-', '_'), test)


for clip in TRIPS:
    add_trip(clip)

if __name__ == '__main__':
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--zem', required=True)
    PROGRAMS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
