"""zemhost.exe under Wine. Imported before the tests, this takes the place of wire.py's own server. What Wine asks for: its HTTP driver answers only requests whose
Host header is literally the registered prefix's, and settings are those of its one registry."""

import os
import re
import select
import signal
import socket
import subprocess
import sys
import time

import wire

WINE_SERVER = '/usr/lib/wine/wineserver'
PREFIX = os.environ.setdefault(
    'WINEPREFIX', os.path.abspath(os.path.join(os.path.dirname(__file__), '..', '..', 'build', 'windows', 'wine')))
STUCK = 99  # exit code: nobody answers any more
WINE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'packaging', 'wine')


def rewrite(connection, data):
    return re.sub(rb'\r\nHost: [^\r\n]*', b'\r\nHost: *:%d' % connection.port, data)


def answers(port):
    """Whether the server still gets requests and answers one that it answers at any time."""
    try:
        with socket.create_connection(('127.0.0.1', port), timeout=5) as probe:
            probe.sendall(b'GET /media/clients HTTP/1.1\r\nHost: *:%d\r\n\r\n' % port)
            return probe.recv(1) != b''
    except OSError:
        return False


def wait(connection):
    """Now and then the driver does not notice a request until something else happens at its sockets."""
    begun = time.monotonic()
    end = begun + (connection.socket.gettimeout() or 0)
    while time.monotonic() < end and not select.select([connection.socket], [], [], 1)[0]:
        if time.monotonic() > begun + 8 and not answers(connection.port):
            sys.stdout.flush()
            os._exit(STUCK)
        try:
            socket.create_connection(('127.0.0.1', connection.port), timeout=1).close()
        except OSError:
            pass  # then it is not that


class WindowsServer(wire.Server):
    stop_signal = signal.SIGINT  # arrives as Ctrl-C

    def named(self, path):
        return path and 'Z:' + path.replace('/', '\\')

    def command(self):
        return [WINE, self.program, '--log', self.named(self.log)]

    def write_registry(self):
        super().write_registry()
        with open(self.registry, encoding='utf-8', newline='') as text:
            title, settings = text.read().split('\r\n', 1)
        # Nothing of an earlier server stays.
        keys = ('Quorvane Group', 'WOW6432Node\\Quorvane Group')
        gone = ''.join('[-HKEY_LOCAL_MACHINE\\Software\\%s]\r\n' % key for key in keys)
        with open(self.registry, 'w', encoding='utf-16', newline='') as out:
            out.write(title + '\r\n\r\n' + gone + settings)
        subprocess.run([WINE, 'reg', 'import', self.named(self.registry)], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)


def start_wine():
    """Lets what Wine runs in the background stay from one server to the next, and starts it away from our pipes."""
    quiet = {'stdin': subprocess.DEVNULL, 'stdout': subprocess.DEVNULL, 'stderr': subprocess.DEVNULL}
    subprocess.run([WINE, 'cmd', '/c', 'exit'], check=True, **quiet)


def stop_wine():
    """Ends everything that Wine runs for our tests: a driver that has got stuck as well."""
    subprocess.run([WINE_SERVER, '-k'], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


wire.Connection.rewrite = rewrite
# Its buffer of a connection has 8192 bytes. It grows once, to what has arrived by then; a request that fills it and goes on
# is taken for the end of the connection. Larger requests get through only if they arrive at once.
wire.frame_bytes = lambda wanted: min(wanted, 7000)
wire.Connection.wait = wait
wire.host_of = lambda port: '*:%d' % port
wire.computer_name = lambda: socket.gethostname().upper()[:15]
wire.Server = WindowsServer
