"""What the suites of the Python client share: where it lies, and a running service."""

import os
import sys
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..'))
sys.path[:0] = [os.path.join(ROOT, 'clients', 'python'), os.path.join(ROOT, 'tests', 'e2e')]

from wire import Server  # noqa: E402
from zemclient import ZemClient  # noqa: E402

PROGRAM = None


class ServerCase(unittest.TestCase):
    """One service for the whole class; every test uses client and file names of its own."""

    @classmethod
    def setUpClass(cls):
        cls.server = Server(PROGRAM)
        cls.url = 'http://127.0.0.1:%d' % cls.server.port

    @classmethod
    def tearDownClass(cls):
        code = cls.server.stop()
        cls.server.remove()
        assert code == 0, 'zemhost ended with %d' % code

    def client(self, **options):
        """Joined under the test's name."""
        return self.enterContext(ZemClient(self.url, self.id().split('.')[-1], **options))


def main(usage):
    global PROGRAM
    arguments = sys.argv[1:]
    if arguments[:1] != ['--zemhost'] or len(arguments) < 2:
        sys.exit(usage)
    PROGRAM = os.path.abspath(arguments[1])
    unittest.main(argv=[sys.argv[0], *arguments[2:]])
