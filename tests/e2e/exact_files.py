#!/usr/bin/env python3
"""The file commands and frame I/O: whole replies, whole log.

usage: exact_files.py --zemhost PROGRAM [--file-server] [--trace] [unittest arguments]
"""

import select
import socket

from exact import *

OK = struct.pack('<I', 0)
VIDEO, AUDIO, TIMECODE, DATA = 1, 2, 3, 4
READ_FLAG, WRITE_FLAG, NEW, TRUNCATE = 1, 2, 8, 16
PRESENT, KEY, WAS_ERASED = 2, 1, 4


class FilesCase(ExactCase):
    def path(self, *parts):
        return os.path.join(self.server.volume, *parts)

    def plain_file(self, name, data=b'data'):
        with open(self.path(name), 'wb') as out:
            out.write(data)

    def clip(self, client, name, frames, **kw):
        """A file of so many frames of 10, 11, 12 ... bytes, still open for writing."""
        token = self.create(client, name, **kw)
        for position in range(frames):
            self.write(client, token, position, bytes([position & 255]) * (10 + position))
        self.flush(client, token)
        return token


class OpenCreateClose(FilesCase):
    def test_create_open_close(self):
        client = self.join()
        token = self.create(client, 'occ/one')
        self.close_file(client, token)
        self.close_file(client, token, library=E_HANDLE)
        again = self.open(client, 'occ\\one')
        self.assertNotEqual(token, again)
        self.close_file(client, again)

    def test_token_kinds(self):
        client = self.join()
        for number, kind in ((VIDEO, 1), (AUDIO, 2), (TIMECODE, 7), (DATA, 8)):
            token = self.create(client, 'kind/%d' % number, desc=es_desc(number))
            self.assertEqual(token >> 24 & 255, kind)
            self.close_file(client, token)
        for name, kind in (('tc', 7), ('mk', 24), ('v0', 1), ('', 1)):
            token = self.open(client, 'kind/1', aux=name)
            self.assertEqual(token >> 24 & 255, kind)
            self.close_file(client, token)

    def test_library_failures(self):
        client = self.join()
        self.open(client, 'missing', library=NOT_FOUND)
        self.open(client, 'missing/deeper', library=NOT_FOUND)
        self.open(client, '', library=E_INVALIDARG)
        token = self.create(client, 'fail/one', flags=NEW)
        self.create(client, 'fail/one', flags=NEW, library=FILE_EXISTS)
        self.create(client, 'fail/one', library=SHARING)
        self.open(client, 'fail/one', flags=READ_FLAG | WRITE_FLAG, library=SHARING)
        self.create(client, 'fail/two', flags=0x20, library=E_INVALIDARG)
        self.create(client, 'fail/two', flags=0x80000000, library=E_INVALIDARG)
        self.open(client, 'fail/one', flags=0x20, library=E_INVALIDARG)
        self.open(client, 'fail/one', media_type=5, library=E_INVALIDARG)
        self.open(client, 'fail/one', media_type=AUDIO, library=NO_STREAM)
        self.open(client, 'fail/one', aux='a1', library=NO_STREAM)
        self.open(client, 'fail/one', aux='nonsense', library=E_INVALIDARG)
        for desc in (bytes(56), es_desc(0), es_desc(5), es_desc(rate=(25, 0)), es_desc()[:55] + b'\1'):
            self.create(client, 'fail/two', desc=desc, library=E_INVALIDARG)
        self.close_file(client, token)
        self.close_file(client, 0, library=E_HANDLE)
        self.close_file(client, 0xFFFFFFFFFFFFFFFF, library=E_HANDLE)
        self.assertFalse(os.path.exists(self.path('fail', 'two')))

    def test_truncate(self):
        client = self.join()
        self.close_file(client, self.clip(client, 'truncate', 3))
        token = self.create(client, 'truncate', flags=3 | TRUNCATE)
        self.assertEqual(info_of(client, token)[36:40], struct.pack('<I', 0))
        self.ledger.take(2 if self.tracing else 0)
        self.close_file(client, token)

    def test_names_that_leave_the_root(self):
        client = self.join()
        outside = os.path.join(self.server.folder, 'outside')
        os.mkdir(outside)
        for name in ('..', '../outside/a', 'a/../../outside/a', '..\\outside\\a', '/etc/hostname', '\\etc\\hostname',
                     'C:\\a', 'C:a', '\\\\server\\share\\a', 'a:stream', 'CON', 'nul.txt', 'a/LPT1',
                     self.server.root + 'x/a', self.server.root + '/../outside/a'):
            self.create(client, name, library=E_ACCESSDENIED)
            self.open(client, name, library=E_ACCESSDENIED)
        for name in ('a*', 'a?b', 'a<', 'a|', '"', 'end.', 'end ', '\ud800'):
            shown = name.replace('\ud800', '\ufffd')
            body = create_body('x')
            body = name.encode('utf-16-le', 'surrogatepass').ljust(520, b'\0') + body[520:]
            log = [Trace("{c}: handling CMD_CREATE_FILE, file '%s', transId {t}" % shown),
                   Scope(INVALID_NAME, 'DoCmdCreateFile'), Trace('{c}: CMD_CREATE_FILE OK, token 0x0, transId {t}'),
                   Trace('{c}: Create after sending response token 0x0 hr 0x0, transId {t}')]
            self.ask(client, CREATE, body, 2, OK + body[4:8] + bytes(8), log)
        self.create(client, 'n' * 256, library=win32(206))
        self.assertEqual(os.listdir(outside), [])
        # An absolute name below the root is inside.
        token = self.create(client, self.server.root + '/absolute')
        self.close_file(client, token)
        self.assertTrue(os.path.isfile(self.path('absolute')))

    def test_links_and_pipes(self):
        client = self.join()
        outside = os.path.join(self.server.folder, 'linked')
        os.mkdir(outside)
        os.symlink(outside, self.path('link'))
        os.mkfifo(self.path('fifo'))
        for name in ('link/a', 'link', 'fifo'):
            self.create(client, name, library=E_ACCESSDENIED)
            if not name.startswith('link/'):
                self.open(client, name, library=E_ACCESSDENIED)
        self.assertEqual(os.listdir(outside), [])

    def test_unknown_client(self):
        client = self.client()
        for code, body, name in ((OPEN, open_body('one'), 'Open'), (CREATE, create_body('one'), 'Create')):
            upper = name.upper()
            self.ask(client, code, body, 2, OK + body[4:8] + bytes(8),
                     [Trace("{c}: handling CMD_%s_FILE, file 'one', transId {t}" % upper),
                      unknown_client('DoCmd%sFile' % name),
                      Trace('{c}: CMD_%s_FILE OK, token 0x0, transId {t}' % upper),
                      Trace('{c}: %s after sending response token 0x0 hr 0x0, transId {t}' % name)])
        self.close_file_of_stranger(client)
        self.assertFalse(os.path.exists(self.path('one')))

    def close_file_of_stranger(self, client):
        self.simple(client, CLOSE, struct.pack('<Q', 5), 5, 'DoCmdCloseFile', True,
                    '{c}: handling CMD_CLOSE_FILE, token 5, transId {t}', '{c}: CMD_CLOSE_FILE OK, token 5, transId {t}')

    def test_names_without_a_nul_are_refused(self):
        client = self.join()
        full = 'a'.encode('utf-16-le') * 260
        empty = bytes(520)
        blocks = {CREATE: ('CREATE_FILE', es_desc() + bytes(4)), OPEN: ('OPEN_FILE', bytes(10))}
        for code, (name, rest) in blocks.items():
            for names in (full + empty, empty + full):
                self.refused(client, code, names + rest, E_INVALIDARG,
                             [Scope(E_INVALIDARG, 'On_CMD_' + name), Trace('{c}: error CMD_%s, transId {t}' % name)])
        for code, name, shown in ((FILE_INFO2, 'GET_FILE_INFO2', 'CMD_GET_FILE_INFO2, file %s,'),
                                  (MARKS2, 'GET_FILE_MARKS2', "GET_FILE_MARKS2, file '%s',"),
                                  (STRIPE, 'STRIPE_TIMECODE', "CMD_STRIPE_TIMECODE, file '%s',"),
                                  (FRAME_DESC2, 'GET_FRAME_DESC2', "GET_FRAME_DESC2, file '%s', pos 0,"),
                                  (ATTRIBS, 'GET_FILE_ATTRIBS', "CMD_GET_FILE_ATTRIBS, file '%s',"),
                                  (DELETE, 'DELETE_FILE', "CMD_DELETE_FILE, file '%s',"),
                                  (FILESIZE, 'GET_FILESIZE', "CMD_GET_FILESIZE, file '%s',"),
                                  (MKDIR, 'CREATE_DIRECTORY', "CMD_CREATE_DIRECTORY, file '%s',"),
                                  (MOVE, 'MOVE_FILE', "CMD_MOVE_FILE, file '%s',"),
                                  (SPACE, 'QUERY_FILESYSTEM_SPACE', "CMD_QUERY_FILESYSTEM_SPACE, vol '%s',")):
            self.refused(client, code, full + bytes(540), E_INVALIDARG,
                         [Scope(E_INVALIDARG, 'On_CMD_' + name),
                          Trace('{c}: error ' + shown % ('a' * 259) + ' transId {t}')])

    def test_a_token_belongs_to_its_client(self):
        owner, other = self.join('owner'), self.join('other')
        token = self.create(owner, 'own')
        self.close_file(other, token, library=E_HANDLE)
        self.flush(other, token, library=E_HANDLE)
        self.close_file(owner, token)

    def test_leaving_closes(self):
        client = self.join()
        self.create(client, 'left')
        self.leave(client)
        self.join(client.id)
        self.close_file(client, self.create(client, 'left'))


def info_of(client, token):
    return client.post(FILE_INFO, struct.pack('<Q', token)).body[16:72]


class Metadata(FilesCase):
    """`left` is what the library did not write: it stays as the request had it."""

    def info(self, client, token, expected, library=None):
        body = struct.pack('<Q', token)
        left = body.ljust(60, b'\0')[4:60]
        media = struct.unpack_from('<i', expected or left, 4)[0]
        self.simple(client, FILE_INFO, body, 6, 'DoCmdGetFileInfo', library,
                    '{c}: handling CMD_GET_FILE_INFO, token 0x%x, transId {t}' % token,
                    '{c}: CMD_GET_FILE_INFO OK, token 0x%x, media type %d, transId {t}' % (token, media),
                    OK + (expected or left))

    def info2(self, client, name, expected, library=None, **kw):
        body = name_block(name, **kw)
        left = body[4:60]
        media = struct.unpack_from('<i', expected or left, 4)[0]
        self.simple(client, FILE_INFO2, body, 6, 'DoCmdGetFileInfo2', library,
                    "{c}: handling CMD_GET_FILE_INFO2, file '%s', transId {t}" % name,
                    '{c}: CMD_GET_FILE_INFO2 OK, file , media type %d, transId {t}' % media, OK + (expected or left))

    def test_file_info(self):
        client = self.join()
        desc = es_desc(width=1920, height=1080)
        token = self.clip(client, 'info/clip', 3, desc=desc)
        growing = bytearray(desc)
        struct.pack_into('<I', growing, 36, 3)
        struct.pack_into('<I', growing, 44, 4)
        self.info(client, token, bytes(growing))
        self.info2(client, 'info/clip', bytes(growing))
        self.close_file(client, token)
        growing[44] = 0
        self.info2(client, 'info/clip', bytes(growing))
        self.info(client, token, None, library=E_HANDLE)
        self.info2(client, 'info/missing', None, library=NOT_FOUND)
        self.info2(client, 'info/clip', None, library=E_INVALIDARG, flags=0x40)
        self.info2(client, 'info/clip', None, library=NO_STREAM, media_type=AUDIO)
        stranger = self.client('nobody')
        self.info(stranger, token, None, library=True)
        self.info2(stranger, 'info/clip', None, library=True)

    def descs(self, client, token, position, count, entries, library=None, rate=0):
        body = struct.pack('<QIiI', token, position, count, rate)
        answer = OK + struct.pack('<i', count) + b''.join(entries)
        self.assertEqual(len(answer), 8 + 12 * count)
        self.simple(client, FRAME_DESC, body, 7, 'DoCmdGetFrameDesc', library,
                    '{c}: handling GET_FRAME_DESC, token 0x%x, pos %d, transId {t}' % (token, position),
                    '{c}: GET_FRAME_DESC OK, token 0x%x, pos %d, transId {t}' % (token, position), answer)

    def entry(self, size, flags, frame):
        """At 25 frames a second from 00:00:00:00, in BCD: frames, seconds, minutes, hours."""
        bcd = lambda n: n // 10 * 16 + n % 10
        return struct.pack('<II4B', size, flags, bcd(frame % 25), bcd(frame // 25 % 60), 0, 0)

    def test_frame_descs_by_token(self):
        client = self.join()
        token = self.clip(client, 'descs/token', 30)
        have = [self.entry(10 + i, PRESENT, i) for i in range(30)]
        self.descs(client, token, 0, 3, have[:3])
        self.descs(client, token, 0, 0, [])
        self.descs(client, token, 24, 6, have[24:])
        self.descs(client, token, 28, 4, have[28:] + [bytes(12)] * 2)  # behind the last frame
        self.descs(client, token, 0xFFFFFFFF, 2, [bytes(12)] * 2)
        self.descs(client, token, 2, 2, [have[1], have[1]], rate=6)  # at 50 a second
        self.descs(client, token, 0, 2, [bytes(12)] * 2, library=E_INVALIDARG, rate=9)
        self.descs(client, 77, 0, 2, [bytes(12)] * 2, library=E_HANDLE)
        self.descs(self.client('nobody'), token, 1, 1, [bytes(12)], library=True)
        for count, hr in ((-1, E_OUTOFMEMORY), (-0x80000000, E_OUTOFMEMORY), (342, E_INVALIDARG),
                          (0x15555555, E_INVALIDARG), (0x7FFFFFFF, E_INVALIDARG)):
            self.refused(client, FRAME_DESC, struct.pack('<QIiI', token, 5, count, 0), hr,
                         [Trace('{c}: handling GET_FRAME_DESC, token 0x%x, pos 5, transId {t}' % token),
                          Scope(hr, 'On_CMD_GET_FRAME_DESC'),
                          Trace('{c}: error GET_FRAME_DESC, token 0x%x, pos 5, transId {t}' % token)])

    def descs2(self, client, name, position, count, written, library=None, tail=b''):
        """`written`: the entries that are copied; the reply's other bytes are the request's."""
        body = name_block(name) + struct.pack('<Ii', position, count) + tail
        answer = bytearray(body.ljust(24 * count - 4, b'\0')[:24 * count - 4])
        copied = OK + struct.pack('<i', count) + b''.join(written)
        answer[:len(copied)] = copied
        self.simple(client, FRAME_DESC2, body, 7, 'DoCmdGetFrameDesc2', library,
                    '{c}: handling GET_FRAME_DESC2, file %s, pos %d, transId {t}' % (name, position),
                    "{c}: GET_FRAME_DESC2 OK, file '', pos %d, transId {t}" % position, bytes(answer))

    def test_frame_descs_by_name_count_into_the_name(self):
        client = self.join()
        # The count stands in the third and fourth unit of the name that the library sees: 51 is '3'.
        self.close_file(client, self.clip(client, 'by3', 5))
        have = [self.entry(10 + i, PRESENT, i) for i in range(5)]
        self.descs2(client, 'byXYZ', 0, 51, have + [bytes(12)] * 46)
        self.descs2(client, 'by', 3, 51, have[3:] + [bytes(12)] * 49)
        self.descs2(client, 'by', 0, 50, [bytes(12)] * 50, library=NOT_FOUND)  # there is no 'by2'
        self.descs2(client, 'by3', 0, 3, [bytes(12)] * 3, library=INVALID_NAME)
        self.descs2(self.client('nobody'), 'by3', 0, 51, [bytes(12)] * 51, library=True)

    def test_frame_descs_by_name_bound_falls(self):
        client = self.join()
        # 97 is 'a'. Entry 87 is written over the request's count: its data size ends the copy if it is smaller.
        token = self.create(client, 'upa')
        have = [bytes(12)] * 97
        for position, size in ((0, 7), (87, 90), (88, 200), (96, 9)):
            self.write(client, token, position, bytes(size))
            have[position] = self.entry(size, PRESENT, position)
        for position in range(97):
            if have[position] == bytes(12):
                have[position] = self.entry(0, 0, position)  # a hole keeps its time
        self.close_file(client, token)
        tail = b'\xEE' * 1300
        self.descs2(client, 'upXX', 0, 97, have[:90], tail=tail)
        # From position 1 on entry 87 is frame 88 with 200 bytes, more than 97: nothing is prolonged.
        behind = have[1:] + [bytes(12)]
        self.descs2(client, 'upXX', 1, 97, behind, tail=tail)
        # From position 2 on it is a hole of 0 bytes: it is the last that is copied.
        self.descs2(client, 'upXX', 2, 97, have[2:90], tail=tail)

    def test_frame_descs_by_name_bad_counts(self):
        client = self.join()
        for count, hr in ((0, E_INVALIDARG), (-1, E_OUTOFMEMORY), (-0x80000000, E_OUTOFMEMORY), (200, E_INVALIDARG),
                          (0x7FFFFFFF, E_INVALIDARG)):
            self.refused(client, FRAME_DESC2, name_block('some') + struct.pack('<Ii', 6, count), hr,
                         [Trace('{c}: handling GET_FRAME_DESC2, file some, pos 6, transId {t}'),
                          Scope(hr, 'On_CMD_GET_FRAME_DESC2'),
                          Trace("{c}: error GET_FRAME_DESC2, file 'some', pos 6, transId {t}")])

    def marks(self, client, token, first, second):
        self.simple(client, MARKS, struct.pack('<Q', token), 9, 'DoCmdGetFileMarks', None,
                    '{c}: handling GET_FILE_MARKS, token 0x%x, transId {t}' % token,
                    '{c}: GET_FILE_MARKS OK, token 0x%x, transId {t}' % token, OK + struct.pack('<II', first, second))

    def marks2(self, client, name, answer, library=None, **kw):
        self.simple(client, MARKS2, name_block(name, **kw), 9, 'DoCmdGetFileMarks2', library,
                    "{c}: handling GET_FILE_MARKS2, file '%s', transId {t}" % name,
                    "{c}: GET_FILE_MARKS2 OK, file '', transId {t}", OK + answer)

    def test_marks(self):
        client = self.join()
        token = self.clip(client, 'marked', 6)
        self.marks(client, token, 0, 6)
        marker = self.open(client, 'marked', aux='mk', flags=WRITE_FLAG)
        for index, frame in ((0, 2), (1, 5)):
            entry = struct.pack('<8xQII', marker, index, 0) + struct.pack('<IIIIII', 0, frame, 0, 0, 0, 0)
            self.ask(client, WRITE, struct.pack('<II8x', 9, 1) + entry.ljust(96, b'\0'), 4, OK,
                     [Trace('{c}: handling CMD_WRITE_FRAME, transId {t}')],
                     beside=[Trace('{c}: handling write-frame complete apc, transId {t}')])
        self.settle(client)
        self.marks(client, token, 2, 5)
        self.marks2(client, 'marked', struct.pack('<II', 2, 5))
        self.marks2(client, 'unmarked', name_field('unmarked')[4:12], library=NOT_FOUND)
        self.marks2(client, 'marked', name_field('marked')[4:12], library=E_INVALIDARG, flags=0x80)
        self.marks2(self.client('nobody'), 'marked', name_field('marked')[4:12], library=True)
        body = struct.pack('<Q', 0x1122334455667788)
        for who, library in ((client, E_HANDLE), (self.client('nobody'), True)):
            self.simple(who, MARKS, body, 9, 'DoCmdGetFileMarks', library,
                        '{c}: handling GET_FILE_MARKS, token 0x1122334455667788, transId {t}',
                        '{c}: GET_FILE_MARKS OK, token 0x1122334455667788, transId {t}',
                        OK + body.ljust(12, b'\0')[4:12])


class FileSystem(FilesCase):
    def space(self, client, volume, outputs=None, library=None):
        body = name_field(volume)
        signed = lambda n: struct.unpack('<q', struct.pack('<Q', n))[0]
        log = [Trace("{c}: handling CMD_QUERY_FILESYSTEM_SPACE, vol '%s', transId {t}" % volume)]
        log += [unknown_client('DoCmdQueryFilesystemSpace')] if library else []
        log += [Trace("{c}: CMD_QUERY_FILESYSTEM_SPACE OK, vol '%s', total {total} remaining {free}, transId {t}" % volume)]
        return self.ask(client, SPACE, body, 16, lambda r: OK + body[4:8] + (outputs or r.body[20:36]), log,
                        names=lambda r: {'total': signed(r.long(8)), 'free': signed(r.long(16))})

    def test_space(self):
        client = self.join()
        os.mkdir(self.path('folder'))
        for name in ('', 'folder', '.', self.server.root):
            reply = self.space(client, name)
            disk = os.statvfs(self.server.volume)
            self.assertEqual(reply.long(8), disk.f_blocks * disk.f_frsize)
            self.assertLessEqual(reply.long(16), reply.long(8))
        for name in ('../outside', 'missing-folder'):  # not even logged
            self.space(client, name, outputs=bytes(16))
        self.space(self.client('nobody'), 'folder', outputs=name_field('folder')[8:24], library=True)

    def attributes(self, client, name, bits, library=None):
        self.simple(client, ATTRIBS, name_field(name), 17, 'DoCmdGetFileAttribs', library,
                    "{c}: handling CMD_GET_FILE_ATTRIBS, file '%s', transId {t}" % name,
                    "{c}: CMD_GET_FILE_ATTRIBS OK, file '%s', attribs 0x%x, transId {t}" % (name, bits),
                    OK + struct.pack('<I', bits))

    def test_attributes(self):
        client = self.join()
        os.mkdir(self.path('attr'))
        self.plain_file('attr/normal')
        self.plain_file('attr/locked')
        os.chmod(self.path('attr/locked'), 0o444)
        self.attributes(client, 'attr', 0x10)
        self.attributes(client, '', 0x10)
        self.attributes(client, 'attr/normal', 0x80)
        self.attributes(client, 'attr\\locked', 0x01)
        self.attributes(client, 'attr/missing', 0xFFFFFFFF)
        self.attributes(client, '../outside', 0xFFFFFFFF)
        self.attributes(self.client('nobody'), 'attr', 0xFFFFFFFF, library=True)

    def named(self, client, code, reply_code, scope, word, name, library=None, rest=b''):
        self.simple(client, code, name_field(name) + rest, reply_code, scope, library,
                    "{c}: handling CMD_%s, file '%s', transId {t}" % (word, name),
                    "{c}: CMD_%s OK, file '%s', transId {t}" % (word, name))

    def delete(self, client, name, library=None):
        self.named(client, DELETE, 18, 'DoCmdDeleteFile', 'DELETE_FILE', name, library)

    def test_delete(self):
        client = self.join()
        os.mkdir(self.path('del'))
        self.plain_file('del/file')
        self.delete(client, 'del/file')
        self.assertEqual(os.listdir(self.path('del')), [])
        self.delete(client, 'del/file', library=NOT_FOUND)
        self.delete(client, 'del', library=E_ACCESSDENIED)
        self.delete(client, '', library=E_INVALIDARG)
        self.delete(client, '../zem.reg', library=E_ACCESSDENIED)
        token = self.create(client, 'del/recorded')
        self.delete(client, 'del/recorded', library=SHARING)
        self.delete(self.client('nobody'), 'del/recorded', library=True)
        self.close_file(client, token)
        self.delete(client, 'del/recorded')

    def size(self, client, name, size, library=None):
        body = name_field(name)
        self.simple(client, FILESIZE, body, 19, 'DoCmdGetFileSize', library,
                    "{c}: handling CMD_GET_FILESIZE, file '%s', transId {t}" % name,
                    "{c}: CMD_GET_FILESIZE OK, file '%s', size %d (0x%x), transId {t}" % (name, size, size),
                    OK + body[4:8] + struct.pack('<Q', size))

    def test_size(self):
        client = self.join()
        os.mkdir(self.path('size'))
        self.plain_file('size/small', b'12345')
        with open(self.path('size/huge'), 'wb') as out:
            out.truncate(0x123456789)
        self.size(client, 'size/small', 5)
        self.size(client, 'size\\huge', 0x123456789)
        self.size(client, 'size/none', 0, library=NOT_FOUND)
        self.size(client, 'size', 0, library=E_ACCESSDENIED)
        self.size(client, '../zem.reg', 0, library=E_ACCESSDENIED)
        self.size(self.client('nobody'), 'size/small', 0, library=True)

    def mkdir(self, client, name, library=None):
        self.named(client, MKDIR, 20, 'DoCmdCreateDir', 'CREATE_DIRECTORY', name, library)

    def test_mkdir(self):
        client = self.join()
        self.mkdir(client, 'new')
        self.mkdir(client, 'new/inner')
        self.assertTrue(os.path.isdir(self.path('new', 'inner')))
        self.mkdir(client, 'new', library=ALREADY_EXISTS)
        self.mkdir(client, 'gone/inner', library=PATH_NOT_FOUND)
        self.mkdir(client, '../beside', library=E_ACCESSDENIED)
        self.mkdir(client, '', library=E_INVALIDARG)
        self.mkdir(self.client('nobody'), 'never', library=True)
        self.assertFalse(os.path.exists(self.path('never')))

    def move(self, client, old, new, library=None):
        self.named(client, MOVE, 21, 'DoCmdMoveFile', 'MOVE_FILE', old, library, rest=name_field(new))

    def test_move(self):
        client = self.join()
        for name in ('from', 'to'):
            os.mkdir(self.path(name))
        self.plain_file('from/a', b'A')
        self.plain_file('to/b', b'B')
        self.move(client, 'from/a', 'from/c')
        self.move(client, 'from/c', 'to\\d')
        self.assertEqual((os.listdir(self.path('from')), sorted(os.listdir(self.path('to')))), ([], ['b', 'd']))
        self.move(client, 'to/d', 'to/b', library=ALREADY_EXISTS)
        self.move(client, 'to/none', 'to/e', library=NOT_FOUND)
        self.move(client, 'to/d', 'nowhere/d', library=PATH_NOT_FOUND)
        self.move(client, 'to/d', '../d', library=E_ACCESSDENIED)
        self.move(client, '../zem.reg', 'to/reg', library=E_ACCESSDENIED)
        self.move(client, 'to', 'moved')
        self.move(self.client('nobody'), 'moved/b', 'moved/z', library=True)
        with open(self.path('moved', 'b'), 'rb') as b, open(self.path('moved', 'd'), 'rb') as d:
            self.assertEqual((b.read(), d.read()), (b'B', b'A'))
        self.assertEqual(sorted(os.listdir(self.path('moved'))), ['b', 'd'])


class Maintenance(FilesCase):
    def stripe(self, client, name, timecode, flags=0, library=None, open_flags=1):
        """`timecode`: hours, minutes, seconds, frames as hexadecimal digits."""
        body = name_block(name, flags=open_flags) + bytes(reversed(timecode)) + struct.pack('<I', flags)
        self.simple(client, STRIPE, body, 10, 'DoCmdStripeTimecode', library,
                    "{c}: handling CMD_STRIPE_TIMECODE, file '%s', transId {t}" % name,
                    "{c}: CMD_STRIPE_TIMECODE OK, file '%s', transId {t}" % name)

    def times(self, client, token, position, count):
        reply = self.post(client, FRAME_DESC, struct.pack('<QIiI', token, position, count, 0))
        self.assertEqual(reply.status, 200)
        self.ledger.take(2 if self.tracing else 0)
        return [tuple(reversed(reply.body[20 + 12 * i + 8:20 + 12 * i + 12])) for i in range(count)]

    def test_stripe_drop_frame(self):
        client = self.join()
        token = self.clip(client, 'drop', 6, desc=es_desc(rate=(30000, 1001)))
        self.stripe(client, 'drop', (0x00, 0x00, 0x59, 0x28), flags=1)
        drop = 0x40
        self.assertEqual(self.times(client, token, 0, 4),
                         [(0, 0, 0x59, 0x28 | drop), (0, 0, 0x59, 0x29 | drop), (0, 1, 0, 2 | drop), (0, 1, 0, 3 | drop)])
        self.stripe(client, 'drop', (0x00, 0x09, 0x59, 0x29 | drop))  # the flag in the time does it too
        self.assertEqual(self.times(client, token, 0, 2), [(0, 9, 0x59, 0x29 | drop), (0, 0x10, 0, 0 | drop)])
        self.stripe(client, 'drop', (0x23, 0x59, 0x59, 0x29))
        self.assertEqual(self.times(client, token, 0, 2), [(0x23, 0x59, 0x59, 0x29), (0, 0, 0, 0)])
        self.stripe(client, 'drop', (0, 1, 0, 1), flags=1, library=E_INVALIDARG)  # a number that is dropped
        self.stripe(client, 'drop', (0, 0, 0, 0x1A), library=E_INVALIDARG)
        self.stripe(client, 'drop', (0x24, 0, 0, 0), library=E_INVALIDARG)
        self.stripe(client, 'drop', (0, 0, 0, 0), flags=2, library=E_INVALIDARG)
        self.stripe(client, 'drop', (0, 0, 0, 0), open_flags=0x40, library=E_INVALIDARG)
        self.stripe(client, 'none', (0, 0, 0, 0), library=NOT_FOUND)
        self.stripe(self.client('nobody'), 'drop', (0, 0, 0, 0), library=True)
        self.assertEqual(self.times(client, token, 0, 1), [(0x23, 0x59, 0x59, 0x29)])
        self.close_file(client, token)
        slow = self.clip(client, 'pal', 1)
        self.stripe(client, 'pal', (0, 0, 0, 0), flags=1, library=E_INVALIDARG)  # 25 frames a second drop nothing
        self.close_file(client, slow)

    def erase(self, client, token, first, end, media_type=0, library=None):
        self.simple(client, ERASE, struct.pack('<QIII', token, first, end, media_type), 22, 'DoCmdEraseSegment', library,
                    '{c}: handling ERASE_SEGMENT, token 0x%x, transId {t}' % token,
                    '{c}: CMD_ERASE_SEGMENT OK, token 0x%x, transId {t}' % token)

    def test_erase(self):
        client = self.join()
        token = self.clip(client, 'erase', 6)
        self.erase(client, token, 1, 3, media_type=VIDEO)
        reply = self.post(client, FRAME_DESC, struct.pack('<QIiI', token, 0, 6, 0))
        flags = [struct.unpack_from('<I', reply.body, 20 + 12 * i + 4)[0] for i in range(6)]
        self.assertEqual([flag & WAS_ERASED for flag in flags], [0, WAS_ERASED, WAS_ERASED, 0, 0, 0])
        self.ledger.take(2 if self.tracing else 0)
        self.erase(client, token, 3, 3, library=E_INVALIDARG)
        self.erase(client, token, 4, 2, library=E_INVALIDARG)
        self.erase(client, token, 6, 9, library=END_OF_MEDIA)
        self.erase(client, token, 4, 5, media_type=AUDIO, library=E_INVALIDARG)
        self.erase(self.client('nobody'), token, 4, 5, library=True)
        self.close_file(client, token)
        self.erase(client, token, 4, 5, library=E_HANDLE)
        reader = self.open(client, 'erase')
        self.erase(client, reader, 4, 5, library=E_ACCESSDENIED)

    def test_erase_gives_the_space_back(self):
        # The file is still open for writing and nothing else is written: the erasing alone does it.
        client = self.join()
        token = self.create(client, 'space')
        for position in range(4):
            self.write(client, token, position, bytes([position + 1]) * (1 << 20))
        self.flush(client, token)
        allocated = lambda: os.stat(self.path('space')).st_blocks * 512
        self.assertGreaterEqual(allocated(), 4 << 20)
        self.erase(client, token, 1, 4)
        end = time.monotonic() + 20
        while allocated() > 2 << 20 and time.monotonic() < end:  # the store does it behind the answer
            time.sleep(0.01)
        self.assertLess(allocated(), 2 << 20)
        reply = self.post(client, READ, read_body([(token, 0, 0, 0)]))
        self.assertEqual(frame_of(reply), b'\1' * (1 << 20))
        self.ledger.take(3 if self.tracing else 0)
        self.close_file(client, token)

    def test_flush(self):
        client = self.join()
        token = self.clip(client, 'flush', 1)
        self.flush(client, token)
        self.flush(client, 0, library=E_HANDLE)
        stranger = self.client('nobody')
        self.flush(stranger, token, library=True)


class Frames(FilesCase):
    WORD = 0x11223344

    def read(self, client, entries, answers, extra=(), word=WORD):
        """entries: as read_body; answers: of each (status, (length, data) or what stands in the data area). The descriptor
        as a whole is S_OK whatever became of its streams: the table tells of them."""
        n = len(entries)
        body = read_body(entries, word)

        def table(reply):
            own = bytearray((n - 1) * 144 + 104)
            struct.pack_into('<II', own, 0, word & 255, n)
            for i, ((token, position, flags, user), (hr, area)) in enumerate(zip(entries, answers)):
                at = 8 + 96 * i
                struct.pack_into('<i4xQII', own, at, struct.unpack('<i', struct.pack('<I', hr))[0], token, position, flags)
                if isinstance(area, tuple):  # a stream whose data follow, with the low half of an address
                    address = reply.body[12 + at + 28:12 + at + 32]
                    struct.pack_into('<I4sI', own, at + 24, 1, address, area[0])
                elif area is not None:
                    own[at + 24:at + 48] = area
                struct.pack_into('<Q', own, at + 80, user)
            return bytes(own)

        data = b''.join(area[1] for hr, area in answers if isinstance(area, tuple))
        first = '{c}: handling CMD_READ_FRAME, token 0x%x pos %d, transId {t}' % entries[0][:2]
        done = [Trace('{c}: handling read-frame complete, transId {t}')] + list(extra)
        self.ask(client, READ, body, 3, table, [
            Trace(first),
            Trace('{c}: CMD_READ_FRAME request issued OK, token 0x%x pos %d, transId {t}' % entries[0][:2])],
            data=data, beside=done)

    def failed(self, hr, token, i, n, position):
        return Trace('{c}: Failed read status 0x%x on token 0x%x idx %d/%d pos %d, transId {t}'
                     % (hr, token, i, n, position))

    EMPTY = struct.pack('<III', 1, 0, 0).ljust(24, b'\0')  # one buffer, no address, no bytes

    def test_read(self):
        client = self.join()
        token = self.create(client, 'frames/read')
        one, two = b'first', bytes(range(256)) * (frame_bytes(76800) // 256)
        self.write(client, token, 0, one)
        self.write(client, token, 2, two)
        self.flush(client, token)
        self.read(client, [(token, 0, 0, 0x0102030405060708)], [(0, (len(one), one))])
        self.read(client, [(token, 2, 0x7FFFFFFF, 0)], [(0, (len(two), two))], word=0xFFFFFFFF)
        self.read(client, [(token, 0, 0, 1), (token, 2, 0, 2)], [(0, (len(one), one)), (0, (len(two), two))])
        self.read(client, [(token, 0, 0, 1)] * 22, [(0, (len(one), one))] * 22)
        self.read(client, [(token, 0, 0x80000000, 5)], [(0, None)])
        self.read(client, [(token, 3, 0, 7)], [(END_OF_MEDIA, self.EMPTY)])
        self.read(client, [(token, 0xFFFFFFFF, 0, 7)], [(END_OF_MEDIA, self.EMPTY)])
        self.read(client, [(token, 1, 0, 7)], [(HOLE, self.EMPTY)],
                  extra=[self.failed(HOLE, token, 0, 1, 1)])
        self.read(client, [(0x55, 4, 0, 7)], [(E_HANDLE, self.EMPTY)],
                  extra=[self.failed(E_HANDLE, 0x55, 0, 1, 4)])
        # Some streams fail: the others' data come all the same.
        self.read(client, [(token, 0, 0, 1), (token, 1, 0, 2), (token, 3, 0, 3)],
                  [(0, (len(one), one)), (HOLE, self.EMPTY), (END_OF_MEDIA, self.EMPTY)],
                  extra=[self.failed(HOLE, token, 1, 3, 1)])

    def test_read_erased(self):
        client = self.join()
        token = self.clip(client, 'frames/erased', 3)
        self.assertEqual(self.post(client, ERASE, struct.pack('<QIII', token, 1, 2, 0)).status, 200)
        self.ledger.take(2 if self.tracing else 0)
        self.read(client, [(token, 1, 0, 0)], [(ERASED, self.EMPTY)],
                  extra=[self.failed(ERASED, token, 0, 1, 1)])

    def test_special_streams(self):
        client = self.join()
        token = self.clip(client, 'frames/special', 3)
        timecode = self.open(client, 'frames/special', aux='tc')
        self.read(client, [(timecode, 2, 0, 5)],
                  [(0, struct.pack('<III4x4B4x', 12, 2, PRESENT, 2, 0, 0, 0)[:12] +
                    struct.pack('<I4BI', 2 * 400000, 2, 0, 0, 0, 0))])
        # A data stream's frames are descriptions that come back as they were written.
        notes = self.create(client, 'frames/notes', desc=es_desc(DATA))
        description = bytes(range(1, 25))
        entry = struct.pack('<8xQII', notes, 0, 0) + description
        self.ask(client, WRITE, struct.pack('<II8x', 9, 1) + entry.ljust(96, b'\0'), 4, OK,
                 [Trace('{c}: handling CMD_WRITE_FRAME, transId {t}')],
                 beside=[Trace('{c}: handling write-frame complete apc, transId {t}')])
        self.flush(client, notes)
        self.read(client, [(notes, 0, 0, 5)], [(0, description)])
        both = self.open(client, 'frames/special')
        self.read(client, [(notes, 0, 0, 5), (both, 1, 0, 6)], [(0, description), (0, (11, b'\1' * 11))])
        self.close_file(client, token)

    def test_read_refused(self):
        client = self.join()
        token = self.clip(client, 'frames/count', 1)
        for count in (0, 23, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF):
            body = struct.pack('<II8x', 0, count) + struct.pack('<8xQII', token, 3, 0).ljust(96, b'\0')
            self.ask(client, READ, body, 3, OK,
                     [Trace('{c}: handling CMD_READ_FRAME, token 0x%x pos 3, transId {t}' % token),
                      Scope(E_INVALIDARG, 'DoCmdReadFrame')])
        self.ask(self.client('nobody'), READ, read_body([(token, 0, 0, 0)]), 3, OK,
                 [Trace('{c}: handling CMD_READ_FRAME, token 0x%x pos 0, transId {t}' % token),
                  unknown_client('DoCmdReadFrame')])

    HANDLING, FAILED = Trace('{c}: handling CMD_WRITE_FRAME, transId {t}'), Trace('{c}: error CMD_WRITE_FRAME, transId {t}')
    DONE = Trace('{c}: handling write-frame complete apc, transId {t}')

    def rejected(self, client, body, log, payload=b''):
        self.ask(client, WRITE, body, 4, OK, [self.HANDLING, *log, self.FAILED], payload=payload)

    def test_write(self):
        client = self.join()
        token = self.create(client, 'frames/write')
        self.write(client, token, 0, b'')
        self.write(client, token, 1, b'x' * frame_bytes(100000))
        other = self.create(client, 'frames/other')
        self.ask(client, WRITE, write_body([(token, 2, [3, 0, 2]), (other, 0, [4]), (token, 3, [])]), 4, OK,
                 [self.HANDLING], payload=b'AAABBCCCC', beside=[self.DONE])
        self.flush(client, token)
        self.flush(client, other)
        self.read(client, [(token, 2, 0, 0), (other, 0, 0, 0)], [(0, (5, b'AAABB')), (0, (4, b'CCCC'))])

    def test_write_rejected(self):
        client = self.join()
        token = self.create(client, 'frames/rejected')
        scope = 'GetZemWriteFrameRequestFromHttp'
        for lengths, payload in (([10], b'12345'), ([2], b'12345'), ([3, 3], b'12345'), ([], b'1'), ([1], b'')):
            total = sum(lengths)
            self.rejected(client, write_body([(token, 4, lengths)]),
                          [Error(E_UNEXPECTED, scope, '{c}: WriteFrame data size in header (%d bytes) and payload (%d '
                                 'bytes) mismatch, pos 4, transId {t}' % (total, len(payload)))], payload)
        for count in (0, 23, 0xFFFFFFFF):
            self.rejected(client, struct.pack('<II8x', 0, count) + bytes(96), [Scope(E_INVALIDARG, scope)])
        for buffers in (7, 0xFFFFFFFF, 0x80000000):
            body = bytearray(write_body([(token, 0, [])]))
            struct.pack_into('<I', body, 16 + 24, buffers)
            self.rejected(client, bytes(body), [Scope(E_INVALIDARG, scope)])
        self.ask(self.client('nobody'), WRITE, write_body([(token, 0, [4])]), 4, OK,
                 [self.HANDLING, unknown_client('DoCmdWriteFrame'), self.FAILED], payload=b'data')
        # All that is left of it: the file has no frame.
        self.flush(client, token)
        self.read(client, [(token, 0, 0, 0)], [(END_OF_MEDIA, self.EMPTY)])

    def test_write_without_content_length(self):
        # A chunked request has no Content-Length: it counts as 0, so the payload is less than nothing.
        client = self.join()
        token = self.create(client, 'frames/chunked')
        body = write_body([(token, 6, [4])])
        self.next_trans_id += 1
        type(self).next_trans_id = self.next_trans_id
        whole = struct.pack('<III', self.next_trans_id, WRITE, len(body)) + body + b'data'
        client.connection.send(('POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: %s\r\nTransfer-Encoding: chunked\r\n\r\n%x\r\n'
                                % (client.id, len(whole))).encode() + whole + b'\r\n0\r\n\r\n')
        self.assert_reply(client.connection.receive(), self.next_trans_id, 4, OK)
        self.assert_log([self.HANDLING,
                         Error(E_UNEXPECTED, 'GetZemWriteFrameRequestFromHttp', '{c}: WriteFrame data size in header (4 '
                               'bytes) and payload (%d bytes) mismatch, pos 6, transId {t}' % -(12 + len(body))),
                         self.FAILED], {'c': client.id, 't': self.next_trans_id})

    def begin(self, client, code, body, sent, length):
        """A request of which the client sends a part and no more."""
        self.next_trans_id += 1
        type(self).next_trans_id = self.next_trans_id
        entity = struct.pack('<III', self.next_trans_id, code, len(body)) + body
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        connection.send(('POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: %s\r\nContent-Length: %d\r\n\r\n'
                         % (client.id, len(entity) + length)).encode() + (entity + sent))
        return connection, {'c': client.id, 't': self.next_trans_id}

    def test_frame_larger_than_all_memory(self):
        # It is answered before its data is read; what the server has no room for it does not take.
        client = self.join()
        token = self.create(client, 'frames/huge')
        size = 300 << 20
        connection, names = self.begin(client, WRITE, write_body([(token, 0, [size])]), b'', size)
        connection.socket.setblocking(False)
        block, sent = bytes(1 << 20), 0
        while sent < size and not select.select([connection.socket], [], [], 0)[0]:
            if select.select([connection.socket], [connection.socket], [], 30)[1]:
                sent += connection.socket.send(block)
        connection.socket.settimeout(30)
        self.assertLess(sent, size)
        self.assert_reply(connection.receive(), names['t'], 4, OK)
        self.assert_log([self.HANDLING, self.FAILED], names)

    def test_client_that_goes_away_in_mid_frame(self):
        client = self.join()
        token = self.create(client, 'frames/away')
        # More than sockets buffer: the write has begun by then.
        size, sent = 100 << 20, 16 << 20
        connection, names = self.begin(client, WRITE, write_body([(token, 0, [size])]), bytes(sent), size)
        connection.socket.shutdown(socket.SHUT_WR)
        gone = win32(64)
        self.assert_log([self.HANDLING, Error(
            gone, 'ReadFrameDataIntoBuffer', '{c}: Error receving remaining framewrite data. Total framedata sz %d bytes, '
            'received %d bytes' % (size, sent)), self.FAILED], names)
        self.flush(client, token)
        self.read(client, [(token, 0, 0, 0)], [(END_OF_MEDIA, self.EMPTY)])

    def test_writes_that_the_library_fails(self):
        client = self.join()
        token = self.create(client, 'frames/failing')
        self.close_file(client, token)
        reader = self.open(client, 'frames/failing')
        for bad in (token, reader, 1):  # the reply has gone by then, and the channel counts it
            self.ask(client, WRITE, write_body([(bad, 0, [4])]), 4, OK, [self.HANDLING], payload=b'data',
                     beside=[self.DONE])
        self.read(client, [(reader, 0, 0, 0)], [(END_OF_MEDIA, self.EMPTY)])


class FrameBlocks(FilesCase):
    """7200 frame blocks; a write that was refused after it took one keeps it, unless the registry says otherwise."""

    BLOCKS, NO_RESOURCES = 7200, win32(1450)
    settings = []

    def setUp(self):
        # The class's server stays idle: each test uses up one of its own.
        self.replaced = self.server, self.ledger
        server = Server(self.program, self.file_server, self.trace_flag, settings=self.settings)
        ledger = Ledger(server)
        self.use(server, ledger)
        self.addCleanup(self.put_back)
        self.addCleanup(server.remove)
        self.addCleanup(ledger.close)
        super().setUp()

    def use(self, server, ledger):
        cls = type(self)
        cls.server, cls.ledger = server, ledger
        cls.members, cls.real_time, cls.tracing = [], '', False

    def put_back(self):
        self.use(*self.replaced)

    def use_up(self, client, token):
        body = write_body([(token, 0, [10])])
        entity = struct.pack('<III', 1, WRITE, len(body)) + body + b'short'
        one = ('POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: %s\r\nContent-Length: %d\r\n\r\n'
               % (client.id, len(entity))).encode() + entity
        at_once = frame_bytes(100 * len(one)) // len(one)
        for start in range(0, self.BLOCKS, at_once):
            count = min(at_once, self.BLOCKS - start)
            client.connection.send(one * count)
            for _ in range(count):
                self.assert_reply(client.connection.receive(), 1, 4, OK)
        # A write's last trace comes after its answer, so these may come as late as they like.
        self.ledger.ignored = ': error CMD_WRITE_FRAME, transId 1'
        # The log may have dropped some of these lines: it never holds up a request.
        self.ledger.take(0)

    def read(self, client, token, log):
        self.ask(client, READ, read_body([(token, 3, 0, 0)]), 3, OK,
                 [Trace('{c}: handling CMD_READ_FRAME, token 0x%x pos 3, transId {t}' % token), *log])

    def try_write(self, client, token, log):
        self.ask(client, WRITE, write_body([(token, 5, [4])]), 4, OK,
                 [Frames.HANDLING, *log, Frames.FAILED], payload=b'data')

    def drop(self, what, scope, position):
        return Error(self.NO_RESOURCES, scope, '{c}: Dropping %s, request pos %d; All frame IO transaction blocks in use, '
                     'transId {t}' % (what, position))

    def test_all_used_up_read_first(self):
        client = self.join()
        token = self.create(client, 'blocks')
        self.use_up(client, token)
        self.read(client, token, [self.drop('FrameRead', 'DoCmdReadFrame', 3)])
        self.read(client, token, [Error(E_FAIL, 'DoCmdReadFrame', 'Unknown error')])
        self.try_write(client, token, [])

    def test_all_used_up_write_first(self):
        client = self.join()
        token = self.create(client, 'blocks')
        self.use_up(client, token)
        self.try_write(client, token, [self.drop('WriteFrame', 'GetZemWriteFrameRequestFromHttp', 5)])
        self.try_write(client, token, [])
        self.read(client, token, [Error(E_FAIL, 'DoCmdReadFrame', 'Unknown error')])


class ReclaimedFrameBlocks(FrameBlocks):
    settings = [RECLAIM_FRAME_BLOCKS]

    def test_all_used_up_read_first(self):
        client = self.join()
        token = self.create(client, 'blocks')
        self.use_up(client, token)
        self.write(client, token, 0, b'data')

    test_all_used_up_write_first = None


if __name__ == '__main__':
    main()
