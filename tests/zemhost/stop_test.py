"""How zemhost ends: stop_test.py --zemhost PROGRAM --zemfsck PROGRAM --failing-stop PROGRAM.

Each signal that docs/operations.md names stops the server in order; what was answered is in the files, and these need no
recovery. A server that cannot be stopped in order says so."""

import json
import os
import signal
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), 'e2e'))

from wire import KEEP_ALIVE, Client, Connection, Server, frame_of  # noqa: E402

PROGRAMS = {}
PATIENCE_S = 120


def start(case, program='zemhost'):
    server = Server(PROGRAMS[program])
    case.addCleanup(server.remove)
    return server


def pending(pid):
    """The signals that wait for somebody in the process to take them, a bit each."""
    with open('/proc/%d/status' % pid) as status:
        return int(next(line for line in status if line.startswith('ShdPnd')).split()[1], 16)


class Signals(unittest.TestCase):
    def stop(self, server):
        self.assertEqual(server.stop(PATIENCE_S), 0)
        name = signal.Signals(server.stop_signal).name
        self.assertEqual(server.said, 'zemhost stops: %s\n' % name)

    def in_order(self, number):
        server = start(self)
        server.stop_signal = number
        client, idle = Client(server.port, 'studio'), Connection(server.port)
        client.join()
        token = client.create('clip')
        frames = [bytes([position + 1]) * (10000 + position) for position in range(30)]
        for position, data in enumerate(frames):
            self.assertEqual(client.write(token, position, data).word(0), 0)
        self.stop(server)  # neither flushed nor closed, and nobody has left
        client.close()
        idle.close()

        report = subprocess.run([PROGRAMS['zemfsck'], '--json', os.path.join(server.volume, 'clip')], capture_output=True)
        found = json.loads(report.stdout)
        self.assertEqual((report.returncode, found['result'], found['damages'], found['remarks'], found['frames']['present']),
                         (0, 'clean', 0, 0, len(frames)), found)

        server.start()
        client = Client(server.port, 'studio')
        client.join()
        token = client.open('clip')
        for position, data in enumerate(frames):
            self.assertEqual(frame_of(client.read(token, position)), data)
        self.assertFalse([line for line in server.lines() if 'recovered' in line])
        client.close()
        self.stop(server)

    def test_sigterm_stops_in_order(self):
        self.in_order(signal.SIGTERM)

    def test_sigint_stops_in_order(self):
        self.in_order(signal.SIGINT)

    def test_sighup_stops_in_order(self):
        self.in_order(signal.SIGHUP)

    def test_sigusr1_goes_on_when_the_log_cannot_be_opened_again(self):
        server = start(self)
        client = Client(server.port, 'studio')
        client.join()
        os.remove(server.log)
        os.mkdir(server.log)  # nothing that could be opened
        server.process.send_signal(signal.SIGUSR1)
        end = time.monotonic() + PATIENCE_S
        while pending(server.process.pid) >> (signal.SIGUSR1 - 1) & 1:
            self.assertLess(time.monotonic(), end)
        self.assertEqual(client.post(KEEP_ALIVE).status, 200)
        client.close()
        server.stop_signal = signal.SIGHUP
        self.assertEqual(server.stop(PATIENCE_S), 0)
        self.assertIn("zemhost: cannot open the log file '%s': Is a directory; the log goes on in the file that it was in: "
                      'mend that, and signal again.\n' % server.log, server.said)
        self.assertIn('zemhost stops: SIGHUP\n', server.said)


class OutOfOrder(unittest.TestCase):
    def test_exit_code_and_sentence(self):
        server = start(self, 'failing-stop')
        client = Client(server.port, 'studio')
        client.join()
        client.close()
        self.assertEqual(server.stop(PATIENCE_S), 5)
        self.assertEqual(server.said, 'zemhost stops: SIGTERM\n'
                                      'zemhost: the server did not stop in order; see the error log.\n')


if __name__ == '__main__':
    arguments = sys.argv[1:]
    while len(arguments) > 1 and arguments[0] in ('--zemhost', '--zemfsck', '--failing-stop'):
        PROGRAMS[arguments[0][2:]] = os.path.abspath(arguments[1])
        del arguments[:2]
    if len(PROGRAMS) < 3:
        sys.exit(__doc__)
    unittest.main(argv=[sys.argv[0], *arguments])
