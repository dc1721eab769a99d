// All transaction blocks out, and back: the whole server on real sockets with joined clients, and a
// media library that keeps the frames it is asked for as long as the test wants. What comes
// meanwhile gets the answer that the protocol gives or waits, others are served, and when blocks
// come back all works as before.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/http_tuning.h"
#include "tests/fakes/fakeerrorlog.h"
#include "tests/fakes/fakemedia.h"
#include "tests/fakes/serverfixture.h"
#include "tests/faults/rawclient.h"

namespace {

using raw::CClient;

constexpr int kHttpBlocks = 300;
constexpr int kFrameBlocks = CFrameIoXactionPool::kBlocks;
constexpr uint32_t kWaiting = 40;  // requests that wait for a block; the next is refused
constexpr DWORD kRead = 3, kWrite = 4, kKeepAlive = 17;

// Frame reads in the media library's hands.
class CHeldReads {
public:
    CHeldReads() {
        FakeErrorLog().Reset();
        FakeMedia().Reset();
        FakeMedia().onReadFrame = [this](CZemChannelIo&, ZemIoDesc& desc) -> HRESULT {
            const std::lock_guard lock(m_lock);
            if (!m_holds) {
                Fill(desc);
                return S_OK;
            }
            m_held.push_back(&desc);
            m_changed.notify_all();
            return HRESULT_FROM_WIN32(ERROR_IO_PENDING);
        };
    }
    void WaitFor(size_t count) {
        std::unique_lock lock(m_lock);
        m_changed.wait(lock, [&] { return m_held.size() == count; });
    }
    // Completes them on this thread, as the library does on its own; later ones complete at once.
    void LetGo() {
        std::vector<ZemIoDesc*> held;
        {
            const std::lock_guard lock(m_lock);
            m_holds = false;
            held.swap(m_held);
        }
        for (ZemIoDesc* const desc : held) {
            Fill(*desc);
            desc->completionRoutine(desc->completionContext);
        }
    }

private:
    void Fill(ZemIoDesc& desc) {
        desc.status = S_OK;
        ElemStrmEntry& entry = desc.streamData->entries[0];
        entry.status = S_OK;
        entry.bufferCount = 1;
        entry.buffers[0] = {m_frame.data(), m_frame.size()};
    }
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_holds = true;
    std::vector<ZemIoDesc*> m_held;
    std::string m_frame = "frame";
};

class Exhaustion : public ::testing::Test {
protected:
    Exhaustion()
        : m_port(kTestZemKey, TEXT("HttpPort"), 0u),
          m_listen(
              TEXT("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters"),
              TEXT("ListenOnlyList"), REG_MULTI_SZ, kLoopback, sizeof(kLoopback)) {
        HttpTune()->waiting_requests = kWaiting;
    }
    ~Exhaustion() override {
        held.LetGo();
        clients.clear();
        server.Shutdown();
        EXPECT_TRUE(FakeErrorLog().Texts(kErrorLogLevelWarning).empty()) << "blocks are missing";
        HttpTune()->waiting_requests = 1000;
        FakeMedia().Reset();
        FakeErrorLog().Reset();
    }
    void SetUp() override {
        ASSERT_EQ(server.Initialize(), S_OK);
        port = HttpTuneBoundPort(access.RequestQueue(), 0);
        ASSERT_NE(port, 0);
        CClient& first = Add("studio");
        ASSERT_TRUE(first.Join());
    }
    CClient& Add(const std::string& id) {
        return *clients.emplace_back(std::make_unique<CClient>(port, id));
    }
    std::vector<CClient*> AddReads(int count) {
        std::vector<CClient*> reads;
        for (int i = 0; i < count; ++i) {
            reads.push_back(&Add("studio"));
            EXPECT_TRUE(reads.back()->Begin(kRead, CClient::ReadBody(kToken, 5)));
        }
        held.WaitFor(static_cast<size_t>(count));
        return reads;
    }
    static void ExpectFrames(const std::vector<CClient*>& reads) {
        for (CClient* const read : reads) {
            const std::string entity = read->Receive();
            EXPECT_EQ(read->Status(), 200);
            ASSERT_GE(entity.size(), 5u);
            EXPECT_EQ(entity.substr(entity.size() - 5), "frame");
        }
    }
    static std::string StatusReply(DWORD replyCode) {
        return raw::Bytes(DWORD{1}, replyCode, DWORD{4}, DWORD{0});
    }

    static constexpr WCHAR kLoopback[] = TEXT("127.0.0.1\0");
    static constexpr ULONGLONG kToken = 0x0000000101000042;
    CRegistryValue m_port, m_listen;
    CHeldReads held;
    CHttpCommandHandler server;
    ServerTestAccess access{server};
    uint16_t port = 0;
    std::vector<std::unique_ptr<CClient>> clients;
};

TEST_F(Exhaustion, AllHttpBlocksOutAndBack) {
    const std::vector<CClient*> reads = AddReads(kHttpBlocks);
    EXPECT_EQ(server.XactionPool()->FreeCount(), 0);
    EXPECT_FALSE(server.XactionPool()->AnyPosted());
    std::vector<pollfd> polled;
    std::vector<CClient*> waiting;
    for (uint32_t i = 0; i <= kWaiting; ++i) {
        waiting.push_back(&Add("studio"));
        EXPECT_TRUE(waiting.back()->Begin(kKeepAlive, ""));
        polled.push_back({waiting.back()->Descriptor(), POLLIN, 0});
    }
    ASSERT_EQ(poll(polled.data(), polled.size(), -1), 1) << "one is too many, the others wait";
    for (size_t i = 0; i < polled.size(); ++i) {
        if (!(polled[i].revents & POLLIN)) continue;
        waiting[i]->Receive();
        EXPECT_EQ(waiting[i]->Status(), 503);
        waiting.erase(waiting.begin() + static_cast<ptrdiff_t>(i));
        break;
    }
    EXPECT_EQ(HttpTuneWaitingRequests(access.RequestQueue()), kWaiting);
    EXPECT_TRUE(FakeErrorLog().Texts(kErrorLogLevelError).empty()) << "waiting is no error";
    held.LetGo();
    ExpectFrames(reads);
    for (CClient* const client : waiting) {
        EXPECT_EQ(client->Receive(), StatusReply(14));
        EXPECT_EQ(client->Status(), 200);
    }
    EXPECT_EQ(Add("studio").Call(kKeepAlive, ""), StatusReply(14));
    ASSERT_TRUE(clients.front()->Begin(kRead, CClient::ReadBody(kToken, 6)));
    ExpectFrames({clients.front().get()});
    EXPECT_TRUE(FakeErrorLog().Texts(kErrorLogLevelError).empty());
}

TEST_F(Exhaustion, AllFrameBlocksOutAndBack) {
    constexpr int kReads = 100, kKept = kFrameBlocks - kReads, kBatch = 50;
    static_assert(kKept % kBatch == 0);
    // Each of these declares a byte that does not come, and its block stays out.
    CClient& other = Add("other");
    ASSERT_TRUE(other.Join());
    for (int i = 0; i < kKept; i += kBatch) {
        for (int k = 0; k < kBatch; ++k)
            ASSERT_TRUE(other.Begin(kWrite, CClient::WriteBody(kToken, 1, 1)));
        for (int k = 0; k < kBatch; ++k)
            ASSERT_EQ(other.Receive(), StatusReply(4));
    }
    EXPECT_EQ(server.FramePool().KeptCount(), kKept);
    const std::vector<CClient*> reads = AddReads(kReads);
    EXPECT_EQ(server.FramePool().FreeCount(), 0);
    FakeErrorLog().Reset();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(other.Call(kRead, CClient::ReadBody(kToken, 7)), StatusReply(3));
        EXPECT_EQ(other.Call(kWrite, CClient::WriteBody(kToken, 8, 5), "frame"), StatusReply(4));
        EXPECT_EQ(other.Call(kKeepAlive, ""), StatusReply(14)) << "what needs no frame is served";
    }
    const std::vector<WString> errors = FakeErrorLog().Texts(kErrorLogLevelError);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors[0], TEXT("other: Dropping FrameRead, request pos 7; All frame IO transaction "
                              "blocks in use, transId 1"));
    for (size_t i = 1; i < errors.size(); ++i)
        EXPECT_EQ(errors[i], TEXT("Unknown error")) << "the shortage is told once";
    EXPECT_EQ(FakeMedia().Count("WriteFrame"), 0u);
    held.LetGo();
    ExpectFrames(reads);
    FakeErrorLog().Reset();
    ASSERT_TRUE(other.Begin(kRead, CClient::ReadBody(kToken, 9)));
    ExpectFrames({&other});
    EXPECT_TRUE(FakeErrorLog().Has(kErrorLogLevelMessage,
                                   TEXT("other: FrameRead enabled, request pos 9; Frame IO "
                                        "transaction blocks now available, transId 1")));
    EXPECT_EQ(other.Call(kWrite, CClient::WriteBody(kToken, 8, 5), "frame"), StatusReply(4));
    EXPECT_EQ(other.Call(10, raw::Bytes(kToken)), StatusReply(8)) << "a flush";
    EXPECT_EQ(FakeMedia().Count("WriteFrame"), 1u);
    EXPECT_EQ(server.FramePool().KeptCount(), kKept);
}

}  // namespace
