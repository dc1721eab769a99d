// Ticks, the performance counter, and calendar time in Windows' units. Every call may be made from
// any thread and takes no lock; none makes a system call on an ordinary kernel, except that
// GetLocalTime and FileTimeToLocalFileTime look the time zone up again once a minute and thread (a
// changed zone is seen then).
#pragma once

#include "platform/posix/errors.h"

#pragma GCC visibility push(default)
extern "C" {

// Milliseconds since the system started, in steps of the kernel's tick (at most 10 ms; Windows
// steps by 10 to 16). Unlike there, a machine's sleep is not counted. The 32-bit form wraps after
// 49.7 days.
DWORD GetTickCount();
ULONGLONG GetTickCount64();

// Nanoseconds since an arbitrary point, never backwards; the frequency is 1,000,000,000. Always
// TRUE.
BOOL QueryPerformanceCounter(LARGE_INTEGER* count);
BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency);

void GetLocalTime(LPSYSTEMTIME time);
// 100 ns units since 1601-01-01 UTC.
void GetSystemTimeAsFileTime(LPFILETIME time);

// Adds the zone's offset of this moment, not of the moment given (as on Windows).
// ERROR_INVALID_PARAMETER when the result does not fit.
BOOL FileTimeToLocalFileTime(const FILETIME* utc, LPFILETIME local);
// ERROR_INVALID_PARAMETER for a time with the top bit set; years 1601 to 30827.
BOOL FileTimeToSystemTime(const FILETIME* file_time, LPSYSTEMTIME system_time);
// Ignores wDayOfWeek; ERROR_INVALID_PARAMETER for a date or time that does not exist.
BOOL SystemTimeToFileTime(const SYSTEMTIME* system_time, LPFILETIME file_time);
}
#pragma GCC visibility pop
