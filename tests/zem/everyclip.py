#!/usr/bin/env python3
"""Every clip of the table, frame by frame what ffmpeg delivers of it: read where it lies, put and read back, imported
and exported, and with its end cut off.

usage: everyclip.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
       QUICK=1 in the environment: only the clips that are needed to see every codec and rate once.
"""

import fractions
import hashlib
import os
import shutil
import unittest

import zemcase
import clips
import wire

ERROR_CRC = 0x80070017
# What is not there cannot be looked up.
TABLE_AT_THE_END = ('mjpeg.mov', 'prores.mov', 'raw.mov', 'h264.mov', 'dv.mov', 'h264.mp4')


class EveryClip(zemcase.ZemCase):
    kept = {}  # (clip, stream): its frames as ffmpeg has them

    def expected(self, name, kind, source):
        key = name, source, kind
        if key not in self.kept:
            self.kept[key] = clips.expected(self.path(name), name, kind, source)
        return self.kept[key]

    def check_reading_in_place(self, name):
        self.path(name)
        rate = clips.CLIPS[name].rate
        for kind, stream, source in clips.streams(name):
            expected = self.expected(name, kind, source)
            self.assertGreater(len(expected), 7)
            self.assertEqual(self.frames(name, '--stream', stream), expected, name + ' ' + stream)
            info = self.info(name, stream)
            self.assertEqual(info['frames'], len(expected))
            if kind == 'v' or (kind == 'p' and rate):
                self.assertEqual(fractions.Fraction(info['rate_numerator'], info['rate_denominator']),
                                 fractions.Fraction(rate))
            # Backwards, so that no frame follows the one before it.
            for position in (len(expected) - 1, len(expected) // 2):
                self.assertEqual(self.frames(name, '--stream', stream, '--from', str(position), '--count', '1'),
                                 [expected[position]])

    def check_putting(self, name):
        self.zem('put', self.path(name), 'media/put.' + name)
        for kind, stream, source in clips.streams(name):
            self.assertEqual(self.frames('put.%s.%s' % (name, stream)), clips.framemd5(self.path(name), source))
            self.zem('rm', 'media/put.%s.%s' % (name, stream))

    def check_import_and_export(self, name):
        source, here = self.path(name), 'media/in.' + name
        target = os.path.join(self.server.folder, 'out-%s.%s' % (name, clips.CLIPS[name].leaves))
        self.zem('import', source, here)
        for kind, stream, number in clips.streams(name):
            kind = 'p' if kind == 'q' else kind
            self.assertEqual(self.frames('in.%s.%s' % (name, stream)), self.expected(name, kind, number), stream)
        if clips.CLIPS[name].leaves is None:
            return
        self.zem('export', here, target)
        self.assertFalse(os.path.exists(target + '.part'))
        for kind, stream, number in clips.streams(name):
            if kind in 'pq':
                self.assertEqual(clips.payload(target, number), clips.payload(source, number), name + ' ' + stream)
            else:
                self.assertEqual(clips.framemd5(target, number), self.expected(name, kind, number), name + ' ' + stream)
            if kind == 'v':
                rate = clips.probe(target, 'stream=r_frame_rate', number)['streams'][0]['r_frame_rate']
                self.assertEqual(fractions.Fraction(rate), fractions.Fraction(clips.CLIPS[name].rate))
            self.zem('rm', 'media/in.%s.%s' % (name, stream))
        os.remove(target)

    def check_a_cut_off_end(self, name):
        """What can be read is what it was; the rest is damaged or not there."""
        path = self.path(name)
        short = os.path.join(self.media, 'short.' + name)
        shutil.copyfile(path, short)
        os.truncate(short, os.path.getsize(path) * 7 // 10)
        client = self.client('short')
        for kind, stream, source in clips.streams(name):
            token = client.open('media/short.' + name, aux=stream)
            if name in TABLE_AT_THE_END:
                self.assertEqual(token, 0)
                continue
            whole = self.expected(name, kind, source)
            read = []
            for position in range(len(whole) + 1):
                reply = client.read(token, position)
                if wire.stream_status(reply) == wire.END_OF_MEDIA:
                    break
                self.assertIn(wire.stream_status(reply), (0, ERROR_CRC))
                data = wire.frame_of(reply)
                read.append(data if wire.stream_status(reply) == 0 else None)
            good = [(position, data) for position, data in enumerate(read) if data is not None]
            self.assertGreater(len(good), 0, stream)
            self.assertLess(len(good), len(whole), stream)
            last, data = good.pop()
            for position, frame in good:
                self.assertEqual((len(frame), hashlib.md5(frame).hexdigest()), whole[position], position)
            # A transport stream does not say how long its last packet should have been; PCM ends with a part of a
            # frame.
            if kind == 'p':
                start = clips.first_sample(last, clips.CLIPS[name].rate or clips.PAL) * clips.sample_size(name)
                self.assertEqual(data, clips.payload(path, source)[start:start + len(data)])
            elif (len(data), hashlib.md5(data).hexdigest()) != whole[last]:
                self.assertEqual((len(data), hashlib.md5(data).hexdigest()), clips.framemd5(short, source)[last])
        os.remove(short)


class TheTable(unittest.TestCase):
    def test_has_every_codec_and_rate(self):
        rows = {name: row for name, row in clips.CLIPS.items() if wanted(row)}
        self.assertGreaterEqual(len(rows), 12)
        self.assertEqual({row.rate for row in rows.values()}, {*clips.RATES, None})
        said = [' '.join(row.arguments) for row in rows.values()]
        for codec in ('mjpeg', 'libx264', 'mpeg2video', 'prores', 'dvvideo', 'rawvideo', 'pcm_s16le', 'pcm_s24', 'aac'):
            self.assertTrue(any(codec in each for each in said), codec)


def wanted(row):
    return row.quick or not os.environ.get('QUICK')


def add_tests(name):
    for what in ('reading_in_place', 'putting', 'import_and_export', 'a_cut_off_end'):
        def test(self, what=what):
            getattr(self, 'check_' + what)(name)
        setattr(EveryClip, 'test_%s_%s' % (name.replace('.', '_').replace('-', '_'), what), test)


for clip, row in clips.CLIPS.items():
    if wanted(row):
        add_tests(clip)

if __name__ == '__main__':
    zemcase.main()
