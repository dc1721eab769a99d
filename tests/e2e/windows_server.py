"""zemhost.exe under Wine. Imported before the tests, this takes the place of wire.py's own server. What Wine asks for: its HTTP
driver answers only requests whose Host header is literally the registered prefix's, it has to be told now and then of
connections that it has missed, and settings are those of its one registry."""

import os
import re
import select
import signal
import socket
import subprocess
import time

import wire

WINE_SERVER = '/usr/lib/wine/wineserver'
PREFIX = os.environ.setdefault(
    'WINEPREFIX', os.path.abspath(os.path.join(os.path.dirname(__file__), '..', '..', 'build', 'windows', 'wine')))
WINE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'packaging', 'wine')


def rewrite(connection, data):
    return re.sub(rb'\r\nHost: [^\r\n]*', b'\r\nHost: *:%d' % connection.port, data)


# A connection to each server, by its port, that carries one request and then single bytes.
bells = {}


def ring(port):
    """When a connection ends while another one is made, the wineserver may hand the driver the first before it has taken note
    of the second, and never tells it of new connections again until something happens at one that it has. A byte of a
    request that is never finished is enough; the server under test hears nothing of it."""
    if port in bells:
        try:
            bells[port].send(b'x')
        except OSError:  # the driver ends a connection now and then
            bells[port] = socket.create_connection(('127.0.0.1', port), timeout=10)


def wait(connection):
    """Until there is something to read, or the connection's patience is at its end."""
    end = time.monotonic() + (connection.socket.gettimeout() or 0)
    while time.monotonic() < end and not select.select([connection.socket], [], [], 0.2)[0]:
        ring(connection.port)


def note(text):
    """What Wine did and a test got over, for the summary of the run."""
    print('note: ' + text, flush=True)


def exit_code(code, said, last_words):
    """The wineserver kills what is left of a program half a second after its last thread has ended, so on a busy machine its
    exit code may be lost. Then what the program said tells: `last_words` is a pattern that it matches only if all is well."""
    if code != -signal.SIGKILL or not re.search(last_words, said.replace('\r', '')):
        return code
    note('the wineserver took an exit code')
    return 0


def wine(program, *arguments):
    """The command that runs a Windows program, ours by its path or one of the system's by its name. By a name alone Wine starts
    a second program that looks for it, and now and then does not find it."""
    return [WINE, program if '/' in program else 'C:\\windows\\system32\\%s.exe' % program, *arguments]


def run(*command):
    """Runs a Windows program: its exit code, and what it said."""
    done = subprocess.run(wine(*command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode, done.stdout.decode(errors='replace')


def import_settings(path):
    """With Wine's own program: nothing of ours is at work, so a failure is Wine's."""
    for _ in range(3):
        code, text = run('reg', 'import', path)
        if code in (0, -signal.SIGKILL):
            return
        note('reg import ended with %d: %s' % (code, text.strip()))
    raise wire.NotStarted('reg import ended with %d: %s' % (code, text))


class WindowsServer(wire.Server):
    patience_s = 60
    stop_signal = signal.SIGINT  # arrives as Ctrl-C
    log_name = 'l\u00f6g \u20ac'  # not every letter is one of the ANSI code page

    def named(self, path):
        return path and 'Z:' + path.replace('/', '\\')

    def start(self):
        """The server is ready when it has answered on its bell. Where it does not, the bell went unnoticed, or an earlier
        case has stopped the driver."""
        for _ in range(3):
            super().start()
            bell = socket.create_connection(('127.0.0.1', self.port), timeout=10)
            bell.sendall(b'GET /media/clients HTTP/1.1\r\nHost: *:%d\r\n\r\n' % self.port)
            try:
                if bell.recv(4096):
                    bells[self.port] = bell
                    return
            except OSError:  # nothing for ten seconds, or the driver is gone
                pass
            bell.close()
            self.kill()
            note('the HTTP driver did not notice the first connection: Wine was started anew')
        raise wire.NotStarted('the server does not answer')

    def silence(self):
        bell = bells.pop(self.port, None)
        if bell:
            bell.close()

    def kill(self):
        """Starts Wine anew as well: a program that ends with receives posted lets the wineserver cancel what the driver has
        completed meanwhile. That ends the driver, some tenths of a second later: a server that starts in between is refused its
        URLs."""
        self.silence()
        super().kill()
        stop_wine()
        start_wine()

    def stop(self, timeout_s=None):
        self.silence()
        return exit_code(super().stop(timeout_s or self.patience_s), self.said, r'zemhost stops: .*\n\Z')

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
        import_settings(self.named(self.registry))


def start_wine(errors=subprocess.DEVNULL, debug='-all'):
    """Makes what Wine runs in the background stay until stop_wine, away from our pipes. By itself it ends three seconds after the
    last program; one that comes meanwhile finds half of it: services that are ending, an HTTP driver that is gone. `errors` gets what the
    background says on the channels of `debug`."""
    quiet = {'stdin': subprocess.DEVNULL, 'stdout': subprocess.DEVNULL, 'stderr': errors,
             'env': dict(os.environ, WINEDEBUG=debug)}
    if not os.path.exists(os.path.join(PREFIX, 'system.reg')):
        subprocess.run(wine('cmd', '/c', 'exit'), check=True, **quiet)
        stop_wine()
    subprocess.run([WINE_SERVER, '-p'], **quiet)  # fails where one runs already
    subprocess.run(wine('cmd', '/c', 'exit'), check=True, **quiet)
    start_http()


def start_http(patience_s=60):
    """The HTTP service, so that no server is the first to need it: its first start may fail while the other services begin."""
    end = time.monotonic() + patience_s
    while True:
        code, text = run('net', 'start', 'http')
        if code == 0 or 'already running' in text or 'started successfully' in text:
            return
        note('the HTTP service did not start: ' + text.strip())
        if time.monotonic() > end:
            raise wire.NotStarted('the HTTP service of Wine does not start')
        time.sleep(0.2)


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
