// Clips with seeded damage: whatever was done to a file, opening and reading it gives results or
// errors, ends soon, and leaves the channel usable. In the environment, ZEM_FUZZ_ROUNDS asks for
// more, ZEM_FUZZ_SEED for the same again, ZEM_FUZZ_KEEP names a folder for what failed.
#include <cstdio>
#include <ctime>

#include "tests/mediaio/foreignfixture.h"
#include "tests/mediaio/seeded.h"

namespace {

using namespace mediatest;

// Processor time that a damaged clip of a few kilobytes may cost. Seconds are what libavformat
// takes for tables of fragments that name millions of samples.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kSoon_s = 120;
#else
constexpr double kSoon_s = 20;
#endif

class ForeignFuzz : public CForeignTest {
protected:
    // What the environment says, or what holds without it.
    static unsigned Setting(const char* name, unsigned otherwise) {
        const char* text = std::getenv(name);
        return text == nullptr ? otherwise : static_cast<unsigned>(std::atoll(text));
    }
    static unsigned Rounds() { return Setting("ZEM_FUZZ_ROUNDS", 40); }
    static CRandom Seeded() {
        const unsigned seed = Setting("ZEM_FUZZ_SEED", std::random_device()());
        std::printf("seed %u\n", seed);
        return CRandom(seed);
    }

    // Damages a copy: bytes changed, runs of zeros, pieces cut out or repeated, an end cut off.
    static std::vector<uint8_t> Damage(std::vector<uint8_t> bytes, CRandom& random) {
        const uint32_t blows = 1 + random() % 8;
        for (uint32_t i = 0; i < blows && bytes.size() > 64; ++i) {
            // Structure lies at both ends.
            const size_t reach =
                random() % 2 != 0 ? std::min<size_t>(bytes.size(), 4096) : bytes.size();
            size_t at = random() % reach;
            if (random() % 4 == 0) at = bytes.size() - 1 - at;
            const auto place = bytes.begin() + static_cast<std::ptrdiff_t>(at);
            const size_t room = bytes.size() - at;
            const size_t length = std::min<size_t>(room, 1 + random() % 200);
            const auto end = place + static_cast<std::ptrdiff_t>(length);
            switch (random() % 8) {
                case 0:
                    bytes.resize(at);
                    break;
                case 1:
                    std::fill(place, end, uint8_t{0});
                    break;
                case 2:
                    std::fill(place, end, uint8_t{0xFF});
                    break;
                case 3:
                    bytes.erase(place, end);
                    break;
                case 4: {
                    const std::vector<uint8_t> piece(place, end);
                    bytes.insert(place, piece.begin(), piece.end());
                    break;
                }
                default:
                    bytes[at] = static_cast<uint8_t>(random());
            }
        }
        return bytes;
    }

    // How many frames could be read.
    uint32_t ReadAll(const char* name) {
        uint32_t good = 0;
        for (const WCHAR* aux : {TEXT("v0"), TEXT("a0"), TEXT("tc"), TEXT("d0")}) {
            ULONGLONG token = 0;
            if (FAILED(TryOpen(name, kFileRead, aux, token))) continue;
            const uint32_t count = Info(token).frameCount;
            std::vector<uint8_t> bytes;
            std::vector<ZemFrameDesc> descs(8);
            for (const uint32_t position : {0u, 1u, count / 2, count - 1, count}) {
                if (IsSpecialToken(token)) {
                    Io io;
                    io.entries[0].token = token;
                    io.entries[0].position = position;
                    io.Wait(m_channel->ReadFrame(io.desc));
                } else {
                    good += SUCCEEDED(Read(token, position, bytes)) ? 1 : 0;
                }
                m_channel->GetFrameDesc(token, position, 8, descs.data(), kFrameRateFile);
            }
            m_channel->CloseFile(token);
        }
        return good;
    }

    void Run(const std::string& name, const std::string& arguments) {
        Make(name, arguments);
        const std::vector<uint8_t> good = LoadFile(Path(name));
        CRandom random = Seeded();
        uint32_t frames = 0;
        for (unsigned round = 0; round < Rounds(); ++round) {
            const std::string victim = "round." + std::to_string(round);
            StoreFile(Path(victim), Damage(good, random));
            const std::clock_t start = std::clock();
            frames += ReadAll(victim.c_str());
            const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
            EXPECT_LT(seconds, kSoon_s) << "round " << round;
            if (const char* folder = std::getenv("ZEM_FUZZ_KEEP");
                folder != nullptr && HasFailure()) {
                std::filesystem::copy_file(Path(victim), std::string(folder) + "/" + victim);
            }
            std::filesystem::remove(Path(victim));
            std::filesystem::remove(Path("." + victim + ".zemindex"));
        }
        std::printf("frames read of damaged files: %u\n", frames);
        EXPECT_GT(frames, 0u) << "damage that nothing survives tests nothing";
        ULONGLONG token = 0;
        EXPECT_EQ(TryOpen(name.c_str(), kFileRead, TEXT(""), token), S_OK);
    }
};

const std::string kSine = "-f lavfi -i sine=frequency=440:sample_rate=48000 ";
const std::string kSmall = kPicture + "25" + kSound + "-frames:v 8 -t 0.32 -threads 1 ";
const std::string kLarge = "-f lavfi -i testsrc2=size=720x576:rate=25" + kSound;
// Two threads on every machine: as one slice a picture misses the rate, which must be exact here.
const std::string kD10 =
    "-f lavfi -i testsrc2=size=720x608:rate=25" + kSound +
    "-frames:v 3 -c:v mpeg2video -b:v 30M -minrate 30M -maxrate 30M -bufsize 1200000 "
    "-rc_init_occupancy 1200000 -g 0 -pix_fmt yuv422p -intra_vlc 1 -qmin 1 -rc_max_vbv_use 1 "
    "-flags +ildct+low_delay -dc 10 -threads 2 -ac 4 -c:a pcm_s16le -f mxf_d10";

struct Kind {
    const char* name;
    const char* file;
    std::string arguments;
};
const Kind kKinds[] = {
    {"Mov", "clip.mov", kSmall + "-c:v mjpeg -c:a pcm_s16le -timecode 01:00:00:00"},
    {"Mp4TableInFront", "clip.mp4", kSmall + "-c:v mpeg4 -bf 1 -c:a aac -movflags faststart"},
    {"Fragments", "clip.mp4",
     kSmall + "-c:v mpeg4 -g 3 -c:a aac -movflags frag_keyframe+empty_moov"},
    {"FragmentsIndexInFront", "clip.mp4",
     kSmall + "-c:v mpeg4 -g 2 -c:a aac -movflags dash+global_sidx+frag_keyframe"},
    {"Mxf", "clip.mxf", kSmall + "-c:v mpeg2video -c:a pcm_s16le"},
    {"MxfOfOneElement", "clip.mxf", kSine + "-t 0.2 -c:a pcm_s16le -f mxf_opatom"},
    {"MxfD10", "clip.mxf", kD10},
    {"Avi", "clip.avi", kSmall + "-c:v mjpeg -c:a pcm_s16le"},
    {"Mkv", "clip.mkv", kSmall + "-c:v mjpeg -c:a pcm_s16le"},
    {"TransportStream", "clip.ts", kSmall + "-c:v mpeg2video -c:a mp2"},
    {"ProgramStream", "clip.mpg", kSmall + "-c:v mpeg2video -c:a mp2 -f vob"},
    {"Gxf", "clip.gxf",
     kLarge + "-frames:v 3 -t 0.12 -c:v mpeg2video -threads 1 -pix_fmt yuv420p -c:a pcm_s16le"},
    {"RawDv", "clip.dv", kLarge + "-map 0:v -frames:v 2 -c:v dvvideo -pix_fmt yuv420p"},
    {"Rf64", "clip.wav", kSine + "-t 0.1 -c:a pcm_s16le -rf64 always"},
    {"Wav", "clip.wav", kSine + "-t 0.1 -c:a pcm_s24le"},
};

class ForeignFuzzOf : public ForeignFuzz, public testing::WithParamInterface<Kind> {};

TEST_P(ForeignFuzzOf, GivesResultsOrErrors) {
    Run(GetParam().file, GetParam().arguments);
}
INSTANTIATE_TEST_SUITE_P(Clips, ForeignFuzzOf, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

// An index that says anything, with checksums that are right: frames are wrong then, nothing else.
TEST_F(ForeignFuzz, IndexWithTrueChecksums) {
    MakeMkv("clip.mkv");
    m_channel->CloseFile(Open("clip.mkv"));
    const std::string index = Path(".clip.mkv.zemindex");
    const std::vector<uint8_t> good = LoadFile(index);
    CRandom random = Seeded();
    uint32_t frames = 0;
    for (unsigned round = 0; round < Rounds() * 5; ++round) {
        std::vector<uint8_t> bad = good;
        for (uint32_t blows = 1 + random() % 3; blows != 0; --blows) {
            // Half of them into the first stream's record.
            const size_t reach = random() % 2 != 0 ? 104 : bad.size() - 48;
            const size_t at = 48 + random() % reach;
            bad[at] = random() % 2 != 0 ? uint8_t{0xFF} : static_cast<uint8_t>(random());
        }
        if (random() % 8 == 0) bad[12] = static_cast<uint8_t>(random());  // streams
        const uint32_t payload = zemstore::Crc32c(0, &bad[48], bad.size() - 48);
        memcpy(&bad[40], &payload, 4);
        const uint32_t header = zemstore::Crc32c(0, bad.data(), 44);
        memcpy(&bad[44], &header, 4);
        StoreFile(index, bad);
        frames += ReadAll("clip.mkv");
    }
    std::printf("frames read with a wrong index: %u\n", frames);
    EXPECT_GT(frames, 0u);
}

}  // namespace
