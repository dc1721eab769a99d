"""Exchanges that are compared whole: every byte of the reply and every line that it left in the log. A model of the client
table says what a join and a leave must log. Nothing may be left over in the log when the server has stopped."""

import os
import re
import struct
import sys
import time
import unittest

from wire import *

MARK_CODE = 0x7F000000  # no such command: a request for it is certain to be logged
RECORD = re.compile(r'.{23} (\S+) +(\[\d+\]) (.*)')
REST = re.compile(r'(?:\S+\.cpp\(-?\d+\) 0x[0-9a-f]{8}(?: \d+ ms)?: )?\.\.\. (.*)')
PLACE = re.compile(r'(\S+\.cpp)\((-?\d+)\) (0x[0-9a-f]{8})(?: \d+ ms)?: (.*)')
SCOPE = re.compile(r'(0x[0-9a-f]{8}) in (\S+)')
DATE = re.compile(r'(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) '
                  r'\d{4} \d\d:\d\d:\d\d GMT')
SERVER_NAME = 'Quorvane ZEM /x.x.x.x'
E_FAIL, E_ACCESSDENIED, E_OUTOFMEMORY = 0x80004005, 0x80070005, 0x8007000E


def win32(code):
    return 0x80070000 | code


NOT_FOUND, SHARING, FILE_EXISTS, ALREADY_EXISTS = win32(2), win32(32), win32(80), win32(183)
PATH_NOT_FOUND, INVALID_NAME, HANDLE_EOF, NO_STREAM = win32(3), win32(123), win32(38), win32(1168)
HOLE, ERASED = 0x80040201, 0x80040202


class Trace:
    """A trace line; only with the trace flag on unless it is always written."""

    def __init__(self, text, always=False):
        self.text, self.always = text, always

    def lines(self, names):
        return ['trace ' + self.text.format(**names)[:511]]


class Message(Trace):
    def __init__(self, text):
        super().__init__(text, True)

    def lines(self, names):
        return ['message ' + self.text.format(**names)[:511]]


class Later(Trace):
    """A trace of a scope that has logged an error: it carries the error's place."""

    def lines(self, names):
        return ['trace httpcmdhdlr.cpp(#): ' + self.text.format(**names)]


class Scope(Trace):
    """What a failed check leaves: the name of the function."""

    def __init__(self, hr, name):
        super().__init__(name, True)
        self.hr = hr

    def lines(self, names):
        return ['scope 0x%08x in CHttpCommandHandler::%s' % (self.hr, self.text)]


class Error(Scope):
    """An error with its text. `line` is given where the number is fixed."""

    def __init__(self, hr, name, text, line=None, source='httpcmdhdlr.cpp'):
        super().__init__(hr, name)
        self.message, self.line, self.source = text, line, source

    def lines(self, names):
        place = '%s(%s) 0x%08x: ' % (self.source, '#' if self.line is None else self.line, self.hr)
        first = ['error ' + place + self.message.format(**names)[:511]]
        return first + (super().lines(names) if self.text else [])


def Always(text):
    return Trace(text, True)


def unknown_client(name):
    return Error(E_INVALIDARG, name, '{c}: Unknown client; transId {t}!')


def normal(word, text):
    """A record without time, thread and elapsed time; None for what depends on the machine's speed."""
    if word == 'slow' or word.startswith('level'):
        return None
    place = PLACE.fullmatch(text)
    if word == 'error' and place:
        text = '%s(%s) %s: %s' % place.groups()
    return word + ' ' + text


def same(expected, found):
    if '.cpp(#)' in expected:  # a line that is not fixed is a positive number
        found = re.sub(r'^((?:error|trace) \S+\.cpp)\([1-9]\d*\)', r'\1(#)', found)
    if '<address>' in expected:
        pattern = re.escape(expected).replace('<address>', '0x[0-9a-f]+').replace('<number>', r'\d+')
        return re.fullmatch(pattern, found) is not None
    return expected == found


class Ledger:
    """Reads the log on from where the last reading ended."""

    patience_s = 120  # a busy machine stands still for long

    def __init__(self, server):
        self.server, self.offset, self.kept, self.marks = server, 0, [], 0
        self.last = {}  # of each thread: the index of its last record in `kept`
        self.connection = None
        self.ignored = None  # how records end that belong to requests whose answer came long ago

    def close(self):
        if self.connection:
            self.connection.close()

    def mark(self):
        if not self.connection:
            self.connection = Connection(self.server.port)
        self.marks += 1
        head = struct.pack('<III', self.marks, MARK_CODE, 0)
        reply = self.connection.request('POST', '/zem/', [('Zem-Id', 'marker'), ('Content-Length', '12')], head)
        assert reply.status == 500
        return ['error httpcmdhdlr.cpp(#) 0x80004001: marker: ZEM command %d not implemented, transId %d.'
                % (MARK_CODE, self.marks), 'scope 0x80004001 in CHttpCommandHandler::ProcessRequest']

    def more(self):
        if not os.path.exists(self.server.log):
            return
        with open(self.server.log, 'rb') as log:
            log.seek(self.offset)
            text = log.read()
        whole = text[:text.rfind(b'\n') + 1]
        self.offset += len(whole)
        for line in whole.decode('utf-8').splitlines():
            match = RECORD.fullmatch(line)
            word, thread, text = match.groups() if match else ('', '', line)
            rest = REST.fullmatch(text)
            if rest and thread in self.last:  # a busy machine: the rest of a message came late
                self.kept[self.last[thread]] += rest[1]
                continue
            record = normal(word, text)
            if record is not None and not (self.ignored and record.endswith(self.ignored)):
                self.last[thread] = len(self.kept)
                self.kept.append(record)

    def take(self, count, good=None):
        """All lines since the last call but the mark that is set now. At least `count` are waited for, and until they are
        `good`; what a worker writes after its reply may come later than the mark."""
        mark = self.mark()
        end = time.monotonic() + self.patience_s
        marked = False
        while True:
            self.more()
            taken = list(self.kept)
            at = next((i for i, line in enumerate(taken) if same(mark[0], line)), None)
            if at is not None and mark[1] in taken[at:]:
                del taken[taken.index(mark[1], at)], taken[at]
                if len(taken) >= count and (good is None or good(taken)):
                    break
                if not marked:
                    marked, end = True, time.monotonic() + self.patience_s
            if time.monotonic() > end:
                break
            time.sleep(0.002)  # the log has a thread of its own
        self.kept, self.last = [], {}
        return taken


class ExactCase(unittest.TestCase):
    """One server for the class, one client at a time: so every line of the log has one request that wrote it."""

    program, file_server, trace_flag, user = None, False, False, None

    @classmethod
    def setUpClass(cls):
        cls.server = Server(cls.program, cls.file_server, cls.trace_flag, user=cls.user)
        cls.ledger = Ledger(cls.server)
        cls.tracing = False  # until the first join reads the flag
        cls.members, cls.real_time, cls.requests = [], '', 0
        cls.next_trans_id = 1000
        started = cls.ledger.take(0)
        assert started == [], started

    @classmethod
    def tearDownClass(cls):
        cls.ledger.close()
        code = cls.server.stop()
        cls.ledger.more()
        left = cls.ledger.kept
        cls.server.remove()
        assert code == 0, 'zemhost ended with %d' % code
        serviced = [re.fullmatch(r'trace (\d+) HTTP requests serviced on ZEM HTTP command handler thread ID 0x[0-9a-f]+',
                                 line) for line in left]
        assert all(serviced), left
        assert len(left) == ((12 if cls.file_server else 4) if cls.tracing else 0), left

    def setUp(self):
        self.addCleanup(self.leave_all)

    def leave_all(self):
        for name in list(self.members):
            client = self.client(name)
            self.leave(client)

    def client(self, name=None, agent='wire (test/x.x.x.x)'):
        client = Client(self.server.port, name or 'c-' + self.id().split('.')[-1][5:], agent)
        self.addCleanup(client.close)
        return client

    # What the log must say.

    def assert_log(self, expected, names=None, beside=()):
        """`beside` holds what another thread writes: in order among itself, anywhere in between."""
        def texts(entries):
            found = []
            for entry in entries:
                if entry.always or self.tracing:
                    found += entry.lines(names or {})
            return found

        main, other = texts(expected), texts(beside)

        def good(lines):
            rest = list(lines)
            for text in other:
                at = next((i for i, line in enumerate(rest) if same(text, line)), None)
                if at is None:
                    return False
                del rest[at]
            return len(rest) == len(main) and all(map(same, main, rest))

        found = self.ledger.take(len(main) + len(other), good)
        self.assertTrue(good(found), 'the log has\n  %s\nexpected\n  %s'
                        % ('\n  '.join(found), '\n  '.join(main + other)))

    # What the reply must be.

    def assert_headers(self, reply, expected):
        headers = list(reply.headers)
        dates = [value for key, value in headers if key == 'Date']
        self.assertEqual(len(dates), 1, headers)
        self.assertRegex(dates[0], DATE)
        rest = [pair for pair in headers if pair[0] != 'Date']
        self.assertEqual(sorted(rest), sorted(expected), headers)
        own = [key for key, _ in rest if key.startswith('zem-')]
        self.assertIn(own, ([], ['zem-resphdr-len', 'zem-ver']))

    def assert_entity(self, reply, status, reason, body, data_size):
        self.assertEqual((reply.status, reply.reason), (status, reason))
        self.assert_headers(reply, [('Content-Type', 'application/octet-string'), ('Content-Length', str(len(body))),
                                    ('Server', SERVER_NAME), ('zem-resphdr-len', str(12 + data_size)),
                                    ('zem-ver', '1')])
        self.assertEqual(reply.body, body)

    def assert_reply(self, reply, trans_id, code, body, data=b'', hr=0):
        reason = 'OK' if hr == 0 else 'Failed 0x%x' % hr
        whole = struct.pack('<III', trans_id, code, len(body)) + body + data
        self.assert_entity(reply, 200 if hr == 0 else 500, reason, whole, len(body))

    def assert_generic(self, reply, trans_id, code, hr):
        signed = struct.unpack('<i', struct.pack('<I', code))[0]
        reason = 'Failed ZEM request code %d (hr = 0x%x), transId %u' % (signed, hr, trans_id)
        self.assert_entity(reply, 500, reason, struct.pack('<IIII', trans_id, code, 4, hr), 4)

    def assert_no_body(self, reply, status, reason):
        self.assertEqual((reply.status, reply.reason, reply.body), (status, reason, b''))
        self.assert_headers(reply, [('Content-Length', '0'), ('Server', SERVER_NAME)])

    # Whole exchanges.

    def post(self, client, code, body=b'', **kw):
        self.next_trans_id += 1
        type(self).next_trans_id = self.next_trans_id
        self.names = {'c': client.id, 't': self.next_trans_id}
        return client.post(code, body, trans_id=self.next_trans_id, **kw)

    def ask(self, client, code, body, reply_code, reply_body, log, data=b'', hr=0, beside=(), names=None, **kw):
        """`reply_body` may be a function of the reply: for what only the server knows."""
        reply = self.post(client, code, body, **kw)
        if callable(reply_body):
            reply_body = reply_body(reply)
        self.assert_reply(reply, self.names['t'], reply_code, reply_body, data, hr)
        self.assert_log(log, {**self.names, **(names(reply) if names else {})}, beside)
        return reply

    def refused(self, client, code, body, hr, log, **kw):
        reply = self.post(client, code, body, **kw)
        self.assert_generic(reply, self.names['t'], code, hr)
        self.assert_log(log, self.names)

    def join(self, name=None, channel=1, agent='wire (test/x.x.x.x)', warning=None, text='(test/x.x.x.x)'):
        client = self.client(name, agent)
        if self.server.trace is not None:
            type(self).tracing = bool(self.server.trace)
        shown = struct.unpack('<i', struct.pack('<I', channel))[0]
        log = [Trace('{c}: handling CMD_JOIN, chanId %d, transId {t}' % shown)]
        if channel == 255:
            pass
        elif client.id in self.members:
            log.append(Always('{c}: Rejoining, chanid 0x%x..., transId {t}!' % channel))
        else:
            if warning is not None:
                log.append(Message('{c}: WARNING: Client version %s mismatches HTTP server version x.x.x.x - ensure '
                                   'both run same software!' % warning))
            kind = 'non-real-time'
            if not self.real_time:
                kind = 'real-time'
                if not self.file_server:
                    type(self).real_time = client.id
            else:
                log.append(Trace('{c}: Could not set real-time client status; existing client ' + self.real_time))
            status = '' if self.file_server else "as '%s' client (current real-time client '%s')" % (kind, self.real_time)
            log.append(Always("'%s': Joining %s, chanid 0x%x..., total clients %d, transId {t}"
                              % (text, status, channel, len(self.members))))
            self.members.append(client.id)
        log.append(Trace('{c}: CMD_JOIN OK, transId {t}'))
        self.ask(client, JOIN, struct.pack('<I', channel), 12, struct.pack('<I', 0), log)
        return client

    def leave(self, client):
        log = [Trace('{c}: handling CMD_LEAVE, transId {t}')]
        known = client.id in self.members
        if known:
            self.members.remove(client.id)
            log.append(Always('{c}: Leaving (%d clients remaining), transId {t}...!' % len(self.members)))
        log.append(Trace('{c}: Deleting ZEM client, transId {t}...'))
        if known and self.real_time.lower() == client.id.lower():
            log.append(Always('{c}: Relinquishing real-time status...'))
            type(self).real_time = ''
        log.append(Trace('{c}: CMD_LEAVE OK, transId {t}'))
        self.ask(client, LEAVE, b'', 13, struct.pack('<I', 0), log)

    def create(self, client, name, library=None, **kw):
        """The token; 0 when the library refuses with `library`."""
        body = create_body(name, **kw)
        log = [Trace("{c}: handling CMD_CREATE_FILE, file '%s', transId {t}" % name)]
        log += [Scope(library, 'DoCmdCreateFile')] if library else []
        log += [Trace('{c}: CMD_CREATE_FILE OK, token 0x{token:x}, transId {t}'),
                Trace('{c}: Create after sending response token 0x{token:x} hr 0x0, transId {t}')]
        return self.token_of(client, CREATE, body, log, library)

    def open(self, client, name, library=None, **kw):
        body = open_body(name, **kw)
        log = [Trace("{c}: handling CMD_OPEN_FILE, file '%s', transId {t}" % name)]
        log += [Scope(library, 'DoCmdOpenFile')] if library else []
        log += [Trace('{c}: CMD_OPEN_FILE OK, token 0x{token:x}, transId {t}'),
                Trace('{c}: Open after sending response token 0x{token:x} hr 0x0, transId {t}')]
        return self.token_of(client, OPEN, body, log, library)

    def token_of(self, client, code, body, log, library):
        # Bytes 4 to 7 of the reply body are not written: they are the request's.
        reply = self.ask(client, code, body, 2, lambda r: struct.pack('<I', 0) + body[4:8] + r.body[20:28], log,
                         names=lambda r: {'token': r.long(8)})
        token = reply.long(8)
        self.assertEqual(token == 0, library is not None)
        return token

    def settle(self, client):
        """A write is answered before it is issued. The writes of a client run one after another: when a second one, which
        is refused, has been answered, the first has been issued, and a flush waits for it."""
        if client.id in self.members:
            self.ask(client, WRITE, struct.pack('<II8x', 0, 0), 4, struct.pack('<I', 0),
                     [Trace('{c}: handling CMD_WRITE_FRAME, transId {t}'),
                      Scope(E_INVALIDARG, 'GetZemWriteFrameRequestFromHttp'),
                      Trace('{c}: error CMD_WRITE_FRAME, transId {t}')])

    def flush(self, client, token, library=None):
        self.settle(client)
        self.simple(client, FLUSH, struct.pack('<Q', token), 8, 'DoCmdFlushBuffers', library,
                    '{c}: handling CMD_FLUSH_BUFFERS, token %x, transId {t}' % token,
                    '{c}: CMD_FLUSH_BUFFERS OK, token %x, transId {t}' % token)

    def close_file(self, client, token, library=None):
        self.settle(client)
        self.simple(client, CLOSE, struct.pack('<Q', token), 5, 'DoCmdCloseFile', library,
                    '{c}: handling CMD_CLOSE_FILE, token %x, transId {t}' % token,
                    '{c}: CMD_CLOSE_FILE OK, token %x, transId {t}' % token)

    def simple(self, client, code, body, reply_code, scope, library, handling, ok, answer=None, **kw):
        """A command whose reply says S_OK whatever became of it. `library`: the failure, or True for a stranger."""
        log = [Trace(handling)]
        if library is True:
            log.append(unknown_client(scope))
        elif library:
            log.append(Scope(library, scope))
        log.append(Trace(ok))
        return self.ask(client, code, body, reply_code, answer or struct.pack('<I', 0), log, **kw)

    def write(self, client, token, position, data):
        self.ask(client, WRITE, write_body([(token, position, [len(data)])]), 4, struct.pack('<I', 0),
                 [Trace('{c}: handling CMD_WRITE_FRAME, transId {t}')], payload=data,
                 beside=[Trace('{c}: handling write-frame complete apc, transId {t}')])


def main():
    arguments = sys.argv[1:]
    ExactCase.program = take_program(
        arguments, 'usage: %s --zemhost PROGRAM [--file-server] [--trace] [unittest arguments]' % sys.argv[0])
    ExactCase.file_server = '--file-server' in arguments
    ExactCase.trace_flag = '--trace' in arguments
    rest = [argument for argument in arguments if argument not in ('--file-server', '--trace')]
    unittest.main(argv=[sys.argv[0], *rest])
