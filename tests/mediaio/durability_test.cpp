// What the store says it has put on the device, and what it reads to find it again.
#include "mediaio/store/crc32c.h"
#include "simfile.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <latch>
#include <mutex>
#include <set>
#include <thread>

namespace {

using namespace simfile;
using namespace zemstore;

const HRESULT kBroken = HRESULT_FROM_WIN32(ERROR_IO_DEVICE);

TEST(FailedSync, IsNotForgotten) {
    Device device;
    FormatVideo(device);
    Opened file(device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 1000)), S_OK);
    device.faults = {{Call::kSync, 0, kBroken}};
    EXPECT_EQ(file->Flush(), kBroken);
    EXPECT_EQ(file->Flush(), kBroken) << "a second try does not lie";
    EXPECT_EQ(WriteFrame(*file.file, 1, FrameBytes(1, 1, 1000)), kBroken);
    EXPECT_EQ(file->Checkpoint(), kBroken);
    EXPECT_EQ(file->Erase(0, 1), kBroken);
    EXPECT_EQ(file->EndWriting(), kBroken);
    EXPECT_EQ(file->BeginWriting(), kBroken);
}

// The system takes pages that it failed to write for written and may read them again any time.
TEST(FailedSync, FramesAreComparedAgain) {
    uint32_t lost = 0;
    for (uint32_t seed = 1; seed <= 50; ++seed) {
        Device device;
        device.random.seed(seed);
        FormatVideo(device);
        Opened file(device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 1000)), S_OK);
        ASSERT_EQ(file->Flush(), S_OK);
        ASSERT_EQ(WriteFrame(*file.file, 1, FrameBytes(1, 1, 1000)), S_OK);
        device.faults = {{Call::kSync, 0, kBroken}};
        ASSERT_EQ(file->Flush(), kBroken);
        std::vector<uint8_t> bytes;
        EXPECT_EQ(ReadFrame(*file.file, 0, bytes), S_OK);
        EXPECT_EQ(bytes, FrameBytes(0, 1, 1000)) << "what was flushed before";
        const HRESULT hr = ReadFrame(*file.file, 1, bytes);
        if (hr == HRESULT_FROM_WIN32(ERROR_CRC)) {
            ++lost;
        } else {
            ASSERT_EQ(hr, S_OK);
            ASSERT_EQ(bytes, FrameBytes(1, 1, 1000));
        }
    }
    EXPECT_GT(lost, 10u);
}

// Who opens the file next sees what the device has, and what he flushes stays.
TEST(FailedSync, TheNextObjectKnowsOnlyWhatTheDeviceHas) {
    for (uint32_t seed = 1; seed <= 50; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Device device;
        device.random.seed(seed);
        FormatVideo(device);
        {
            Opened file(device);
            ASSERT_EQ(file->BeginWriting(), S_OK);
            for (uint32_t i = 0; i < 10; ++i)
                ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 3000)), S_OK);
            device.faults = {{Call::kSync, 0, kBroken}};
            ASSERT_EQ(file->EndWriting(), kBroken);
        }
        std::set<uint32_t> there;
        std::vector<uint8_t> bytes;
        {
            Opened file(device);
            ASSERT_EQ(file.hr, S_OK);
            for (uint32_t i = 0; i < 10; ++i)
                if (ReadFrame(*file.file, i, bytes) == S_OK) there.insert(i);
            ASSERT_EQ(file->BeginWriting(), S_OK);
            ASSERT_EQ(file->EndWriting(), S_OK);
        }
        device.LosePower(Cut::kNothing);
        Opened file(device);
        ASSERT_EQ(file.hr, S_OK);
        for (const uint32_t i : there) {
            ASSERT_EQ(ReadFrame(*file.file, i, bytes), S_OK);
            ASSERT_EQ(bytes, FrameBytes(i, 1, 3000));
        }
    }
}

// A file of which one sync waits at a gate, and then ends as it is told. The system tells of a
// failure once: every other sync says that all is well. A write may be kept waiting, too.
class CGatedFile final : public CSimFile {
public:
    explicit CGatedFile(Device& device) : CSimFile(device) {}
    HRESULT Sync() override {
        std::unique_lock hold(m_lock);
        ++m_syncs;
        if (!m_armed || m_before-- != 0) {
            std::lock_guard alone(m_deviceLock);
            return CSimFile::Sync();
        }
        m_armed = false;
        m_waiting = true;
        m_changed.notify_all();
        m_changed.wait(hold, [this] { return m_open; });
        return m_result;
    }
    HRESULT WriteAt(const IoSpan* spans, size_t count, uint64_t offset, size_t& done) override {
        if (m_holdsWrite.exchange(false)) {
            m_writing.count_down();
            m_written.wait();
        }
        std::lock_guard alone(m_deviceLock);
        return CSimFile::WriteAt(spans, count, offset, done);
    }
    void DropCache() override {
        std::lock_guard alone(m_deviceLock);
        CSimFile::DropCache();
    }
    HRESULT PunchHole(uint64_t offset, uint64_t size) override {
        std::lock_guard alone(m_deviceLock);
        return CSimFile::PunchHole(offset, size);
    }
    void Arm(HRESULT result, uint32_t before = 0) {  // `before`: so many syncs go through first
        std::lock_guard hold(m_lock);
        m_armed = true;
        m_before = before;
        m_open = m_waiting = false;
        m_result = result;
        m_syncs = 0;
    }
    void AwaitSync() {
        std::unique_lock hold(m_lock);
        m_changed.wait(hold, [this] { return m_waiting; });
    }
    void Open() {
        std::lock_guard hold(m_lock);
        m_open = true;
        m_changed.notify_all();
    }
    void HoldWrite() { m_holdsWrite = true; }  // the next one, once
    void AwaitWrite() { m_writing.wait(); }
    void OpenWrite() { m_written.count_down(); }
    uint32_t Syncs() {
        std::lock_guard hold(m_lock);
        return m_syncs;
    }

private:
    std::mutex m_deviceLock;
    std::atomic<bool> m_holdsWrite{false};
    std::latch m_writing{1};
    std::latch m_written{1};
    std::mutex m_lock;  // guards what follows
    std::condition_variable m_changed;
    bool m_armed = false;
    uint32_t m_before = 0;
    bool m_waiting = false;
    bool m_open = false;
    HRESULT m_result = S_OK;
    uint32_t m_syncs = 0;
};

class SharedSync : public testing::Test {
protected:
    void SetUp() override {
        FormatVideo(m_device);
        auto gated = std::make_unique<CGatedFile>(m_device);
        m_gate = gated.get();
        m_file = new CMediaFile(std::move(gated), nullptr);
        ASSERT_EQ(m_file->Load(), S_OK);
        ASSERT_EQ(m_file->BeginWriting(), S_OK);
        ASSERT_EQ(WriteFrame(*m_file, 0, FrameBytes(0, 1, 1000)), S_OK);
    }
    void TearDown() override { m_file->Release(); }
    Device m_device;
    CGatedFile* m_gate = nullptr;
    CMediaFile* m_file = nullptr;
};

TEST_F(SharedSync, WhoeverWaitsForOneHearsThatItFailed) {
    m_gate->Arm(kBroken);
    HRESULT first = S_OK;
    HRESULT others[3] = {};
    std::thread one([&] { first = m_file->Flush(); });
    m_gate->AwaitSync();
    std::vector<std::thread> threads;
    std::atomic<uint32_t> started{0};
    for (HRESULT& other : others) {
        threads.emplace_back([&] {
            ++started;
            other = m_file->Flush();
        });
    }
    std::thread checkpoint([&] { EXPECT_EQ(m_file->Checkpoint(), kBroken); });
    // Those who do not wait are given time to be wrong.
    while (started != 3)
        std::this_thread::yield();
    for (int i = 0; i < 2000; ++i)
        std::this_thread::yield();
    m_gate->Open();
    one.join();
    checkpoint.join();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(first, kBroken);
    for (const HRESULT other : others)
        EXPECT_EQ(other, kBroken);
}

TEST_F(SharedSync, ACheckpointWaitsForTheOneThatRuns) {
    m_gate->Arm(S_OK);
    std::thread flush([&] { EXPECT_EQ(m_file->Flush(), S_OK); });
    m_gate->AwaitSync();
    std::thread checkpoint([&] { EXPECT_EQ(m_file->Checkpoint(), S_OK); });
    m_gate->Open();
    flush.join();
    checkpoint.join();
    ASSERT_EQ(m_file->Flush(), S_OK);
    m_device.LosePower(Cut::kNothing);
    Opened again(m_device);
    ASSERT_EQ(again.hr, S_OK);
    EXPECT_EQ(again->OpenReport().tailRecords, 0u) << "the checkpoint is there";
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*again.file, 0, bytes), S_OK);
}

TEST_F(SharedSync, ManyShareAFew) {
    m_gate->Arm(S_OK);
    std::vector<std::thread> threads;
    threads.emplace_back([&] { EXPECT_EQ(m_file->Flush(), S_OK); });
    m_gate->AwaitSync();
    for (int i = 0; i < 20; ++i)
        threads.emplace_back([&] { EXPECT_EQ(m_file->Flush(), S_OK); });
    m_gate->Open();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GE(m_gate->Syncs(), 1u);
    EXPECT_LE(m_gate->Syncs(), 21u);
}

// A frame that is written while the test looks on.
struct Writing {
    Writing(uint32_t position, size_t size) : bytes(FrameBytes(position, 1, size)) {
        item.position = position;
        item.data = bytes.data();
        item.dataSize = static_cast<uint32_t>(bytes.size());
        item.dataCrc = zemstore::Crc32c(0, bytes.data(), bytes.size());
        item.context = this;
        item.completed = [](WriteItem& written) {
            static_cast<Writing*>(written.context)->done = true;
        };
    }
    const std::vector<uint8_t> bytes;
    WriteItem item;
    std::atomic<bool> done{false};
};

// The device is full but for what frames of 50,000 bytes that nobody wants any more still hold.
class FullDevice : public SharedSync {
protected:
    static constexpr HRESULT kFull = HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    void SetUp() override {
        SharedSync::SetUp();
        ASSERT_EQ(WriteFrame(*m_file, 1, FrameBytes(1, 1, 50000)), S_OK);
    }
    void Fill() { m_device.capacity = m_device.content.size() + 30000; }  // the index has room
    HRESULT Write(uint32_t position) {
        return WriteFrame(*m_file, position, FrameBytes(position, 1, 40000));
    }
};

TEST_F(FullDevice, AWriteWaitsForTheSpaceThatACheckpointGivesBack) {
    Fill();
    m_gate->Arm(S_OK, 1);  // the record's own sync goes through, the checkpoint's first one waits
    std::thread erase([&] { EXPECT_EQ(m_file->Erase(1, 2), S_OK); });
    m_gate->AwaitSync();
    Writing frame(2, 40000);
    Writing small(3, 100);
    m_file->Append(frame.item);
    m_file->Append(small.item);
    EXPECT_FALSE(frame.done);
    EXPECT_FALSE(small.done) << "what comes after it keeps its place";
    m_gate->Open();
    erase.join();
    EXPECT_EQ(m_file->Flush(), S_OK);
    EXPECT_TRUE(frame.done);
    EXPECT_EQ(frame.item.result, S_OK);
    EXPECT_EQ(small.item.result, S_OK);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*m_file, 2, bytes), S_OK);
    EXPECT_EQ(bytes, frame.bytes);
}

TEST_F(FullDevice, AWriteAsksForTheSpaceOfWhatWasOverwritten) {
    ASSERT_EQ(WriteFrame(*m_file, 1, FrameBytes(1, 2, 1000)), S_OK);
    Fill();
    EXPECT_EQ(Write(2), S_OK);
    EXPECT_EQ(Write(3), kFull) << "and then there is none";
}

TEST_F(FullDevice, AWriteWaitsForNoReader) {
    PinnedFrame held{};
    ASSERT_EQ(m_file->Pin(1, true, held), S_OK);
    Fill();
    ASSERT_EQ(m_file->Erase(1, 2), S_OK);
    EXPECT_EQ(Write(2), kFull);
    m_file->Unpin(held.epoch);
    EXPECT_EQ(Write(2), S_OK);
}

TEST_F(FullDevice, AWriteFailsWhenThereIsNoRoomForTheIndexEither) {
    ASSERT_EQ(WriteFrame(*m_file, 1, FrameBytes(1, 2, 1000)), S_OK);
    m_device.capacity = m_device.content.size();
    EXPECT_EQ(Write(2), kFull);
    const uint64_t writes = m_device.calls[static_cast<size_t>(Call::kWrite)];
    EXPECT_EQ(Write(3), kFull);
    EXPECT_EQ(m_device.calls[static_cast<size_t>(Call::kWrite)], writes + 1)
        << "the index is not tried again with every frame";
}

// There will be no checkpoint to wait for, and nobody who closes the file may wait for it either.
TEST_F(FullDevice, AWriteAfterAFailedSyncFailsAtOnce) {
    ASSERT_EQ(WriteFrame(*m_file, 1, FrameBytes(1, 2, 1000)), S_OK);
    Fill();
    m_gate->Arm(kBroken);
    std::thread flush([&] { EXPECT_EQ(m_file->Flush(), kBroken); });
    m_gate->AwaitSync();
    m_gate->HoldWrite();
    std::thread write([&] { EXPECT_EQ(Write(2), kFull); });
    m_gate->AwaitWrite();
    m_gate->Open();
    flush.join();
    const uint64_t writes = m_device.calls[static_cast<size_t>(Call::kWrite)];
    m_gate->OpenWrite();
    write.join();
    EXPECT_EQ(m_device.calls[static_cast<size_t>(Call::kWrite)], writes + 1);
    EXPECT_EQ(m_file->EndWriting(), kBroken);
}

// Two objects of one file are two processes: the one that only read knows nothing of the other.
TEST(OtherProcess, AFileThatItChangedIsNotWrittenByWhoDoesNotKnow) {
    Device device;
    FormatVideo(device);
    Opened reader(device);
    ASSERT_EQ(reader.hr, S_OK);
    {
        Opened writer(device);
        ASSERT_EQ(writer->BeginWriting(), S_OK);
        EXPECT_EQ(reader->BeginWriting(), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
        ASSERT_EQ(WriteFrame(*writer.file, 0, FrameBytes(0, 1, 1000)), S_OK);
        ASSERT_EQ(writer->EndWriting(), S_OK);
        EXPECT_EQ(writer->BeginWriting(), S_OK) << "its own changes are no surprise";
        ASSERT_EQ(writer->EndWriting(), S_OK);
    }
    const HRESULT changed = HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
    EXPECT_EQ(reader->BeginWriting(), changed);
    EXPECT_EQ(reader->AppendSettings({1, 2, {}, 0}), changed);
    Opened again(device);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*again.file, 0, bytes), S_OK);
    EXPECT_EQ(bytes, FrameBytes(0, 1, 1000));
    EXPECT_EQ(again->BeginWriting(), S_OK);
}

// The older root would bring an erased frame back.
TEST(Recovery, ARootThatCannotBeReadIsNoReasonToTakeTheOther) {
    Device device;
    FormatVideo(device);
    {
        Opened file(device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 1000)), S_OK);
        ASSERT_EQ(file->Checkpoint(), S_OK);
        ASSERT_EQ(file->Erase(0, 1), S_OK);
        ASSERT_EQ(file->EndWriting(), S_OK);
    }
    for (const uint32_t read : {0u, 1u, 2u}) {  // header, root, root
        device.faults = {{Call::kRead, read, kBroken}};
        Opened file(device);
        EXPECT_EQ(file.hr, kBroken);
    }
    Opened file(device);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(ReadFrame(*file.file, 0, bytes), kErrorFrameErased);
}

struct OpenCost {
    uint64_t bytes;
    uint64_t calls;
    uint64_t indexNodes;
    uint64_t tailBytes;
};

// A file of so many frames, and so many more since its last checkpoint, whose process was killed.
OpenCost CostOfOpening(uint32_t frames, uint32_t tail, size_t frameSize) {
    Device device;
    FormatVideo(device);
    {
        Opened file(device);
        EXPECT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < frames; ++i)
            EXPECT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, frameSize)), S_OK);
        EXPECT_EQ(file->Checkpoint(), S_OK);
        for (uint32_t i = 0; i < tail; ++i)
            EXPECT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 2, frameSize)), S_OK);
        EXPECT_EQ(file->Flush(), S_OK);
    }
    device.LosePower(Cut::kNothing);
    device.bytesRead = 0;
    device.calls = {};
    Opened file(device);
    EXPECT_EQ(file.hr, S_OK);
    EXPECT_EQ(file->OpenReport().tailRecords, tail);
    return {device.bytesRead, device.calls[static_cast<size_t>(Call::kRead)], file->IndexNodes(),
            file->OpenReport().tailBytes};
}

// Recovery is what opening reads beside the index. Every byte is accounted for: header and roots,
// each index node once, the log behind the checkpoint, and the data of its frames once more.
TEST(Recovery, ReadsTheLogBehindTheCheckpointAndNoMore) {
    constexpr uint64_t kHeads = sizeof(FileHeader) + 2 * sizeof(Root);
    constexpr size_t kFrame = 2000;
    for (const uint32_t tail : {0u, 10u, 1000u}) {
        for (const uint32_t frames : {1000u, 2000u, 4000u}) {
            SCOPED_TRACE(testing::Message() << frames << " frames, tail of " << tail);
            const OpenCost cost = CostOfOpening(frames, tail, kFrame);
            EXPECT_EQ(cost.tailBytes, tail * SlotSize(kFrame));
            EXPECT_EQ(cost.bytes, kHeads + cost.indexNodes * kPageSize + cost.tailBytes +
                                      uint64_t{tail} * kFrame);
            EXPECT_LE(cost.calls, 3 + cost.indexNodes + tail + cost.tailBytes / (1 << 20) + 2);
            EXPECT_LE(cost.indexNodes, frames / kLeafEntries + 8);
        }
    }
}

TEST(Recovery, DoesNotDependOnHowLargeTheFramesBeforeAre) {
    const OpenCost small = CostOfOpening(500, 0, 100);
    const OpenCost large = CostOfOpening(500, 0, 60000);
    EXPECT_EQ(small.bytes, large.bytes);
    EXPECT_EQ(small.calls, large.calls);
}

}  // namespace
