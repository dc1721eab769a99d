// The issuer and the workers: what they post, take, ignore and give back, and how they end.
#include "tests/fakes/fakesystem.h"
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/entry/entrypoint.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>

namespace {

class ReceiveLoop : public CServerFixture {
protected:
    ReceiveLoop() { access.CompletionPort() = reinterpret_cast<HANDLE>(uintptr_t{0x7272}); }
    // Whatever a test did, the pools have everything back when the server has stopped: else the
    // server says so, and its pools assert.
    ~ReceiveLoop() override {
        StopIssuer();
        server.CloseRequestThreadPool();
        access.RequestQueue() = nullptr;  // the fixture's own, not opened here
        system.AbortReceives();           // in place of the queue that is not closed
        log.Reset();
        server.Shutdown();
        EXPECT_TRUE(log.Texts(kErrorLogLevelWarning).empty());
    }
    void StartIssuer() {
        unsigned id = 0;
        access.IssuerThread() = reinterpret_cast<HANDLE>(
            _beginthreadex(nullptr, 0, CHttpCommandHandler::HttpRequestIssuer, &server, 0, &id));
    }
    // Ends the issuer as shut-down does and returns what its thread returned.
    HRESULT StopIssuer() {
        if (!access.IssuerThread()) return S_OK;
        QueueUserAPC([](ULONG_PTR) {}, access.IssuerThread(), 0);
        return JoinIssuer();
    }
    HRESULT JoinIssuer() {
        WaitForSingleObject(access.IssuerThread(), INFINITE);
        DWORD code = 0;
        GetExitCodeThread(access.IssuerThread(), &code);
        CloseHandle(access.IssuerThread());
        access.IssuerThread() = nullptr;
        return static_cast<HRESULT>(code);
    }
    // Another write of the client is under way, in that block.
    void TakeTurnFor(CHttpXaction& other, LPCWSTR clientId = TEXT("client")) {
        const CZemClientRef client = server.LookupClient(clientId, false);
        ASSERT_EQ(client.Record()->TakeTurn(other), ZemClient::ETurn::Mine);
    }
    // Fills the block of a posted receive and completes it.
    void Deliver(const CFakeSystem::Receive& receive, const RequestSpec& given) {
        CHttpXaction* xaction = Pool().Owns(receive.overlapped);
        ASSERT_NE(xaction, nullptr);
        Lay(*xaction, given);
        system.Complete(receive.overlapped, kKey);
    }
    static RequestSpec Put() {
        RequestSpec given;
        given.verb = HttpVerbPUT;
        return given;
    }
    static constexpr ULONG_PTR kKey = 77;
    CFakeSystem system;
};

TEST_F(ReceiveLoop, IssuerPostsAReceiveForEveryBlock) {
    StartIssuer();
    const auto receives = system.WaitForReceives(kBlocks);
    ASSERT_EQ(receives.size(), static_cast<size_t>(kBlocks));
    for (const auto& receive : receives) {
        CHttpXaction* xaction = Pool().Owns(receive.overlapped);
        ASSERT_NE(xaction, nullptr);
        EXPECT_EQ(static_cast<void*>(xaction), receive.overlapped);
        EXPECT_EQ(receive.requestId, HTTP_NULL_ID);
        EXPECT_EQ(receive.flags, static_cast<ULONG>(HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY));
        EXPECT_EQ(receive.buffer, xaction->Request());
        EXPECT_EQ(receive.size, 4096u);
    }
    EXPECT_EQ(StopIssuer(), S_OK);
    EXPECT_TRUE(log.Empty());
}

TEST_F(ReceiveLoop, StopEndsAnIssuerThatWaitsOnAnEmptyPool) {
    StartIssuer();
    system.WaitForReceives(kBlocks);
    EXPECT_EQ(StopIssuer(), S_OK);
    EXPECT_EQ(Pool().FreeCount(), 0);
}

TEST_F(ReceiveLoop, IssuerTakesBlocksAgainWhenTheyComeBack) {
    StartIssuer();
    const auto receives = system.WaitForReceives(kBlocks);
    for (const auto& receive : receives) {
        Pool().ReceivePickedUp();
        Pool().Release(Pool().Owns(receive.overlapped));
    }
    // While half of the pool's receives are posted the issuer may be left asleep.
    system.WaitForReceives(kBlocks + kBlocks / 2);
    StopIssuer();
    EXPECT_EQ(system.ReceiveCount() + static_cast<size_t>(Pool().FreeCount()), 2u * kBlocks);
}

TEST_F(ReceiveLoop, ReceiveThatCannotBePostedEndsTheIssuer) {
    system.errors["HttpReceiveHttpRequest"] = ERROR_INVALID_HANDLE;
    StartIssuer();
    EXPECT_EQ(JoinIssuer(), HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    const LogRecord error = log.Error(TEXT("Error issuing HTTP receive request"));
    EXPECT_EQ(error.hr, HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_EQ(error.file, TEXT("httpcmdhdlr.cpp"));
    EXPECT_EQ(error.line, 373);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::HttpRequestIssuer")), 1u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks - 1) << "the block is not given back";
    EXPECT_EQ(Pool().KeptCount(), 1) << "but counted";
}

TEST_F(ReceiveLoop, ReceiveThatCannotBePostedEndsTheIssuerWhateverTheChainId) {
    system.errors["HttpReceiveHttpRequest"] = ERROR_INVALID_HANDLE;
    for (const DWORD chainId : {0u, 1u, 5u}) {
        log.chainId = [chainId](HRESULT) { return chainId; };
        const int before = Pool().FreeCount();
        StartIssuer();
        EXPECT_EQ(JoinIssuer(), static_cast<HRESULT>(chainId));
        EXPECT_EQ(Pool().FreeCount(), before - 1) << "one block, not all of them";
    }
}

TEST_F(ReceiveLoop, ReceiveThatIsTakenAtOnceCompletesThroughThePortLikeAnother) {
    system.errors["HttpReceiveHttpRequest"] = NO_ERROR;
    StartIssuer();
    const auto receives = system.WaitForReceives(kBlocks);
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    for (const auto& receive : receives)
        Deliver(receive, Put());
    system.WaitUntilIdle(4);
    EXPECT_EQ(http.SentCount(), static_cast<size_t>(kBlocks));
    system.WaitForReceives(kBlocks + kBlocks / 2);
    EXPECT_EQ(StopIssuer(), S_OK);
    EXPECT_TRUE(log.Empty());
}

TEST_F(ReceiveLoop, RequestIdOfTheBlockIsAskedFor) {
    CHttpXaction& xaction = Take();
    xaction.Request()->RequestId = 4711;
    bool posted = false;
    EXPECT_EQ(server.IssueHttpRequest(xaction, posted), S_OK);
    EXPECT_TRUE(posted);
    EXPECT_EQ(system.WaitForReceives(1)[0].requestId, 4711u);
    Pool().ReceivePickedUp();
    Pool().Release(&xaction);
}

TEST_F(ReceiveLoop, WorkersAreFourOrTwelve) {
    EXPECT_EQ(server.InitRequestThreadPool(), S_OK);
    EXPECT_EQ(access.WorkerCount(), 4);
    server.CloseRequestThreadPool();
    access.FileServerMode() = 1;
    EXPECT_EQ(server.InitRequestThreadPool(), S_OK);
    EXPECT_EQ(access.WorkerCount(), 12);
    server.CloseRequestThreadPool();
    EXPECT_EQ(access.WorkerCount(), 0);
    access.FileServerMode() = 0;
}

TEST_F(ReceiveLoop, ClosingWithoutWorkersReturnsAtOnce) {
    EXPECT_EQ(server.CloseRequestThreadPool(), S_OK);
    EXPECT_TRUE(system.Events().empty());
}

TEST_F(ReceiveLoop, ClosingWithoutMemoryForItsPacketsEndsEveryWorker) {
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    system.failPosts = 5;
    EXPECT_EQ(server.CloseRequestThreadPool(), S_OK);
    EXPECT_EQ(system.failPosts, 0);
    EXPECT_TRUE(system.Empty()) << "a packet for each worker";
    EXPECT_TRUE(log.Empty());
}

TEST_F(ReceiveLoop, WorkerAnswersAndGivesTheBlockBack) {
    clock.SetTick(5000);
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    StartIssuer();
    const auto receives = system.WaitForReceives(kBlocks);
    for (const auto& receive : receives)
        Deliver(receive, Put());
    system.WaitUntilIdle(4);
    EXPECT_EQ(http.SentCount(), static_cast<size_t>(kBlocks));
    EXPECT_EQ(http.Last().status, 405);
    system.WaitForReceives(kBlocks + kBlocks / 2);
}

TEST_F(ReceiveLoop, WorkerStampsThePickUpTick) {
    clock.SetTick(123456);
    DWORD tick = 0;
    CHttpXaction& xaction = Take();
    Lay(xaction, Put());
    http.onSend = [&](const SentResponse&) { tick = xaction.StartTick(); };
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    system.Complete(xaction.Overlapped(), kKey);
    system.WaitUntilIdle(4);
    EXPECT_EQ(tick, 123456u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
}

TEST_F(ReceiveLoop, RequestThatWentAsynchronousKeepsItsBlock) {
    Join();
    media.pendReads = true;
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    CHttpXaction& xaction = Take();
    RequestSpec read;
    read.entity = Command(9, 3, Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + std::string(96, '\0'));
    Lay(xaction, read);
    system.Complete(xaction.Overlapped(), kKey);
    system.WaitUntilIdle(4);
    EXPECT_EQ(media.PendingCount(), 1u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks - 1);
    EXPECT_TRUE(xaction.InUse());
    media.CompletePending();
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
}

// While every block is with the media library no receive is posted: what comes waits in the HTTP
// interface. Nothing is said of it, and nothing is lost when the blocks come back.
TEST_F(ReceiveLoop, AllBlocksOutIsOverWhenTheyComeBack) {
    Join();
    log.Reset();
    http.Forget();
    media.pendReads = true;
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    StartIssuer();
    const auto receives = system.WaitForReceives(kBlocks);
    for (DWORD i = 0; i < kBlocks; ++i) {
        RequestSpec read;
        read.entity =
            Command(i, 3, Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + std::string(96, '\0'));
        Deliver(receives[i], read);
    }
    system.WaitUntilIdle(4);
    EXPECT_EQ(media.PendingCount(), static_cast<size_t>(kBlocks));
    EXPECT_EQ(Pool().FreeCount(), 0);
    EXPECT_EQ(system.ReceiveCount(), static_cast<size_t>(kBlocks));
    EXPECT_EQ(http.SentCount(), 0u);
    EXPECT_EQ(media.CompletePending(), static_cast<size_t>(kBlocks));
    EXPECT_EQ(http.SentCount(), static_cast<size_t>(kBlocks));
    RequestSpec alive;
    alive.entity = Command(9, 17);
    Deliver(system.WaitForReceives(kBlocks + kBlocks / 2)[kBlocks], alive);
    system.WaitUntilIdle(4);
    for (const SentResponse& response : http.Sent())
        EXPECT_EQ(response.status, 200);
    EXPECT_EQ(http.Last().Body(), Bytes(DWORD{9}, DWORD{14}, DWORD{4}, DWORD{0}));
    EXPECT_TRUE(log.Texts(kErrorLogLevelError).empty());
    EXPECT_EQ(server.FramePool().ActiveCount(), 0);
}

TEST_F(ReceiveLoop, FailedRequestGivesItsBlockBackWhateverTheChainId) {
    log.chainId = [](HRESULT) { return 1u; };
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.withClientId = false;
    Lay(xaction, given);
    system.Complete(xaction.Overlapped(), kKey);
    system.WaitUntilIdle(4);
    EXPECT_EQ(http.SentCount(), 1u);
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
}

// The read of a joined client is with the library when the server stops, and completes once the
// workers have ended.
TEST_F(ReceiveLoop, ShutdownWaitsForThePendingReadOfAClient) {
    Join();
    media.pendReads = true;
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    StartIssuer();
    RequestSpec read;
    read.entity = Command(9, 3, Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + std::string(96, '\0'));
    Deliver(system.WaitForReceives(kBlocks)[0], read);
    system.WaitUntilIdle(4);
    ASSERT_EQ(media.PendingCount(), 1u);
    const size_t answered = http.SentCount();
    access.RequestQueue() = nullptr;  // the fixture's own, not opened here
    std::thread completion([&] {
        system.WaitUntilIdle(0);
        system.AbortReceives();  // in place of the queue that is not closed
        EXPECT_EQ(media.CompletePending(), 1u);
    });
    server.Shutdown();
    completion.join();
    ASSERT_EQ(http.SentCount(), answered + 1);
    EXPECT_EQ(http.Last().status, 200);
    EXPECT_EQ(http.Last().Word(0), 9);
    EXPECT_EQ(server.FramePool().ActiveCount(), 0);
    EXPECT_EQ(server.FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
    EXPECT_EQ(server.XactionPool(), nullptr);
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_EQ(media.LiveAllocators(), 0);
    EXPECT_EQ(media.Calls().back().op, "~CZemMemAllocator");
}

// A frame write of one byte at `position`, of the video stream of some token.
RequestSpec OneByteWrite(DWORD position) {
    const std::string entry = Bytes(DWORD{0}, DWORD{0}, ULONGLONG{0x0000000101000042}, position,
                                    DWORD{0}, LONG{1}, DWORD{0}, DWORD{1}) +
                              std::string(96 - 36, '\0');
    RequestSpec given;
    given.entity = Command(position, 4, Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + entry);
    given.contentLength = std::to_string(given.entity.size() + 1);
    given.entity += "x";
    return given;
}

// Keeps the first write in the library's hands until it may go on; notes the positions written.
struct CHeldWrite {
    explicit CHeldWrite(CFakeMedia& media) {
        media.onWriteFrame = [this](CZemChannelIo&, ZemIoDesc& desc) -> HRESULT {
            if (written.empty()) {
                inLibrary.count_down();
                goOn.wait();
            }
            written.push_back(desc.streamData->entries[0].position);
            return S_OK;
        };
    }
    std::latch inLibrary{1}, goOn{1};
    std::vector<DWORD> written;
};

// While one write of a client is in the library's hands, others of it stand in line and hold up no
// worker; then they are written in the order in which they came.
TEST_F(ReceiveLoop, WritesOfOneClientStandInLineAndHoldUpNobody) {
    Join();
    CHeldWrite held(media);
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    const auto deliver = [&](const RequestSpec& given) {
        CHttpXaction& xaction = Take();
        Lay(xaction, given);
        system.Complete(xaction.Overlapped(), kKey);
    };
    const CZemClientRef client = server.LookupClient(TEXT("client"), false);
    const ULONGLONG requests = client.Record()->requestCount;
    deliver(OneByteWrite(0));
    held.inLibrary.wait();
    for (DWORD position = 1; position <= 4; ++position) {
        deliver(OneByteWrite(position));
        system.WaitUntilIdle(3);
    }
    const size_t answered = http.SentCount();
    RequestSpec other;
    other.clientId = "other";
    other.entity = Command(9, 17);
    deliver(other);
    system.WaitUntilIdle(3);
    EXPECT_EQ(http.SentCount(), answered + 1) << "served although five writes are under way";
    held.goOn.count_down();
    system.WaitUntilIdle(4);
    EXPECT_EQ(held.written, (std::vector<DWORD>{0, 1, 2, 3, 4}));
    EXPECT_EQ(http.SentCount(), answered + 5) << "four writes and the other client";
    EXPECT_EQ(client.Record()->requestCount, requests + 10) << "each counted twice, as ever";
    EXPECT_EQ(client.Channel()->Counters().realTimeIoMsgs, 5u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    EXPECT_EQ(server.FramePool().ActiveCount(), 0);
    EXPECT_EQ(server.FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
}

// Who passes the turn on and finds no memory for the packet goes on with the next write itself.
TEST_F(ReceiveLoop, WritesInLineNeedNoMemoryForTheirTurn) {
    Join();
    CHeldWrite held(media);
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    for (DWORD position = 0; position <= 4; ++position) {
        CHttpXaction& xaction = Take();
        Lay(xaction, OneByteWrite(position));
        system.Complete(xaction.Overlapped(), kKey);
        if (position == 0) held.inLibrary.wait();
        system.WaitUntilIdle(3);
    }
    const size_t answered = http.SentCount();
    system.failPosts = 3;
    held.goOn.count_down();
    system.WaitUntilIdle(4);
    EXPECT_EQ(system.failPosts, 0);
    EXPECT_EQ(held.written, (std::vector<DWORD>{0, 1, 2, 3, 4}));
    EXPECT_EQ(http.SentCount(), answered + 4);
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    EXPECT_EQ(server.FramePool().ActiveCount(), 0);
    EXPECT_EQ(server.FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
}

// Whatever the clients do, half of the blocks are left for others.
TEST_F(ReceiveLoop, WritesStandInLineInHalfOfTheBlocks) {
    CHttpXaction stranger;
    for (const char* clientId : {"a", "b"}) {
        Join(clientId);
        TakeTurnFor(stranger, clientId[0] == 'a' ? TEXT("a") : TEXT("b"));
    }
    const auto write = [&](const char* clientId) {
        CHttpXaction& xaction = Take();
        RequestSpec given = OneByteWrite(3);
        given.clientId = clientId;
        Lay(xaction, given);
        const HRESULT hr = server.ProcessRequest(xaction);
        if (hr != S_FALSE) Pool().Release(&xaction);
        return hr;
    };
    for (int i = 0; i < kBlocks / 2; ++i)
        EXPECT_EQ(write(i % 2 ? "a" : "b"), S_FALSE);
    EXPECT_EQ(write("a"), S_OK);
    EXPECT_EQ(write("b"), S_OK);
    EXPECT_EQ(log.Count(kErrorLogLevelError,
                        TEXT("b: Dropping WriteFrame, request pos 3; too many writes wait for "
                             "their turn, transId 3")),
              1u);
    EXPECT_EQ(Pool().FreeCount(), kBlocks / 2);
    access.RequestQueue() = nullptr;  // the fixture's own, not opened here
    server.Shutdown();
    EXPECT_EQ(media.LiveChannels(), 0);
}

// A write in line when the workers end: its client is not answered, its record is not lost.
TEST_F(ReceiveLoop, ShutdownForgetsWritesInLine) {
    Join();
    CHttpXaction stranger;
    TakeTurnFor(stranger);
    CHttpXaction& xaction = Take();
    Lay(xaction, OneByteWrite(3));
    const size_t answered = http.SentCount();
    EXPECT_EQ(server.ProcessRequest(xaction), S_FALSE);
    EXPECT_EQ(Post(Command(2, 16)), S_OK);  // leaves meanwhile
    EXPECT_EQ(media.LiveChannels(), 1) << "kept for the write";
    access.RequestQueue() = nullptr;  // the fixture's own, not opened here
    server.Shutdown();
    EXPECT_EQ(http.SentCount(), answered + 1) << "the leave";
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_EQ(media.LiveAllocators(), 0);
}

// The same of a write at the gate.
TEST_F(ReceiveLoop, ShutdownForgetsWritesAtTheGate) {
    Join();
    Join("other");
    access.WriteGate().SetLimits(0, 0);
    access.WriteGate().HandedOver(1);
    CHttpXaction& xaction = Take();
    RequestSpec given = OneByteWrite(3);
    given.clientId = "other";
    Lay(xaction, given);
    EXPECT_EQ(server.ProcessRequest(xaction), S_FALSE);
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
    access.RequestQueue() = nullptr;  // the fixture's own, not opened here
    server.Shutdown();
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
    EXPECT_EQ(media.LiveChannels(), 0);
}

// The write that the gate waits for ends when the workers have: whoever it lets in finds nobody to
// go on with it, and is forgotten as those that stand there.
TEST_F(ReceiveLoop, AWriteThatEndsAfterTheWorkersLetsNobodyInAnyMore) {
    Join();
    Join("other");
    access.WriteGate().SetLimits(0, 0);
    media.pendWrites = true;
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    for (const char* clientId : {"client", "other"}) {
        CHttpXaction& xaction = Take();
        RequestSpec given = OneByteWrite(3);
        given.clientId = clientId;
        Lay(xaction, given);
        system.Complete(xaction.Overlapped(), kKey);
        system.WaitUntilIdle(4);
    }
    ASSERT_EQ(access.WriteGate().InLine(), 1);
    const size_t answered = http.SentCount();
    access.RequestQueue() = nullptr;  // the fixture's own, not opened here
    std::thread completion([&] {
        system.WaitUntilIdle(0);  // the workers have ended, and the server waits for this
        EXPECT_EQ(media.CompletePending(), 1u);
    });
    server.Shutdown();
    completion.join();
    EXPECT_EQ(media.Count("WriteFrame"), 1u);
    EXPECT_EQ(http.SentCount(), answered);
    EXPECT_EQ(media.LiveChannels(), 0);
}

// A block that the system may still write into is not freed: every receive is waited for, and what
// else comes meanwhile is not taken for one.
TEST_F(ReceiveLoop, ShutdownTakesBackEveryReceiveBesideAWriteWhoseTurnHasCome) {
    Join();
    CHttpXaction stranger;
    TakeTurnFor(stranger);
    CHttpXaction& write = Take();
    Lay(write, OneByteWrite(3));
    EXPECT_EQ(server.ProcessRequest(write), S_FALSE);
    CHttpXaction& posted = Take();
    Pool().ReceivePosted();
    system.Complete(write.Overlapped(), kKey);  // and no worker is left for it
    system.Complete(posted.Overlapped(), kKey, ERROR_OPERATION_ABORTED);
    access.RequestQueue() = nullptr;  // the fixture's own, not opened here
    server.Shutdown();
    EXPECT_TRUE(system.Empty());
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(ReceiveLoop, PacketOfAStrangerIsIgnoredWhateverItSays) {
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    OVERLAPPED stranger{};
    CHttpXaction& xaction = Take();
    auto* const inside = reinterpret_cast<OVERLAPPED*>(xaction.RequestBuffer());
    for (int i = 0; i < 8; ++i) {
        system.Complete(&stranger, kKey);
        system.Complete(&stranger, kKey, ERROR_OPERATION_ABORTED);
        system.Complete(inside, kKey);
        system.Complete(nullptr, kKey);
        system.Complete(&stranger, 0);
        system.Complete(&stranger, 0, ERROR_OPERATION_ABORTED);
        system.Complete(inside, 0);
    }
    system.WaitUntilIdle(4);
    EXPECT_TRUE(log.Empty());
    EXPECT_EQ(http.SentCount(), 0u);
    Pool().Release(&xaction);
}

TEST_F(ReceiveLoop, FailedReceiveEndsThatWorker) {
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    system.WaitUntilIdle(4);
    CHttpXaction& xaction = Take();
    system.Complete(xaction.Overlapped(), kKey, ERROR_OPERATION_ABORTED);
    system.WaitUntilIdle(3);
    server.CloseRequestThreadPool();
    const LogRecord error = log.Error(TEXT("Unknown error"));
    EXPECT_EQ(error.kind, LogRecord::Ex);
    EXPECT_EQ(error.hr, HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED));
    EXPECT_EQ(error.file, TEXT("httpcmdhdlr.cpp"));
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::HttpRequestHandler")), 1u);
    EXPECT_EQ(log.Messages().size(), 1u) << "the others go on";
    EXPECT_EQ(Pool().KeptCount(), 1) << "the block is not given back";
}

TEST_F(ReceiveLoop, PortThatGoesAwayEndsTheWorkers) {
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    for (int i = 0; i < 4; ++i)
        system.Complete(nullptr, 0, ERROR_ABANDONED_WAIT_0);
    server.CloseRequestThreadPool();
    EXPECT_EQ(log.Messages().size(), 4u);
    EXPECT_EQ(log.Messages()[0].hr, HRESULT_FROM_WIN32(ERROR_ABANDONED_WAIT_0));
}

TEST_F(ReceiveLoop, WorkerWithoutAnApartmentEnds) {
    system.coInitialize[""] = RPC_E_CHANGED_MODE;
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    server.CloseRequestThreadPool();
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::HttpRequestHandler")), 4u);
    EXPECT_EQ(log.Records(LogRecord::EntryPoint)[0].chainId,
              static_cast<DWORD>(RPC_E_CHANGED_MODE));
}

TEST_F(ReceiveLoop, EndedWorkerTracesItsCount) {
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    CHttpXaction& xaction = Take();
    Lay(xaction, Put());
    system.Complete(xaction.Overlapped(), kKey);
    system.WaitUntilIdle(4);
    SetTracing(true);
    server.CloseRequestThreadPool();
    const auto traces = log.Messages();
    ASSERT_EQ(traces.size(), 4u);
    LONGLONG serviced = 0;
    for (const LogRecord& trace : traces) {
        WCHAR expected[160];
        const LONGLONG count = trace.text[0] - u'0';
        _snwprintf_s(expected, 160, _TRUNCATE,
                     TEXT("%I64d HTTP requests serviced on ZEM HTTP command handler thread ID "
                          "0x%x"),
                     count, trace.threadId);
        EXPECT_EQ(trace.text, expected);
        serviced += count;
    }
    EXPECT_EQ(serviced, 1);
}

TEST_F(ReceiveLoop, EndedWorkerIsSilentWithoutTheTraceFlag) {
    ASSERT_EQ(server.InitRequestThreadPool(), S_OK);
    server.CloseRequestThreadPool();
    EXPECT_TRUE(log.Empty());
}

}  // namespace
