// What is fetched ahead of a reader: which bytes, when, and how many requests at a time. The engine
// is the test's: it keeps a request until the test completes it.
#include "mediaio/store/readahead.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace {

using namespace zemstore;

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint32_t kFrame = 1u << 20;

class CFakeEngine final : public IAsyncIo {
public:
    void Submit(IoRequest& request) override { waiting.push_back(&request); }
    const char* Kind() const override { return "fake"; }
    void RealTimeSeen() override {}
    void BeginRealTimeRead() override {}
    void EndRealTimeRead() override {}

    // Completes the oldest request; tells where it began.
    uint64_t Complete(size_t done_bytes = kScratchSize, HRESULT result = S_OK) {
        EXPECT_FALSE(waiting.empty());
        EXPECT_LE(waiting.size(), CReadAhead::kDepth) << "so many at a time";
        if (waiting.empty()) return 0;
        IoRequest& request = *waiting.front();
        waiting.erase(waiting.begin());
        const uint64_t offset = request.offset_bytes;
        request.result = result;
        request.done_bytes = std::min(done_bytes, request.size_bytes);
        request.completed(request);
        return offset;
    }
    std::vector<IoRequest*> waiting;
};

class CFakeBytes final : public IStoreFile {
public:
    HRESULT ReadAt(void*, size_t, uint64_t, size_t&) override { return E_NOTIMPL; }
    HRESULT WriteAt(const IoSpan*, size_t, uint64_t, size_t&) override { return E_NOTIMPL; }
    HRESULT Sync() override { return E_NOTIMPL; }
    HRESULT Size(uint64_t& size_bytes) override {
        size_bytes = size;
        return S_OK;
    }
    HRESULT SetSize(uint64_t) override { return E_NOTIMPL; }
    HRESULT PunchHole(uint64_t, uint64_t) override { return E_NOTIMPL; }
    HRESULT LockForWriting() override { return S_OK; }
    void UnlockForWriting() override {}
    bool Writable() const override { return false; }
    FileIdentity Identity() const override { return {}; }
    bool Cached(uint64_t offset, size_t) override { return cached.contains(offset / kMiB); }
    bool ReadsAhead() const override { return systemReadsAhead; }
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}
    uint64_t size = 100 * kMiB;
    std::set<uint64_t> cached;  // MiB
    bool systemReadsAhead = false;
};

// Frame n is the n-th MiB of the file.
class CFakeFrames final : public CFrameFile {
public:
    CFakeFrames() : CFrameFile("clip.v0") {}
    ~CFakeFrames() override = default;
    HRESULT Pin(uint32_t, bool, PinnedFrame&) override { return E_NOTIMPL; }
    void Unpin(unsigned) override {}
    FrameSource SourceOf(const PinnedFrame&) override { return {&bytes, nullptr}; }
    void ReportVerified(const PinnedFrame&, bool) override {}
    void ReportCached(const PinnedFrame&, uint32_t) override {}
    HRESULT Description(uint32_t, uint8_t (&)[kDescriptionSize]) override { return E_NOTIMPL; }
    const ZemEsDesc& EsDescAtCreation() const override { return m_desc; }
    ZemEsDesc EsDescNow() const override { return m_desc; }
    Settings CurrentSettings() const override { return {}; }
    uint32_t FrameCount() const override { return 100; }
    void FrameDesc(uint32_t, ZemFrameDesc&) const override {}
    void LastRelease() override { ADD_FAILURE() << "the test holds a reference"; }
    CFakeBytes bytes;

private:
    ZemEsDesc m_desc{};
};

class ReadAhead : public testing::Test {
protected:
    // A request that is under way keeps everything alive.
    void TearDown() override {
        while (!m_engine->waiting.empty())
            m_engine->Complete(0, E_ABORT);
    }
    void Read(uint32_t position, uint32_t frames = CReadAhead::kAutomatic, bool realTime = false) {
        PinnedFrame frame{};
        frame.position = position;
        frame.slotOffset = uint64_t{position} * kFrame;
        frame.dataSize = kFrame;
        CReadAhead::Note(m_ahead, {frames, realTime, m_shared}, m_frames, frame);
    }
    std::shared_ptr<CFakeEngine> m_engine = std::make_shared<CFakeEngine>();
    std::shared_ptr<IAsyncIo> m_shared = m_engine;
    std::shared_ptr<CReadAhead> m_ahead = std::make_shared<CReadAhead>();
    CFakeFrames m_frames;
};

TEST_F(ReadAhead, KeepsAWindowAheadOfAReaderInSequence) {
    Read(0);
    size_t waiting = CReadAhead::kDepth;
    for (const uint64_t step : {1, 2, 3, 4}) {
        ASSERT_EQ(m_engine->waiting.size(), waiting);
        EXPECT_TRUE(m_engine->waiting[0]->ahead);
        EXPECT_FALSE(m_engine->waiting[0]->realTime);
        EXPECT_EQ(m_engine->Complete(), step * kMiB);
        if (step > 1) --waiting;
    }
    EXPECT_TRUE(m_engine->waiting.empty()) << "4 MiB";
    Read(1);
    EXPECT_EQ(m_engine->Complete(), 5 * kMiB) << "one frame on, one step on";
    EXPECT_TRUE(m_engine->waiting.empty());
}

TEST_F(ReadAhead, GoesOnWithWhatTheReaderAskedForMeanwhile) {
    Read(0);
    Read(1);
    Read(2);
    for (const uint64_t step : {1, 2, 3, 4, 5, 6})
        EXPECT_EQ(m_engine->Complete(), step * kMiB);
    EXPECT_TRUE(m_engine->waiting.empty());
}

TEST_F(ReadAhead, LeavesOutWhatItsReaderOvertook) {
    for (uint32_t position = 0; position < 8; ++position)
        Read(position);
    for (const uint64_t step : {1, 2, 3, 8, 9, 10, 11})
        EXPECT_EQ(m_engine->Complete(), step * kMiB);
    EXPECT_TRUE(m_engine->waiting.empty());
}

TEST_F(ReadAhead, LeavesAReaderAloneWhoJumps) {
    for (const uint32_t position : {50, 20, 70, 3})
        Read(position);
    EXPECT_TRUE(m_engine->waiting.empty());
    Read(4);
    EXPECT_EQ(m_engine->Complete(), 5 * kMiB) << "in sequence again";
}

TEST_F(ReadAhead, LeavesOutWhatIsInThePageCache) {
    m_frames.bytes.cached = {1, 2, 4};
    Read(0);
    EXPECT_EQ(m_engine->Complete(), 3 * kMiB);
    EXPECT_TRUE(m_engine->waiting.empty());
}

TEST_F(ReadAhead, EndsWithTheFile) {
    m_frames.bytes.size = 2 * kMiB + 4096;
    Read(0);
    EXPECT_EQ(m_engine->Complete(), kMiB);
    ASSERT_EQ(m_engine->waiting.size(), 1u);
    EXPECT_EQ(m_engine->waiting[0]->size_bytes, 4096u);
    m_engine->Complete();
    EXPECT_TRUE(m_engine->waiting.empty());
    m_frames.bytes.size = kMiB;
    Read(1);
    EXPECT_TRUE(m_engine->waiting.empty()) << "a file that is shorter now";
}

TEST_F(ReadAhead, AFailureEndsItUntilTheNextFrame) {
    Read(0, 1);
    m_engine->Complete(0, HRESULT_FROM_WIN32(ERROR_IO_DEVICE));
    EXPECT_TRUE(m_engine->waiting.empty());
    Read(1, 2);
    m_engine->Complete(100);
    EXPECT_EQ(m_engine->waiting.size(), 1u) << "a short read is one, too; the other goes on";
    EXPECT_EQ(m_engine->Complete(), 3 * kMiB);
    EXPECT_TRUE(m_engine->waiting.empty());
    Read(2, 3);
    EXPECT_EQ(m_engine->Complete(), 4 * kMiB) << "the next frame's";
}

TEST_F(ReadAhead, SoManyFramesForWhoSaysSo) {
    Read(40, 2, true);
    ASSERT_EQ(m_engine->waiting.size(), 2u);
    EXPECT_TRUE(m_engine->waiting[0]->realTime);
    EXPECT_EQ(m_engine->Complete(), 41 * kMiB);
    EXPECT_EQ(m_engine->Complete(), 42 * kMiB);
    EXPECT_TRUE(m_engine->waiting.empty());
    Read(60, 1);
    EXPECT_EQ(m_engine->Complete(), 61 * kMiB) << "in sequence or not";
    Read(0, 0);
    EXPECT_TRUE(m_engine->waiting.empty());
}

TEST_F(ReadAhead, NotWhereTheSystemDoesIt) {
    m_frames.bytes.systemReadsAhead = true;
    Read(0);
    EXPECT_TRUE(m_engine->waiting.empty());
    Read(1, 1);
    EXPECT_EQ(m_engine->Complete(), 2 * kMiB) << "but for who asks for it";
}

TEST_F(ReadAhead, OutlivesTheReader) {
    Read(0);
    std::weak_ptr<CReadAhead> gone = m_ahead;
    m_ahead.reset();
    m_shared.reset();
    for (size_t i = 0; i < CReadAhead::kDepth; ++i) {
        EXPECT_FALSE(gone.expired()) << "a request is at the device";
        m_engine->Complete(0);
    }
    EXPECT_TRUE(gone.expired());
}

}  // namespace
