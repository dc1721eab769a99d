"""The servers that are measured, each started on a free port of 127.0.0.1 and ended by stop()."""

import contextlib
import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import urllib.request

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / 'tests/e2e'))
import wire  # noqa: E402

BUILD = ROOT / 'build/release'
TICKS = os.sysconf('SC_CLK_TCK')


class BenchError(Exception):
    pass


class Processors:
    """Where the servers run, and where their clients do."""
    servers = clients = sorted(os.sched_getaffinity(0))

    @classmethod
    def pin(cls):
        """The first half is the servers', the second the clients', this process among them."""
        half = len(cls.servers) // 2
        if half == 0:
            raise BenchError('with one processor nobody can be pinned: bench/run --unpinned')
        cls.servers, cls.clients = cls.servers[:half], cls.servers[half:]
        os.sched_setaffinity(0, cls.clients)

    @classmethod
    def unpin(cls):
        cls.servers = cls.clients = sorted({*cls.servers, *cls.clients})
        os.sched_setaffinity(0, cls.clients)

    @classmethod
    @contextlib.contextmanager
    def of_servers(cls):
        """What is started inside belongs to the servers."""
        os.sched_setaffinity(0, cls.servers)
        try:
            yield
        finally:
            os.sched_setaffinity(0, cls.clients)


def children(pid):
    path = pathlib.Path(f'/proc/{pid}/task/{pid}/children')
    return [int(word) for word in path.read_text().split()]


def cpu_seconds(pids):
    """Processor time of the processes so far, in steps of a clock tick."""
    total = 0
    for pid in pids:
        fields = pathlib.Path(f'/proc/{pid}/stat').read_text().rsplit(') ', 1)[1].split()
        total += int(fields[11]) + int(fields[12])
    return total / TICKS


class ZemHost:
    """The server under test, and one client of it that opens and writes what is measured."""

    ID = 'bench'

    def __init__(self, folder, file_server=False):
        # wire.Server makes its volume where temporary files go.
        before, tempfile.tempdir = tempfile.tempdir, str(folder)
        try:
            with Processors.of_servers():
                self.server = wire.Server(str(BUILD / 'bin/zemhost'), file_server=file_server)
        finally:
            tempfile.tempdir = before
        self.port = self.server.port
        self.volume = pathlib.Path(self.server.volume)
        self.client = None

    def pids(self):
        return [self.server.process.pid]

    def stop(self):
        if self.client:
            self.client.close()
        self.server.remove()

    def join(self):
        """A client that was silent while others were measured may be gone: every run begins with this. Files that were
        open are closed by it."""
        if self.client:
            self.client.close()
        self.client = wire.Client(self.port, self.ID)
        self.client.post(wire.LEAVE)
        self.client.join(0)

    def create(self, name):
        # The frames of a client that left may still be on their way into the same file.
        for _ in range(200):
            token = self.client.create(name, desc=wire.es_desc(), flags=0x13)
            if token:
                return token
            time.sleep(0.05)
        raise BenchError(f'zemhost did not create {name}')

    def open(self, name):
        token = self.client.open(name)
        if not token:
            raise BenchError(f'zemhost did not open {name}')
        return token

    def frames_of(self, token, frames, size):
        """How many of a file's first `frames` frames are there with `size` bytes."""
        there = 0
        for position in range(0, frames, 128):
            count = min(128, frames - position)
            reply = self.client.post(wire.FRAME_DESC, struct.pack('<QIiI', token, position, count, 0))
            there += sum(reply.word(8 + 12 * i) == size for i in range(count))
        return there

    def record(self, name, frames, data):
        """Makes a file of `frames` frames, all of them `data`, and looks at the last one."""
        self.join()
        token = self.create(name)
        for position in range(frames):
            self.client.write(token, position, data)
            if position % 16 == 15:  # a device that is slower than we are would run the server out of buffers
                self.client.flush(token)
        self.client.flush(token)
        if wire.frame_of(self.client.read(token, frames - 1)) != data:
            raise BenchError('what was written is not what is read')
        self.client.post(wire.CLOSE, struct.pack('<Q', token))

    @staticmethod
    def entity(code, body=b'', payload=b''):
        return struct.pack('<III', 1, code, len(body)) + body + payload

    # Where entry 0 of READ_FRAME and WRITE_FRAME has its position, counted from the entity's first byte.
    POSITION_AT = 12 + 16 + 16


class Nginx:
    def __init__(self, folder):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix='nginx-', dir=folder))
        self.html = self.folder / 'html'
        (self.html / 'put').mkdir(parents=True)
        os.chmod(self.folder, 0o755)
        binary = shutil.which('nginx', path=os.environ['PATH'] + ':/usr/sbin')
        for _ in range(5):
            self.port = wire.free_port()
            conf = self.folder / 'conf'
            conf.write_text(self._configuration())
            with Processors.of_servers():
                self.process = subprocess.Popen(
                    [binary, '-p', self.folder, '-c', conf, '-e', self.folder / 'error.log'], stderr=subprocess.DEVNULL)
            while self.process.poll() is None:
                try:
                    urllib.request.urlopen(f'http://127.0.0.1:{self.port}/media/', timeout=5).read()
                    return
                except OSError:
                    time.sleep(0.02)
        raise BenchError('nginx did not start: ' + (self.folder / 'error.log').read_text())

    def _configuration(self):
        user = 'user root;' if os.geteuid() == 0 else ''
        places = ''.join(f'{kind}_temp_path {self.folder}/{kind};\n'
                         for kind in ('client_body', 'proxy', 'fastcgi', 'uwsgi', 'scgi'))
        return f'''{user}
worker_processes {len(Processors.servers)};
daemon off;
pid {self.folder}/pid;
worker_rlimit_nofile 20000;
events {{ worker_connections 8192; }}
http {{
    access_log off;
    keepalive_requests 1000000;
    keepalive_timeout 600;
    sendfile on;
    tcp_nopush off;
    client_max_body_size 64m;
    {places}
    server {{
        listen 127.0.0.1:{self.port};
        location /media/ {{ return 200 "0123456789abcdef"; }}
        location /put/ {{ root {self.html}; dav_methods PUT; }}
        location / {{ root {self.html}; }}
    }}
}}
'''

    def pids(self):
        return children(self.process.pid)

    def stop(self):
        self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.folder)


class RawLoop:
    """Our own bare loop: see rawloop.cpp for the modes."""

    def __init__(self, mode, head, data, folder):
        """`head`: all of an answer but the frame; `data`: the frame, for mode write only its file's folder counts."""
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix='raw-', dir=folder))
        (self.folder / 'head').write_bytes(head)
        (self.folder / 'frame').write_bytes(data)
        for _ in range(5):
            self.port = wire.free_port()
            with Processors.of_servers():
                self.process = subprocess.Popen(
                    [BUILD / 'bench/rawloop', mode, str(self.port), str(len(Processors.servers)), self.folder / 'head',
                     self.folder / 'frame'], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            if self.process.stdout.readline().strip() == b'ready':
                return
            error = self.process.communicate()[1]
        raise BenchError('rawloop did not start: ' + error.decode())

    def pids(self):
        return [self.process.pid]

    def stop(self):
        self.process.terminate()
        self.process.communicate()
        shutil.rmtree(self.folder)


def raw_read_seconds(path, way):
    """How long the bare loop needs to read a file once; `way`: direct (O_DIRECT) or cached."""
    with Processors.of_servers():
        result = subprocess.run([BUILD / 'bench/rawloop', 'read', path, way], capture_output=True, text=True)
    if result.returncode != 0:
        raise BenchError('rawloop read: ' + result.stderr)
    return float(result.stdout)


def answer_head(reply, frame_bytes):
    """All of an answer of ours but its last `frame_bytes`, for rawloop."""
    lines = [f'HTTP/1.1 {reply.status} {reply.reason}', *(f'{name}: {value}' for name, value in reply.headers)]
    return '\r\n'.join(lines).encode() + b'\r\n\r\n' + reply.body[:len(reply.body) - frame_bytes]
