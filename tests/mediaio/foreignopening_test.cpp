// Who opens a foreign file, and who waits for that how long: callers serve requests, and what
// somebody else wrote may take any time.
#include <condition_variable>
#include <mutex>
#include <thread>

#include "mediaio/foreign/clip.h"
#include "tests/mediaio/foreignfixture.h"

namespace {

using namespace mediatest;
using namespace zemstore;

const HRESULT kBusy = HRESULT_FROM_WIN32(ERROR_BUSY);
constexpr std::chrono::milliseconds kEver = std::chrono::hours(24);

// Reads behind `from` wait until the gate is open; the caller's own are counted.
struct Gate {
    uint64_t from = ~0ull;
    const std::thread::id caller = std::this_thread::get_id();
    std::mutex lock;  // guards what follows
    std::condition_variable changed;
    bool open = false;
    bool reached = false;
    unsigned ofCaller = 0;
    unsigned ofOthers = 0;

    void Pass(uint64_t end) {
        std::unique_lock hold(lock);
        ++(std::this_thread::get_id() == caller ? ofCaller : ofOthers);
        if (end <= from) return;
        reached = true;
        changed.notify_all();
        changed.wait(hold, [this] { return open; });
    }
    void AwaitReached() {
        std::unique_lock hold(lock);
        changed.wait(hold, [this] { return reached; });
    }
    void Open() {
        std::lock_guard hold(lock);
        open = true;
        changed.notify_all();
    }
};

class CGatedSource final : public CSourceFile {
public:
    CGatedSource(std::unique_ptr<IStoreFile> file, Gate& gate)
        : CSourceFile(std::move(file)), m_gate(gate) {}
    HRESULT ReadAt(void* to, size_t size, uint64_t offset, size_t& done) override {
        m_gate.Pass(offset + size);
        return CSourceFile::ReadAt(to, size, offset, done);
    }

private:
    Gate& m_gate;
};

class ForeignOpening : public CForeignTest {
protected:
    void SetUp() override {
        CForeignTest::SetUp();
        CForeignClip::s_patience = kEver;
        CForeignClip::s_brief = kEver;
    }
    void TearDown() override {
        CForeignClip::AwaitPasses();
        CForeignClip::s_patience = std::chrono::seconds(5);
        CForeignClip::s_brief = std::chrono::milliseconds(500);
        CForeignTest::TearDown();
    }
    HRESULT Share(const std::string& name, Gate& gate, std::shared_ptr<CForeignClip>& clip) {
        ForeignSource source = Source(name);
        source.file = std::make_unique<CGatedSource>(std::move(source.file), gate);
        return CForeignClip::Share(std::move(source), clip);
    }
};

TEST_F(ForeignOpening, NothingOfAContainerIsReadByTheCaller) {
    MakeMov("tables.mov");
    MakeMkv("pass.mkv");
    StoreFile(Path("noise.bin"), std::vector<uint8_t>(5000, 0x41));
    for (const char* name : {"tables.mov", "pass.mkv", "noise.bin"}) {
        SCOPED_TRACE(name);
        Gate gate;
        std::shared_ptr<CForeignClip> clip;
        const HRESULT expected = name[0] == 'n' ? HRESULT_FROM_WIN32(ERROR_BAD_FORMAT) : S_OK;
        EXPECT_EQ(Share(name, gate, clip), expected);
        CForeignClip::AwaitPasses();
        EXPECT_EQ(gate.ofCaller, 0u);
        EXPECT_GT(gate.ofOthers, 0u);
    }
}

// Of one opening everybody is sent away at the same time, who comes later at once.
TEST_F(ForeignOpening, ASlowOneKeepsNobodyLongerThanItsTime) {
    MakeMov("clip.mov");
    CForeignClip::s_patience = std::chrono::milliseconds(1);
    Gate gate;
    gate.from = 0;
    std::shared_ptr<CForeignClip> clip;
    EXPECT_EQ(Share("clip.mov", gate, clip), kBusy);
    CForeignClip::s_patience = std::chrono::milliseconds(0);
    EXPECT_EQ(Share("clip.mov", gate, clip), kBusy) << "its time is over";
    // Another file is not kept by it.
    CForeignClip::s_patience = kEver;
    MakeMov("other.mov");
    Gate open;
    EXPECT_EQ(Share("other.mov", open, clip), S_OK);
    gate.Open();
    EXPECT_EQ(Share("clip.mov", gate, clip), S_OK);
    ASSERT_NE(clip, nullptr);
    EXPECT_NE(clip->Desc(0).frameCount, 0u);
}

TEST_F(ForeignOpening, FewWaitForAPass) {
    MakeMkv("clip.mkv", 8);
    Gate gate;
    gate.from = std::filesystem::file_size(Path("clip.mkv")) / 2;  // only a pass gets there
    std::vector<std::thread> patient;
    for (int i = 0; i < 2; ++i) {
        patient.emplace_back([&] {
            std::shared_ptr<CForeignClip> clip;
            EXPECT_EQ(Share("clip.mkv", gate, clip), S_OK);
            EXPECT_EQ(clip->Desc(0).frameCount, 200u);
        });
    }
    gate.AwaitReached();
    while (CForeignClip::LongWaits() != 2)
        std::this_thread::yield();
    CForeignClip::s_brief = std::chrono::milliseconds(0);
    std::shared_ptr<CForeignClip> clip;
    EXPECT_EQ(Share("clip.mkv", gate, clip), kBusy);
    gate.Open();
    for (std::thread& thread : patient)
        thread.join();
    EXPECT_EQ(Share("clip.mkv", gate, clip), S_OK);
    EXPECT_EQ(CForeignClip::LongWaits(), 0);
}

}  // namespace
