#!/usr/bin/env python3
"""Which room may include what of which other: layers.py SOURCE_DIR. Prints every include that the table does not allow, and
every line of the table that nobody uses any more; exits 1 on either. A room is the longest folder of the table that a source
lies in; what lies in the same room is its own. A name that ends in a slash stands for everything below it."""

import glob
import os
import re
import sys

SERVER = ('platform/platform.h', 'zemhttpd/entry/entrypoint.h', 'zemhttpd/server/httpcmdhdlr.h')

MAY_INCLUDE = {
    'platform': (),

    # The media library: nothing of the server, and foreign files behind one header.
    'mediaio': ('platform/platform.h', 'mediaio/store/', 'mediaio/foreign/foreign.h'),
    'mediaio/allocator': ('platform/platform.h', 'mediaio/zemmemallocator.h'),
    'mediaio/errorlog': ('platform/platform.h', 'mediaio/errorlog.h'),
    'mediaio/store': ('platform/platform.h', 'platform/atomicwait.h', 'platform/posix/views.h', 'mediaio/zemio.h', 'mediaio/zemiotypes.h',
                      'mediaio/zemmemallocator.h', 'mediaio/errorlog.h', 'mediaio/allocator/reservation.h',
                      'mediaio/foreign/foreign.h'),
    'mediaio/foreign': ('platform/platform.h', 'mediaio/zemiotypes.h', 'mediaio/errorlog.h', 'mediaio/cadence.h',
                        'mediaio/store/'),

    # The library: a room shows others the headers that are named here, the rest is its own.
    'zemhttpd/entry': ('platform/platform.h', 'mediaio/errorlog.h', 'zemhttpd/server/httpcmdhdlr.h'),
    'zemhttpd/server': ('platform/platform.h', 'platform/atomicwait.h', 'mediaio/zemchannelio.h', 'zemhttpd/entry/entrypoint.h',
                        'zemhttpd/clients/clienttable.h',
                        'zemhttpd/clients/realtimeclient.h', 'zemhttpd/clients/writegate.h', 'zemhttpd/commands/command.h',
                        'zemhttpd/commands/commandtable.h', 'zemhttpd/commands/wire.h', 'zemhttpd/frameio/httpxactn.h',
                        'zemhttpd/webfiles/capacitycache.h'),
    'zemhttpd/clients': SERVER + ('platform/atomicwait.h', 'mediaio/zemchannelio.h', 'zemhttpd/server/binmap.h', 'zemhttpd/server/narrowtext.h',
                                  'zemhttpd/server/registrykey.h', 'zemhttpd/server/sectionguard.h',
                                  'zemhttpd/commands/command.h', 'zemhttpd/commands/commandtable.h',
                                  'zemhttpd/commands/wire.h', 'zemhttpd/frameio/httpxactn.h'),
    'zemhttpd/commands': SERVER + ('mediaio/zemiotypes.h',),
    'zemhttpd/frameio': SERVER + ('mediaio/zemiotypes.h', 'mediaio/errorlog.h', 'zemhttpd/server/binmap.h',
                                  'zemhttpd/server/registrykey.h', 'zemhttpd/server/sectionguard.h', 'zemhttpd/commands/command.h',
                                  'zemhttpd/commands/commandtable.h', 'zemhttpd/commands/filecommand.h',
                                  'zemhttpd/commands/wire.h'),
    'zemhttpd/webfiles': SERVER + ('zemhttpd/server/responsefields.h', 'zemhttpd/commands/command.h'),

    # The programs: zem shares nothing with the server, zemfsck is the store's, zemhost has the server's two calls.
    'apps/zemhost': ('platform/platform.h', 'mediaio/errorlog/sink.h', 'zemhttpd/entry/zemhttpd.h',
                     'apps/generated/version.h'),
    'apps/zem': ('mediaio/zemiotypes.h', 'mediaio/cadence.h', 'mediaio/foreign/avdesc.h', 'apps/generated/version.h'),
    'apps/zemfsck': ('mediaio/store/crc32c.h', 'mediaio/store/fileio.h', 'mediaio/store/mediafile.h',
                     'apps/generated/version.h'),
}


def room_of(path):
    folder = os.path.dirname(path)
    while folder not in MAY_INCLUDE:
        folder = os.path.dirname(folder)
        if not folder:
            sys.exit('tests/tidy/layers.py has no room for ' + path)
    return folder


def covers(allowed, name):
    return name.startswith(allowed) if allowed.endswith('/') else name == allowed


def main(root):
    good, used = True, set()
    os.chdir(root)
    for folder in ('platform', 'mediaio', 'zemhttpd', 'apps'):
        for path in sorted(glob.glob(folder + '/**/*.*', recursive=True)):
            if not path.endswith(('.h', '.cpp')):
                continue
            room = room_of(path)
            with open(path, encoding='utf-8') as file:
                names = re.findall(r'(?m)^\s*#\s*include "((?:platform|mediaio|zemhttpd|apps)/[^"]+)"', file.read())
            for name in names:
                of = os.path.dirname(name) if name == 'apps/generated/version.h' else room_of(name)
                if of == room:
                    continue
                allowed = [one for one in MAY_INCLUDE[room] if covers(one, name)]
                used.update((room, one) for one in allowed)
                if not allowed:
                    print('%s includes %s: not for the room %s' % (path, name, room))
                    good = False
    for room, names in MAY_INCLUDE.items():
        for name in names:
            if (room, name) not in used:
                print('nothing in %s includes %s any more: take it out of the table' % (room, name))
                good = False
    return good


sys.exit(0 if main(sys.argv[1]) else 1)
