// What only this layer promises of its clocks: the zone is the C library's, for every thread. Linux
// only.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstdint>
#include <string>
#include <thread>

#include "platform/platform.h"

namespace {

uint64_t Units(const FILETIME& time) {
    return (uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

TEST(PosixTime, ZoneOfTheEnvironment) {
    // Half an hour beside the hour, west of Greenwich. A new thread has not looked the zone up yet.
    const char* before = getenv("TZ");
    const std::string saved = before ? before : "";
    setenv("TZ", "XST3:30", 1);
    tzset();
    std::thread([] {
        FILETIME first, local, last;
        SYSTEMTIME now;
        GetSystemTimeAsFileTime(&first);
        ASSERT_TRUE(FileTimeToLocalFileTime(&first, &local));
        constexpr uint64_t kWest = 12600ull * 10'000'000;
        EXPECT_EQ(Units(first) - Units(local), kWest);
        GetLocalTime(&now);
        GetSystemTimeAsFileTime(&last);
        ASSERT_TRUE(SystemTimeToFileTime(&now, &local));
        EXPECT_GE(Units(local) + kWest + 10'000, Units(first));
        EXPECT_LE(Units(local) + kWest, Units(last));
    }).join();
    if (before)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

}  // namespace
