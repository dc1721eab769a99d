#!/usr/bin/env python3
"""The platform suites that are in Windows' terms, against the system's own calls: every case must pass but those listed here,
which must not.

usage: platform.py --run COMMAND..., the command that runs platform_base.exe"""

import argparse
import os
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import windows_server

# Case, reason.
STRICT = 'the layer for Linux refuses what the system takes'
CRT = 'the C runtime of the build, or Wine of it, treats text at the edges otherwise'
NARROW = 'the ANSI code page is not UTF-8, and the C runtime knows no locale'

EXEMPT = {
    'Calendar.RefusesWhatDoesNotExist': 'Wine takes dates that do not exist',
    'Calendar.LocalTimeIsTheSystemTimeInTheZone': 'Wine takes times that do not fit',
    'Text.Appends': CRT,
    'Text.Compares': CRT,
    'CodePage.ConvertsBothWays': NARROW,
    'CodePage.RefusesBadArguments': STRICT,
    'CodePage.ReplacesIllFormedText': 'Wine counts an ill-formed sequence as one',
    'Semaphore.CountsAndRefuses': 'Wine takes a release of none',
    'Wait.RefusesBadHandles': 'numbers that are no handle of the layer may be one of the system',
    'Wait.MultipleChecksItsArguments': 'Wine takes a handle twice',
    'Apc.MayQueueFurtherCalls': 'Wine runs a queued call in the same wait',
    'Format.StringsInAWideFormat': NARROW,
    'Format.StringsInANarrowFormat': NARROW,
    'Format.NullStringsAndIllFormedText': NARROW,
    'Format.Characters': NARROW,
    'Format.Integers': CRT,
    'Format.IntegerFlags': CRT,
    'Format.Floats': CRT,
    'Format.UnknownConversionsAreCopied': CRT,
    'Format.RefusesToWriteThroughN': CRT,
    'Format.FitsExactly': CRT,
    'Format.BadArguments': CRT,
    'Format.ReadsNoFurtherThanAllowed': NARROW,
    'Format.AgreesWithTheCLibraryOnRandomNumbers': CRT,
    'Files.RefusesUnknownArguments': STRICT,
    'Apartment.IsCountedPerThreadAndHasOneModel': STRICT,
    'ComError.HasTheSystemsMessageWithoutItsLineEnd': 'Wine has fewer messages',
    'XmlDocument.RefusesWhatIsNotWellFormed': 'the document of Wine takes document types',
    'XmlDocument.BoundsTheDepth': STRICT,
}


# Neither certain to pass nor to fail: left out.
UNDECIDED = {
    'Apc.NoneIsLostAgainstWaits': 'it wants one wait at least that a queued call interrupts, and Wine often has none',
}


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument('--run', nargs='+', required=True)
    options = parser.parse_args()

    def run(*arguments, timeout_s=120):
        done = subprocess.run([*options.run, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=timeout_s)
        text = done.stdout.decode(errors='replace').replace('\r', '')
        return windows_server.exit_code(done.returncode, text, r'\[  PASSED  \] \d+ tests?\.\n\Z'), text

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
        try:
            passes = run('--gtest_filter=' + name, timeout_s=30)[0] == 0
        except subprocess.TimeoutExpired:
            passes = False
        if passes:
            print('FAIL: %s passes by now: take it off the list' % name)
            failed = True
        else:
            print('exempt: %s: %s' % (name, reason))
    for name, reason in UNDECIDED.items():
        print('not run: %s: %s' % (name, reason))
    print('platform: %d cases under Wine, %d of them exempt, %d not run' % (len(cases), len(EXEMPT), len(UNDECIDED)))
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
