"""zemhost.exe under Wine. Imported before the tests, this takes the place of wire.py's own server. What Wine asks for: its HTTP driver answers only requests whose
Host header is literally the registered prefix's, and settings are those of its one registry."""

import os
import re
import signal
import socket
import subprocess

import wire

WINE_SERVER = '/usr/lib/wine/wineserver'
WINE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'packaging', 'wine')


def rewrite(connection, data):
    return re.sub(rb'\r\nHost: [^\r\n]*', b'\r\nHost: *:%d' % connection.port, data)


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


wire.Connection.rewrite = rewrite
wire.frame_bytes = lambda wanted: min(wanted, 100000)
wire.host_of = lambda port: '*:%d' % port
wire.computer_name = lambda: socket.gethostname().upper()[:15]
wire.Server = WindowsServer
