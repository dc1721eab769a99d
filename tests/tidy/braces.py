#!/usr/bin/env python3
"""One way to brace: braces.py [--fix] SOURCE_DIR. Braces stand around a body of more than one line, around every branch of
an if with an else when one of them has them, around what follows a condition of several lines, and around an EXPECT or
ASSERT behind an if, where the compiler asks for them; a single line has none.
Prints every place that differs, and exits 1 on any; --fix mends them (clang-format then joins what fits on a line).

It reads lines, not C++: the sources are as clang-format leaves them, so indentation tells what belongs together."""

import glob
import os
import re
import sys

FOLDERS = ('zemhttpd', 'platform', 'mediaio', 'apps', 'tests', 'bench', 'fuzz', 'examples')
HEAD = re.compile(r'\s*(?:if(?: constexpr)?|for|while) \(')
ELSE = re.compile(r'\s*(?:\} )?else(?: if(?: constexpr)? \(|\s*\{?$)')


def without_texts(line):
    """The line with nothing in its literals and no comment, columns kept."""
    line = re.sub(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)+\'', lambda found: '"' * len(found.group()), line)
    return re.sub(r'//.*', '', line).rstrip()


def indent(line):
    return len(line) - len(line.lstrip())


class Branch:
    """A condition with its body: lines first to head_end, and the body's up to, not including, end."""

    def __init__(self, lines, first):
        self.first, self.head_end = first, first
        self.rest = ''
        at = indent(lines[first])
        if '(' in lines[first] and not re.match(r'\s*(?:\} )?else\s*\{?$', lines[first]):
            depth, column = 0, lines[first].index('(')
            while True:
                for column in range(column, len(lines[self.head_end])):
                    depth += {'(': 1, ')': -1}.get(lines[self.head_end][column], 0)
                    if depth == 0:
                        break
                if depth == 0:
                    break
                self.head_end, column = self.head_end + 1, 0
            self.rest = lines[self.head_end][column + 1:].strip()
        else:
            self.rest = '{' if lines[first].endswith('{') else ''
        self.braced = self.rest == '{'
        self.end = self.head_end + 1
        if self.rest in ('', '{'):
            while self.end < len(lines) and (not lines[self.end] or indent(lines[self.end]) > at or
                                             lines[self.end].startswith('#')):
                self.end += 1
        self.body = [line for line in lines[self.head_end + 1:self.end] if line]

    def known(self):
        return self.rest in ('', '{') or self.rest.endswith(';')

    def lines(self):
        return 1 if self.rest not in ('', '{') else len(self.body)


def chains(lines):
    """Every if, for and while with its else branches."""
    for first, line in enumerate(lines):
        if not HEAD.match(line):
            continue
        chain = [Branch(lines, first)]
        while chain[-1].end < len(lines) and ELSE.match(lines[chain[-1].end]) and (
                indent(lines[chain[-1].end]) == indent(line)):
            chain.append(Branch(lines, chain[-1].end))
        yield chain


def wants_braces(chain, raw):
    """True or False, or None where both are well, or the preprocessor has a say."""
    if any(not branch.known() for branch in chain) or any(not branch.lines() for branch in chain):
        return None
    bodies = [raw[number].strip() for branch in chain for number in range(branch.head_end + 1, branch.end)]
    if any(body.startswith('#') for body in bodies) or raw[chain[-1].end].startswith('#'):
        return None
    if any(branch.lines() > 1 or branch.head_end > branch.first for branch in chain):
        return True
    ends = [branch.body[0] if branch.body else branch.rest for branch in chain]
    if any(not end.endswith(';') for end in ends):
        return None
    # An if within, or in a macro of GoogleTest: an else behind it would be whose?
    if HEAD.match(raw[chain[0].first]).group().strip().startswith('if') and any(
            re.match(r'\s*(?:EXPECT|ASSERT)_', end) for end in ends):
        return True
    return None if any(re.match(r'\s*(?:if|do)\b', end) for end in ends) else False


def mend(raw, chain, braces):
    """New text of the chain's lines, as a list; everything else keeps its place."""
    out, last = {}, chain[-1].end
    pad = ' ' * indent(raw[chain[0].first])
    if chain[0].rest not in ('', '{'):  # a body on the line of its condition, which has no else
        head = raw[chain[0].head_end]
        at = head.rindex(chain[0].rest[:8])
        return {chain[0].head_end: head[:at] + '{\n' + pad + '    ' + head[at:] + '\n' + pad + '}'}
    for branch in chain:
        if branch.braced == braces:
            continue
        head = raw[branch.head_end]
        length = len(without_texts(head))
        if braces:
            out[branch.head_end] = head[:length] + ' {' + head[length:]
        else:
            out[branch.head_end] = head[:length - 1].rstrip() + head[length:]
    for branch, following in zip(chain, chain[1:]):
        head = out.get(following.first, raw[following.first])
        if braces and not branch.braced:
            out[following.first] = pad + '} ' + head.lstrip()
        elif not braces and branch.braced:
            out[following.first] = pad + head.lstrip().removeprefix('} ')
    if braces and not chain[-1].braced:
        out[last - 1] = out.get(last - 1, raw[last - 1]) + '\n' + pad + '}'
    elif not braces and chain[-1].braced:
        out[last] = None
    return out


def main(arguments):
    fix = '--fix' in arguments
    os.chdir([one for one in arguments if one != '--fix'][0])
    good, count = True, 0
    for folder in FOLDERS:
        for path in sorted(glob.glob(folder + '/**/*.*', recursive=True)):
            if not path.endswith(('.h', '.cpp')):
                continue
            with open(path, encoding='utf-8') as file:
                raw = file.read().split('\n')
            out = {}
            for chain in chains([without_texts(line) for line in raw]):
                count += 1
                wanted = wants_braces(chain, raw)
                if wanted is None or all(branch.braced == wanted for branch in chain):
                    continue
                good = False
                new = mend(raw, chain, wanted)
                if fix and not set(new) & set(out):
                    out.update(new)
                else:
                    print('%s:%d: %s' % (path, chain[0].first + 1, 'wants braces' if wanted else 'wants no braces'))
            if out:
                text = [out.get(number, line) for number, line in enumerate(raw)]
                with open(path, 'w', encoding='utf-8') as file:
                    file.write('\n'.join(line for line in text if line is not None))
    if count < 1000:
        sys.exit('found only %d conditions and loops' % count)
    return good


sys.exit(0 if main(sys.argv[1:]) else 1)
