#!/usr/bin/env python3
"""The names of the service's threads, as ps -T, top -H and debuggers show them: every thread has one, and docs/threading.md has
them all.

usage: threads.py --zemhost PROGRAM [unittest arguments]
"""

import argparse
import collections
import glob
import os
import re
import sys
import time
import unittest

from wire import Client, Server

TREE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..')
PROGRAMS = argparse.Namespace()
PATIENCE_S = 60
ALWAYS = {'zem-issuer': 1, 'zem-sniffer': 1}


def names(pid):
    found = collections.Counter()
    for task in os.listdir('/proc/%d/task' % pid):
        try:
            with open('/proc/%d/task/%s/comm' % (pid, task), encoding='ascii') as file:
                found[file.read().rstrip('\n')] += 1
        except OSError:
            pass  # it has just ended
    return found


def documented():
    """The names in the table of threads."""
    with open(os.path.join(TREE, 'docs', 'threading.md'), encoding='utf-8') as file:
        table = re.search(r'(?ms)^## Threads\n(.*?)^## ', file.read())[1]
    return set(re.findall(r'`(zem-[a-z-]+|iou-wrk)`', table))


class Threads(unittest.TestCase):
    def server(self, **options):
        server = Server(PROGRAMS.zemhost, **options)
        self.addCleanup(server.remove)
        self.addCleanup(lambda: self.assertEqual(server.stop(), 0))
        return server

    def expect(self, server, wanted):
        """Waits until there are so many threads of these names. A thread has its maker's name before it has its own."""
        end = time.monotonic() + PATIENCE_S
        while True:
            found = names(server.process.pid)
            if all(found[name] == count for name, count in wanted.items()):
                break
            self.assertLess(time.monotonic(), end, (wanted, found))
            time.sleep(0.01)
        for name in found:
            # The main thread has the program's name; so has the one that a sanitizer keeps.
            self.assertTrue(name in ('zemhost', *documented()) or name.startswith('iou-wrk-'), found)

    def join(self, server):
        client = Client(server.port, 'cam')
        self.addCleanup(client.close)
        client.join()
        return client

    def test_the_server_has_its_threads_by_name(self):
        self.expect(self.server(), {**ALWAYS, 'zem-worker': 4, 'zem-store': 0})

    def test_file_server_mode_has_more_workers(self):
        self.expect(self.server(file_server=True), {**ALWAYS, 'zem-worker': 12})

    def test_the_store_has_its_threads_by_name(self):
        server = self.server(environment={'ZEM_NO_IO_URING': '1'})
        os.mkdir(os.path.join(server.volume, 'media'))
        client = self.join(server)
        self.assertNotEqual(client.create('media/clip'), 0)
        self.expect(server, {**ALWAYS, 'zem-store': 6, 'zem-store-rt': 4, 'zem-log': 1})

    def test_names_of_the_page_are_those_of_the_sources(self):
        used = set()
        for folder in ('mediaio', 'zemhttpd'):
            for path in glob.glob(os.path.join(TREE, folder, '*', '*.*')):
                with open(path, encoding='utf-8') as file:
                    used.update(re.findall(r'TEXT\("(zem-[a-z-]+)"\)', file.read()))
        self.assertEqual(used, documented() - {'iou-wrk'})
        for name in documented():
            self.assertLessEqual(len(name), 15, 'the kernel keeps no more')


if __name__ == '__main__':
    parser = argparse.ArgumentParser()
    parser.add_argument('--zemhost', required=True)
    _, rest = parser.parse_known_args(namespace=PROGRAMS)
    unittest.main(argv=[sys.argv[0], *rest])
