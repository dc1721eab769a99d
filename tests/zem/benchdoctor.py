#!/usr/bin/env python3
"""zem bench and zem doctor against the service, and doctor against servers that have something wrong with them.

usage: benchdoctor.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import contextlib
import http.server
import json
import os
import re
import signal
import subprocess
import threading
import time
import unittest
from email.utils import formatdate

import zemcase
from wire import Server, closed_port, need_for_everyone


class Bench(zemcase.OwnServerCase):
    def bench(self, *arguments, code=0):
        result = json.loads(self.zem('bench', '--json', *arguments, code=code))
        for run in result['runs']:
            latency = run['latency_us']
            points = [latency[key] for key in ('min', 'p50', 'p90', 'p99', 'p999', 'max')]
            self.assertEqual(points, sorted(points))
            self.assertTrue(latency['min'] <= latency['mean'] <= latency['max'])
            self.assertEqual(sum(row['count'] for row in run['histogram']), run['frames'])
            self.assertAlmostEqual(run['frames_per_s'] * run['seconds'], run['frames'], delta=0.01 * run['frames'] + 1)
            self.assertAlmostEqual(run['bytes_per_s'] * run['seconds'], run['bytes'], delta=0.01 * run['bytes'] + 1)
        return result

    def test_writes_then_reads_and_leaves_nothing(self):
        result = self.bench('--seconds', '0.5', '--connections', '3', '--frames', '8', '--frame-size', '64k')
        self.assertEqual([run['mode'] for run in result['runs']], ['write', 'read'])
        for run in result['runs']:
            self.assertGreaterEqual(run['frames'], 3, 'one of each connection, however slow')
            self.assertEqual(run['bytes'], run['frames'] * 65536)
        self.assertEqual(result['lost'], 0)
        self.assertEqual(os.listdir(self.media), [])
        self.assertEqual(self.zem('clients'), 'No clients\n')

    def test_a_rate_is_kept(self):
        result = self.bench('--mode', 'read', '--seconds', '1', '--rate', '25', '--connections', '2', '--frames', '4',
                            '--frame-size', '4k', '--random')
        run, = result['runs']
        self.assertEqual(run['frames'], 50)
        self.assertLessEqual(run['late'], run['frames'])

    def test_reads_a_file_that_is_there(self):
        clip = os.path.join(self.server.folder, 'clip.mov')
        subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-f', 'lavfi', '-i', 'testsrc2=size=64x48:rate=25', '-t',
                        '1', '-c:v', 'mjpeg', clip], check=True)
        self.zem('put', clip, 'media/clip')
        result = self.bench('--mode', 'read', '--file', 'media/clip.v0', '--seconds', '0.2')
        self.assertEqual(result['file'], 'media/clip.v0')
        self.assertGreaterEqual(result['runs'][0]['frames'], 4)
        self.zem('stat', 'media/clip.v0')
        self.zem('bench', '--mode', 'read', '--file', 'media/none', '--seconds', '0.2', code=1)

    def test_people_see_a_histogram(self):
        text = self.zem('bench', '--mode', 'write', '--seconds', '0.2', '--frames', '4', '--frame-size', '1k')
        self.assertRegex(text, r'write  \d+ frames in [\d.]+ s: \d+ frames/s, [\d.]+ ([KMG]i)?B/s\n')
        self.assertRegex(text, r'latency  least .* median .* 90 % .* 99 % .* 99.9 % .* most ')
        self.assertRegex(text, r'  up to +\d+ [um]?s +\d+  #')
        self.assertIn('All frames read back as they were written.', text)

    def test_a_folder_that_is_missing_is_not_made(self):
        text = self.zem('bench', '--seconds', '0.1', '--frames', '2', '--frame-size', '1k', '--folder', 'media/a/b')
        self.assertRegex(text, r'frames of 1\.0 KiB, in media: there is no media/a/b\n')
        self.assertEqual(os.listdir(self.media), [])
        os.rmdir(self.media)
        text = self.zem('bench', '--seconds', '0.1', '--frames', '2', '--frame-size', '1k', '--mode', 'write')
        self.assertIn(', in the volume root: there is no media\n', text)
        self.assertEqual(os.listdir(self.server.volume), [])

    def test_a_frame_beyond_the_frame_memory_says_where_the_limit_comes_from(self):
        memory = 'the server\'s frame memory (120M; 240M in file-server mode, HttpFileServer=1)'
        done = self.run_zem('bench', '--frame-size', '121M', '--frames', '1', '--connections', '1', '--seconds', '0.1')
        self.assertEqual((done.returncode, done.stdout), (1, ''))
        self.assertIn('did not take a frame of 121.0 MiB: it must fit into ' + memory, done.stderr)
        self.assertEqual(os.listdir(self.media), [])
        self.assertEqual(self.zem('clients'), 'No clients\n')
        self.server.wait_for_line('0x800705aa: no frame memory for 126877696 bytes, the frame is dropped; position 0; 0 more')
        done = self.run_zem('bench', '--frame-size', '241M')
        self.assertEqual(done.returncode, 2)
        self.assertIn("'241M' is no number of bytes from 16 to 240M, such as 1M; a frame must fit into " + memory,
                      done.stderr)

    def test_a_folder_that_cannot_be_says_so(self):
        done = self.run_zem('bench', '--seconds', '0.2', '--folder', '../out')
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, r'the server could not create .*: .')
        done = self.run_zem('bench', '--seconds', '0.2', '--folder', '/media')
        self.assertEqual(done.returncode, 1)
        self.assertIn(': a name begins below the volume root, without a slash', done.stderr)

    def test_a_folder_that_is_a_file_says_so(self):
        with open(os.path.join(self.media, 'flat'), 'wb'):
            pass
        done = self.run_zem('bench', '--seconds', '0.2', '--folder', 'media/flat')
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, r'could not create .*: media/flat is a file, and no folder\n$')

    def test_what_it_cannot_delete_it_names(self):
        process = self.writing('--frames', '2', '--frame-size', '1k')
        left = sorted('media/' + name for name in os.listdir(self.media))
        self.server.kill()
        self.addCleanup(self.server.start)  # for the clean-up, which expects one that stops in order
        _, errors = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 3, errors)
        self.assertIn('; not deleted: %s;' % ', '.join(left), errors)

    def test_more_than_the_volume_holds_is_not_begun(self):
        done = self.run_zem('bench', '--frame-size', '120M', '--frames', '1000000')
        self.assertEqual(done.returncode, 1)
        self.assertIn('free, and this test wants', done.stderr)
        self.assertEqual(os.listdir(self.media), [])

    def test_a_stopped_bench_tidies_up(self):
        self.stopped('--frames', '2', '--frame-size', '1k', '--mode', 'write')

    def test_a_stopped_bench_tells_what_it_measured(self):
        text = self.stopped('--frames', '2', '--frame-size', '1k')
        self.assertRegex(text, r'\nwrite  \d+ frames in [\d.]+ s: \d+ frames/s, .*B/s\n')
        self.assertRegex(text, r'  up to +\d+ [um]?s +\d+  #')
        self.assertTrue(text.endswith('\nEnded early: what was written was not compared.\n'), text)
        self.assertNotIn('read back', text)
        result, error = map(json.loads, self.stopped('--frames', '2', '--frame-size', '1k', '--json').splitlines())
        run, = result['runs']
        self.assertEqual((run['mode'], result['lost']), ('write', None))
        self.assertEqual(sum(row['count'] for row in run['histogram']), run['frames'])
        self.assertEqual(error, {'error': 'stopped', 'exit_code': 130, 'hresult': None, 'reason': None})

    def stopped(self, *arguments):
        """What a bench printed that was stopped while it wrote, twice as timeout(1) does it."""
        process = self.writing(*arguments)
        process.send_signal(signal.SIGTERM)
        process.send_signal(signal.SIGTERM)
        text, errors = process.communicate(timeout=60)
        self.assertEqual((process.returncode, errors), (130, 'zem: stopped\n'))
        self.assertEqual(os.listdir(self.media), [])
        self.assertEqual(self.zem('clients'), 'No clients\n')
        return text

    def writing(self, *arguments):
        """A bench all of whose connections have made their files and written to them, again and again."""
        process = subprocess.Popen(self.command('bench', '--seconds', '600', *arguments), stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)

        def written():
            sizes = [os.path.getsize(os.path.join(self.media, name)) for name in os.listdir(self.media)
                     if name.startswith('zem-bench')]
            return len(sizes) == 4 and min(sizes) > 64 * 1024

        while not written():
            self.assertIsNone(process.poll(), 'it ended by itself')
            time.sleep(0.01)
        return process

    def test_an_unreachable_server_is_3(self):
        with closed_port() as port:
            self.assertEqual(zemcase.run(port, 'bench').returncode, 3)


class Doctor(zemcase.OwnServerCase):
    def doctor(self, *arguments, code=0):
        result = json.loads(self.zem('doctor', '--json', *arguments, code=code))
        self.assertEqual(result['exit_code'], code)
        found = {check['check']: check for check in result['checks']}
        self.assertEqual(result['failures'], sum(check['result'] == 'fail' for check in found.values()))
        self.assertEqual(result['warnings'], sum(check['result'] == 'warn' for check in found.values()))
        for check in found.values():
            # Whatever is not well says what to do about it, in the text or behind it.
            self.assertTrue(check['result'] == 'ok' or check['advice'] or ':' in check['text'], check)
        self.assertLessEqual({check['result'] for check in found.values()}, {'ok', 'warn', 'fail', 'skip'})
        return found

    def test_a_well_server(self):
        found = self.doctor()
        self.assertEqual(list(found), ['reach', 'versions', 'clock', 'join', 'volume', 'frames', 'download', 'delete'])
        for name, check in found.items():
            # The tests' registry file gives no version; how full the disk and how busy the machine is, is not the server's.
            if name not in ('versions', 'volume', 'reach'):
                self.assertEqual(check['result'], 'ok', check)
        self.assertEqual(found['versions']['result'], 'warn')
        self.assertEqual(os.listdir(self.media), [])
        self.assertEqual(self.zem('clients'), 'No clients\n')

    def test_for_people_it_is_a_line_a_check(self):
        text = self.zem('doctor')
        self.assertRegex(text, r'(?m)^(?:ok  |warn)  reach       http://127.0.0.1:\d+ \(.*\) answers in [\d.]+ [um]?s$')
        self.assertRegex(text, r'(?m)^ok    frames      a frame was written, on the device after [\d.]+ [um]?s, and read back$')
        self.assertNotRegex(text, r' 0(\.0)? [um]?s')
        self.assertRegex(text, r'(?m)^warn  versions    server x\.x\.x\.x, zem .*\n +-> the server does not know')
        self.assertRegex(text, r'\d ok, \d warnings?, 0 failures\n$')

    def test_read_only_writes_nothing(self):
        before = os.stat(self.media).st_mtime_ns
        self.assertEqual(list(self.doctor('--read-only')), ['reach', 'versions', 'clock', 'join', 'volume'])
        self.assertEqual(os.stat(self.media).st_mtime_ns, before)

    def test_a_folder_that_is_missing_is_not_made(self):
        found = self.doctor('--folder', 'media/a/b')
        self.assertTrue(found['frames']['text'].endswith(', in media: there is no media/a/b'), found)
        self.assertEqual(found['download']['result'], 'ok')
        self.assertEqual(os.listdir(self.media), [])
        os.rmdir(self.media)
        found = self.doctor()
        self.assertEqual(found['frames']['result'], 'ok')
        self.assertTrue(found['frames']['text'].endswith(', in the volume root: there is no media'), found)
        self.assertEqual(os.listdir(self.server.volume), [])

    def test_what_get_does_not_reach_by_design_is_not_tried(self):
        os.mkdir(os.path.join(self.server.volume, 'scratch'))
        found = self.doctor('--folder', 'scratch/')
        self.assertEqual([found[name]['result'] for name in ('frames', 'download', 'delete')], ['ok', 'skip', 'ok'])
        self.assertIn('media and zem', found['download']['text'])
        os.mkdir(os.path.join(self.server.volume, 'zem'))
        self.assertEqual(self.doctor('--folder', 'zem')['download']['result'], 'ok')
        os.mkdir(os.path.join(self.media, 'Status'))
        self.assertIn('a page of the server hides', self.doctor('--folder', 'media/Status')['download']['text'])

    def test_a_folder_that_cannot_be_written(self):
        self.assertIn(': a name begins below the volume root', self.doctor('--folder', '/media', code=1)['frames']['text'])
        found = self.doctor('--folder', '../out', code=1)
        self.assertEqual(found['frames']['result'], 'fail')
        self.assertIn('--folder', found['frames']['advice'])
        self.assertNotIn('download', found)
        self.assertNotIn('delete', found)

    def test_a_folder_that_is_a_file(self):
        with open(os.path.join(self.media, 'flat'), 'wb'):
            pass
        frames = self.doctor('--folder', 'media/flat', code=1)['frames']
        self.assertTrue(frames['text'].endswith(': media/flat is a file, and no folder'), frames)
        self.assertIn('--folder', frames['advice'])

    def test_nobody_there_is_3(self):
        with closed_port() as port:
            done = zemcase.run(port, 'doctor', '--json')
        self.assertEqual(done.returncode, 3)
        checks = json.loads(done.stdout)['checks']
        self.assertEqual([check['check'] for check in checks], ['reach'])
        self.assertIn('is zemhost running there', checks[0]['advice'])


class Rights(unittest.TestCase):
    @unittest.skipIf(os.geteuid() != 0, 'only root can run the service as another user')
    def test_a_folder_that_the_service_may_not_write(self):
        need_for_everyone(zemcase.PROGRAMS.zemhost)
        server = Server(zemcase.PROGRAMS.zemhost, user=65534)
        self.addCleanup(server.remove)
        os.mkdir(os.path.join(server.volume, 'media'), 0o755)
        done = zemcase.run(server.port, 'doctor')
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertRegex(done.stdout, r"(?m)^fail  frames      the server could not create.*\n +-> may the service's user")


class Strange(unittest.TestCase):
    """A server of a few lines that answers pages as the test wants, and no commands."""

    @contextlib.contextmanager
    def answering(self, text='0 50 100', headers=(), skew_s=0, status=200):
        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = 'HTTP/1.1'

            def answer(self):
                self.send_response_only(status)
                for name, value in (('Date', formatdate(time.time() + skew_s, usegmt=True)),
                                    ('Content-Length', len(text)), *headers):
                    self.send_header(name, value)
                self.end_headers()
                self.wfile.write(text.encode())

            do_GET = answer

            def do_POST(self):
                self.rfile.read(int(self.headers['Content-Length']))
                self.answer()

            def log_message(self, *_):
                pass

        with http.server.ThreadingHTTPServer(('127.0.0.1', 0), Handler) as server:
            thread = threading.Thread(target=server.serve_forever)
            thread.start()
            try:
                yield server.server_port
            finally:
                server.shutdown()
                thread.join()

    def doctor(self, port):
        done = zemcase.run(port, 'doctor', '--json')
        return done.returncode, {check['check']: check for check in json.loads(done.stdout)['checks']}

    def clock_apart(self, skew_s, **options):
        """What the doctor says that the clocks are apart, and the least that is true: it asks and is answered within a time
        that it does not count, and the header tells whole seconds."""
        with self.answering(skew_s=skew_s, **options) as port:
            start = time.monotonic()
            code, found = self.doctor(port)
            took_s = time.monotonic() - start
        text = found['clock']['text']
        said = re.match(r"^the server's is (\d+):(\d\d):(\d\d) (ahead of|behind) this machine's$", text)
        self.assertTrue(said, text)
        apart_s = sum(int(number) * unit for number, unit in zip(said.groups(), (3600, 60, 1)))
        self.assertGreaterEqual(apart_s, abs(skew_s) - took_s - 1)
        self.assertLessEqual(apart_s, abs(skew_s) + 1)
        self.assertEqual(said[4], 'ahead of' if skew_s > 0 else 'behind')
        return code, found

    def test_versions_and_clock_that_differ(self):
        code, found = self.clock_apart(3661, headers=[('Server', 'Quorvane ZEM /9.9.9')])
        self.assertEqual(code, 4, 'it answers pages, but no commands')
        self.assertEqual((found['versions']['result'], found['clock']['result']), ('warn', 'warn'))
        self.assertIn('server 9.9.9, zem', found['versions']['text'])
        self.clock_apart(-3661)

    def test_whose_version_it_is(self):
        for software, text in (('Quorvane ZEM /9.9.9 Microsoft-HTTPAPI/2.0', 'server 9.9.9, zem'),
                               ('nginx/1.22.1', 'server unknown, behind nginx/1.22.1, zem')):
            with self.answering(headers=[('Server', software)]) as port:
                _, found = self.doctor(port)
            self.assertEqual(found['versions']['result'], 'warn')
            self.assertIn(text, found['versions']['text'])

    def test_volumes(self):
        for text, result in (('0 50 100', 'ok'), ('0 9 100', 'warn'), ('0 0 100', 'fail'), ('80070003 0 0', 'fail'),
                             ('0 0 0', 'fail')):
            with self.answering(text) as port:
                _, found = self.doctor(port)
            self.assertEqual(found['volume']['result'], result, text)

    def test_what_is_no_media_server_is_4(self):
        for options in ({'text': '<html>welcome</html>'}, {'status': 404}):
            with self.answering(**options) as port:
                code, found = self.doctor(port)
            self.assertEqual((code, list(found)), (4, ['reach']))
            self.assertIn('another program has that port', found['reach']['advice'])

    def test_who_answers_instead_is_named(self):
        for text, status, what in (('gone', 404, 'with 404 Not Found'), ('busy', 503, 'with 503 Service Unavailable'),
                                   ('<html>', 200, "but this is no status page: '<html>'")):
            with self.answering(text, headers=[('Server', 'printer\x1b/2')], status=status) as port:
                _, found = self.doctor(port)
            self.assertRegex(found['reach']['text'],
                             r'^http://127\.0\.0\.1:\d+ \(printer\\x1b/2\) answers /media/status,? ' + what + '$')


if __name__ == '__main__':
    zemcase.main()
