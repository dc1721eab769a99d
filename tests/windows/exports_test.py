#!/usr/bin/env python3
"""The export table of zemhttpd.dll against the names that a host imports, as clang++ generates them for the platform's usual
compiler from the class declaration.

usage: exports_test.py --dll DLL --object OBJECT --objdump PROGRAM [--run COMMAND...]

OBJECT is hostclass.cpp, compiled by that compiler; COMMAND runs exports_run.exe, which gets the names of the virtual
operations in the order in which OBJECT's own table has them. Without it the names are compared and nothing is run."""

import argparse
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'e2e'))
import windows_server
import wire

WANTED_SLOTS = ['LogEntryPoint', 'LogError', 'WriteEventLog', 'LogMsg', 'LogWarning', 'LogOwnerInfo', 'Trace']
WANTED_EVENTS = [('trace', 'L"event 6"'),
                 ('err', r'L"event 7\r\n  ->CHost::Part7 of nine\r\nhost.cpp(10) : Error 0xfffffff9"')]
PLAIN = {'CreateZemHttpSvr', 'DestroyZemHttpSvr'}


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout.decode()


def exports_of(objdump, dll):
    table = output_of(objdump, '-p', dll).split('[Ordinal/Name Pointer] Table', 1)[1]
    return set(re.findall(r'^\s*\[\s*\d+\]\s+(\S+)$', table.split('\n\n', 1)[0], re.M))


def imports_of(objdump, obj):
    """Every name of the class that the object leaves to be found elsewhere."""
    lines = output_of(objdump, '-t', obj).splitlines()
    return {line.split()[-1] for line in lines if '(sec  0)' in line and 'CEntryPoint' in line.split()[-1]}


def slots_of(objdump, obj):
    """What the table of the derived class refers to, in order."""
    dump = output_of(objdump, '-r', obj)
    for section in dump.split('RELOCATION RECORDS FOR ')[1:]:
        rows = re.findall(r'^([0-9a-f]{16}) IMAGE_REL_AMD64_ADDR64\s+(\S+)$', section, re.M)
        if rows and any(name.startswith('?LogEntryPoint@') for _, name in rows):
            return [name for _, name in sorted(rows)]
    return []


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument('--dll', required=True)
    parser.add_argument('--object', required=True)
    parser.add_argument('--objdump', required=True)
    parser.add_argument('--run', nargs='+')
    options = parser.parse_args()
    exports = exports_of(options.objdump, options.dll)
    imports = imports_of(options.objdump, options.object)
    slots = slots_of(options.objdump, options.object)
    problems = []
    for kind, count in (('??0CEntryPoint@@', 3), ('??4CEntryPoint@@', 2)):
        found = [name for name in imports if name.startswith(kind)]
        if len(found) != count:
            problems.append('the host uses %d of %s, not %d' % (len(found), kind, count))
    problems += ['imported but not exported: ' + name for name in sorted((imports | PLAIN) - exports)]
    known = imports | PLAIN
    problems += ['exported but not part of the interface: ' + name for name in sorted(exports - known)
                 if not re.match(r'_ZT[VI]11CEntryPoint$|_ZN11CEntryPoint|_ZN20CEntryPointException13WriteEventLog', name)]
    if [re.match(r'\?(\w+)@', name)[1] for name in slots] != WANTED_SLOTS:
        problems.append('the slots are %s' % slots)
    if not problems and options.run:
        windows_server.start_wine()
        for value, number in (('HttpPort', wire.free_port()), ('HttpFileServer', 0)):  # another test may have left others
            windows_server.run('reg', 'add', 'HKLM\\Software\\Quorvane Group\\ZEM', '/v', value, '/t', 'REG_DWORD',
                               '/d', str(number), '/f')
        # Wine has no event log: it says what it would write there.
        run = subprocess.run([*options.run, *slots], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=90,
                             env=dict(os.environ, WINEDEBUG='-all,err+eventlog,warn+eventlog,trace+eventlog'))
        text, log = run.stdout.decode(errors='replace'), run.stderr.decode(errors='replace')
        if windows_server.exit_code(run.returncode, text, r"a host's use of the class agree\n") != 0:
            problems.append('%s%s\nexports_run ended with %d' % (log, text, run.returncode))
        if not re.search(r'message \[\d+\] host\.cpp\(12\): m{511}\r?\n', log):
            problems.append('%s\na long message is not cut at 511 characters' % log)
        events = re.findall(r'^\w+:(\w+):eventlog:ReportEventW (.*?)\r?$', log, re.M)
        if events != WANTED_EVENTS:
            problems.append('the events are %s' % events)
        last = re.findall(r'message \[\d+\] (?:\S+: )?last words (\d+)', log)
        # What the writer was at when it was ended may be there twice.
        if {str(i) for i in range(500)} - set(last) or last[-1] != '499':
            problems.append('%s\nthe log does not end with 500 last words' % log)
    print('\n'.join(problems) or '%d imported names are exported; 7 slots%s agree'
          % (len(imports), ', offsets, constructors and events' if options.run else ''))
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main())
