#!/usr/bin/env python3
"""Whole clips in and out: what zem import and zem export keep beside the frames, and what they refuse. (That no frame
changes on the way: everyclip.py.)

usage: wholeclips.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import json
import os
import resource
import signal
import subprocess

import zemcase
import clips


class WholeClips(zemcase.ZemCase):
    def target(self, name):
        """Where a clip is exported to."""
        return os.path.join(self.server.folder, name)

    @staticmethod
    def pictures(path):
        """What ffmpeg decodes of it."""
        decode = ['-map', '0:v', '-vsync', '0', '-f', 'framemd5', '-']
        done = subprocess.run(['ffmpeg', '-v', 'fatal', '-nostdin', '-i', path, *decode], check=True, capture_output=True, text=True)
        return clips.columns(done.stdout)

    def test_times_and_timecode_come_back(self):
        for name in ('h264.mp4', 'mjpeg.mov'):
            source, target = self.path(name), self.target('times.mov')
            self.zem('import', '--force', source, 'media/times')
            self.zem('export', '--force', 'media/times', target)
            times = [[(packet['pts_time'], packet.get('flags')) for packet in
                      clips.probe(path, 'packet=pts_time,flags', 'v:0')['packets']] for path in (source, target)]
            self.assertEqual(*times)
            tags = [clips.probe(path, 'stream_tags=timecode', 'v:0')['streams'][0].get('tags')
                    for path in (source, target)]
            self.assertEqual(*tags)

    def test_a_stripe_counts_for_what_is_exported(self):
        for verb in ('import', 'put'):
            for flags, start in (('0', '20:00:00;00'), ('1', '20:00:00:00')):
                name, target = 'media/%s%s' % (verb, flags), self.target(verb + flags + '.mov')
                self.zem(verb, self.path('mjpeg.mov'), name)
                self.zem('stripe', name + '.v0', start, '--flags', flags)
                self.zem('export', name, target)
                self.assertEqual(clips.probe(target, 'stream_tags=timecode', 'v:0')['streams'][0]['tags']['timecode'],
                                 '20:00:00;00')

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

    def test_what_was_put_stays_when_no_player_could_decode_it(self):
        self.zem('put', self.path('h264.mp4'), 'media/bare')
        target = self.target('bare.mov')
        for stream, codec in (('v0', 'h264'), ('a0', 'aac')):
            done = self.run_zem('export', 'media/bare', target)
            self.assertEqual(done.returncode, 1)
            self.assertEqual(done.stderr, 'zem: media/bare.%s: no player could decode it: its frames (%s) do not say how, and there '
                             'is no media/bare.clip that does; zem import brings a clip in with it\n' % (stream, codec))
            self.assertFalse(os.path.exists(target))
            self.zem('rm', 'media/bare.' + stream)

    def test_what_was_put_leaves_when_its_frames_say_how_to_decode_them(self):
        def comes_back(source, ending):
            target = self.target('sets.' + ending)
            self.zem('put', '--force', source, 'media/sets')
            self.zem('export', '--force', 'media/sets', target)
            self.assertEqual(*(self.pictures(path) for path in (target, source)))

        for ending in ('mov', 'mkv', 'mxf'):
            comes_back(self.path('h264.mxf'), ending)
        # Recorded from the middle of a group of pictures on: the first of them cannot be decoded.
        with open(self.path('h264.ts'), 'rb') as whole:
            packets = whole.read()
        middle = self.target('middle.ts')
        with open(middle, 'wb') as file:
            file.write(packets[len(packets) // 376 // 4 * 188:])
        self.assertNotIn('K', clips.probe(middle, 'packet=flags', 'v:0')['packets'][0]['flags'])
        comes_back(middle, 'mov')

    def test_a_container_that_leaves_frames_out_is_found_out(self):
        self.zem('import', self.path('dv.avi'), 'media/uneven')  # the sound is shorter than the pictures
        target = self.target('uneven.mxf')
        self.zem('export', 'media/uneven', target, code=1)
        self.assertFalse(os.path.exists(target))
        self.zem('export', '--allow-short', 'media/uneven', target)
        self.assertLess(len(clips.framemd5(target, 'v:0')), 20)

    def started(self, *arguments, **how):
        """zem, running."""
        process = subprocess.Popen(self.command(*arguments), stdout=subprocess.PIPE, **how)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        return process

    def left(self, name):
        return [entry for entry in os.listdir(self.media) if entry.startswith(name)]

    def test_an_interrupted_import_leaves_nothing(self):
        process = self.started('import', '-', 'media/stopped', stdin=subprocess.PIPE, stderr=subprocess.PIPE)
        with open(self.path('mpeg2.ts'), 'rb') as clip:
            data = clip.read()
        process.stdin.write(data)
        process.stdin.flush()
        while not self.left('stopped'):  # it reads on until the clip ends, which it does not
            self.assertIsNone(process.poll())
        self.assertTrue(all(name.endswith('.part') for name in self.left('stopped')))
        process.send_signal(signal.SIGINT)
        _, said = process.communicate(timeout=60)
        self.assertEqual((process.returncode, self.left('stopped')), (130, []), said)
        self.assertIn(b'nothing of it is left on the server', said)

    def test_an_interrupted_export_leaves_nothing(self):
        self.zem('import', self.path('raw.mov'), 'media/long')
        target = self.target('stopped.mkv')
        os.mkfifo(target + '.part')  # takes some kilobytes, then the program waits in the middle of the clip
        process = self.started('export', 'media/long', target, stderr=subprocess.PIPE)
        with open(target + '.part', 'rb') as pipe:
            self.assertNotEqual(pipe.read(1000), b'')
            process.send_signal(signal.SIGTERM)
            while pipe.read(1 << 16):
                pass
        _, said = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 130, said)
        self.assertFalse(os.path.exists(target) or os.path.exists(target + '.part'))

    def test_a_disk_that_is_full_is_told(self):
        """A limit on the size of files stands in for it."""
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))
        self.zem('import', self.path('raw.mov'), 'media/full')
        for ending in ('mov', 'mkv'):
            target = self.target('full.' + ending)
            done = self.run_zem('export', 'media/full', target, preexec_fn=limit)
            self.assertEqual(done.returncode, 5, done.stderr)
            self.assertIn('File too large', done.stderr)
            self.assertFalse(os.path.exists(target) or os.path.exists(target + '.part'))
        done = self.run_zem('read', 'media/full.v0', '-o', self.target('full.raw'), preexec_fn=limit)
        self.assertEqual(done.returncode, 5, done.stderr)
        self.assertIn('File too large', done.stderr)
        self.assertFalse(os.path.exists(self.target('full.raw')))

    def test_progress_is_for_terminals(self):
        source = self.path('mjpeg.mov')
        for verb in (['import', source, 'media/shown'], ['export', 'media/shown', self.target('shown.mov')]):
            done = self.run_zem(*verb, '--force')
            self.assertEqual((done.returncode, done.stdout, done.stderr), (0, '', ''))
            terminal, end = os.openpty()
            done = subprocess.run(self.command(*verb, '--force'), stderr=end, stdout=subprocess.PIPE, check=True)
            os.close(end)
            shown = b''
            try:
                while True:
                    shown += os.read(terminal, 65536)
            except OSError:  # nobody has its other end any more
                os.close(terminal)
            self.assertRegex(shown, rb'^\r\x1b\[K' + verb[0].encode() + rb' media/shown  \[[#.]{8,24}\]  +\d+ %  ')
            self.assertRegex(shown, rb' frames  [0-9.]+ [KMG]?i?B/s')
            self.assertTrue(shown.endswith(b'\r\x1b[K'), 'the line is gone at the end')
            self.assertEqual(done.stdout, b'')

    def test_h264_enters_mxf_between_start_codes(self):
        source, target = self.path('h264.mov'), self.target('h264.mxf')
        self.zem('import', source, 'media/h264')
        self.zem('export', 'media/h264', target)
        self.assertEqual(*(self.pictures(path) for path in (source, target)))
        # MXF has sound for the whole of the last picture.
        self.assertEqual(clips.payload(target, 'a:0'), clips.payload(source, 'a:0') + bytes(192))

    def test_sound_that_was_put_keeps_its_byte_order(self):
        for name in ('prores.mov', 'raw.mov', 'pcm24.wav'):
            self.zem('put', self.path(name), 'media/order')
            target = self.target('order.mov')
            self.zem('export', '--force', 'media/order', target)
            pcm = [subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-i', path, '-map', '0:a', '-f', 's24le', '-'],
                                  check=True, capture_output=True).stdout for path in (self.path(name), target)]
            self.assertEqual(*pcm)
            for stream in self.left('order'):
                self.zem('rm', 'media/' + stream)

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
        done = self.run_zem('export', 'media/prores', self.target('wrong.wav'))
        self.assertEqual(done.returncode, 5)
        self.assertIn('this container does not take these streams (prores, pcm_s24le); another may', done.stderr)
        self.assertFalse(os.path.exists(self.target('wrong.wav.part')))
        self.zem('export', 'media/prores', wrong, code=5)
        with open(wrong, encoding='utf-8') as kept:
            self.assertEqual(kept.read(), 'kept')


if __name__ == '__main__':
    zemcase.main()
