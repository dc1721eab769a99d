#!/usr/bin/env python3
"""The Python client against a server that lies, stops in the middle or hangs up: each time an error of its own kind,
nothing is taken for an answer, and the next command works.

usage: bounds.py --zemhost PROGRAM [unittest arguments]   (PROGRAM is not started here)
"""

import io
import socket
import struct
import threading
import unittest

import common
from zemclient import *

TOKEN = 1 << 24 | 1 << 40


def http(entity, resphdr=None, status='200 OK', length=None, content='application/octet-string', extra=''):
    head = 'HTTP/1.1 %s\r\nContent-Length: %s\r\nContent-Type: %s\r\n%s' % (
        status, len(entity) if length is None else length, content, extra)
    if resphdr is not False:
        head += 'zem-resphdr-len: %s\r\n' % (len(entity) if resphdr is None else resphdr)
    return head.encode() + b'\r\n' + entity


class Liar:
    """Answers one request a script entry: a function of the request's transId and code that gives the bytes to send, or
    (bytes, True) to hang up behind them. Ends by itself when the script has ended or the client hangs up for good."""

    def __init__(self, script):
        self.script, self.connections = list(script), 0
        self.listener = socket.create_server(('127.0.0.1', 0))
        self.listener.settimeout(20)
        self.url = 'http://127.0.0.1:%d' % self.listener.getsockname()[1]
        self.hung_up = threading.Event()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        with self.listener:
            while self.script:
                try:
                    connection, _ = self.listener.accept()
                except OSError:
                    return
                self.connections += 1
                with connection:
                    connection.settimeout(20)
                    try:
                        while self.script and self.answer(connection):
                            pass
                    except ConnectionError:
                        pass  # a client that does not believe an answer does not read its rest
                self.hung_up.set()

    def answer(self, connection):
        data = b''
        while b'\r\n\r\n' not in data:
            more = connection.recv(65536)
            if not more:
                return False
            data += more
        head, entity = data.split(b'\r\n\r\n', 1)
        lengths = [line for line in head.split(b'\r\n') if line.lower().startswith(b'content-length:')]
        need = int(lengths[0].split(b':')[1]) if lengths else 0
        while len(entity) < need:
            entity += connection.recv(65536)
        trans_id, code = struct.unpack_from('<II', entity) if need else (0, 0)
        said = self.script.pop(0)(trans_id, code)
        said, hang_up = said if isinstance(said, tuple) else (said, False)
        connection.sendall(said)
        return not hang_up

    def stop(self):
        self.script.clear()
        try:
            self.listener.shutdown(socket.SHUT_RDWR)  # wakes who waits for a connection
        except OSError:
            pass  # it has ended
        self.thread.join()


def good(reply_code=14, body=bytes(4)):
    return lambda trans_id, _: http(struct.pack('<III', trans_id, reply_code, len(body)) + body)


def table(n=1, token=TOKEN, position=0, status=0, buffers=1, length=0, user=0, size=None):
    body = struct.pack('<II', 0, n)
    for _ in range(n):
        body += struct.pack('<I4xQI4xI4xI44xQ8x', status, token, position, buffers, length, user)
    size = 104 + 144 * (n - 1) if size is None else size
    return body.ljust(size, b'\0')[:size]


def read_reply(body, data=b'', **kw):
    return lambda trans_id, _: http(struct.pack('<III', trans_id, 3, len(body)) + body + data,
                                    resphdr=12 + len(body), **kw)


class Lies(unittest.TestCase):
    def client(self, *script):
        self.liar = Liar(script)
        self.addCleanup(self.liar.stop)
        client = ZemClient(self.liar.url, 'victim', timeout_s=10)
        self.addCleanup(client.close)
        return client

    def check(self, error, lie, call):
        """The lie raises `error`, and the command behind it works."""
        client = self.client(lie, good())
        with self.assertRaises(error) as raised:
            call(client)
        self.assertIs(type(raised.exception), error)
        client.keep_alive()
        return raised.exception

    def test_headers_that_lie(self):
        entity = struct.pack('<IIII', 1, 14, 4, 0)
        for name, error, answer in (
                ('no length', ZemProtocolError, b'HTTP/1.1 200 OK\r\nzem-resphdr-len: 16\r\n\r\n'),
                ('length twice', ZemProtocolError, http(entity, extra='Content-Length: 16\r\n')),
                ('length of words', ZemProtocolError, http(entity, length='x')),
                ('length with a sign', ZemProtocolError, http(entity, length='+16')),
                ('length below zero', ZemProtocolError, http(entity, length='-16')),
                ('chunked', ZemProtocolError, http(b'10\r\n' + entity + b'\r\n0\r\n\r\n', 16, length=16,
                                                        extra='Transfer-Encoding: chunked\r\n')),
                ('shorter than it is', ZemProtocolError, http(entity, length=15)),
                ('longer than it is', ZemConnectionError, http(entity, resphdr=17, length=17)),
                ('no binary header', ZemProtocolError, http(b'<html>', content='text/html')),
                ('no zem-resphdr-len', ZemProtocolError, http(entity, resphdr=False)),
                ('zem-resphdr-len too small', ZemProtocolError, http(entity, resphdr=15)),
                ('zem-resphdr-len too large', ZemProtocolError, http(entity, resphdr=17)),
                ('zem-resphdr-len huge', ZemProtocolError, http(entity, resphdr=10 ** 9, length=10 ** 12)),
                ('zem-resphdr-len of words', ZemProtocolError, http(entity, resphdr='0x10')),
                ('data behind a status', ZemProtocolError, http(entity + b'more', resphdr=16)),
                ('not HTTP', ZemConnectionError, b'SSH-2.0-x\r\n\r\n'),
                ('nothing', ZemConnectionError, b'')):
            with self.subTest(name):
                self.check(error, lambda trans_id, code: (answer, True), lambda client: client.keep_alive())

    def test_binary_headers_that_lie(self):
        for name, words in (('transId', (9, 14, 4)), ('reply code', (1, 15, 4)), ('size', (1, 14, 5)),
                            ('huge size', (1, 14, 0xFFFFFFFF))):
            with self.subTest(name):
                self.check(ZemProtocolError, lambda trans_id, code: http(struct.pack('<IIII', *words, 0)),
                           lambda client: client.keep_alive())

    def test_replies_that_are_too_short(self):
        for name, code, call in (
                ('token', 2, lambda client: client.open_file('a')),
                ('info', 6, lambda client: client.get_file_info(1)),
                ('descriptors', 7, lambda client: client.get_frame_desc(1, 0, 3)),
                ('marks', 9, lambda client: client.get_file_marks(1)),
                ('space', 16, lambda client: client.query_filesystem_space()),
                ('attributes', 17, lambda client: client.get_file_attribs('a')),
                ('size', 19, lambda client: client.get_filesize('a'))):
            with self.subTest(name):
                self.check(ZemProtocolError, good(code), call)

    def test_descriptors_of_another_count(self):
        self.check(ZemProtocolError, good(7, struct.pack('<II', 0, 4) + bytes(36)),
                   lambda client: client.get_frame_desc(1, 0, 3))

    def test_stream_tables_that_lie(self):
        def read(client):
            return client.read_frame([ReadEntry(TOKEN, 0)])
        for name, lie in (
                ('longer data than there is', read_reply(table(length=10), b'12345')),
                ('huge data', read_reply(table(length=0xFFFFFFFF), b'12345')),
                ('more than any frame has, announced', read_reply(table(length=0xF0000000), length=0xF0000000 + 116)),
                ('data of no stream', read_reply(table(length=2), b'12345')),
                ('another count', read_reply(table(n=2))),
                ('a count of 0', read_reply(table(n=0, size=104))),
                ('a count far beyond the table', read_reply(struct.pack('<II', 0, 0xFFFFFFFF).ljust(104, b'\0'))),
                ('cut table', read_reply(table(size=103))),
                ('another token', read_reply(table(token=TOKEN + 1))),
                ('another position', read_reply(table(position=1))),
                ('another user data', read_reply(table(user=1))),
                ('two buffers', read_reply(table(buffers=2))),
                ('a failure with data', read_reply(table(status=0x80040201, length=1), b'x'))):
            with self.subTest(name):
                self.check(ZemProtocolError, lie, read)

    def test_data_that_breaks_off(self):
        def lie(trans_id, code):
            return read_reply(table(length=1000), b'x' * 1000)(trans_id, code)[:-1], True
        self.check(ZemConnectionError, lie, lambda client: client.read_frame([ReadEntry(TOKEN, 0)]))

    def test_a_failed_read_with_its_table(self):
        client = self.client(read_reply(table(status=0x800705AA), status='500 Failed 0x800705aa'))
        frame, = client.read_frame([ReadEntry(TOKEN, 0)])
        self.assertEqual((frame.status, frame.data), (Result.NO_RESOURCES, b''))

    def test_generic_failure(self):
        error = self.check(
            ZemRefused, lambda trans_id, code: http(struct.pack('<IIII', trans_id, code, 4, 0x80070057),
                                                    status='500 Failed ZEM request code 17'),
            lambda client: client.keep_alive())
        self.assertEqual((error.result, error.http_status), (Result.E_INVALIDARG, 500))

    def test_status_only_failure(self):
        error = self.check(
            ZemRefused, lambda trans_id, code: b'HTTP/1.1 500 Error 0x8000ffff\r\nContent-Length: 0\r\n\r\n',
            lambda client: client.keep_alive())
        self.assertEqual((error.result, error.http_status), (Result.E_UNEXPECTED, 500))

    def test_a_refusal_outweighs_what_fails_when_its_reason_is_asked(self):
        no_token = good(2, bytes(16))
        for second in (lambda *_: (b'', True), good(16), good(16, bytes(24))):
            client = self.client(no_token, second, good())
            with self.assertRaisesRegex(ZemRefused, "^OPEN_FILE of 'a' did not work"):
                client.open_file('a')
            client.keep_alive()

    def test_error_page(self):
        error = self.check(
            ZemRefused, lambda trans_id, code: http(b'<html>', False, '404 Not Found', content='text/html'),
            lambda client: client.keep_alive())
        self.assertEqual((error.result, error.http_status), (None, 404))
        self.assertEqual(self.liar.connections, 1)

    def test_pages_that_lie(self):
        for name, entity in (('empty', b''), ('words', b'a b c'), ('long', b'0 1 2' * 20000), ('bytes', b'\xff')):
            with self.subTest(name):
                self.check(ZemProtocolError, lambda trans_id, code: http(entity, False),
                           lambda client: client.status())

    def test_a_download_that_breaks_off(self):
        self.check(ZemConnectionError, lambda trans_id, code: (http(b'half', False, length=8), True),
                   lambda client: client.get('media/a', io.BytesIO()))

    def test_a_target_that_fails_keeps_its_own_error(self):
        class Full(io.BytesIO):
            def write(self, data):
                raise OSError(28, 'full')
        client = self.client(lambda trans_id, code: http(bytes(2 << 20), False), good())
        with self.assertRaises(OSError):
            client.get('media/a', Full())
        self.assertIsNone(client._wire._connection.sock)  # hung up, though the rest may not have come yet
        client.keep_alive()
        self.assertEqual(self.liar.connections, 2)  # the rest of the file was not taken for an answer

    def test_one_connection_for_all(self):
        client = self.client(*[good()] * 20)
        for _ in range(20):
            client.keep_alive()
        self.assertEqual(self.liar.connections, 1)

    def test_the_number_that_no_request_has(self):
        seen = []

        def note(trans_id, code):
            seen.append(trans_id)
            return good()(trans_id, code)
        client = self.client(note, note)
        client._trans_id = 0xFFFFFFFD
        client.keep_alive()
        client.keep_alive()
        self.assertEqual(seen, [0xFFFFFFFE, 1])

    def test_an_idle_connection_that_was_closed(self):
        client = self.client(lambda trans_id, code: (good()(trans_id, code), True), good())
        client.keep_alive()
        self.assertTrue(self.liar.hung_up.wait(10))
        client.keep_alive()
        self.assertEqual(self.liar.connections, 2)


if __name__ == '__main__':
    common.main(__doc__)
