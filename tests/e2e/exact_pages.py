#!/usr/bin/env python3
"""Status and client pages, file GET and DELETE: whole replies, whole log, and nothing from outside the root.

usage: exact_pages.py --zemhost PROGRAM [--file-server] [--trace] [unittest arguments]
"""

import fcntl
import socket

from exact import *

SECRET = b'SECRET: outside of the root\n'


class PagesCase(ExactCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.connection = Connection(cls.server.port)
        cls.host = host_of(cls.server.port)
        # The trace flag is read at a join; channel 255 leaves no client.
        client = Client(cls.server.port, 'flag')
        client.join(255)
        client.close()
        cls.tracing = cls.trace_flag
        cls.ledger.take(2 if cls.tracing else 0)

    @classmethod
    def tearDownClass(cls):
        cls.connection.close()
        super().tearDownClass()

    def put(self, name, data=b'data'):
        path = os.path.join(self.server.volume, 'media', name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, 'wb') as out:
            out.write(data)
        return path

    def raw(self, target, method='GET', version='1.1', headers=()):
        """The target goes out as it is, bytes and all."""
        if isinstance(target, str):
            target = target.encode('utf-8')
        lines = [method.encode() + b' ' + target + b' HTTP/' + version.encode(), b'Host: 127.0.0.1']
        lines += ['{}: {}'.format(*pair).encode() for pair in headers]
        connection = Connection(self.server.port)
        try:
            connection.send(b'\r\n'.join(lines) + b'\r\n\r\n')
            return connection.receive()
        finally:
            connection.close()

    def page(self, path, body):
        reply = self.connection.request('GET', path)
        self.assertEqual((reply.status, reply.reason), (200, 'OK'))
        if callable(body):
            body = body(reply)
        self.assert_headers(reply, [('Content-Type', 'text/plain'), ('Server', SERVER_NAME),
                                    ('X-ServerName', computer_name()), ('Content-Length', str(len(body)))])
        self.assertEqual(reply.body, body)
        return reply

    def traced(self, path):
        return [Trace('%s: Generic GET request for \'%s\'' % (self.host, path))]

    def get(self, path, data, content_type, shown=None):
        reply = self.connection.request('GET', path)
        self.assertEqual((reply.status, reply.reason), (200, 'OK'))
        self.assert_headers(reply, [('Content-Type', content_type), ('Content-Length', str(len(data)))])
        self.assertEqual(reply.body, data)
        self.assert_log(self.traced(shown or path))

    def no_get(self, path, shown=None, error=None, line=3236):
        """400, with the reason in the log."""
        reply = self.raw(path)
        shown = path if shown is None else shown
        self.assert_no_body(reply, 400, 'Bad Request')
        full = (self.full_get(shown))[:259]
        self.assert_log(self.traced(shown) + [
            Error(error or E_UNEXPECTED, 'SendHttpGetResponse',
                  self.host + (": Unable to get file attributes for '%s'" if line == 3236 else ": Error opening file '%s'")
                  % full, line)])

    def full_get(self, shown):
        return self.server.root + '\\' + shown if self.server.root else shown

    def no_delete(self, path, shown=None):
        reply = self.raw(path, 'DELETE')
        self.assert_no_body(reply, 400, 'Bad Request')
        shown = path if shown is None else shown
        root = self.server.root + '\\' if self.server.root else ''
        self.assert_log([Error(E_UNEXPECTED, 'SendHttpDeleteResponse', self.host +
                               ": Unable to get file attributes for '%s'" % (root + '\\' + shown)[:259], 3323)])

    def interface_refuses(self, target, statuses=(400,), method='GET'):
        reply = self.raw(target, method)
        self.assertIn(reply.status, statuses, target)
        self.assertTrue(reply.header('Content-Type').startswith('text/html'))
        self.assertNotIn(SECRET, reply.body)
        self.assert_log([])


class TextPages(PagesCase):
    def test_status(self):
        self.assert_status('/media/status', '/media/Status', '/media/statusXYZ', '/media/status/deeper', '/media/status?a=b')

    def test_status_by_other_spellings(self):
        self.assert_status('/MEDIA/Status', '/media/%73tatus')

    def assert_status(self, *paths):
        disk = os.statvfs(self.server.volume)
        first = None
        for path in paths:
            shown = path.split('?')[0].replace('%73', 's')
            reply = self.page(path, lambda r: r.body)
            error, free, total = reply.body.decode('ascii').split(' ')
            self.assertEqual((error, int(total)), ('0', disk.f_blocks * disk.f_frsize))
            self.assertLess(int(free), int(total))
            self.assert_log(self.traced(shown))
            first = first or reply.body
            self.assertEqual(reply.body, first)  # ten seconds old at most

    def test_status_is_below_media_only(self):
        self.no_get('/zem/status')
        self.no_get('/media/statu')

    def bins(self, ids):
        """17 bins, the newest first in each; no more bins below 39 clients."""
        bins = [[] for _ in range(17)]
        for client in ids:
            value = 0
            for unit in struct.unpack('<%dH' % len(client), client.encode('utf-16-le')):
                value = (value * 33 + unit) & 0xFFFFFFFF
            bins[value % 17].insert(0, client)
        return [client for one in bins for client in one]

    def test_clients(self):
        self.page('/media/clients', b'No Clients\r\n')
        self.assert_log(self.traced('/media/clients'))
        ids = ['client %d' % i for i in range(20)] + ['Other', 'other', '%s%n']
        for name in ids:
            self.join(name)
        expected = ''.join(name + '\r\n' for name in self.bins(ids)).encode()
        for path in ('/media/clients', '/media/CLIENTSxyz'):
            self.page(path, expected)
            self.assert_log(self.traced(path))
        for name in ids[:20]:
            self.leave(self.client(name))
        self.page('/media/clients', ''.join(name + '\r\n' for name in self.bins(ids[20:])).encode())
        self.assert_log(self.traced('/media/clients'))

    def test_client_page_ends_at_the_last_whole_line(self):
        ids = ['%02d' % i + 'x' * 257 for i in range(22)]
        for name in ids:
            self.join(name)
        lines = [name + '\r\n' for name in self.bins(ids)]
        self.assertGreater(len(''.join(lines)), 5199)
        self.page('/media/clients', ''.join(lines[:5199 // 261]).encode())
        self.assert_log(self.traced('/media/clients'))

    def test_http_1_0(self):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        connection.send(b'GET /media/clients HTTP/1.0\r\nHost: old\r\n\r\n')
        reply = connection.receive()
        self.assertEqual((reply.status, reply.body), (200, b'No Clients\r\n'))
        self.assertEqual(reply.header('Connection'), 'close')
        self.assertEqual(connection.socket.recv(1), b'')
        self.assertEqual(len(self.ledger.take(1 if self.tracing else 0)), 1 if self.tracing else 0)


class Download(PagesCase):
    def test_get_and_types(self):
        data = bytes(range(256)) * 4096
        for name, content_type in (('plain', 'application/octet-stream'), ('a.txt', 'text/plain'), ('A.TXT', 'text/plain'),
                                   ('b.tar.txt', 'text/plain'), ('c.mxf', 'application/octet-stream'),
                                   ('folder.txt/d', 'application/octet-stream'), ('dot.', 'application/octet-stream'),
                                   ('deep/er/e.txt', 'text/plain')):
            path = self.put(name, data)
            self.get('/media/' + name, data, content_type)
            os.remove(path)
        self.put('empty', b'')
        self.get('/media/empty', b'', 'application/octet-stream')
        self.put('sp ace \u00e4\u20ac.txt', b'name')
        self.get('/media/sp%20ace%20%C3%A4%E2%82%AC.txt', b'name', 'text/plain', '/media/sp ace \u00e4\u20ac.txt')

    def test_paths_inside_that_are_written_otherwise(self):
        self.put('in/file', b'inside')
        for target, shown in (('/media/in/../in/file', None), ('/media/./in/file', None), ('/media/%69n/file', None),
                              ('/media\\in\\file', None), ('/media/in%5Cfile', None), ('/media/in%2Ffile', None),
                              ('/media/x/%2e%2e/in/file', None), ('/media/in/file?query=../..', None),
                              ('/media/in//file', '/media/in//file'), ('/elsewhere/../media/in/file', None),
                              ('http://127.0.0.1/media/in/file', None)):
            reply = self.raw(target)
            self.assertEqual((reply.status, reply.body), (200, b'inside'), target)
            found = self.ledger.take(1 if self.tracing else 0)
            wanted = ["Generic GET request for '%s'" % (shown or '/media/in/file')] if self.tracing else []
            self.assertEqual([line.split(': ', 1)[1] for line in found], wanted, target)

    def test_not_there(self):
        os.makedirs(os.path.join(self.server.volume, 'media', 'folder'), exist_ok=True)
        for path in ('/media/missing.txt', '/media/folder', '/media/folder/', '/media/', '/zem/x', '/media/folder/x/y'):
            self.no_get(path)
            self.no_delete(path)

    def test_nothing_from_outside(self):
        outside = os.path.join(self.server.folder, 'secret')
        with open(outside, 'wb') as out:
            out.write(SECRET)
        folder = os.path.join(self.server.folder, 'secrets')
        os.mkdir(folder)
        with open(os.path.join(folder, 'secret'), 'wb') as out:
            out.write(SECRET)
        media = os.path.join(self.server.volume, 'media')
        os.makedirs(media, exist_ok=True)
        # Above the root, in every spelling.
        for up in ('..', '%2e%2e', '.%2E', '%2E.'):
            for slash in ('/', '\\', '%5c', '%2f'):
                self.interface_refuses('/media' + (slash + up) * 2 + slash + 'secret')
                self.interface_refuses('/media' + (slash + up) * 12 + slash + 'etc/hostname')
                self.interface_refuses('/media' + (slash + up) * 2 + slash + 'secret', method='DELETE')
                self.interface_refuses('/media' + slash + up + slash + 'secret', (404,))
        # NUL and other control bytes, ill-formed and overlong UTF-8, halves of an escape.
        for target in ('/media/a%00', '/media/a%00.txt', '/media/%0a', '/media/%1f', b'/media/a\x00b', b'/media/a\x01b'):
            self.interface_refuses(target)
        for bad in ('%c0%ae%c0%ae', '%e0%80%ae%e0%80%ae', '%f0%80%80%ae', '%ff', '%ed%a0%80', '%', '%2', '%zz'):
            reply = self.raw('/media/%s/%s/secret' % (bad, bad))
            self.assertEqual(reply.status, 400, bad)
            self.assertNotIn(SECRET, reply.body)
            self.ledger.take(0)
        # Encoded twice is a name like any other.
        self.no_get('/media/%252e%252e/%252e%252e/secret', '/media/%2e%2e/%2e%2e/secret')
        # Links, a pipe, a socket.
        os.symlink(outside, os.path.join(media, 'link'))
        os.symlink('../../secret', os.path.join(media, 'link2'))
        os.symlink(folder, os.path.join(media, 'linked'))
        os.symlink('..', os.path.join(media, 'up'))
        os.mkfifo(os.path.join(media, 'pipe'))
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(os.path.join(media, 'socket'))
        listener.close()
        for path in ('/media/link', '/media/link2', '/media/linked/secret', '/media/up/../secret', '/media/pipe',
                     '/media/socket', '/media/up/media/link', '/media/linked'):
            shown = path.replace('/up/..', '')
            self.no_get(path, shown)
            self.no_delete(path, shown)
        for path in (outside, os.path.join(folder, 'secret')):
            with open(path, 'rb') as still:
                self.assertEqual(still.read(), SECRET)
        self.assertTrue(os.path.islink(os.path.join(media, 'link')))

    def long_paths(self, *lengths):
        """Paths of files that are there and that have these lengths with the root before them."""
        root = len(self.server.root) + 1
        for length in lengths:
            rest = length - root - len('/media/')
            name = 'p' * 100 + '/' + 'q' * (rest - 101) if rest <= 300 else 'p' * 100 + '/' + 'q' * 200 + '/' + 'r' * (
                rest - 302)
            self.put(name, b'long')
            yield '/media/' + name

    def test_get_of_259_characters(self):
        for path in self.long_paths(258, 259):
            self.get(path, b'long', 'application/octet-stream')

    def test_get_of_260_characters_and_more(self):
        for path in self.long_paths(260, 261, 400):
            self.no_get(path)

    def test_delete_of_258_characters(self):
        # DELETE has one character more before the path.
        for path in self.long_paths(257, 258):
            self.deleted(path)

    def test_delete_of_259_characters_and_more(self):
        for path in self.long_paths(259, 260, 261, 400):
            self.no_delete(path)
            self.assertTrue(os.path.exists(os.path.join(self.server.volume, path[1:])))

    def test_segment_of_261_characters(self):
        self.interface_refuses('/media/' + 's' * 261, (414,))

    def deleted(self, path, shown=None):
        reply = self.raw(path, 'DELETE')
        self.assertEqual((reply.status, reply.reason, reply.body), (200, 'OK', b''))
        self.assert_headers(reply, [('Content-Length', '0')])
        self.assert_log([Trace("%s: Deleting file '%s\\\\%s'..." % (self.host, self.server.root, shown or path))])

    def test_delete(self):
        path = self.put('old.txt')
        self.deleted('/media/old.txt')
        self.assertFalse(os.path.exists(path))
        self.no_delete('/media/old.txt')
        path = self.put('status')  # the pages are for GET alone
        self.deleted('/media/status')
        self.assertFalse(os.path.exists(path))

    def test_delete_of_a_file_that_is_being_written(self):
        path = self.put('recording')
        full = '%s\\\\/media/recording' % self.server.root
        with open(path, 'rb') as writer:
            fcntl.flock(writer, fcntl.LOCK_EX)
            self.assert_no_body(self.raw('/media/recording', 'DELETE'), 400, 'Bad Request')
            self.assert_log([Trace("%s: Deleting file '%s'..." % (self.host, full)),
                             Error(SHARING, 'SendHttpDeleteResponse',
                                   "%s: Error deleting file '%s'" % (self.host, full), 3329)])
            self.assertTrue(os.path.exists(path))
        self.deleted('/media/recording')

    def test_delete_of_an_encoded_name(self):
        self.put('\u00e4 b')
        self.deleted('/media/%c3%a4%20b', '/media/\u00e4 b')

    def test_what_a_client_recorded(self):
        client = self.join()
        token = self.create(client, 'media/clip')
        self.write(client, token, 0, b'frame')
        self.flush(client, token)
        with open(os.path.join(self.server.volume, 'media', 'clip'), 'rb') as stored:
            data = stored.read()
        self.get('/media/clip', data, 'application/octet-stream')
        self.close_file(client, token)
        self.deleted('/media/clip')


class WithoutRoot(PagesCase):
    """Without a volume root nothing is served, least of all the machine's own root."""

    def test_no_root_no_start(self):
        for volume in (None, '', 'nowhere'):
            server = None
            try:
                with self.assertRaisesRegex(RuntimeError, 'volume root'):
                    server = Server(self.program, volume=volume)
            finally:
                if server:
                    server.remove()

    def test_root_that_goes_away(self):
        self.put('x', b'inside')
        root, away = self.server.volume, self.server.folder + '/away'
        os.rename(root, away)
        try:
            for path in ('/media/x', '/media/etc/hostname', '/zem/x'):
                self.no_get(path)
                self.no_delete(path)
            self.create_fails(self.join())
            self.page('/media/status', b'80070003 0 0')
            self.assert_log(self.traced('/media/status') +
                            [Trace(self.host + ': error 0x80070003 querying disk capacity on status check')])
            self.page('/media/status', b'0 0 0')  # the error is shown by the call that met it
            self.assert_log(self.traced('/media/status'))
        finally:
            os.rename(away, root)
        self.page('/media/status', b'0 0 0')  # for ten seconds
        self.assert_log(self.traced('/media/status'))
        self.get('/media/x', b'inside', 'application/octet-stream')

    def create_fails(self, client):
        self.open(client, 'none', library=PATH_NOT_FOUND)


class Permissions(PagesCase):
    """What the system refuses to a service that is not the administrator's."""

    NOBODY = 65534

    @classmethod
    def setUpClass(cls):
        cls.user = cls.NOBODY if os.geteuid() == 0 else None
        if cls.user is not None:
            need_for_everyone(cls.program)
        super().setUpClass()

    def test_file_that_may_not_be_read(self):
        path = self.put('closed')
        os.chmod(path, 0)
        self.no_get('/media/closed', error=E_ACCESSDENIED, line=3263)

    def no_delete(self, path):
        reply = self.raw('/media/' + path, 'DELETE')
        self.assert_no_body(reply, 400, 'Bad Request')
        full = '%s\\\\/media/%s' % (self.server.root, path)
        self.assert_log([Trace("%s: Deleting file '%s'..." % (self.host, full)),
                         Error(E_ACCESSDENIED, 'SendHttpDeleteResponse',
                               "%s: Error deleting file '%s'" % (self.host, full), 3329)])

    def test_file_that_may_not_be_deleted(self):
        path = self.put('kept/file')
        folder = os.path.dirname(path)
        os.chmod(folder, 0o555)
        self.no_delete('kept/file')
        os.chmod(folder, 0o755)
        self.assertTrue(os.path.exists(path))

    def test_file_of_which_it_cannot_be_told_whether_it_is_written(self):
        path = self.put('everybody/others')
        os.chmod(os.path.dirname(path), 0o777)
        os.chmod(path, 0o200)
        self.no_delete('everybody/others')
        self.assertTrue(os.path.exists(path))


if __name__ == '__main__':
    main()
