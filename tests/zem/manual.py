#!/usr/bin/env python3
"""What is made from zem's table of verbs: the manual page, its reference in docs/zem.md, completions in the shells
themselves.

usage: manual.py --zemhost PROGRAM --zem PROGRAM [unittest arguments]
"""

import os
import pty
import re
import select
import subprocess
import tempfile
import time
import unittest

import zemcase

ROOT = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..'))
VERBS = ['put', 'import', 'export', 'framemd5', 'read', 'frames', 'info', 'marks', 'df', 'stat', 'rm', 'mv', 'mkdir',
         'stripe', 'erase', 'flush', 'get', 'status', 'clients', 'top', 'bench', 'doctor', 'join', 'leave',
         'keepalive', 'realtime', 'config', 'help', 'completion', 'manual']


def zem(*arguments):
    return subprocess.run([zemcase.PROGRAMS.zem, *arguments], check=True, capture_output=True, text=True,
                          env={**os.environ, 'ZEM_SERVER': 'http://not-in-the-manual:1'}).stdout


def options_of(*verb):
    """The long options that help tells."""
    return sorted(set(re.findall(r'(?m)^  (?:-\w, )?(--[a-z-]+)', zem(*verb, '--help'))))


class Manual(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix='zem-manual-')
        self.addCleanup(self.folder.cleanup)

    def file(self, name, text):
        path = os.path.join(self.folder.name, name)
        with open(path, 'w', encoding='utf-8') as out:
            out.write(text)
        return path

    def test_the_page_is_good_and_whole(self):
        page = self.file('zem.1', zem('manual', 'man'))
        lint = subprocess.run(['mandoc', '-T', 'lint', '-W', 'warning', page], capture_output=True, text=True)
        self.assertEqual((lint.returncode, lint.stdout + lint.stderr), (0, ''))
        shown = subprocess.run(['mandoc', '-T', 'utf8', '-O', 'width=200', page], check=True, capture_output=True,
                               text=True).stdout
        shown = re.sub('.\b', '', shown)
        for section in re.findall(r'(?m)^\.SH "?(.*?)"?$', zem('manual', 'man')):
            self.assertEqual(section, section.upper())
        for verb in VERBS:
            self.assertRegex(shown, r'(?m)^   zem %s\b' % verb)
        for option in options_of() + options_of('bench') + options_of('put'):
            self.assertIn(option, shown)
        for code in ('0', '1', '2', '3', '4', '5', '130'):
            self.assertRegex(shown, r'(?m)^ +%s +\w' % code)
        self.assertNotIn('not-in-the-manual', shown)

    def test_the_reference_is_the_program_s(self):
        with open(os.path.join(ROOT, 'docs', 'zem.md'), encoding='utf-8') as page:
            text = page.read()
        there = re.search(r'<!-- zem manual markdown -->\n(.*)<!-- end -->', text, re.DOTALL)
        self.assertTrue(there)
        self.assertEqual(there[1], zem('manual', 'markdown'),
                         'docs/zem.md: put what `zem manual markdown` prints between the marks')

    def test_every_number_is_checked_in_words_of_our_own(self):
        found = 0
        verb = ['status']  # for the options of every verb
        for line in zem('manual', 'markdown').splitlines():
            named = re.match(r'\*\*`zem ([a-z0-9 ]+)', line)
            if named:
                verb = named[1].split()
            option = re.match(r'- (?:`-\w`, )?`(--[a-z-]+)` `(N|SECONDS|FPS)`:', line)
            if option:
                found += 1
                done = subprocess.run([zemcase.PROGRAMS.zem, *verb, option[1], 'x'], capture_output=True, text=True)
                self.assertRegex(done.stderr, r"^zem: %s: 'x' is no number from [0-9.]+ to [0-9]+; see zem %s --help\n$"
                                 % (option[1], ' '.join(verb)))
                self.assertEqual(done.returncode, 2)
        self.assertGreaterEqual(found, 18)


class Completion(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix='zem-completion-')
        self.addCleanup(self.folder.cleanup)
        for name in ('clip one.mov', 'clip.mxf'):
            open(os.path.join(self.folder.name, name), 'w', encoding='utf-8').close()

    def script(self, shell):
        path = os.path.join(self.folder.name, '_zem')
        with open(path, 'w', encoding='utf-8') as out:
            out.write(zem('completion', shell))
        return path

    def bash(self, *words, line=None):
        """What bash offers for the last of the words, as bash cuts them; `line` where the words do not tell all."""
        line = line or ' '.join(('zem', *words))
        quoted = ' '.join("'%s'" % word for word in ('zem', *words))
        done = subprocess.run(
            ['bash', '--norc', '-c', 'source ./_zem; COMP_WORDS=(%s); COMP_CWORD=%d; COMP_LINE=$1; COMP_POINT=%d; _zem; '
             'printf "%%s\\n" "${COMPREPLY[@]}"' % (quoted, len(words), len(line)), 'bash', line], cwd=self.folder.name, check=True, capture_output=True, text=True)
        self.assertEqual(done.stderr, '')
        return [word for word in done.stdout.split('\n') if word]

    def fish(self, *words):
        done = subprocess.run(
            ['fish', '--no-config', '-c', "source ./_zem; complete -C 'zem %s'" % ' '.join(words)], cwd=self.folder.name,
            check=True, capture_output=True, text=True, env={**os.environ, 'HOME': self.folder.name})
        self.assertEqual(done.stderr, '')
        return [line.split('\t')[0] for line in done.stdout.splitlines()]

    def offers(self, ask):
        self.assertEqual(sorted(ask('')), sorted(VERBS))
        self.assertEqual(ask('sta'), ['stat', 'status'])
        self.assertEqual(ask('--server', 'put', 'sta'), ['stat', 'status'], "put is the option's value")
        self.assertEqual(sorted(ask('config', '')), ['push', 'set'])
        self.assertEqual(ask('put', '--ver'), ['--verify', '--version'])
        self.assertEqual(sorted(ask('put', '--verify', '')), ['all', 'quick'])
        self.assertEqual(sorted(ask('bench', '--mode', '')), ['both', 'read', 'write'])
        self.assertEqual(ask('--color', 'n'), ['never'])
        self.assertEqual(ask('completion', 'z'), ['zsh'])
        self.assertEqual(ask('stat', 'cl'), [], 'a file of the server')

    def test_bash(self):
        self.script('bash')
        self.offers(self.bash)
        for verb in ([], ['put'], ['bench'], ['erase'], ['config', 'push']):
            self.assertEqual(sorted(self.bash(*verb, '--')), sorted(set(options_of(*verb) + options_of())))
        self.assertEqual(sorted(self.bash('put', 'cl')), ['clip one.mov', 'clip.mxf'])
        self.assertEqual(self.bash('put', 'clip.mxf', 'cl'), [], 'the second is a name on the server')
        self.assertEqual(self.bash('export', 'media/x', 'clip.m'), ['clip.mxf'])
        self.assertEqual(self.bash('get', 'media/x', '-o', 'clip.m'), ['clip.mxf'])

    def test_bash_completes_a_value_behind_an_equals_sign(self):
        self.script('bash')
        values = ['both', 'read', 'write']
        self.assertEqual(sorted(self.bash('bench', '--mode', '=', line='zem bench --mode=')), values)
        self.assertEqual(self.bash('bench', '--mode', '=', 'r', line='zem bench --mode=r'), ['read'])
        self.assertEqual(self.bash('bench', '--mode', '=', line='zem bench --mode ='), [], 'that is no option of zem')
        self.assertEqual(self.bash('bench', '--mode', '=', 'r', line='zem bench --mode = r'), [])
        self.assertEqual(self.bash('--color', '=', 'never', 'sta', line='zem --color=never sta'), ['stat', 'status'])
        # An address is five words, and none of them a place of the verb.
        address = ['http', ':', '//127.0.0.1', ':', '8080']
        for option in (['--server'], ['--server', '=']):
            self.assertEqual(self.bash('put', *option, *address, 'clip.m'), ['clip.mxf'])
            self.assertEqual(self.bash(*option, *address, 'sta'), ['stat', 'status'])

    def test_fish(self):
        self.script('fish')
        self.offers(self.fish)
        self.assertEqual(sorted(self.fish('bench', '--')), sorted(set(options_of('bench') + options_of())))
        self.assertEqual(self.fish('put', 'clip.m'), ['clip.mxf'])
        self.assertEqual(self.fish('get', 'media/x', '-o', 'clip.m'), ['clip.mxf'])

    def test_zsh(self):
        """zsh completes on a terminal only: keys go in, and what the line becomes is looked at."""
        with open(self.script('zsh'), encoding='utf-8') as script:
            for verb in script.read().split('_arguments')[1:]:
                self.assertLessEqual(verb.count("'--json["), 1, verb)
        process, master = pty.fork()
        if process == 0:
            os.chdir(self.folder.name)
            os.environ.update({'TERM': 'dumb', 'PS1': 'ready> ', 'HOME': self.folder.name})
            os.execvp('zsh', ['zsh', '-f', '-i'])
        seen = b''

        def until(part):
            nonlocal seen
            end = time.monotonic() + 60
            while part not in seen:
                if not select.select([master], [], [], max(0, end - time.monotonic()))[0]:
                    self.fail('%r not seen; so far: %r' % (part, seen))
                seen += os.read(master, 65536)
            before, seen = seen.split(part, 1)
            return before

        try:
            os.write(master, b"autoload -Uz compinit && compinit -u -D && source ./_zem && zem() { print -r -- \"GOT:$*:\" }"
                             b"; unsetopt zle_bracketed_paste; print READY''NOW\n")
            until(b'READYNOW')
            for keys, line in ((b'zem statu\t', 'status'), (b'zem put --verify qu\t', 'put --verify quick'),
                               (b'zem --server http://a put --verify al\t', '--server http://a put --verify all'),
                               (b'zem config pus\t', 'config push'), (b'zem put clip.m\t', 'put clip.mxf'),
                               (b'zem bench --mode wri\t', 'bench --mode write'),
                               (b'zem bench --conn\t', 'bench --connections'), (b'zem completion fi\t', 'completion fish')):
                os.write(master, keys)
                os.write(master, b'\n')
                until(b'GOT:')
                self.assertEqual(until(b':\r').decode().strip().rstrip('='), line)
        finally:
            os.close(master)
            os.waitpid(process, 0)


if __name__ == '__main__':
    zemcase.main()
