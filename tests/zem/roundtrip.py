#!/usr/bin/env python3
"""The main job on real input: a clip goes in with zem put and comes out the same, frame by frame, and is still there
after the service was killed.

usage: roundtrip.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import fcntl
import json
import os
import subprocess
import tempfile
import termios

import zemcase
from clips import framemd5, columns

PICTURE = ['-f', 'lavfi', '-i', 'testsrc2=size=1280x720:rate=25']
SOUND = ['-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000']


class RoundTrip(zemcase.OwnServerCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix='zem-roundtrip-')
        cls.clip = cls.make('clip.mov', PICTURE + SOUND + ['-t', '10', '-c:v', 'mjpeg', '-c:a', 'pcm_s16le'])
        cls.video = framemd5(cls.clip, 'v')
        cls.audio = framemd5(cls.clip, 'a')

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @classmethod
    def make(cls, name, arguments):
        path = os.path.join(cls.folder.name, name)
        subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', *arguments, path], check=True)
        return path

    def assert_same(self, name, expected):
        self.assertEqual(columns(self.zem('framemd5', name)), expected)

    def test_clip_comes_back_as_it_went_in(self):
        self.assertEqual(len(self.video), 250)
        self.assertEqual(self.zem('put', self.clip, 'media/clip'), '')
        self.assert_same('media/clip.v0', self.video)
        self.assert_same('media/clip.a0', self.audio)
        self.assertEqual(self.zem('clients'), 'No clients\n')
        self.assertIn(' of ', self.zem('status'))

    def test_positions_count_in_the_rate_of_the_channel(self):
        clip = self.make('short.mov', PICTURE + ['-t', '2', '-c:v', 'mjpeg'])
        self.zem('put', clip, 'media/short')
        at = ['--id', 'player', '--stay']
        self.zem('join', '--id', 'player')
        for rate, count in (('50', 100), ('24', 48)):
            self.zem('config', 'set', 'frameRate', rate, '--id', 'player')
            self.assertEqual(len(columns(self.zem('framemd5', 'media/short.v0', *at))), count)
            last = columns(self.zem('framemd5', 'media/short.v0', '--from', str(count - 1), *at))
            self.assertEqual(len(last), 1)
            for verb in (['framemd5', 'media/short.v0'], ['read', 'media/short.v0', '-o', '-']):
                self.zem(*verb, '--from', str(count), *at, code=1)
        self.zem('leave', '--id', 'player')

    def test_stdin_that_is_closed_is_empty(self):
        for verb in (['put', '-', 'media/x'], ['import', '-', 'media/x'], ['config', 'push', '-', '--id', 'player']):
            done = self.run_zem(*verb, preexec_fn=lambda: os.close(0))
            self.assertEqual(done.returncode, 5, done.stderr)
            self.assertIn('empty', done.stderr)

    def test_a_wait_for_a_configuration_ends_with_the_first_signal(self):
        reading, writing = os.pipe()
        with os.fdopen(reading), os.fdopen(writing, 'wb') as given:
            zem = subprocess.Popen(self.command('config', 'push', '-', '--id', 'player'), stdin=reading,
                                   stderr=subprocess.PIPE, text=True)
            with zem:
                # It has taken the first piece, so it waits for the next.
                given.write(b'<')
                given.flush()
                while fcntl.ioctl(reading, termios.FIONREAD, bytes(4)) != bytes(4):
                    os.sched_yield()
                zem.terminate()
                self.assertEqual(zem.wait(120), 130)

    def test_frames_survive_a_kill(self):
        self.zem('put', self.clip, 'media/clip')
        self.server.kill()
        self.server.start()
        self.assert_same('media/clip.v0', self.video)
        self.assert_same('media/clip.a0', self.audio)

    def test_put_again_is_refused_and_force_replaces(self):
        self.zem('put', self.clip, 'media/clip')
        self.zem('put', self.clip, 'media/clip', code=1)
        self.assert_same('media/clip.v0', self.video)
        other = self.make('other.mov', PICTURE + ['-t', '1', '-c:v', 'mjpeg'])
        self.zem('put', '--force', other, 'media/clip')
        self.assert_same('media/clip.v0', framemd5(other, 'v'))

    def test_mxf_mp4_and_several_streams(self):
        mxf = self.make('clip.mxf', PICTURE + SOUND + SOUND + ['-map', '0:v', '-map', '1:a', '-map', '2:a', '-t', '2',
                                                           '-c:v', 'mpeg2video', '-c:a', 'pcm_s16le'])
        mp4 = self.make('clip.mp4', PICTURE + SOUND + ['-t', '2', '-c:v', 'mpeg4', '-c:a', 'aac'])
        for name, clip, streams in (('mxf', mxf, ('v:0', 'a:0', 'a:1')), ('mp4', mp4, ('v:0', 'a:0'))):
            self.zem('put', '--verify', 'all', clip, 'media/' + name)
            for stream in streams:
                kind, number = stream.split(':')
                expected = framemd5(clip, stream)
                self.assertGreater(len(expected), 10)
                self.assert_same('media/%s.%s%s' % (name, kind, number), expected)

    def test_read_gives_the_frames_one_after_another(self):
        self.zem('put', self.clip, 'media/clip')
        target = os.path.join(self.folder.name, 'frames.bin')
        self.zem('read', 'media/clip.v0', '--from', '10', '--count', '5', '-o', target)
        self.assertEqual(os.path.getsize(target), sum(size for size, _ in self.video[10:15]))
        os.remove(target)

    def test_queries_and_maintenance(self):
        self.zem('put', self.clip, 'media/clip')
        name = 'media/clip.v0'
        for form in ([], ['--by-name']):
            info = json.loads(self.zem('info', name, '--json', *form))
            self.assertEqual((info['type'], info['codec'], info['frames']), ('video', 'jpeg', 250))
            self.assertEqual((info['width'], info['height'], info['rate_numerator']), (1280, 720, 25))
            marks = json.loads(self.zem('marks', name, '--json', *form))
            self.assertEqual((marks['first'], marks['second']), (0, 250))
        audio = json.loads(self.zem('info', 'media/clip.a0', '--json'))
        self.assertEqual((audio['sample_rate'], audio['channels'], audio['bits_per_sample']), (48000, 1, 16))
        frames = json.loads(self.zem('frames', name, '--json'))['frames']
        self.assertEqual([frame['size'] for frame in frames], [size for size, _ in self.video])
        self.assertTrue(all(frame['key'] and frame['present'] for frame in frames))
        self.zem('frames', name, '--by-name', code=1)  # the count has replaced two characters of the name
        self.zem('stripe', name, '10:00:59:24')
        frames = json.loads(self.zem('frames', name, '--json', '--count', '2'))['frames']
        self.assertEqual([frame['timecode'] for frame in frames], ['10:00:59:24', '10:01:00:00'])
        # No such addresses at 25 frames a second, and the file looks as if it had been striped with the first.
        for start, flags in (('10:00:59:24', '1'), ('10:00:59:25', '0'), ('10:00:59;24', '0')):
            self.zem('stripe', name, start, '--flags', flags, code=1)
        self.zem('erase', name, '--from', '10', '--count', '5')
        listing = self.zem('framemd5', name)
        self.assertEqual(columns(listing), self.video[:10] + self.video[15:])
        self.assertEqual(listing.count('0x80040202'), 5)
        self.zem('flush', name)

    def test_file_system(self):
        self.zem('put', self.clip, 'media/clip')
        space = json.loads(self.zem('df', '--json'))
        self.assertGreaterEqual(space['total_bytes'], space['free_bytes'])
        self.assertGreater(space['free_bytes'], 0)
        self.zem('mkdir', 'media/new')
        self.assertTrue(json.loads(self.zem('stat', 'media/new', '--json'))['directory'])
        self.zem('mv', 'media/clip.v0', 'media/new/v')
        self.assert_same('media/new/v', self.video)
        self.zem('stat', 'media/clip.v0', code=1)
        self.zem('mv', 'media/clip.a0', 'media/new/v', code=1)
        size = json.loads(self.zem('stat', 'media/new/v', '--json'))['size_bytes']
        target = os.path.join(self.folder.name, 'whole')
        self.zem('get', 'media/new/v', '-o', target)
        self.assertEqual(os.path.getsize(target), size)
        with open(target, 'rb') as here, open(os.path.join(self.server.volume, 'media/new/v'), 'rb') as there:
            self.assertEqual(here.read(), there.read())
        os.remove(target)
        self.zem('rm', 'media/new/v')
        self.zem('rm', 'media/new/v', code=1)
        self.zem('rm', '--http', 'media/clip.a0')
        self.zem('get', 'media/clip.a0', '-o', target, code=1)
        self.assertFalse(os.path.exists(target))

    def test_client_verbs(self):
        client = ['--id', 'desk 1']
        self.zem(*client, 'join')
        self.assertEqual(json.loads(self.zem('clients', '--json'))['clients'], ['desk 1'])
        self.zem(*client, 'realtime')
        self.zem(*client, 'keepalive')
        self.zem(*client, 'config', 'set', 'readAhead', '4')
        document = os.path.join(self.folder.name, 'config.xml')
        for text, code in (('<channelConfig readAhead="8"><frameRate>25</frameRate></channelConfig>', 0),
                           ('<channelConfig colour="red"/>', 1), ('<channelConfig', 1)):
            with open(document, 'w', encoding='utf-8') as out:
                out.write('<?xml version="1.0" encoding="UTF-8"?>' + text)
            done = self.run_zem(*client, 'config', 'push', document)
            self.assertEqual(done.returncode, code, done.stderr)
            self.assertEqual('that the server does not know' in done.stderr, code == 1, done.stderr)
            self.assertEqual('such as <channelConfig frameRate="25" ' in done.stderr, code == 1, done.stderr)
        self.zem(*client, 'leave')
        self.assertEqual(self.zem('clients'), 'No clients\n')

    def test_missing_file_fails(self):
        self.zem('framemd5', 'media/none', code=1)


if __name__ == '__main__':
    zemcase.main()
