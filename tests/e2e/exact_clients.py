#!/usr/bin/env python3
"""Join, leave, keep-alive, real-time I/O, the frame of a request and configuration: whole replies, whole log.

usage: exact_clients.py --zemhost PROGRAM [--file-server] [--trace] [unittest arguments]
"""

from exact import *

OK = struct.pack('<I', 0)


class Membership(ExactCase):
    def keep_alive(self, client):
        self.ask(client, KEEP_ALIVE, b'', 14, OK, [Trace('{c}: handling CMD_KEEP_ALIVE, transId {t}'),
                                                  Trace('{c}: CMD_KEEP_ALIVE OK, transId {t}')])

    def test_join_leave_rejoin(self):
        first = self.join('first', channel=3)
        second = self.join('second', channel=0x12345678)
        self.join('first', channel=9)
        self.keep_alive(first)
        self.leave(first)
        self.leave(first)
        self.join('third')
        self.keep_alive(first)
        self.leave(second)

    def test_channel_255_creates_nothing(self):
        client = self.join(channel=255)
        self.assertNotIn(client.id, self.members)
        self.leave(client)

    def test_channel_all_ones(self):
        self.join(channel=0xFFFFFFFF)

    def test_join_without_a_body_reads_channel_0(self):
        client = self.join('holder')
        client = self.client('bare')
        self.ask(client, JOIN, b'', 12, OK, [
            Trace('{c}: handling CMD_JOIN, chanId 0, transId {t}')] + ([] if self.file_server else [
            Trace('{c}: Could not set real-time client status; existing client holder')]) + [
            Always("'(test/x.x.x.x)': Joining %s, chanid 0x0..., total clients 1, transId {t}" % (
                '' if self.file_server else "as 'non-real-time' client (current real-time client 'holder')")),
            Trace('{c}: CMD_JOIN OK, transId {t}')])
        self.members.append(client.id)

    def test_ids_in_utf_8(self):
        name = '\u00e4\u20ac \U0001f3ac'
        client = self.join(name)
        page = client.connection.request('GET', '/media/clients')
        self.assertEqual(page.body, (name + '\r\n').encode())
        self.assertEqual(len(self.ledger.take(1 if self.tracing else 0)), 1 if self.tracing else 0)

    def test_id_of_ill_formed_utf_8(self):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        connection.send(b'POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: a\xffb\xc0\xaf\r\nContent-Length: 12\r\n\r\n' +
                        struct.pack('<III', 8, 99, 0))
        self.assert_generic(connection.receive(), 8, 99, E_NOTIMPL)
        lines = self.ledger.take(2)
        self.assertRegex(lines[0], ': a\ufffdb\ufffd{1,2}: ZEM command 99 not implemented, transId 8\\.$')

    def test_ids_that_differ_in_case_are_two_clients(self):
        self.join('Mixed')
        self.join('mixed')

    def test_client_descriptions(self):
        cases = [  # User-Agent, description, version that is warned of
            ('plain', '', None),
            ('agent (prod/1.2.3)', '(prod/1.2.3)', '1.2.3'),
            ('agent (prod/X.x.x.x)', '(prod/X.x.x.x)', 'X.x.x.x'),
            ('agent (prod/x.x.x.x)', '(prod/x.x.x.x)', None),
            ('agent (prod/', '(prod/', ''),
            ('agent (prod)', '(prod)', None),
            ('a/9 (prod/x.x.x.x)', '(prod/x.x.x.x)', None),
            ('a (b (c/d/e)', '(b (c/d/e)', 'd/e'),
            ('a (%s%n/x.x.x.x)', '(%s%n/x.x.x.x)', None),
        ]
        for number, (agent, text, version) in enumerate(cases):
            self.join('agent-%d' % number, agent=agent, text=text, warning=version)

    def test_empty_client_description(self):
        self.join(agent='', text='')

    def test_messages_of_127_characters_and_longer(self):
        # The sink gets messages in pieces of 127; one that fills its last piece ends its line all the same.
        client = self.join('n' * 240)
        for length in (381, 382, 508, 509, 511, 512, 600):
            own = len("%s: handling CMD_OPEN_FILE, file '', transId 1002" % client.id)
            file = 'f' * (length - own) if length - own <= 255 else 'f' * 100 + '/' + 'f' * (length - own - 101)
            if length == 600:
                file = 'd/' * 129 + 'e'
            handling = "%s: handling CMD_OPEN_FILE, file '%s', transId %d" % (client.id, file, self.next_trans_id + 1)
            self.assertTrue(len(handling) == length or length == 600)
            reply = self.post(client, OPEN, open_body(file))
            self.assertEqual(reply.code(), 2)
            self.assert_log([Trace(handling[:511]), Scope(NOT_FOUND, 'DoCmdOpenFile'),
                             Trace('{c}: CMD_OPEN_FILE OK, token 0x0, transId {t}'),
                             Trace('{c}: Open after sending response token 0x0 hr 0x0, transId {t}')], self.names)

    def test_control_characters_in_a_name_stay_on_their_line(self):
        client = self.join()
        name = 'a\r\n2026-01-01 forged\t\x1b[1m'
        shown = 'a\\r\\n2026-01-01 forged\\t\\x1b[1m'
        reply = self.post(client, SPACE, name_field(name))
        self.assertEqual(reply.status, 200)
        total, free = reply.long(8), reply.long(16)
        self.assert_log([Trace("{c}: handling CMD_QUERY_FILESYSTEM_SPACE, vol '%s', transId {t}" % shown),
                         Trace("{c}: CMD_QUERY_FILESYSTEM_SPACE OK, vol '%s', total %d remaining %d, transId {t}"
                               % (shown, struct.unpack('<q', struct.pack('<Q', total))[0],
                                  struct.unpack('<q', struct.pack('<Q', free))[0]))], self.names)

    def test_percent_signs_reach_the_log_unread(self):
        client = self.join('%s%n%9999x%I64d')
        self.keep_alive(client)
        self.open(client, '%s%s%n', library=NOT_FOUND)
        self.refused(client, NO_COMMAND, b'', E_NOTIMPL,
                     [Error(E_NOTIMPL, 'ProcessRequest', '{c}: ZEM command %d not implemented, transId {t}.' % NO_COMMAND)])

    def test_trace_flag_follows_the_registry_at_a_join(self):
        before = self.server.trace
        client = self.join()
        self.keep_alive(client)
        self.server.trace = not before
        self.server.write_registry()
        self.keep_alive(client)  # not yet
        self.join(channel=255)
        self.keep_alive(client)
        self.server.trace = None  # a missing value leaves the flag as it is
        self.server.write_registry()
        self.join(channel=255)
        self.keep_alive(client)
        self.server.trace = before
        self.server.write_registry()
        self.join()
        self.keep_alive(client)


class RealTime(ExactCase):
    def set_real_time(self, client, log):
        self.ask(client, SET_IO_REAL_TIME, b'', 15, OK,
                 [Trace('{c}: handling CM_SET_IO_REAL_TIME, transId {t}')] + ([] if self.file_server else log) +
                 [Trace('{c}: CM_SET_IO_REAL_TIME OK, transId {t}')])

    def enable(self, client):
        if not self.file_server:
            type(self).real_time = client.id
        return [Always('{c}: Enabling real-time IO for {c}...'), Always('{c}: Real-time IO enabled for {c}')]

    def disable(self, old):
        return [Always('{c}: Disabling real-time IO for %s...' % old), Always('{c}: Real-time IO disabled for %s' % old)]

    def test_take_over_and_back(self):
        first, second = self.join('one'), self.join('two')
        self.set_real_time(second, self.disable('one') + self.enable(second))
        self.set_real_time(second, self.enable(second))
        self.set_real_time(first, self.disable('two') + self.enable(first))
        self.leave(first)
        self.join('three')
        self.leave(second)
        self.set_real_time(second, [unknown_client('DoCmdSetIoRealTime')])

    def test_unknown_client(self):
        self.set_real_time(self.client(), [unknown_client('DoCmdSetIoRealTime')])
        self.join('holder')
        self.set_real_time(self.client(), [unknown_client('DoCmdSetIoRealTime')])

    def test_ids_in_another_case_are_the_same_here(self):
        self.join('ABC')
        small = self.join('abc')
        self.set_real_time(small, self.enable(small))
        self.leave(self.client('ABC'))  # gives up the status that abc has
        self.set_real_time(small, self.enable(small))

    def test_old_client_that_is_gone(self):
        # The status is recorded for the big letters and given up with the small ones.
        big, small = self.join('ALONE'), self.join('alone')
        self.leave(small)
        self.set_real_time(big, self.enable(big))


class RequestFrame(ExactCase):
    def raw(self, headers, entity, method='POST', path='/zem/'):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        return connection.request(method, path, headers + [('Content-Length', str(len(entity)))], entity)

    def test_first_header_must_be_the_id(self):
        entity = struct.pack('<III', 1, KEEP_ALIVE, 0)
        for headers in ([], [('X-Other', '1'), ('Zem-Id', 'late')], [('Zem-Idx', 'a')], [('Zem-I', 'a')]):
            self.assert_no_body(self.raw(headers, entity), 500, 'Error 0x8000ffff')
            self.assert_log([Error(E_UNEXPECTED, 'ProcessRequest', 'ZEM client ID HTTP header not present in HTTP '
                                   'request, discarding...')])

    def test_id_in_any_case_behind_known_headers(self):
        self.assert_id_taken('/zem/', '/media/', '/media/any/thing')

    def test_id_below_prefixes_in_other_spellings(self):
        self.assert_id_taken('/ZEM/', '/zem')

    def assert_id_taken(self, *paths):
        for path in paths:
            reply = self.raw([('Accept', '*/*'), ('zEM-iD', ' spaced  '), ('Cookie', 'c')],
                             struct.pack('<III', 5, KEEP_ALIVE, 0), path=path)
            self.assert_reply(reply, 5, 14, OK)
            self.assert_log([Trace('spaced: handling CMD_KEEP_ALIVE, transId 5'),
                             Trace('spaced: CMD_KEEP_ALIVE OK, transId 5')])

    def test_id_of_300_characters_is_cut(self):
        reply = self.raw([('Zem-Id', 'i' * 300)], struct.pack('<III', 5, 99, 0))
        self.assert_generic(reply, 5, 99, E_NOTIMPL)
        self.assert_log([Error(E_NOTIMPL, 'ProcessRequest', 'i' * 259 + ': ZEM command 99 not implemented, transId 5.')])

    def test_post_without_body(self):
        self.assert_no_body(self.raw([('Zem-Id', 'empty')], b''), 500, 'Error 0x8000ffff')
        self.assert_log([Error(E_UNEXPECTED, 'ProcessRequest',
                               'empty: ZEM request header not present in HTTP request.')])

    def test_headers_of_1_to_11_bytes(self):
        whole = struct.pack('<III', 0x05060708, KEEP_ALIVE, 0)
        for length in range(1, 12):
            padded = whole[:length].ljust(12, b'\0')
            trans_id, code, _ = struct.unpack('<III', padded)
            reply = self.raw([('Zem-Id', 'short')], whole[:length])
            if code:
                self.assert_generic(reply, trans_id, code, E_INVALIDARG)
                self.assert_log([Error(E_INVALIDARG, 'ProcessRequest', 'short: ZEM request data size (%d) for '
                                       'CMD_KEEP_ALIVE < expected size (12), transId %d' % (length, trans_id))])
            else:
                self.assert_generic(reply, trans_id, 0, E_NOTIMPL)
                self.assert_log([Error(E_NOTIMPL, 'ProcessRequest',
                                       'short: ZEM command 0 not implemented, transId %d.' % trans_id)])

    def test_unknown_codes(self):
        client = self.join()
        for code in (0, NO_COMMAND, 255, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF):
            signed = struct.unpack('<i', struct.pack('<I', code))[0]
            self.refused(client, code, b'', E_NOTIMPL,
                         [Error(E_NOTIMPL, 'ProcessRequest',
                                '{c}: ZEM command %d not implemented, transId {t}.' % signed)])

    def test_trans_id_of_all_ones(self):
        self.assert_no_body(self.raw([('Zem-Id', 'ones')], struct.pack('<III', 0xFFFFFFFF, 99, 0)), 500,
                            'Error 0x80004001')
        self.assert_log([Error(E_NOTIMPL, 'ProcessRequest', 'ones: ZEM command 99 not implemented, transId 4294967295.')])
        reply = self.raw([('Zem-Id', 'ones')], struct.pack('<III', 0xFFFFFFFF, KEEP_ALIVE, 0))
        self.assert_reply(reply, 0xFFFFFFFF, 14, OK)
        self.assert_log([Trace('ones: handling CMD_KEEP_ALIVE, transId 4294967295'),
                         Trace('ones: CMD_KEEP_ALIVE OK, transId 4294967295')])

    def test_strict_commands_are_not_completed(self):
        client = self.client()
        for code, name in ((LEAVE, 'CMD_LEAVE'), (KEEP_ALIVE, 'CMD_KEEP_ALIVE'),
                           (SET_IO_REAL_TIME, 'CMD_SET_IO_REAL_TIME')):
            self.refused(client, code, b'', E_INVALIDARG,
                         [Error(E_INVALIDARG, 'ProcessRequest', '{c}: ZEM request data size (12) for %s < expected size '
                                '(13), transId {t}' % name)], declared=1)
            # More than declared is no error.
            reply = self.post(client, code, b'more')
            self.assertEqual(reply.status, 200)
            self.ledger.take(2 if self.tracing else 0)

    def test_a_leave_whose_rest_never_comes_is_refused(self):
        """While the client waits, its connection open: nobody waits for the rest."""
        client = self.join('staying')
        for sent in (b'', b'some'):
            connection = Connection(self.server.port)
            self.addCleanup(connection.close)
            connection.send(b'POST /zem/ HTTP/1.1\r\nHost: x\r\nZem-Id: staying\r\nContent-Length: 512\r\n\r\n' +
                            struct.pack('<III', 77, LEAVE, 500) + sent)
            self.assert_generic(connection.receive(), 77, LEAVE, E_INVALIDARG)
            self.assert_log([Error(E_INVALIDARG, 'ProcessRequest', 'staying: ZEM request data size (%d) for CMD_LEAVE < '
                                   'expected size (512), transId 77' % (12 + len(sent)))])
        self.leave(client)

    COMPLETED = {CREATE: 'CMD_CREATE_FILE', OPEN: 'CMD_OPEN_FILE', READ: 'CMD_READ_FRAME', CLOSE: 'CMD_CLOSE_FILE',
                 FILE_INFO: 'CMD_GET_FILE_INFO', FILE_INFO2: 'CMD_GET_FILE_INFO2', FRAME_DESC: 'CMD_GET_FRAME_DESC',
                 FRAME_DESC2: 'CMD_GET_FRAME_DESC2', FLUSH: 'CMD_FLUSH_BUFFERS', MARKS: 'CMD_GET_FILE_MARKS',
                 MARKS2: 'CMD_GET_FILE_MARKS2', STRIPE: 'CMD_STRIPE_TIMECODE', JOIN: 'CMD_JOIN',
                 SPACE: 'CMD_QUERY_FILESYSTEM_SPACE', ATTRIBS: 'CMD_GET_FILE_ATTRIBS', DELETE: 'CMD_DELETE_FILE',
                 FILESIZE: 'CMD_GET_FILESIZE', MKDIR: 'CMD_CREATE_DIRECTORY', MOVE: 'CMD_MOVE_FILE',
                 ERASE: 'CMD_ERASE_SEGMENT', CFG_ATTR: 'CMD_UPDATE_CFG_ATTR_STR'}

    def test_body_that_ends_too_early(self):
        client = self.client()
        for code, name in self.COMPLETED.items():
            self.refused(client, code, b'1234', E_INVALIDARG,
                         [Error(HANDLE_EOF, 'GetCompleteRequest', '{c}: Error receving remaining ZEM request. Total '
                                'request sz 17 bytes, received 16 bytes'),
                          Error(E_INVALIDARG, 'ProcessRequest', '{c}: ZEM request data size 16 for %s < expected size 17, '
                                'transId {t}' % name)], declared=5)
        self.refused(client, WRITE, b'1234', E_INVALIDARG,
                     [Error(HANDLE_EOF, 'GetCompleteRequest', '{c}: Error receving remaining ZEM request. Total '
                            'request sz 17 bytes, received 16 bytes'),
                      Error(E_INVALIDARG, 'ProcessRequest', '{c}: ZEM request data size (16) for CMD_WRITE_FRAME < '
                            'expected size (17), transId {t}')], declared=5)

    def test_declared_more_than_the_buffer_takes(self):
        client = self.client()
        for code, name in self.COMPLETED.items():
            self.refused(client, code, b'1234', E_INVALIDARG,
                         [Always('{c}: Full request 5012 bytes (tot recvd <number>) cannot fit in entity buffer; entity '
                                 'start <address> req end <address>'),
                          Error(E_INVALIDARG, 'ProcessRequest', '{c}: ZEM request data size 16 for %s < expected size '
                                '5012, transId {t}' % name)], declared=5000)

    def test_sent_more_than_the_buffer_takes(self):
        client = self.client()
        reply = self.post(client, CLOSE, bytes(5000))
        self.assert_generic(reply, self.names['t'], CLOSE, E_INVALIDARG)
        lines = self.ledger.take(3)
        self.assertEqual(len(lines), 3, lines)
        self.assertRegex(lines[0], r'^trace %s: (No space in HTTP request buffer, request bytes \d+, buffer sz 4096!|'
                         r'Full request 5012 bytes \(tot recvd \d+\) cannot fit in entity buffer; entity start '
                         r'0x[0-9a-f]+ req end 0x[0-9a-f]+)$' % client.id)
        self.assertRegex(lines[1], r'ZEM request data size \d+ for CMD_CLOSE_FILE < expected size 5012, transId %d$'
                         % self.names['t'])
        self.assertEqual(lines[2], 'scope 0x80070057 in CHttpCommandHandler::ProcessRequest')

    def test_expected_size_wraps_in_32_bits(self):
        client = self.client()  # 0xFFFFFFFF + 12 is 11: nothing is missing
        self.ask(client, KEEP_ALIVE, b'', 14, OK, [Trace('{c}: handling CMD_KEEP_ALIVE, transId {t}'),
                                                  Trace('{c}: CMD_KEEP_ALIVE OK, transId {t}')], declared=0xFFFFFFFF)

    def test_fields_beyond_the_received_bytes_are_zero(self):
        client = self.join()
        token = self.create(client, 'zero')
        for body, seen in ((b'', 0), (struct.pack('<Q', token)[:3], token & 0xFFFFFF)):
            self.simple(client, CLOSE, body, 5, 'DoCmdCloseFile', E_HANDLE,
                        '{c}: handling CMD_CLOSE_FILE, token %x, transId {t}' % seen,
                        '{c}: CMD_CLOSE_FILE OK, token %x, transId {t}' % seen)
        self.close_file(client, token)

    def test_fields_beyond_the_buffer_are_refused(self):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        wide = [('Zem-Id', 'wide'), ('X-Fill', 'f' * 2600), ('Content-Length', '12')]
        for code, name in self.COMPLETED.items():
            short = code in (READ, CLOSE, FILE_INFO, FRAME_DESC, FLUSH, MARKS, JOIN, ERASE, SPACE, ATTRIBS, DELETE,
                             FILESIZE, MKDIR)
            if short:
                continue
            reply = connection.request('POST', '/zem/', wide, struct.pack('<III', 7, code, 0))
            self.assert_generic(reply, 7, code, E_INVALIDARG)
            shown = {FRAME_DESC2: 'GET_FRAME_DESC2', MARKS2: 'GET_FILE_MARKS2'}.get(code, name)
            lines = self.ledger.take(2 if self.tracing else 1)
            self.assertEqual(lines[0], 'scope 0x80070057 in CHttpCommandHandler::On_' + name)
            self.assertEqual(len(lines), 2 if self.tracing else 1, lines)
            if self.tracing:
                self.assertRegex(lines[1], '^trace wide: error %s,.* transId 7$' % shown)

    def test_other_methods(self):
        for method in ('PUT', 'HEAD', 'PATCH', 'BREW', 'OPTIONS', 'get', 'TRACE'):
            for path in ('/zem/', '/media/status'):
                reply = self.raw([('Zem-Id', 'm')], b'x', method=method, path=path)
                self.assert_no_body(reply, 405, 'HTTP method not allowed')
                self.assert_log([])

    def test_answers_of_the_interface(self):
        reply = self.raw([('Zem-Id', 'lost')], struct.pack('<III', 1, KEEP_ALIVE, 0), path='/elsewhere/')
        self.assertEqual(reply.status, 404)
        self.assertTrue(reply.header('Content-Type').startswith('text/html'))
        reply = self.raw([('Zem-Id', 'big'), ('X-Fill', 'f' * 4000)], struct.pack('<III', 1, KEEP_ALIVE, 0))
        self.assertEqual(reply.status, 431)
        self.assert_log([])

    def test_http_1_0(self):
        entity = struct.pack('<III', 9, KEEP_ALIVE, 0)
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        connection.send(b'POST /zem/ HTTP/1.0\r\nZem-Id: old\r\nContent-Length: 12\r\n\r\n' + entity)
        reply = connection.receive()
        self.assertEqual((reply.status, reply.reason, reply.body), (200, 'OK', struct.pack('<IIII', 9, 14, 4, 0)))
        self.assert_headers(reply, [('Content-Type', 'application/octet-string'), ('Content-Length', '16'),
                                    ('Server', SERVER_NAME), ('zem-resphdr-len', '16'), ('zem-ver', '1'),
                                    ('Connection', 'close')])
        self.assertEqual(connection.socket.recv(1), b'')
        self.assert_log([Trace('old: handling CMD_KEEP_ALIVE, transId 9'), Trace('old: CMD_KEEP_ALIVE OK, transId 9')])

    def test_chunked_body(self):
        connection = Connection(self.server.port)
        self.addCleanup(connection.close)
        entity = struct.pack('<III', 9, KEEP_ALIVE, 0)
        connection.send(b'POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: chunky\r\nTransfer-Encoding: chunked\r\n\r\n'
                        b'5\r\n' + entity[:5] + b'\r\n7;x=y\r\n' + entity[5:] + b'\r\n0\r\n\r\n')
        self.assert_reply(connection.receive(), 9, 14, OK)
        self.assert_log([Trace('chunky: handling CMD_KEEP_ALIVE, transId 9'),
                         Trace('chunky: CMD_KEEP_ALIVE OK, transId 9')])


class Configuration(ExactCase):
    HANDLING, DONE = '{c}: handling CMD_UPDATE_CFG, transId {t}', '{c}: CMD_UPDATE_CFG OK, transId {t}'
    BEGUN, ENDED = Always('{c}: Updating channel configuration...'), Always('{c}: Channel configuration updated')

    def accepted(self, client, text, **kw):
        body = text if isinstance(text, bytes) else text.encode('utf-16-le') + b'\0\0'
        self.ask(client, UPDATE_CFG, body, 11, OK, [Trace(self.HANDLING), self.BEGUN, self.ENDED, Trace(self.DONE)], **kw)

    def rejected(self, client, text):
        body = text if isinstance(text, bytes) else text.encode('utf-16-le') + b'\0\0'
        self.ask(client, UPDATE_CFG, body, 11, struct.pack('<I', E_INVALIDARG),
                 [Trace(self.HANDLING), self.BEGUN,
                  Error(E_INVALIDARG, 'DoCmdUpdateCfg', '{c}: Failed to update channel config, transId {t}'),
                  Trace(self.DONE), Trace('{c}: error CMD_UPDATE_CFG, transId {t}')], hr=E_INVALIDARG)

    def test_documents(self):
        client = self.join()
        self.accepted(client, '<channelConfig frameRate="25"><readAhead>8</readAhead></channelConfig>')
        self.accepted(client, '<?xml version="1.0"?>\n<!-- ours --><channelConfig/>')
        self.accepted(client, '<channelConfig>' + ' ' * (frame_bytes(400000) // 2) + '<frameRate>file</frameRate></channelConfig>')
        self.accepted(client, '<channelConfig/>'.encode('utf-16-le'))  # no NUL: the end of the body ends it
        self.accepted(client, '<channelConfig/>'.encode('utf-16-le') + b'\0\0' + b'<<<not read')
        self.accepted(client, '<channelConfig/>'.encode('utf-16-le') + b' ')  # an odd byte is half of a blank
        for text in ('', '<channelConfig>', 'plain', '<other/>', '<channelConfig unknown="1"/>',
                     '<channelConfig frameRate="26"/>', '<channelConfig><readAhead>65</readAhead></channelConfig>',
                     '<channelConfig><a></channelConfig>',
                     '<channelConfig>' + '<readAhead>4</readAhead>' * 2 + '</channelConfig>'):
            self.rejected(client, text)

    def test_document_types_and_entities_are_refused(self):
        client = self.join()
        for text in ('<!DOCTYPE channelConfig [<!ENTITY a "25">]><channelConfig><frameRate>&a;</frameRate></channelConfig>',
                     '<!DOCTYPE a SYSTEM "file:///etc/hostname"><channelConfig/>',
                     '<!DOCTYPE channelConfig><channelConfig/>',
                     '<channelConfig><frameRate>&a;</frameRate></channelConfig>'):
            self.rejected(client, text)

    def test_document_in_many_segments(self):
        client = self.join()
        self.next_trans_id += 1
        type(self).next_trans_id = self.next_trans_id
        body = ('<channelConfig>%s<readAhead>4</readAhead></channelConfig>' % (' ' * 30000)).encode('utf-16-le')
        whole = struct.pack('<III', self.next_trans_id, UPDATE_CFG, len(body)) + body
        client.connection.send(('POST /zem/ HTTP/1.1\r\nHost: a\r\nZem-Id: %s\r\nContent-Length: %d\r\n\r\n'
                                % (client.id, len(whole))).encode())
        for start in range(0, len(whole), 1777):
            client.connection.send(whole[start:start + 1777])
        self.assert_reply(client.connection.receive(), self.next_trans_id, 11, OK)
        self.assert_log([Trace(self.HANDLING), self.BEGUN, self.ENDED, Trace(self.DONE)],
                        {'c': client.id, 't': self.next_trans_id})

    def test_sizes(self):
        client = self.join()
        body = '<channelConfig/>'.encode('utf-16-le')
        failed = Trace('{c}: error CMD_UPDATE_CFG, transId {t}')
        # Only the declared bytes count.
        self.rejected_size(client, body, len(body) - 2)
        # 0xFFFFFFFF + 12 wraps to 11, less than a header.
        self.refused(client, UPDATE_CFG, body, E_INVALIDARG,
                     [Trace(self.HANDLING), Scope(E_INVALIDARG, 'On_CMD_UPDATE_CFG'), failed], declared=0xFFFFFFFF)
        self.refused(client, UPDATE_CFG, body, E_OUTOFMEMORY,
                     [Trace(self.HANDLING), Scope(E_OUTOFMEMORY, 'On_CMD_UPDATE_CFG'), failed],
                     declared=(16 << 20) + 1)
        self.refused(client, UPDATE_CFG, body, HANDLE_EOF,
                     [Trace(self.HANDLING),
                      Error(HANDLE_EOF, 'On_CMD_UPDATE_CFG', '{c}: Error receving remaining channel cfg XML data. Total '
                            'XML sz %d bytes, received %d bytes' % (len(body) + 2, len(body))),
                      Later('{c}: error CMD_UPDATE_CFG, transId {t}')],
                     declared=len(body) + 2)
        reply = client.connection.request('POST', '/zem/', [('Zem-Id', client.id), ('Content-Length', '11')],
                                          struct.pack('<III', 3, UPDATE_CFG, 0)[:11])
        self.assert_generic(reply, 3, UPDATE_CFG, E_INVALIDARG)
        self.assert_log([Trace(self.HANDLING), Scope(E_INVALIDARG, 'On_CMD_UPDATE_CFG'), failed],
                        {'c': client.id, 't': 3})

    def rejected_size(self, client, body, declared):
        self.ask(client, UPDATE_CFG, body, 11, struct.pack('<I', E_INVALIDARG),
                 [Trace(self.HANDLING), self.BEGUN,
                  Error(E_INVALIDARG, 'DoCmdUpdateCfg', '{c}: Failed to update channel config, transId {t}'),
                  Trace(self.DONE), Trace('{c}: error CMD_UPDATE_CFG, transId {t}')], hr=E_INVALIDARG, declared=declared)

    def test_the_frame_rate_takes_effect(self):
        client = self.join()
        token = self.create(client, 'rates')  # 25 frames a second
        for position in range(3):
            self.write(client, token, position, b'%d' % position)
        self.flush(client, token)

        def shown(position):
            reply = self.post(client, READ, read_body([(token, position, 0, 0)]))
            self.ledger.take(3 if self.tracing else 0)
            return frame_of(reply)

        self.assertEqual([shown(n) for n in range(3)], [b'0', b'1', b'2'])
        self.accepted(client, '<channelConfig frameRate="50"/>')
        self.assertEqual([shown(n) for n in range(6)], [b'0', b'0', b'1', b'1', b'2', b'2'])
        self.rejected(client, '<channelConfig frameRate="25" other="1"/>')  # all of it or nothing
        self.assertEqual(shown(3), b'1')
        self.attribute(client, 'frameRate', '26', E_INVALIDARG)
        self.assertEqual(shown(3), b'1')
        self.attribute(client, 'frameRate', 'file')
        self.assertEqual([shown(n) for n in range(3)], [b'0', b'1', b'2'])

    def test_unknown_client(self):
        client = self.client()
        self.ask(client, UPDATE_CFG, '<channelConfig/>\0'.encode('utf-16-le'), 11, struct.pack('<I', E_INVALIDARG),
                 [Trace(self.HANDLING), unknown_client('DoCmdUpdateCfg'), Trace(self.DONE),
                  Trace('{c}: error CMD_UPDATE_CFG, transId {t}')], hr=E_INVALIDARG)
        self.attribute(client, 'frameRate', '25', True)

    def attribute(self, client, name, value, library=None):
        self.simple(client, CFG_ATTR, name_field(name) + value.encode('utf-16-le') + b'\0\0', 23,
                    'DoCmdUpdateCfgStrAttr', library,
                    '{c}: handling UPDATE_CFG_ATTR_STR, attr "%s", transId {t}' % name,
                    '{c}: CMD_UPDATE_CFG_ATTR_STR OK, attr "%s", transId {t}' % name)

    def test_attributes(self):
        client = self.join()
        self.attribute(client, 'frameRate', '29.97')
        self.attribute(client, 'frameRate', 'file')
        self.attribute(client, 'readAhead', '64')
        for name, value in (('readAhead', '65'), ('readAhead', ''), ('frameRate', '31'), ('other', '1'), ('', '')):
            self.attribute(client, name, value, E_INVALIDARG)

    def test_attribute_without_its_nul(self):
        client = self.join()
        failed = [Scope(E_INVALIDARG, 'On_CMD_UPDATE_CFG_ATTR_STR')]
        if self.tracing:
            failed.append(Always('{c}: error CMD_UPDATE_CFG_ATTR_STR, attr "%s", transId {t}' % ('a' * 259)))
        self.refused(client, CFG_ATTR, 'a'.encode('utf-16-le') * 260 + b'\0\0', E_INVALIDARG, failed)


if __name__ == '__main__':
    main()
