// MOV and MP4 files that say they hold more than the machine could list: refused before libavformat
// makes room for it.
#include "mediaio/foreign/movclaims.h"
#include "tests/mediaio/foreignfixture.h"

namespace {

using namespace mediatest;
using namespace zemstore;

using Bytes32 = std::vector<uint32_t>;

std::vector<uint8_t> Join(const std::vector<std::vector<uint8_t>>& parts) {
    std::vector<uint8_t> all;
    for (const std::vector<uint8_t>& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

std::vector<uint8_t> Words(const Bytes32& words) {
    std::vector<uint8_t> bytes;
    for (const uint32_t word : words) {
        for (const int shift : {24, 16, 8, 0})
            bytes.push_back(static_cast<uint8_t>(word >> shift));
    }
    return bytes;
}

std::vector<uint8_t> Box(const char* type, const std::vector<uint8_t>& content) {
    std::vector<uint8_t> box = Words({static_cast<uint32_t>(content.size() + 8)});
    box.insert(box.end(), type, type + 4);
    return Join({box, content});
}

constexpr uint32_t kVideo = 0x76696465;  // vide
constexpr uint32_t kSound = 0x736F756E;  // soun

std::vector<uint8_t> SampleEntry() {
    std::vector<uint8_t> entry(78);
    entry[7] = 1;                // data reference
    entry[25] = entry[27] = 16;  // width, height
    return Join({Words({0, 1}), Box("mp4v", entry)});
}

// A track of `samples` samples of one size in one chunk, or in fragments only.
std::vector<uint8_t> Track(uint32_t id, uint32_t samples, uint32_t handler = kVideo,
                           uint32_t duration = 1000) {
    const uint32_t one = samples == 0 ? 0 : 1;
    const auto table = [&](const Bytes32& row) {
        return Join({Words({0, one}), samples == 0 ? Words({}) : Words(row)});
    };
    const auto tables = Join({Box("stsd", SampleEntry()), Box("stts", table({samples, duration})),
                              Box("stsc", table({1, samples, 1})),
                              Box("stsz", Words({0, one, samples})), Box("stco", table({8}))});
    std::vector<uint8_t> head = Words({7, 0, 0, id});
    head.resize(84);
    return Box("trak", Join({Box("tkhd", head),
                             Box("mdia", Join({Box("mdhd", Words({0, 0, 0, 25000, 0, 0})),
                                               Box("hdlr", Words({0, 0, handler, 0, 0, 0})),
                                               Box("minf", Box("stbl", tables))}))}));
}

std::vector<uint8_t> Movie(const std::vector<std::vector<uint8_t>>& parts) {
    std::vector<uint8_t> head = Words({0, 0, 0, 25000, 0});
    head.resize(100);
    return Box("moov", Join({Box("mvhd", head), Join(parts)}));
}

const std::vector<uint8_t> kType = Box("ftyp", Words({0x69736F6D, 512, 0x69736F6D}));

class ForeignClaims : public CForeignTest {
protected:
    bool TooMuch(const std::vector<uint8_t>& bytes, uint64_t most = kMostClaimed) {
        StoreFile(Path("clip.mp4"), bytes);
        return MovClaimsTooMuch(*Source("clip.mp4").file, bytes.size(), most);
    }
};

TEST_F(ForeignClaims, AFileOfSomeKilobytesDoesNotFillTheMemory) {
    std::vector<std::vector<uint8_t>> tracks;
    for (uint32_t id = 1; id <= 8; ++id)
        tracks.push_back(Track(id, 11000000));
    const auto bytes = Join({kType, Movie(tracks), Box("mdat", std::vector<uint8_t>(1000))});
    ASSERT_LT(bytes.size(), 10000u);
    StoreFile(Path("clip.mp4"), bytes);
    ULONGLONG token = 0;
    EXPECT_EQ(TryOpen("clip.mp4", kFileRead, TEXT(""), token),
              HRESULT_FROM_WIN32(ERROR_BAD_FORMAT));
}

TEST_F(ForeignClaims, SamplesOfAllTracksAndFragmentsAreAdded) {
    const auto movie = Join({kType, Movie({Track(1, 30), Track(2, 40)})});
    EXPECT_FALSE(TooMuch(movie, 70));
    EXPECT_TRUE(TooMuch(movie, 69));
    const auto run = [](uint32_t samples) {
        return Box("moof", Box("traf", Box("trun", Words({0, samples}))));
    };
    const auto fragments = Join({kType, Movie({Track(1, 0)}), run(30), Box("mdat", Words({0})),
                                 run(40), Box("mdat", Words({0}))});
    EXPECT_FALSE(TooMuch(fragments, 70));
    EXPECT_TRUE(TooMuch(fragments, 69));
}

TEST_F(ForeignClaims, FoundWhereverTheyLie) {
    const auto hidden = Box("free", Movie({Track(1, 1000)}));
    EXPECT_TRUE(TooMuch(Join({kType, hidden}), 999)) << "a free box that is a movie";
    const auto odd = Box("zzzz", Box("yyyy", Track(1, 1000)));
    EXPECT_TRUE(TooMuch(Join({kType, odd}), 999)) << "in boxes that nobody knows";
    EXPECT_TRUE(TooMuch(
        Join({kType, Words({0}), std::vector<uint8_t>{'m', 'o', 'o', 'v'}, Track(1, 1000)}), 999))
        << "in a box to the end of the file";
    EXPECT_FALSE(TooMuch(Join({kType, Box("mdat", Track(1, 1000))}), 999)) << "media are media";
    // Across the pieces in which the file is read.
    for (size_t before = 65500; before < 65560; ++before) {
        const auto far = Box("uuid", Join({std::vector<uint8_t>(before), Track(1, 1000)}));
        ASSERT_TRUE(TooMuch(Join({kType, far}), 999)) << before;
        ASSERT_FALSE(TooMuch(Join({kType, far}), 1000)) << before;
    }
    EXPECT_TRUE(TooMuch(Join({kType, Box("moov", Box("cmov", Words({0})))}))) << "compressed";
}

// Hours of PCM are many samples and few entries.
TEST_F(ForeignClaims, PcmCountsByChunks) {
    const uint32_t hour = 48000u * 3600;
    const auto pcm = [&](uint32_t samples) {
        return Join({kType, Movie({Track(1, samples, kSound, 1)})});
    };
    EXPECT_FALSE(TooMuch(pcm(hour * 24), hour));
    EXPECT_TRUE(TooMuch(pcm(hour * 24), 1000000));
    EXPECT_TRUE(TooMuch(Join({kType, Movie({Track(1, hour, kSound, 2)})}), hour - 1))
        << "no PCM: every sample is an entry";
}

TEST_F(ForeignClaims, NoBytesAreTooOdd) {
    const auto good = Join({kType, Movie({Track(1, 1000), Track(2, 500, kSound, 1)})});
    for (size_t size = 0; size <= good.size(); ++size)
        TooMuch({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)});
    for (size_t at = 0; at < good.size(); ++at) {
        auto bad = good;
        bad[at] = 0xFF;
        TooMuch(bad);
    }
    MakeMov("clip.mov");
    EXPECT_FALSE(TooMuch(LoadFile(Path("clip.mov"))));
}

}  // namespace
