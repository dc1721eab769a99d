"""What grows with a number: how much each further stream of a request and each further buffer of a reply costs, and whether
that is a straight line."""

import dataclasses
import json
import statistics
import subprocess
from collections.abc import Callable

from clients import load
from peers import BUILD, BenchError
from scenarios import KIB


@dataclasses.dataclass
class Line:
    """`measure(rounds, seconds)` gives {n: [cost, ...]}, each cost in `unit`."""
    name: str
    title: str
    unit: str
    of: str   # what n counts
    measure: Callable


class LineResult:
    """Points and the straight line that fits the least of each best: what else a machine does only adds."""

    def __init__(self, line, points):
        self.line, self.points = line, points
        self.medians = {n: statistics.median(values) for n, values in points.items()}
        self.least = {n: min(values) for n, values in points.items()}
        ns, costs = list(self.least), list(self.least.values())
        self.slope, self.base = statistics.linear_regression(ns, costs)
        self.fit = statistics.correlation(ns, costs) ** 2
        self.off = max(abs(cost - self.at(n)) / self.at(n) for n, cost in self.least.items())

    def at(self, n):
        return self.base + self.slope * n

    def verdict(self):
        """A straight line explains it: nothing that grows faster is hidden in the spread."""
        return 'met' if self.fit >= 0.98 else 'MISSED'

    def text(self):
        return (f'{self.line.title}: {self.base:.2f} + {self.slope:.3f} {self.line.unit} for each of {self.line.of}, '
                f'R² {self.fit:.4f}, at least 0.98: {self.verdict()}; farthest from the line {self.off * 100:.0f} %')


def streams(bench, size):
    def measure(rounds, seconds):
        counts = [1, 2, 4, 6, 8, 11, 14, 18, 22]
        points = {count: [] for count in counts}
        for i in range(rounds):
            # A drift of the machine is no slope.
            for count in counts if i % 2 == 0 else reversed(counts):
                sample = load(bench.zemhost, bench.read(size, count), 1, seconds)
                points[count].append(1e6 / sample.rate)
        return points
    return measure


def frame_sizes(bench):
    """The server's processor time; as many requests of each size that the clock's ticks do not show."""
    def measure(rounds, seconds):
        sizes = [64, 256, 1024, 2048, 4096]
        points = {size: [] for size in sizes}
        for i in range(rounds):
            for size in sizes if i % 2 == 0 else reversed(sizes):
                points[size].append(load(bench.zemhost, bench.read(size * KIB), 4, seconds).cpu_us)
        return points
    return measure


def buffers(rounds, _seconds):
    """From a frame's buffers to the pieces that are sent, without sending (bench/micro)."""
    result = subprocess.run(
        [BUILD / 'bench/micro', '--benchmark_filter=BuildReply', f'--benchmark_repetitions={rounds}',
         '--benchmark_enable_random_interleaving=true', '--benchmark_min_time=0.02', '--benchmark_format=json'],
        capture_output=True, text=True)
    if result.returncode != 0:
        raise BenchError(f'bench/micro failed: {result.stderr}')
    points = {}
    for row in json.loads(result.stdout)['benchmarks']:
        if row['run_type'] == 'iteration':
            points.setdefault(int(row['name'].split('/')[1]), []).append(row['cpu_time'])
    return dict(sorted(points.items()))


def table(bench):
    return [
        Line('streams-64k', 'READ_FRAME of 1 to 22 streams, 64 KiB each, 1 connection', 'µs', 'the streams',
             streams(bench, 64 * KIB)),
        Line('streams-4k', 'READ_FRAME of 1 to 22 streams, 4 KiB each, 1 connection', 'µs', 'the streams',
             streams(bench, 4 * KIB)),
        Line('frame-size', 'READ_FRAME of one frame, 4 connections, processor time of the server', 'µs', 'the KiB',
             frame_sizes(bench)),
        Line('buffers', 'reply of 1 to 131 buffers, built and not sent', 'ns', 'the buffers', buffers),
    ]
