#!/usr/bin/env python3
"""Nothing outside the volume root is read, created or changed, whatever name is sent: each attempt of a table with each command
and page that takes a name, symbolic links, and links that are swapped for folders while requests are under way. Looked at on the
disk: a watch on the folder outside, and what it holds before and after.

usage: confinement.py --zemhost PROGRAM [unittest arguments]
"""

import ctypes
import os
import struct
import sys
import threading
import time
import unittest

from wire import *

PROGRAM = None
DENIED, BAD_NAME, TOO_LONG = 0x80070005, 0x8007007B, 0x800700CE
NO_FILE, NO_PATH, THERE, NO_FOLDER = 0x80070002, 0x80070003, 0x800700B7, 0x8007010B
# Where not every command gives the same result: '' is that of the others. A link at the end of a name is what stands there.
LAST = {'': DENIED, 'CREATE_DIRECTORY': THERE, 'MOVE_FILE, to': THERE}
BELOW_FILE = dict.fromkeys(('CREATE_FILE', 'CREATE_FILE, new', 'CREATE_FILE, emptied', 'CREATE_DIRECTORY', 'MOVE_FILE, from',
                            'MOVE_FILE, to'), NO_PATH) | {'': NO_FOLDER}
MARK = b'what nobody may read'

# Names of the fields, and with what result each of the commands below refuses them. {root} is the volume root, {out} the folder
# outside, which holds a clip "secret" and a folder "folder".
NAMES = [
    ('one up', '../outside/secret', DENIED),
    ('one up, backslashes', '..\\outside\\secret', DENIED),
    ('one up, mixed', '..\\outside/secret', DENIED),
    ('one up, doubled separators', '..//outside//secret', DENIED),
    ('one up and on', './../outside/./secret', DENIED),
    ('down and up', 'inside/../../outside/secret', DENIED),
    ('down and up, backslashes', 'inside\\..\\..\\outside\\secret', DENIED),
    ('down and up within', 'inside/../inside/clip', DENIED),
    ('through what is not there', 'none/../../outside/secret', DENIED),
    ('through a file', 'inside/clip/../../../outside/secret', DENIED),
    ('the folder above', '..', DENIED),
    ('the folder above, with a separator', '../', DENIED),
    ('far up', '../' * 60 + 'etc/passwd', DENIED),
    ('absolute', '/etc/passwd', DENIED),
    ('absolute, backslash', '\\etc\\passwd', DENIED),
    ('absolute, two separators', '//etc/passwd', DENIED),
    ('absolute, mixed separators', '\\/etc/passwd', DENIED),
    ('absolute, outside', '{out}/secret', DENIED),
    ('absolute, from the root up', '{root}/../outside/secret', DENIED),
    ('absolute, begins like the root', '{root}s/secret', DENIED),
    ('absolute, the folder of the root', '{root}/..', DENIED),
    ('absolute, the root with dots', '{root}/./../outside/secret', DENIED),
    ('the process', '/proc/self/root/etc/passwd', DENIED),
    ('a descriptor', '/dev/fd/0', DENIED),
    ('drive', 'C:\\outside\\secret', DENIED),
    ('drive, lower case, slashes', 'c:/outside/secret', DENIED),
    ('drive without a separator', 'C:secret', DENIED),
    ('drive behind a separator', '/C:/secret', DENIED),
    ('share', '\\\\server\\share\\secret', DENIED),
    ('share, slashes', '//server/share/secret', DENIED),
    ('device space', '\\\\.\\C:\\secret', DENIED),
    ('long path prefix', '\\\\?\\C:\\secret', DENIED),
    ('kernel object', '\\??\\C:\\secret', DENIED),
    ('URL', 'file:///etc/passwd', DENIED),
    ('alternate stream', 'inside/clip:other', DENIED),
    ('alternate stream, typed', 'inside/clip::$DATA', DENIED),
    ('alternate stream of the folder', 'inside:$I30:$INDEX_ALLOCATION', DENIED),
    ('device', 'NUL', DENIED),
    ('device with an extension', 'inside/con.mov', DENIED),
    ('device with a number', 'Com1', DENIED),
    ('device with a blank', 'aux .x', DENIED),
    ('trailing dot', 'inside/clip.', BAD_NAME),
    ('trailing blank', 'inside/clip ', BAD_NAME),
    ('folder with a trailing dot', 'inside./clip', BAD_NAME),
    ('up with a blank', '.. /outside/secret', BAD_NAME),
    ('up with a dot', '.../outside/secret', BAD_NAME),
    ('up behind a blank', 'inside/ /../../outside/secret', BAD_NAME),
    ('blank', ' ', BAD_NAME),
    ('wildcard', 'inside/*', BAD_NAME),
    ('one of any', 'inside/cli?', BAD_NAME),
    ('wildcards of old', 'inside/clip<', BAD_NAME),
    ('pipe', 'inside|clip', BAD_NAME),
    ('quoted', '"inside/clip"', BAD_NAME),
    ('line end', 'inside/clip\r\n', BAD_NAME),
    ('escape', 'inside/\x1b[31mclip', BAD_NAME),
    ('tabulator', '\tinside/clip', BAD_NAME),
    ('half a pair', 'inside/\ud800', BAD_NAME),
    ('the other half', '\udc00clip', BAD_NAME),
    ('long part', 'x' * 256, TOO_LONG),
    ('long part, by its bytes', '\u00df' * 130, TOO_LONG),
    ('long part above', 'x' * 256 + '/a', TOO_LONG),
]
# The same for symbolic links, and a pipe.
LINKS = [
    ('through a link', 'link/secret', DENIED),
    ('through a link, new', 'link/new', DENIED),
    ('through a link to a folder there', 'link/folder/secret', DENIED),
    ('through an absolute link', 'absolute/secret', DENIED),
    ('through two links', 'second/secret', DENIED),
    ('through a link to the folder above', 'above/outside/secret', DENIED),
    ('through a link to the top', 'top/etc/passwd', DENIED),
    ('through the process', 'process/etc/passwd', DENIED),
    ('through a link and up', 'link/../outside/secret', DENIED),
    ('through a link deep inside', 'inside/deep/link/secret', DENIED),
    ('through a circle', 'circle/secret', DENIED),
    ('a link to a file', 'file', LAST),
    ('a link to where nothing is', 'dangling', LAST),
    ('a link that is a folder', 'link', LAST),
    ('a pipe', 'pipe', LAST),
]
BELOW = [('below a file', 'inside/clip/secret', BELOW_FILE)]
# What a name is for the server is not what a URL would make of it: these lie inside.
LITERAL = ['%2e%2e/outside/secret', '..%2foutside%2fsecret', '%2e%2e%5coutside', '%c0%ae%c0%ae/secret', '%00', '%252e%252e/secret',
           '\u2024\u2024/outside/secret', '\uff0e\uff0e\uff0foutside', '\u2025/secret', '..\u2215outside', '~/secret', '$HOME/secret',
           '`id`', '$(id)', '-rf', ';id', '\x7f', '\u202esecret', '%s%n%9999x', '.hidden', '..inside', 'inside..x', '\u00e9', 'e\u0301']


def units(name):
    return name.encode('utf-16-le', 'surrogatepass')


def field(name):
    return units(name).ljust(520, b'\0')


def block(name, aux=''):
    return field(name) + field(aux) + struct.pack('<II', 0, 1)


TOKEN = ('no token', lambda reply: reply.long(8) == 0)
SAYS_NOTHING = ('status 0', lambda reply: reply.word(0) == 0)

# label, scope that the log names (None: it is silent), code, body of a name, what the answer must show
COMMANDS = [
    ('CREATE_FILE', 'CreateFile', CREATE, lambda n: field(n) + field('') + es_desc() + struct.pack('<I', 3), TOKEN),
    ('CREATE_FILE, new', 'CreateFile', CREATE, lambda n: field(n) + field('') + es_desc() + struct.pack('<I', 0xB), TOKEN),
    ('CREATE_FILE, emptied', 'CreateFile', CREATE, lambda n: field(n) + field('') + es_desc() + struct.pack('<I', 0x13), TOKEN),
    ('OPEN_FILE', 'OpenFile', OPEN, lambda n: block(n) + bytes(2), TOKEN),
    ('OPEN_FILE, to write', 'OpenFile', OPEN, lambda n: field(n) + field('') + struct.pack('<II', 0, 3) + bytes(2), TOKEN),
    ('GET_FILE_INFO2', 'GetFileInfo2', FILE_INFO2, block, ('no descriptor', lambda reply: reply.word(4) != 0x00010038)),
    ('GET_FILE_MARKS2', 'GetFileMarks2', MARKS2, block, ('no answer but the name', lambda reply: reply.data_size() == 12)),
    ('STRIPE_TIMECODE', 'StripeTimecode', STRIPE, lambda n: block(n) + bytes(8), SAYS_NOTHING),
    ('QUERY_FILESYSTEM_SPACE', None, SPACE, field, None),
    ('GET_FILE_ATTRIBS', None, ATTRIBS, field, ('nothing there', lambda reply: reply.word(4) == 0xFFFFFFFF)),
    ('DELETE_FILE', 'DeleteFile', DELETE, field, SAYS_NOTHING),
    ('GET_FILESIZE', 'GetFileSize', FILESIZE, field, ('no size', lambda reply: reply.long(8) == 0)),
    ('CREATE_DIRECTORY', 'CreateDir', MKDIR, field, SAYS_NOTHING),
    ('MOVE_FILE, from', 'MoveFile', MOVE, lambda n: field(n) + field('stolen'), SAYS_NOTHING),
    ('MOVE_FILE, to', 'MoveFile', MOVE, lambda n: field('inside/clip') + field(n), SAYS_NOTHING),
]


class Watch:
    """What happens in a folder outside: that something was read, opened to write, made, changed, moved or removed there."""

    ACCESS, MODIFY, ATTRIB, CLOSE_WRITE, MOVED, CREATE, DELETE, ONLYDIR = 1, 2, 4, 8, 0xC0, 0x100, 0x200, 0x1000000
    libc = ctypes.CDLL(None, use_errno=True)

    def __init__(self, folder):
        self.fd = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        mask = self.ACCESS | self.MODIFY | self.ATTRIB | self.CLOSE_WRITE | self.MOVED | self.CREATE | self.DELETE
        for path, folders, files in os.walk(folder):
            for name in [''] + files:
                added = self.libc.inotify_add_watch(self.fd, os.path.join(path, name).encode(), mask)
                assert added >= 0, os.strerror(ctypes.get_errno())

    def seen(self):
        """(event, name) of all that happened since."""
        try:
            data = os.read(self.fd, 1 << 20)
        except BlockingIOError:
            return []
        events, at = [], 0
        while at < len(data):
            _, mask, _, size = struct.unpack_from('iIII', data, at)
            events.append((mask & 0xFFF, data[at + 16:at + 16 + size].rstrip(b'\0').decode()))
            at += 16 + size
        return events

    def close(self):
        os.close(self.fd)


def tree(folder):
    """All that a folder holds, with what would show a change."""
    found = {}
    for path, folders, files in os.walk(folder):
        for name in folders + files:
            whole = os.path.join(path, name)
            status = os.lstat(whole)
            found[os.path.relpath(whole, folder)] = (status.st_mode, status.st_ino, status.st_nlink, status.st_size,
                                                     status.st_mtime_ns, status.st_ctime_ns)
    return found


class Case(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.server = Server(PROGRAM)
        self.addCleanup(self.server.remove)
        self.root = self.server.volume
        self.outside = os.path.join(self.server.folder, 'outside')
        self.client = Client(self.server.port, 'client')
        self.addCleanup(self.client.close)
        self.client.join()
        self.make_outside()
        self.make_inside()
        self.before = tree(self.outside), tree(self.root + 's')
        self.watches = [Watch(self.outside), Watch(self.root + 's')]
        for watch in self.watches:
            self.addCleanup(watch.close)
            watch.seen()

    def clip(self, name, data=b'inside'):
        token = self.client.create(name)
        self.client.write(token, 0, data)
        self.client.flush(token)
        self.client.post(CLOSE, struct.pack('<Q', token))

    def make_outside(self):
        """Clips and files as the server's own, so that nothing but where they lie keeps it from them."""
        for folder in ('outside/folder', 'volumes'):
            os.makedirs(os.path.join(self.server.folder, folder))
        for name in ('outside/secret', 'outside/folder/secret', 'volumes/secret'):
            self.clip('made', MARK)
            os.rename(os.path.join(self.root, 'made'), os.path.join(self.server.folder, name))
        with open(os.path.join(self.outside, 'plain'), 'wb') as out:
            out.write(MARK)

    def make_inside(self):
        os.makedirs(os.path.join(self.root, 'inside', 'deep'))
        os.makedirs(os.path.join(self.root, 'media', 'folder'))
        self.clip('inside/clip')
        for name, target in (('link', '../outside'), ('absolute', self.outside), ('second', 'link'), ('above', '..'), ('top', '/'),
                             ('process', '/proc/self/root'), ('inside/deep/link', '../../../outside'), ('circle', 'circle'),
                             ('file', '../outside/secret'), ('dangling', '../outside/new'), ('media/link', '../../outside'),
                             ('media/file', '../../outside/plain'), ('media/dangling', '../../outside/new'),
                             ('media/absolute', self.outside), ('media/second', 'link'), ('media/top', '/')):
            os.symlink(target, os.path.join(self.root, name))
        os.mkfifo(os.path.join(self.root, 'pipe'))
        os.mkfifo(os.path.join(self.root, 'media', 'pipe'))
        with open(os.path.join(self.root, 'media', 'plain'), 'wb') as out:
            out.write(b'inside')

    def assert_outside_untouched(self, words):
        self.assertEqual([watch.seen() for watch in self.watches], [[], []], words)
        self.assertEqual((tree(self.outside), tree(self.root + 's')), self.before, words)
        for watch in self.watches:
            watch.seen()  # what the look itself did

    def failures(self, mark):
        """(result, operation) of what failed since the server started, up to what `mark` wrote."""
        self.client.post(99, trans_id=mark)
        self.server.wait_for_line('ZEM command 99 not implemented, transId %d' % mark)
        found = [re.search(r'0x([0-9a-f]{8}) in CHttpCommandHandler::DoCmd(\w+)', line) for line in self.server.lines()]
        return [(int(match[1], 16), match[2]) for match in found if match]


class Names(Case):
    def test_every_name_with_every_command(self):
        self.try_all(NAMES)

    def test_every_link_with_every_command(self):
        self.try_all(LINKS)

    def test_a_name_below_a_file_with_every_command(self):
        self.try_all(BELOW)

    def try_all(self, names):
        expected, inside = [], tree(self.root)
        for label, name, result in names:
            name = name.format(root=self.root, out=self.outside) if '{' in name else name
            for command, scope, code, body, (shows, shown) in ((*c[:4], c[4] or ('', None)) for c in COMMANDS):
                words = '%s: %s' % (command, label)
                reply = self.client.post(code, body(name))
                self.assertEqual((reply.status, reply.word(0)), (200, 0), words)
                if shown:
                    self.assertTrue(shown(reply), words + ': ' + shows)
                self.assertNotIn(MARK, reply.body, words)
                if scope:
                    each = result.get(command, result['']) if isinstance(result, dict) else result
                    expected.append((each, scope, words))
                self.assert_outside_untouched(words)
        self.assertEqual(tree(self.root), inside, 'and nothing new inside')
        failures = self.failures(7)
        for (result, scope, words), failed in zip(expected, failures):
            self.assertEqual(('0x%08x' % failed[0], failed[1]), ('0x%08x' % result, scope), words)
        self.assertEqual(len(failures), len(expected))

    def test_a_name_without_an_end(self):
        for command, _, code, body, _ in COMMANDS:
            whole = bytearray(body('end'))
            at = whole.find(units('end'))
            whole[at:at + 520] = units('../outside/secret'.rjust(260, '/'))
            reply = self.client.post(code, bytes(whole), trans_id=5)
            self.assertEqual((reply.status, reply.word(0)), (500, E_INVALIDARG), command)
            self.assert_outside_untouched(command)

    def test_names_that_only_look_like_it(self):
        for name in LITERAL:
            for command, _, code, body, shown in COMMANDS:
                if command.startswith(('OPEN', 'GET_FILE', 'DELETE', 'MOVE_FILE, from', 'STRIPE')):
                    reply = self.client.post(code, body(name))
                    self.assertTrue(shown[1](reply), command + name)
            self.clip(name)
            self.assertTrue(os.path.isfile(os.path.join(self.root, name)), name)
            self.assertNotEqual(self.client.open(name), 0, name)
            self.assert_outside_untouched(name)

    def test_descriptors_by_name(self):
        """Its third and fourth unit are written over by the count: '..' becomes '../' with a count of 47."""
        for name, count in (('..?', 47), ('..?', 92), ('..?', 46), ('/et', 47), ('\\\\?', 92), ('C:?', 47), ('..?', 1)):
            reply = self.client.post(FRAME_DESC2, block(name) + struct.pack('<Ii', 0, count))
            self.assertEqual((reply.status, reply.word(0)), (200, 0), name)
            self.assertNotIn(MARK, reply.body)
            self.assert_outside_untouched(name)
        failed = self.failures(8)
        self.assertEqual([scope for _, scope in failed], ['GetFrameDesc2'] * 7)

    def test_names_of_streams_and_attributes(self):
        """They name no file: whatever they are, none is looked for."""
        for _, name, _ in NAMES + LINKS + BELOW:
            name = name.format(root=self.root, out=self.outside) if '{' in name else name
            for code, body in ((CREATE, field('inside/clip') + field(name) + es_desc() + struct.pack('<I', 3)),
                               (OPEN, field('inside/clip') + field(name) + struct.pack('<II', 0, 1) + bytes(2))):
                self.assertEqual(self.client.post(code, body).long(8), 0, name)
            for code, rest in ((FILE_INFO2, b''), (MARKS2, b''), (STRIPE, bytes(8))):
                self.assertEqual(self.client.post(code, block('inside/clip', name) + rest).status, 200)
            self.assertEqual(self.client.post(CFG_ATTR, field(name) + units('1\0')).word(0), 0)
            self.assert_outside_untouched(name)
        self.assertEqual(len(self.failures(9)), 6 * len(NAMES + LINKS + BELOW))


# Targets of GET and DELETE with the status that they get; {root}, {out} as above.
TARGETS = [
    ('/media/../outside/plain', 404),
    ('/media/../../outside/plain', 400),
    ('/media/folder/../../../outside/plain', 400),
    ('/media/%2e%2e/%2e%2e/outside/plain', 400),
    ('/media/%2E%2e/.%2e/outside/plain', 400),
    ('/media/..%2f..%2foutside%2fplain', 400),
    ('/media/..%5c..%5coutside%5cplain', 400),
    ('/media/..\\..\\outside\\plain', 400),
    ('/media/folder/..%5c..%5c..%5coutside%5cplain', 400),
    ('/media/.../outside/plain', 400),
    ('/media/..;/outside/plain', 400),
    ('/media/%252e%252e/%252e%252e/outside/plain', 400),
    ('/media/..%252foutside', 400),
    ('/media/%c0%ae%c0%ae/%c0%ae%c0%ae/outside/plain', 400),
    ('/media/%e0%80%ae%e0%80%ae/outside/plain', 400),
    ('/media/%u002e%u002e/outside/plain', 400),
    ('/media/%ef%bc%8e%ef%bc%8e/outside/plain', 400),
    ('/media/plain%00.txt', 400),
    ('/media/../outside/plain%00', 400),
    ('/media/%0d%0aX-Header:%20a', 400),
    ('/media/plain%1b%5b31m', 400),
    ('//outside/plain', 404),
    ('/media//etc/passwd', 400),
    ('/media/{out}/plain', 400),
    ('/media/C:/outside/plain', 400),
    ('/media/C%3a%5coutside', 400),
    ('/media/plain:stream', 400),
    ('/media/plain::$DATA', 400),
    ('/media/plain.', 400),
    ('/media/plain%20', 400),
    ('/media/NUL', 400),
    ('/media/con.txt', 400),
    ('/media/file:///etc/passwd', 400),
    ('http://127.0.0.1/media/../outside/plain', 404),
    ('http://127.0.0.1/media/%2e%2e/outside/plain', 404),
    ('http://outside/media/link/plain', 400),
    ('/media/link/plain', 400),
    ('/media/link/../plain', 200),
    ('/media/link', 400),
    ('/media/link/', 400),
    ('/media/file', 400),
    ('/media/dangling', 400),
    ('/media/absolute/plain', 400),
    ('/media/second/folder/secret', 400),
    ('/media/top/etc/passwd', 400),
    ('/media/pipe', 400),
    ('/media/folder', 400),
    ('/media/', 400),
    ('/zem/../outside/plain', 404),
    ('/zem/link/plain', 400),
    ('/media/' + 'x' * 300, 414),
    ('/media/' + 'folder/' * 40 + 'plain', 400),
]


class Pages(Case):
    def test_every_target(self):
        wrong = []
        for method in ('GET', 'DELETE'):
            for target, status in TARGETS:
                target = target.format(root=self.root, out=self.outside)
                connection = Connection(self.server.port)
                reply = connection.request(method, target)
                connection.close()
                self.assertNotIn(MARK, reply.body, target)
                self.assertNotIn(b'root:', reply.body, target)
                if reply.status != status:
                    wrong.append((method, target[:80], reply.status, status))
                for watch in self.watches:  # a folder may be opened to find out where it is; nothing is read
                    self.assertEqual(watch.seen(), [], target)
            self.assert_outside_untouched(method)
        self.assertEqual(wrong, [])


class Swapped(Case):
    """A folder and a link to the one outside change places all the while; a client that only sends names cannot do that itself."""

    EXCHANGE = 2

    def setUp(self):
        super().setUp()
        for folder in ('', 'media'):
            os.makedirs(os.path.join(self.root, folder, 'now', 'folder'))
            os.symlink(self.outside, os.path.join(self.root, folder, 'then'))
        self.clip('now/secret')
        with open(os.path.join(self.root, 'media', 'now', 'plain'), 'wb') as out:
            out.write(b'inside')
        self.ending = threading.Event()
        self.swaps = 0
        self.swapper = threading.Thread(target=self.swap)
        self.swapper.start()
        self.addCleanup(self.end)

    def end(self):
        self.ending.set()
        self.swapper.join()

    def swap(self):
        folders = [os.open(os.path.join(self.root, folder), os.O_RDONLY) for folder in ('', 'media')]
        while not self.ending.is_set():
            for folder in folders:
                result = Watch.libc.renameat2(folder, b'now', folder, b'then', self.EXCHANGE)
                assert result == 0, os.strerror(ctypes.get_errno())
                self.swaps += 1
        for folder in folders:
            os.close(folder)

    def wait_for_swaps(self, count):
        while self.swaps < count and self.swapper.is_alive():
            time.sleep(0)

    def test_every_command(self):
        for round_ in range(40):
            for command, _, code, body, shown in COMMANDS:
                for name in ('now/secret', 'now/folder/new', 'now/new'):
                    reply = self.client.post(code, body(name))
                    self.assertEqual(reply.status, 200, command)
                    self.assertNotIn(MARK, reply.body)
                    if shown is TOKEN and reply.long(8):
                        read = self.client.read(reply.long(8), 0)
                        self.assertNotIn(MARK, read.body, command)
                        self.client.post(CLOSE, struct.pack('<Q', reply.long(8)))
            self.clip('now/secret')
            self.assert_outside_untouched(round_)
            self.wait_for_swaps(2 * round_)

    def test_pages(self):
        path = os.path.join(self.root, 'media')
        for round_ in range(400):
            for folder in ('now', 'then'):  # wherever the folder is at the moment
                try:
                    if not os.path.islink(os.path.join(path, folder)):
                        fd = os.open(os.path.join(path, folder), os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW)
                        os.close(os.open('plain', os.O_WRONLY | os.O_CREAT, dir_fd=fd))
                        os.close(fd)
                except OSError:  # it has just been changed for the link
                    pass
            for method in ('GET', 'DELETE'):
                reply = self.client.connection.request(method, '/media/now/plain')
                self.assertNotIn(MARK, reply.body)
                self.assertIn(reply.status, (200, 400))
            self.assertEqual([watch.seen() for watch in self.watches], [[], []], round_)
            self.wait_for_swaps(2 * round_)
        self.end()
        self.assert_outside_untouched('')


def main():
    global PROGRAM
    arguments = sys.argv[1:]
    PROGRAM = take_program(arguments, __doc__)
    unittest.main(argv=[sys.argv[0], *arguments])


if __name__ == '__main__':
    main()
