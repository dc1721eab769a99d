"""The command protocol written out by hand, and a zemhost process to speak it to. Standard library only; shares no code
with the server. Sizes and offsets are literal on purpose: this file is the second opinion."""

import contextlib
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

JOIN, LEAVE, KEEP_ALIVE, SET_IO_REAL_TIME = 15, 16, 17, 18
CREATE, OPEN, READ, WRITE, CLOSE = 1, 2, 3, 4, 5
FILE_INFO, FILE_INFO2, FRAME_DESC, FRAME_DESC2, FLUSH = 6, 7, 8, 9, 10
MARKS, MARKS2, STRIPE, UPDATE_CFG = 11, 12, 13, 14
SPACE, ATTRIBS, DELETE, FILESIZE, MKDIR, MOVE, ERASE, CFG_ATTR = 19, 20, 21, 22, 23, 24, 25, 26
NO_COMMAND = CFG_ATTR + 1  # the first code behind them

END_OF_MEDIA = 0x8007044C
E_INVALIDARG = 0x80070057
E_NOTIMPL = 0x80004001
E_UNEXPECTED = 0x8000FFFF
E_HANDLE = 0x80070006


def name_field(text):
    """A fixed field of 260 UTF-16 units."""
    raw = text.encode('utf-16-le')
    assert len(raw) <= 518
    return raw.ljust(520, b'\0')


def es_desc(media_type=1, codec=b'mjpg', rate=(25, 1), width=64, height=48):
    record = struct.pack('<IiIIIII', (1 << 16) | 56, media_type, struct.unpack('<I', codec)[0],
                         rate[0], rate[1], width, height)
    return record.ljust(56, b'\0')


def create_body(name, aux='', desc=None, flags=3):
    return name_field(name) + name_field(aux) + (desc or es_desc()) + struct.pack('<I', flags)


def open_body(name, aux='', media_type=0, flags=1, flag=0):
    return name_field(name) + name_field(aux) + struct.pack('<II', media_type, flags) + bytes([0, flag])


def name_block(name, aux='', media_type=0, flags=1):
    return name_field(name) + name_field(aux) + struct.pack('<II', media_type, flags)


def read_body(entries, word=0x11223344):
    """entries: (token, position, stream flags, 64-bit user data)."""
    body = struct.pack('<II8x', word, len(entries))
    for token, position, flags, user in entries:
        entry = struct.pack('<8xQII', token, position, flags).ljust(80, b'\0')
        body += (entry + struct.pack('<Q', user)).ljust(96, b'\0')
    return body


def write_body(entries, word=0x55667788):
    """entries: (token, position, [buffer lengths])."""
    body = struct.pack('<II8x', word, len(entries))
    for token, position, lengths in entries:
        entry = struct.pack('<8xQIII4x', token, position, 0, len(lengths))
        for length in lengths:
            entry += struct.pack('<II', length, 0)
        body += entry.ljust(96, b'\0')
    return body


class Reply:
    def __init__(self, status, reason, headers, body):
        self.status, self.reason, self.headers, self.body = status, reason, headers, body

    def header(self, name):
        found = [value for key, value in self.headers if key.lower() == name.lower()]
        return found[0] if found else None

    def trans_id(self):
        return struct.unpack_from('<I', self.body, 0)[0]

    def code(self):
        return struct.unpack_from('<I', self.body, 4)[0]

    def data_size(self):
        return struct.unpack_from('<I', self.body, 8)[0]

    def word(self, offset):
        """The unsigned 32-bit word at `offset` of the reply body."""
        return struct.unpack_from('<I', self.body, 12 + offset)[0]

    def long(self, offset):
        return struct.unpack_from('<Q', self.body, 12 + offset)[0]


def frame_bytes(wanted):
    """The size of a frame that a test wants to write: less where the system does not take as much in one request."""
    return wanted


def host_of(port):
    """The host as the server's log has it."""
    return '127.0.0.1:%d' % port


def computer_name():
    return socket.gethostname()


class Connection:
    """One HTTP/1.1 connection with the response read by hand."""

    rewrite = None  # what becomes of the bytes of a request: a system may ask for another Host
    wait = None  # called before each read of a reply

    patience_s = 60  # a busy machine stands still for long

    def __init__(self, port, timeout_s=None):
        self.port = port
        self.socket = socket.create_connection(('127.0.0.1', port), timeout=timeout_s or self.patience_s)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buffer = b''

    def close(self):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(self.rewrite(data) if self.rewrite else data)

    def _fill(self):
        if self.wait:
            self.wait()
        more = self.socket.recv(1 << 20)
        if not more:
            raise ConnectionError('closed by the server')
        self.buffer += more

    def receive(self, head=False):
        while b'\r\n\r\n' not in self.buffer:
            self._fill()
        block, self.buffer = self.buffer.split(b'\r\n\r\n', 1)
        lines = block.decode('latin-1').split('\r\n')
        version, status, reason = (lines[0].split(' ', 2) + [''])[:3]
        assert version == 'HTTP/1.1', lines[0]
        headers = [tuple(part.strip() for part in line.split(':', 1)) for line in lines[1:]]
        lengths = [int(value) for key, value in headers if key.lower() == 'content-length']
        assert len(lengths) <= 1, 'Content-Length doubled'
        need = 0 if head or status == '100' else lengths[0] if lengths else 0
        while len(self.buffer) < need:
            self._fill()
        body, self.buffer = self.buffer[:need], self.buffer[need:]
        return Reply(int(status), reason, headers, body)

    def request(self, method, path, headers=(), body=b''):
        lines = ['%s %s HTTP/1.1' % (method, path), 'Host: 127.0.0.1']
        lines += ['%s: %s' % pair for pair in headers]
        self.send('\r\n'.join(lines).encode('utf-8') + b'\r\n\r\n' + body)
        return self.receive(method == 'HEAD')


class Client:
    """A joined or joining client: one POST per command."""

    def __init__(self, port, client_id, agent='wire (test/x.x.x.x)'):
        self.connection = Connection(port)
        self.id, self.agent, self.trans_id = client_id, agent, 100

    def close(self):
        self.connection.close()

    def headers(self, length):
        return [('User-Agent', self.agent), ('Zem-Id', self.id), ('Content-Length', str(length))]

    def post(self, code, body=b'', payload=b'', declared=None, trans_id=None, path='/zem/'):
        if trans_id is None:
            self.trans_id += 1
            trans_id = self.trans_id
        head = struct.pack('<III', trans_id, code, len(body) if declared is None else declared)
        entity = head + body + payload
        return self.connection.request('POST', path, self.headers(len(entity)), entity)

    def join(self, channel=1):
        return self.post(JOIN, struct.pack('<I', channel))

    def create(self, name, **kw):
        return self.post(CREATE, create_body(name, **kw)).long(8)

    def open(self, name, **kw):
        return self.post(OPEN, open_body(name, **kw)).long(8)

    def write(self, token, position, data):
        return self.post(WRITE, write_body([(token, position, [len(data)])]), data)

    def flush(self, token):
        """A write is answered before it is issued. A client's writes run one after another: when this one, which is
        refused, has been answered, the earlier ones are issued, and the flush waits until they are done."""
        entity = struct.pack('<III', 0, WRITE, 16) + bytes(16)
        self.connection.request('POST', '/zem/', self.headers(len(entity)), entity)
        return self.post(FLUSH, struct.pack('<Q', token))

    def read(self, token, position, flags=0, user=0):
        return self.post(READ, read_body([(token, position, flags, user)]))


READ_REPLY_BYTES = 12 + 104  # of the entity, before the data, with one stream


def frame_of(reply, n=1):
    """The data that follows the stream table of a READ_FRAME reply."""
    return reply.body[READ_REPLY_BYTES + (n - 1) * 144:]


def stream_status(reply, i=0):
    return reply.word(8 + 96 * i)


def take_program(arguments, usage):
    """Takes "--zemhost PROGRAM" out of a suite's arguments; the program's path."""
    if '--zemhost' not in arguments:
        sys.exit(usage)
    at = arguments.index('--zemhost')
    program = os.path.abspath(arguments[at + 1])
    del arguments[at:at + 2]
    return program


def free_port():
    with socket.socket() as probe:
        probe.bind(('127.0.0.1', 0))
        return probe.getsockname()[1]


@contextlib.contextmanager
def closed_port():
    """A port that nobody listens on, and nobody else can take meanwhile."""
    with socket.socket() as held:
        held.bind(('127.0.0.1', 0))
        yield held.getsockname()[1]


class NotStarted(RuntimeError):
    """No server, so nothing was tried."""


REPORT_BLOCKS = '"ReportBlocks"=dword:00000001'
RECLAIM_FRAME_BLOCKS = '"ReclaimFrameBlocks"=dword:00000001'


def need_for_everyone(program):
    """For a service that is not the administrator's: a tree below /root, say, is closed to it."""
    while program != '/':
        if not os.stat(program).st_mode & 1:
            raise unittest.SkipTest('%s is not for everyone' % program)
        program = os.path.dirname(program)


class Server:
    """A zemhost of its own: temporary volume, registry file and log."""

    stop_signal = signal.SIGTERM
    log_name = 'log'

    def __init__(self, program, file_server=False, trace=False, settings=(), environment=None, volume='volume',
                 user=None):
        """`volume`: a folder inside the temporary one, made if it is 'volume'; '' for an empty value, None for no
        key. `user`: the number of the one who runs it."""
        self.program = program
        self.folder = tempfile.mkdtemp(prefix='zem-e2e-')
        self.volume = os.path.join(self.folder, volume) if volume else volume
        self.root = self.named(self.volume)
        if volume == 'volume':
            os.mkdir(self.volume)
        self.log = os.path.join(self.folder, self.log_name)
        self.user = user
        if user is not None:
            os.chown(self.folder, user, -1)
            os.chown(self.volume, user, -1)
        self.registry = os.path.join(self.folder, 'zem.reg')
        self.file_server, self.trace, self.settings = file_server, trace, list(settings)
        self.environment = dict(os.environ, **(environment or {}))
        self.port = None
        self.process = None
        self.start()

    def named(self, path):
        """A path as the server names it."""
        return path

    def command(self):
        return [self.program, '--registry', self.registry, '--listen', '127.0.0.1', '--log', self.log]

    def write_registry(self):
        quoted = (self.root or '').replace('\\', '\\\\')
        values = ['"HttpPort"=dword:%08x' % self.port, '"HttpFileServer"=dword:%08x' % self.file_server]
        values += self.settings
        text = ['Windows Registry Editor Version 5.00', '',
                '[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM]', *values, '',
                '[HKEY_LOCAL_MACHINE\\Software\\WOW6432Node\\Quorvane Group\\ZEM]',
                *([] if self.trace is None else ['"RsDbg"=dword:%08x' % self.trace]), '',
                *([] if self.volume is None else
                  ['[HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs]', '"0"="%s"' % quoted, '']),
                '[HKEY_CLASSES_ROOT\\.txt]', '"Content Type"="text/plain"', '']
        temporary = self.registry + '.new'
        with open(temporary, 'w', encoding='utf-8') as out:
            out.write('\r\n'.join(text))
        os.replace(temporary, self.registry)

    def start(self):
        for _ in range(10):  # the probed port may be taken by another test
            self.port = free_port()
            self.write_registry()
            self.process = subprocess.Popen(
                self.command(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=self.environment, user=self.user)
            line = self.process.stdout.readline().decode()
            if 'ready' in line:
                self.drain = threading.Thread(target=self.listen, daemon=True)
                self.drain.start()
                return
            rest = self.process.stdout.read().decode()
            code = self.process.wait()
            self.process.stdout.close()
            if 'port' not in line + rest:
                rest += 'its log: ' + self.logged()
                shutil.rmtree(self.folder)
                raise NotStarted('zemhost did not start, but ended with %d: %s%s' % (code, line, rest))
        raise NotStarted('no free port')

    def listen(self):
        self.said = self.process.stdout.read().decode()

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.process.stdout.close()

    def stop(self, timeout_s=60):
        running = self.process.poll() is None
        if running:
            self.process.send_signal(self.stop_signal)
        code = self.process.wait(timeout_s)
        self.drain.join()
        self.process.stdout.close()
        if running:
            missing = [line for line in self.logged().splitlines() if ' warning ' in line and 'Blocks at the end' in line]
            assert not missing, missing
        return code

    def remove(self):
        try:
            if self.process.poll() is None:
                self.stop()
        finally:
            shutil.rmtree(self.folder)

    def logged(self):
        """What the log has, as it is."""
        if not os.path.isfile(self.log):
            return '(no log)\n'
        with open(self.log, encoding='utf-8', errors='replace') as text:
            return text.read()

    def lines(self, older=()):
        """The log's records, after those of the files that it had before; the further pieces of a long message ("... ")
        are put back to the first."""
        records, last = [], {}
        for file in [*older, self.log]:
            if not os.path.exists(file):  # nothing was logged yet
                continue
            with open(file, encoding='utf-8') as text:
                for line in text.read().splitlines():
                    match = re.match(r'.{23} \S+ +(\[\d+\]) (\S+\(\d+\) 0x[0-9a-f]+: )?(\.\.\. )?(.*)', line)
                    if match and match[3] and match[1] in last:
                        records[last[match[1]]] += match[4]
                        continue
                    if match:
                        last[match[1]] = len(records)
                    records.append(line)
        return records

    def wait_for_line(self, part, timeout_s=120):
        """The log is written by a thread of its own: read until the line is there."""
        end = time.monotonic() + timeout_s
        while time.monotonic() < end:
            found = [line for line in self.lines() if part in line]
            if found:
                return found
            time.sleep(0.01)
        raise AssertionError('not in the log: %s\n%s' % (part, '\n'.join(self.lines()[-40:])))

    def missing_blocks(self):
        """Of a server with REPORT_BLOCKS that has stopped: what it said of its pools, and in what words it is not as it
        should be: every block is back, or a frame block of a failed write request, which is counted."""
        said = [line.partition('Blocks at the end: ')[2] for line in self.lines() if 'Blocks at the end: ' in line]
        found = re.fullmatch(r'HTTP (\d+) of (\d+), 0 kept; frames (\d+) of (\d+), (\d+) kept', said[-1]) if said else None
        if not found:
            return ''.join(said), 'nothing is said of blocks, or not what is expected'
        home, blocks, frames, frame_blocks, kept = map(int, found.groups())
        if (home, blocks) != (1500 if self.file_server else 300,) * 2 or (frames + kept, frame_blocks) != (7200, 7200):
            return said[-1], 'blocks have not come back'
        if kept and RECLAIM_FRAME_BLOCKS in self.settings:
            return said[-1], 'blocks of failed writes were kept'
        return said[-1], ''

    def rss_anon_kib(self):
        with open('/proc/%d/status' % self.process.pid) as status:
            for line in status:
                if line.startswith('RssAnon'):
                    return int(line.split()[1])
