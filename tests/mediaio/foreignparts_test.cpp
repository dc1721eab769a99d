// The parts of the foreign readers that are arithmetic and structure: cadence, runs of PCM, rates,
// MXF triplets.
#include <gtest/gtest.h>

#include "mediaio/foreign/avdesc.h"
#include "mediaio/foreign/clipindex.h"
#include "mediaio/foreign/mxf.h"

#include <algorithm>
#include <cstring>

namespace {

using namespace zemstore;

std::vector<uint64_t> Cadence(const FrameRate& rate, uint64_t from, size_t count) {
    std::vector<uint64_t> samples;
    for (uint64_t i = from; i < from + count; ++i)
        samples.push_back(FirstSample(i + 1, 48000, rate) - FirstSample(i, 48000, rate));
    return samples;
}

TEST(Cadence, IsExactForEveryRate) {
    using List = std::vector<uint64_t>;
    EXPECT_EQ(Cadence({30000, 1001}, 0, 5), (List{1602, 1601, 1602, 1601, 1602}));
    EXPECT_EQ(Cadence({30000, 1001}, 5, 5), (List{1602, 1601, 1602, 1601, 1602}));
    EXPECT_EQ(Cadence({60000, 1001}, 0, 5), (List{801, 801, 800, 801, 801}));
    EXPECT_EQ(Cadence({24000, 1001}, 0, 3), (List{2002, 2002, 2002}));
    EXPECT_EQ(Cadence({25, 1}, 0, 2), (List{1920, 1920}));
    EXPECT_EQ(Cadence({50, 1}, 0, 2), (List{960, 960}));
    // After a day at 29.97 nothing has crept in: five frames are 8008 samples for ever.
    EXPECT_EQ(FirstSample(2589408 / 5 * 5, 48000, {30000, 1001}), uint64_t{2589408 / 5} * 8008);
    EXPECT_EQ(Cadence({30000, 1001}, 4294967290u, 5), (List{1602, 1601, 1602, 1601, 1602}));
}

TEST(Cadence, CountsFramesWithTheLastShortOne) {
    EXPECT_EQ(FramesOf(0, 48000, {30000, 1001}), 0u);
    EXPECT_EQ(FramesOf(1, 48000, {30000, 1001}), 1u);
    EXPECT_EQ(FramesOf(1602, 48000, {30000, 1001}), 1u);
    EXPECT_EQ(FramesOf(1603, 48000, {30000, 1001}), 2u);
    EXPECT_EQ(FramesOf(8008, 48000, {30000, 1001}), 5u);
    EXPECT_EQ(FramesOf(48000, 48000, {25, 1}), 25u);
}

TEST(PcmRuns, JoinWhatLiesTogether) {
    StreamIndex stream;
    stream.AddRun(100, 50);
    stream.AddRun(150, 50);
    stream.AddRun(300, 10);
    stream.AddRun(500, 0);
    ASSERT_EQ(stream.runs.size(), 2u);
    EXPECT_EQ(stream.runs[1].first, 100u);
    EXPECT_EQ(stream.runs[1].offset, 300u);
    EXPECT_EQ(stream.pcmBytes, 110u);
}

TEST(Rates, AreThoseOfTheField) {
    const auto is = [](AVRational given, int numerator, int denominator) {
        const AVRational rate = zemav::NearestRate(given);
        return rate.num == numerator && rate.den == denominator;
    };
    EXPECT_TRUE(is({2997, 100}, 30000, 1001));
    EXPECT_TRUE(is({24000, 1001}, 24000, 1001));
    EXPECT_TRUE(is({24, 1}, 24, 1));
    EXPECT_TRUE(is({50000, 1000}, 50, 1));
    EXPECT_TRUE(is({15, 1}, 15, 1));
    EXPECT_EQ(zemav::NearestRate({0, 1}).num, 0);
}

std::vector<uint8_t> Triplet(uint8_t last, size_t size) {
    std::vector<uint8_t> bytes = {0x06, 0x0E, 0x2B, 0x34, 0x01, 0x02, 0x01, 0x01,
                                  0x0D, 0x01, 0x03, 0x01, 0x15, 0x01, 0x05, last};
    bytes.push_back(0x83);
    for (int shift = 16; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(size >> shift));
    bytes.resize(bytes.size() + size, 0xAA);
    return bytes;
}

TEST(MxfTriplets, ParseOnlyWhatIsWhole) {
    const std::vector<uint8_t> bytes = Triplet(1, 5);
    Klv klv;
    for (size_t size = 0; size < 20; ++size)
        EXPECT_FALSE(ParseKlv(bytes.data(), size, klv)) << size;
    ASSERT_TRUE(ParseKlv(bytes.data(), 20, klv));
    EXPECT_EQ(klv.headSize, 20u);
    EXPECT_EQ(klv.length, 5u);
    EXPECT_TRUE(IsEssence(klv.key));
    EXPECT_FALSE(IsFill(klv.key));
    std::vector<uint8_t> bad = bytes;
    bad[16] = 0x80;  // an indefinite length
    EXPECT_FALSE(ParseKlv(bad.data(), bad.size(), klv));
    bad[16] = 0x89;
    EXPECT_FALSE(ParseKlv(bad.data(), bad.size(), klv));
}

TEST(MxfTriplets, AnElementIsFoundInItsPackage) {
    std::vector<uint8_t> package = Triplet(1, 6000);
    const std::vector<uint8_t> second = Triplet(2, 70);
    package.insert(package.end(), second.begin(), second.end());
    Klv klv;
    ASSERT_TRUE(ParseKlv(second.data(), second.size(), klv));
    const uint64_t at = 1000;
    const uint64_t end = at + package.size();
    ElementSearch found = FindElement(klv.key, at, package.data(), kLookSize, end);
    ASSERT_EQ(found.outcome, ElementSearch::kReadOn);
    EXPECT_EQ(found.offset, at + 6020);
    found = FindElement(klv.key, found.offset, second.data(), second.size(), end);
    ASSERT_EQ(found.outcome, ElementSearch::kFound);
    EXPECT_EQ(found.offset, at + 6040);
    EXPECT_EQ(found.length, 70u);
    // Not beyond the package, and not for a value that reaches beyond it.
    EXPECT_EQ(FindElement(klv.key, at + 6020, second.data(), second.size(), at + 6020).outcome,
              ElementSearch::kMissing);
    EXPECT_EQ(FindElement(klv.key, at + 6020, second.data(), second.size(), end - 1).outcome,
              ElementSearch::kMissing);
    const std::vector<uint8_t> noise(kLookSize, 7);
    EXPECT_EQ(FindElement(klv.key, at, noise.data(), noise.size(), end).outcome,
              ElementSearch::kMissing);
}

TEST(Cadence, FramesThatFollowFasterThanSamplesAreNotMoreThanThose) {
    ClipIndex index;
    index.streams.resize(2);
    index.streams[0].desc.mediaType = kMediaFileVideo;
    index.streams[0].desc.rateNumerator = 0xFFFFFFFFu;
    index.streams[0].desc.rateDenominator = 1;
    index.streams[1].desc.mediaType = kMediaFileAudio;
    index.streams[1].desc.sampleRate = 8000;
    index.streams[1].sampleSize = 2;
    index.streams[1].pcmBytes = 1000;
    FinishIndex(index);
    EXPECT_EQ(index.streams[1].desc.frameCount, 500u);
    index.streams[0].desc.rateNumerator = 25;
    FinishIndex(index);
    EXPECT_EQ(index.streams[1].desc.frameCount, 2u);
}

// A file in memory that counts what is read of it.
class CCountingFile final : public IStoreFile {
public:
    explicit CCountingFile(std::vector<uint8_t> bytes) : m_bytes(std::move(bytes)) {}
    uint64_t size_bytes() const { return m_bytes.size(); }

    HRESULT ReadAt(void* to, size_t size, uint64_t offset, size_t& done) override {
        done = offset < m_bytes.size() ? std::min<uint64_t>(size, m_bytes.size() - offset) : 0;
        if (done != 0) memcpy(to, m_bytes.data() + offset, done);
        readBytes += done;
        return S_OK;
    }
    HRESULT WriteAt(const IoSpan*, size_t, uint64_t, size_t&) override { return E_NOTIMPL; }
    HRESULT Sync() override { return E_NOTIMPL; }
    HRESULT Size(uint64_t&) override { return E_NOTIMPL; }
    HRESULT SetSize(uint64_t) override { return E_NOTIMPL; }
    HRESULT PunchHole(uint64_t, uint64_t) override { return E_NOTIMPL; }
    HRESULT LockForWriting() override { return E_NOTIMPL; }
    void UnlockForWriting() override {}
    bool Writable() const override { return false; }
    FileIdentity Identity() const override { return {}; }
    bool Cached(uint64_t, size_t) override { return true; }
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}

    uint64_t readBytes = 0;

private:
    const std::vector<uint8_t> m_bytes;
};

void PutBigEndian(std::vector<uint8_t>& bytes, size_t at, uint64_t value, size_t count) {
    for (size_t i = 0; i < count; ++i)
        bytes[at + i] = static_cast<uint8_t>(value >> (8 * (count - 1 - i)));
}

// Partition packs one behind the other, each chained to the one before and claiming so many bytes
// of index tables.
std::vector<uint8_t> Partitions(uint32_t count, uint64_t indexBytes) {
    constexpr uint8_t kPack[16] = {6, 14, 43, 52, 2, 5, 1, 1, 13, 1, 2, 1, 1, 3, 4, 0};
    constexpr size_t kPackBytes = 128;
    std::vector<uint8_t> bytes(count * kPackBytes + 256);
    for (uint32_t i = 0; i < count; ++i) {
        const size_t at = i * kPackBytes;
        memcpy(&bytes[at], kPack, sizeof kPack);
        bytes[at + 16] = kPackBytes - 17;
        PutBigEndian(bytes, at + 17 + 8, at, 8);
        PutBigEndian(bytes, at + 17 + 16, i == 0 ? 0 : at - kPackBytes, 8);
        PutBigEndian(bytes, at + 17 + 24, (count - 1) * kPackBytes, 8);
        PutBigEndian(bytes, at + 17 + 40, indexBytes, 8);
        PutBigEndian(bytes, at + 17 + 60, i == 1 ? 1 : 0, 4);
    }
    return bytes;
}

TEST(MxfTables, ThatPartitionsClaimTogetherAreNotReadAgainAndAgain) {
    constexpr uint32_t kCount = 1000;
    CCountingFile file(Partitions(kCount, kCount * 128 / 2));
    MxfMap map;
    EXPECT_FALSE(map.Load(file, file.size_bytes()));
    EXPECT_LT(file.readBytes, 10 * file.size_bytes());
}

}  // namespace
