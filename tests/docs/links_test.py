"""Every relative link of the documents leads somewhere: links_test.py SOURCE_DIR. Files must be there, headings too."""

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
    for pattern in ('*.md', 'docs/*.md', 'clients/**/*.md'):
        yield from sorted(glob.glob(os.path.join(ROOT, pattern), recursive=True))


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
sys.exit(0 if good else 1)
