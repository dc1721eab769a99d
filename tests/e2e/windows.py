#!/usr/bin/env python3
"""One black-box suite against zemhost.exe under Wine: every case must pass but those in windows_exempt.py, which must not.

usage: windows.py --zemhost PROGRAM.exe --suite NAME [--file-server] [--trace] [unittest arguments]
"""

import argparse
import importlib
import subprocess
import sys
import time
import unittest

import windows_server
from windows_exempt import EXEMPT


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


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument('--zemhost', required=True)
    parser.add_argument('--suite', required=True)
    parser.add_argument('--file-server', action='store_true')
    parser.add_argument('--trace', action='store_true')
    parser.add_argument('--alone', metavar='CASE', help='run this one case, exempt or not')
    parser.add_argument('--only', metavar='TEXT', help='run the cases with this text in their names')
    options = parser.parse_args()

    windows_server.start_wine()
    module = importlib.import_module(options.suite)
    if options.suite == 'blackbox':
        module.PROGRAM, module.FILE_SERVER, module.TRACE = options.zemhost, options.file_server, options.trace
    else:
        base = module.ExactCase
        base.program, base.file_server, base.trace_flag = options.zemhost, options.file_server, options.trace

    found = list(cases(unittest.defaultTestLoader.loadTestsFromModule(module)))
    if options.alone:
        chosen = [test for test in found if name_of(test) == options.alone]
        return 0 if unittest.TextTestRunner().run(unittest.TestSuite(chosen)).wasSuccessful() else 1
    if options.only:
        found = [test for test in found if options.only in name_of(test)]

    begun = time.monotonic()
    exempt = [name_of(test) for test in found if reason_of(options.suite, name_of(test))]
    rest = unittest.TestSuite(test for test in found if not reason_of(options.suite, name_of(test)))
    count = rest.countTestCases()
    result = unittest.TextTestRunner(verbosity=1).run(rest)
    failed = not result.wasSuccessful()
    stale = [row for row in EXEMPT if row[0] == options.suite and not options.only
             and not any(name.startswith(row[1]) for name in exempt)]
    for row in stale:
        print('no case begins with %s: take it off the list' % row[1])
        failed = True
    arguments = [argument for argument in sys.argv[1:] if not argument.startswith('--only')]
    for name in exempt:
        alone = subprocess.run([sys.executable, '-B', __file__, *arguments, '--alone', name],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if alone.returncode == 0:
            print('%s passes by now: take it off the list' % name)
            failed = True
        else:
            print('exempt: %s: %s' % (name, reason_of(options.suite, name)))
    print('%s: %d cases under Wine, %d of them exempt, %.0f s'
          % (options.suite, count + len(exempt), len(exempt), time.monotonic() - begun))
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
