"""documents.py SOURCE OUT --beside PATH... --elsewhere PATH=INSTALLED...: the documents as they are installed.

Copies the pages and pictures of SOURCE to OUT. A link stays where its target lies `--beside` the pages as it does in the
tree; one to what is installed `--elsewhere` (a path from OUT) leads there; of any other, which only the sources have, the
words remain. A file that is named for the one or the other and is missing is an error."""

import argparse
import glob
import os
import posixpath
import re
import shutil
import sys

LINK = re.compile(r'!?\[((?:[^\[\]]|\[[^\]]*\])*)\]\(([^)\s]+)\)')


def rewritten(page, text, beside, elsewhere):
    folder = posixpath.dirname(page)

    def link(match):
        path, mark, anchor = match.group(2).partition('#')
        if not path or re.match('[a-z]+:', path):
            return match.group(0)
        target = posixpath.normpath(posixpath.join(folder, path))
        if any(target == one or target.startswith(one + '/') for one in beside):
            return match.group(0)
        if target not in elsewhere:
            return match.group(1)
        there = posixpath.relpath(elsewhere[target], folder or '.')
        return match.group(0).replace('](%s)' % match.group(2), '](%s)' % (there + mark + anchor))

    # What stands between fences is no link.
    parts = re.split(r'(?ms)(^```.*?^```)', text)
    return ''.join(part if part.startswith('```') else LINK.sub(link, part) for part in parts)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('source')
    parser.add_argument('out')
    parser.add_argument('--beside', nargs='*', default=[])
    parser.add_argument('--elsewhere', nargs='*', default=[])
    arguments = parser.parse_args()
    elsewhere = dict(one.split('=') for one in arguments.elsewhere)
    missing = [one for one in [*arguments.beside, *elsewhere] if not os.path.exists(os.path.join(arguments.source, one))]
    if missing:
        sys.exit('there is no ' + ', '.join(missing))
    shutil.rmtree(arguments.out, ignore_errors=True)
    pages = [name for pattern in ('*.md', 'docs/*') for name in glob.glob(pattern, root_dir=arguments.source)]
    for name in sorted(pages):
        made = os.path.join(arguments.out, name)
        os.makedirs(os.path.dirname(made), exist_ok=True)
        if not name.endswith('.md'):
            shutil.copyfile(os.path.join(arguments.source, name), made)
            continue
        with open(os.path.join(arguments.source, name), encoding='utf-8') as file:
            text = file.read()
        with open(made, 'w', encoding='utf-8') as file:
            file.write(rewritten(name, text, [*pages, *arguments.beside], elsewhere))


if __name__ == '__main__':
    main()
