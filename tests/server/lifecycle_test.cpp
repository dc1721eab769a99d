// Start and stop of the server: the order of the steps, what each failure says, and stopping from
// every state.
#include "platform/posix/object.h"
#include "tests/fakes/allocfault.h"
#include "tests/fakes/fakesystem.h"
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/entry/entrypoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace {

size_t OpenHandles() {
    return posix::OpenHandleCount();
}

WString g_computerName = TEXT("REELS");
bool g_computerNameFails = false;

}  // namespace

extern "C" BOOL __wrap_GetComputerNameW(LPWSTR buffer, LPDWORD size) {
    if (g_computerNameFails) return FALSE;
    wcscpy_s(buffer, *size, g_computerName.c_str());
    *size = static_cast<DWORD>(g_computerName.size());
    return TRUE;
}

namespace {

class Lifecycle : public ::testing::Test {
protected:
    Lifecycle()
        : log(FakeErrorLog()),
          media(FakeMedia()),
          server(new CHttpCommandHandler),
          access{*server} {
        log.Reset();
        media.Reset();
        g_computerName = TEXT("REELS");
        g_computerNameFails = false;
    }
    ~Lifecycle() override {
        server.reset();
        EXPECT_EQ(media.LiveAllocators(), 0);
        EXPECT_EQ(media.LiveChannels(), 0);
    }

    // Runs Initialize, which must fail with hr, and checks the record of the failure and the
    // closing one.
    void ExpectFailure(HRESULT hr, LONG line, const WCHAR* message) {
        EXPECT_EQ(server->Initialize(), hr);
        const LogRecord error = log.Error(message);
        EXPECT_EQ(error.kind, LogRecord::Ex) << "not logged: " << Utf8(message);
        EXPECT_EQ(error.hr, hr);
        EXPECT_EQ(error.file, TEXT("httpcmdhdlr.cpp"));
        EXPECT_EQ(error.line, line);
        ExpectClosingRecord(hr);
    }
    void ExpectClosingRecord(HRESULT hr) {
        const LogRecord closing = log.Error(TEXT(
            "Error initializing ZEM HTTP server: remote video IO with this system will fail."));
        EXPECT_EQ(closing.kind, LogRecord::Ex);
        EXPECT_EQ(closing.hr, hr);
        EXPECT_EQ(closing.file, TEXT("httpcmdhdlr.cpp"));
        EXPECT_EQ(closing.line, 214);
    }

    CFakeErrorLog& log;
    CFakeMedia& media;
    CFakeSystem system;
    std::unique_ptr<CHttpCommandHandler> server;
    ServerTestAccess access;
};

TEST_F(Lifecycle, ConstructorListsTheTwoWords) {
    EXPECT_EQ(access.UrlWords(), (std::list<WString>{TEXT("zem"), TEXT("media")}));
    EXPECT_EQ(access.RsDbg(), 0u);
    EXPECT_EQ(access.Clients().Count(), 0u);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Lifecycle, StartTakesItsStepsInOrder) {
    ASSERT_EQ(server->Initialize(), S_OK);
    system.WaitForReceives(300);
    const auto events = system.Events();
    const std::vector<std::string> start(events.begin(), events.begin() + 11);
    EXPECT_EQ(start, (std::vector<std::string>{
                         "HttpInitialize", "HttpCreateHttpHandle", "CreateIoCompletionPort",
                         "HttpAddUrl http://*:80/zem/", "HttpAddUrl http://*:80/media/",
                         "start worker 0", "start worker 1", "start worker 2", "start worker 3",
                         "start issuer", "start sniffer"}));
    EXPECT_TRUE(log.Empty());
}

TEST_F(Lifecycle, OrdinaryModeHasItsSizes) {
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_EQ(system.concurrency, 4u);
    EXPECT_EQ(system.portKey, reinterpret_cast<ULONG_PTR>(server.get()));
    EXPECT_EQ(media.Calls("Initialize").at(0).size, 0x7800000u);
    EXPECT_EQ(media.Calls("Initialize").at(0).pointer, nullptr);
    EXPECT_EQ(access.XactionPool()->Count(), 300);
    EXPECT_EQ(access.WorkerCount(), 4);
    EXPECT_FALSE(server->FileServerMode());
}

TEST_F(Lifecycle, FileServerModeHasItsSizes) {
    const CRegistryValue mode(kTestZemKey, TEXT("HttpFileServer"), 1u);
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_EQ(system.concurrency, 12u);
    EXPECT_EQ(media.Calls("Initialize").at(0).size, 0xF000000u);
    EXPECT_EQ(access.XactionPool()->Count(), 1500);
    EXPECT_EQ(access.WorkerCount(), 12);
    EXPECT_TRUE(system.Happened("start worker 11"));
    EXPECT_FALSE(system.Happened("start worker 12"));
    EXPECT_TRUE(log.Empty()) << "the trace flag is clear at start";
}

TEST_F(Lifecycle, FileServerModeIsTracedWhenTheFlagIsSet) {
    const CRegistryValue mode(kTestZemKey, TEXT("HttpFileServer"), 3u);
    access.RsDbg() = 1;
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace, TEXT("ZEM HTTP file server mode 3")));
    access.RsDbg() = 0;
}

TEST_F(Lifecycle, ModeOfAnotherTypeIsOrdinary) {
    const CRegistryValue mode(kTestZemKey, TEXT("HttpFileServer"), TEXT("1"));
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_FALSE(server->FileServerMode());
}

TEST_F(Lifecycle, StartNeverReadsTheTraceFlag) {
    const CRegistryValue flag(kTestZemKey, TEXT("RsDbg"), 1u);
    const CRegistryValue flag32(kTestZemKey32, TEXT("RsDbg"), 1u);
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_FALSE(server->Tracing());
}

TEST_F(Lifecycle, PortComesFromTheRegistry) {
    const CRegistryValue port(kTestZemKey, TEXT("HttpPort"), 8081u);
    WString url;
    EXPECT_EQ(server->GetBaseUrl(TEXT("zem"), url), S_OK);
    EXPECT_EQ(url, TEXT("http://*:8081/zem/"));
}

TEST_F(Lifecycle, PortDefaultsTo80AlsoForAnotherType) {
    WString url;
    server->GetBaseUrl(TEXT("media"), url);
    EXPECT_EQ(url, TEXT("http://*:80/media/"));
    const CRegistryValue port(kTestZemKey, TEXT("HttpPort"), TEXT("8081"));
    server->GetBaseUrl(TEXT("media"), url);
    EXPECT_EQ(url, TEXT("http://*:80/media/"));
}

TEST_F(Lifecycle, PortIsReadAgainForEveryUrl) {
    auto port = std::make_unique<CRegistryValue>(kTestZemKey, TEXT("HttpPort"), 8081u);
    ASSERT_EQ(server->Initialize(), S_OK);
    port.reset();
    const CRegistryValue other(kTestZemKey, TEXT("HttpPort"), 8082u);
    server->Shutdown();
    EXPECT_TRUE(system.Happened("HttpAddUrl http://*:8081/zem/"));
    EXPECT_TRUE(system.Happened("HttpRemoveUrl http://*:8082/zem/"));
}

TEST_F(Lifecycle, ServerNameCarriesTheVersion) {
    const CRegistryValue version(kTestProductKey, TEXT("version"), TEXT("9.1.0.17"));
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_STREQ(access.ServerName(), "Quorvane ZEM /9.1.0.17");
    EXPECT_EQ(WString(access.Version()), TEXT("9.1.0.17"));
    EXPECT_EQ(access.VersionLength(), 9u);
}

TEST_F(Lifecycle, ServerNameWithoutAVersion) {
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_STREQ(access.ServerName(), "Quorvane ZEM /x.x.x.x");
}

TEST_F(Lifecycle, ServerNameIsCutAt259Bytes) {
    const CRegistryValue version(kTestProductKey, TEXT("version"), WString(259, u'9').c_str());
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_EQ(strlen(access.ServerName()), 259u);
}

TEST_F(Lifecycle, VolumeRootGetsOneBackslash) {
    const CRegistryValue root(kTestVolumeKey, TEXT("0"), TEXT("D:\\media"));
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_EQ(WString(access.VolumeRoot()), TEXT("D:\\media\\"));
}

TEST_F(Lifecycle, NoVolumeRootStaysEmpty) {
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_EQ(access.VolumeRoot()[0], 0);
}

TEST_F(Lifecycle, EmptyVolumeRootStaysEmpty) {
    const CRegistryValue root(kTestVolumeKey, TEXT("0"), TEXT(""));
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_EQ(access.VolumeRoot()[0], 0) << "a lone separator would be the machine's own root";
}

TEST_F(Lifecycle, LongVolumeRootIsCut) {
    const CRegistryValue root(kTestVolumeKey, TEXT("0"), WString(259, u'v').c_str());
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_EQ(WString(access.VolumeRoot()), WString(259, u'v'));
}

TEST_F(Lifecycle, ComputerNameIsKeptAsBytes) {
    g_computerName = TEXT("B\u00DCRO");
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_STREQ(access.ComputerName(), "B\xC3\x9CRO");
}

TEST_F(Lifecycle, ComputerNameThatIsNotKnownIsEmpty) {
    g_computerNameFails = true;
    ASSERT_EQ(server->Initialize(), S_OK);
    EXPECT_STREQ(access.ComputerName(), "");
}

TEST_F(Lifecycle, HttpInterfaceFails) {
    system.errors["HttpInitialize"] = ERROR_ACCESS_DENIED;
    ExpectFailure(E_ACCESSDENIED, 113, TEXT("Unable to init HTTP server API"));
    server->Shutdown();
    EXPECT_FALSE(system.Happened("HttpTerminate")) << "what was not begun is not ended";
}

TEST_F(Lifecycle, QueueFails) {
    system.errors["HttpCreateHttpHandle"] = ERROR_NOT_ENOUGH_MEMORY;
    ExpectFailure(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), 118,
                  TEXT("Unable create HTTP server queue"));
    server->Shutdown();
    EXPECT_TRUE(system.Happened("HttpTerminate"));
    EXPECT_FALSE(system.Happened("CloseHandle queue"));
}

TEST_F(Lifecycle, PortFails) {
    system.errors["CreateIoCompletionPort"] = ERROR_INVALID_PARAMETER;
    ExpectFailure(E_INVALIDARG, 142, TEXT("Unable to create HTTP request completion port"));
}

TEST_F(Lifecycle, AllocatorObjectFails) {
    FailNextNothrowAllocation(1);
    EXPECT_EQ(server->Initialize(), E_OUTOFMEMORY);
    EXPECT_TRUE(NothrowAllocationFailed());
    EXPECT_EQ(media.Count("CZemMemAllocator"), 0u);
    ExpectClosingRecord(E_OUTOFMEMORY);
}

TEST_F(Lifecycle, AllocatorReservationFails) {
    media.results["Initialize"] = E_OUTOFMEMORY;
    ExpectFailure(
        E_OUTOFMEMORY, 150,
        TEXT("Error initializing ZEM IO memory allocator (size requested 125829120 bytes)"));
    EXPECT_EQ(media.LiveAllocators(), 1);
    server->Shutdown();
    EXPECT_EQ(media.LiveAllocators(), 0);
}

TEST_F(Lifecycle, AllocatorReservationFailsInFileServerMode) {
    const CRegistryValue mode(kTestZemKey, TEXT("HttpFileServer"), 1u);
    media.results["Initialize"] = E_OUTOFMEMORY;
    ExpectFailure(
        E_OUTOFMEMORY, 150,
        TEXT("Error initializing ZEM IO memory allocator (size requested 251658240 bytes)"));
}

TEST_F(Lifecycle, SecondUrlFailsAndTheFirstStaysUntilShutdown) {
    system.errors["HttpAddUrl http://*:80/media/"] = ERROR_ALREADY_EXISTS;
    ExpectFailure(HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS), 163,
                  TEXT("Unable to register base URL 'media' with HTTP server API"));
    EXPECT_TRUE(system.Happened("HttpAddUrl http://*:80/zem/"));
    EXPECT_FALSE(system.Happened("HttpRemoveUrl http://*:80/zem/"));
    server->Shutdown();
    EXPECT_TRUE(system.Happened("HttpRemoveUrl http://*:80/zem/"));
}

TEST_F(Lifecycle, FirstUrlFails) {
    system.errors["HttpAddUrl http://*:80/zem/"] = ERROR_SHARING_VIOLATION;
    ExpectFailure(HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION), 163,
                  TEXT("Unable to register base URL 'zem' with HTTP server API"));
    EXPECT_FALSE(system.Happened("HttpAddUrl http://*:80/media/"));
}

TEST_F(Lifecycle, TransactionPoolFails) {
    FailNextNothrowAllocation(300 * 4096);
    const HRESULT hr = server->Initialize();
    EXPECT_EQ(hr, E_OUTOFMEMORY);
    EXPECT_TRUE(NothrowAllocationFailed());
    EXPECT_EQ(log.Error(TEXT("Unable to allocate transaction pool; 300 transactions")).hr,
              E_OUTOFMEMORY);
    ExpectClosingRecord(E_OUTOFMEMORY);
}

TEST_F(Lifecycle, ThirdWorkerFailsAndTheOthersAreStopped) {
    system.errors["start worker 2"] = ERROR_NOT_ENOUGH_MEMORY;
    ExpectFailure(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), 234,
                  TEXT("Unable to create completion-port thread-pool thread #2."));
    EXPECT_EQ(access.WorkerCount(), 2) << "these keep running";
    EXPECT_FALSE(system.Happened("start issuer"));
    server->Shutdown();
    EXPECT_EQ(access.WorkerCount(), 0);
    EXPECT_EQ(access.WorkerThreads(), nullptr);
}

TEST_F(Lifecycle, FirstWorkerFails) {
    system.errors["start worker 0"] = ERROR_NOT_ENOUGH_MEMORY;
    ExpectFailure(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), 234,
                  TEXT("Unable to create completion-port thread-pool thread #0."));
}

TEST_F(Lifecycle, IssuerThatDoesNotStartIsReportedAsSuccess) {
    system.errors["start issuer"] = ERROR_NOT_ENOUGH_MEMORY;
    EXPECT_EQ(server->Initialize(), S_OK);
    const LogRecord error = log.Error(TEXT("Unable to create HTTP request issuer"));
    EXPECT_EQ(error.line, 202);
    EXPECT_EQ(error.hr, 0);
    EXPECT_FALSE(system.Happened("start sniffer"));
    EXPECT_EQ(log.Messages().size(), 1u) << "no closing record";
}

TEST_F(Lifecycle, SnifferThatDoesNotStartIsReportedAsSuccess) {
    system.errors["start sniffer"] = ERROR_NOT_ENOUGH_MEMORY;
    EXPECT_EQ(server->Initialize(), S_OK);
    const LogRecord error = log.Error(TEXT("Unable to create dead-client sniffer thread"));
    EXPECT_EQ(error.line, 207);
    EXPECT_EQ(error.hr, 0);
    EXPECT_NE(access.IssuerThread(), nullptr);
}

TEST_F(Lifecycle, ShutdownTakesItsStepsInOrder) {
    ASSERT_EQ(server->Initialize(), S_OK);
    system.WaitForReceives(300);
    server->Shutdown();
    const size_t removeFirst = system.IndexOf("HttpRemoveUrl http://*:80/zem/");
    const size_t removeSecond = system.IndexOf("HttpRemoveUrl http://*:80/media/");
    const size_t closeQueue = system.IndexOf("CloseHandle queue");
    const size_t terminate = system.IndexOf("HttpTerminate");
    const size_t closePort = system.IndexOf("CloseHandle port");
    const size_t stopWorkers = system.IndexOf("Post key 0");
    const auto events = system.Events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "Post key 0"), 4);
    EXPECT_LT(stopWorkers, removeFirst);
    EXPECT_EQ(removeFirst + 1, removeSecond);
    EXPECT_EQ(removeSecond + 1, closeQueue);
    EXPECT_EQ(closeQueue + 1, terminate);
    EXPECT_EQ(terminate + 1, closePort);
    EXPECT_EQ(closePort + 2, events.size());
    EXPECT_EQ(events.back(), "CloseHandle") << "the transaction pool's semaphore";
    EXPECT_EQ(access.IssuerThread(), nullptr);
    EXPECT_EQ(access.SnifferThread(), nullptr);
    EXPECT_EQ(access.RequestQueue(), nullptr);
    EXPECT_EQ(access.CompletionPort(), nullptr);
    EXPECT_EQ(access.XactionPool(), nullptr);
    EXPECT_EQ(access.Allocator(), nullptr);
    EXPECT_TRUE(log.Empty());
}

// Whether every block came home is said to who asks, and when one did not.
TEST_F(Lifecycle, ShutdownReportsTheBlocksWhenItIsAskedTo) {
    const CRegistryValue report(kTestZemKey, TEXT("ReportBlocks"), 1u);
    ASSERT_EQ(server->Initialize(), S_OK);
    CFrameIoXactionPool& frames = server->FramePool();
    for (int i = 0; i < 3; ++i) {  // as failed write requests do
        frames.KeepBlock(frames.AcquireBlock());
        frames.EndIo();
    }
    system.WaitForReceives(300);
    server->Shutdown();
    ASSERT_EQ(log.Messages().size(), 1u);
    EXPECT_EQ(log.Messages()[0].level, static_cast<DWORD>(kErrorLogLevelMessage));
    EXPECT_EQ(log.Messages()[0].text,
              TEXT("Blocks at the end: HTTP 300 of 300, 0 kept; frames 7197 of 7200, 3 kept"));
}

TEST_F(Lifecycle, ShutdownTellsOfABlockThatIsMissing) {
    ASSERT_EQ(server->Initialize(), S_OK);
    CFrameIoXactionPool& frames = server->FramePool();
    CFrameIoXaction* const lost = frames.AcquireBlock();
    frames.EndIo();
    server->Shutdown();
    ASSERT_EQ(log.Messages().size(), 1u);
    EXPECT_EQ(log.Messages()[0].level, static_cast<DWORD>(kErrorLogLevelWarning));
    EXPECT_EQ(log.Messages()[0].text,
              TEXT("Blocks at the end: HTTP 300 of 300, 0 kept; frames 7199 of 7200, 0 kept"));
    frames.ReleaseBlock(lost);  // for the pool's own check
}

TEST_F(Lifecycle, ShutdownMayRunAnyNumberOfTimes) {
    ASSERT_EQ(server->Initialize(), S_OK);
    server->Shutdown();
    const size_t events = system.Events().size();
    server->Shutdown();
    server->Shutdown();
    EXPECT_EQ(system.Events().size(), events);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Lifecycle, ShutdownOfANewServerDoesNothing) {
    server->Shutdown();
    EXPECT_TRUE(system.Events().empty());
    EXPECT_TRUE(log.Empty());
}

TEST_F(Lifecycle, ShutdownFromEveryFailedStartReleasesWhatThereIs) {
    const std::string kAllocator = "allocator object", kReservation = "reservation",
                      kPool = "transaction pool", kPoolObject = "transaction pool object";
    for (const std::string& failing :
         {std::string("HttpInitialize"), std::string("HttpCreateHttpHandle"),
          std::string("CreateIoCompletionPort"), kAllocator, kReservation,
          std::string("HttpAddUrl http://*:80/zem/"), std::string("HttpAddUrl http://*:80/media/"),
          kPoolObject, kPool, std::string("start worker 3"), std::string("start issuer"),
          std::string("start sniffer")}) {
        SCOPED_TRACE(failing);
        CFakeSystem own;
        media.results.clear();
        if (failing == kReservation)
            media.results["Initialize"] = E_OUTOFMEMORY;
        else
            own.errors[failing] = ERROR_GEN_FAILURE;
        const bool memory = failing == kAllocator || failing == kPool || failing == kPoolObject;
        const size_t handles = OpenHandles();
        {
            const auto failed = std::make_unique<CHttpCommandHandler>();
            if (failing == kAllocator) FailNextNothrowAllocation(1);
            if (failing == kPoolObject) FailNextNothrowAllocation(sizeof(CHttpXactionPool));
            if (failing == kPool) FailNextNothrowAllocation(300 * 4096);
            const HRESULT hr = failed->Initialize();
            EXPECT_EQ(NothrowAllocationFailed(), memory);
            if (memory) {
                EXPECT_EQ(hr, E_OUTOFMEMORY);
            }
        }
        EXPECT_EQ(OpenHandles(), handles);
        EXPECT_EQ(media.LiveAllocators(), 0);
        EXPECT_EQ(own.Happened("CloseHandle queue"), own.Happened("CreateIoCompletionPort"));
    }
}

TEST_F(Lifecycle, ShutdownThatRunsOutOfMemoryIsDoneByTheNext) {
    system.errors["CreateIoCompletionPort"] = ERROR_ACCESS_DENIED;
    EXPECT_LT(server->Initialize(), 0);
    log.Reset();
    FailAllAllocations(true);
    server->Shutdown();
    FailAllAllocations(false);
    EXPECT_TRUE(AllocationFailed());
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::Shutdown")), 1u);
    EXPECT_FALSE(system.Happened("CloseHandle queue"));
    server->Shutdown();
    EXPECT_TRUE(system.Happened("CloseHandle queue"));
    EXPECT_TRUE(system.Happened("HttpTerminate"));
}

TEST_F(Lifecycle, ShutdownDeletesTheRemainingClients) {
    ASSERT_EQ(server->Initialize(), S_OK);
    {
        const CClientTable::CLock lock(access.Clients());
        for (int i = 0; i < 100; ++i) {
            access.Clients().Insert(
                WString(TEXT("c")) + static_cast<WCHAR>(u'0' + i),
                new ZemClient(TEXT(""), new CZemChannelIo(static_cast<DWORD>(i)), 0));
        }
        access.Clients().Insert(TEXT("empty"), nullptr);
    }
    server->SetRealTimeIoClient(TEXT("x"));
    EXPECT_EQ(media.LiveChannels(), 100);
    server->Shutdown();
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_EQ(access.Clients().Count(), 0u);
    // Channels go before the allocator that they use.
    EXPECT_EQ(media.Calls().back().op, "~CZemMemAllocator");
}

TEST_F(Lifecycle, ShutdownWaitsForFramesThatTheLibraryHolds) {
    ASSERT_EQ(server->Initialize(), S_OK);
    CFrameIoXactionPool& frames = server->FramePool();
    CFrameIoXaction* const frame = frames.AcquireBlock();
    ASSERT_NE(frame, nullptr);
    CHttpXaction* xaction = nullptr;
    {
        // Any block will do as the frame's transaction; completions give it back.
        const auto receives = system.WaitForReceives(300);
        xaction = access.XactionPool()->Owns(receives[0].overlapped);
    }
    ASSERT_NE(xaction, nullptr);
    system.WaitUntilIdle(4);
    std::atomic<bool> completed{false};
    std::thread completion([&] {
        system.WaitUntilIdle(0);  // the workers have ended: nobody waits at the port any more
        access.XactionPool()->Release(xaction);
        frames.ReleaseBlock(frame);
        completed = true;
        frames.EndIo();
    });
    server->Shutdown();
    EXPECT_TRUE(completed);
    completion.join();
}

}  // namespace
