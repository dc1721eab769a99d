"""What is measured: a table of scenarios, each with a peer and a target."""

import dataclasses
import os
import struct
import time
from collections.abc import Callable
from pathlib import Path

import peers
import wire
from clients import Request, Sample, load, wrk
from peers import BenchError

KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30


@dataclasses.dataclass
class Scenario:
    """ours() and theirs() run once, for so many seconds, and give a Sample. `target`: least ratio of the medians of
    requests per second (of p99: the largest of the latencies); None where there is none. `cpu_target`: largest ratio of
    processor time a request."""
    name: str
    title: str
    peer: str
    target: float | None
    ours: Callable
    theirs: Callable
    metric: str = 'rate'
    cpu_target: float | None = None


class Bench:
    """The servers and files of one run. Servers are started when the first scenario needs them."""

    def __init__(self, folder):
        self.folder = Path(folder)
        self._running = {}
        self._files = {}
        self._last = {}   # medians that later scenarios build on

    def stop(self):
        for peer in self._running.values():
            peer.stop()

    def _peer(self, name, make):
        if name not in self._running:
            self._running[name] = make()
        return self._running[name]

    def file(self, name, data):
        path = self.folder / name
        path.write_bytes(data)
        return str(path)

    def data(self, size):
        """The same random bytes for every server."""
        if size not in self._files:
            self._files[size] = os.urandom(size)
        return self._files[size]

    @property
    def zemhost(self):
        return self._peer('zemhost', lambda: peers.ZemHost(self.folder))

    @property
    def nginx(self):
        return self._peer('nginx', lambda: peers.Nginx(self.folder))

    def raw(self, mode, size):
        return self._peer(f'raw-{mode}-{size}', lambda: self._make_raw(mode, size))

    def _make_raw(self, mode, size):
        if mode == 'write':
            reply = self.joined().client.post(wire.KEEP_ALIVE)
            return peers.RawLoop(mode, peers.answer_head(reply, 0), b'', self.folder)
        zemhost, token = self.reading(size)
        reply = zemhost.client.read(token, 0)
        return peers.RawLoop(mode, peers.answer_head(reply, size), self.data(size), self.folder)

    def joined(self):
        self.zemhost.join()
        return self.zemhost

    # What is asked ----------------------------------------------------------------------------------------------------

    def keep_alive(self):
        return Request(method='POST', body=self.file('keep-alive', peers.ZemHost.entity(wire.KEEP_ALIVE)), least=16)

    def reading(self, size, frames=1):
        """A client that has a file of such frames open, and the file's token."""
        name = f'frames-{size}-{frames}'
        if name not in self._files:
            self.zemhost.record(name, frames, self.data(size))
            self._files[name] = b''
        zemhost = self.joined()
        return zemhost, zemhost.open(name)

    def read(self, size, streams=1):
        _, token = self.reading(size)
        body = wire.read_body([(token, 0, 0, 0)] * streams)
        return Request(method='POST', body=self.file('read', peers.ZemHost.entity(wire.READ, body)), least=size * streams)

    def fetch(self, size):
        """A GET of a file of this size in nginx' folder."""
        name = f'file-{size}.txt'  # a type that the servers know
        path = self.nginx.html / name
        if not path.exists():
            with open(path, 'wb') as out:
                for _ in range(0, size, min(size, MIB)):
                    out.write(self.data(min(size, MIB)))
        return Request(path='/' + name, least=size)

    def fetch_from_volume(self, size):
        path = self.fetch(size).path
        link = self.zemhost.volume / 'media' / path[1:]
        if not link.exists():
            link.parent.mkdir(exist_ok=True)
            os.link(self.nginx.html / path[1:], link)
        return Request(path='/media' + path, least=size)

    # Recording --------------------------------------------------------------------------------------------------------

    RECORDED = 2048

    def recording(self, token):
        """WRITE_FRAME of 1 MiB to one new position after another."""
        body = wire.write_body([(token, 0, [MIB])])
        entity = peers.ZemHost.entity(wire.WRITE, body, self.data(MIB))
        return Request(method='POST', body=self.file('write', entity), step_at=peers.ZemHost.POSITION_AT, steps=self.RECORDED)

    def record(self, _):
        """A new file, until a flush says that all of it is written: a reply says only that a frame has arrived. Frames that
        are missing then would make the server look faster than it is."""
        zemhost = self.joined()
        token = zemhost.create('recorded')
        request = self.recording(token)
        cpu_s = peers.cpu_seconds(zemhost.pids())
        sample = load(zemhost, request, 4, 60, requests=self.RECORDED)
        flushed_s = -time.monotonic()
        zemhost.client.flush(token)
        flushed_s += time.monotonic()
        cpu_s = peers.cpu_seconds(zemhost.pids()) - cpu_s
        if missing := self.RECORDED - zemhost.frames_of(token, self.RECORDED, MIB):
            raise BenchError(f'{missing} of {self.RECORDED} frames were dropped')
        zemhost.client.post(wire.CLOSE, struct.pack('<Q', token))
        (zemhost.volume / 'recorded').unlink()
        return Sample(self.RECORDED / (self.RECORDED / sample.rate + flushed_s), cpu_s * 1e6 / self.RECORDED, sample.p99_us)

    def record_raw(self, _):
        raw = self.raw('write', MIB)
        os.truncate(raw.folder / 'frame', 0)
        return load(raw, self.recording(0), 4, 60, requests=self.RECORDED)

    def put(self, _):
        """PUT of the same bytes, each time a new file in the place of the one before."""
        request = Request(path='/put/frame', method='PUT', body=self.file('put', self.data(MIB)))
        return load(self.nginx, request, 4, 60, requests=self.RECORDED)

    # Reading from the device ------------------------------------------------------------------------------------------

    COLD_FRAMES = 768

    def cold_read(self, seconds, read_ahead='auto'):
        """One pass over a file of 1 MiB frames that is not in the page cache. `seconds` bounds it."""
        zemhost, token = self.reading(MIB, self.COLD_FRAMES)
        zemhost.client.post(wire.CFG_ATTR, wire.name_field('readAhead') + f'{read_ahead}\0'.encode('utf-16-le'))
        name = next(path for path in zemhost.volume.iterdir() if path.name.startswith(f'frames-{MIB}-{self.COLD_FRAMES}'))
        forget(name)
        body = wire.read_body([(token, 0, 0, 0)])
        request = Request(method='POST', body=self.file('read', peers.ZemHost.entity(wire.READ, body)), least=MIB,
                          step_at=peers.ZemHost.POSITION_AT, steps=self.COLD_FRAMES)
        return load(zemhost, request, 1, 60 + seconds, requests=self.COLD_FRAMES)


def forget(path):
    """Takes a file out of the page cache."""
    fd = os.open(path, os.O_RDONLY)
    os.fsync(fd)
    os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
    os.close(fd)


def table(bench, memory):
    """`memory`: servers whose files are in memory, for what would else measure the disk."""
    def keep_alive(connections):
        return Scenario(
            f'keepalive{connections}', f'KEEP_ALIVE, {connections} connections, wrk', 'nginx', 1.1,
            lambda s: wrk(bench.joined(), bench.keep_alive(), connections, s),
            lambda s: wrk(bench.nginx, bench.keep_alive(), connections, s), cpu_target=0.95)

    def size_text(size):
        return f'{size // MIB} MiB' if size >= MIB else f'{size // KIB} KiB'

    def read(size, target, connections=1, client=load):
        tail = f', {connections} connection{"s" if connections > 1 else ""}{", wrk" if client is wrk else ""}'
        name = f'read{connections}-{size // KIB}k' + ('-wrk' if client is wrk else '')
        return Scenario(
            name, f'READ_FRAME {size_text(size)}{tail}', 'nginx', target,
            lambda s: client(bench.zemhost, bench.read(size), connections, s),
            lambda s: client(bench.nginx, bench.fetch(size), connections, s))

    def read_raw(size, mode):
        return Scenario(
            f'raw-{mode}-{size // KIB}k', f'READ_FRAME {size_text(size)}, 1 connection', f'rawloop {mode}', 0.92,
            lambda s: load(bench.zemhost, bench.read(size), 1, s),
            lambda s: load(bench.raw(mode, size), bench.read(size), 1, s))

    def fetch(size):
        name = '1g' if size == GIB else f'{size // MIB}m'
        least_s = 4 if size == GIB else 0  # in a second there are only a few
        return Scenario(
            f'get-{name}', f'GET of {size // MIB} MiB, 2 connections', 'nginx', 1.0,
            lambda s: load(bench.zemhost, bench.fetch_from_volume(size), 2, max(s, least_s)),
            lambda s: load(bench.nginx, bench.fetch(size), 2, max(s, least_s)))

    return [
        keep_alive(16), keep_alive(256),
        read(64 * KIB, 1.2), read(256 * KIB, 1.2), read(MIB, 1.1), read(8 * MIB, 1.3),
        read(MIB, 1.0, 16), read(MIB, 1.0, 16, wrk), read(MIB, None, 1, wrk),
        *(read_raw(size, mode) for size in (64 * KIB, 256 * KIB, MIB, 8 * MIB) for mode in ('sendfile', 'map')),
        *(Scenario(f'cold-{way}', 'READ_FRAME 1 MiB in order, not in the page cache', f'rawloop read {way}', 0.9,
                   bench.cold_read, lambda s, way=way: raw_read(bench, way)) for way in ('cached', 'direct')),
        Scenario('cold-ahead', 'READ_FRAME 1 MiB in order, not in the page cache', '`readAhead` 0', None,
                 bench.cold_read, lambda s: bench.cold_read(s, read_ahead='0')),
        Scenario('write-nginx', 'WRITE_FRAME 1 MiB, 4 connections', 'nginx PUT', 3.0, memory.record, memory.put),
        Scenario('write-raw', 'WRITE_FRAME 1 MiB, 4 connections', 'rawloop write', 0.85, memory.record, memory.record_raw),
        fetch(8 * MIB), fetch(GIB),
        Scenario('p99', 'p99 of READ_FRAME 1 MiB at half of full load, 16 connections', 'nginx', 1.0,
                 lambda s: load(bench.zemhost, bench.read(MIB), 16, s, rate=half_load(bench)),
                 lambda s: load(bench.nginx, bench.fetch(MIB), 16, s, rate=half_load(bench)), metric='p99'),
        *(Scenario(f'idle{idle}', f'KEEP_ALIVE, 16 connections, {idle} idle ones beside', 'without them', 0.95,
                   lambda s, idle=idle: load(bench.joined(), bench.keep_alive(), 16, s, idle=idle - 16),
                   lambda s: load(bench.joined(), bench.keep_alive(), 16, s)) for idle in (1000, 5000)),
    ]


def half_load(bench):
    """Half of what the slower one of the two does with 16 connections, measured once."""
    if 'half' not in bench._last:
        ours = load(bench.zemhost, bench.read(MIB), 16, 2).rate
        theirs = load(bench.nginx, bench.fetch(MIB), 16, 2).rate
        bench._last['half'] = int(min(ours, theirs) / 2)
    return bench._last['half']


def raw_read(bench, way):
    """The same bytes of a plain file that is not in the page cache, read by the bare loop."""
    path = bench.folder / 'plain'
    if not path.exists():
        with open(path, 'wb') as out:
            for _ in range(bench.COLD_FRAMES):
                out.write(bench.data(MIB))
    forget(path)
    return Sample(bench.COLD_FRAMES / peers.raw_read_seconds(path, way), 0, 0)


def floors(bench):
    """What every version must keep."""
    kept = {'keepalive16': 0.9, 'read16-1024k-wrk': 1.0}
    return [dataclasses.replace(scenario, target=kept[scenario.name], cpu_target=None)
            for scenario in table(bench, bench) if scenario.name in kept]
