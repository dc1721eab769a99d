#!/usr/bin/env python3
"""What a client has asked for is what it gets, however late it takes it: frames that are overwritten or erased, and whose space
is given back, while they wait in the sockets of clients that do not read yet. The file's pages are in memory from its writing,
or come from the device, also after a crash.

usage: overwritten.py --zemhost PROGRAM
"""

import os
import socket
import struct
import sys
import threading

from wire import *

FRAMES, WRITERS, EVERY = 24, 6, 2
SIZES = [20 << 10, 32 << 10, 64 << 10, 300 << 10, 1 << 20, 4 << 20]


def payload(size, position, version):
    return bytes([1 + (7 * position + version) % 255]) * size


def write(server, token, size, positions, version):
    """Several at a time, so that the store has more than one record to write at once."""
    failures = []

    def some(first):
        try:
            client = Client(server.port, 'writer')
            for position in positions[first::WRITERS]:
                client.write(token, position, payload(size, position, version))
            client.close()
        except Exception as error:  # a thread's failure is the test's
            failures.append(repr(error))

    threads = [threading.Thread(target=some, args=(first,)) for first in range(WRITERS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failures, failures


def ask(server, token, position):
    """A client that asks for the frame and does not read; returns when the server answers."""
    connection = Connection(server.port)
    body = read_body([(token, position, 0, 0)])
    entity = struct.pack('<III', 1, READ, len(body)) + body
    connection.send(b'POST /zem/ HTTP/1.1\r\nHost: x\r\nZem-Id: reader\r\nContent-Length: %d\r\n\r\n' % len(entity) + entity)
    connection.socket.recv(1, socket.MSG_PEEK)
    return connection


def forget_pages(path):
    with open(path, 'rb') as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def check(server, size, pages):
    writer, reader = Client(server.port, 'writer'), Client(server.port, 'reader')
    writer.join()
    reader.join()
    name = f'{pages}{size}'
    token = writer.create(name)
    write(server, token, size, range(FRAMES), 0)
    if pages == 'crashed':
        writer.flush(token)
        server.kill()
    else:
        writer.post(CLOSE, struct.pack('<Q', token))
    if pages != 'warm':
        forget_pages(os.path.join(server.volume, name))
    if pages == 'crashed':
        server.start()
        writer, reader = Client(server.port, 'writer'), Client(server.port, 'reader')
        writer.join()
        reader.join()
    held = reader.open(name)
    for position in range(FRAMES):
        assert frame_of(reader.read(held, position)) == payload(size, position, 0)
    waiting = [(position, ask(server, held, position)) for position in range(0, FRAMES, EVERY)]
    token = writer.open(name, flags=3)
    again, gone = range(0, FRAMES, 2 * EVERY), range(EVERY, FRAMES, 2 * EVERY)
    write(server, token, size, again, 100)
    for position in gone:
        writer.post(ERASE, struct.pack('<QIII', token, position, position + 1, 0))
    writer.post(CLOSE, struct.pack('<Q', token))
    wrong = []
    for position, connection in waiting:
        if frame_of(connection.receive()) != payload(size, position, 0):
            wrong.append(position)
        connection.close()
    reader.post(LEAVE)
    writer.post(LEAVE)
    return wrong


def main():
    server = Server(take_program(sys.argv, __doc__))
    failed = False
    try:
        for pages in ['warm', 'cold', 'crashed']:
            for size in SIZES:
                wrong = check(server, size, pages)
                if wrong:
                    print(f'{pages}, {size} bytes: other bytes than asked for at {wrong}')
                    failed = True
    finally:
        server.remove()
    sys.exit(failed)


main()
