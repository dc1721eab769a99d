"""docs/operations.md is complete: operations_test.py SOURCE_DIR.

Every registry value that a source reads or packaging/zemhttpd.reg sets stands in its table of settings, every error, warning,
message and slow operation that the server, the media library or zemhost writes to the error log in its table of lines, and
neither table has others.
Texts are compared as they stand in the sources, with an ellipsis for every value that is filled in. --list prints them."""

import glob
import os
import re
import sys

ROOT = sys.argv[1]
LITERALS = r'(?:(?:TEXT\(\s*)?(?:"(?:[^"\\]|\\.)*"\s*)+\)?\s*)'
# What goes to the log whether or not the server traces. Of the traces that RsDbg switches these are listed all the same.
CALLS = ('ThrowError', 'LogError', 'LogMsg', 'LogWarning', 'LogSlowOperation', 'LogStore', 'LogStoreOf')
LISTED_TRACES = ('ZEM HTTP file server mode', 'HTTP requests serviced', 'Deleting ZEM client', 'Could not set real-time')
SWITCHED = re.compile(r'\bTracing\(\)\)\s*\{?\s*(?://.*\n\s*)?(?:\w+\.)?$|\brun\.$')  # run: CFileCommand looks itself


def sources(*folders):
    for folder in folders:
        for path in sorted(glob.glob(os.path.join(ROOT, folder, '**', '*.*'), recursive=True)):
            if path.endswith(('.cpp', '.h')):
                with open(path, encoding='utf-8') as file:
                    yield os.path.relpath(path, ROOT), re.sub(r'(?m)^\s*//.*$', '', file.read())


def joined(literals):
    return ''.join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals)).replace('\\"', '"')


def shown(text):
    """The text of a format: an ellipsis for each value, or several in a row."""
    text = re.sub(r'%%', '\0', text)
    text = re.sub(r'%(?:0?\d*)(?:I64|ll)?[a-zA-Z]', '…', text).replace('\0', '%').strip()
    return re.sub(r'\s+', ' ', text)


def arguments(text, start):
    """What stands between the parenthesis at `start` and its end."""
    depth, at, quoted = 0, start, False
    while True:
        c = text[at]
        if quoted:
            if c == '\\':
                at += 1
            elif c == '"':
                quoted = False
        elif c == '"':
            quoted = True
        elif c == '(':
            depth += 1
        elif c == ')':
            depth -= 1
            if depth == 0:
                return text[start + 1:at]
        at += 1


def constants(text):
    """Named texts: constexpr const WCHAR* kName = TEXT("...");"""
    return {name: joined(value) for name, value in
            re.findall(r'(k[A-Z]\w*)(?:\[\])?\s*=\s*(' + LITERALS + r');', text)}


def log_texts():
    everywhere = {}
    for _, text in sources('zemhttpd', 'mediaio'):
        everywhere.update(constants(text))
    found = {}
    for path, text in sources('zemhttpd', 'mediaio'):
        if path.startswith('zemhttpd/entry/') or path == 'mediaio/store/log.cpp':
            continue
        for call in re.finditer(r'\b(' + '|'.join(CALLS + ('Trace',)) + r')\(', text):
            inside = arguments(text, call.end() - 1)
            literals = [joined(one) for one in re.findall(LITERALS, inside)]
            literals += [everywhere[name] for name in re.findall(r'\bk[A-Z]\w*', inside) if name in everywhere]
            wanted = [one for one in literals
                      if ' ' in one and len(one) >= 10]
            if call.group(1) == 'Trace' and SWITCHED.search(text[:call.start()]):
                wanted = [one for one in wanted if any(name in one for name in LISTED_TRACES)]
            elif not wanted and not re.search(r'\bhr, const WCHAR\*|DWORD level|\.\.\.', inside):
                print('%s: no text found in %s(%s)' % (path, call.group(1), ' '.join(inside.split())))
                sys.exit(1)
            if call.group(1) == 'LogStoreOf' and wanted:  # begins with the file
                wanted[0] = '…: ' + wanted[0]
            for one in wanted:
                found.setdefault(shown(one), path)
    return found


def registry_values():
    found = {}
    for path, text in sources('zemhttpd', 'mediaio', 'platform/posix', 'apps/zemhost'):
        for pattern in (r'Read(?:Dword|String)\(\s*TEXT\("([^"]+)"\)',
                        r'RegQueryValueEx[AW]\(\s*\w+,\s*(?:TEXT\()?"([^"]+)"',
                        r'RegistryPlace(?: k\w+ = )?\{\s*TEXT\("[^"]*"\),\s*TEXT\("([^"]+)"\)'):
            for name in re.findall(pattern, text):
                found.setdefault(name, path)
    shipped = 'packaging/zemhttpd.reg'
    with open(os.path.join(ROOT, shipped), encoding='utf-8') as file:
        for name in re.findall(r'(?m)^"([^"]+)"=', file.read()):
            found.setdefault(name, shipped)
    return found


def table(page, heading, column):
    """The back-quoted texts in a column of the tables under a heading."""
    part = re.search(r'(?m)^## ' + re.escape(heading) + r'\n(.*?)(?=^## |\Z)', page, re.S).group(1)
    cells = []
    for line in part.split('\n'):
        if line.startswith('|') and not line.startswith('|---'):
            cells += re.findall(r'`([^`]+)`', line.strip('|').split('|')[column].replace('\\', '\\'))
    return cells


def fragments(text):
    """What is fixed in a text."""
    return [part.strip() for part in re.split('…', text) if len(part.strip()) >= 4]


def compare(what, found, listed, has, known):
    """`has`: whether a listed name stands for one of the sources; `known`: whether a source has what is listed."""
    missing = [name for name in found if not any(has(name, one) for one in listed)]
    unknown = [one for one in listed if not known(one)]
    for name in missing:
        print('docs/operations.md lacks the %s `%s` (%s)' % (what, name, found[name]))
    for name in unknown:
        print('no source has the %s `%s` of docs/operations.md' % (what, name))
    return not missing and not unknown


texts, values = log_texts(), registry_values()
if '--list' in sys.argv:
    print('\n'.join(values))
    print('\n'.join('%-40s %s' % (path, text) for text, path in texts.items()))
    sys.exit(0)
if len(texts) < 50 or len(values) < 8:
    sys.exit('found only %d texts and %d values' % (len(texts), len(values)))
with open(os.path.join(ROOT, 'docs', 'operations.md'), encoding='utf-8') as file:
    page = file.read()
literals = '\n'.join(shown(joined(one)) for _, text in sources('zemhttpd', 'mediaio')
                     for one in re.findall(LITERALS, re.sub(r'#include.*', '', text)))
good = compare('registry value', values, table(page, 'Settings', 1), str.__eq__, values.__contains__)
# The media library puts its lines together from pieces.
good = compare('log line', texts, table(page, 'The log', 0),
               lambda text, line: text in line if texts[text].startswith('mediaio/') else text == line,
               lambda line: fragments(line) and all(part in literals
                                                            for part in fragments(line.removeprefix('…: ')))) and good
# What zemhost looks at for its type.
with open(os.path.join(ROOT, 'apps', 'zemhost', 'registryplaces.h'), encoding='utf-8') as file:
    looked_at = re.findall(r'TEXT\("([^"\\]+)"\)', file.read())
for name in values:
    if name not in looked_at + ['Content Type']:
        print('apps/zemhost/registryplaces.h lacks the registry value %s (%s)' % (name, values[name]))
        good = False
for _, text in sources('mediaio', 'platform/posix', 'apps/zemhost', 'zemhttpd'):
    for name in re.findall(r'(?:getenv|EnvironmentFlag)\("([A-Z_]+)"\)', text):
        if '`%s' % name not in page:
            print('docs/operations.md lacks the variable', name)
            good = False
sys.exit(0 if good else 1)
