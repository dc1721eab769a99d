#!/usr/bin/env python3
"""One black-box suite against zemhost.exe under Wine: every case must pass but those in windows_exempt.py.

usage: windows.py --zemhost PROGRAM.exe --suite NAME [--file-server] [--trace] [unittest arguments]
"""

import argparse
import importlib
import subprocess
import sys
import time
import unittest

import windows_server
import wire
from windows_exempt import ALONE, EXEMPT, NOT_RUN


def cases(tests):
    for test in tests:
        if isinstance(test, unittest.TestSuite):
            yield from cases(test)
        else:
            yield test


def name_of(test):
    return test.id().split('.', 1)[1]


def reason_of(suite, name):
    for row_suite, start, reason in EXEMPT:
        if row_suite == suite and name.startswith(start):
            return reason
    return None


ATTEMPTS = 4


def with_attempts():
    """Wine's HTTP driver gets stuck now and then, and then answers nobody. A run in which that happens counts for nothing and
    is begun again on a Wine started anew; a server of ours that stopped answering would do so every time."""
    for attempt in range(ATTEMPTS):
        code = subprocess.run([sys.executable, '-B', __file__, *sys.argv[1:], '--attempt']).returncode
        if code != windows_server.STUCK:
            return code
        print('nobody answers any more (attempt %d of %d)' % (attempt + 1, ATTEMPTS), flush=True)
        windows_server.stop_wine()
    return 1


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--suite', required=True)
    parser.add_argument('--file-server', action='store_true')
    parser.add_argument('--trace', action='store_true')
    parser.add_argument('--alone', metavar='CASE', help='run this one case, exempt or not')
    parser.add_argument('--attempt', action='store_true', help='used by the program itself')
    parser.add_argument('--only', metavar='TEXT', help='run the cases with this text in their names')
    options = parser.parse_args()

    if not options.attempt:
        return with_attempts()
    windows_server.start_wine()
    module = importlib.import_module(options.suite)
    if options.suite == 'blackbox':
        module.PROGRAM, module.FILE_SERVER, module.TRACE = options.zemhost, options.file_server, options.trace
    else:
        base = module.ExactCase
        base.program, base.file_server, base.trace_flag = options.zemhost, options.file_server, options.trace

    found = list(cases(unittest.defaultTestLoader.loadTestsFromModule(module)))
    if options.alone:
        if reason_of(options.suite, options.alone):
            wire.Connection.patience_s = 3  # that long for an answer that is not expected
        chosen = [test for test in found if name_of(test) == options.alone]
        return 0 if unittest.TextTestRunner().run(unittest.TestSuite(chosen)).wasSuccessful() else 1
    if options.only:
        found = [test for test in found if options.only in name_of(test)]

    begun = time.monotonic()
    arguments = [argument for argument in sys.argv[1:] if not argument.startswith('--only')]

    def passes_alone(name):
        command = [sys.executable, '-B', __file__, *arguments, '--alone', name]
        if reason_of(options.suite, name):
            return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0
        command.remove('--attempt')
        return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0

    names = [name_of(test) for test in found]
    exempt = [name for name in names if reason_of(options.suite, name)]
    left_out = {name: reason for name in names for suite, start, reason in NOT_RUN
                if suite == options.suite and name.startswith(start)}
    alone = [name for name in names if name not in exempt
             and any(row[0] == options.suite and name.startswith(row[1]) for row in ALONE)]
    rest = unittest.TestSuite(test for test in found if name_of(test) not in [*exempt, *alone, *left_out])
    result = unittest.TextTestRunner(verbosity=1).run(rest)
    failed = False
    # Wine's HTTP driver drops a connection now and then. What does not pass by itself either has failed.
    for test, _ in result.failures + result.errors:
        name = name_of(test) if test in found else str(test)
        if test in found and passes_alone(name):
            print('repeated: %s passed by itself' % name)
        else:
            print('FAIL: %s, by itself too' % name)
            failed = True
    failed = failed or bool(result.unexpectedSuccesses)
    for name in alone:
        if not passes_alone(name):
            print('FAIL: %s, by itself: repeat with --alone %s' % (name, name))
            failed = True
    for row in EXEMPT + ALONE + NOT_RUN:
        if row[0] == options.suite and not options.only and not any(name.startswith(row[1]) for name in names):
            print('FAIL: no case begins with %s: take it off the list' % row[1])
            failed = True
    for name in exempt:
        if passes_alone(name):
            print('FAIL: %s passes by now: take it off the list' % name)
            failed = True
        else:
            print('exempt: %s: %s' % (name, reason_of(options.suite, name)))
        windows_server.stop_wine()  # whatever it left
    for name, reason in left_out.items():
        print('not run: %s: %s' % (name, reason))
    print('%s: %d cases under Wine, %d of them exempt, %d not run, %.0f s'
          % (options.suite, len(names), len(exempt), len(left_out), time.monotonic() - begun))
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
