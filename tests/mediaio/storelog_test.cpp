// The store's log lines about one file.
#include "mediaio/store/log.h"
#include "tests/fakes/fakeerrorlog.h"

#include <gtest/gtest.h>

namespace {

WString Line(const std::string& path, const std::string& text) {
    FakeErrorLog().Reset();
    zemstore::LogStoreOf(path, kErrorLogLevelError, E_FAIL, TEXT("log_test.cpp"), text);
    const std::vector<LogRecord> records = FakeErrorLog().Records();
    EXPECT_EQ(records.size(), 1u);
    return records.empty() ? WString() : records[0].text;
}

TEST(StoreLog, ALineBeginsWithTheFile) {
    EXPECT_EQ(Line("media/clip.v0", "is damaged"), TEXT("media/clip.v0: is damaged"));
}

TEST(StoreLog, APathThatJustFitsStaysWhole) {
    const std::string path(127 - 4, 'a');
    EXPECT_EQ(Line(path, "no"), WString(127 - 4, 'a') + TEXT(": no"));
}

TEST(StoreLog, OfALongPathTheEndStays) {
    const std::string path = std::string(200, 'a') + "/clip.v0";
    const WString line = Line(path, "no");
    EXPECT_EQ(line, TEXT("...") + WString(127 - 4 - 3 - 8, 'a') + TEXT("/clip.v0: no"));
}

TEST(StoreLog, APathIsNotCutWithinACharacter) {
    std::string path;
    for (int i = 0; i < 100; ++i)
        path += "\xC3\xB6";
    // 120 bytes are left for the path's end: 60 characters; with one byte less, 59.
    EXPECT_EQ(Line(path, "no"), TEXT("...") + WString(60, 0xF6) + TEXT(": no"));
    EXPECT_EQ(Line(path, "not"), TEXT("...") + WString(59, 0xF6) + TEXT(": not"));
}

TEST(StoreLog, ATextThatFillsARecordAloneIsCutAtItsEnd) {
    EXPECT_EQ(Line("clip", std::string(300, 'x')), TEXT("...: ") + WString(122, 'x'));
}

}  // namespace
