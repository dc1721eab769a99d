#!/usr/bin/env python3
"""Black-box tests: every command and page of a running zemhost, over real sockets, byte by byte.

usage: blackbox.py --zemhost PROGRAM [--file-server] [--trace] [unittest arguments]
"""

import hashlib
import os
import random
import re
import struct
import sys
import threading
import unittest

from wire import *

PROGRAM = None
FILE_SERVER = False
TRACE = False


class ServerCase(unittest.TestCase):
    """One server for the whole class; every test uses client and file names of its own."""

    @classmethod
    def setUpClass(cls):
        cls.server = Server(PROGRAM, FILE_SERVER, TRACE)

    @classmethod
    def tearDownClass(cls):
        code = cls.server.stop()
        cls.server.remove()
        assert code == 0, 'zemhost ended with %d' % code

    def client(self, name=None, join=True):
        client = Client(self.server.port, name or self.id().split('.')[-1])
        self.addCleanup(client.close)
        if join:
            self.assert_status(client.join(), 12)
        return client

    def assert_head(self, reply, code, size):
        """The frame of every command reply."""
        self.assertEqual((reply.status, reply.reason), (200, 'OK'))
        self.assertEqual(reply.header('Content-Type'), 'application/octet-string')
        self.assertEqual(reply.header('Server'), 'Quorvane ZEM /x.x.x.x')
        self.assertEqual(reply.header('Content-Length'), str(len(reply.body)))
        self.assertEqual(reply.header('zem-resphdr-len'), str(12 + size))
        self.assertEqual(reply.header('zem-ver'), '1')
        self.assertEqual((reply.code(), reply.data_size()), (code, size))

    def assert_status(self, reply, code, status=0):
        self.assert_head(reply, code, 4)
        self.assertEqual(reply.body[12:], struct.pack('<I', status))

    def assert_generic(self, reply, request_code, hr, trans_id):
        self.assertEqual(reply.status, 500)
        self.assertEqual(reply.reason, 'Failed ZEM request code %d (hr = 0x%x), transId %u'
                         % (request_code, hr, trans_id))
        self.assertEqual(reply.body, struct.pack('<IIII', trans_id, request_code, 4, hr))
        self.assertEqual(reply.header('zem-resphdr-len'), '16')
        self.assertEqual(reply.header('zem-ver'), '1')

    def assert_traced(self, line):
        if TRACE:
            self.server.wait_for_line(line)


class ClientCommands(ServerCase):
    def test_join_reply_bytes(self):
        client = self.client(join=False)
        reply = client.post(JOIN, struct.pack('<I', 3), trans_id=7)
        self.assert_status(reply, 12)
        self.assertEqual(reply.body, struct.pack('<IIII', 7, 12, 4, 0))
        self.assert_traced('test_join_reply_bytes: handling CMD_JOIN, chanId 3, transId 7')
        self.assert_traced('test_join_reply_bytes: CMD_JOIN OK, transId 7')

    def test_join_with_channel_255_creates_nothing(self):
        client = self.client(join=False)
        self.assert_status(client.join(255), 12)
        page = client.connection.request('GET', '/media/clients')
        self.assertNotIn(b'test_join_with_channel_255_creates_nothing', page.body)

    def test_leave_twice(self):
        client = self.client()
        self.assert_status(client.post(LEAVE), 13)
        self.assert_status(client.post(LEAVE), 13)

    def test_leave_with_missing_bytes_is_refused_at_once(self):
        client = self.client()
        reply = client.post(LEAVE, declared=50, trans_id=9)
        self.assert_generic(reply, LEAVE, E_INVALIDARG, 9)
        self.server.wait_for_line('ZEM request data size (12) for CMD_LEAVE < expected size (62), transId 9')

    def test_keep_alive_of_unknown_client(self):
        client = self.client(join=False)
        self.assert_status(client.post(KEEP_ALIVE), 14)

    def test_real_time_of_unknown_client_says_ok(self):
        client = self.client(join=False)
        self.assert_status(client.post(SET_IO_REAL_TIME), 15)

    def test_unknown_command(self):
        client = self.client()
        for code in (0, NO_COMMAND, 4000000000):
            reply = client.post(code, trans_id=77)
            signed = struct.unpack('<i', struct.pack('<I', code))[0]
            self.assertEqual(reply.reason, 'Failed ZEM request code %d (hr = 0x%x), transId %u'
                             % (signed, E_NOTIMPL, 77))
            self.assertEqual(reply.code(), code)
        self.server.wait_for_line('test_unknown_command: ZEM command %d not implemented, transId 77.' % NO_COMMAND)

    def test_percent_signs_in_the_client_id(self):
        name = '%s%n%9999x'
        client = self.client(name)
        self.assert_status(client.post(KEEP_ALIVE), 14)
        client.post(NO_COMMAND, trans_id=5)
        self.server.wait_for_line(name + ': ZEM command %d not implemented, transId 5.' % NO_COMMAND)

    def test_version_mismatch_is_only_warned(self):
        client = Client(self.server.port, 'old-client', agent='tool (prod/1.2.3)')
        self.addCleanup(client.close)
        self.assert_status(client.join(), 12)
        self.server.wait_for_line('old-client: WARNING: Client version 1.2.3 mismatches HTTP server version')


class Frame(ServerCase):
    """The frame of the exchange: what comes before a command."""

    def raw(self, headers, entity, method='POST', path='/zem/'):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        return connection.request(method, path, headers + [('Content-Length', str(len(entity)))], entity)

    def assert_status_only(self, reply, reason):
        self.assertEqual(reply.status, 500)
        self.assertEqual(reply.reason, reason)
        self.assertEqual(reply.header('Content-Length'), '0')
        self.assertIsNone(reply.header('Content-Type'))
        self.assertIsNone(reply.header('zem-ver'))

    def test_first_unknown_header_must_be_the_id(self):
        entity = struct.pack('<III', 1, KEEP_ALIVE, 0)
        reply = self.raw([('X-Other', '1'), ('Zem-Id', 'late')], entity)
        self.assert_status_only(reply, 'Error 0x8000ffff')
        self.server.wait_for_line('ZEM client ID HTTP header not present in HTTP request, discarding...')

    def test_id_header_in_any_case(self):
        reply = self.raw([('zEM-iD', 'case')], struct.pack('<III', 1, KEEP_ALIVE, 0))
        self.assert_status(reply, 14)

    def test_post_without_body(self):
        reply = self.raw([('Zem-Id', 'nobody')], b'')
        self.assert_status_only(reply, 'Error 0x8000ffff')
        self.server.wait_for_line('nobody: ZEM request header not present in HTTP request.')

    def test_header_cut_short_reads_zeros(self):
        # Five bytes: transId 5, the code's low byte; the declared size is zero and 5 < 12.
        reply = self.raw([('Zem-Id', 'short')], struct.pack('<IB', 5, KEEP_ALIVE))
        self.assertEqual(reply.reason, 'Failed ZEM request code %d (hr = 0x%x), transId %u'
                         % (KEEP_ALIVE, E_INVALIDARG, 5))

    def test_trans_id_of_all_ones_gets_the_status_only_failure(self):
        reply = self.raw([('Zem-Id', 'ones')], struct.pack('<III', 0xFFFFFFFF, 99, 0))
        self.assert_status_only(reply, 'Error 0x80004001')

    def test_declared_size_beyond_the_buffer(self):
        client = self.client()
        reply = client.post(CLOSE, bytes(5000), trans_id=3)
        self.assert_generic(reply, CLOSE, E_INVALIDARG, 3)
        self.server.wait_for_line('for CMD_CLOSE_FILE < expected size 5012, transId 3')

    def test_other_methods(self):
        for method in ('PUT', 'HEAD', 'PATCH', 'BREW'):
            reply = self.raw([], b'x', method=method)
            self.assertEqual((reply.status, reply.reason), (405, 'HTTP method not allowed'), method)

    def test_unregistered_path(self):
        reply = self.raw([('Zem-Id', 'lost')], struct.pack('<III', 1, KEEP_ALIVE, 0), path='/elsewhere/')
        self.assertEqual(reply.status, 404)

    def test_body_in_two_segments(self):
        client = self.client()
        entity = struct.pack('<III', 1, KEEP_ALIVE, 0)
        head = 'POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: two\r\nContent-Length: 12\r\n\r\n'
        for cut in (1, 5, 11):
            client.connection.send(head.encode())
            client.connection.send(entity[:cut])
            client.connection.send(entity[cut:])
            self.assert_status(client.connection.receive(), 14)

    def test_pipelined_commands(self):
        client = self.client()
        entity = struct.pack('<III', 1, KEEP_ALIVE, 0)
        one = b'POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: pipe\r\nContent-Length: 12\r\n\r\n' + entity
        client.connection.send(one * 40)
        for _ in range(40):
            self.assert_status(client.connection.receive(), 14)


class Files(ServerCase):
    def test_create_replies_with_code_2(self):
        client = self.client()
        reply = client.post(CREATE, create_body('create/one'), trans_id=21)
        self.assert_head(reply, 2, 16)
        self.assertEqual(reply.word(0), 0)
        self.assertNotEqual(reply.long(8), 0)
        self.assert_traced("handling CMD_CREATE_FILE, file 'create/one', transId 21")

    def test_open_of_a_missing_file_says_ok(self):
        client = self.client()
        reply = client.post(OPEN, open_body('no/such/file'))
        self.assert_head(reply, 2, 16)
        self.assertEqual((reply.word(0), reply.long(8)), (0, 0))

    def test_open_by_an_unknown_client(self):
        client = self.client(join=False)
        reply = client.post(OPEN, open_body('x'), trans_id=44)
        self.assert_head(reply, 2, 16)
        self.server.wait_for_line('test_open_by_an_unknown_client: Unknown client; transId 44!')

    def test_close_of_a_bad_token_says_ok(self):
        client = self.client()
        self.assert_status(client.post(CLOSE, struct.pack('<Q', 12345)), 5)

    def test_name_without_nul_is_refused(self):
        client = self.client()
        body = bytearray(create_body('x'))
        body[:520] = 'a'.encode('utf-16-le') * 260
        reply = client.post(CREATE, bytes(body), trans_id=8)
        self.assert_generic(reply, CREATE, E_INVALIDARG, 8)

    def test_names_never_leave_the_root(self):
        client = self.client()
        outside = os.path.join(self.server.folder, 'outside')
        os.mkdir(outside)
        for name in ('../outside/a', '/etc/hostname', 'a/../../outside/a', '..\\outside\\a', 'C:\\a',
                     '\\\\server\\share\\a'):
            self.assertEqual(client.create(name), 0, name)
        self.assertEqual(os.listdir(outside), [])

    def test_links_never_leave_the_root(self):
        client = self.client()
        outside = os.path.join(self.server.folder, 'linked')
        os.mkdir(outside)
        os.symlink(outside, os.path.join(self.server.volume, 'link'))
        self.assertEqual(client.create('link/a'), 0)
        self.assertEqual(os.listdir(outside), [])

    def test_a_token_belongs_to_its_client(self):
        owner, other = self.client('owner'), self.client('other')
        token = owner.create('own/file')
        owner.write(token, 0, b'mine')
        owner.flush(token)
        reply = other.read(token, 0)
        self.assertEqual(stream_status(reply), E_HANDLE)
        self.assertEqual(frame_of(owner.read(token, 0)), b'mine')


class Frames(ServerCase):
    def test_write_and_read_back(self):
        client = self.client()
        token = client.create('frames/back')
        rng = random.Random(11)
        frames = [rng.randbytes(frame_bytes(rng.choice((1, 17, 4096, 70000, 300001)))) for _ in range(30)]
        for position, data in enumerate(frames):
            self.assert_status(client.write(token, position, data), 4)
        self.assert_status(client.flush(token), 8)
        for position, data in enumerate(frames):
            reply = client.read(token, position, user=0x1122334455667788)
            self.assert_head(reply, 3, 104)
            body = reply.body[12:]
            self.assertEqual(struct.unpack_from('<I', body, 4)[0], 1)
            self.assertEqual(struct.unpack_from('<iIQII', body, 8)[0], 0)
            self.assertEqual(struct.unpack_from('<QII', body, 16), (token, position, 0))
            self.assertEqual(struct.unpack_from('<I', body, 8 + 24)[0], 1)
            self.assertEqual(struct.unpack_from('<I', body, 8 + 32)[0], len(data))
            self.assertEqual(struct.unpack_from('<Q', body, 8 + 80)[0], 0x1122334455667788)
            self.assertEqual(frame_of(reply), data)

    def test_end_of_media(self):
        client = self.client()
        token = client.create('frames/end')
        client.write(token, 0, b'only')
        client.flush(token)
        self.assertEqual(stream_status(client.read(token, 1)), END_OF_MEDIA)

    def test_two_streams(self):
        client = self.client()
        a, b = client.create('frames/a'), client.create('frames/b')
        first, second = b'A' * 1000, b'B' * 2000
        reply = client.post(WRITE, write_body([(a, 0, [400, 600]), (b, 0, [2000])]), first + second)
        self.assert_status(reply, 4)
        client.flush(a)
        client.flush(b)
        reply = client.post(READ, read_body([(a, 0, 0, 1), (b, 0, 0, 2)]))
        self.assert_head(reply, 3, 248)
        self.assertEqual(frame_of(reply, 2), first + second)

    def test_no_data_flag(self):
        client = self.client()
        token = client.create('frames/nodata')
        client.write(token, 0, b'x' * 500)
        client.flush(token)
        reply = client.read(token, 0, flags=0x80000000)
        self.assertEqual((stream_status(reply), frame_of(reply)), (0, b''))

    def test_entry_count_out_of_range(self):
        client = self.client()
        for count in (0, 23, 0xFFFFFFFF):
            body = struct.pack('<II8x', 0, count) + bytes(96)
            self.assert_status(client.post(READ, body), 3)
            self.assert_status(client.post(WRITE, body), 4)

    def test_payload_mismatch_is_answered_ok_and_logged(self):
        client = self.client()
        token = client.create('frames/mismatch')
        reply = client.post(WRITE, write_body([(token, 0, [10])]), b'12345', trans_id=31)
        self.assert_status(reply, 4)
        self.server.wait_for_line('WriteFrame data size in header (10 bytes) and payload (5 bytes) mismatch, '
                                  'pos 0, transId 31')
        self.assert_status(client.post(KEEP_ALIVE), 14)

    def test_write_of_unknown_client(self):
        client = self.client(join=False)
        reply = client.post(WRITE, write_body([(1, 0, [4])]), b'data', trans_id=12)
        self.assert_status(reply, 4)
        self.server.wait_for_line('test_write_of_unknown_client: Unknown client; transId 12!')

    def test_large_frame_in_small_pieces(self):
        client = self.client()
        token = client.create('frames/large')
        data = random.Random(5).randbytes(frame_bytes(3 << 20))
        body = write_body([(token, 0, [len(data)])])
        entity = struct.pack('<III', 1, WRITE, len(body)) + body + data
        head = ('POST /media/ HTTP/1.1\r\nHost: a\r\nZem-Id: %s\r\nContent-Length: %d\r\n\r\n'
                % (client.id, len(entity))).encode()
        whole = head + entity
        piece = len(whole) // 31 + 1
        for start in range(0, len(whole), piece):
            client.connection.send(whole[start:start + piece])
        self.assert_status(client.connection.receive(), 4)
        client.flush(token)
        self.assertEqual(frame_of(client.read(token, 0)), data)

    def test_reader_follows_writer(self):
        writer, reader = self.client('growing-writer'), self.client('growing-reader')
        token = writer.create('frames/growing')
        other = reader.open('frames/growing')
        self.assertNotEqual(other, 0)
        for position in range(50):
            data = struct.pack('<I', position) * (frame_bytes(12000) // 4)
            writer.write(token, position, data)
            # The reply leaves before the disk write: the frame is there when the library says so.
            end = time.monotonic() + 30
            while True:
                reply = reader.read(other, position)
                if stream_status(reply) == 0 or time.monotonic() > end:
                    break
                self.assertEqual(stream_status(reply), END_OF_MEDIA)
            self.assertEqual(frame_of(reply), data)

    def test_many_clients_at_once(self):
        errors = []

        def work(number):
            try:
                client = Client(self.server.port, 'many-%d' % number)
                client.join()
                token = client.create('many/%d' % number)
                rng = random.Random(number)
                frames = [rng.randbytes(frame_bytes(rng.randrange(1, 200000))) for _ in range(20)]
                for position, data in enumerate(frames):
                    client.write(token, position, data)
                client.flush(token)
                for position, data in enumerate(frames):
                    if frame_of(client.read(token, position)) != data:
                        raise AssertionError('frame %d of client %d differs' % (position, number))
                client.post(CLOSE, struct.pack('<Q', token))
                client.post(LEAVE)
                client.close()
            except Exception as error:  # handed to the main thread
                errors.append(error)

        threads = [threading.Thread(target=work, args=(number,)) for number in range(12)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(errors, [])

    def test_leave_while_reading(self):
        for turn in range(20):
            client = self.client('leaver-%d' % turn)
            token = client.create('leave/%d' % turn)
            client.write(token, 0, b'z' * frame_bytes(400000))
            other = Connection(self.server.port)
            body = read_body([(token, 0, 0, 0)])
            entity = struct.pack('<III', 1, READ, len(body)) + body
            head = ('POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: %s\r\nContent-Length: %d\r\n\r\n'
                    % (client.id, len(entity))).encode()
            other.send(head + entity)
            self.assert_status(client.post(LEAVE), 13)
            self.assertIn(other.receive().status, (200, 500))
            other.close()


class Pages(ServerCase):
    def test_status_page(self):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        self.assert_status_page(connection, '/media/status', '/media/statusXYZ', '/media/STATUS')

    def test_status_page_below_a_prefix_in_another_case(self):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        self.assert_status_page(connection, '/MEDIA/STATUS')

    def assert_status_page(self, connection, *paths):
        for path in paths:
            reply = connection.request('GET', path)
            self.assertEqual((reply.status, reply.reason), (200, 'OK'))
            self.assertEqual(reply.header('Content-Type'), 'text/plain')
            self.assertEqual(reply.header('Server'), 'Quorvane ZEM /x.x.x.x')
            self.assertTrue(reply.header('X-ServerName'))
            self.assertTrue(re.fullmatch(rb'0 \d+ \d+', reply.body), reply.body)

    def test_client_page(self):
        self.client('page-client')
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        reply = connection.request('GET', '/media/clients')
        self.assertIn(b'page-client\r\n', reply.body)

    def test_page_without_clients(self):
        server = Server(PROGRAM, FILE_SERVER, TRACE)
        self.addCleanup(server.remove)
        connection = Connection(server.port)
        self.addCleanup(connection.close)
        self.assertEqual(connection.request('GET', '/media/clients').body, b'No Clients\r\n')


class Durability(unittest.TestCase):
    def test_frames_survive_a_kill(self):
        server = Server(PROGRAM, FILE_SERVER, TRACE)
        self.addCleanup(server.remove)
        client = Client(server.port, 'recorder')
        client.join()
        token = client.create('kill/clip')
        digests = []
        for position in range(100):
            data = random.Random(position).randbytes(frame_bytes(50000 + position))
            digests.append(hashlib.md5(data).hexdigest())
            client.write(token, position, data)
        client.flush(token)
        client.close()
        server.kill()
        server.start()
        client = Client(server.port, 'reader')
        client.join()
        token = client.open('kill/clip')
        read = [hashlib.md5(frame_of(client.read(token, position))).hexdigest() for position in range(100)]
        client.close()
        self.assertEqual(read, digests)


class CutFromOutside(ServerCase):
    def test_a_file_that_is_cut_gives_errors_and_the_server_goes_on(self):
        """Frames that were sent a moment ago, cut off before the next look at them or after it; nobody is hurt."""
        client = self.client()
        data = random.Random(5).randbytes(frame_bytes(300000))
        for round_ in range(10):
            name = 'cut%d' % round_
            token = client.create(name)
            for position in range(4):
                client.write(token, position, data)
            client.flush(token)
            client.post(CLOSE, struct.pack('<Q', token))
            token = client.open(name)
            for position in range(4):
                self.assertEqual(frame_of(client.read(token, position)), data)
            with open(os.path.join(self.server.volume, name), 'r+b') as file:
                file.truncate(16384 + len(data) * 4 // 3)  # within the second frame
            for position in (1, 2, 3):
                reply = client.read(token, position)
                if reply.status == 200:
                    self.assertEqual(stream_status(reply), 0x80070017)
                    self.assertEqual(frame_of(reply), b'')
                else:  # the library took the frame for being there; the interface saw the file's length
                    self.assertEqual((reply.status, reply.code()), (500, READ))
            self.assertEqual(frame_of(client.read(token, 0)), data)
            client.post(CLOSE, struct.pack('<Q', token))
        self.assert_status(client.post(KEEP_ALIVE), 14)


def main():
    global PROGRAM, FILE_SERVER, TRACE
    arguments = sys.argv[1:]
    PROGRAM = take_program(arguments, __doc__)
    FILE_SERVER = '--file-server' in arguments
    TRACE = '--trace' in arguments
    rest = [argument for argument in arguments if argument not in ('--file-server', '--trace')]
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == '__main__':
    main()
