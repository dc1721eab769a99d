// The error-log interface that the server imports (module ErrorLog). Every logging
// scope writes through these four functions, from any thread and at any time; none of them throws,
// allocates for the caller, keeps a pointer that it was given, or waits for a disk or a terminal. A
// host may bring a module of its own with the same four functions; ours is the default, its
// settings are in errorlog/sink.h.
#pragma once

#include "platform/platform.h"

// The levels that the server writes. Others are allowed; a sink prints them as numbers.
constexpr DWORD kErrorLogLevelMessage = 2;
constexpr DWORD kErrorLogLevelWarning = 3;
constexpr DWORD kErrorLogLevelError = 4;
constexpr DWORD kErrorLogLevelTrace = 6;
constexpr DWORD kErrorLogLevelSlowOperation = 15;

#pragma GCC visibility push(default)
extern "C" {

// Opens a chain: the records that belong to one error carry its id. The default module returns the
// bits of hr itself, so that what a server function returns, and what reaches a client, stays a
// meaningful HRESULT.
DWORD ErrorLogCreateChainId(HRESULT hr);

// Records that the function named functionName ended with an error. chainIdOrResult is a chain id,
// or an HRESULT where no error record was written before. Returns TRUE when the record was taken.
BOOL ErrorLogWriteEntryPointW(DWORD chainIdOrResult, const SYSTEMTIME* time,
                              const WCHAR* functionName);

// Records one piece of a message. hr is 0 for what is not an error; time is local time; file is a
// source file name without directory, may be empty (then line means nothing); line is -1 or 0 when
// unknown; elapsed_ms is 0 when not measured; text is at most 127 characters, longer messages
// arrive as several records with the same time, level, file and chain id, in order, from one
// thread. Returns TRUE when the record was taken.
BOOL ErrorLogWriteExW(HRESULT hr, const SYSTEMTIME* time, DWORD category, DWORD level,
                      const WCHAR* file, LONG line, DWORD elapsed_ms, const WCHAR* text,
                      DWORD chainId);

// Records who owns what: four free texts and a number about the object id. Returns TRUE when the
// record was taken.
BOOL ErrorLogWriteOwnerInfoW(LONG id, const SYSTEMTIME* time, const WCHAR* a, const WCHAR* b,
                             const WCHAR* c, const WCHAR* d, LONG e);

}  // extern "C"
#pragma GCC visibility pop
