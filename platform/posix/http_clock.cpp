// The clock and the cached date.
#include "platform/posix/http_clock.h"

#include <stdio.h>
#include <time.h>

#include <atomic>

namespace posix {
namespace {

std::atomic<uint64_t> g_advance_ms{0};

}  // namespace

uint64_t ClockMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000 +
           g_advance_ms.load(std::memory_order_relaxed);
}

void AdvanceClock(uint32_t milliseconds) {
    g_advance_ms.fetch_add(milliseconds);
}

std::string_view DateText() {
    static constexpr char kDays[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr char kMonths[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    thread_local time_t t_second = -1;
    thread_local char t_text[64];
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (now.tv_sec != t_second) {
        tm utc;
        gmtime_r(&now.tv_sec, &utc);
        snprintf(t_text, sizeof t_text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[utc.tm_wday],
                 utc.tm_mday, kMonths[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min,
                 utc.tm_sec);
        t_second = now.tv_sec;
    }
    return {t_text, 29};
}

}  // namespace posix
