"""The limits that docs/operations.md tells are those of the sources: limits_test.py SOURCE_DIR.

Every number in its table of limits is compared, row by row, with what the named constants make of it. The shares of them
that have no name (a half, a quarter, a sixth) stand here once more."""

import os
import re
import sys

ROOT = sys.argv[1]
MIB = 1 << 20


def constant(path, name):
    """The number that a source gives to `name`, by `name = value;` or `name{value};`."""
    with open(os.path.join(ROOT, path), encoding='utf-8') as file:
        found = re.findall(r'\b%s(?: = |\{)([^;]+?)\}?;' % name, file.read())
    if len(found) != 1:
        sys.exit('%s gives %s %d values' % (path, name, len(found)))
    value = re.sub(r"\w+\{(\w+)\}", r'\1', found[0])  # uint64_t{64}
    value = re.sub(r"(?<=[\da-fA-F])[uUlL']+", '', value)
    if not re.fullmatch(r'[\da-fA-Fx<* ]+', value):
        sys.exit('%s: the value of %s is no number: %s' % (path, name, value))
    return eval(value)


def xactions(mode):
    return constant('zemhttpd/server/lifecycle.cpp', 'k%sXactions' % mode)


def memory_mib(mode):
    return constant('zemhttpd/server/lifecycle.cpp', 'k%sAllocator_bytes' % mode) // MIB


def gate(mode, ahead=False):
    """What may be unwritten, in MiB and in frames: of whoever comes a quarter is kept back."""
    limits = memory_mib(mode) // 2, xactions(mode) // 6
    return [limit if ahead else limit - limit // 4 for limit in limits]


def tuning(name, unit=1):
    return constant('platform/posix/http_tuning.h', name) // unit


def http(name):
    return constant('platform/posix/http_limits.h', name)


def xml(name):
    return constant('platform/posix/xmlcheck.cpp', name)


REQUEST = constant('zemhttpd/frameio/httpxactn.h', 'kRequestBuffer_bytes')
PATH_UNITS = constant('zemhttpd/commands/command.h', 'kNameUnits')
PASS_S = constant('zemhttpd/clients/sniffer.cpp', 'kPass_ms') // 1000
SILENCE_S = constant('zemhttpd/clients/sniffer.cpp', 'kMaxSilence_seconds')
# Numbers that no constant gives stand here as they are.
ROWS = {
    'requests in work': [xactions('Ordinary'), xactions('FileServer'), tuning('waiting_requests'), 503],
    'frame reads and writes at the media library': [constant('zemhttpd/frameio/httpxactn.h', 'kBlocks')],
    'frame memory': [memory_mib('Ordinary'), memory_mib('FileServer')],
    'frame writes that wait for another of their client': [constant('zemhttpd/clients/clienttable.h', 'kMaxInLine')],
    'these and frame writes that wait for the volume, one of a client': [],
    'frames answered and not yet written': gate('Ordinary') + gate('FileServer') + gate('Ordinary', ahead=True),
    'joined clients': [constant('zemhttpd/clients/clienttable.h', 'kMaxClients'), SILENCE_S + 1, SILENCE_S + 1 + PASS_S],
    'open files of a client': [constant('mediaio/store/tokens.h', 'kMaxOpen')],
    'a command': [REQUEST],
    'a request\'s head': [2900, REQUEST, http('kMaxHeaderCount'), 431],
    'a path of a URL': [http('kMaxSegmentChars'), 414],
    'a configuration document': [constant('zemhttpd/frameio/updatecfg.cpp', 'kMaxXml_bytes') // MIB, xml('kMaxPieces'),
                                 xml('kMaxAttributes'), xml('kMaxDepth')],
    'a foreign file (MXF, MOV …)': [constant('mediaio/foreign/clipindex.h', 'kMostFrames')],
    'a path of GET or DELETE': [PATH_UNITS - 1],
    'bodies above 1 MiB that come slowly, before a worker takes them':
        [tuning('gathered_bytes', MIB), constant('platform/posix/http_gathered.h', 'kSmallUploadBytes') // MIB, 503],
    'an idle connection, a stalled head, body or drain': [tuning('idle_ms', 1000)],
    'open descriptors': [],
    'the log\'s queue': [constant('mediaio/errorlog/sink.h', 'kErrorLogQueueRecords')],
    'the registry file': [constant('platform/posix/registry.cpp', 'kMaxFileBytes') // MIB],
}

with open(os.path.join(ROOT, 'docs', 'operations.md'), encoding='utf-8') as file:
    part = re.search(r'(?m)^## Limits\n(.*?)(?=^## |\Z)', file.read(), re.S).group(1)
good = True
listed = re.findall(r'(?m)^\| (?!what \|)(.+?) \| (.+) \|$', part)
for what, bound in listed:
    told = [int(number.replace(',', '')) for number in re.findall(r'\d[\d,]*', bound)]
    if told != ROWS.get(what):
        print('docs/operations.md tells of "%s": %s; the sources: %s' % (what, told, ROWS.get(what)))
        good = False
for what in ROWS.keys() - dict(listed).keys():
    print('docs/operations.md lacks the limit "%s"' % what)
    good = False
if len({tuning(name) for name in ('idle_ms', 'header_ms', 'body_ms', 'drain_ms')}) != 1:
    print('the times of a connection differ: they need rows of their own')
    good = False
sys.exit(0 if good else 1)
