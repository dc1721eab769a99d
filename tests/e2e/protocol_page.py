#!/usr/bin/env python3
"""Holds docs/protocol.md to the truth: every dump in it is an exchange with a running zemhost, and its command table is
the one that the server dispatches by.

usage: protocol_page.py --zemhost PROGRAM [--write]

--write puts what the server says now into the page; without it a difference is a failure. What differs from run to run
(the handle in a token, a buffer address, disk sizes, the date) is shown and compared as `..`. A dump stands between
<!-- exchange: NAME --> and <!-- end -->.
"""

import difflib
import os
import re
import sys

from wire import *

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PAGE = os.path.join(ROOT, 'docs', 'protocol.md')
TABLE = os.path.join(ROOT, 'zemhttpd', 'commands', 'commandtable.h')
CLIENT_TABLE = os.path.join(ROOT, 'apps', 'zem', 'client', 'wire.cpp')
BLOCK = re.compile(r'(<!-- exchange: (\S+) -->\n)(.*?)(<!-- end -->)', re.S)
RULES = {'Completion': 'fetched', 'Strict': 'strict', 'WriteFrame': 'fetched, payload behind', 'None': 'own'}

VIDEO, AUDIO, MARKER = 1, 2, 24
NO_DATA = 0x80000000


def dump(data, masked):
    """Rows of 16 bytes with their offset; a run of equal rows is one `*`, as hexdump prints it."""
    rows, last = [], None
    for at in range(0, len(data), 16):
        part = data[at:at + 16]
        cells = ['..' if at + i in masked else '%02x' % byte for i, byte in enumerate(part)]
        if cells == last:
            if rows[-1] != '        *':
                rows.append('        *')
            continue
        last = cells
        text = ''.join('.' if at + i in masked or not 32 <= byte < 127 else chr(byte) for i, byte in enumerate(part))
        rows.append('  %04x  %-23s  %-23s  |%s|' % (at, ' '.join(cells[:8]), ' '.join(cells[8:]), text))
    if rows and rows[-1] == '        *':
        rows.append('  %04x' % len(data))
    return rows


def head_line(data, masked=()):
    return '  head  ' + '  '.join(' '.join('%02x' % byte for byte in data[at:at + 4]) for at in range(0, len(data), 4))


class Recorder(Client):
    """A client that writes down what it says and hears."""

    def __init__(self, port, client_id):
        super().__init__(port, client_id, 'example (demo/x.x.x.x)')
        self.tokens = []  # their handles are masked wherever they stand

    def learn(self, token, kind):
        assert token != 0 and token >> 24 & 0xFF == kind, hex(token)
        self.tokens.append(struct.pack('<Q', token))
        return token

    def await_frame(self, token, position):
        """A write is answered before it is handed on: asks until the frame is there."""
        body = frame_body(0, entry(token, position, NO_DATA))
        end = time.monotonic() + 60
        while stream_status(self.post(READ, body, trans_id=1)) != 0:
            assert time.monotonic() < end, 'frame %d was not written' % position

    def masks(self, data, fixed=()):
        """The bytes of every known token but the one that names its kind; and `fixed`."""
        masked = set(fixed)
        for token in self.tokens:
            at = data.find(token)
            while at >= 0:
                masked |= {at + i for i in range(8) if i != 3}
                at = data.find(token, at + 1)
        return masked

    def exchange(self, code, body=b'', payload=b'', reply_mask=lambda body: (), token_at=None, kind=None, heads=False,
                 declared=None):
        """Posts a command; returns the reply and its text."""
        self.trans_id += 1
        head = struct.pack('<III', self.trans_id, code, len(body) if declared is None else declared)
        reply = self.post(code, body, payload, declared, self.trans_id)
        if token_at is not None:
            self.learn(reply.long(token_at), kind)
        lines = ['request']
        if heads:
            lines += ['  POST /zem/ HTTP/1.1', '  Host: 127.0.0.1']
            lines += ['  %s: %s' % pair for pair in self.headers(12 + len(body) + len(payload))] + ['']
        lines.append(head_line(head))
        lines += dump(body, self.masks(body))
        if payload:
            lines += ['  payload'] + dump(payload, ())
        lines += self.reply_lines(reply, reply_mask, heads)
        return reply, lines

    def reply_lines(self, reply, reply_mask=lambda body: (), heads=False):
        lines = ['reply: %d %s' % (reply.status, reply.reason)]
        if heads:
            lines[0] = 'reply'
            lines.append('  HTTP/1.1 %d %s' % (reply.status, reply.reason))
            lines += ['  %s: %s' % (key, '..' if key.lower() == 'date' else value) for key, value in reply.headers] + ['']
        if not reply.body:
            return lines
        size = int(reply.header('zem-resphdr-len')) - 12
        body, data = reply.body[12:12 + size], reply.body[12 + size:]
        lines.append(head_line(reply.body[:12]))
        lines += dump(body, self.masks(body, reply_mask(body)))
        if data:
            lines += ['  data'] + dump(data, ())
        return lines


def addresses(body):
    """The buffer addresses in the table of a READ_FRAME reply."""
    masked = set()
    for i in range(struct.unpack_from('<I', body, 4)[0]):
        at = 8 + 96 * i
        if body[at + 11] in (VIDEO, AUDIO) and any(body[at + 32:at + 36]):
            masked |= set(range(at + 28, at + 32))
    return masked


def entry(token, position, flags=0, user=0, rest=b''):
    return (struct.pack('<8xQII', token, position, flags) + rest).ljust(80, b'\0') + struct.pack('<Q8x', user)


def frame_body(word, *entries):
    return struct.pack('<II8x', word, len(entries)) + b''.join(entries)


def lengths(*sizes):
    return struct.pack('<I4x', len(sizes)) + b''.join(struct.pack('<I4x', size) for size in sizes)


def audio_desc():
    return struct.pack('<Ii4sIIIIIHHI4sI8x', 0x10038, 2, b'sowt', 25, 1, 0, 0, 48000, 2, 16, 0, b'\0\0\0\x10', 0)


def video_desc():
    return struct.pack('<Ii4sIIIIIHHI4sI8x', 0x10038, 1, b'mjpg', 25, 1, 1280, 720, 0, 0, 0, 0, b'\0\0\0\x10', 0)


def text(value):
    return value.encode('utf-16-le') + b'\0\0'


def session(server, out):
    """A whole life of a client, with the HTTP heads."""
    client = Recorder(server.port, 'cam-1')
    one = lambda name, *a, **kw: out.__setitem__('session/' + name, client.exchange(*a, heads=True, **kw)[1])
    one('join', JOIN, struct.pack('<I', 3))
    one('create', CREATE, create_body('media/take1', desc=video_desc(), flags=8), token_at=8, kind=VIDEO)
    token = struct.unpack('<Q', client.tokens[0])[0]
    one('write', WRITE, frame_body(0, entry(token, 0, 1, rest=lengths(21))), b'the first coded frame')
    client.await_frame(token, 0)
    one('flush', FLUSH, struct.pack('<Q', token))
    one('read', READ, frame_body(0, entry(token, 0)), reply_mask=addresses)
    one('close', CLOSE, struct.pack('<Q', token))
    one('leave', LEAVE)
    client.close()


def commands(server, out):
    """Every command once, and the answers that a client must be able to tell apart."""
    client = Recorder(server.port, 'desk')
    client.trans_id = 0x100

    def one(name, code, *args, **kw):
        reply, out[name] = client.exchange(code, *args, **kw)
        return reply

    one('CMD_JOIN', JOIN, struct.pack('<I', 1))
    one('CMD_KEEP_ALIVE', KEEP_ALIVE)
    one('CMD_SET_IO_REAL_TIME', SET_IO_REAL_TIME)
    one('CMD_CREATE_DIRECTORY', MKDIR, name_field('news'))
    video = one('CMD_CREATE_FILE', CREATE, create_body('news/cl0', desc=video_desc(), flags=8),
                token_at=8, kind=VIDEO).long(8)
    audio = client.learn(client.create('news/cl0.a', desc=audio_desc(), flags=8), AUDIO)
    one('CMD_WRITE_FRAME', WRITE, frame_body(7, entry(video, 0, 1, rest=lengths(20, 12)), entry(audio, 0, rest=lengths(8))),
        b'the first 20 bytes, ' + b'then 12 more' + b'8 bytes.')
    client.post(WRITE, frame_body(0, entry(video, 1, rest=lengths(5)), entry(audio, 1, rest=lengths(6))), b'5 up.sound.')
    client.post(WRITE, frame_body(0, entry(video, 3, rest=lengths(4))), b'last')
    client.await_frame(video, 3)
    client.await_frame(audio, 1)
    one('CMD_FLUSH_BUFFERS', FLUSH, struct.pack('<Q', video))
    client.flush(audio)
    one('CMD_READ_FRAME', READ, frame_body(7, entry(video, 1, 0, 0x1122334455667788), entry(audio, 1)),
        reply_mask=addresses)
    one('read/end', READ, frame_body(7, entry(video, 4)), reply_mask=addresses)
    one('read/status', READ, frame_body(7, entry(video, 3, NO_DATA)), reply_mask=addresses)
    one('CMD_GET_FILE_INFO', FILE_INFO, struct.pack('<Q', video))
    one('CMD_GET_FRAME_DESC', FRAME_DESC, struct.pack('<QIiI', video, 0, 4, 0))
    one('CMD_GET_FILE_MARKS', MARKS, struct.pack('<Q', video))
    marker = one('CMD_OPEN_FILE', OPEN, open_body('news/cl0', 'mk'), token_at=8, kind=MARKER).long(8)
    mark = struct.pack('<IIII4sI', 0, 2, 0, 0, bytes(4), 0)
    one('mark/write', WRITE, frame_body(0, entry(marker, 0, rest=mark)))
    client.await_frame(marker, 0)
    one('CMD_GET_FILE_MARKS2', MARKS2, name_block('news/cl0'))
    one('mark/read', READ, frame_body(0, entry(marker, 0)))
    one('CMD_CLOSE_FILE', CLOSE, struct.pack('<Q', marker))
    one('CMD_STRIPE_TIMECODE', STRIPE, name_block('news/cl0') + bytes([0x05, 0x59, 0x59, 0x09]) + bytes(4))
    one('CMD_ERASE_SEGMENT', ERASE, struct.pack('<QIIi', video, 1, 3, 0))
    one('CMD_GET_FILE_INFO2', FILE_INFO2, name_block('news/cl0'))
    one('info/missing', FILE_INFO2, name_block('news/none'))
    for token in (video, audio):
        client.post(CLOSE, struct.pack('<Q', token))
    client.post(MOVE, name_field('news/cl0') + name_field('cl0'))
    one('CMD_GET_FRAME_DESC2', FRAME_DESC2, name_block('cl?') + struct.pack('<Ii', 0, ord('0')))
    one('CMD_MOVE_FILE', MOVE, name_field('news/cl0.a') + name_field('news/sound'))
    one('CMD_DELETE_FILE', DELETE, name_field('news/sound'))
    os.makedirs(os.path.join(server.volume, 'media'), exist_ok=True)
    with open(os.path.join(server.volume, 'media', 'notes.txt'), 'wb') as notes:
        notes.write(b'hello, world\r\n')
    one('CMD_GET_FILESIZE', FILESIZE, name_field('media/notes.txt'))
    one('CMD_GET_FILE_ATTRIBS', ATTRIBS, name_field('news'))
    one('attribs/missing', ATTRIBS, name_field('none'))
    one('CMD_QUERY_FILESYSTEM_SPACE', SPACE, name_field(''), reply_mask=lambda body: range(8, 24))
    one('CMD_UPDATE_CFG', UPDATE_CFG, text('<channelConfig><readAhead>4</readAhead></channelConfig>'))
    one('cfg/refused', UPDATE_CFG, text('<channelConfig zoom="1"/>'))
    one('CMD_UPDATE_CFG_ATTR_STR', CFG_ATTR, name_field('frameRate') + text('29.97'))
    one('open/missing', OPEN, open_body('none'))
    ghost = Recorder(server.port, 'ghost')
    ghost.trans_id = 0x200
    _, out['read/unanswered'] = ghost.exchange(READ, frame_body(7, entry(0, 0)))
    ghost.close()
    one('failure/generic', LEAVE, declared=50)
    one('CMD_LEAVE', LEAVE)
    client.close()


def plain(server, out):
    """Answers without a binary header."""
    def one(name, method, path, headers=(), body=b'', mask=None):
        connection = Connection(server.port)
        reply = connection.request(method, path, headers, body)
        connection.close()
        lines = ['%s %s HTTP/1.1' % (method, path), 'Host: 127.0.0.1'] + ['%s: %s' % pair for pair in headers]
        lines += ['', 'HTTP/1.1 %d %s' % (reply.status, reply.reason)]
        lines += ['%s: %s' % (key, '..' if key.lower() in ('date', 'x-servername', mask and 'content-length') else value)
                  for key, value in reply.headers]
        body_text = reply.body.decode()
        if mask:
            assert re.fullmatch(mask, body_text), body_text
            body_text = re.sub(r'(?<= )\d+', '..', body_text)
        out[name] = lines + [''] + body_text.splitlines()

    one('failure/status-only', 'POST', '/zem/', [('Content-Length', '12')], struct.pack('<III', 1, KEEP_ALIVE, 0))
    client = Client(server.port, 'cam-1')
    client.join()
    one('page/status', 'GET', '/media/status', mask=r'0 \d+ \d+')
    one('page/clients', 'GET', '/media/clients')
    client.close()
    one('page/file', 'GET', '/media/notes.txt')
    one('page/delete', 'DELETE', '/media/notes.txt')
    one('page/missing', 'GET', '/media/notes.txt')


def record(program):
    server = Server(program)
    out = {}
    try:
        session(server, out)
        commands(server, out)
        plain(server, out)
        code = server.stop()
        assert code == 0, 'zemhost ended with %d' % code
    finally:
        server.remove()
    return {name: '```text\n' + '\n'.join(line.rstrip() for line in lines) + '\n```\n' for name, lines in out.items()}


def command_table():
    """The rows of the server's table, as the page shows them."""
    with open(TABLE, encoding='utf-8') as source:
        rows = re.findall(r'[{(]\s*(\d+),\s*"?(CMD_\w+)"?,\s*(\d+),\s*(?:SizeRule::)?(\w+)', source.read())
    return [(code, name, reply, RULES[rule]) for code, name, reply, rule in rows]


def page_table(page):
    return re.findall(r'^\| (\d+) \| \[?`(CMD_\w+)`(?:\]\([^)]*\))? \| (\d+) \| ([^|]+?) \|', page, re.M)


def main():
    arguments = sys.argv[1:]
    if '--zemhost' not in arguments:
        sys.exit(__doc__)
    program = os.path.abspath(arguments[arguments.index('--zemhost') + 1])
    with open(PAGE, encoding='utf-8') as source:
        page = source.read()
    failures = []

    blocks = record(program)
    shown = [match[2] for match in BLOCK.finditer(page)]
    for name in sorted(set(blocks) - set(shown)):
        failures.append('the page does not show %s' % name)
    for name in sorted(set(shown) - set(blocks)):
        failures.append('the page shows %s, which nothing records' % name)
    if len(shown) != len(set(shown)):
        failures.append('the page shows an exchange twice')
    if page.count('<!-- exchange:') != len(shown) or page.count('<!-- end -->') != len(shown):
        failures.append('an exchange of the page is not closed')
    page_now = BLOCK.sub(lambda match: match[1] + blocks.get(match[2], match[3]) + match[4], page)

    table = command_table()
    if len(table) < 26:
        failures.append('found only %d commands in the table of the server' % len(table))
    with open(CLIENT_TABLE, encoding='utf-8') as source:
        client_table = re.findall(r'\{Command::k\w+, "(CMD_\w+)", (\d+)\}', source.read())
    if client_table != [(name, reply) for _, name, reply, _ in table]:
        failures.append('apps/zem/client/wire.cpp has other commands than the server: ' + ', '.join(
            name for name, _ in set(client_table) ^ {(name, reply) for _, name, reply, _ in table}))
    if page_table(page) != table:
        failures.append('the command table differs from the server:\n' + '\n'.join(difflib.unified_diff(
            [' | '.join(row) for row in page_table(page)], [' | '.join(row) for row in table],
            'docs/protocol.md', 'commandtable.h', lineterm='')))
    for code, name, _, _ in table:
        if name not in blocks:
            failures.append('no exchange of %s is recorded' % name)
            continue
        # Every exchange is that of its command: the code stands in its request header.
        head = bytes.fromhex(blocks[name].split('head')[1].split('\n')[0])
        if struct.unpack_from('<I', head, 4)[0] != int(code):
            failures.append('the exchange of %s is of another command' % name)

    if page_now != page:
        if '--write' in arguments:
            with open(PAGE, 'w', encoding='utf-8') as target:
                target.write(page_now)
        else:
            failures.append('docs/protocol.md is not what the server says (--write renews it):\n' + ''.join(
                difflib.unified_diff(page.splitlines(True), page_now.splitlines(True), 'docs/protocol.md', 'the server')))
    if failures:
        sys.exit('\n'.join(failures))
    print('%d exchanges and %d commands agree with docs/protocol.md' % (len(blocks), len(table)))


if __name__ == '__main__':
    main()
