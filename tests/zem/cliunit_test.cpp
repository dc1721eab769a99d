// Parts of the program that need no server: timecodes, JSON, sizes.
#include <gtest/gtest.h>

#include "apps/zem/demux.h"
#include "apps/zem/output.h"
#include "mediaio/foreign/avdesc.h"

namespace {

TEST(ZemCliTimecode, ParsesAndPrints) {
    vdrTimecode_s timecode{};
    ASSERT_TRUE(zemav::ParseTimecode("10:23:45:29", false, timecode));
    EXPECT_EQ(timecode.hours, 0x10);
    EXPECT_EQ(timecode.minutes, 0x23);
    EXPECT_EQ(timecode.seconds, 0x45);
    EXPECT_EQ(timecode.frames, 0x29);
    EXPECT_EQ(zem::TimecodeText(timecode), "10:23:45:29");
    ASSERT_TRUE(zemav::ParseTimecode("01:00:00;02", false, timecode));
    EXPECT_TRUE(zem::IsDropFrame(timecode));
    EXPECT_EQ(timecode.frames, 0x42);
    EXPECT_EQ(zem::TimecodeText(timecode), "01:00:00;02");
}
TEST(ZemCliTimecode, CountsPairsAboveThirty) {
    vdrTimecode_s timecode{};
    ASSERT_TRUE(zemav::ParseTimecode("00:00:01:49", true, timecode));
    EXPECT_EQ(timecode.frames, 0x24);
    EXPECT_EQ(timecode.seconds, 0x81);
    EXPECT_EQ(zem::TimecodeText(timecode), "00:00:01:24.1");
    EXPECT_EQ(zemav::TimecodeSpelling(timecode, true), "00:00:01:49");
    ASSERT_TRUE(zemav::ParseTimecode("01:00:59;58", true, timecode));
    EXPECT_EQ(zemav::TimecodeSpelling(timecode, true), "01:00:59;58");
    ZemEsDesc desc{};
    EXPECT_FALSE(zemav::CountsPairs(desc));
    desc.rateNumerator = 60000;
    desc.rateDenominator = 1001;
    EXPECT_TRUE(zemav::CountsPairs(desc));
    desc.rateNumerator = 30000;
    EXPECT_FALSE(zemav::CountsPairs(desc));
}
TEST(ZemCliTimecode, RefusesWhatIsNone) {
    vdrTimecode_s timecode{};
    for (const char* text : {"", "1", "24:00:00:00", "00:60:00:00", "00:00:60:00", "00:00:00:30",
                             "00:00:00:00x", "00-00-00-00", "00:00:00,00"}) {
        EXPECT_FALSE(zemav::ParseTimecode(text, false, timecode)) << text;
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

TEST(ZemCliProgress, TellsPartAndTimeLeft) {
    EXPECT_EQ(zem::ProgressText(0, 1000, 0, "x"), "[........................] 0 % x");
    EXPECT_EQ(zem::ProgressText(250, 1000, 20, "7 frames, 1.0 MiB/s"),
              "[######..................] 25 % 1:00 left, 7 frames, 1.0 MiB/s");
    EXPECT_EQ(zem::ProgressText(500, 1000, 7265, "x"),
              "[############............] 50 % 2:01:05 left, x");
    EXPECT_EQ(zem::ProgressText(2000, 1000, 9, "x"),
              "[########################] 100 % 0:00 left, x");
    EXPECT_EQ(zem::ProgressText(5, 0, 9, "5 frames"), "5 frames");
}

// A code that leaves the byte order open would make noise of the sound.
TEST(ZemCliCodecs, OfPcmIsKnownByItsCode) {
    for (const AVCodecID id :
         {AV_CODEC_ID_PCM_U8, AV_CODEC_ID_PCM_S16LE, AV_CODEC_ID_PCM_S16BE, AV_CODEC_ID_PCM_S24LE,
          AV_CODEC_ID_PCM_S24BE, AV_CODEC_ID_PCM_S32LE, AV_CODEC_ID_PCM_S32BE,
          AV_CODEC_ID_PCM_F32LE, AV_CODEC_ID_PCM_F32BE, AV_CODEC_ID_PCM_F64LE,
          AV_CODEC_ID_PCM_F64BE, AV_CODEC_ID_AAC, AV_CODEC_ID_MP3}) {
        AVCodecParameters codec{};
        codec.codec_type = AVMEDIA_TYPE_AUDIO;
        codec.codec_id = id;
        EXPECT_EQ(zemav::CodecOf(kMediaFileAudio, zemav::FourccOf(codec)), id) << id;
    }
    for (const AVCodecID id : {AV_CODEC_ID_H264, AV_CODEC_ID_MJPEG, AV_CODEC_ID_MPEG2VIDEO,
                               AV_CODEC_ID_PRORES, AV_CODEC_ID_DVVIDEO, AV_CODEC_ID_RAWVIDEO}) {
        AVCodecParameters codec{};
        codec.codec_type = AVMEDIA_TYPE_VIDEO;
        codec.codec_id = id;
        EXPECT_EQ(zemav::CodecOf(kMediaFileVideo, zemav::FourccOf(codec)), id) << id;
    }
    EXPECT_EQ(zemav::CodecOf(kMediaFileVideo, 0x12345678), AV_CODEC_ID_NONE);
}

}  // namespace
