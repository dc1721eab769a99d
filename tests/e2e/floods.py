#!/usr/bin/env python3
"""Clients that write as fast as they can, over real sockets: they are slowed down, and no frame is lost.

usage: floods.py --zemhost PROGRAM

Together they send more than the server has memory for frames. Every write is answered; after a flush every frame is there.
"""

import os
import struct
import sys
import threading

from wire import *

CLIENTS, CONNECTIONS, FRAMES, FRAME_BYTES = 4, 2, 16, 4 << 20


def main():
    program = take_program(sys.argv, __doc__)
    server = Server(program)
    failures = []

    def flood(client_id, token, first):
        try:
            client = Client(server.port, client_id)
            for position in range(first, CONNECTIONS * FRAMES, CONNECTIONS):
                client.write(token, position, payload)
            client.close()
        except Exception as error:  # a thread's failure is the test's
            failures.append(f'{client_id}: {error!r}')

    try:
        payload = os.urandom(FRAME_BYTES)
        clients, threads = [], []
        for number in range(CLIENTS):
            client = Client(server.port, f'flood{number}')
            client.join(0)
            token = client.create(f'clip{number}', desc=es_desc())
            assert token
            clients.append((client, token))
            threads += [threading.Thread(target=flood, args=(client.id, token, first)) for first in range(CONNECTIONS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for client, token in clients:
            client.flush(token)
            count = CONNECTIONS * FRAMES
            reply = client.post(FRAME_DESC, struct.pack('<QIiI', token, 0, count, 0))
            sizes = [reply.word(8 + 12 * i) for i in range(count)]
            missing = [position for position, size in enumerate(sizes) if size != FRAME_BYTES]
            if missing:
                failures.append(f'{client.id}: frames {missing} are missing')
            if frame_of(client.read(token, count - 1)) != payload:
                failures.append(f'{client.id}: the last frame is not what was written')
            client.close()
    finally:
        server.remove()
    for failure in failures:
        print(failure)
    return bool(failures)


sys.exit(main())
