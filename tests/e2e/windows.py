#!/usr/bin/env python3
"""One black-box suite against zemhost.exe under Wine: every case must pass but those in windows_exempt.py, which must not.

usage: windows.py --zemhost PROGRAM.exe --suite NAME [--file-server] [--trace] [--exempt | --case NAME | --only TEXT | --watch NAME]
"""

import argparse
import importlib
import subprocess
import sys
import time
import unittest

import windows_server
# Behind that, for it takes the server and the connection from wire.py as they are by then.
import exact
import wire
from windows_exempt import ALONE, EXEMPT, LONG, NO_SERVER, NOT_RUN

# Exit codes of a case by itself; 1 and 2 are Python's own. Disorder: failed, and its server did not stop as it should.
PASSED, NOT_BEGUN, DISORDER, FAILED = 0, 3, 4, 5


def cases(tests):
    for test in tests:
        if isinstance(test, unittest.TestSuite):
            yield from cases(test)
        else:
            yield test


def name_of(test):
    return test.id().split('.', 1)[1]


def listed(rows, suite, name):
    return next((row for row in rows if row[0] == suite and name.startswith(row[1])), None)


def by_itself(options, name, quiet=False):
    """A case in a process of its own: what its servers leave in Wine's driver touches no other."""
    command = [sys.executable, '-B', __file__, '--zemhost', options.zemhost, '--suite', options.suite, '--case', name]
    command += ['--file-server'] * options.file_server + ['--trace'] * options.trace
    return subprocess.run(command, **({'stdout': subprocess.DEVNULL, 'stderr': subprocess.DEVNULL} if quiet else {})).returncode


def run_case(found, name):
    result = unittest.TextTestRunner().run(unittest.TestSuite(test for test in found if name_of(test) == name))
    if result.skipped:
        return NOT_BEGUN
    if result.wasSuccessful():
        return PASSED
    if not result.testsRun or any('wire.NotStarted' in text for _, text in result.errors):
        return NOT_BEGUN
    return FAILED if all(test in found for test, _ in result.failures + result.errors) else DISORDER


def probe(options, name):
    """Whether a listed case passes: None where it could not even begin. It gets a driver that works, and may leave one that does
    not."""
    if listed(NO_SERVER, options.suite, name):
        code = by_itself(options, name, quiet=True)
        return code == PASSED if code in (PASSED, NOT_BEGUN) else None
    for _ in range(3):
        code = by_itself(options, name, quiet=True)
        if code != PASSED and code != FAILED:
            windows_server.stop_wine()
        if code in (PASSED, FAILED, DISORDER):
            return code == PASSED
        windows_server.note('the server for %s did not start: Wine was started anew' % name)
    return None


def complaint(options, name):
    """What is wrong with a listed case: nothing where it begins and fails."""
    passes = probe(options, name)
    if passes is None:
        return 'does not fail as it should: repeat with --case ' + name
    return 'passes by now: take it off the list' if passes else ''


def run_exempt(options, names):
    """Each listed case must begin, and must fail."""
    failed = False
    exempt = [name for name in names if listed(EXEMPT, options.suite, name)]
    for name in exempt:
        wrong = complaint(options, name)
        print('FAIL: %s %s' % (name, wrong) if wrong else
              'exempt: %s.%s: %s' % (options.suite, name, listed(EXEMPT, options.suite, name)[2]))
        failed = failed or bool(wrong)
    windows_server.stop_wine()
    for row in EXEMPT + ALONE + LONG + NO_SERVER + NOT_RUN:
        if row[0] == options.suite and not any(name.startswith(row[1]) for name in names):
            print('FAIL: no case begins with %s: take it off the list' % row[1])
            failed = True
    left_out = [name for name in names if listed(NOT_RUN, options.suite, name)]
    for name in left_out:
        print('not run: %s.%s: %s' % (options.suite, name, listed(NOT_RUN, options.suite, name)[2]))
    print('%s: %d cases, %d of them exempt, %d not run' % (options.suite, len(names), len(exempt), len(left_out)))
    return FAILED if failed else PASSED


def run_others(options, found):
    begun = time.monotonic()
    left_out = EXEMPT + NOT_RUN + (LONG if options.file_server != options.trace else [])
    exempt = [test for test in found if listed(left_out, options.suite, name_of(test))]
    alone = [name_of(test) for test in found if test not in exempt and listed(ALONE, options.suite, name_of(test))]
    together = [test for test in found if test not in exempt and name_of(test) not in alone]
    passed = unittest.TextTestRunner(verbosity=2).run(unittest.TestSuite(together)).wasSuccessful()
    for name in alone:
        if by_itself(options, name) != PASSED:
            print('FAIL: %s, by itself: repeat with --case %s' % (name, name))
            passed = False
    if alone:
        windows_server.stop_wine()
    print('%s: %d cases under Wine, %d left out (%s, trace %s), %.0f s'
          % (options.suite, len(alone) + len(together), len(exempt), 'file server' if options.file_server else 'ordinary',
             'on' if options.trace else 'off', time.monotonic() - begun))
    return PASSED if passed else FAILED


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--suite', required=True)
    parser.add_argument('--file-server', action='store_true')
    parser.add_argument('--trace', action='store_true')
    parser.add_argument('--exempt', action='store_true', help='run the exempt cases, each by itself: they must fail')
    parser.add_argument('--case', metavar='NAME', help='run this one case, exempt or not')
    parser.add_argument('--watch', metavar='NAME', help='list a case that passes: succeeds if that is noticed')
    parser.add_argument('--only', metavar='TEXT', help='run the cases with this text in their names')
    options = parser.parse_args()

    windows_server.start_wine()
    module = importlib.import_module(options.suite)
    if hasattr(module, 'PROGRAM'):
        module.PROGRAM, module.FILE_SERVER, module.TRACE = options.zemhost, options.file_server, options.trace
    else:
        base = module.ExactCase
        base.program, base.file_server, base.trace_flag = options.zemhost, options.file_server, options.trace

    found = list(cases(unittest.defaultTestLoader.loadTestsFromModule(module)))
    if options.watch:
        return PASSED if complaint(options, options.watch).startswith('passes') else FAILED
    if options.case:
        if listed(EXEMPT, options.suite, options.case):
            # That long for an answer or for lines of the log that are not expected, and for the end of a server whose driver
            # has stopped.
            wire.Connection.patience_s, exact.Ledger.patience_s, wire.Server.patience_s = 3, 3, 5
        return run_case(found, options.case)
    if options.only:
        found = [test for test in found if options.only in name_of(test)]
    return run_exempt(options, [name_of(test) for test in found]) if options.exempt else run_others(options, found)


if __name__ == '__main__':
    sys.exit(main())
