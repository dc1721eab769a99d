#!/usr/bin/env python3
"""A growing file over real sockets: one client records at real-time speed, three others follow it and verify every byte.

usage: growing.py --zemhost PROGRAM [--seconds S] [--rate FRAMES_PER_SECOND] [--bytes MEAN_FRAME_SIZE] [--seed N]

A write is answered before the library has it, so a follower asks for a frame as soon as its write was answered and asks
again while it is told that the file ends before it. What it must never see is a frame that is not, byte for byte, the
one that was written there. A flush covers every answered write: whoever asks after one gets the frame at once. Prints how
long the frames took to appear. Followers wait for the recorder on a condition; only the recording is paced by the clock.
"""

import argparse
import os
import random
import struct
import sys
import threading
import time

from wire import *

READERS = 3
PATIENCE_S = 120  # for a frame to appear
GROWING = 4


class Essence:
    """Frames of different sizes, no two alike: a number in front of a piece of random bytes."""

    def __init__(self, seed, mean):
        draw = random.Random(seed)
        self.noise = draw.randbytes(2 * mean + 65536)
        self.seed, self.mean = seed, mean

    def frame(self, position, version=0):
        draw = random.Random('%d/%d/%d' % (self.seed, position, version))
        size = draw.randrange(self.mean // 2, self.mean * 3 // 2)
        start = draw.randrange(len(self.noise) - size)
        return struct.pack('<II', position, version) + self.noise[start:start + size]


class Recording:
    """What the recorder tells its followers."""

    def __init__(self):
        self.changed = threading.Condition()
        self.answered = []  # for each frame: when its write was answered
        self.versions = {}  # of frames that were made anew: the version that was flushed last
        self.flushed = 0    # frames below are covered by a flush
        self.ended = False
        self.failures = []

    def tell(self, change):
        with self.changed:
            change()
            self.changed.notify_all()

    def fail(self, text):
        self.tell(lambda: self.failures.append(text))

    def check(self, essence, position, seen, least=0):
        """`seen` must be a whole version of the frame, and none that was superseded before it was asked for."""
        version = struct.unpack_from('<I', seen, 4)[0]
        assert version >= least, 'frame %d: version %d after %d was flushed' % (position, version, least)
        assert seen == essence.frame(position, version), 'frame %d is another, or torn' % position

    def await_frame(self, position):
        """When the write was answered, or None at the end of the recording."""
        with self.changed:
            self.changed.wait_for(lambda: len(self.answered) > position or self.ended or self.failures)
            if self.failures or len(self.answered) <= position:
                return None
            return self.answered[position]


def joined(server, name):
    client = Client(server.port, name)
    status = client.join()
    assert status.word(0) == 0, 'join'
    return client


def info(client, token):
    """Frame count and flags as a client is told them."""
    desc = client.post(FILE_INFO, struct.pack('<Q', token)).body[16:72]
    return struct.unpack_from('<I', desc, 36)[0], struct.unpack_from('<I', desc, 44)[0]


def follow(server, recording, essence, number, lags):
    """Reads every frame one behind the recording, and some older one beside it."""
    client = joined(server, 'reader%d' % number)
    token = client.open('live')
    draw = random.Random(essence.seed + number)
    position = 0
    while True:
        answered = recording.await_frame(position)
        if answered is None:
            break
        # What was flushed is there for whoever asks from now on.
        promised = recording.flushed > position
        polls = 0
        while True:
            reply = client.read(token, position)
            status = stream_status(reply)
            if status != END_OF_MEDIA:
                break
            polls += 1
            assert not promised, 'frame %d was flushed and is not there' % position
            assert time.monotonic() < answered + PATIENCE_S, 'frame %d does not appear' % position
        assert status == 0, 'frame %d: 0x%x' % (position, status)
        recording.check(essence, position, frame_of(reply))  # if it was slow, it may see a later version
        lags.append((max(0.0, time.monotonic() - answered), polls))
        older = draw.randrange(position + 1)
        least = recording.versions.get(older, 0)
        reply = client.read(token, older)
        assert stream_status(reply) == 0, 'frame %d: 0x%x' % (older, stream_status(reply))
        recording.check(essence, older, frame_of(reply), least)
        position += 1
    client.close()
    if not recording.failures:
        assert position == len(recording.answered), 'reader %d stopped early' % number


def record(server, recording, essence, seconds, rate):
    """Returns how many frames began late by more than a frame's time: the machine's affair, not a failure."""
    client = joined(server, 'recorder')
    token = client.create('live', flags=0x13)
    watcher = joined(server, 'watcher')
    watched = watcher.open('live')
    yield  # the file is there
    begin = time.monotonic()
    late = 0
    for position in range(int(seconds * rate)):
        due = begin + position / rate
        pause = due - time.monotonic()
        late += pause < -1 / rate
        if pause > 0:
            time.sleep(pause)
        if recording.failures:
            break
        reply = client.write(token, position, essence.frame(position))
        assert reply.status == 200 and reply.word(0) == 0, 'write of frame %d' % position
        at = time.monotonic()
        recording.tell(lambda: recording.answered.append(at))
        if position % rate != rate - 1:
            continue
        # Once a second: a frame of some time ago is made anew, everything is flushed, and another client looks at once.
        old, version = position * 7 // 10, position // rate + 1
        client.write(token, old, essence.frame(old, version))
        reply = client.post(FLUSH, struct.pack('<Q', token))
        assert reply.word(0) == 0, 'flush'
        for what, kind in ((position, 0), (old, version)):
            reply = watcher.read(watched, what)
            assert stream_status(reply) == 0, 'frame %d after the flush: 0x%x' % (what, stream_status(reply))
            assert frame_of(reply) == essence.frame(what, kind), 'frame %d after the flush' % what
        count, flags = info(watcher, watched)
        assert (count, flags & GROWING) == (position + 1, GROWING), 'frame count %d, flags %x' % (count, flags)

        def told():
            recording.flushed = position + 1
            recording.versions[old] = version
        recording.tell(told)
    assert client.post(CLOSE, struct.pack('<Q', token)).word(0) == 0, 'close'
    count, flags = info(watcher, watched)
    assert (count, flags & GROWING) == (len(recording.answered), 0), 'after the close'
    client.close()
    watcher.close()
    yield late


def guarded(recording, work, *arguments):
    try:
        return work(*arguments)
    except Exception as error:  # told to all the others, and at the end
        recording.fail('%s: %s' % (type(error).__name__, error))


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument('--zemhost', required=True)
    options.add_argument('--seconds', type=float, default=3)
    options.add_argument('--rate', type=int, default=25)
    options.add_argument('--bytes', type=int, default=400000)
    options.add_argument('--seed', type=int, default=random.randrange(1 << 31))
    options = options.parse_args()
    print('seed %d' % options.seed, flush=True)

    server = Server(os.path.abspath(options.zemhost))
    recording, essence = Recording(), Essence(options.seed, options.bytes)
    lags = [[] for _ in range(READERS)]
    recorder = record(server, recording, essence, options.seconds, options.rate)
    guarded(recording, next, recorder)
    readers = []
    if not recording.failures:
        readers = [threading.Thread(target=guarded, args=(recording, follow, server, recording, essence, n, lags[n]))
                   for n in range(READERS)]
        for reader in readers:
            reader.start()
        late = guarded(recording, next, recorder)
        recording.tell(lambda: setattr(recording, 'ended', True))
        for reader in readers:
            reader.join()
    code = server.stop()
    server.remove()
    if code != 0:
        recording.failures.append('zemhost ended with %d' % code)
    if recording.failures:
        sys.exit('\n'.join(recording.failures))

    seen = sorted(lag for reader in lags for lag, _ in reader)
    frames = len(recording.answered)
    if frames != int(options.seconds * options.rate) or len(seen) != READERS * frames:
        sys.exit('%d frames recorded, %d read' % (frames, len(seen)))
    print('%d frames, %.0f MB, %d readers; every byte verified' %
          (frames, sum(len(essence.frame(n)) for n in range(frames)) / 1e6, READERS))
    print('from the answer to the write until the frame was read elsewhere: median %.1f ms, 99 %% %.1f ms, most %.1f ms; '
          'asked again %d times' % (seen[len(seen) // 2] * 1e3, seen[len(seen) * 99 // 100] * 1e3, seen[-1] * 1e3,
                                    sum(polls for reader in lags for _, polls in reader)))
    print('%d frames were begun late by more than a frame' % late)


if __name__ == '__main__':
    main()
