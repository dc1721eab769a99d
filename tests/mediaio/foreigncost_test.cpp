// What opening and reading a foreign file costs, counted in reads of the file: two hours of frames
// are opened without reading them, and every frame costs the same.
#include <atomic>

#include "mediaio/foreign/clip.h"
#include "mediaio/foreign/mxf.h"
#include "tests/mediaio/foreignfixture.h"

namespace {

using namespace mediatest;
using namespace zemstore;

struct Reads {
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> bytes{0};
};

// A file that counts what is read of it.
class CCountedFile final : public CSourceFile {
public:
    CCountedFile(std::unique_ptr<IStoreFile> file, Reads& reads)
        : CSourceFile(std::move(file)), m_reads(reads) {}
    HRESULT ReadAt(void* to, size_t size, uint64_t offset, size_t& done) override {
        const HRESULT hr = CSourceFile::ReadAt(to, size, offset, done);
        ++m_reads.calls;
        m_reads.bytes += done;
        return hr;
    }

private:
    Reads& m_reads;
};

constexpr std::chrono::milliseconds kEver = std::chrono::hours(24);

// So many frames at 25 per second.
constexpr uint32_t kTwoHours = 180000;

class ForeignCost : public CForeignTest {
protected:
    // Two hours of tiny pictures and sound that cost next to nothing to make.
    void MakeLong(const std::string& name, const std::string& more = "") {
        Make(name,
             "-f rawvideo -s 16x8 -pix_fmt uyvy422 -r 25 -i /dev/zero "
             "-f u8 -ar 8000 -ac 1 -i /dev/zero -frames:v " +
                 std::to_string(kTwoHours) + " -t 7200 -c copy " + more);
    }

    std::shared_ptr<CForeignClip> OpenClip(const std::string& name, Reads& reads) {
        ForeignSource source = Source(name);
        source.file = std::make_unique<CCountedFile>(std::move(source.file), reads);
        std::shared_ptr<CForeignClip> clip;
        const auto patience = CForeignClip::s_patience.exchange(kEver);
        EXPECT_EQ(CForeignClip::Share(std::move(source), clip), S_OK);
        CForeignClip::s_patience = patience;
        return clip;
    }

    // Reads of the file that finding one frame costs, the file's pages themselves left out.
    static std::pair<uint64_t, uint64_t> CostOf(CForeignClip& clip, Reads& reads,
                                                CCountedFile& file, size_t stream,
                                                uint32_t position) {
        const uint64_t calls = reads.calls;
        const uint64_t bytes = reads.bytes;
        PinnedFrame frame{};
        EXPECT_EQ(clip.Pin(stream, position, true, frame), S_OK);
        while (frame.lookSize != 0) {
            std::vector<uint8_t> look(frame.lookSize);
            size_t done = 0;
            EXPECT_EQ(file.ReadAt(look.data(), look.size(), frame.lookOffset, done), S_OK);
            EXPECT_EQ(clip.Look(stream, frame, true, look.data(), done), S_OK);
        }
        EXPECT_NE(frame.dataSize, 0u) << position;
        EXPECT_NE(frame.view, nullptr) << "it is sent from the file's own pages";
        return {reads.calls - calls, reads.bytes - bytes};
    }

    // Opens the file, which may cost `most_bytes`, and finds frames all over it.
    void Check(const std::string& name, uint64_t most_bytes, uint32_t frames, uint64_t looks) {
        Reads reads;
        const std::shared_ptr<CForeignClip> clip = OpenClip(name, reads);
        ASSERT_NE(clip, nullptr);
        const uint64_t size = std::filesystem::file_size(Path(name));
        std::printf("%s, %llu bytes: opened with %llu reads of %llu bytes\n", name.c_str(),
                    static_cast<unsigned long long>(size),
                    static_cast<unsigned long long>(reads.calls),
                    static_cast<unsigned long long>(reads.bytes));
        EXPECT_LT(reads.bytes, most_bytes);
        EXPECT_LT(most_bytes, size / 4) << "a file that is read through would not be noticed";
        EXPECT_FALSE(std::filesystem::exists(Path("." + name + ".zemindex")));
        std::unique_ptr<IStoreFile> again;
        std::shared_ptr<IVolume> volume;
        ASSERT_EQ(OpenVolume(Path(""), volume), S_OK);
        ASSERT_EQ(volume->Open(name, OpenFor::kRead, again), S_OK);
        CCountedFile file(std::move(again), reads);
        ASSERT_EQ(clip->Desc(0).frameCount, frames);
        for (const uint32_t position : {0u, 1u, frames / 3, frames / 2, frames - 2, frames - 1}) {
            const auto [calls, bytes] = CostOf(*clip, reads, file, 0, position);
            EXPECT_EQ(calls, looks) << position;
            EXPECT_EQ(bytes, looks * kLookSize) << position;
        }
    }
};

TEST_F(ForeignCost, MovIsOpenedByItsTables) {
    MakeLong("long.mov");
    Check("long.mov", 8 << 20, kTwoHours, 0);
}

TEST_F(ForeignCost, AviIsOpenedByItsIndex) {
    MakeLong("long.avi");
    Check("long.avi", 16 << 20, kTwoHours, 0);
}

// Two seconds again and again: the pictures' sizes differ, so that there is an entry for each.
TEST_F(ForeignCost, MxfIsOpenedByItsIndexTables) {
    Make("short.mxf", kPicture + "25 -t 2 -c:v mpeg2video -g 12 -bf 2 -threads 1");
    const std::string loop = "-stream_loop " + std::to_string(kTwoHours / 50 - 1) + " -i ";
    Make("long.mxf", loop + Path("short.mxf") + " -c copy");
    // A frame costs one look into its content package.
    Check("long.mxf", 16 << 20, kTwoHours, 1);
}

TEST_F(ForeignCost, WavIsOpenedByItsHeader) {
    Make("short.wav", kSound + "-t 1 -c:a pcm_s16le -rf64 always");
    // Two hours of silence that the disk does not hold.
    std::vector<uint8_t> bytes = LoadFile(Path("short.wav"));
    const uint64_t data = uint64_t{7200} * 48000 * 2;
    const uint64_t head = bytes.size() - 48000 * 2;
    bytes.resize(head);
    const uint64_t sizes[] = {head - 8 + data, data, data / 2};
    ASSERT_EQ(memcmp(&bytes[12], "ds64", 4), 0);
    memcpy(&bytes[20], sizes, sizeof sizes);
    StoreFile(Path("long.wav"), bytes);
    std::filesystem::resize_file(Path("long.wav"), head + data);
    Check("long.wav", 2 << 20, kTwoHours, 0);
}

// What was found in one pass costs no more than reading it: the file itself is not looked at.
TEST_F(ForeignCost, AKeptIndexSparesTheFile) {
    MakeMkv("clip.mkv");
    Reads first;
    OpenClip("clip.mkv", first).reset();
    const uint64_t size = std::filesystem::file_size(Path("clip.mkv"));
    EXPECT_GE(first.bytes, size) << "the pass";
    Reads later;
    const std::shared_ptr<CForeignClip> clip = OpenClip("clip.mkv", later);
    EXPECT_EQ(later.bytes, 0u);
    EXPECT_EQ(clip->Desc(0).frameCount, 25u);
}

}  // namespace
