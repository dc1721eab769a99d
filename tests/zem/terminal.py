#!/usr/bin/env python3
"""zem on a terminal, through a pseudo-terminal: the live view and what it leaves behind, the progress line, colours, and
that names which clients gave themselves do not steer the terminal.

usage: terminal.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import tempfile
import termios
import time
import unittest

import zemcase
from wire import Client, Server

ENTER, LEAVE = b'\x1b[?1049h\x1b[?25l\x1b[?7l', b'\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l'
PATIENCE_S = 60


class Terminal:
    """A process whose standard input, output and error are a terminal of its own."""

    def __init__(self, command, environment, columns=100, lines=24):
        self.master, self.slave = pty.openpty()
        self.resize(columns, lines)
        self.before = termios.tcgetattr(self.slave)
        self.seen = b''

        def own_terminal():
            os.setsid()
            fcntl.ioctl(self.slave, termios.TIOCSCTTY, 0)
        self.process = subprocess.Popen(command, stdin=self.slave, stdout=self.slave, stderr=self.slave, env=environment,
                                        preexec_fn=own_terminal, close_fds=True)

    def resize(self, columns, lines):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack('HHHH', lines, columns, 0, 0))

    def read_until(self, found):
        """Reads what is written until `found` says so of all of it, or fails."""
        end = time.monotonic() + PATIENCE_S
        while not found(self.seen):
            left = end - time.monotonic()
            ready = left > 0 and select.select([self.master], [], [], left)[0]
            if not ready:
                raise AssertionError('not seen; so far: %r' % self.seen[-2000:])
            self.seen += os.read(self.master, 65536)

    def expect(self, part, after=0):
        self.read_until(lambda seen: part in seen[after:])
        return self.seen

    def type(self, keys):
        os.write(self.master, keys)

    def settings(self):
        return termios.tcgetattr(self.slave)

    def end(self):
        """Waits for its end; returns the exit code. What it wrote until then is in `seen`."""
        end = time.monotonic() + PATIENCE_S
        while self.process.poll() is None:
            if time.monotonic() > end:
                self.process.kill()
                raise AssertionError('does not end; so far: %r' % self.seen[-2000:])
            if select.select([self.master], [], [], 0.02)[0]:
                self.seen += os.read(self.master, 65536)
        while select.select([self.master], [], [], 0)[0]:
            self.seen += os.read(self.master, 65536)
        return self.process.returncode

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        os.close(self.master)
        os.close(self.slave)


class Screen:
    """What a terminal would show of what was written to it. Behind the last character of a full line the cursor stays on
    that character until the next one, which would wrap; this and a line feed at the bottom are failures here."""

    def __init__(self, columns, lines):
        self.columns, self.lines = columns, lines
        self.clear()

    def clear(self):
        self.cells = [[' '] * self.columns for _ in range(self.lines)]
        self.line = self.column = 0
        self.full = False

    def rows(self):
        return [''.join(row).rstrip() for row in self.cells]

    def put(self, character):
        assert not self.full, 'wraps behind %r' % ''.join(self.cells[self.line])
        self.cells[self.line][self.column] = character
        self.full = self.column + 1 == self.columns
        self.column = min(self.column + 1, self.columns - 1)

    def erase(self, final):
        row = self.cells[self.line]
        row[self.column:] = [' '] * (self.columns - self.column)
        if final == 'J':
            for below in range(self.line + 1, self.lines):
                self.cells[below] = [' '] * self.columns

    def feed(self, text):
        for sequence, character in re.findall(r'\x1b\[([?\d;]*[A-Za-z])|(.)', text, re.S):
            if character == '\r':
                self.column, self.full = 0, False
            elif character == '\n':
                assert self.line + 1 < self.lines, 'scrolls'
                self.line += 1
                self.full = False
            elif character:
                self.put(character)
            elif sequence == 'H':
                self.line = self.column = 0
                self.full = False
            elif sequence == '?1049h':
                self.clear()
            elif sequence in ('K', 'J'):
                self.erase(sequence)
            else:
                assert re.fullmatch(r'\?(25|7)[hl]|\d*m', sequence), sequence
        return self.rows()


class OnATerminal(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server(zemcase.PROGRAMS.zemhost)
        os.mkdir(os.path.join(cls.server.volume, 'media'))
        cls.folder = tempfile.TemporaryDirectory(prefix='zem-terminal-')
        cls.clip = os.path.join(cls.folder.name, 'clip.mov')
        subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-f', 'lavfi', '-i', 'testsrc2=size=640x360:rate=25',
                        '-t', '8', '-c:v', 'mjpeg', cls.clip], check=True)

    @classmethod
    def tearDownClass(cls):
        code = cls.server.stop()
        cls.server.remove()
        cls.folder.cleanup()
        assert code == 0, 'zemhost ended with %d' % code

    def zem(self, *arguments, environment=None, server=None, address=None, **options):
        variables = {name: value for name, value in os.environ.items() if name not in ('NO_COLOR', 'ZEM_SERVER')}
        variables.update({'TERM': 'xterm', **(environment or {})})
        address = address or 'http://127.0.0.1:%d' % (server or self.server).port
        terminal = Terminal([zemcase.PROGRAMS.zem, '--server', address, *arguments], variables, **options)
        self.addCleanup(terminal.close)
        return terminal

    def join(self, name):
        client = Client(self.server.port, name)
        self.addCleanup(client.close)
        client.join()
        self.addCleanup(client.post, 16)
        return client

    def assert_given_back(self, terminal):
        self.assertTrue(terminal.seen.endswith(LEAVE), terminal.seen[-200:])
        self.assertEqual(terminal.seen.count(ENTER), terminal.seen.count(LEAVE))
        self.assertEqual(terminal.settings(), terminal.before)

    # The live view.

    def test_top_shows_who_comes_and_goes(self):
        self.join('cam-there')
        top = self.zem('top', '--interval', '0.1')
        top.expect(b'cam-there')
        self.assertTrue(top.seen.startswith(ENTER))
        self.assertIn(b' used', top.seen)
        self.assertIn(b'Answers', top.seen)
        came = self.join('cam-new')
        top.read_until(lambda seen: re.search(rb'\+ \d\d:\d\d:\d\d  cam-new', seen))
        came.post(16)
        top.read_until(lambda seen: re.search(rb'- \d\d:\d\d:\d\d  cam-new  left ', seen))
        top.type(b'q')
        self.assertEqual(top.end(), 0)
        self.assert_given_back(top)

    def test_ctrl_c_ends_top_and_gives_the_terminal_back(self):
        top = self.zem('top', '--interval', '0.1')
        top.expect(b'Clients')
        flags = top.settings()[3]
        self.assertFalse(flags & (termios.ECHO | termios.ICANON))
        top.type(b'\x03')
        self.assertEqual(top.end(), 0)
        self.assert_given_back(top)

    def test_signals_give_the_terminal_back(self):
        for number in (signal.SIGTERM, signal.SIGHUP):
            top = self.zem('top', '--interval', '60')
            top.expect(b'Clients')
            top.process.send_signal(number)
            self.assertEqual(top.end(), 0)
            self.assert_given_back(top)

    def test_ctrl_c_at_once_gives_the_terminal_back(self):
        top = self.zem('top', '--interval', '60')
        top.expect(ENTER)
        top.process.send_signal(signal.SIGINT)
        top.process.send_signal(signal.SIGINT)  # the second one may end it by itself
        self.assertIn(top.end(), (0, -signal.SIGINT))
        self.assert_given_back(top)

    def test_a_stopped_top_gives_the_terminal_back_until_it_goes_on(self):
        top = self.zem('top', '--interval', '0.1')
        top.expect(b'Clients')
        top.type(b'\x1a')
        top.read_until(lambda seen: seen.endswith(LEAVE))
        os.waitpid(top.process.pid, os.WUNTRACED)
        self.assertEqual(top.settings(), top.before)
        at = len(top.seen)
        top.process.send_signal(signal.SIGCONT)
        top.expect(b'Clients', at)
        self.assertEqual(top.seen[at:].count(ENTER), 1)
        top.type(b'q')
        self.assertEqual(top.end(), 0)
        self.assert_given_back(top)

    def test_top_follows_the_size_of_the_terminal(self):
        for i in range(30):
            self.join('size-%02d' % i)
        top = self.zem('top', '--interval', '60', columns=100, lines=12)
        top.expect(b'more clients')
        self.assertNotIn(b'size-29', top.seen)
        top.resize(100, 60)
        top.process.send_signal(signal.SIGWINCH)  # the kernel sends it to the foreground group only
        top.expect(b'size-29')
        top.type(b'q')
        self.assertEqual(top.end(), 0)

    def test_top_stays_within_a_small_terminal(self):
        for i in range(12):
            self.join('a-client-with-a-long-name-%02d' % i)
        for columns, lines, last in ((40, 10, '  and 10 more clients'), (20, 5, 'Clients  12 joined'), (1, 1, '~')):
            top = self.zem('top', '--interval', '0.1', columns=columns, lines=lines)
            # Three pictures: what one leaves behind is seen in the next.
            top.read_until(lambda seen: seen.count(b'\x1b[H') > 3)
            top.type(b'q')
            self.assertEqual(top.end(), 0)
            pictures = top.seen[:-len(LEAVE)].decode()
            rows = Screen(columns, lines).feed(pictures)
            shown = [row for row in rows if row]
            self.assertEqual(shown[-1], last, rows)
            if columns >= 20:
                self.assertRegex(shown[0], r'^zem top  http://127')
                self.assertTrue(any(re.match(r'Volume   [\d.]+ % us', row) for row in rows), rows)
                self.assertTrue(any(re.match(r'Answers  [\d.]+ [mu]?s', row) for row in rows), rows)
            if columns == 40:
                self.assertIn('  before    a-client-with-a-long-name-00', rows, 'a full line is whole')

    def test_top_says_that_the_server_is_away_and_goes_on(self):
        server = Server(zemcase.PROGRAMS.zemhost)
        self.addCleanup(server.remove)
        top = self.zem('top', '--interval', '0.1', server=server)
        top.expect(b'0 joined')
        server.kill()
        top.expect(b'No answer')
        top.type(b'q')
        self.assertEqual(top.end(), 3)
        self.assert_given_back(top)

    def test_top_of_a_server_that_is_not_there_is_3_and_touches_nothing(self):
        top = self.zem('top', address='http://127.0.0.1:1')
        self.assertEqual(top.end(), 3)
        self.assertNotIn(ENTER, top.seen)

    # Names that clients gave themselves.

    def test_names_do_not_steer_the_terminal(self):
        self.join('evil \u009b31m\u202e')
        for verb in (['clients'], ['clients', '--json'], ['top', '--count', '2', '--interval', '0.1']):
            terminal = self.zem('--color', 'never', *verb)
            self.assertEqual(terminal.end(), 0)
            self.assertIn(b'\\u009b31m\\u202e', terminal.seen)
            for raw in ('\u009b'.encode(), '\u202e'.encode()):
                self.assertNotIn(raw, terminal.seen)

    # Progress and colours.

    def test_long_work_tells_rate_and_time_left(self):
        bench = self.zem('bench', '--seconds', '30', '--frames', '4', '--frame-size', '64k', '--connections', '1')
        bench.read_until(lambda seen: re.search(
            rb'bench write  \[#+\.+\] +\d+ %  \d+ frames  [\d.]+ [KMG]iB/s  \d:\d\d left', seen))
        bench.type(b'\x03')
        self.assertEqual(bench.end(), 130)
        # The line is cleared before what comes then: what was measured, and that it was stopped.
        self.assertRegex(bench.seen, rb'(?s)\r\x1b\[K[^\r]*: 1 connection, .*\x1b\[31mzem:\x1b\[0m stopped')

    def test_a_put_draws_its_progress(self):
        put = self.zem('put', '--force', '--verify', 'all', self.clip, 'media/drawn')
        self.assertEqual(put.end(), 0)
        self.assertIn(b'media/drawn.v0: video mjpeg, 200 frames', put.seen)
        quiet = self.zem('--quiet', 'put', '--force', self.clip, 'media/drawn')
        self.assertEqual(quiet.end(), 0)
        self.assertEqual(quiet.seen, b'')

    def test_colours_are_for_terminals_and_can_be_switched_off(self):
        red = b'\x1b[31mzem:\x1b[0m'
        for environment, options, coloured in (({}, [], True), ({'NO_COLOR': '1'}, [], False),
                                               ({'NO_COLOR': ''}, [], True), ({'TERM': 'dumb'}, [], False),
                                               ({}, ['--color', 'never'], False),
                                               ({'NO_COLOR': '1'}, ['--color', 'always'], True)):
            terminal = self.zem(*options, 'stat', 'media/none', environment=environment)
            self.assertEqual(terminal.end(), 1)
            self.assertEqual(red in terminal.seen, coloured, (environment, options, terminal.seen))
            self.assertEqual(b'\x1b' in terminal.seen, coloured)


if __name__ == '__main__':
    zemcase.main()
