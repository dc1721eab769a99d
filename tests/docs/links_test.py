"""Every relative link of the documents leads somewhere, and every file that a page, a source or a script names is there:
links_test.py SOURCE_DIR. Of links the headings must be there, too. `links_test.py DIR installed` looks at the links alone,
of the documents as they are installed in DIR."""

import glob
import os
import re
import sys

ROOT = sys.argv[1]


def headings(path):
    """The anchors of a page's headings, as the usual viewers make them."""
    with open(path, encoding='utf-8') as file:
        text = re.sub(r'(?ms)^```.*?^```', '', file.read())
    for title in re.findall(r'(?m)^#+ (.*)$', text):
        plain = re.sub(r'\[([^\]]*)\]\([^)]*\)', r'\1', title).lower()
        yield re.sub(r'[^\w\- ]', '', plain).strip().replace(' ', '-')


def pages():
    for pattern in ('*.md', 'docs/*.md'):
        yield from sorted(glob.glob(os.path.join(ROOT, pattern)))


good, count = True, 0
for page in pages():
    with open(page, encoding='utf-8') as file:
        text = re.sub(r'(?ms)^```.*?^```', '', file.read())
    for target in re.findall(r'\]\(([^)\s]+)\)', text):
        if re.match(r'[a-z]+:', target):
            continue
        count += 1
        path, _, anchor = target.partition('#')
        there = os.path.normpath(os.path.join(os.path.dirname(page), path)) if path else page
        # A star stands for a family of files.
        if not glob.glob(there) and not os.path.exists(there):
            print('%s: there is no %s' % (os.path.relpath(page, ROOT), target))
            good = False
        elif anchor and anchor not in headings(there):
            print('%s: %s has no heading #%s' % (os.path.relpath(page, ROOT), os.path.relpath(there, ROOT), anchor))
            good = False
if count < 50:
    sys.exit('found only %d links' % count)
if sys.argv[2:] == ['installed']:
    sys.exit(0 if good else 1)

# Names of files in texts: what begins with a folder of the tree. A star stands for some.
FOLDERS = ('apps', 'bench', 'clients', 'cmake', 'docs', 'examples', 'fuzz', 'mediaio', 'packaging', 'platform', 'tests', 'zemhttpd')
NAMED = re.compile(r'(?<![\w/.$}{-])((?:%s)/[\w./*+-]*[\w*])(?![{}])' % '|'.join(FOLDERS))
MADE = ('apps/generated', 'fuzz/found', 'zemhttpd/sample.cpp')  # when it is built, when there is one, by a test


def texts():
    for top, folders, names in os.walk(ROOT):
        folders[:] = [one for one in folders if one not in ('build', '.git', 'volume')]
        for name in names:
            if name.endswith(('.pack', '.png', '.svg', '.ico')):
                continue
            try:
                with open(os.path.join(top, name), encoding='utf-8') as file:
                    yield os.path.relpath(os.path.join(top, name), ROOT), file.read()
            except UnicodeDecodeError:
                pass


count = 0
for path, text in texts():
    for found in NAMED.finditer(text):
        name = found.group(1)
        count += 1
        # From the root, or from where it is named; a source may be named without its ending.
        places = [os.path.join(ROOT, name), os.path.join(ROOT, os.path.dirname(path), name),
                  os.path.join(ROOT, 'zemhttpd', name)]
        if not name.startswith(MADE) and not any(glob.glob(place) or glob.glob(place + '[._]*') for place in places):
            print('%s:%d: there is no %s' % (path, text.count('\n', 0, found.start()) + 1, name))
            good = False
if count < 500:
    sys.exit('found only %d names of files' % count)
sys.exit(0 if good else 1)
