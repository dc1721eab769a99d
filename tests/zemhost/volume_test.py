"""Several servers on one volume root, and a kernel that refuses io_uring: volume_test.py --zemhost PROGRAM.

What several servers may do to one file is what docs/operations.md promises under "Several servers on one volume"."""

import os
import signal
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path[:0] = [os.path.join(ROOT, 'clients', 'python'), os.path.join(ROOT, 'tests', 'e2e')]

from wire import Server  # noqa: E402
from zemclient import MediaType, OpenFlags, ReadEntry, StreamDescriptor, Timecode, ZemClient, ZemError, ZemRefused  # noqa: E402

PROGRAM = None
VIDEO = StreamDescriptor(MediaType.VIDEO, 'mjpg', 25, 1)


def picture(number, version=0, times=50):
    return b'picture %d, version %d ' % (number, version) * (times + number)


# So long that its place in the file holds nothing else.
def long_picture(number, version=0):
    return picture(number, version, 5000)


ERROR_CRC = 0x80070017


class TwoServers(unittest.TestCase):
    def setUp(self):
        self.first = Server(PROGRAM)
        self.addCleanup(self.first.remove)
        self.second = Server(PROGRAM, volume=self.first.volume)
        self.addCleanup(self.second.remove)
        self.addCleanup(self.second.stop)
        self.addCleanup(self.first.stop)
        self.here, self.there = self.joined(self.first), self.joined(self.second)

    def joined(self, server):
        # The same name on both: servers know nothing of each other's clients. Never left: a server may be gone by then.
        client = ZemClient('http://127.0.0.1:%d' % server.port, 'studio')
        self.addCleanup(client.close)
        client.join()
        return client

    def frames(self, client, name='clip'):
        with client.open_file(name) as file:
            return [frame.data for frame in file.frames()]

    def recorded(self, client, count, flush=True, made=picture):
        file = client.create_file('clip', VIDEO)
        for number in range(count):
            file.write(number, made(number))
        if flush:
            file.flush()
        return file

    def test_what_one_wrote_and_flushed_the_other_reads(self):
        file = self.recorded(self.here, 10)
        self.assertEqual(self.frames(self.there), [picture(n) for n in range(10)])
        for number in range(10, 20):
            file.write(number, picture(number))
        file.close()
        self.assertEqual(self.frames(self.there), [picture(n) for n in range(20)])

    def test_a_reader_keeps_the_view_that_it_opened(self):
        file = self.recorded(self.here, 3)
        with self.there.open_file('clip') as reader:
            self.assertEqual(len(list(reader.frames())), 3)
            for number in range(3, 6):
                file.write(number, picture(number))
            file.flush()
            self.assertEqual([frame.data for frame in reader.frames()], [picture(n) for n in range(3)])
        self.assertEqual(len(self.frames(self.there)), 6)
        file.close()

    def test_one_writes_a_file_at_a_time(self):
        file = self.recorded(self.here, 3)
        with self.assertRaises(ZemRefused):
            self.there.open_file('clip', flags=OpenFlags.WRITE)
        with self.assertRaises(ZemRefused):
            self.there.create_file('clip', VIDEO)
        with self.assertRaises(ZemRefused):
            self.there.delete_file('clip')
        file.write(3, picture(3))
        file.close()
        self.assertEqual(self.frames(self.there), [picture(n) for n in range(4)])
        with self.there.open_file('clip', flags=OpenFlags.WRITE) as other:
            other.write(4, picture(4))
            with self.assertRaises(ZemRefused):
                self.here.open_file('clip', flags=OpenFlags.WRITE)
        self.assertEqual(self.frames(self.here), [picture(n) for n in range(5)])
        for server in (self.first, self.second):
            with open(server.log, encoding='utf-8') as log:
                self.assertIn('0x80070020', log.read())

    def test_what_one_writes_the_other_does_not_stripe(self):
        file = self.recorded(self.here, 2)
        with self.assertRaisesRegex(ZemRefused, 'was not striped: perhaps another server writes it, or this one may not$'):
            self.there.stripe_timecode('clip', Timecode(1))
        self.here.stripe_timecode('clip', Timecode(1))
        file.close()
        self.there.stripe_timecode('clip', Timecode(2))

    def test_what_one_writes_the_other_does_not_delete_by_http(self):
        with self.here.create_file('media/clip', VIDEO) as file:
            with self.assertRaisesRegex(ZemRefused, 'somebody writes it'):
                self.there.delete('media/clip')
            file.write(0, picture(0))
        self.assertEqual(self.frames(self.there, 'media/clip'), [picture(0)])
        self.there.delete('media/clip')
        self.assertFalse(self.here.exists('media/clip'))

    def test_a_file_that_the_other_moves_is_written_on(self):
        file = self.recorded(self.here, 3)
        self.there.move_file('clip', 'moved')
        file.write(3, picture(3))
        file.close()
        self.assertEqual(self.frames(self.there, 'moved'), [picture(n) for n in range(4)])

    # What the reader has not read before it checks; what it gets is never another frame.
    def overwritten_elsewhere(self, before=False):
        """Frames 0 to 40 as they are read there after all but the last were overwritten or erased here, and their space was
        written anew; `before`: they had been read there before."""
        file = self.recorded(self.here, 41, made=long_picture)
        with self.there.open_file('clip') as reader:
            if before:
                self.assertEqual([frame.data for frame in self.read(reader)], [long_picture(n) for n in range(41)])
            for number in range(10, 40):
                file.write(number, long_picture(number, 1))
            file.erase(0, 10)
            file.flush()
            for number in range(41, 81):  # into the space of those
                file.write(number, long_picture(number, 2))
            file.flush()
            frames = self.read(reader)
        file.close()
        self.assertEqual(self.frames(self.there)[10:],
                         [long_picture(n, 1 if n < 40 else 2 if n > 40 else 0) for n in range(10, 81)])
        self.assertEqual(frames[40].data, long_picture(40), 'what nobody touched')
        self.assertFalse(all(frame.data == long_picture(frame.position) for frame in frames), 'no space was used again')
        return frames

    def read(self, reader):
        return [self.there.read_frame([ReadEntry(reader.token, number)])[0] for number in range(41)]

    def test_what_the_other_overwrites_and_erases_is_the_old_frame_or_an_error(self):
        for frame in self.overwritten_elsewhere():
            if frame.ok:
                self.assertEqual(frame.data, long_picture(frame.position))
            else:
                self.assertEqual(frame.status & 0xFFFFFFFF, ERROR_CRC)

    def test_what_was_read_before_the_other_overwrites_it_may_be_other_bytes(self):
        frames = self.overwritten_elsewhere(before=True)
        self.assertTrue(all(frame.ok for frame in frames), 'its checksum is looked at once')

    def test_each_writes_a_file_of_its_own_in_one_folder(self):
        for client, name in ((self.here, 'a'), (self.there, 'b')):
            with client.create_file(name, VIDEO) as file:
                for number in range(20):
                    file.write(number, picture(number))
        for client in (self.here, self.there):
            for name in 'ab':
                self.assertEqual(self.frames(client, name), [picture(n) for n in range(20)])

    def test_a_writer_that_dies_frees_the_file_and_leaves_its_frames(self):
        # A frame that can be read back is one whose write has completed.
        file = self.recorded(self.here, 10, flush=False)
        end = time.monotonic() + 120
        while not file.is_written(9) and time.monotonic() < end:  # a write is answered before it is done
            time.sleep(0.01)
        self.assertEqual(len(list(file.frames())), 10)
        self.first.process.send_signal(signal.SIGKILL)
        self.first.process.wait()
        with self.there.open_file('clip', flags=OpenFlags.READ | OpenFlags.WRITE) as file:
            self.assertEqual([frame.data for frame in file.frames()], [picture(n) for n in range(10)])
            file.write(10, picture(10))
        self.assertEqual(self.frames(self.there), [picture(n) for n in range(11)])

    def test_tokens_and_clients_are_of_one_server(self):
        file = self.recorded(self.here, 3)
        with self.assertRaises(ZemError):
            self.there.get_file_info(file.token)
        file.close()

    def test_what_one_deletes_or_moves_is_gone_for_the_other(self):
        self.recorded(self.here, 3).close()
        self.there.move_file('clip', 'moved')
        self.assertFalse(self.here.exists('clip'))
        self.assertEqual(self.frames(self.here, 'moved'), [picture(n) for n in range(3)])
        self.here.delete_file('moved')
        self.assertFalse(self.there.exists('moved'))


def io_uring_is_disabled():
    """By the setting, which kernels have from 6.6 on."""
    try:
        with open('/proc/sys/kernel/io_uring_disabled', encoding='ascii') as setting:
            return int(setting.read()) != 0
    except FileNotFoundError:
        return False


class WithoutRing(Server):
    def command(self):
        return [sys.executable, '-B', os.path.join(HERE, os.pardir, 'refusing.py'), 'io_uring_setup',
                *super().command()]


class KernelWithoutIoUring(unittest.TestCase):
    def test_threads_do_the_work_and_one_line_says_so(self):
        server = WithoutRing(PROGRAM)
        self.addCleanup(server.remove)
        try:
            for name in ('a', 'b'):
                with ZemClient('http://127.0.0.1:%d' % server.port, 'studio') as client:
                    with client.create_file(name, VIDEO) as file:
                        for number in range(10):
                            file.write(number, picture(number))
                        file.flush()
                        self.assertEqual([frame.data for frame in file.frames()], [picture(n) for n in range(10)])
        finally:
            self.assertEqual(server.stop(), 0)
        with open(server.log, encoding='utf-8') as log:
            lines = [line for line in log if 'io_uring' in line]
        self.assertEqual(len(lines), 1, lines)
        advice = '; sysctl kernel.io_uring_disabled=0 allows it' if io_uring_is_disabled() else ''
        self.assertRegex(lines[0], r' warning \[\d+\] ring_posix\.cpp\(-1\): io_uring cannot be used '
                                   r'\(Operation not permitted\): threads read and write instead%s\n$' % advice)


if __name__ == '__main__':
    if len(sys.argv) < 3 or sys.argv[1] != '--zemhost':
        sys.exit(__doc__)
    PROGRAM = os.path.abspath(sys.argv[2])
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
