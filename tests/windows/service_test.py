#!/usr/bin/env python3
"""The shipped settings file, and zemhost as a service: installed, started by the service control, asked, stopped, removed.

usage: service_test.py --zemhost PROGRAM.exe --registry zemhttpd.reg"""

import argparse
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import windows_server
import wire
from windows_server import WINE


def run(*command, code=0):
    done = subprocess.run([WINE, *command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
    text = done.stdout.decode(errors='replace')
    # A code that the wineserver took (see exit_code): what comes next shows what became of the command.
    assert done.returncode in (code, -signal.SIGKILL), '%s: %d, not %d\n%s' % (' '.join(command), done.returncode, code, text)
    return text


def start():
    """A Wine that has just begun may start the service by itself as soon as it is installed."""
    done = subprocess.run([WINE, 'net', 'start', 'zemhost'], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          stdin=subprocess.DEVNULL)
    text = done.stdout.decode(errors='replace')
    assert done.returncode in (0, -signal.SIGKILL) or 'already running' in text, text
    wait_for_state('RUNNING')


def wait_for_state(state, timeout_s=60):
    """Asks the service control and no port: connections that come and go are what Wine's driver misses others at."""
    end = time.monotonic() + timeout_s
    while True:
        text = run('sc', 'query', 'zemhost')
        if state in text:
            return
        assert time.monotonic() < end, text
        time.sleep(0.1)


def answers(port):
    try:
        connection = wire.Connection(port, 20)
    except ConnectionRefusedError:
        return False
    try:
        return connection.request('GET', '/media/clients').body == b'No Clients\r\n'
    finally:
        connection.close()


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--registry', required=True)
    options = parser.parse_args()
    folder = tempfile.mkdtemp(prefix='zem-service-')
    named = lambda path: 'Z:' + path.replace('/', '\\')
    windows_server.start_wine()
    installed = False
    try:
        # As shipped, then with a port and a volume of our own.
        run('reg', 'import', named(options.registry))
        settings = run(options.zemhost, '--settings')
        assert 'port 8080 registry' in settings and 'volume D:\\media registry' in settings, settings
        limit = run('reg', 'query', 'HKLM\\System\\CurrentControlSet\\Services\\HTTP\\Parameters', '/v', 'MaxRequestBytes')
        assert '0x400' in limit, limit
        port = wire.free_port()
        run('reg', 'add', 'HKLM\\Software\\Quorvane Group\\ZEM', '/v', 'HttpPort', '/t', 'REG_DWORD', '/d', str(port), '/f')
        run('reg', 'add', 'HKLM\\Software\\Quorvane Group\\RUD\\vfs', '/v', '0', '/t', 'REG_SZ', '/d', named(folder), '/f')

        log = os.path.join(folder, 'log')
        run(options.zemhost, '--remove', code=6)
        run(options.zemhost, '--install', '--log', named(log))
        installed = True
        run(options.zemhost, '--install', code=6)
        start()
        assert answers(port), 'the service does not answer'
        run('net', 'stop', 'zemhost')
        wait_for_state('STOPPED')
        assert not answers(port), 'the service answers after its stop'
        start()
        assert answers(port), 'the service does not answer when it is started again'
        run(options.zemhost, '--remove')  # stops it first
        installed = False
        assert not answers(port), 'the service answers after its removal'
        run('net', 'start', 'zemhost', code=1)
        assert os.path.exists(log), 'the service wrote no log'
    finally:
        if installed:
            subprocess.run([WINE, options.zemhost, '--remove'])
        shutil.rmtree(folder)
    print('installed, started, stopped, removed')


if __name__ == '__main__':
    main()
