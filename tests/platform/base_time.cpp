// Ticks, the performance counter and calendar conversions. One thread.
#include <gtest/gtest.h>

#include <random>

#include "platform/platform.h"

namespace {

uint64_t Units(const FILETIME& time) {
    return (uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

FILETIME FromUnits(uint64_t units) {
    return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

TEST(Ticks, AreOneClockInTwoWidths) {
    const ULONGLONG before = GetTickCount64();
    const DWORD now = GetTickCount();
    const ULONGLONG after = GetTickCount64();
    EXPECT_LE(static_cast<DWORD>(now - static_cast<DWORD>(before)),
              static_cast<DWORD>(after - before));
    EXPECT_GT(before, 0u);
}

TEST(Ticks, PerformanceCounterRunsWithThem) {
    LARGE_INTEGER frequency, first, second;
    ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
    EXPECT_GT(frequency.QuadPart, 0);
    const ULONGLONG start = GetTickCount64();
    ASSERT_TRUE(QueryPerformanceCounter(&first));
    while (GetTickCount64() - start < 40) {  // ticks come in steps of up to 16 ms
    }
    ASSERT_TRUE(QueryPerformanceCounter(&second));
    EXPECT_GE((second.QuadPart - first.QuadPart) * 1000 / frequency.QuadPart, 20);
}

TEST(Calendar, KnownMoments) {
    struct {
        uint64_t units;
        SYSTEMTIME time;
    } const cases[] = {
        {0, {1601, 1, 1, 1, 0, 0, 0, 0}},
        {116444736000000000ull, {1970, 1, 4, 1, 0, 0, 0, 0}},
        {125962560000000000ull + 10000ull * 123, {2000, 2, 2, 29, 0, 0, 0, 123}},
        {0x7FFFFFFFFFFFFFFFull, {30828, 9, 4, 14, 2, 48, 5, 477}},
    };
    for (const auto& c : cases) {
        const FILETIME file_time = FromUnits(c.units);
        SYSTEMTIME time;
        ASSERT_TRUE(FileTimeToSystemTime(&file_time, &time));
        EXPECT_EQ(time.wYear, c.time.wYear);
        EXPECT_EQ(time.wMonth, c.time.wMonth);
        EXPECT_EQ(time.wDayOfWeek, c.time.wDayOfWeek);
        EXPECT_EQ(time.wDay, c.time.wDay);
        EXPECT_EQ(time.wHour, c.time.wHour);
        EXPECT_EQ(time.wMinute, c.time.wMinute);
        EXPECT_EQ(time.wSecond, c.time.wSecond);
        EXPECT_EQ(time.wMilliseconds, c.time.wMilliseconds);
    }
}

TEST(Calendar, ConvertsBack) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    for (int i = 0; i < 20000; ++i) {
        // Up to the end of 30827, in whole milliseconds.
        const FILETIME file_time = FromUnits(random() % 9223149887999990000ull / 10000 * 10000);
        SYSTEMTIME time;
        ASSERT_TRUE(FileTimeToSystemTime(&file_time, &time));
        FILETIME back;
        ASSERT_TRUE(SystemTimeToFileTime(&time, &back)) << Units(file_time);
        ASSERT_EQ(Units(back), Units(file_time));
        ASSERT_EQ(time.wDayOfWeek, (Units(file_time) / 864000000000ull + 1) % 7);
    }
}

TEST(Calendar, RefusesWhatDoesNotExist) {
    const SYSTEMTIME bad[] = {
        {1600, 12, 0, 31, 0, 0, 0, 0},   {2023, 2, 0, 29, 0, 0, 0, 0},
        {2100, 2, 0, 29, 0, 0, 0, 0},    {2024, 4, 0, 31, 0, 0, 0, 0},
        {2024, 13, 0, 1, 0, 0, 0, 0},    {2024, 0, 0, 1, 0, 0, 0, 0},
        {2024, 1, 0, 0, 0, 0, 0, 0},     {2024, 1, 0, 1, 24, 0, 0, 0},
        {2024, 1, 0, 1, 0, 60, 0, 0},    {2024, 1, 0, 1, 0, 0, 60, 0},
        {2024, 1, 0, 1, 0, 0, 0, 1000},  {30828, 1, 0, 1, 0, 0, 0, 0},
        {2024, 1, 0, 65535, 0, 0, 0, 0},
    };
    for (const SYSTEMTIME& time : bad) {
        FILETIME file_time;
        SetLastError(0);
        EXPECT_FALSE(SystemTimeToFileTime(&time, &file_time))
            << time.wYear << '-' << time.wMonth << '-' << time.wDay;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    const SYSTEMTIME leap{2000, 2, 0, 29, 0, 0, 0, 0};
    FILETIME file_time;
    EXPECT_TRUE(SystemTimeToFileTime(&leap, &file_time));
    SYSTEMTIME time;
    file_time = FromUnits(uint64_t{1} << 63);
    EXPECT_FALSE(FileTimeToSystemTime(&file_time, &time));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Calendar, LocalTimeIsTheSystemTimeInTheZone) {
    // Both clocks are read between two readings of the other, so that a change of second in between
    // does no harm.
    FILETIME before, after, local_before, local_after, local;
    SYSTEMTIME now;
    GetSystemTimeAsFileTime(&before);
    GetLocalTime(&now);
    GetSystemTimeAsFileTime(&after);
    ASSERT_TRUE(FileTimeToLocalFileTime(&before, &local_before));
    ASSERT_TRUE(FileTimeToLocalFileTime(&after, &local_after));
    ASSERT_TRUE(SystemTimeToFileTime(&now, &local));
    // Local time has milliseconds only.
    EXPECT_GE(Units(local) + 10000, Units(local_before));
    EXPECT_LE(Units(local), Units(local_after));
    const FILETIME bad = FromUnits(~uint64_t{0});
    EXPECT_FALSE(FileTimeToLocalFileTime(&bad, &local));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

}  // namespace
