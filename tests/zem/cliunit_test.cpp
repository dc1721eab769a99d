// Parts of the program that need no server: timecodes, JSON, sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "apps/zem/client/text.h"
#include "apps/zem/demux.h"
#include "apps/zem/latency.h"
#include "apps/zem/output.h"
#include "apps/zem/serverpages.h"
#include "apps/zem/terminal.h"
#include "apps/zem/topview.h"
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

TEST(ZemCliJson, EscapesWhatATerminalWouldObey) {
    zem::CJson json;
    json.Open('[')
        .Text({}, "\x1b[2J\x7f\xc2\x9b \xe2\x80\xae")
        .Text({}, "\xff\xc3(ok \xc3\xa9")
        .Close();
    EXPECT_EQ(json.Str(), R"(["\u001b[2J\u007f\u009b \u202e","\ufffd\ufffd(ok )"
                          "\xc3\xa9\"]");
}
TEST(ZemCliJson, RealNumbersAreShort) {
    zem::CJson json;
    json.Open('[').Real({}, 2).Real({}, 0.25).Real({}, 1e7).Real({}, 0.1234567).Close();
    EXPECT_EQ(json.Str(), "[2,0.25,10000000,0.123457]");
}
TEST(ZemCliText, PrintableShowsWhatWouldActOnATerminal) {
    EXPECT_EQ(zem::Printable("cam 1 \xc3\xa9 \xe6\xbc\xa2"), "cam 1 \xc3\xa9 \xe6\xbc\xa2");
    EXPECT_EQ(zem::Printable("\x1b]0;x\x07\r\n\t"), "\\x1b]0;x\\x07\\x0d\\x0a\\x09");
    EXPECT_EQ(zem::Printable("\x7f\xc2\x9bm"), "\\x7f\\u009bm");
    EXPECT_EQ(zem::Printable("\xe2\x80\xaegpj.\xe2\x81\xa6\xe2\x80\xa8"),
              "\\u202egpj.\\u2066\\u2028");
    EXPECT_EQ(zem::Printable("\x9b\xff\xc3"), "\\x9b\\xff\\xc3") << "bytes that are no UTF-8";
    EXPECT_EQ(zem::Printable("\xed\xa0\x80\xc0\xaf"), "\\xed\\xa0\\x80\\xc0\\xaf")
        << "nor are these";
    EXPECT_EQ(zem::Printable(std::string(1, '\0')), "\\x00");
}
TEST(ZemCliText, ColumnsCountWhatIsSeen) {
    EXPECT_EQ(zem::ColumnsOf("abc"), 3u);
    EXPECT_EQ(zem::ColumnsOf("\xc3\xa9\xe6\xbc\xa2"), 3u);
    EXPECT_EQ(zem::ColumnsOf("e\xcc\x81"), 1u);
    EXPECT_EQ(zem::CutToColumns("abcdef", 6), "abcdef");
    EXPECT_EQ(zem::CutToColumns("abcdef", 5), "abcd~");
    EXPECT_EQ(zem::CutToColumns("\xe6\xbc\xa2\xe6\xbc\xa2", 3), "\xe6\xbc\xa2~");
    EXPECT_EQ(zem::CutToColumns("abc", 0), "");
}
TEST(ZemCliSizes, AreParsed) {
    uint64_t bytes = 0;
    const std::pair<const char*, uint64_t> good[] = {{"0", 0},
                                                     {"4096", 4096},
                                                     {"16B", 16},
                                                     {"64k", 65536},
                                                     {"1M", 1u << 20},
                                                     {"1MiB", 1u << 20},
                                                     {"3mb", 3u << 20},
                                                     {"2G", uint64_t{2} << 30},
                                                     {"1T", uint64_t{1} << 40}};
    for (const auto& [text, value] : good) {
        EXPECT_TRUE(zem::ParseBytes(text, bytes)) << text;
        EXPECT_EQ(bytes, value) << text;
    }
    for (const char* text : {"", "x", "-1", "1.5M", "1Q", "1Mi", "1 M", "1MiBs", "99999999999T"})
        EXPECT_FALSE(zem::ParseBytes(text, bytes)) << text;
}
TEST(ZemCliProgress, TellsRateAndTimeLeft) {
    zem::ProgressState state{42, 100, 1204, 118.2 * 1048576, 7};
    EXPECT_EQ(zem::ProgressLine("put media/clip", state, 100),
              "put media/clip  [##########..............]   42 %  1204 frames  118.2 MiB/s  "
              "0:07 left");
    state.left_s = 7380;
    EXPECT_EQ(zem::ProgressLine("put media/clip", state, 60),
              "put media/c~   42 %  1204 frames  118.2 MiB/s  2:03:00 left");
    state.left_s = 7;
    EXPECT_EQ(zem::ProgressLine("import media/shown", state, 80),
              "import media/shown  [#####........]   42 %  1204 frames  118.2 MiB/s  0:07 left");
    EXPECT_EQ(zem::ProgressLine("read media/a", {0, 0, 3, 1024, -1}, 80),
              "read media/a  3 frames  1.0 KiB/s");
    EXPECT_EQ(zem::ProgressLine("get x", {200, 100, 0, -1, -1}, 80),
              "get x  [########################]  100 %");
}
TEST(ZemCliProgress, NeverFillsTheLastColumn) {
    const zem::ProgressState state{42, 100, 1204, 118.2 * 1048576, 7};
    for (size_t columns = 2; columns < 140; ++columns) {
        const std::string line = zem::ProgressLine("put media/a-rather-long-name", state, columns);
        EXPECT_LT(zem::ColumnsOf(line), columns) << line;
    }
}
TEST(ZemCliLatency, PercentilesAreNearTheTruth) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    zem::CLatency all;
    zem::CLatency halves[2];
    std::vector<uint64_t> truth;
    for (int i = 0; i < 20000; ++i) {
        // From microseconds to seconds, each magnitude as often as another.
        const uint64_t value = random() >> (44 + random() % 20);
        all.Add(value);
        halves[i % 2].Add(value);
        truth.push_back(value);
    }
    halves[0].Add(halves[1]);
    std::sort(truth.begin(), truth.end());
    EXPECT_EQ(all.Count(), truth.size());
    EXPECT_EQ(all.Min_us(), truth.front());
    EXPECT_EQ(all.Max_us(), truth.back());
    for (const double part : {0.0, 0.01, 0.5, 0.9, 0.99, 0.999, 1.0}) {
        const auto rank = static_cast<size_t>(std::max(1.0, std::ceil(part * 20000)));
        const auto exact = static_cast<double>(truth[rank - 1]);
        EXPECT_GE(static_cast<double>(all.Percentile_us(part)), exact);
        EXPECT_LE(static_cast<double>(all.Percentile_us(part)), exact * 1.02 + 1);
        EXPECT_EQ(halves[0].Percentile_us(part), all.Percentile_us(part));
    }
    uint64_t below = 0;
    uint64_t counted = 0;
    for (size_t row = 0; row < zem::CLatency::kRows; ++row) {
        counted += all.RowCount(row);
        const uint64_t bound = zem::CLatency::RowBound_us(row);
        below = static_cast<uint64_t>(std::upper_bound(truth.begin(), truth.end(), bound) -
                                      truth.begin());
        EXPECT_EQ(counted, below) << "up to " << bound;
    }
    EXPECT_EQ(counted, truth.size());
}
TEST(ZemCliLatency, NothingAndTheLargest) {
    zem::CLatency latency;
    EXPECT_EQ(latency.Percentile_us(0.5), 0u);
    EXPECT_EQ(latency.Min_us(), 0u);
    latency.Add(UINT64_MAX);
    latency.Add(0);
    EXPECT_EQ(latency.Percentile_us(1), UINT64_MAX);
    EXPECT_EQ(latency.Percentile_us(0.5), 0u);
    EXPECT_EQ(zem::CLatency::RowBound_us(0), 1u);
    EXPECT_EQ(zem::CLatency::RowBound_us(5), 50u);
}

TEST(ZemCliLatency, IsToldInThreeDigits) {
    const std::pair<double, const char*> told[] = {
        {0, "0 us"},     {42, "42 us"},      {999, "999 us"},    {999.5, "1 ms"},
        {1000, "1 ms"},  {5183, "5.18 ms"},  {92530, "92.5 ms"}, {999499, "999 ms"},
        {999500, "1 s"}, {1.25e6, "1.25 s"}, {59.99e6, "60 s"},  {3600e6, "3600 s"},
    };
    for (const auto& [duration_us, text] : told)
        EXPECT_EQ(zem::LatencyText(duration_us), text);
}
TEST(ZemCliOutput, CountsOneAndSeveral) {
    EXPECT_EQ(zem::Counted(0, "client"), "0 clients");
    EXPECT_EQ(zem::Counted(1, "client"), "1 client");
    EXPECT_EQ(zem::Counted(2, "client"), "2 clients");
}

class ZemCliTop : public testing::Test {
protected:
    ZemCliTop() {
        state.server = "http://127.0.0.1:8080";
        volume.free_bytes = uint64_t{1} << 40;
        volume.total_bytes = uint64_t{4} << 40;
        volume.serverName = "studio7";
    }
    void Take(const char* time, std::vector<std::string> ids, bool perhaps_more = false) {
        state.TakeLatency(400);
        state.Take(time, volume, {std::move(ids), perhaps_more, "studio7"});
    }
    bool Shows(const std::string& part, size_t columns = 100, size_t lines = 30) const {
        for (const std::string& row : zem::TopPicture(state, columns, lines))
            if (row.find(part) != std::string::npos) return true;
        return false;
    }
    zem::TopState state;
    zem::VolumeStatus volume;
};

TEST_F(ZemCliTop, TellsWhoCameAndWent) {
    Take("10:00:00", {"cam-1", "cam-2"});
    EXPECT_TRUE(Shows("2 joined   0 came, 0 went"));
    EXPECT_TRUE(Shows("  before    cam-1"));
    EXPECT_TRUE(Shows("75.0 % used   1.0 TiB free of 4.0 TiB"));
    Take("10:00:01", {"cam-1", "cam-3"});
    EXPECT_TRUE(Shows("2 joined   1 came, 1 went"));
    EXPECT_TRUE(Shows("+ 10:00:01  cam-3"));
    EXPECT_TRUE(Shows("- before    cam-2  left 10:00:01"));
    for (int i = 0; i < 5; ++i)
        Take("10:00:02", {"cam-1", "cam-3"});
    EXPECT_TRUE(Shows("  10:00:01  cam-3")) << "no news any more";
    EXPECT_FALSE(Shows("cam-2"));
    Take("10:00:09", {"cam-1", "cam-2", "cam-3"});
    EXPECT_TRUE(Shows("+ 10:00:09  cam-2")) << "it came back";
}
TEST_F(ZemCliTop, NamesTheKeyThatEndsItOnlyOnAScreen) {
    Take("10:00:00", {});
    EXPECT_TRUE(Shows("10:00:00"));
    EXPECT_FALSE(Shows("q ends"));
    state.onScreen = true;
    EXPECT_TRUE(Shows("10:00:00   every 1 s, q ends"));
    EXPECT_TRUE(Shows(
        "Answers  400 us   median 400 us   99 % within 400 us   worst 400 us   of 1 request"));
}
TEST_F(ZemCliTop, AListThatMayBeCutOffTellsNoChanges) {
    Take("10:00:00", {"a", "b"});
    Take("10:00:01", {"b", "c"}, true);
    EXPECT_TRUE(Shows("at least 2 joined"));
    EXPECT_TRUE(Shows("there may be more"));
    EXPECT_EQ(state.came, 0u);
    EXPECT_EQ(state.went, 0u);
    Take("10:00:02", {"a"});
    EXPECT_EQ(state.came, 0u);
    EXPECT_EQ(state.went, 0u);
    Take("10:00:03", {"a", "d"});
    EXPECT_EQ(state.came, 1u);
}
TEST_F(ZemCliTop, AFailureIsTimedFromItsFirstSample) {
    Take("10:00:00", {"a"});
    state.TakeFailure("10:00:01", "cannot reach it");
    state.TakeFailure("10:00:02", "still not");
    EXPECT_TRUE(Shows("since 10:00:01: still not"));
    EXPECT_TRUE(Shows("a")) << "what was known stays";
    Take("10:00:03", {"a"});
    EXPECT_FALSE(Shows("No answer"));
    volume.total_bytes = 0;
    Take("10:00:04", {});
    EXPECT_TRUE(Shows("within the last 10 seconds"));
}
TEST_F(ZemCliTop, ASmallTerminalHasWhatMattersMost) {
    Take("10:00:00", {"cam-1", "cam-2", "cam-3"});
    // What does not fit is left out in whole parts.
    EXPECT_EQ(
        zem::TopPicture(state, 40, 8),
        (std::vector<std::string>{
            "zem top  http://127.0.0.1:8080", "Volume   75.0 % used   1.0 TiB free",
            "Answers  400 us   worst 400 us", "Clients  3 joined   0 came, 0 went",
            "  SINCE     CLIENT", "  before    cam-1", "  before    cam-2", "  before    cam-3"}));
    EXPECT_EQ(zem::TopPicture(state, 20, 5),
              (std::vector<std::string>{"zem top  http://127~", "Volume   75.0 % used",
                                        "Answers  400 us", "Clients  3 joined"}));
    EXPECT_TRUE(Shows("  and 2 more clients", 40, 7));
    EXPECT_TRUE(Shows("[########..]  75.0 % used", 60, 7)) << "a short gauge";
}
TEST_F(ZemCliTop, PicturesFitWhateverTheNames) {
    std::vector<std::string> ids = {"\x1b[2J\xc2\x9bm", "\xe6\xbc\xa2\xe5\xad\x97",
                                    std::string(259, 'x')};
    for (int i = 0; i < 100; ++i)
        ids.push_back("client " + std::to_string(i));
    Take("10:00:00", ids);
    for (size_t columns = 1; columns < 120; columns += 7) {
        for (size_t lines = 1; lines < 40; lines += 5) {
            const std::vector<std::string> picture = zem::TopPicture(state, columns, lines);
            EXPECT_LE(picture.size(), lines);
            for (const std::string& row : picture) {
                EXPECT_LE(zem::ColumnsOf(row), columns) << row;
                EXPECT_EQ(row.find('\x1b'), std::string::npos);
                EXPECT_EQ(row.find("\xc2\x9b"), std::string::npos);
            }
        }
    }
    EXPECT_TRUE(Shows("\\x1b[2J\\u009bm"));
    EXPECT_TRUE(Shows("more clients", 100, 20));
    EXPECT_EQ(zem::TopJson(state, "now").find('\x1b'), std::string::npos);
}

TEST(ZemCliPages, HideFilesAsTheServerMatchesThem) {
    for (const char* const name :
         {"media/status", "media/clients-choir.v0", "/media/statusX", "MEDIA/Status.txt",
          "media\\clients", "./media/./clients", "zem/../media/status", "media/a/../status/b"}) {
        EXPECT_TRUE(zem::PageHidesFile(name)) << name;
    }
    for (const char* const name :
         {"", "/", "..", "media", "media/", "media/statu", "media/client.v0", "media/a/status",
          "media//status", "//media/status", "zem/status", "status", "media/.status",
          "media/status/..", "media/my-status", "media/%73tatus"}) {
        EXPECT_FALSE(zem::PageHidesFile(name)) << name;
    }
}

}  // namespace
