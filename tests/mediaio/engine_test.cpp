// The engines that take requests to the device, over a device that answers when the test lets it.
#include "mediaio/store/asyncio.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "memorytold.h"

namespace {

using namespace zemstore;

constexpr uint64_t kTheirs = 0;  // reads of these offsets wait for Release
constexpr uint64_t kUrgent = uint64_t{1} << 40;

// Counts what is at the device; no descriptor, so the engines call it.
class CGatedFile final : public IStoreFile {
public:
    HRESULT ReadAt(void*, size_t size, uint64_t offset, size_t& done) override {
        std::unique_lock hold(m_lock);
        if (offset < kUrgent) {
            ++m_started;
            m_changed.notify_all();
            m_changed.wait(hold, [&] { return m_open; });
        }
        done = size;
        return S_OK;
    }
    HRESULT WriteAt(const IoSpan* spans, size_t count, uint64_t offset, size_t& done) override {
        done = 0;
        for (size_t i = 0; i < count; ++i)
            done += spans[i].size_bytes;
        const std::lock_guard hold(m_lock);
        m_writes.emplace_back(offset, done);
        return m_writes.size() == m_failingWrite ? E_FAIL : S_OK;
    }
    HRESULT Sync() override { return S_OK; }
    HRESULT Size(uint64_t& size) override {
        size = 0;
        return S_OK;
    }
    HRESULT SetSize(uint64_t) override { return S_OK; }
    HRESULT PunchHole(uint64_t, uint64_t) override { return S_OK; }
    HRESULT LockForWriting() override { return S_OK; }
    void UnlockForWriting() override {}
    bool Writable() const override { return false; }
    FileIdentity Identity() const override { return {}; }
    bool Cached(uint64_t, size_t) override { return false; }
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}

    void AwaitStarted(unsigned count) {
        std::unique_lock hold(m_lock);
        m_changed.wait(hold, [&] { return m_started >= count; });
    }
    unsigned Started() {
        const std::lock_guard hold(m_lock);
        return m_started;
    }
    void Release() {
        const std::lock_guard hold(m_lock);
        m_open = true;
        m_changed.notify_all();
    }
    using Writes = std::vector<std::pair<uint64_t, size_t>>;  // offset and bytes of each call
    Writes m_writes;
    size_t m_failingWrite = 0;  // counted from 1

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    unsigned m_started = 0;
    bool m_open = false;
};

class CCounter {
public:
    void Add() {
        const std::lock_guard hold(m_lock);
        ++m_count;
        m_changed.notify_all();
    }
    void Await(unsigned count) {
        std::unique_lock hold(m_lock);
        m_changed.wait(hold, [&] { return m_count >= count; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    unsigned m_count = 0;
};

class Engine : public testing::TestWithParam<bool> {
protected:
    Engine() : m_engine(GetParam() ? CreateRingIo() : CreateThreadIo()) {}
    void SetUp() override {
        if (m_engine == nullptr) GTEST_SKIP() << "the kernel refuses a ring";
    }
    static IoRequest Read(CGatedFile& file, uint64_t offset, bool realTime, CCounter& counter) {
        IoRequest request;
        request.realTime = realTime;
        request.file = &file;
        request.offset_bytes = offset;
        request.size_bytes = 4096;
        request.context = &counter;
        request.completed = [](IoRequest& done) { static_cast<CCounter*>(done.context)->Add(); };
        return request;
    }
    CGatedFile m_file;
    std::shared_ptr<IAsyncIo> m_engine;
};

TEST_P(Engine, AtMostOneBackgroundRequestIsAtTheDeviceBeforeARealTimeRead) {
    CCounter theirs;
    CCounter own;
    m_engine->RealTimeSeen();
    std::vector<IoRequest> background(8, Read(m_file, kTheirs, false, theirs));
    for (IoRequest& request : background)
        m_engine->Submit(request);
    m_file.AwaitStarted(1);
    IoRequest urgent = Read(m_file, kUrgent, true, own);
    m_engine->BeginRealTimeRead();
    m_engine->Submit(urgent);
    own.Await(1);  // although the others' request is still at the device
    EXPECT_EQ(urgent.done_bytes, 4096u);
    EXPECT_EQ(m_file.Started(), 1u);
    m_engine->EndRealTimeRead();
    m_file.Release();
    theirs.Await(8);
}

// A background completion may send to a slow client, or sum up a large frame.
TEST_P(Engine, ACompletionOfTheOthersHoldsNoRealTimeReadUp) {
    CCounter own;
    struct Held {
        CGatedFile gate;
        CCounter done;
    } held;
    IoRequest slow = Read(m_file, kUrgent, false, own);
    slow.context = &held;
    slow.completed = [](IoRequest& request) {
        auto* what = static_cast<Held*>(request.context);
        size_t done = 0;
        what->gate.ReadAt(nullptr, 0, kTheirs, done);  // until the test lets it
        what->done.Add();
    };
    m_engine->Submit(slow);
    held.gate.AwaitStarted(1);
    IoRequest urgent = Read(m_file, kUrgent, true, own);
    m_engine->Submit(urgent);
    own.Await(1);
    held.gate.Release();
    held.done.Await(1);
}

// While a read of the real-time client lasts, the others wait; they go on by themselves after it.
TEST_P(Engine, TheOthersGoOnWhenARealTimeReadHasEnded) {
    CCounter theirs;
    m_file.Release();
    m_engine->BeginRealTimeRead();
    std::vector<IoRequest> background(8, Read(m_file, kTheirs, false, theirs));
    for (IoRequest& request : background)
        m_engine->Submit(request);
    theirs.Await(1);  // the one that may
    EXPECT_EQ(m_file.Started(), 1u);
    m_engine->EndRealTimeRead();
    theirs.Await(8);
}

// Nobody takes the bytes: what counts is where they are afterwards.
TEST_P(Engine, WhatIsFetchedIsInThePageCacheThen) {
    constexpr uint64_t kSize = 3 * kScratchSize + 100;
    std::shared_ptr<IVolume> volume;
    ASSERT_EQ(OpenVolume(testing::TempDir(), volume), S_OK);
    std::unique_ptr<IStoreFile> file;
    std::string temporary;
    ASSERT_EQ(volume->CreateUnpublished("readahead", file, temporary), S_OK);
    const std::vector<char> bytes(kSize, 'z');
    const IoSpan span{bytes.data(), bytes.size()};
    size_t written = 0;
    ASSERT_EQ(file->WriteAt(&span, 1, 0, written), S_OK);
    ASSERT_EQ(file->Sync(), S_OK);
    // Where reading without waiting tells what is there, it tells too when it is gone: not always
    // at once, and not of a file system that lies in memory.
    char byte;
    const auto atOnce = [&] { return file->ReadCached(&byte, 1, kScratchSize) == 1; };
    const bool tells = atOnce();
    file->DropCache();
    for (int tries = 0; tells && atOnce() && tries < 1000; ++tries)
        file->DropCache();
    if (tells && !atOnce()) {
        EXPECT_FALSE(file->Cached(kScratchSize, kScratchSize));
    }

    CCounter counter;
    IoRequest requests[2] = {Read(m_file, kScratchSize, false, counter),
                             Read(m_file, kSize - 100, false, counter)};
    requests[0].size_bytes = kScratchSize;
    for (IoRequest& request : requests) {
        request.file = file.get();
        request.op = IoOp::kFetch;
        m_engine->Submit(request);
    }
    counter.Await(2);
    EXPECT_EQ(requests[0].result, S_OK);
    EXPECT_EQ(requests[0].done_bytes, kScratchSize);
    if (TellsWhatIsInMemory(testing::TempDir())) {
        EXPECT_TRUE(file->Cached(kScratchSize, kScratchSize));
    }
    EXPECT_EQ(requests[1].result, S_OK);
    EXPECT_EQ(requests[1].done_bytes, 100u) << "the file ends there";
    volume->Discard(temporary);
}

TEST_P(Engine, AWriteGoesOutInAsManyCallsAsItWants) {
    CCounter counter;
    const char bytes[50] = {};
    const IoSpan spans[] = {{bytes, 10}, {bytes, 1}, {bytes, 20}, {bytes, 2}, {bytes, 30}};
    const auto write = [&](size_t spansPerCall) {
        IoRequest request = Read(m_file, 100, false, counter);
        request.op = IoOp::kWrite;
        request.spans = spans;
        request.spanCount = 5;
        request.spansPerCall = spansPerCall;
        return request;
    };
    IoRequest one = write(0);
    m_engine->Submit(one);
    counter.Await(1);
    EXPECT_EQ(m_file.m_writes, (CGatedFile::Writes{{100, 63}}));
    m_file.m_writes.clear();
    IoRequest pairs = write(2);
    m_engine->Submit(pairs);
    counter.Await(2);
    EXPECT_EQ(m_file.m_writes, (CGatedFile::Writes{{100, 11}, {111, 22}, {133, 30}}));
    EXPECT_EQ(pairs.result, S_OK);
    EXPECT_EQ(pairs.done_bytes, 63u);
    m_file.m_writes.clear();
    m_file.m_failingWrite = 2;
    IoRequest failing = write(2);
    m_engine->Submit(failing);
    counter.Await(3);
    EXPECT_EQ(failing.result, E_FAIL);
    EXPECT_EQ(m_file.m_writes.size(), 2u) << "and none behind the one that failed";
}

// More calls than a ring has places.
TEST_P(Engine, ManyWritesOfManyCallsAreWhole) {
    constexpr size_t kRequests = 12, kSpans = 32, kSpan = 5000;
    std::shared_ptr<IVolume> volume;
    ASSERT_EQ(OpenVolume(testing::TempDir(), volume), S_OK);
    std::unique_ptr<IStoreFile> file;
    std::string temporary;
    ASSERT_EQ(volume->CreateUnpublished("calls", file, temporary), S_OK);
    std::vector<char> bytes(kRequests * kSpans * kSpan);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i / 7);
    std::vector<IoSpan> spans;
    for (size_t i = 0; i < kRequests * kSpans; ++i)
        spans.push_back({bytes.data() + i * kSpan, kSpan});
    CCounter counter;
    std::vector<IoRequest> requests(kRequests, Read(m_file, 0, false, counter));
    for (size_t i = 0; i < kRequests; ++i) {
        requests[i].file = file.get();
        requests[i].op = IoOp::kWrite;
        requests[i].offset_bytes = i * kSpans * kSpan;
        requests[i].spans = spans.data() + i * kSpans;
        requests[i].spanCount = kSpans;
        requests[i].spansPerCall = 1 + i % 3;
    }
    for (IoRequest& request : requests)
        m_engine->Submit(request);
    counter.Await(kRequests);
    for (const IoRequest& request : requests) {
        EXPECT_EQ(request.result, S_OK);
        EXPECT_EQ(request.done_bytes, kSpans * kSpan);
    }
    std::vector<char> read(bytes.size());
    size_t done = 0;
    ASSERT_EQ(file->ReadAt(read.data(), read.size(), 0, done), S_OK);
    EXPECT_TRUE(read == bytes);
    volume->Discard(temporary);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Engine, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "ring" : "threads"; });

}  // namespace
