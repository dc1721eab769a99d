// The dead-client sniffer, with a wait and a clock that the test turns.
#include "tests/fakes/allocfault.h"
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/entry/entrypoint.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <thread>

namespace {

// Answers the sniffer's waits; others go to the platform.
HANDLE g_waitedFor = nullptr;
std::function<DWORD(DWORD)> g_wait;

}  // namespace

extern "C" {
DWORD __real_WaitForSingleObject(HANDLE object, DWORD timeout_ms);
DWORD __wrap_WaitForSingleObject(HANDLE object, DWORD timeout_ms) {
    if (g_wait && object == g_waitedFor) return g_wait(timeout_ms);
    return __real_WaitForSingleObject(object, timeout_ms);
}
}

namespace {

constexpr DWORD kTrace = kErrorLogLevelTrace;

class Sniffer : public CServerFixture {
protected:
    Sniffer() {
        g_waitedFor = reinterpret_cast<HANDLE>(uintptr_t{0x9191});
        access.IssuerThread() = g_waitedFor;
        clock.SetTime(1000);
        clock.SetTick(1);
    }
    ~Sniffer() override {
        access.IssuerThread() = nullptr;
        g_wait = nullptr;
    }
    size_t Clients() {
        const CClientTable::CLock lock(access.Clients());
        return access.Clients().Count();
    }
    // Runs the thread's routine here for this many passes.
    HRESULT Run(int passes, const std::function<void()>& beforePass = nullptr) {
        int waits = 0;
        g_wait = [&, passes](DWORD timeout_ms) -> DWORD {
            EXPECT_EQ(timeout_ms, 50000u);
            if (waits++ >= passes) return WAIT_OBJECT_0;
            if (beforePass) beforePass();
            return WAIT_TIMEOUT;
        };
        return static_cast<HRESULT>(CHttpCommandHandler::SniffDeadClients(&server));
    }
};

TEST_F(Sniffer, ClientOf50SecondsSurvivesThePass) {
    Join();
    log.Reset();
    clock.SetTime(1050);
    EXPECT_EQ(Run(1), S_OK);
    EXPECT_EQ(Clients(), 1u);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Sniffer, ClientOf51SecondsIsPurged) {
    Join();
    log.Reset();
    clock.SetTime(1051);
    EXPECT_EQ(Run(1), S_OK);
    EXPECT_EQ(Clients(), 0u);
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{
                  TEXT("Purging 1 inactive client(s)..."),
                  TEXT("    Purging inactive client '(Suite/1.2.3.4)' (last request 51 seconds "
                       "ago)"),
                  TEXT("client: Relinquishing real-time status...")}));
}

TEST_F(Sniffer, PassWithoutClientsLogsNothing) {
    EXPECT_EQ(Run(3), S_OK);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Sniffer, OnlyTheSilentArePurged) {
    Join("old");
    Join("older");
    clock.SetTime(1060);
    Join("young");
    log.Reset();
    Run(1);
    EXPECT_EQ(Clients(), 1u);
    EXPECT_NE(Channel(TEXT("young")), nullptr);
    EXPECT_TRUE(log.Has(kTrace, TEXT("Purging 2 inactive client(s)...")));
}

TEST_F(Sniffer, AnyRequestKeepsAClientAlive) {
    Join();
    for (LONGLONG now = 1040; now <= 1400; now += 40) {
        clock.SetTime(now);
        Post(Command(1, 17));
        Run(1);
    }
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Sniffer, SeveralPassesRunUntilTheIssuerEnds) {
    int passes = 0;
    Run(4, [&] {
        ++passes;
        clock.SetTime(1000 + passes * 60);
        Join("c" + std::to_string(passes));
    });
    EXPECT_EQ(passes, 4);
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Sniffer, FailedWaitEndsTheThread) {
    int waits = 0;
    g_wait = [&](DWORD) {
        ++waits;
        return WAIT_FAILED;
    };
    EXPECT_EQ(CHttpCommandHandler::SniffDeadClients(&server), 0u);
    EXPECT_EQ(waits, 1);
}

TEST_F(Sniffer, WaitThatThrowsEndsTheThread) {
    g_wait = [](DWORD) -> DWORD { throw std::runtime_error("a wait"); };
    EXPECT_EQ(static_cast<HRESULT>(CHttpCommandHandler::SniffDeadClients(&server)), E_FAIL);
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::SniffDeadClients")), 1u);
}

TEST_F(Sniffer, PurgeWithALogThatThrowsDeletesEveryClient) {
    for (const char* clientId : {"a", "b", "c"})
        Join(clientId);
    clock.SetTime(1051);
    CDeadClients dead;
    EXPECT_EQ(server.FindDeadClients(dead), S_OK);
    log.written = ThrowAt(TEXT("    Purging"));
    EXPECT_EQ(server.PurgeDeadClients(dead), S_OK);
    EXPECT_TRUE(dead.Empty());
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Sniffer, ClockSetBackPurgesNobody) {
    Join();
    clock.SetTime(-100000);
    Run(1);
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Sniffer, EntriesWithoutARecordAreSkipped) {
    {
        const CClientTable::CLock lock(access.Clients());
        access.Clients().Insert(TEXT("empty"), nullptr);
    }
    clock.SetTime(5000);
    Run(1);
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Sniffer, PurgedRealTimeClientMakesRoomForTheNextJoin) {
    Join("first");
    clock.SetTime(1100);
    Run(1);
    Join("second");
    WCHAR id[kNameUnits];
    EXPECT_TRUE(access.RealTimeClient().Get(id));
    EXPECT_EQ(WString(id), TEXT("second"));
}

TEST_F(Sniffer, PurgeLeavesAChannelInUseAlive) {
    Join();
    {
        const CZemClientRef inUse = server.LookupClient(TEXT("client"), false);
        clock.SetTime(1100);
        Run(1);
        EXPECT_EQ(Clients(), 0u);
        EXPECT_EQ(media.LiveChannels(), 1);
    }
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Sniffer, FindTellsWhetherThereAreAny) {
    CDeadClients dead;
    EXPECT_EQ(server.FindDeadClients(dead), S_FALSE);
    Join();
    EXPECT_EQ(server.FindDeadClients(dead), S_FALSE);
    clock.SetTime(1051);
    EXPECT_EQ(server.FindDeadClients(dead), S_OK);
    EXPECT_EQ(dead.Count(), 1);
    EXPECT_EQ(Clients(), 0u) << "unlinked";
    EXPECT_EQ(media.LiveChannels(), 1) << "not deleted yet";
    EXPECT_EQ(server.PurgeDeadClients(dead), S_OK);
    EXPECT_TRUE(dead.Empty());
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Sniffer, WalkWithoutMemoryLosesNobody) {
    constexpr int kClients = 60;
    for (int i = 0; i < kClients; ++i)
        Join("c" + std::to_string(i));
    clock.SetTime(1100);
    log.Reset();
    CDeadClients dead;
    FailAllAllocations(true);
    const HRESULT hr = server.FindDeadClients(dead);
    FailAllAllocations(false);
    EXPECT_EQ(hr, S_OK);
    EXPECT_TRUE(AllocationFailed()) << "the table would have shrunk";
    EXPECT_TRUE(log.Empty());
    EXPECT_EQ(Clients(), 0u);
    EXPECT_EQ(dead.Count(), kClients);
    EXPECT_EQ(media.LiveChannels(), kClients);
    server.PurgeDeadClients(dead);
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Sniffer, DeadListIsFirstInFirstOut) {
    CDeadClients dead;
    ZemClient* records[3];
    for (ZemClient*& record : records) {
        record = new ZemClient(TEXT(""), nullptr, 0);
        dead.Append(record);
    }
    EXPECT_EQ(dead.Count(), 3);
    EXPECT_EQ(dead.TakeFirst(), records[0]);
    EXPECT_EQ(dead.TakeFirst(), records[1]);
    dead.Append(records[0]);
    EXPECT_EQ(dead.TakeFirst(), records[2]);
    EXPECT_EQ(dead.TakeFirst(), records[0]);
    EXPECT_TRUE(dead.Empty());
    dead.Append(records[1]);
    EXPECT_EQ(dead.TakeFirst(), records[1]);
    for (ZemClient* record : records)
        record->Release();
}

TEST_F(Sniffer, DeletionHappensOutsideTheClientLock) {
    Join();
    clock.SetTime(1100);
    bool free = false;
    media.onCall = [&](const MediaCall& call) {
        if (call.op != "~CZemChannelIo") return;
        // Another thread can take the lock while the channel is destroyed.
        std::thread([&] {
            const CZemClientRef nobody = server.LookupClient(TEXT("x"), false);
            free = true;
        }).join();
    };
    Run(1);
    EXPECT_TRUE(free);
}

}  // namespace
