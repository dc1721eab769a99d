"""What the tests of zem share: a zemhost of the class's own or of each test's, the program against it, clips on its volume.

A test file ends with zemcase.main().
"""

import argparse
import json
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import clips  # noqa: E402
from wire import Client, Server  # noqa: E402

PROGRAMS = argparse.Namespace()


def command(port, *arguments):
    return [PROGRAMS.zem, '--server', 'http://127.0.0.1:%d' % port, *arguments]


def run(port, *arguments, **how):
    """zem against whatever listens there."""
    return subprocess.run(command(port, *arguments), capture_output=True, text=True, timeout=300, **how)


class ZemCase(unittest.TestCase):
    """Names of clips and files are below media/ of the volume."""

    @classmethod
    def setUpClass(cls):
        cls.server = Server(PROGRAMS.zemhost)
        cls.media = os.path.join(cls.server.volume, 'media')
        os.mkdir(cls.media)

    @classmethod
    def tearDownClass(cls):
        code = cls.server.stop()
        cls.server.remove()
        assert code == 0, 'zemhost ended with %d' % code

    def command(self, *arguments):
        return command(self.server.port, *arguments)

    def run_zem(self, *arguments, **how):
        return run(self.server.port, *arguments, **how)

    def zem(self, *arguments, code=0):
        """Runs zem, checks its exit code, returns what it wrote to stdout."""
        done = self.run_zem(*arguments)
        self.assertEqual(done.returncode, code, ' '.join(arguments) + ': ' + done.stdout + done.stderr)
        return done.stdout

    def frames(self, name, *arguments):
        """Size and MD5 of each frame."""
        return clips.columns(self.zem('framemd5', 'media/' + name, *arguments))

    def info(self, name, stream=''):
        return json.loads(self.zem('info', 'media/' + name, '--stream', stream, '--json'))

    def path(self, name):
        """A clip of the table, on the volume; made when it is first asked for."""
        path = os.path.join(self.media, name)
        return path if os.path.exists(path) else clips.make(self.media, name)

    def client(self, name):
        client = Client(self.server.port, name)
        self.addCleanup(client.close)
        client.join()
        return client


class OwnServerCase(ZemCase):
    """A server for each test."""

    @classmethod
    def setUpClass(cls):
        pass

    @classmethod
    def tearDownClass(cls):
        pass

    def setUp(self):
        self.server = Server(PROGRAMS.zemhost)
        self.addCleanup(self.server.remove)
        self.addCleanup(lambda: self.assertEqual(self.server.stop(), 0))
        self.media = os.path.join(self.server.volume, 'media')
        os.mkdir(self.media)


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--zem', required=True)
    _, rest = parser.parse_known_args(namespace=PROGRAMS)
    unittest.main(module='__main__', argv=[sys.argv[0], *rest])
