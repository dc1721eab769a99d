// The event log's way to syslog. Linux only.
#include <gtest/gtest.h>

#include "platform/platform.h"
#include "tests/platform/sysloglines.h"

namespace {

TEST(EventLog, ReportsToSyslog) {
    TakeSyslogLines();
    const HANDLE log = RegisterEventSourceW(nullptr, TEXT("Source \u00E4"));
    ASSERT_NE(log, nullptr);
    LPCWSTR text[] = {TEXT("message\r\n  ->Scope\r\nfile(7) : 100% %s\x1B[0m"), TEXT("second")};
    EXPECT_TRUE(ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, 1, 0, text, nullptr));
    EXPECT_TRUE(ReportEventW(log, EVENTLOG_WARNING_TYPE, 0, 0, nullptr, 2, 0, text, nullptr));
    EXPECT_TRUE(
        ReportEventW(log, EVENTLOG_INFORMATION_TYPE, 0, 0, nullptr, 0, 0, nullptr, nullptr));
    const auto lines = TakeSyslogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "<3> Source \xC3\xA4: message    ->Scope  file(7) : 100% %s [0m");
    EXPECT_EQ(lines[1], "<4> Source \xC3\xA4: message    ->Scope  file(7) : 100% %s [0m second");
    EXPECT_EQ(lines[2], "<6> Source \xC3\xA4:");
    EXPECT_TRUE(DeregisterEventSource(log));
    EXPECT_FALSE(DeregisterEventSource(log));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, 1, 0, text, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(EventLog, RefusesWhatItCannotCarry) {
    EXPECT_EQ(RegisterEventSourceW(TEXT("other"), TEXT("Source")), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(RegisterEventSourceW(nullptr, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    TakeSyslogLines();
    const HANDLE log = RegisterEventSourceW(nullptr, TEXT("Source"));
    LPCWSTR text[] = {TEXT("x"), nullptr};
    int raw = 0;
    EXPECT_FALSE(ReportEventW(log, 3, 0, 0, nullptr, 1, 0, text, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(ReportEventW(log, 1, 0, 0, nullptr, 2, 0, text, nullptr));
    EXPECT_FALSE(ReportEventW(log, 1, 0, 0, nullptr, 1, 0, nullptr, nullptr));
    EXPECT_FALSE(ReportEventW(log, 1, 0, 0, nullptr, 1, 4, text, &raw));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    EXPECT_FALSE(ReportEventW(log, 1, 0, 0, &raw, 1, 0, text, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(TakeSyslogLines().empty());
    EXPECT_TRUE(DeregisterEventSource(log));
}

}  // namespace
