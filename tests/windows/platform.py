#!/usr/bin/env python3
"""The platform suites that are in Windows' terms, against the system's own calls: every case must pass but those in
windows_exempt.py, which must not.

usage: platform.py [--watch CASE] --run COMMAND..., the command that runs platform_base.exe"""

import argparse
import os
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import windows_server
from windows_exempt import EXEMPT, NOT_RUN

EXEMPT = {case: reason for suite, case, reason in EXEMPT if suite == 'platform'}
UNDECIDED = {case: reason for suite, case, reason in NOT_RUN if suite == 'platform'}


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument('--run', nargs='+', required=True)
    parser.add_argument('--watch', metavar='CASE', help='list a case that passes: succeeds if that is noticed')
    options = parser.parse_args()
    windows_server.start_wine()

    def run(*arguments, timeout_s=120):
        done = subprocess.run([*options.run, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=timeout_s)
        text = done.stdout.decode(errors='replace').replace('\r', '')
        return windows_server.exit_code(done.returncode, text, r'\[  PASSED  \] \d+ tests?\.\n\Z'), text

    def passes(name):
        """Of a listed case: None where it neither passed nor failed as a case does."""
        try:
            code, text = run('--gtest_filter=' + name, timeout_s=60)
        except subprocess.TimeoutExpired:
            return False
        if code == 0:
            return True
        return False if '[  FAILED  ] %s\n' % name in text else None

    def complaint(name):
        """What is wrong with a listed case: nothing where it runs to its end and fails."""
        passed = passes(name)
        if passed is None:
            return 'did not run to its end'
        return 'passes by now: take it off the list' if passed else ''

    if options.watch:
        return 0 if complaint(options.watch).startswith('passes') else 1
    code, listing = run('--gtest_list_tests')
    assert code == 0, listing
    cases, suite = [], ''
    for line in listing.splitlines():
        if line.startswith('  '):
            cases.append(suite + line.split('#')[0].strip())
        elif line.rstrip().endswith('.') or '#' in line:
            suite = line.split('#')[0].strip()
    failed = False
    for name in [*EXEMPT, *UNDECIDED]:
        if name not in cases:
            print('FAIL: there is no case %s: take it off the list' % name)
            failed = True
    code, text = run('--gtest_brief=1', '--gtest_filter=*:-' + ':'.join([*EXEMPT, *UNDECIDED]))
    if code != 0:
        print(text)
        failed = True
    for name, reason in EXEMPT.items():
        wrong = complaint(name)
        print('FAIL: %s %s' % (name, wrong) if wrong else 'exempt: platform.%s: %s' % (name, reason))
        failed = failed or bool(wrong)
    for name, reason in UNDECIDED.items():
        print('not run: platform.%s: %s' % (name, reason))
    print('platform: %d cases under Wine, %d of them exempt, %d not run' % (len(cases), len(EXEMPT), len(UNDECIDED)))
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
