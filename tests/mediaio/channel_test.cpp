// Frame I/O through a channel, with the kernel's ring and without.
#include "channelfixture.h"

#include "memorytold.h"
#include "tests/fakes/fakeerrorlog.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

namespace {

using namespace mediatest;

// true: no ring. A base of its own, since it has to come before the first channel.
class CEngineChoice : public testing::WithParamInterface<bool> {
protected:
    CEngineChoice() {
        if (GetParam())
            setenv("ZEM_NO_IO_URING", "1", 1);
        else
            unsetenv("ZEM_NO_IO_URING");
        // What the test before has left to do may still hold the engine of the other kind.
        while (zemstore::IAsyncIo::Shared().use_count() > 1)
            std::this_thread::yield();
    }
};

class ChannelIo : public CEngineChoice, public CVolumeTest {};

// Opening a file reads some of it, and a fast device may have read the frame ahead by the time that
// it is asked for: rarely one of this size, and not each time.
constexpr size_t kHardlyReadAhead_bytes = 3500000;
constexpr int kTriesToWait = 100;

INSTANTIATE_TEST_SUITE_P(Ring, ChannelIo, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Threads, ChannelIo, testing::Values(true));

TEST_P(ChannelIo, UsesTheRingUnlessTold) {
    const std::string kind = zemstore::IAsyncIo::Shared()->Kind();
    if (GetParam()) {
        EXPECT_EQ(kind, "threads");
    } else if (kind != "io_uring") {
        GTEST_SKIP() << "this kernel gives no ring";
    }
}

TEST_P(ChannelIo, WhatIsWrittenIsReadAtOnceFromItsPages) {
    if (!TellsWhatIsInMemory(m_root)) GTEST_SKIP() << "here no read is known to need no waiting";
    const ULONGLONG token = Create("media/clip/v0");
    EXPECT_EQ(TokenKind(token), kTokenKindVideo);
    const auto frame = Bytes(1, 1 << 20);
    ASSERT_EQ(Write(token, 0, frame), S_OK);
    Io io;
    io.entries[0].token = token;
    ASSERT_EQ(m_channel->ReadFrame(io.desc), S_OK) << "known to be good and in memory";
    EXPECT_EQ(io.desc.status, S_OK);
    ASSERT_EQ(io.entries[0].bufferCount, 1);
    int descriptor = -1;
    uint64_t offset = 0;
    EXPECT_TRUE(FindFileView(io.entries[0].buffers[0].data, frame.size(), &descriptor, &offset))
        << "a view of the file, no copy";
    EXPECT_EQ(m_allocator.BytesInUse(), 0u);
    EXPECT_EQ(Fetch(io.entries[0].buffers[0]), frame);
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    EXPECT_EQ(Fetch(io.entries[0].buffers[0]), frame) << "the reader's pages outlive the token";
    EXPECT_EQ(m_channel->ReadFrameComplete(io.streams), S_OK);
    EXPECT_EQ(io.entries[0].bufferCount, 0);
    EXPECT_EQ(io.entries[0].buffers[0].data, nullptr);
    EXPECT_EQ(m_channel->ReadFrameComplete(io.streams), S_OK) << "harmless twice";
}

// What nobody has checked since the file was opened is checked where it is asked for, if that needs
// no waiting for the device; else the library's thread does it.
TEST_P(ChannelIo, AFirstReadIsVerified) {
    const auto frame = Bytes(2, kHardlyReadAhead_bytes);
    ULONGLONG token = Create("clip");
    ASSERT_EQ(Write(token, 0, frame), S_OK);
    for (const bool cached : {false, true}) {
        std::vector<uint8_t> bytes;
        bool pending = cached;
        for (int tries = 0; pending == cached && tries < (cached ? 1 : kTriesToWait); ++tries) {
            CloseLast(token);
            if (!cached && !Forget("clip"))
                GTEST_SKIP() << "here every file stays in memory, and no read tells if it waits";
            token = Open("clip");
            ASSERT_EQ(Read(token, 0, bytes, nullptr, &pending), S_OK);
            EXPECT_EQ(bytes, frame);
        }
        EXPECT_EQ(pending, !cached);
        ASSERT_EQ(Read(token, 0, bytes, nullptr, &pending), S_OK);
        EXPECT_FALSE(pending) << "once per version and open file";
        EXPECT_EQ(bytes, frame);
    }
}

TEST_P(ChannelIo, PerStreamResults) {
    const ULONGLONG token = Create("clip");
    ASSERT_EQ(Write(token, 0, Bytes(0, 100)), S_OK);
    ASSERT_EQ(Write(token, 2, Bytes(2, 200)), S_OK);
    ASSERT_EQ(Write(token, 3, Bytes(3, 0)), S_OK);
    ASSERT_EQ(m_channel->EraseSegment(token, 2, 3, kMediaFileAny), S_OK);
    auto other = NewChannel();
    const ULONGLONG foreign = Open("clip", kFileRead, other.get());
    Io io(7);
    const struct {
        ULONGLONG token;
        uint32_t position;
        HRESULT status;
    } expected[7] = {
        {token, 0, S_OK},        {token, 1, kErrorFrameHole}, {token, 2, kErrorFrameErased},
        {token, 4, kEndOfMedia}, {foreign, 0, E_HANDLE},      {token ^ (1ull << 40), 0, E_HANDLE},
        {token, 3, S_OK}};
    for (int i = 0; i < 7; ++i) {
        memset(&io.entries[i], 0xEE, sizeof io.entries[i]);  // descriptors keep old values
        io.entries[i].streamFlags = 0;
        io.entries[i].token = expected[i].token;
        io.entries[i].position = expected[i].position;
    }
    const HRESULT read = io.Wait(m_channel->ReadFrame(io.desc));
    EXPECT_EQ(read, io.pending ? S_OK : kErrorFrameHole) << "at once: the first failure";
    EXPECT_EQ(io.desc.status, S_OK) << "the reply itself goes out with its table";
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(io.entries[i].status, expected[i].status) << i;
        EXPECT_EQ(io.entries[i].bufferCount, i == 0 ? 1 : 0) << i;
    }
    EXPECT_EQ(Fetch(io.entries[0].buffers[0]), Bytes(0, 100));
    m_channel->ReadFrameComplete(io.streams);
}

TEST_P(ChannelIo, NoDataMeansLengthOnly) {
    const ULONGLONG token = Create("clip");
    ASSERT_EQ(Write(token, 0, Bytes(0, 12345)), S_OK);
    Io io;
    io.entries[0].token = token;
    io.entries[0].streamFlags = kStreamFlagNoData;
    EXPECT_EQ(m_channel->ReadFrame(io.desc), S_OK);
    EXPECT_EQ(io.entries[0].buffers[0].data, nullptr);
    EXPECT_EQ(io.entries[0].buffers[0].length_bytes, 12345u);
    m_channel->ReadFrameComplete(io.streams);
}

TEST_P(ChannelIo, ADamagedFrameFailsAlone) {
    ULONGLONG token = Create("clip");
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(Write(token, i, Bytes(i, 50000)), S_OK);
    CloseLast(token);
    const int fd = open(Path("clip").c_str(), O_RDWR);
    const char wrong = 0x11;
    ASSERT_EQ(pwrite(fd, &wrong, 1, 16384 + 53248 + 777), 1);
    close(fd);
    token = Open("clip");
    std::vector<uint8_t> bytes;
    FakeErrorLog().Reset();
    EXPECT_EQ(Read(token, 0, bytes), S_OK);
    EXPECT_EQ(Read(token, 1, bytes), HRESULT_FROM_WIN32(ERROR_CRC));
    EXPECT_EQ(FakeErrorLog().Texts(kErrorLogLevelError),
              std::vector<WString>{TEXT("clip: a stored frame is damaged, position 1")});
    EXPECT_EQ(Read(token, 2, bytes), S_OK);
    EXPECT_EQ(bytes, Bytes(2, 50000));
}

TEST_P(ChannelIo, AFileCutFromOutsideGivesAnError) {
    ULONGLONG token = Create("clip");
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(Write(token, i, Bytes(i, 50000)), S_OK);
    CloseLast(token);
    token = Open("clip");
    ASSERT_EQ(truncate(Path("clip").c_str(), 16384 + 60000), 0);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(token, 0, bytes), S_OK);
    EXPECT_EQ(Read(token, 1, bytes), HRESULT_FROM_WIN32(ERROR_CRC));
    EXPECT_EQ(Read(token, 2, bytes), HRESULT_FROM_WIN32(ERROR_CRC));
}

// The memory of all channels is 120 MiB: a third frame of 50 MB finds none, and costs the first two
// nothing.
TEST_P(ChannelIo, AWriteThatFindsNoMemoryIsRefusedAndLeavesNothingBehind) {
    const ULONGLONG token = Create("clip");
    Io io[3];
    HRESULT results[3];
    for (int i = 0; i < 3; ++i) {
        io[i].entries[0].token = token;
        io[i].entries[0].bufferCount = 1;
        io[i].entries[0].buffers[0].length_bytes = 50000000;
        results[i] = m_channel->GetWriteFrameBuffers(io[i].desc);
    }
    EXPECT_EQ(results[0], S_OK);
    EXPECT_EQ(results[1], S_OK);
    EXPECT_EQ(results[2], HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(m_allocator.BytesInUse(), 2 * ((50000000 + 4095) / 4096 * size_t{4096}));
    for (Io& each : io)
        m_channel->ReleaseWriteFrameBuffers(each.desc);
    EXPECT_EQ(m_allocator.BytesInUse(), 0u);
    EXPECT_EQ(Write(token, 0, Bytes(0, 1000000)), S_OK);
}

TEST_P(ChannelIo, WriteBuffersAreOneRunInEntryOrder) {
    const ULONGLONG token = Create("v0");
    const ULONGLONG audio = Create("a0", kMediaFileAudio);
    Io io(2);
    io.entries[0].token = token;
    io.entries[0].bufferCount = 3;
    io.entries[0].buffers[0].length_bytes = 1000;
    io.entries[0].buffers[1].length_bytes = 0;
    io.entries[0].buffers[2].length_bytes = 24;
    io.entries[1].token = audio;
    io.entries[1].bufferCount = 1;
    io.entries[1].buffers[0].length_bytes = 5000;
    ASSERT_EQ(m_channel->GetWriteFrameBuffers(io.desc), S_OK);
    auto* first = static_cast<char*>(io.entries[0].buffers[0].data);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 4096, 0u);
    EXPECT_EQ(io.entries[0].buffers[2].data, first + 1000);
    EXPECT_EQ(io.entries[1].buffers[0].data, first + 1024);
    EXPECT_EQ(m_allocator.BytesInUse(), 8192u);
    const auto bytes = Bytes(5, 6024);
    memcpy(first, bytes.data(), bytes.size());
    io.entries[0].buffers[1].data = nullptr;  // as the server does for an empty buffer
    EXPECT_EQ(io.Wait(m_channel->WriteFrame(io.desc)), S_OK);
    EXPECT_EQ(m_allocator.BytesInUse(), 0u);
    std::vector<uint8_t> back;
    EXPECT_EQ(Read(token, 0, back), S_OK);
    EXPECT_EQ(back, std::vector<uint8_t>(bytes.begin(), bytes.begin() + 1024));
    EXPECT_EQ(Read(audio, 0, back), S_OK);
    EXPECT_EQ(back, std::vector<uint8_t>(bytes.begin() + 1024, bytes.end()));
}

TEST_P(ChannelIo, BuffersGivenBackUnwritten) {
    const ULONGLONG token = Create("clip");
    Io io;
    io.entries[0].token = token;
    io.entries[0].bufferCount = 1;
    io.entries[0].buffers[0].length_bytes = 100000;
    ASSERT_EQ(m_channel->GetWriteFrameBuffers(io.desc), S_OK);
    EXPECT_EQ(m_channel->ReleaseWriteFrameBuffers(io.desc), S_OK);
    EXPECT_EQ(m_allocator.BytesInUse(), 0u);
    EXPECT_EQ(io.entries[0].bufferCount, 0);
    EXPECT_EQ(m_channel->ReleaseWriteFrameBuffers(io.desc), S_OK) << "harmless twice";
}

TEST_P(ChannelIo, ExhaustionIsACleanDrop) {
    const ULONGLONG token = Create("clip");
    Io big;
    big.entries[0].token = token;
    big.entries[0].bufferCount = 1;
    big.entries[0].buffers[0].length_bytes = 125829120;
    ASSERT_EQ(m_channel->GetWriteFrameBuffers(big.desc), S_OK);
    EXPECT_EQ(Write(token, 0, Bytes(0, 1)), HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(m_channel->ReleaseWriteFrameBuffers(big.desc), S_OK);
    EXPECT_EQ(Write(token, 0, Bytes(0, 1)), S_OK);
    big.entries[0].bufferCount = 1;
    big.entries[0].buffers[0].length_bytes = ~0ull;
    EXPECT_EQ(m_channel->GetWriteFrameBuffers(big.desc), E_INVALIDARG);
}

TEST_P(ChannelIo, WritesThatAreRefusedReturnTheirMemory) {
    const ULONGLONG token = Create("clip");
    const ULONGLONG reader = Open("clip");
    EXPECT_EQ(Write(reader, 0, Bytes(0, 1000)), E_ACCESSDENIED);
    EXPECT_EQ(Write(token + (1ull << 33), 0, Bytes(0, 1000)), E_HANDLE);
    EXPECT_EQ(Write(token, 0xFFFFFFFF, Bytes(0, 1000)), E_INVALIDARG);
    EXPECT_EQ(m_allocator.BytesInUse(), 0u);
    Io io;
    io.streams.entryCount = 0;
    EXPECT_EQ(m_channel->ReadFrame(io.desc), E_INVALIDARG);
    io.streams.entryCount = 23;
    EXPECT_EQ(m_channel->ReadFrame(io.desc), E_INVALIDARG);
    EXPECT_EQ(m_channel->WriteFrame(io.desc), E_INVALIDARG);
}

TEST_P(ChannelIo, ManyWritesAtOnceAllArrive) {
    const ULONGLONG token = Create("clip");
    constexpr uint32_t kCount = 200;
    std::vector<std::unique_ptr<Io>> ios;
    std::vector<HRESULT> results;
    for (uint32_t i = 0; i < kCount; ++i) {
        auto io = std::make_unique<Io>();
        io->entries[0].token = token;
        io->entries[0].position = i;
        io->entries[0].bufferCount = 1;
        io->entries[0].buffers[0].length_bytes = 20000;
        ASSERT_EQ(m_channel->GetWriteFrameBuffers(io->desc), S_OK);
        const auto bytes = Bytes(i, 20000);
        memcpy(io->entries[0].buffers[0].data, bytes.data(), bytes.size());
        results.push_back(m_channel->WriteFrame(io->desc));
        ios.push_back(std::move(io));
    }
    ASSERT_EQ(m_channel->FlushBuffers(token), S_OK);
    for (uint32_t i = 0; i < kCount; ++i)
        EXPECT_EQ(ios[i]->Wait(results[i]), S_OK);
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(Read(token, i, bytes), S_OK);
        ASSERT_EQ(bytes, Bytes(i, 20000));
    }
}

// Deleting a channel waits for its last completion.
TEST_P(ChannelIo, ADeletedChannelHasNothingUnderWay) {
    ULONGLONG token = Create("clip");
    for (uint32_t i = 0; i < 40; ++i)
        ASSERT_EQ(Write(token, i, Bytes(i, 300000)), S_OK);
    CloseLast(token);
    for (int round = 0; round < 20; ++round) {
        auto other = NewChannel();
        const ULONGLONG mine = Open("clip", kFileRead, other.get());
        struct Counted : Io {
            CZemChannelIo* channel = nullptr;
            std::atomic<int>* count = nullptr;
        };
        std::atomic<int> count{0};
        std::vector<std::unique_ptr<Counted>> ios;
        int expected = 0;
        for (uint32_t i = 0; i < 40; ++i) {
            auto io = std::make_unique<Counted>();
            io->channel = other.get();
            io->count = &count;
            io->entries[0].token = mine;
            io->entries[0].position = i;
            io->desc.completionContext = io.get();
            io->desc.completionRoutine = [](void* context) {
                auto* self = static_cast<Counted*>(context);
                self->channel->BumpRealTimeIoMsgs();
                EXPECT_EQ(WString(self->channel->GetClientId()), TEXT("client"));
                self->channel->ReadFrameComplete(self->streams);
                ++*self->count;
            };
            if (other->ReadFrame(io->desc) == kPending)
                ++expected;
            else
                other->ReadFrameComplete(io->streams);
            ios.push_back(std::move(io));
        }
        other.reset();
        EXPECT_EQ(count.load(), expected);
    }
}

// The server's last reference to a channel may go inside the completion of its last request.
TEST_P(ChannelIo, ACompletionMayDeleteItsChannel) {
    ULONGLONG token = Create("clip");
    ASSERT_EQ(Write(token, 0, Bytes(0, kHardlyReadAhead_bytes)), S_OK);
    CloseLast(token);
    struct Last : Io {
        std::unique_ptr<CZemChannelIo> channel;
    } io;
    io.desc.completionContext = &io;
    io.desc.completionRoutine = [](void* context) {
        auto* self = static_cast<Last*>(context);
        self->channel->ReadFrameComplete(self->streams);
        self->channel.reset();
        self->completed.set_value();
    };
    for (int tries = 1;; ++tries) {
        if (!Forget("clip")) GTEST_SKIP() << "here every file stays in memory: no read has to wait";
        io.channel = NewChannel();
        io.entries[0].token = Open("clip", kFileRead, io.channel.get());
        const HRESULT read = io.channel->ReadFrame(io.desc);
        if (read == kPending) break;
        ASSERT_EQ(read, S_OK);
        io.channel->ReadFrameComplete(io.streams);
        io.channel.reset();
        zemstore::AwaitNoMediaFiles();
        ASSERT_LT(tries, kTriesToWait) << "no read had to wait";
    }
    io.completed.get_future().wait();
    EXPECT_EQ(io.entries[0].status, S_OK);
    // The file may be closed a little later; the next open waits for nothing and finds it whole.
    token = Open("clip");
    std::vector<uint8_t> bytes;
    EXPECT_EQ(Read(token, 0, bytes), S_OK);
}

// The writer is this program started once more: a fork would have the locks of threads that it has
// not.
TEST_P(ChannelIo, EverythingWrittenSurvivesSigkill) {
    static constexpr const char* kRootOfWriter = "ZEM_TEST_ROOT_OF_WRITER";
    static constexpr int kAnswer = 9;
    m_channel.reset();
    if (const char* const root = std::getenv(kRootOfWriter)) {
        std::filesystem::remove_all(m_root);  // it is killed before it could tidy up
        UseRoot(root);
        m_channel = NewChannel();
        const ULONGLONG token = Create("media/clip.v0");
        bool good = token != 0;
        for (uint32_t i = 0; i < 50; ++i)
            good = good && Write(token, i, Bytes(i, 30000)) == S_OK;
        const char answer = good ? 'y' : 'n';
        if (write(kAnswer, &answer, 1) != 1) _exit(1);
        for (;;)
            pause();
    }
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    std::string filter =
        std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
    std::string program = "/proc/self/exe";
    char* const arguments[] = {program.data(), filter.data(), nullptr};
    posix_spawn_file_actions_t actions;
    ASSERT_EQ(posix_spawn_file_actions_init(&actions), 0);
    ASSERT_EQ(posix_spawn_file_actions_adddup2(&actions, ready[1], kAnswer), 0);
    pid_t child = 0;
    setenv(kRootOfWriter, m_root.c_str(), 1);
    const int error = posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environ);
    unsetenv(kRootOfWriter);
    posix_spawn_file_actions_destroy(&actions);
    close(ready[1]);
    ASSERT_EQ(error, 0);
    char answer = 0;
    EXPECT_EQ(read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    close(ready[0]);
    m_channel = NewChannel();
    const ULONGLONG token = Open("media/clip.v0");
    ZemEsDesc desc{};
    ASSERT_EQ(m_channel->GetFileInfo(token, desc), S_OK);
    EXPECT_EQ(desc.frameCount, 50u);
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < 50; ++i) {
        ASSERT_EQ(Read(token, i, bytes), S_OK);
        ASSERT_EQ(bytes, Bytes(i, 30000));
    }
}

TEST_P(ChannelIo, Counters) {
    m_channel->BumpRealTimeIoMsgs();
    m_channel->BumpFailedRealTimeIoMsgs();
    m_channel->BumpDroppedReadFrames();
    m_channel->BumpDroppedReadFrames();
    m_channel->BumpDroppedWriteFrames();
    const ZemChannelCounters counters = m_channel->Counters();
    EXPECT_EQ(counters.realTimeIoMsgs, 1u);
    EXPECT_EQ(counters.failedRealTimeIoMsgs, 1u);
    EXPECT_EQ(counters.droppedReadFrames, 2u);
    EXPECT_EQ(counters.droppedWriteFrames, 1u);
    EXPECT_EQ(m_channel->ChannelNumber(), 0x8001u);
}

// Bytes that the file takes on the device, or -1 where holes cannot be punched.
int64_t BytesOnDevice(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat info {};
    const bool holes =
        fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, int64_t{1} << 40, 4096) == 0;
    const bool known = fstat(fd, &info) == 0;
    close(fd);
    return holes && known ? int64_t{info.st_blocks} * 512 : -1;
}

TEST_P(ChannelIo, CloseReturnsWhenTheSpaceOfOldVersionsIsGivenBack) {
    constexpr size_t kFrame = 16 * 1024;
    constexpr uint32_t kFrames = 100;
    const ULONGLONG token = Create("clip");
    // Old and new versions take turns, so that every old one is a hole of its own.
    for (uint32_t i = 0; i < 2 * kFrames; ++i)
        ASSERT_EQ(Write(token, i / 2, Bytes(i, kFrame)), S_OK);
    ASSERT_EQ(m_channel->CloseFile(token), S_OK);
    const int64_t bytes = BytesOnDevice(Path("clip"));
    if (bytes < 0) GTEST_SKIP() << "this file system punches no holes";
    EXPECT_LT(bytes, int64_t{kFrames} * kFrame * 3 / 2);
}

}  // namespace
