#!/usr/bin/env python3
"""What the server does when something runs out: descriptors, the disk, the log's disk, frame memory, the volume itself. Each
time the answer is the one that the protocol gives, the log says why, others are served, and when it is there again all works
without a restart.

usage: exhaustion.py --zemhost PROGRAM [unittest arguments]
"""

import os
import random
import resource
import socket
import struct
import subprocess
import sys
import time
import unittest

from wire import *

PROGRAM = None
TOO_MANY_OPEN_FILES = 0x80070004
DISK_FULL = 0x80070070
PATH_NOT_FOUND = 0x80070003
NOT_FOUND = 0x80070002


class CrampedServer(Server):
    """A server whose volume is a file system of 24 MiB and whose log is on one of 64 KiB, both its own."""

    def command(self):
        script = ('mount -t tmpfs -o size=24m none "$1" && mount -t tmpfs -o size=64k none "$2" && shift 2 && exec "$@"')
        log = os.path.join(self.folder, 'logs')
        os.makedirs(log, exist_ok=True)
        self.log = os.path.join(log, 'log')
        return ['unshare', '--mount', '--map-root-user', 'sh', '-c', script, 'sh', self.volume, log, *super().command()]

    def inside(self, path):
        """The path as the server's process has it."""
        return '/proc/%d/root%s' % (self.process.pid, path)

    def lines(self):
        with open(self.inside(self.log), encoding='utf-8', errors='replace') as text:
            return text.read().splitlines()


def may_mount():
    run = subprocess.run(['unshare', '--mount', '--map-root-user', 'sh', '-c', 'mount -t tmpfs none /mnt'], capture_output=True)
    return run.returncode == 0


class Descriptors(unittest.TestCase):
    def setUp(self):
        self.server = Server(PROGRAM)
        self.addCleanup(self.server.remove)

    def limit(self, none_more):
        """Lets the server open no further descriptor, or as many as it likes."""
        numbers = {int(name) for name in os.listdir('/proc/%d/fd' % self.server.process.pid)}
        wanted = min(set(range(1024)) - numbers) if none_more else 1024
        _, hard = resource.prlimit(self.server.process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.server.process.pid, resource.RLIMIT_NOFILE, (wanted, hard))

    def test_open_without_descriptors(self):
        client = Client(self.server.port, 'client')
        client.join()
        token = client.create('held')
        client.write(token, 0, b'held')
        client.flush(token)
        # Once before: a sanitizer needs descriptors for its first look at an object's type.
        self.assertEqual(frame_of(client.read(token, 0)), b'held')
        os.mkdir(os.path.join(self.server.volume, 'media'))
        with open(os.path.join(self.server.volume, 'media', 'plain'), 'wb') as out:
            out.write(b'plain')
        self.limit(True)
        reply = client.post(CREATE, create_body('new'))
        self.assertEqual((reply.status, reply.word(0), reply.long(8)), (200, 0, 0))
        self.server.wait_for_line('0x%08x in CHttpCommandHandler::DoCmdCreateFile' % TOO_MANY_OPEN_FILES)
        self.assertEqual(frame_of(client.read(token, 0)), b'held', 'what is open is served')
        self.assertEqual(client.connection.request('GET', '/media/plain').status, 400)
        self.server.wait_for_line('Unable to get file attributes')
        self.limit(False)
        self.assertNotEqual(client.create('new'), 0)
        self.assertEqual(client.connection.request('GET', '/media/plain').body, b'plain')
        client.close()

    def test_connections_without_descriptors(self):
        client = Client(self.server.port, 'client')
        client.join()
        # Once before: a sanitizer needs descriptors for its first look at an object's type.
        self.assertEqual(client.post(KEEP_ALIVE).status, 200)
        with socket.create_connection(('127.0.0.1', self.server.port), timeout=120) as early:
            early.sendall(b'GET /media/status HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n')
            while early.recv(1 << 16):
                pass
        self.limit(True)
        waiting = [socket.create_connection(('127.0.0.1', self.server.port), timeout=120) for _ in range(5)]
        for connection in waiting:
            connection.sendall(b'GET /media/status HTTP/1.1\r\nHost: x\r\n\r\n')
        for _ in range(20):
            self.assertEqual(client.post(KEEP_ALIVE).status, 200)
        self.limit(False)
        for connection in waiting:  # they waited in the backlog
            self.assertTrue(connection.recv(4096).startswith(b'HTTP/1.1 200 '))
            connection.close()
        client.close()


class Disk(unittest.TestCase):
    def setUp(self):
        if not may_mount():
            self.skipTest('this user may not mount')
        self.server = CrampedServer(PROGRAM, settings=[RECLAIM_FRAME_BLOCKS])
        self.addCleanup(self.server.remove)
        self.client = Client(self.server.port, 'client')
        self.addCleanup(self.client.close)
        self.client.join()

    def test_disk_full(self):
        client = self.client
        data = [random.Random(position).randbytes(1 << 20) for position in range(40)]
        token = client.create('full')
        for position in range(40):
            reply = client.write(token, position, data[position])
            self.assertEqual((reply.status, reply.word(0)), (200, 0), 'a write is answered before it is done')
        client.post(FLUSH, struct.pack('<Q', token))
        there = [stream_status(client.read(token, position)) == 0 for position in range(40)]
        self.assertGreater(sum(there), 15)
        self.assertLess(sum(there), 24)
        line = 'full: the device did not take the frame at position %d' % there.index(False)
        self.assertIn('0x%08x' % DISK_FULL, self.server.wait_for_line(line)[0])
        for position in range(40):  # what is there is whole
            if there[position]:
                self.assertEqual(frame_of(client.read(token, position)), data[position])
        self.assertEqual(client.post(KEEP_ALIVE).status, 200)
        # Space comes back, and writing goes on in the same file.
        client.post(ERASE, struct.pack('<QIIi', token, 0, 10, 0))
        client.post(FLUSH, struct.pack('<Q', token))
        client.write(token, 50, data[0])
        client.post(FLUSH, struct.pack('<Q', token))
        self.assertEqual(frame_of(client.read(token, 50)), data[0])
        client.post(CLOSE, struct.pack('<Q', token))
        client.post(DELETE, name_field('full'))
        token = client.create('another')
        for position in range(10):
            client.write(token, position, data[position])
        client.post(FLUSH, struct.pack('<Q', token))
        for position in range(10):
            self.assertEqual(frame_of(client.read(token, position)), data[position])

    def test_log_disk_full(self):
        end = time.monotonic() + 20
        while os.statvfs(self.server.inside(os.path.dirname(self.server.log))).f_bavail:
            self.assertLess(time.monotonic(), end)
            self.client.post(99)  # two lines each
        for _ in range(1200):  # more than the log's queue takes: some meet a full disk, or are dropped for others
            self.client.post(98)
        self.assertEqual(self.client.post(KEEP_ALIVE).status, 200)
        token = self.client.create('clip')
        self.client.write(token, 0, b'frame')
        self.client.flush(token)
        self.assertEqual(frame_of(self.client.read(token, 0)), b'frame')
        os.truncate(self.server.inside(self.server.log), 0)
        end = time.monotonic() + 20
        while time.monotonic() < end:
            self.client.post(77)
            lines = self.server.lines()
            if any('ZEM command 77 not implemented' in line for line in lines):
                self.assertTrue(any('error log: ' in line and 'dropped' in line for line in lines), 'and how much was lost')
                return
        self.fail('nothing is logged although there is room again')


class Volume(unittest.TestCase):
    def setUp(self):
        self.server = Server(PROGRAM)
        self.addCleanup(self.server.remove)
        self.client = Client(self.server.port, 'client')
        self.addCleanup(self.client.close)
        self.client.join()

    def test_volume_gone_and_back(self):
        client, away = self.client, self.server.volume + '.away'
        os.mkdir(os.path.join(self.server.volume, 'media'))
        with open(os.path.join(self.server.volume, 'media', 'plain'), 'wb') as out:
            out.write(b'plain')
        token = client.create('clip')
        client.write(token, 0, b'first')
        client.flush(token)
        os.rename(self.server.volume, away)
        try:
            self.assertEqual(client.open('clip'), 0)
            self.assertEqual(client.create('other'), 0)
            failed = self.server.wait_for_line('in CHttpCommandHandler::DoCmdCreateFile')
            self.assertTrue(any('0x%08x' % code in failed[0] for code in (PATH_NOT_FOUND, NOT_FOUND)), failed)
            self.assertEqual(client.connection.request('GET', '/media/plain').status, 400)
            self.assertEqual(client.post(ATTRIBS, name_field('clip')).word(4), 0xFFFFFFFF)
            self.assertEqual(frame_of(client.read(token, 0)), b'first', 'what is open is read')
            self.assertEqual(client.post(KEEP_ALIVE).status, 200)
        finally:
            os.rename(away, self.server.volume)
        self.assertEqual(client.connection.request('GET', '/media/plain').body, b'plain')
        again = client.open('clip')
        self.assertNotEqual(again, 0)
        self.assertEqual(frame_of(client.read(again, 0)), b'first')
        client.write(token, 1, b'second')
        client.flush(token)
        self.assertEqual(frame_of(client.read(again, 1)), b'second')


class FrameMemory(unittest.TestCase):
    def test_frames_larger_than_what_is_left(self):
        """Four uploads of 40 MiB under way at once do not fit into 120: one of them fails, and later it does not."""
        server = Server(PROGRAM, settings=[RECLAIM_FRAME_BLOCKS])
        self.addCleanup(server.remove)
        size = 40 << 20
        uploads = []
        for i in range(4):
            client = Client(server.port, 'client-%d' % i)
            client.join()
            token = client.create('clip-%d' % i)
            body = write_body([(token, 0, [size])])
            entity = struct.pack('<III', 1, WRITE, len(body)) + body
            head = ('POST /zem/ HTTP/1.1\r\nHost: x\r\nZem-Id: %s\r\nContent-Length: %d\r\n\r\n'
                    % (client.id, len(entity) + size)).encode()
            client.connection.send(head + entity + bytes(size - 1))
            uploads.append((client, token))
        for client, _ in uploads:
            client.connection.send(b'\1')
        for client, token in uploads:
            self.assertEqual(client.connection.receive().word(0), 0)
            client.close()  # a body that was not read ends its connection
            client.connection = Connection(server.port)
            client.post(FLUSH, struct.pack('<Q', token))
        for client, token in uploads:
            for _ in range(10):  # on a busy machine an upload may stall for longer than one may
                client.write(token, 0, b'\2' * size)
                client.post(FLUSH, struct.pack('<Q', token))
                stored = frame_of(client.read(token, 0)) == b'\2' * size
                if stored:
                    break
                client.close()
                client.connection = Connection(server.port)
            self.assertTrue(stored, client.id)
            client.close()


class FrameBlocks(unittest.TestCase):
    def test_failed_writes_keep_all_of_them(self):
        """Unless the settings say otherwise: then no frame goes through, and all else does."""
        server = Server(PROGRAM, settings=[REPORT_BLOCKS])
        self.addCleanup(server.remove)
        client, other = Client(server.port, 'client'), Client(server.port, 'other')
        for each in (client, other):
            self.addCleanup(each.close)
            each.join()
        token = client.create('clip')
        client.write(token, 0, b'frame')
        client.flush(token)
        body = write_body([(token, 1, [5])])
        entity = struct.pack('<III', 1, WRITE, len(body)) + body  # and no payload
        bad = ('POST /zem/ HTTP/1.1\r\nHost: x\r\nZem-Id: client\r\nContent-Length: %d\r\n\r\n' % len(entity)).encode() + entity
        for _ in range(0, 7200, 100):
            client.connection.send(bad * 100)
            for _ in range(100):
                self.assertEqual(client.connection.receive().body, struct.pack('<IIII', 1, 4, 4, 0))
        reply = client.read(token, 0)
        self.assertEqual((reply.status, reply.body), (200, struct.pack('<IIII', client.trans_id, 3, 4, 0)), 'and no frame')
        server.wait_for_line('client: Dropping FrameRead, request pos 0; All frame IO transaction blocks in use, transId %d'
                             % client.trans_id)
        self.assertEqual(client.write(token, 1, b'frame').body, struct.pack('<IIII', client.trans_id, 4, 4, 0))
        for each in (client, other):
            self.assertNotEqual(each.create('of ' + each.id), 0)
            self.assertEqual(each.post(KEEP_ALIVE).word(0), 0)
        self.assertEqual(other.connection.request('GET', '/media/status').status, 200)
        self.assertEqual(client.post(FILE_INFO, struct.pack('<Q', token)).word(40), 1, 'no frame was added')
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.missing_blocks(), ('HTTP 300 of 300, 0 kept; frames 0 of 7200, 7200 kept', ''))


class OpenFiles(unittest.TestCase):
    def test_a_client_that_only_opens(self):
        """What it may have open is bounded; others' is theirs, and what it closes it may open again."""
        server = Server(PROGRAM)
        self.addCleanup(server.remove)
        greedy, other = Client(server.port, 'greedy'), Client(server.port, 'other')
        for client in (greedy, other):
            client.join()
        tokens = [greedy.create('clip')]
        while len(tokens) < 2000 and tokens[-1]:
            tokens.append(greedy.open('clip'))
        self.assertEqual(tokens.index(0), 1024)
        server.wait_for_line('0x%08x in CHttpCommandHandler::DoCmdOpenFile' % TOO_MANY_OPEN_FILES)
        self.assertNotEqual(other.open('clip'), 0)
        greedy.post(CLOSE, struct.pack('<Q', tokens[1]))
        self.assertNotEqual(greedy.open('clip'), 0)
        self.assertEqual(greedy.open('clip'), 0)
        for client in (greedy, other):
            self.assertEqual(client.post(LEAVE).status, 200)
            client.close()


def main():
    global PROGRAM
    arguments = sys.argv[1:]
    PROGRAM = take_program(arguments, __doc__)
    unittest.main(argv=[sys.argv[0], *arguments])


if __name__ == '__main__':
    main()
