#!/usr/bin/env python3
"""The shipped settings file, and zemhost as a service: installed, started by the service control, asked, stopped, removed.

usage: service_test.py --zemhost PROGRAM.exe --registry zemhttpd.reg"""

import argparse
import os
import shutil
import signal
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import windows_server
import wire


def run(*command, code=0):
    ended, text = windows_server.run(*command)
    # A code that the wineserver took (see exit_code): what comes next shows what became of the command.
    assert ended in (code, -signal.SIGKILL), '%s: %d, not %d\n%s' % (' '.join(command), ended, code, text)
    return text


def services():
    """The processes of our service."""
    found = []
    for process in filter(str.isdigit, os.listdir('/proc')):
        try:
            with open('/proc/%s/cmdline' % process, 'rb') as line, open('/proc/%s/environ' % process, 'rb') as environment:
                if b'--service' in line.read().split(b'\0') and os.fsencode(windows_server.PREFIX) in environment.read():
                    found.append(process)
        except OSError:  # ended meanwhile
            pass
    return found


def wait_for_end(processes):
    """Wine starts the service in the process that it had, if that has not ended, and so in vain."""
    end = time.monotonic() + 60
    while any(os.path.exists('/proc/' + process) for process in processes):
        assert time.monotonic() < end, 'the process of the service does not end'
        time.sleep(0.02)


def start():
    """A Wine that has just begun may start the service by itself as soon as it is installed."""
    for _ in range(2):
        code, text = windows_server.run('net', 'start', 'zemhost')
        if 'request timeout' not in text:
            break
        windows_server.note('Wine started the service in a process that was ending')
    assert code in (0, -signal.SIGKILL) or 'already running' in text, 'net start: %d\n%s' % (code, text)
    wait_for_state('RUNNING')


def stop():
    processes = services()
    run('net', 'stop', 'zemhost')
    wait_for_state('STOPPED')
    wait_for_end(processes)


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
    said = os.path.join(folder, 'said')
    log = os.path.join(folder, windows_server.WindowsServer.log_name)
    named = lambda path: 'Z:' + path.replace('/', '\\')
    windows_server.stop_wine()
    with open(said, 'wb') as out:
        windows_server.start_wine(errors=out, debug='-all,err+eventlog')
    installed = False
    try:
        # As shipped, then with a port and a volume of our own.
        run('reg', 'import', named(options.registry))
        settings = run(options.zemhost, '--settings')
        assert 'port 8080 registry' in settings and 'volume D:\\media registry' in settings, settings
        limit = run('reg', 'query', 'HKLM\\System\\CurrentControlSet\\Services\\HTTP\\Parameters', '/v', 'MaxRequestBytes')
        assert '0x400' in limit, limit
        content_type = run('reg', 'query', 'HKCR\\.mxf', '/v', 'Content Type')
        assert 'application/mxf' in content_type, content_type
        port = wire.free_port()
        run('reg', 'add', 'HKLM\\Software\\Quorvane Group\\ZEM', '/v', 'HttpPort', '/t', 'REG_DWORD', '/d', str(port), '/f')
        run('reg', 'add', 'HKLM\\Software\\Quorvane Group\\RUD\\vfs', '/v', '0', '/t', 'REG_SZ', '/d', named(folder), '/f')

        run(options.zemhost, '--remove', code=6)
        run(options.zemhost, '--install', '--log', named(log))
        installed = True
        run(options.zemhost, '--install', code=6)
        start()
        assert answers(port), 'the service does not answer'
        stop()
        assert not answers(port), 'the service answers after its stop'
        start()
        assert answers(port), 'the service does not answer when it is started again'
        # What keeps it from starting stands in the event log; Wine has none, but says what it would write there.
        stop()
        run('reg', 'add', 'HKLM\\Software\\Quorvane Group\\RUD\\vfs', '/v', '0', '/t', 'REG_SZ', '/d', 'Z:\\none', '/f')
        windows_server.run('net', 'start', 'zemhost')
        wait_for_state('STOPPED')
        wait_for_end(services())
        with open(said, encoding='utf-8', errors='replace') as text:
            events = text.read()
        assert "the volume root 'Z:" in events and 'does not exist' in events, events
        run('reg', 'add', 'HKLM\\Software\\Quorvane Group\\RUD\\vfs', '/v', '0', '/t', 'REG_SZ', '/d', named(folder), '/f')
        start()
        run(options.zemhost, '--remove')  # stops it first
        installed = False
        assert not answers(port), 'the service answers after its removal'
        run('net', 'start', 'zemhost', code=1)
        assert os.path.exists(log), 'the service wrote no log'
    except BaseException:
        with open(said, encoding='utf-8', errors='replace') as text:
            print('what the background said:\n' + text.read())
        print(windows_server.run('sc', 'query', 'zemhost')[1])
        if os.path.exists(log):
            with open(log, encoding='utf-8', errors='replace') as text:
                print('the log:\n' + text.read())
        raise
    finally:
        if installed:
            windows_server.run(options.zemhost, '--remove')
        windows_server.stop_wine()
        shutil.rmtree(folder)
    print('installed, started, stopped, kept from starting, removed')


if __name__ == '__main__':
    main()
