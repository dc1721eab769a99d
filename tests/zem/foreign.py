#!/usr/bin/env python3
"""Files of foreign formats, read where they lie: frame by frame what ffmpeg delivers of them.

usage: foreign.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import argparse
import fractions
import hashlib
import json
import os
import struct
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import clips  # noqa: E402
from wire import Client, Server  # noqa: E402

PROGRAMS = None


def cut(data, sample_size, rate):
    """PCM in frames of the exact cadence: frame n begins at the sample nearest to n frames."""
    def first(position):
        return int(fractions.Fraction(48000 * position) / fractions.Fraction(rate) + fractions.Fraction(1, 2))
    frames = []
    while first(len(frames)) * sample_size < len(data):
        at = len(frames)
        frames.append(data[first(at) * sample_size:first(at + 1) * sample_size])
    return [(len(frame), hashlib.md5(frame).hexdigest()) for frame in frames]


class Foreign(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server(PROGRAMS.zemhost)
        cls.media = os.path.join(cls.server.volume, 'media')
        os.mkdir(cls.media)

    @classmethod
    def tearDownClass(cls):
        code = cls.server.stop()
        cls.server.remove()
        assert code == 0, 'zemhost ended with %d' % code

    def zem(self, *arguments, code=0):
        done = subprocess.run([PROGRAMS.zem, '--server', 'http://127.0.0.1:%d' % self.server.port, *arguments],
                              capture_output=True, text=True, timeout=120)
        self.assertEqual(done.returncode, code, ' '.join(arguments) + ': ' + done.stderr)
        return done.stdout

    def read(self, name, stream, *arguments):
        return clips.columns(self.zem('framemd5', 'media/' + name, '--stream', stream, *arguments))

    def info(self, name, stream=''):
        return json.loads(self.zem('info', 'media/' + name, '--stream', stream, '--json'))

    def path(self, name):
        path = os.path.join(self.media, name)
        return path if os.path.exists(path) else clips.make(self.media, name)

    def check(self, name):
        path = self.path(name)
        _, rate, streams = clips.CLIPS[name]
        numbers = {'v': 0, 'a': 0}
        for kind in streams:
            letter = 'a' if kind == 'p' else kind
            stream = letter + str(numbers[letter])
            source = letter + ':' + str(numbers[letter])
            numbers[letter] += 1
            info = self.info(name, stream)
            if kind == 'p':
                sample_size = info['bits_per_sample'] // 8 * info['channels']
                expected = cut(clips.payload(path, source), sample_size, rate or '25')
            else:
                expected = clips.framemd5(path, source)
            self.assertGreater(len(expected), 7)
            self.assertEqual(self.read(name, stream), expected, name + ' ' + stream)
            self.assertEqual(info['frames'], len(expected))
            if kind == 'v':
                self.assertEqual(fractions.Fraction(info['rate_numerator'], info['rate_denominator']),
                                 fractions.Fraction(rate))
            # Backwards, so that no frame follows the one before it.
            if kind != 'p':
                for position in (len(expected) - 1, len(expected) // 2):
                    self.assertEqual(self.read(name, stream, '--from', str(position), '--count', '1'),
                                     [expected[position]])


    def test_special_streams(self):
        self.path('mjpeg.mov')
        client = Client(self.server.port, 'special')
        self.addCleanup(client.close)
        client.join()
        for aux, kind in (('tc', 7), ('d0', 8), ('mk', 24)):
            token = client.open('media/mjpeg.mov', aux=aux)
            self.assertEqual(token >> 24 & 0xFF, kind)
            reply = client.read(token, 0)
            self.assertEqual(len(reply.body), 12 + 104, 'no data follows the table')
            status = struct.unpack_from('<I', reply.body, 12 + 8)[0]
            size, position, flags, _, timecode, _ = struct.unpack_from('<IIII4sI', reply.body, 12 + 8 + 24)
            if aux == 'mk':
                self.assertEqual(status, 0x80040201)  # never set
                continue
            self.assertEqual((status, position, flags), (0, 0, 3))
            self.assertEqual(timecode, bytes([0x42, 0, 0, 0x01]))  # 01:00:00;02
            self.assertEqual(size, clips.framemd5(self.path('mjpeg.mov'), 'v:0')[0][0] if aux == 'tc' else 4)

    def test_writing_is_refused_and_the_log_says_why(self):
        self.path('mjpeg.mov')
        client = Client(self.server.port, 'writer')
        self.addCleanup(client.close)
        client.join()
        self.assertEqual(client.open('media/mjpeg.mov', flags=3), 0)
        self.server.wait_for_line('a file of a foreign format is only read; import it to change it')


def add_clip_test(name):
    def test(self):
        self.check(name)
    setattr(Foreign, 'test_clip_' + name.replace('.', '_').replace('-', '_'), test)


for clip in clips.CLIPS:
    add_clip_test(clip)

if __name__ == '__main__':
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--zem', required=True)
    PROGRAMS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
