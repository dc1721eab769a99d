// Parts of the program that need no server: timecodes, JSON, sizes.
#include <gtest/gtest.h>

#include "apps/zem/demux.h"
#include "apps/zem/output.h"

namespace {

TEST(ZemCliTimecode, ParsesAndPrints) {
    vdrTimecode_s timecode{};
    ASSERT_TRUE(zem::ParseTimecode("10:23:45:29", false, timecode));
    EXPECT_EQ(timecode.hours, 0x10);
    EXPECT_EQ(timecode.minutes, 0x23);
    EXPECT_EQ(timecode.seconds, 0x45);
    EXPECT_EQ(timecode.frames, 0x29);
    EXPECT_EQ(zem::TimecodeText(timecode), "10:23:45:29");
    ASSERT_TRUE(zem::ParseTimecode("01:00:00;02", false, timecode));
    EXPECT_TRUE(zem::IsDropFrame(timecode));
    EXPECT_EQ(timecode.frames, 0x42);
    EXPECT_EQ(zem::TimecodeText(timecode), "01:00:00;02");
}
TEST(ZemCliTimecode, CountsPairsAboveThirty) {
    vdrTimecode_s timecode{};
    ASSERT_TRUE(zem::ParseTimecode("00:00:01:49", true, timecode));
    EXPECT_EQ(timecode.frames, 0x24);
    EXPECT_EQ(timecode.seconds, 0x81);
    EXPECT_EQ(zem::TimecodeText(timecode), "00:00:01:24.1");
    ZemEsDesc desc{};
    EXPECT_FALSE(zem::CountsPairs(desc));
    desc.rateNumerator = 60000;
    desc.rateDenominator = 1001;
    EXPECT_TRUE(zem::CountsPairs(desc));
    desc.rateNumerator = 30000;
    EXPECT_FALSE(zem::CountsPairs(desc));
}
TEST(ZemCliTimecode, RefusesWhatIsNone) {
    vdrTimecode_s timecode{};
    for (const char* text : {"", "1", "24:00:00:00", "00:60:00:00", "00:00:60:00", "00:00:00:30",
                             "00:00:00:00x", "00-00-00-00", "00:00:00,00"}) {
        EXPECT_FALSE(zem::ParseTimecode(text, false, timecode)) << text;
    }
}
TEST(ZemCliJson, NestsAndEscapes) {
    zem::CJson json;
    json.Open('{').Text("a\"b", "x\n\\").Open('[', "list").Text({}, "one").Unsigned({}, 2).Close();
    json.Bool("yes", true).Null("none").Number("minus", -1).Open('{', "empty").Close().Close();
    EXPECT_EQ(
        json.Str(),
        R"({"a\"b":"x\u000a\\","list":["one",2],"yes":true,"none":null,"minus":-1,"empty":{}})");
}
TEST(ZemCliSizes, AreForPeople) {
    EXPECT_EQ(zem::HumanBytes(0), "0 B");
    EXPECT_EQ(zem::HumanBytes(1023), "1023 B");
    EXPECT_EQ(zem::HumanBytes(1536), "1.5 KiB");
    EXPECT_EQ(zem::HumanBytes(uint64_t{1} << 40), "1.0 TiB");
}
TEST(ZemCliIds, AreNotRepeated) {
    EXPECT_NE(zem::DefaultClientId(), zem::DefaultClientId());
}
TEST(ZemCliCodecs, FourccsPrint) {
    EXPECT_EQ(zem::FourccText(0x6765706A), "jpeg");
    EXPECT_EQ(zem::FourccText(0x00010203), "....");
}

}  // namespace
