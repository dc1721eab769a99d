// Ticks and calendar time. Any thread; what is cached is cached per thread.
#include "platform/posix/time.h"

#include <time.h>

namespace {

constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kSecondsPerDay = 86'400;
constexpr int64_t kDaysFrom1601To1970 = 134'774;
constexpr int64_t kUnixEpoch = kDaysFrom1601To1970 * kSecondsPerDay * kUnitsPerSecond;

uint64_t UnitsOf(const FILETIME& time) {
    return (uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

FILETIME FileTimeOf(uint64_t units) {
    return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

bool Fail() {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
}

// Days since 1601-01-01, a Monday and the first day of a 400-year cycle, to a date and back. March
// is taken as the first month of a year, so that the leap day comes last.
void DateOfDays(int64_t days, LPSYSTEMTIME time) {
    time->wDayOfWeek = static_cast<WORD>((days + 1) % 7);
    const int64_t shifted = days + 306;  // since 1600-03-01
    const int64_t cycle = shifted / 146'097;
    const int64_t day_of_cycle = shifted % 146'097;
    const int64_t year_of_cycle =
        (day_of_cycle - day_of_cycle / 1460 + day_of_cycle / 36'524 - day_of_cycle / 146'096) / 365;
    const int64_t day_of_year =
        day_of_cycle - (365 * year_of_cycle + year_of_cycle / 4 - year_of_cycle / 100);
    const int64_t month = (5 * day_of_year + 2) / 153;
    time->wDay = static_cast<WORD>(day_of_year - (153 * month + 2) / 5 + 1);
    time->wMonth = static_cast<WORD>(month < 10 ? month + 3 : month - 9);
    time->wYear =
        static_cast<WORD>(1600 + cycle * 400 + year_of_cycle + (time->wMonth <= 2 ? 1 : 0));
}

int64_t DaysOfDate(int64_t year, int64_t month, int64_t day) {
    const int64_t shifted_year = (month <= 2 ? year - 1 : year) - 1600;
    const int64_t cycle = shifted_year / 400;
    const int64_t year_of_cycle = shifted_year % 400;
    const int64_t day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    return cycle * 146'097 + year_of_cycle * 365 + year_of_cycle / 4 - year_of_cycle / 100 +
           day_of_year - 306;
}

void SplitUnits(uint64_t units, LPSYSTEMTIME time) {
    const auto seconds = static_cast<int64_t>(units / kUnitsPerSecond);
    DateOfDays(seconds / kSecondsPerDay, time);
    const int64_t second_of_day = seconds % kSecondsPerDay;
    time->wHour = static_cast<WORD>(second_of_day / 3600);
    time->wMinute = static_cast<WORD>(second_of_day / 60 % 60);
    time->wSecond = static_cast<WORD>(second_of_day % 60);
    time->wMilliseconds = static_cast<WORD>(units % kUnitsPerSecond / 10'000);
}

timespec Now(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return now;
}

// Zones change their offset at whole minutes only, so a minute's offset is asked for once; asking
// takes the C library's one lock for time zones.
int64_t ZoneOffsetSeconds(time_t utc) {
    thread_local time_t t_minute = -1;
    thread_local int64_t t_offset = 0;
    if (utc / 60 != t_minute) {
        static const bool zone_is_read = (tzset(), true);
        (void)zone_is_read;
        tm local{};
        localtime_r(&utc, &local);
        t_offset = local.tm_gmtoff;
        t_minute = utc / 60;
    }
    return t_offset;
}

}  // namespace

extern "C" {

ULONGLONG GetTickCount64() {
    // Read several times for every request: the coarse clock costs a tenth of the exact one.
    const timespec now = Now(CLOCK_MONOTONIC_COARSE);
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 +
           static_cast<ULONGLONG>(now.tv_nsec) / 1'000'000;
}

DWORD GetTickCount() {
    return static_cast<DWORD>(GetTickCount64());
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) {
    const timespec now = Now(CLOCK_MONOTONIC);
    count->QuadPart = int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
    return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency) {
    frequency->QuadPart = 1'000'000'000;
    return TRUE;
}

void GetLocalTime(LPSYSTEMTIME time) {
    const timespec now = Now(CLOCK_REALTIME);
    const int64_t seconds = now.tv_sec + ZoneOffsetSeconds(now.tv_sec);
    SplitUnits(static_cast<uint64_t>(seconds * kUnitsPerSecond + kUnixEpoch + now.tv_nsec / 100),
               time);
}

void GetSystemTimeAsFileTime(LPFILETIME time) {
    const timespec now = Now(CLOCK_REALTIME);
    *time = FileTimeOf(
        static_cast<uint64_t>(now.tv_sec * kUnitsPerSecond + kUnixEpoch + now.tv_nsec / 100));
}

BOOL FileTimeToLocalFileTime(const FILETIME* utc, LPFILETIME local) {
    const int64_t offset = ZoneOffsetSeconds(Now(CLOCK_REALTIME).tv_sec) * kUnitsPerSecond;
    const auto units = static_cast<int64_t>(UnitsOf(*utc));
    int64_t result;
    if (units < 0 || __builtin_add_overflow(units, offset, &result) || result < 0) return Fail();
    *local = FileTimeOf(static_cast<uint64_t>(result));
    return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* file_time, LPSYSTEMTIME system_time) {
    const uint64_t units = UnitsOf(*file_time);
    if (units >> 63) return Fail();
    SplitUnits(units, system_time);
    return TRUE;
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* system_time, LPFILETIME file_time) {
    const SYSTEMTIME& t = *system_time;
    if (t.wYear < 1601 || t.wYear > 30827 || t.wMonth < 1 || t.wMonth > 12 || t.wDay < 1 ||
        t.wHour > 23 || t.wMinute > 59 || t.wSecond > 59 || t.wMilliseconds > 999) {
        return Fail();
    }
    const int64_t days = DaysOfDate(t.wYear, t.wMonth, t.wDay);
    SYSTEMTIME check;
    DateOfDays(days, &check);
    // A day that the month does not have comes back as one of the next month.
    if (check.wDay != t.wDay) return Fail();
    const int64_t seconds = days * kSecondsPerDay + t.wHour * 3600 + t.wMinute * 60 + t.wSecond;
    const uint64_t units =
        static_cast<uint64_t>(seconds) * kUnitsPerSecond + t.wMilliseconds * uint64_t{10'000};
    if (units >> 63) return Fail();
    *file_time = FileTimeOf(units);
    return TRUE;
}

}  // extern "C"
