#!/usr/bin/env bash
# The shared library exports its two functions, the logging scope's class, and nothing else: exports_test.sh NM LIBRARY.
set -euo pipefail
symbols=$("$1" -D --defined-only --demangle "$2" | cut -d' ' -f3- | sort -u)
wanted='^(CreateZemHttpSvr|DestroyZemHttpSvr|CEntryPoint::.*|CEntryPointException::WriteEventLog\(.*|(vtable|typeinfo|typeinfo name) for CEntryPoint(Exception)?)$'
if extra=$(grep -vE "$wanted" <<<"$symbols"); then
    printf 'exported, but not part of the interface:\n%s\n' "$extra"
    exit 1
fi
for needed in CreateZemHttpSvr DestroyZemHttpSvr 'CEntryPoint::CEntryPoint()' \
    'CEntryPoint::CEntryPoint(char16_t const*, ...)' 'CEntryPoint::CEntryPoint(CEntryPoint const&)' \
    'CEntryPoint::operator=(CEntryPoint const&)' 'CEntryPoint::operator=(int)' \
    'CEntryPoint::LogEntryPoint()' 'CEntryPoint::LogError(int, char16_t const*, int, char16_t const*, ...)' \
    'CEntryPoint::LogMsg(char16_t const*, ...)' 'CEntryPoint::LogWarning(char16_t const*, ...)' \
    'CEntryPoint::LogOwnerInfo(int, char16_t const*, char16_t const*, char16_t const*, char16_t const*, int)' \
    'CEntryPoint::Trace(char16_t const*, ...)' 'vtable for CEntryPoint' 'typeinfo for CEntryPoint'; do
    grep -qxF "$needed" <<<"$symbols" || { printf 'not exported: %s\n' "$needed"; exit 1; }
done
