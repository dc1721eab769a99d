// The event log, carried to syslog (facility "user" unless the process chose another): errors as
// LOG_ERR, warnings as LOG_WARNING, the rest as LOG_INFO. The line is "<source>: <strings joined by
// blanks>"; control characters become blanks. Any thread.
#pragma once

#include "platform/posix/errors.h"

#define EVENTLOG_SUCCESS 0x0000
#define EVENTLOG_ERROR_TYPE 0x0001
#define EVENTLOG_WARNING_TYPE 0x0002
#define EVENTLOG_INFORMATION_TYPE 0x0004
#define EVENTLOG_AUDIT_SUCCESS 0x0008
#define EVENTLOG_AUDIT_FAILURE 0x0010

#pragma GCC visibility push(default)
extern "C" {

// Null on failure: ERROR_NOT_SUPPORTED for another machine, ERROR_INVALID_PARAMETER without a
// source.
HANDLE RegisterEventSourceW(LPCWSTR server, LPCWSTR source);
// ERROR_INVALID_HANDLE; ERROR_INVALID_PARAMETER for an unknown type or null strings;
// ERROR_NOT_SUPPORTED with a user or raw data. Category and id are not carried.
BOOL ReportEventW(HANDLE log, WORD type, WORD category, DWORD event_id, PSID user,
                  WORD string_count, DWORD data_size, LPCWSTR* strings, LPVOID data);
BOOL DeregisterEventSource(HANDLE log);
}
#pragma GCC visibility pop
