"""The load: one run of a client against one server gives a Sample."""

import dataclasses
import json
import subprocess

from peers import BUILD, ROOT, BenchError, Processors, cpu_seconds


@dataclasses.dataclass
class Sample:
    rate: float     # requests a second
    cpu_us: float   # the server's processor time a request
    p99_us: float   # latency; of wrk not known: 0


@dataclasses.dataclass
class Request:
    """What is sent. `least`: bytes that every reply's body must have; `step_at`, `steps`: see load --help."""
    path: str = '/media/'
    method: str = 'GET'
    body: str = ''
    least: int = 0
    step_at: int = 0
    steps: int = 1

    def load_arguments(self):
        words = [self.path, '--method', self.method, '--least', str(self.least)]
        words += ['--header', 'Zem-Id: bench', '--header', 'User-Agent: bench (Bench/0.1.0)']
        if self.body:
            words += ['--body', self.body]
        if self.step_at:
            words += ['--step-at', str(self.step_at), '--steps', str(self.steps)]
        return words


def _run(words):
    result = subprocess.run([str(word) for word in words], capture_output=True, text=True)
    if result.returncode != 0:
        raise BenchError(f'{words[0]} failed: {result.stderr or result.stdout}')
    return result.stdout


def load(peer, request, connections, seconds, rate=0, idle=0, requests=0):
    words = [BUILD / 'bench/load', peer.port, *request.load_arguments(), '--connections', connections,
             '--threads', min(len(Processors.clients), connections), '--seconds', seconds, '--idle', idle]
    if rate:
        words += ['--rate', rate]
    if requests:
        words += ['--requests', requests]
    before = cpu_seconds(peer.pids())
    result = json.loads(_run(words))
    spent = cpu_seconds(peer.pids()) - before
    if result['errors'] or not result['requests']:
        raise BenchError(f'no measurement: {result} of {request}')
    return Sample(result['requests'] / result['seconds'], spent * 1e6 / result['requests'], result['us']['p99'])


def wrk(peer, request, connections, seconds):
    words = ['wrk', '-t', min(len(Processors.clients), connections), '-c', connections, '-d', f'{seconds}s', '--timeout', '10s',
             '-s', ROOT / 'bench/request.lua', f'http://127.0.0.1:{peer.port}{request.path}', '--']
    if request.body:
        words.append(request.body)
    before = cpu_seconds(peer.pids())
    output = _run(words)
    spent = cpu_seconds(peer.pids()) - before
    requests, microseconds, size, errors = (
        int(word) for line in output.splitlines() if line.startswith('RESULT ') for word in line.split()[1:])
    if errors or not requests or size < requests * request.least:
        raise BenchError(f'no measurement: {output}')
    return Sample(requests * 1e6 / microseconds, spent * 1e6 / requests, 0)
