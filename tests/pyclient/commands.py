#!/usr/bin/env python3
"""The Python client against a running zemhost: every command, page and file, by what they bring about.

usage: commands.py --zemhost PROGRAM [unittest arguments]
"""

import inspect
import io
import os
import random
import re
import socket
import subprocess
import unittest

import common
import zemclient
from zemclient import *

VIDEO = StreamDescriptor(MediaType.VIDEO, 'mjpg', 25, 1, 1280, 720, start_timecode=Timecode(10))


class Shape(unittest.TestCase):
    def test_a_star_brings_all_that_is_public(self):
        public = {name for name, what in vars(zemclient).items() if not name.startswith('_') and
                  (name.isupper() or getattr(what, '__module__', '') == 'zemclient')}
        self.assertEqual(set(zemclient.__all__), public)

    def test_commands_are_those_of_the_page(self):
        with open(os.path.join(common.ROOT, 'docs', 'protocol.md'), encoding='utf-8') as page:
            rows = re.findall(r'^\| (\d+) \| \[`CMD_(\w+)`\]\(#\w+\) \| (\d+) \|', page.read(), re.MULTILINE)
        self.assertGreaterEqual(len(rows), 26)
        self.assertEqual([(int(code), name, int(reply)) for code, name, reply in rows],
                         [(command.value, command.name, zemclient._REPLY_CODES[command]) for command in Command])

    def test_every_command_has_a_method_with_a_docstring(self):
        for command in Command:
            self.assertTrue(inspect.getdoc(getattr(ZemClient, command.name.lower())), command)

    def test_timecode_bytes(self):
        timecode = Timecode.parse('09:59:59:05')
        self.assertEqual(timecode.pack(), bytes.fromhex('05 59 59 09'))
        rng = random.Random(3)
        for _ in range(200):
            timecode = Timecode(rng.randrange(24), rng.randrange(60), rng.randrange(60), rng.randrange(30),
                                *(rng.random() < 0.5 for _ in range(3)))
            self.assertEqual(Timecode.unpack(timecode.pack()), timecode)
            drop = Timecode.parse(str(timecode)).drop_frame
            self.assertEqual(drop, timecode.drop_frame)

    def test_descriptor_bytes(self):
        mark = FrameDescriptor(5, 6, FrameFlags.KEY, Timecode(1, 2, 3, 4), 7 << 32 | 8)
        self.assertEqual(mark.pack(), bytes.fromhex('06000000 05000000 01000000 08000000 04030201 07000000'))
        self.assertEqual(FrameDescriptor.unpack(mark.pack()), mark)
        self.assertEqual(StreamDescriptor.unpack(VIDEO.pack()), VIDEO)
        self.assertIsNone(StreamDescriptor.unpack(VIDEO.pack()[1:] + b'\0'))

    def test_wrong_arguments_send_nothing(self):
        client = ZemClient('http://127.0.0.1:1', 'never')  # to send something would be a ZemConnectionError
        calls = (lambda: client.open_file('a' * 260), lambda: client.open_file('a\0b'),
                 lambda: client.open_file('\ud800'), lambda: client.read_frame([]),
                 lambda: client.read_frame([ReadEntry(1, 0)] * 23), lambda: client.read_frame([ReadEntry(1 << 64, 0)]),
                 lambda: client.read_frame([ReadEntry(1, -1)]), lambda: client.write_frame([]),
                 lambda: client.write_frame([WriteEntry(1, 0xFFFFFFFF, b'')]),
                 lambda: client.write_frame([WriteEntry(1 << 24, 0, FrameDescriptor())]),
                 lambda: client.write_frame([WriteEntry(24 << 24, 0, b'')]),
                 lambda: client.get_frame_desc(1, 0, -1), lambda: client.get_frame_desc(1, 0xFFFFFFFF, 1),
                 lambda: client.get_frame_desc2('clip', 0, 48), lambda: client.get_frame_desc2('cl0', 0, 47),
                 lambda: client.create_file('a', StreamDescriptor(MediaType.VIDEO, 'mjpeg')),
                 lambda: client.create_file('a', StreamDescriptor(MediaType.VIDEO, 'mjpg', rate_numerator=-1)),
                 lambda: client.stripe_timecode('a', Timecode(frames=40)), lambda: client.update_cfg_attr_str('a', '\0'),
                 lambda: client.get('other/a', io.BytesIO()), lambda: client.get('media/Status.txt', io.BytesIO()),
                 lambda: client.update_cfg(frameRate='x' * (8 << 20)))
        for number, call in enumerate(calls):
            with self.subTest(number):
                self.assertRaises(ValueError, call)
        for server, client_id in (('127.0.0.1', 'a'), ('https://h', 'a'), ('http://h/path', 'a'),
                                  ('http://h', 'a' * 260), ('http://h', 'a\r\nb')):
            with self.subTest(server=server, client_id=client_id), self.assertRaises(ValueError):
                ZemClient(server, client_id)
        for blank in ('', ' ', ' a', 'a '):
            with self.subTest(client_id=blank), self.assertRaisesRegex(ValueError, 'client ID .* without outer blanks'):
                ZemClient('http://h', blank)

    def test_nobody_answers(self):
        with socket.socket() as deaf:
            deaf.bind(('127.0.0.1', 0))  # a port that is taken, but on which nobody listens
            with self.assertRaises(ZemConnectionError):
                ZemClient('http://127.0.0.1:%d' % deaf.getsockname()[1], 'never').keep_alive()


class Being(common.ServerCase):
    def test_joins_and_leaves(self):
        with ZemClient(self.url, 'Kamera-Ä 1', channel=7) as client:
            self.assertIn('Kamera-Ä 1', client.clients())
            client.keep_alive()
            client.set_io_real_time()
        self.assertNotIn('Kamera-Ä 1', client.clients())
        client.close()

    def test_leaves_when_the_block_fails(self):
        with self.assertRaises(KeyError), ZemClient(self.url, 'failing') as client:
            raise KeyError
        self.assertNotIn('failing', client.clients())
        client.close()

    def test_no_warning_of_its_version(self):
        self.client()
        self.server.wait_for_line("test_no_warning_of_its_version")
        self.assertFalse([line for line in self.server.lines() if 'test_no_warning' in line and 'WARNING' in line])

    def test_channel_255_does_not_join(self):
        client = self.client(channel=zemclient.CHANNEL_NONE)
        self.assertNotIn(client.id, client.clients())

    def test_who_has_not_joined_is_told(self):
        self.client().create_file('told/file', VIDEO).close()
        stranger = ZemClient(self.url, 'stranger')
        self.addCleanup(stranger.close)
        for call in (lambda: stranger.open_file('told/file'), lambda: stranger.create_file('told/other', VIDEO),
                     lambda: stranger.read_frame([ReadEntry(1 << 24, 0)]), lambda: stranger.get_file_info(1),
                     lambda: stranger.get_file_info2('told/file'), lambda: stranger.get_file_marks(1),
                     lambda: stranger.get_file_marks2('told/file'), lambda: stranger.delete_file('told/file'),
                     lambda: stranger.get_filesize('told/file'), lambda: stranger.move_file('told/file', 'b'),
                     lambda: stranger.create_directory('told/d'), lambda: stranger.update_cfg(readAhead=1),
                     lambda: stranger.stripe_timecode('told/file', Timecode())):
            self.assertRaises(ZemRefused, call)
        self.assertEqual(stranger.query_filesystem_space('told/file/with/a/name'), Space(0, 0))
        stranger.leave()

    def test_a_new_connection_continues(self):
        client = self.client()
        file = client.create_file('continues', VIDEO)
        file.write(0, b'before')
        file.flush()
        client.close()
        self.assertEqual(file.read(0).data, b'before')

    def test_configuration(self):
        client = self.client()
        client.update_cfg(frameRate='25', readAhead=4)
        client.update_cfg_attr_str('readAhead', '8')
        with self.assertRaises(ZemRefused) as refused:
            client.update_cfg(zoom='<&"')
        self.assertEqual((refused.exception.result, refused.exception.http_status), (Result.E_INVALIDARG, 500))
        self.assertIn('what the server does not know', str(refused.exception))


class Frames(common.ServerCase):
    def test_frames_come_back(self):
        seed = 7
        rng = random.Random(seed)
        frames = [rng.randbytes(rng.choice((0, 1, 4096, 70000, 300001))) for _ in range(45)]
        client = self.client()
        file = client.create_file('frames/back', VIDEO)
        for position in rng.sample(range(45), 45):
            file.write(position, memoryview(frames[position]), key_frame=position % 12 == 0)
        file.flush()
        for batch in (1, 4, 22):
            read = list(file.frames(batch=batch))
            self.assertEqual([frame.data for frame in read], frames, 'seed %d' % seed)
            self.assertEqual([frame.position for frame in read], list(range(45)))
        self.assertEqual([frame.position for frame in file.frames(3, 9)], list(range(3, 9)))
        summaries = file.summaries(0, 500)  # more than one request can ask for
        self.assertEqual([summary.data_size for summary in summaries[:45]], [len(frame) for frame in frames])
        self.assertEqual(summaries[12].flags, FrameFlags.KEY | FrameFlags.PRESENT)
        self.assertEqual(set(summaries[45:]), {zemclient.FrameSummary(0, FrameFlags(0), Timecode())})
        self.assertEqual(str(summaries[30].timecode), '10:00:01:05')

    def test_streaming_with_other_commands_between(self):
        file = self.client().create_file('frames/between', VIDEO)
        for position in range(6):
            file.write(position, bytes([position]))
        file.flush()
        for frame in file.frames(batch=2):
            file.client.keep_alive()
            self.assertEqual(frame.data, bytes([frame.position]))

    def test_two_streams_in_one_request(self):
        client = self.client()
        picture, sound = client.create_file('two/v', VIDEO), client.create_file(
            'two/a', StreamDescriptor(MediaType.AUDIO, 'lpcm', 25, 1, sample_rate=48000, channels=2, bits_per_sample=16))
        client.write_frame([WriteEntry(picture.token, 0, b'picture', EntryFlags.KEY_FRAME),
                            WriteEntry(sound.token, 0, b'sound')])
        picture.flush()
        sound.flush()
        read = client.read_frame([ReadEntry(sound.token, 0, user_data=1 << 63), ReadEntry(picture.token, 9),
                                  ReadEntry(picture.token, 0)])
        self.assertEqual([frame.data for frame in read], [b'sound', b'', b'picture'])
        self.assertEqual([frame.status for frame in read], [0, Result.END_OF_MEDIA, 0])
        self.assertEqual(read[0].user_data, 1 << 63)

    def test_holes_erased_and_the_end(self):
        file = self.client().create_file('frames/holes', VIDEO)
        for position in (0, 1, 2, 5):
            file.write(position, b'frame')
        file.flush()
        file.erase(1, 3)
        self.assertEqual([frame.status for frame in file.frames()],
                         [0, Result.ERASED, Result.ERASED, Result.HOLE, Result.HOLE, 0])
        self.assertTrue(all(summary.flags & FrameFlags.ERASED for summary in file.summaries(1, 2)))
        self.assertTrue(file.is_written(0))
        self.assertFalse(file.is_written(1))
        with self.assertRaises(ZemRefused) as refused:
            file.read(6)
        self.assertEqual(refused.exception.result, Result.END_OF_MEDIA)

    def test_a_closed_file_is_refused(self):
        file = self.client().create_file('frames/closed', VIDEO)
        token = file.token
        with file:
            file.write(0, b'x')
        file.close()
        for call in (lambda: file.write(0, b'y'), lambda: file.erase(0, 1), file.flush, lambda: file.summaries(0, 1),
                     lambda: file.read(0), lambda: file.is_written(0), lambda: list(file.frames()), file.info, file.marks):
            with self.assertRaisesRegex(ValueError, "'frames/closed' is closed"):
                call()
        with self.assertRaises(ZemRefused) as refused:
            list(zemclient.ZemFile(file.client, token, 'closed').frames())
        self.assertEqual(refused.exception.result, Result.E_HANDLE)

    def test_a_file_that_is_only_read_is_not_changed_in_silence(self):
        client = self.client()
        with client.create_file('frames/read only', VIDEO, flags=CreateFlags.READ) as file:
            file.write(0, b'what is created is writable')
        with client.open_file('frames/read only') as file:
            for call in (lambda: file.write(0, b'other'), lambda: file.erase(0, 1)):
                with self.assertRaisesRegex(ValueError, 'open for reading only: open it with OpenFlags.READ'):
                    call()
            self.assertEqual(file.read(0).data, b'what is created is writable')
        with client.open_file('frames/read only', flags=OpenFlags.WRITE) as file:
            file.write(0, b'other')
            file.flush()
            self.assertEqual(file.read(0).data, b'other')

    def test_marks_and_timecode(self):
        client = self.client()
        with client.create_file('frames/marks', VIDEO) as file:
            for position in range(4):
                file.write(position, b'x')
            file.flush()
            self.assertEqual(file.marks(), Marks(0, 4))
        with client.open_file('frames/marks', 'mk', flags=OpenFlags.READ | OpenFlags.WRITE) as marks:
            marks.write(0, FrameDescriptor(position=2))
            marks.flush()
            self.assertEqual(marks.read(0).descriptor.position, 2)
        self.assertEqual(client.get_file_marks2('frames/marks'), Marks(2, 4))
        # The last position that there can be: its mark is also what a failed query is told by.
        with client.create_file('frames/last', VIDEO) as file:
            file.write(0xFFFFFFFE, b'last')
            file.flush()
            self.assertEqual(client.get_file_marks(file.token), Marks(0, 0xFFFFFFFF))
        with self.assertRaises(ValueError):
            Timecode.parse('24:00:00:00')
        client.stripe_timecode('frames/marks', Timecode.parse('09:59:59:24'))
        with client.open_file('frames/marks', 'tc') as timecode:
            self.assertEqual([str(frame.descriptor.timecode) for frame in timecode.frames()],
                             ['09:59:59:24', '10:00:00:00', '10:00:00:01', '10:00:00:02'])
        with self.assertRaisesRegex(ZemRefused, 'not striped: drop-frame counts .*, it has 25/1$'):
            client.stripe_timecode('frames/marks', Timecode.parse('01:00:00;00'))
        with self.assertRaisesRegex(ZemRefused, 'not striped: the last number of a second is 24$'):
            client.stripe_timecode('frames/marks', Timecode.parse('01:00:00:25'))
        with self.assertRaisesRegex(ZemRefused, 'not striped: there is no 24:00:00:00 in a day$'):
            client.stripe_timecode('frames/marks', Timecode(24))
        # The same digits as it has.
        with self.assertRaisesRegex(ZemRefused, 'not striped: drop-frame counts .*, it has 25/1$'):
            client.stripe_timecode('frames/marks', Timecode.parse('09:59:59;24'))
        with client.open_file('frames/marks', flags=OpenFlags.READ | OpenFlags.WRITE):
            client.stripe_timecode('frames/marks', Timecode.parse('01:00:00:00'))
            with self.assertRaisesRegex(ZemRefused, 'not striped: the last number of a second is 24$'):
                client.stripe_timecode('frames/marks', Timecode.parse('01:00:00:25'))
            self.client().stripe_timecode('frames/marks', Timecode.parse('02:00:00:00'))

    def test_drop_frame(self):
        client = self.client()
        client.create_file('frames/no rate', StreamDescriptor(MediaType.VIDEO, 'mjpg')).close()
        # Its start timecode is what was asked for, but nothing counts on from it.
        with self.assertRaisesRegex(ZemRefused, 'not striped: it has no frame rate$'):
            client.stripe_timecode('frames/no rate', Timecode())
        client.create_file('frames/drop', StreamDescriptor(MediaType.VIDEO, 'mjpg', 30000, 1001)).close()
        client.stripe_timecode('frames/drop', Timecode.parse('01:00:00:02'), StripeFlags.DROP_FRAME)
        self.assertTrue(client.get_file_info2('frames/drop').flags & zemclient.StreamFlags.DROP_FRAME)
        with self.assertRaisesRegex(ZemRefused, 'not striped: drop-frame leaves this number out$'):
            client.stripe_timecode('frames/drop', Timecode.parse('01:01:00;01'))
        client.stripe_timecode('frames/drop', Timecode.parse('01:00:00:02'))
        self.assertFalse(client.get_file_info2('frames/drop').flags & zemclient.StreamFlags.DROP_FRAME)
        client.create_file('frames/pairs', StreamDescriptor(MediaType.VIDEO, 'mjpg', 50, 1)).close()
        with self.assertRaisesRegex(ZemRefused, 'not striped: the last number of a second is 24$'):
            client.stripe_timecode('frames/pairs', Timecode(frames=25))
        client.stripe_timecode('frames/pairs', Timecode(frames=24))

    def test_info(self):
        client = self.client()
        with client.create_file('frames/info', VIDEO) as file:
            file.write(2, b'x')
            file.flush()
            info = file.info()
            self.assertEqual((info.codec, info.width, info.height, info.frame_count), ('mjpg', 1280, 720, 3))
            self.assertTrue(info.flags & zemclient.StreamFlags.BEING_WRITTEN)
            self.assertEqual(client.get_file_info2('frames/info'), info)
            with self.assertRaises(ZemRefused):
                client.create_file('frames/info', VIDEO, flags=CreateFlags.READ | CreateFlags.FAIL_IF_EXISTS)

    def test_descriptors_by_name(self):
        client = self.client()
        with client.create_file('cl0', VIDEO) as file:
            file.write(0, b'frame')
        found = client.get_frame_desc2('cl0', 0, ord('0'))
        self.assertEqual((len(found), found[0].data_size, found[1].data_size), (48, 5, 0))


class Volume(common.ServerCase):
    def test_files_and_directories(self):
        client = self.client()
        client.create_directory('vol')
        self.assertEqual(client.get_file_attribs('vol'), zemclient.ATTRIBUTE_DIRECTORY)
        client.create_file('vol/a', VIDEO).close()
        self.assertEqual(client.get_filesize('vol/a'), os.path.getsize(os.path.join(self.server.volume, 'vol/a')))
        client.move_file('vol/a', 'vol/b')
        self.assertEqual(os.listdir(os.path.join(self.server.volume, 'vol')), ['b'])
        client.delete_file('vol/b')
        self.assertFalse(client.exists('vol/b'))
        space = client.query_filesystem_space('vol')
        self.assertGreater(space.total_bytes, space.free_bytes)
        with self.assertRaisesRegex(ZemRefused, 'QUERY_FILESYSTEM_SPACE .*there is no such file'):
            client.query_filesystem_space('nope')

    def test_what_did_not_happen_is_raised(self):
        client = self.client()
        client.create_file('raise/a', VIDEO).close()
        client.create_file('raise/b', VIDEO).close()
        for call in (lambda: client.create_directory('raise'), lambda: client.create_directory('no/where'),
                     lambda: client.delete_file('raise/none'), lambda: client.delete_file('raise'),
                     lambda: client.move_file('raise/a', 'raise/b'), lambda: client.move_file('raise/none', 'raise/c'),
                     lambda: client.move_file('raise/a', 'no/where/a'),
                     lambda: client.get_filesize('raise/none'), lambda: client.open_file('../raise/a'),
                     lambda: client.get_file_info2('raise/none'), lambda: client.get_file_marks2('raise/none'),
                     lambda: client.get_file_info(1), lambda: client.get_file_marks(1)):
            self.assertRaises(ZemRefused, call)
        self.assertTrue(client.exists('raise/a') and client.exists('raise/b'))

    def test_what_is_no_name_and_no_file_is_a_type_error(self):
        client = self.client()
        with self.assertRaisesRegex(TypeError, '^a name is a str: '):
            client.create_file('typed', VIDEO, CreateFlags.TRUNCATE)
        with self.assertRaisesRegex(TypeError, "not a name: 'target'"):
            client.get('media/typed', 'target')

    def test_a_position_that_there_is_not_is_a_value_error(self):
        client = self.client()
        with client.create_file('positions', VIDEO) as file:
            for call in (lambda: file.read(-1), lambda: file.write(-1, b'x'), lambda: file.erase(-1, 2),
                         lambda: file.erase(0, 1 << 32), lambda: client.get_frame_desc(file.token, -1, 1)):
                with self.assertRaisesRegex(ValueError, '^positions are 0 to [0-9]+: -?[0-9]+$'):
                    call()
            with self.assertRaisesRegex(ValueError, '^there are no 5 positions from 4294967293 on'):
                client.get_frame_desc(file.token, 0xFFFFFFFD, 5)

    def test_a_refusal_says_why(self):
        client = self.client()
        stranger = ZemClient(self.url, 'stranger')
        self.addCleanup(stranger.close)
        client.create_file('why/clip', VIDEO).close()
        client.create_file('why/busy', VIDEO)
        client.create_directory('why/folder')
        for name, content in (('text', b'no frames'), ('empty', b'')):
            with open(os.path.join(self.server.volume, 'why', name), 'wb') as file:
                file.write(content)
        subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-f', 'lavfi', '-i', 'testsrc2=size=64x48:rate=25', '-t',
                        '0.2', '-c:v', 'mjpeg', os.path.join(self.server.volume, 'why', 'clip.mov')], check=True)
        both, exclusive = OpenFlags.READ | OpenFlags.WRITE, CreateFlags.FAIL_IF_EXISTS
        refusals = (
            (lambda: client.open_file('why/none'), "OPEN_FILE of 'why/none' did not work: there is no such file"),
            (lambda: client.open_file('why/no/none'), "there is no directory 'why/no'"),
            (lambda: client.open_file('why/clip/x'), "'why/clip' is a file, and no directory"),
            (lambda: client.open_file('/why/clip'), 'a name counts from the root of the volume, without a slash'),
            (lambda: client.open_file('../why/clip'), "a name does not lead upwards: '..' is refused"),
            (lambda: client.open_file('why/text'), 'it is there; perhaps it is no media file'),
            (lambda: client.open_file('why/empty'), 'it is empty'),
            (lambda: client.open_file('why/folder'), 'it is a directory'),
            (lambda: client.open_file('why/clip', 'a7'), "it has no stream 'a7'"),
            (lambda: client.open_file('why/clip', media_type=MediaType.AUDIO), 'it has no stream of that media type'),
            (lambda: client.open_file('why/busy', flags=both), 'it is open for writing already'),
            (lambda: client.open_file('why/clip.mov', flags=both), 'a file of a foreign format is only read'),
            (lambda: stranger.open_file('why/clip'), 'this client has not joined'),
            (lambda: client.create_file('why/clip/x', VIDEO), "'why/clip' is a file, and no directory"),
            (lambda: client.create_file('why/a:b', VIDEO), "a name has no ':' in it"),
            (lambda: client.create_file('why/aux.v0', VIDEO), "'aux.v0' is the name of a device"),
            (lambda: client.create_file('why/x.', VIDEO), 'a name ends in no dot and no blank'),
            (lambda: client.create_file('why/' + 128 * 'ä', VIDEO), 'a part of a name has at most 255 bytes'),
            (lambda: client.create_file('why/clip', VIDEO, flags=exclusive), 'it exists'),
            (lambda: client.create_file('why/busy', VIDEO), 'it is open for writing already'),
            (lambda: client.create_file('why/clip', StreamDescriptor(MediaType.AUDIO)),
             'it has no stream of that media type'),
            (lambda: client.create_file('why/text', VIDEO), 'it is there; perhaps it is no media file'),
            (lambda: stranger.create_file('why/new', VIDEO), 'this client has not joined'),
            (lambda: client.get_file_info2('why/none'), "nothing of 'why/none': there is no such file"),
            (lambda: client.get_filesize('why/no/none'), "there is no directory 'why/no'"),
            (lambda: client.create_directory('why/no/where'), "there is no directory 'why/no'"),
            (lambda: client.create_directory('why/folder'), "'why/folder' did not work: it exists"),
            (lambda: client.delete_file('why/none'), 'there is no such file'),
            (lambda: client.delete_file('why/folder'), 'it is a directory'),
            (lambda: client.delete_file('why/busy'), 'perhaps it is open for writing'),
            (lambda: client.move_file('why/none', 'why/other'), "of 'why/none' did not work: there is no such file"),
            (lambda: client.move_file('why/clip', 'why/text'), "to 'why/text' did not work: it exists"),
            (lambda: client.move_file('why/clip', 'why/no/clip'), "there is no directory 'why/no'"),
            (lambda: client.move_file('why/folder', 'why/folder/in'), 'it cannot lie in itself'),
            (lambda: stranger.move_file('why/clip', 'why/new'), 'this client has not joined'))
        for call, why in refusals:
            with self.subTest(why), self.assertRaisesRegex(ZemRefused, re.escape(why)):
                call()

    def test_pages(self):
        client = ZemClient(self.url)  # has not joined
        self.addCleanup(client.close)
        status = client.status()
        self.assertEqual(status.error, 0)
        self.assertGreater(status.total_bytes, status.free_bytes)
        self.assertNotIn(client.id, client.clients())

    def test_whole_files(self):
        os.makedirs(os.path.join(self.server.volume, 'media'), exist_ok=True)
        content = random.Random(1).randbytes((3 << 20) + 17)
        path = os.path.join(self.server.volume, 'media', 'a b%é.bin')
        with open(path, 'wb') as file:
            file.write(content)
        client = ZemClient(self.url)
        self.addCleanup(client.close)
        target = io.BytesIO()
        self.assertEqual(client.get('media/a b%é.bin', target), len(content))
        self.assertEqual(target.getvalue(), content)
        client.delete('media\\a b%é.bin')
        self.assertFalse(os.path.exists(path))
        for call in (lambda: client.get('media/a b%é.bin', target), lambda: client.delete('media/a b%é.bin'),
                     lambda: client.get('media/', target)):
            with self.assertRaises(ZemRefused) as refused:
                call()
            self.assertEqual(refused.exception.http_status, 400)
            self.assertRegex(str(refused.exception), "^(GET|DELETE) of 'media/.*' did not work: the server answered 400 "
                                                     'Bad Request; perhaps there is no such file')
        self.assertEqual(target.getvalue(), content)

    def test_pages_hide_files_from_get_only(self):
        os.makedirs(os.path.join(self.server.volume, 'media'), exist_ok=True)
        path = os.path.join(self.server.volume, 'media', 'status.txt')
        with open(path, 'wb') as file:
            file.write(b'hidden')
        client = ZemClient(self.url)
        self.addCleanup(client.close)
        client.delete('media/status.txt')
        self.assertFalse(os.path.exists(path))


if __name__ == '__main__':
    common.main(__doc__)
