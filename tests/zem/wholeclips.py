#!/usr/bin/env python3
"""Whole clips in and out: what zem import and zem export keep beside the frames, and what they refuse. (That no frame
changes on the way: everyclip.py.)

usage: wholeclips.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import json
import os

import zemcase
import clips


class WholeClips(zemcase.ZemCase):
    def target(self, name):
        """Where a clip is exported to."""
        return os.path.join(self.server.folder, name)

    def test_times_and_timecode_come_back(self):
        for name in ('h264.mp4', 'mjpeg.mov'):
            source, target = self.path(name), self.target('times.mov')
            self.zem('import', '--force', source, 'media/times')
            self.zem('export', '--force', 'media/times', target)
            times = [[(packet['pts_time'], packet.get('flags')) for packet in
                      clips.probe(path, 'packet=pts_time,flags', 'v:0')['packets']] for path in (source, target)]
            self.assertEqual(*times)
            tags = [clips.probe(path, 'stream_tags=timecode', 'v:0')['streams'][0].get('tags') for path in (source, target)]
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
        target = self.target('put.mov')
        self.zem('export', 'media/put', target)
        self.assertEqual(clips.framemd5(target, 'v:0'), clips.framemd5(source, 'v:0'))
        self.assertEqual(clips.payload(target, 'a:0'), clips.payload(source, 'a:0'))

    def test_a_container_that_leaves_frames_out_is_found_out(self):
        self.zem('import', self.path('dv.avi'), 'media/uneven')  # the sound is longer than the pictures
        target = self.target('uneven.mxf')
        self.zem('export', 'media/uneven', target, code=1)
        self.assertFalse(os.path.exists(target))
        self.zem('export', '--allow-short', 'media/uneven', target)
        self.assertLess(len(clips.framemd5(target, 'v:0')), 20)

    def test_refusals(self):
        target = self.target('refused.mov')
        self.zem('export', 'media/nothing', target, code=1)
        self.zem('import', self.path('mjpeg.mov'), 'media/once')
        self.zem('import', self.path('mjpeg.mov'), 'media/once', code=1)
        self.zem('export', 'media/once', self.target('refused.nonsense'), code=2)
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
        wrong = self.target('wrong.avi')
        with open(wrong, 'w', encoding='utf-8') as out:
            out.write('kept')
        self.zem('export', 'media/prores', self.target('wrong.wav'), code=5)
        self.assertFalse(os.path.exists(self.target('wrong.wav.part')))
        self.zem('export', 'media/prores', wrong, code=5)
        with open(wrong, encoding='utf-8') as kept:
            self.assertEqual(kept.read(), 'kept')


if __name__ == '__main__':
    zemcase.main()
