// What only this layer promises of its clocks: the zone is the C library's, for every thread. Linux
// only.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "platform/platform.h"

namespace {

TEST(PosixTime, ZoneOfTheEnvironment) {
    // Half an hour beside the hour, west of Greenwich; set before the layer reads the zone in this
    // process.
    setenv("TZ", "XST3:30", 1);
    tzset();
    unsigned id = 0;
    SYSTEMTIME result{};
    const auto thread = reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, 0,
        [](void* out) -> unsigned {
            FILETIME utc, local;
            GetSystemTimeAsFileTime(&utc);
            if (!FileTimeToLocalFileTime(&utc, &local)) return 1;
            const uint64_t a = (uint64_t{utc.dwHighDateTime} << 32) | utc.dwLowDateTime;
            const uint64_t b = (uint64_t{local.dwHighDateTime} << 32) | local.dwLowDateTime;
            FileTimeToSystemTime(&local, static_cast<SYSTEMTIME*>(out));
            return static_cast<unsigned>((a - b) / 10'000'000);
        },
        &result, 0, &id));
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    DWORD seconds = 0;
    ASSERT_TRUE(GetExitCodeThread(thread, &seconds));
    EXPECT_EQ(seconds, 12600u);
    EXPECT_TRUE(CloseHandle(thread));
    const time_t now = time(nullptr);
    tm expected{};
    localtime_r(&now, &expected);
    SYSTEMTIME local;
    GetLocalTime(&local);
    // The minute may have changed in between.
    EXPECT_LE(
        (local.wHour * 60 + local.wMinute - expected.tm_hour * 60 - expected.tm_min + 1440) % 1440,
        1);
}

}  // namespace
