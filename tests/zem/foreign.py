#!/usr/bin/env python3
"""What files of foreign formats have beside their frames: special streams, timecode, the refusal to be written; and
sound files of many gigabytes. (Their frames: everyclip.py.)

usage: foreign.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import fractions
import os
import struct
import subprocess

import zemcase
import clips
import wire


def addresses(start, base, drop_frame):
    """Addresses in BCD from `start` (hours, minutes, seconds, frames) on, counted one by one."""
    hours, minutes, seconds, frames = start
    pair = 2 if base > 30 else 1
    while True:
        count, field = divmod(frames, pair)
        bcd = [value // 10 << 4 | value % 10 for value in (count, seconds, minutes, hours)]
        yield bytes([bcd[0] | (0x40 if drop_frame else 0), bcd[1] | (0x80 if field else 0), bcd[2], bcd[3]])
        frames += 1
        if frames == base:
            seconds, frames = seconds + 1, 0
            if seconds == 60:
                minutes, seconds = minutes + 1, 0
                if minutes == 60:
                    hours, minutes = (hours + 1) % 24, 0
                if drop_frame and minutes % 10:
                    frames = 2 * pair


class Foreign(zemcase.ZemCase):
    def test_special_streams(self):
        self.path('mjpeg.mov')
        client = self.client('special')
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
            self.assertEqual(timecode, bytes([0x60, 0x59, 0, 0x01]))  # 01:00:59;20
            self.assertEqual(size, clips.framemd5(self.path('mjpeg.mov'), 'v:0')[0][0] if aux == 'tc' else 4)

    def test_a_clip_that_is_cut_off_is_told(self):
        whole = os.path.join(self.media, 'whole.mov')
        subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-i', self.path('mjpeg.mov'), '-map', '0:v', '-map', '0:a?',
                        '-c', 'copy', '-movflags', '+faststart', whole], check=True)
        with open(whole, 'rb') as file, open(os.path.join(self.media, 'cut.mov'), 'wb') as cut:
            cut.write(file.read(os.path.getsize(whole) * 6 // 10))
        self.assertFalse(self.info('whole.mov')['cut_off'])
        self.assertTrue(self.info('cut.mov')['cut_off'])
        self.assertNotIn('cut off', self.zem('info', 'media/whole.mov'))
        self.assertIn('cut off   the last frame lies behind the end of the file\n', self.zem('info', 'media/cut.mov'))
        self.assertIn('the clip is cut off', self.run_zem('put', os.path.join(self.media, 'cut.mov'), 'media/x').stderr)

    def test_timecode_tracks_count_with_the_pictures(self):
        for name, start in (('mjpeg.mov', (1, 0, 59, 20)), ('mpeg2.mxf', (10, 0, 59, 20)), ('h264.mov', (1, 0, 59, 58)),
                            ('dv.mxf', (9, 59, 59, 20))):
            sizes = [size for size, _ in clips.framemd5(self.path(name), 'v:0')]
            rate = fractions.Fraction(clips.CLIPS[name].rate)
            client = self.client(name)
            token = client.open('media/' + name, aux='tc')
            self.assertEqual(token >> 24 & 0xFF, 7)
            for position, address in zip(range(len(sizes)), addresses(start, round(rate), rate.denominator == 1001)):
                reply = client.read(token, position)
                self.assertEqual(wire.stream_status(reply), 0)
                self.assertEqual(len(reply.body), 12 + 104, 'no data follows the table')
                low, high = reply.word(8 + 24 + 12), reply.word(8 + 24 + 20)
                self.assertEqual((reply.word(8 + 24), reply.word(8 + 24 + 4)), (sizes[position], position))
                self.assertEqual(reply.body[12 + 8 + 24 + 16:][:4], address, '%s %d' % (name, position))
                self.assertEqual(high << 32 | low, position * 10000000 * rate.denominator // rate.numerator)
            self.assertEqual(wire.stream_status(client.read(token, len(sizes))), wire.END_OF_MEDIA)

    def test_sound_beyond_four_gigabytes(self):
        """Samples 48,000 a second in 16 bits; the file is as good as empty but for one frame near its end."""
        data_size, at = 5 << 30, 1398000
        format_chunk = struct.pack('<4sIHHIIHH', b'fmt ', 16, 1, 1, 48000, 96000, 2, 16)
        heads = {'rf64': self.long_head(b'RF64', data_size, format_chunk),
                 'bw64': self.long_head(b'BW64', data_size, format_chunk),
                 'endless': struct.pack('<4sI4s', b'RIFF', 0xFFFFFFFF, b'WAVE') + format_chunk +
                 struct.pack('<4sI', b'data', 0xFFFFFFFF)}
        sound = bytes(range(256)) * 15  # one frame at 25 per second
        client = self.client('long')
        for name, head in heads.items():
            with open(os.path.join(self.media, name), 'wb') as out:
                out.write(head)
                out.seek(len(head) + at * len(sound))
                out.write(sound)
                out.truncate(len(head) + data_size)
            self.assertEqual(self.info(name, 'a0')['frames'], -(-data_size // len(sound)), name)
            token = client.open('media/' + name, aux='a0')
            self.assertEqual(wire.frame_of(client.read(token, at)), sound, name)
            self.assertEqual(wire.frame_of(client.read(token, at + 1)), bytes(len(sound)), name)
            last = -(-data_size // len(sound)) - 1
            self.assertEqual(len(wire.frame_of(client.read(token, last))), data_size - last * len(sound))
            self.assertEqual(wire.stream_status(client.read(token, last + 1)), wire.END_OF_MEDIA)

    @staticmethod
    def long_head(magic, data_size, format_chunk):
        sizes = struct.pack('<4sIQQQI', b'ds64', 28, data_size + 72, data_size, data_size // 2, 0)
        return struct.pack('<4sI4s', magic, 0xFFFFFFFF, b'WAVE') + sizes + format_chunk + struct.pack('<4sI', b'data',
                                                                                                     0xFFFFFFFF)

    def test_writing_is_refused_and_the_log_says_why(self):
        self.path('mjpeg.mov')
        client = self.client('writer')
        self.assertEqual(client.open('media/mjpeg.mov', flags=3), 0)
        self.server.wait_for_line('media/mjpeg.mov: a file of a foreign format is only read; import it to change it')


if __name__ == '__main__':
    zemcase.main()
