#!/usr/bin/env python3
"""What a client must not have or do: each command with a token with the token of another client, one that was closed, and ones
that never were; and texts of clients that would forge a line of the log, in both of its forms.

usage: strangers.py --zemhost PROGRAM [unittest arguments]
"""

import json
import os
import struct
import sys
import unittest

import confinement
from wire import *

PROGRAM = None

# code, operation as the log names it (None: it is silent), body, what an answer that gives nothing away looks like
COMMANDS = {
    'READ_FRAME': (READ, None, lambda token: read_body([(token, 0, 0, 0)]),
                   lambda reply: stream_status(reply) == E_HANDLE and frame_of(reply) == b''),
    'READ_FRAME, frame beside': (READ, None, lambda token: read_body([(token, 0, 0, 0), (token, 1, 0, 0)]),
                                 lambda reply: {stream_status(reply, 0), stream_status(reply, 1)} == {E_HANDLE}),
    'WRITE_FRAME': (WRITE, None, lambda token: write_body([(token, 0, [7])]), None),
    'CLOSE_FILE': (CLOSE, 'CloseFile', lambda token: struct.pack('<Q', token), None),
    'GET_FILE_INFO': (FILE_INFO, 'GetFileInfo', lambda token: struct.pack('<Q', token), lambda reply: not any(reply.body[20:])),
    'GET_FRAME_DESC': (FRAME_DESC, 'GetFrameDesc', lambda token: struct.pack('<QIiI', token, 0, 1, 0),
                       lambda reply: not any(reply.body[20:])),
    'FLUSH_BUFFERS': (FLUSH, 'FlushBuffers', lambda token: struct.pack('<Q', token), None),
    'GET_FILE_MARKS': (MARKS, 'GetFileMarks', lambda token: struct.pack('<Q', token), lambda reply: not any(reply.body[20:])),
    'ERASE_SEGMENT': (ERASE, 'EraseSegment', lambda token: struct.pack('<QIIi', token, 0, 2, 0), None),
}

# What takes neither a token nor a name; and GET_FRAME_DESC2, whose names have three characters, and one of them the server's own.
NEITHER = {JOIN, LEAVE, KEEP_ALIVE, SET_IO_REAL_TIME, UPDATE_CFG, CFG_ATTR, FRAME_DESC2}


class Table(unittest.TestCase):
    def test_every_command_is_tried_here_or_with_names(self):
        with_token = {row[0] for row in COMMANDS.values()}
        with_name = {row[2] for row in confinement.COMMANDS}
        self.assertEqual(sorted([*with_token, *with_name, *NEITHER]), list(range(1, NO_COMMAND)))


class Tokens(unittest.TestCase):
    def setUp(self):
        self.server = Server(PROGRAM)
        self.addCleanup(self.server.remove)
        self.owner, self.other = self.joined('owner'), self.joined('other')

    def joined(self, name):
        client = Client(self.server.port, name)
        self.addCleanup(client.close)
        client.join()
        return client

    def refused(self, client, token, words):
        """Each command is: nothing comes back, and the log has it once."""
        for name, (code, operation, body, empty) in COMMANDS.items():
            reply = client.post(code, body(token), b'strange' if code == WRITE else b'')
            self.assertEqual((reply.status, reply.word(0) if code != READ else 0), (200, 0), (name, words))
            self.assertNotIn(b'owned', reply.body, (name, words))
            if empty:
                self.assertTrue(empty(reply), (name, words, reply.body))
            if operation:
                self.expected.append((E_HANDLE, operation))

    def assert_log(self):
        self.owner.post(99, trans_id=7)
        self.server.wait_for_line('ZEM command 99 not implemented, transId 7')
        found = [re.search(r'0x([0-9a-f]{8}) in CHttpCommandHandler::DoCmd(\w+)', line) for line in self.server.lines()]
        self.assertEqual([(int(match[1], 16), match[2]) for match in found if match], self.expected)

    def assert_owned(self, token, words):
        self.assertEqual(frame_of(self.owner.read(token, 0)), b'owned 0', words)
        self.assertEqual(frame_of(self.owner.read(token, 1)), b'owned 1', words)
        info = self.owner.post(FILE_INFO, struct.pack('<Q', token))
        self.assertEqual((info.word(4), info.word(40)), (0x00010038, 2), words)

    def test_tokens_of_others_and_of_nobody(self):
        token = self.owner.create('clip')
        for position in range(2):
            self.owner.write(token, position, b'owned %d' % position)
        self.owner.flush(token)
        self.expected = []
        own = self.other.create('own')
        wrong = [("another client's", self.other, token), ('none', self.owner, 0), ('all ones', self.owner, (1 << 64) - 1)]
        wrong += [('bit %d' % bit, self.owner, token ^ 1 << bit) for bit in range(64)]
        wrong += [('the halves of two', self.other, own & 0xFFFFFFFF | token & 0xFFFFFFFF << 32)]
        for words, client, each in wrong:
            self.refused(client, each, words)
            self.assert_owned(token, words)
        self.assert_log()

    def test_tokens_after_their_end(self):
        self.expected = []
        for ended in ('closed', 'left', 'stopped'):
            token = self.owner.create('clip')
            for position in range(2):
                self.owner.write(token, position, b'owned %d' % position)
            self.owner.flush(token)
            if ended == 'closed':
                self.owner.post(CLOSE, struct.pack('<Q', token))
            elif ended == 'left':
                self.owner.post(LEAVE)
                self.owner.join()
            else:  # a token of the server that ran before
                self.owner.close()
                self.other.close()
                self.assertEqual(self.server.stop(), 0)
                self.server.start()
                self.owner, self.other = self.joined('owner'), self.joined('other')
            self.refused(self.owner, token, ended)
            self.refused(self.other, token, ended)
            again = self.owner.open('clip')
            self.refused(self.owner, token, 'opened again')
            self.assert_owned(again, ended)
            self.owner.post(CLOSE, struct.pack('<Q', again))
        self.assert_log()


# What a terminal or a reader of the log would take for more than text: line ends, escapes, and what turns text around.
FORGED = '2026-01-01 00:00:00.000 error   [1] forged'
TRICKS = ['\x1b[2J', '\x1b]0;title\x07', '\x07', '\x08\x08', '\x7f', '\u0085' + FORGED, '\u2028' + FORGED, '\u2029' + FORGED,
          '\u009b31m', '\u202eevil', '\u2066', '"},{"level":"error","message":"forged', '\\n' + FORGED, '%s%n%x', '\t']
LINE_ENDS = ['\r\n' + FORGED, '\n' + FORGED, '\r' + FORGED, '\x0b' + FORGED, '\x0c' + FORGED, '\0' + FORGED]
# Characters that may not stand in a log as they are: controls of both sets, ends of lines and what turns text around.
RAW = re.compile('[\x00-\x09\x0b-\x1f\x7f-\x9f\u2028\u2029\u202a-\u202e\u2066-\u2069]')


class Log(unittest.TestCase):
    def traffic(self, server):
        """Sends the tricks wherever a client's text can come into the log."""
        client = Client(server.port, 'teller')
        client.join()
        for trick in TRICKS + LINE_ENDS:
            name = 'clip' + trick
            client.post(OPEN, open_body(name))
            client.post(CREATE, create_body('../' + name))
            client.post(DELETE, name_field(name))
            client.post(MOVE, name_field(name) + name_field(name + '2'))
            client.post(MKDIR, name_field(name))
            client.post(STRIPE, name_block(name) + bytes(8))
            client.post(CFG_ATTR, name_field(trick) + trick.encode('utf-16-le') + bytes(2))
            client.post(UPDATE_CFG, ('<%s a="%s"/>' % (trick, trick)).encode('utf-16-le') + bytes(2))
            for headers in ([('Zem-Id', 'id' + trick)], [('User-Agent', 'a' + trick + ' (' + trick + '/' + trick + ')'), ('Zem-Id', 'b')],
                            [('Host', trick)]):
                for target in ('/zem/', '/media/' + trick.replace(' ', '')):
                    self.rude(server, headers, target)
            for target in ('/media/' + ''.join('%%%02x' % byte for byte in trick.encode()), '/media/none' + trick):
                self.rude(server, [], target, 'GET')
                self.rude(server, [], target, 'DELETE')
        client.post(LEAVE)
        client.post(99, trans_id=8)
        client.close()

    def rude(self, server, headers, target, method='POST'):
        """A request that may be refused before anybody reads it."""
        entity = struct.pack('<IIII', 5, JOIN, 4, 1) if method == 'POST' else b''
        lines = ['%s %s HTTP/1.1' % (method, target)] + ['%s: %s' % pair for pair in headers]
        lines += [] if any(key == 'Host' for key, _ in headers) else ['Host: a']
        connection = Connection(server.port)
        connection.send(('\r\n'.join(lines) + '\r\nContent-Length: %d\r\n\r\n' % len(entity)).encode() + entity)
        self.answers.append(connection.receive().status)
        connection.close()

    def run_with(self, *settings):
        self.answers = []
        server = Server(PROGRAM, trace=True, settings=settings)
        self.addCleanup(server.remove)
        self.traffic(server)
        self.assertEqual(server.stop(), 0)
        self.assertIn(200, self.answers)
        self.assertIn(400, self.answers)
        with open(server.log, 'rb') as log:
            return log.read().decode('utf-8')

    def test_text(self):
        text = self.run_with()
        self.assertIsNone(RAW.search(text), RAW.search(text))
        for line in text.split('\n')[:-1]:
            self.assertRegex(line, r'^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\w+ +\[\d+\] ')
            self.assertFalse(line.startswith(FORGED), line)
        self.assertIn('\\x1b[2J', text)
        self.assertIn('\\u202eevil', text)
        self.assertIn('%s%n%x', text)

    def test_json(self):
        text = self.run_with('"LogFormat"="json"')
        self.assertIsNone(RAW.search(text), RAW.search(text))
        records = [json.loads(line) for line in text.split('\n')[:-1]]
        self.assertFalse([record for record in records if str(record.get('message', '')).startswith('forged')])
        keys = {frozenset(record) for record in records}
        self.assertFalse([each for each in keys if 'forged' in str(each)])
        self.assertGreater(len(records), len(TRICKS))


def main():
    global PROGRAM
    arguments = sys.argv[1:]
    PROGRAM = take_program(arguments, __doc__)
    unittest.main(argv=[sys.argv[0], *arguments])


if __name__ == '__main__':
    main()
