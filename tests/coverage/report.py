#!/usr/bin/env python3
"""Which lines of the library the tests did not reach: report.py SOURCE_DIR BUILD_DIR [FOLDER...].

BUILD_DIR was compiled with --coverage and its tests have run; gcov reads what they left. FOLDER is zemhttpd unless given.
Prints every line that was not reached, but for those that a comment names:

    // Not reached in tests: REASON

Behind code it names that line, on lines of its own the line below it; in both cases with what is indented deeper under
that line, up to the brace that closes it. Exits 1 when a line is unnamed, when a comment gives no reason, and when one names no unreached line."""
import collections
import json
import pathlib
import re
import subprocess
import sys

MARK = re.compile(r'//\s*Not reached in tests:\s*(.*)')


def line_counts(build, root, folders):
    """{file: {line: times reached}} over every object and instantiation; only lines that hold code."""
    notes = sorted(str(path) for path in build.rglob('*.gcno'))
    if not notes:
        sys.exit(f'report.py: {build} was not built with --coverage')
    counts = collections.defaultdict(collections.Counter)
    for start in range(0, len(notes), 20):
        run = subprocess.run(['gcov', '--json-format', '--stdout', *notes[start:start + 20]], cwd=build,
                             capture_output=True, check=True, text=True)
        for document in map(json.loads, filter(None, run.stdout.splitlines())):
            for file in document['files']:
                path = (pathlib.Path(document['current_working_directory']) / file['file']).resolve()
                if not any(path.is_relative_to(root / folder) for folder in folders):
                    continue
                for line in file['lines']:
                    counts[path][line['line_number']] += line['count']
    return counts


def indent(text):
    return len(text) - len(text.lstrip())


def named_lines(lines):
    """[(line of the comment, reason, lines that it names)], lines counted from 1."""
    marks = []
    for number, text in enumerate(lines, 1):
        mark = MARK.search(text)
        if not mark:
            continue
        reason = mark.group(1).strip()
        first = number + 1 if text.lstrip().startswith('//') else number
        while first <= len(lines) and lines[first - 1].lstrip().startswith('//'):
            first += 1
        last = first
        while last < len(lines) and (not lines[last].strip() or indent(lines[last]) > indent(lines[first - 1])):
            last += 1
        if last < len(lines) and lines[last].strip() == '}' and indent(lines[last]) == indent(lines[first - 1]):
            last += 1
        marks.append((number, reason, set(range(first, last + 1))))
    return marks


def check(counts, lines):
    """What is wrong with one file: [(line, complaint)], and how many lines were reached."""
    unreached = {number for number, count in counts.items() if count == 0}
    named = set()
    complaints = []
    for number, reason, covered in named_lines(lines):
        if not reason:
            complaints.append((number, 'a comment without a reason'))
        if not covered & unreached:
            complaints.append((number, 'names lines that the tests reach'))
        named |= covered
    complaints += [(number, 'not reached: ' + lines[number - 1].strip()) for number in unreached - named]
    return sorted(complaints), len(counts) - len(unreached), len(unreached & named)


def main(source, build, *folders):
    root = pathlib.Path(source).resolve()
    found = line_counts(pathlib.Path(build).resolve(), root, folders or ('zemhttpd',))
    total = reached = named = complained = 0
    for path in sorted(found):
        complaints, file_reached, file_named = check(found[path], path.read_text().splitlines())
        total += len(found[path])
        reached += file_reached
        named += file_named
        complained += len(complaints)
        for number, complaint in complaints:
            print(f'{path.relative_to(root)}:{number}: {complaint}')
    if total == 0:
        sys.exit('report.py: no line of these folders was compiled')
    print(f'{reached} of {total} lines reached ({100 * reached / total:.2f} %), {named} more named, {complained} complaints')
    return 1 if complained else 0


if __name__ == '__main__':
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
