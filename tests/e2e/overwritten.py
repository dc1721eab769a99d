#!/usr/bin/env python3
"""What a client has asked for is what it gets, however late it takes it: frames that are overwritten or erased, and whose space
is given back, while they wait in the sockets of clients that do not read yet. The file's pages are in memory from its writing,
or come from the device, also after a crash, or another program read the whole file, so that the system put neighbours together.
When all have what they asked for, the space is given back.

usage: overwritten.py --zemhost PROGRAM
"""

import ctypes
import os
import socket
import struct
import sys
import threading
import time

from wire import *

WRITERS, EVERY = 6, 2
COUNTS = {20 << 10: 24, 32 << 10: 96, 64 << 10: 96, 300 << 10: 48, 1 << 20: 24, 4 << 20: 24}


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


def read_as_others_do(path):
    """Through and through, and the system reads ahead."""
    with open(path, 'rb', buffering=0) as file:
        while file.read(1 << 20):
            pass


def makes_holes(folder):
    """Whether the file system gives a part of a file back."""
    path = os.path.join(folder, 'hole')
    with open(path, 'wb') as file:
        file.write(bytes(8192))
        file.flush()
        call = ctypes.CDLL(None).fallocate
        call.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_int64, ctypes.c_int64]
        made = call(file.fileno(), 3, 0, 8192) == 0
    os.remove(path)
    return made


def bytes_of_data(path):
    """What is no hole."""
    total, at = 0, 0
    with open(path, 'rb') as file:
        size = os.fstat(file.fileno()).st_size
        while at < size:
            try:
                data = os.lseek(file.fileno(), at, os.SEEK_DATA)
            except OSError:  # nothing but a hole
                break
            at = os.lseek(file.fileno(), data, os.SEEK_HOLE)
            total += at - data
    return total


def space_comes_back(server, writer, name, most):
    """A socket may have what it sent in hand for a moment longer than its client waits."""
    end = time.monotonic() + Connection.patience_s
    while time.monotonic() < end:
        writer.post(CLOSE, struct.pack('<Q', writer.open(name, flags=3)))
        if bytes_of_data(os.path.join(server.volume, name)) <= most:
            return True
    return False


def check(server, size, pages):
    frames = COUNTS[size]
    writer, reader = Client(server.port, 'writer'), Client(server.port, 'reader')
    writer.join()
    reader.join()
    name = f'{pages}{size}'
    token = writer.create(name)
    write(server, token, size, range(frames), 0)
    if pages == 'crashed':
        writer.flush(token)
        server.kill()
    else:
        writer.post(CLOSE, struct.pack('<Q', token))
    if pages != 'warm':
        forget_pages(os.path.join(server.volume, name))
    if pages == 'copied':
        read_as_others_do(os.path.join(server.volume, name))
    if pages == 'crashed':
        server.start()
        writer, reader = Client(server.port, 'writer'), Client(server.port, 'reader')
        writer.join()
        reader.join()
    held = reader.open(name)
    for position in range(frames):
        assert frame_of(reader.read(held, position)) == payload(size, position, 0)
    waiting = [(position, ask(server, held, position)) for position in range(0, frames, EVERY)]
    token = writer.open(name, flags=3)
    again, gone = range(0, frames, 2 * EVERY), range(EVERY, frames, 2 * EVERY)
    write(server, token, size, again, 100)
    for position in gone:
        writer.post(ERASE, struct.pack('<QIII', token, position, position + 1, 0))
    writer.post(CLOSE, struct.pack('<Q', token))
    faults = []
    for position, connection in waiting:
        if frame_of(connection.receive()) != payload(size, position, 0):
            faults.append(position)
        connection.close()
    live = frames - len(gone)
    if makes_holes(server.volume) and not space_comes_back(server, writer, name, live * (size + 8192) + (1 << 16)):
        faults.append('the space')
    reader.post(LEAVE)
    writer.post(LEAVE)
    return faults


def main():
    server = Server(take_program(sys.argv, __doc__))
    failed = False
    try:
        for pages in ['warm', 'cold', 'crashed', 'copied']:
            for size in COUNTS:
                faults = check(server, size, pages)
                if faults:
                    print(f'{pages}, {size} bytes: not as it should be: {faults}')
                    failed = True
    finally:
        server.remove()
    sys.exit(failed)


main()
