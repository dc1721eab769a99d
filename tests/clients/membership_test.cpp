// Join, leave and keep-alive, from the bytes of the request to those of the reply.
#include "tests/fakes/allocfault.h"
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/entry/entrypoint.h"

#include <gtest/gtest.h>

#include <latch>
#include <stdexcept>
#include <thread>

namespace {

constexpr DWORD kTrace = kErrorLogLevelTrace;

class Membership : public CServerFixture {
protected:
    Membership() { clock.SetTick(1000); }

    HRESULT JoinAs(const std::string& clientId, const std::optional<std::string>& userAgent,
                   DWORD channelId = 7, DWORD transId = 1) {
        RequestSpec given;
        given.clientId = clientId;
        given.entity = Command(transId, 15, Bytes(channelId));
        given.userAgent = userAgent;
        return Process(given);
    }
    HRESULT Leave(const std::string& clientId = "client", DWORD transId = 2) {
        return Post(Command(transId, 16), clientId);
    }
    size_t Clients() {
        const CClientTable::CLock lock(access.Clients());
        return access.Clients().Count();
    }
    WString RealTime() {
        WCHAR id[kNameUnits];
        access.RealTimeClient().Get(id);
        return id;
    }
    static constexpr const WCHAR* kNoChannelMessage =
        TEXT("me: Error associating IO memory allocator with a new ZEM instance");
    // The stages that the last command marked, read when its reply goes out.
    void CatchStages(CHttpXaction& xaction, std::vector<DWORD>& stages) {
        http.onSend = [&](const SentResponse&) {
            stages.clear();
            for (LONG i = 0; i < xaction.Timer().Count(); ++i)
                stages.push_back(static_cast<DWORD>(xaction.Timer().StageAt(i) >> 32));
        };
    }
    void ExpectReply(DWORD transId, DWORD replyCode) {
        const SentResponse reply = http.Last();
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.reason, "OK");
        EXPECT_EQ(reply.Body(), Bytes(transId, replyCode, DWORD{4}, DWORD{0}));
        EXPECT_EQ(reply.Header(HttpHeaderContentLength), "16");
    }
};

// --- golden bytes ---

TEST_F(Membership, JoinInBytes) {
    RequestSpec given;
    given.entity = std::string("\x2A\0\0\0\x0F\0\0\0\x04\0\0\0\x07\0\0\0", 16);
    EXPECT_EQ(Process(given), S_OK);
    EXPECT_EQ(http.Last().Body(), std::string("\x2A\0\0\0\x0C\0\0\0\x04\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(Channel()->ChannelNumber(), 0x8007u);
}

TEST_F(Membership, LeaveInBytes) {
    Join();
    EXPECT_EQ(Post(std::string("\x2B\0\0\0\x10\0\0\0\0\0\0\0", 12)), S_OK);
    EXPECT_EQ(http.Last().Body(), std::string("\x2B\0\0\0\x0D\0\0\0\x04\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(Channel(), nullptr);
}

TEST_F(Membership, KeepAliveInBytes) {
    EXPECT_EQ(Post(std::string("\x2C\0\0\0\x11\0\0\0\0\0\0\0", 12)), S_OK);
    EXPECT_EQ(http.Last().Body(), std::string("\x2C\0\0\0\x0E\0\0\0\x04\0\0\0\0\0\0\0", 16));
}

// --- join ---

TEST_F(Membership, JoinCreatesAChannelAndARecord) {
    clock.SetTime(5000);
    EXPECT_EQ(JoinAs("me", "Edit/9 (Suite/1.2.3.4)", 3), S_OK);
    ExpectReply(1, 12);
    const CZemClientRef client = server.LookupClient(TEXT("me"), false);
    ASSERT_TRUE(client);
    EXPECT_EQ(client.Record()->displayString, TEXT("(Suite/1.2.3.4)"));
    EXPECT_EQ(client.Record()->lastRequestTime, 5000);
    EXPECT_EQ(client.Record()->requestCount, 1u);
    EXPECT_EQ(client.Channel()->ChannelNumber(), 0x8003u);
    EXPECT_EQ(WString(client.Channel()->GetClientId()), TEXT("me"));
    std::vector<std::string> calls;
    for (const MediaCall& call : media.Calls())
        if (call.op != "CZemMemAllocator") calls.push_back(call.op);
    EXPECT_EQ(calls, (std::vector<std::string>{"CZemChannelIo", "SetClientId", "SetAllocators",
                                               "SetIoRealTime"}));
    EXPECT_EQ(media.Calls("SetAllocators")[0].pointer, access.Allocator());
    EXPECT_FALSE(media.Calls("SetAllocators")[0].boolean);
}

TEST_F(Membership, FirstJoinLogsATotalOfZero) {
    JoinAs("me", "Edit (Suite/1.2.3.4)", 0x1F, 9);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{
                  TEXT("'(Suite/1.2.3.4)': Joining as 'real-time' client (current real-time client "
                       "'me'), chanid 0x1f..., total clients 0, transId 9")}));
    EXPECT_EQ(log.Messages().size(), 1u);
}

TEST_F(Membership, SecondJoinIsNotRealTime) {
    JoinAs("first", "a (S/1.2.3.4)");
    log.Reset();
    JoinAs("second", "a (S/1.2.3.4)", 8, 3);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{
                  TEXT("'(S/1.2.3.4)': Joining as 'non-real-time' client (current real-time client "
                       "'first'), chanid 0x8..., total clients 1, transId 3")}));
    EXPECT_EQ(media.Count("SetIoRealTime"), 1u);
    SetTracing(true);
    const CRegistryValue flag(kTestZemKey32, TEXT("RsDbg"), 1u);
    JoinAs("third", "a (S/1.2.3.4)", 8, 3);
    EXPECT_TRUE(log.Has(
        kTrace, TEXT("third: Could not set real-time client status; existing client first")));
}

TEST_F(Membership, RealTimeThatTheChannelRefusesIsTraced) {
    media.results["SetIoRealTime"] = E_FAIL;
    JoinAs("me", "a (S/1.2.3.4)");
    EXPECT_TRUE(log.Has(kTrace, TEXT("me: Could not set real-time client status")));
    EXPECT_TRUE(log.Has(kTrace, TEXT("'(S/1.2.3.4)': Joining as 'non-real-time' client (current "
                                     "real-time client 'me'), chanid 0x7..., total clients 0, "
                                     "transId 1")));
    EXPECT_EQ(RealTime(), TEXT(""));
}

TEST_F(Membership, InFileServerModeEveryJoinSwitchesRealTimeOnAndNothingIsRecorded) {
    access.FileServerMode() = 1;
    JoinAs("a", "x (S/1.2.3.4)");
    JoinAs("b", "x (S/1.2.3.4)");
    EXPECT_EQ(media.Count("SetIoRealTime"), 2u);
    EXPECT_TRUE(media.Calls("SetIoRealTime")[1].boolean);
    EXPECT_EQ(RealTime(), TEXT(""));
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{
                  TEXT("'(S/1.2.3.4)': Joining , chanid 0x7..., total clients 0, transId 1"),
                  TEXT("'(S/1.2.3.4)': Joining , chanid 0x7..., total clients 1, transId 1")}));
    access.FileServerMode() = 0;
}

TEST_F(Membership, Channel255JoinsNothing) {
    EXPECT_EQ(JoinAs("me", "x (S/0)", 255), S_OK);
    ExpectReply(1, 12);
    EXPECT_EQ(Clients(), 0u);
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Membership, RejoiningChangesNothing) {
    clock.SetTime(100);
    JoinAs("me", "x (S/1.2.3.4)", 3);
    CZemChannelIo* const channel = Channel(TEXT("me"));
    log.Reset();
    clock.SetTime(120);
    EXPECT_EQ(JoinAs("me", "y (T/1.2.3.4)", 0x44, 8), S_OK);
    ExpectReply(8, 12);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("me: Rejoining, chanid 0x44..., transId 8!")}));
    const CZemClientRef client = server.LookupClient(TEXT("me"), false);
    EXPECT_EQ(client.Channel(), channel);
    EXPECT_EQ(channel->ChannelNumber(), 0x8003u);
    EXPECT_EQ(client.Record()->displayString, TEXT("(S/1.2.3.4)"));
    EXPECT_EQ(client.Record()->lastRequestTime, 120);
    EXPECT_EQ(client.Record()->requestCount, 3u) << "touched by dispatch and by the join";
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Membership, IdsThatDifferInCaseJoinTwice) {
    JoinAs("ABC", "x (S/1.2.3.4)");
    JoinAs("abc", "x (S/1.2.3.4)");
    EXPECT_EQ(Clients(), 2u);
    EXPECT_NE(Channel(TEXT("ABC")), Channel(TEXT("abc")));
}

TEST_F(Membership, UserAgentWithoutBracketGivesNoDescriptionAndNoVersionCheck) {
    JoinAs("me", "Edit/5.5");
    EXPECT_EQ(server.LookupClient(TEXT("me"), false).Record()->displayString, TEXT(""));
    EXPECT_TRUE(log.Texts(kErrorLogLevelMessage).empty());
    JoinAs("you", std::nullopt);
    EXPECT_EQ(server.LookupClient(TEXT("you"), false).Record()->displayString, TEXT(""));
}

TEST_F(Membership, DescriptionWithoutASlashIsNotChecked) {
    JoinAs("me", "Edit (Suite)");
    EXPECT_TRUE(log.Texts(kErrorLogLevelMessage).empty());
}

TEST_F(Membership, OtherVersionIsWarnedOf) {
    JoinAs("me", "Edit (Suite/1.2.3.5)");
    EXPECT_EQ(log.Texts(kErrorLogLevelMessage),
              (std::vector<WString>{TEXT(
                  "me: WARNING: Client version 1.2.3.5 mismatches HTTP server version 1.2.3.4 - "
                  "ensure both run same software!")}));
    EXPECT_EQ(Clients(), 1u) << "the join goes on";
}

TEST_F(Membership, VersionIsTheTextBehindTheFirstSlashWithoutItsLastCharacter) {
    JoinAs("me", "Edit (Suite/1.2.3.4/x)");
    EXPECT_TRUE(log.Texts(kErrorLogLevelMessage).at(0).find(TEXT("version 1.2.3.4/x mismatches")) !=
                WString::npos);
    log.Reset();
    JoinAs("you", "Edit/3 (Suite/1.2.3.4?");
    EXPECT_TRUE(log.Texts(kErrorLogLevelMessage).empty()) << "any last character is dropped";
}

TEST_F(Membership, DescriptionThatEndsBehindItsSlashHasTheEmptyVersion) {
    JoinAs("me", "Edit (Suite/");
    EXPECT_EQ(log.Texts(kErrorLogLevelMessage),
              (std::vector<WString>{
                  TEXT("me: WARNING: Client version  mismatches HTTP server version 1.2.3.4 - "
                       "ensure both run same software!")}));
}

TEST_F(Membership, VersionIsComparedWithCase) {
    wcscpy_s(access.Version(), kNameUnits, TEXT("1a"));
    JoinAs("me", "Edit (Suite/1A)");
    EXPECT_EQ(log.Texts(kErrorLogLevelMessage).size(), 1u);
}

TEST_F(Membership, LongUserAgentsAreCut) {
    JoinAs("me", "(Suite/" + std::string(2900, '9') + ")");
    EXPECT_EQ(server.LookupClient(TEXT("me"), false).Record()->displayString.size(), 2599u);
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Membership, PercentSignsOfAUserAgentAreText) {
    JoinAs("%n%s", "x (%s%n%9999x/1.2.3.4)");
    EXPECT_TRUE(
        log.Has(kTrace, TEXT("'(%s%n%9999x/1.2.3.4)': Joining as 'real-time' client (current "
                             "real-time client '%n%s'), chanid 0x7..., total clients 0, "
                             "transId 1")));
}

TEST_F(Membership, ChannelThatCannotBeAllocatedEndsTheJoinButNotTheReply) {
    bool failed = false;
    media.onCall = [&](const MediaCall& call) {
        if (call.op != "CZemChannelIo") return;
        failed = true;
        throw std::bad_alloc();
    };
    EXPECT_EQ(JoinAs("me", "x (S/1.2.3.4)"), S_OK);
    EXPECT_TRUE(failed);
    ExpectReply(1, 12);
    EXPECT_EQ(log.Error(kNoChannelMessage).hr, E_OUTOFMEMORY);
    EXPECT_EQ(Clients(), 0u);
}

TEST_F(Membership, JoinThatRunsOutOfMemoryAnywhereLeavesNothing) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.userAgent = "x (a description that needs memory/1.2.3.4)";
    Lay(xaction, given);
    ZemCommand command{};
    command.clientId = TEXT("me");
    command.xaction = &xaction;
    uint64_t skipped = 0;
    for (;; ++skipped) {
        SCOPED_TRACE("after " + std::to_string(skipped) + " allocations");
        log.Reset();
        FailAllocationAfter(skipped);
        const HRESULT hr = server.DoCmdJoin(command, 7);
        if (!AllocationFailed()) {
            EXPECT_EQ(hr, S_OK);
            break;
        }
        EXPECT_LT(hr, 0);
        if (skipped == 0) {
            EXPECT_EQ(log.Error(kNoChannelMessage).hr, E_OUTOFMEMORY);
        }
        EXPECT_EQ(Clients(), 0u);
        EXPECT_EQ(media.LiveChannels(), 0);
        EXPECT_EQ(RealTime(), TEXT(""));
    }
    EXPECT_GT(skipped, 4u) << "channel, its parts, description, record, entry";
    EXPECT_EQ(Clients(), 1u);
    Pool().Release(&xaction);
}

TEST_F(Membership, AllocatorThatIsRefusedDoesNotMatter) {
    media.results["SetAllocators"] = E_FAIL;
    EXPECT_EQ(JoinAs("me", "x (S/1.2.3.4)"), S_OK);
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Membership, JoinBeyondTheCapFailsInside) {
    {
        const CClientTable::CLock lock(access.Clients());
        for (size_t i = 0; i < CClientTable::kMaxClients; ++i) {
            const WCHAR id[] = {static_cast<WCHAR>(1 + i % 256), static_cast<WCHAR>(1 + i / 256),
                                0};
            access.Clients().Insert(id, nullptr);
        }
    }
    EXPECT_EQ(JoinAs("one more", "x (S/1.2.3.4)"), S_OK);
    ExpectReply(1, 12);
    EXPECT_EQ(Clients(), CClientTable::kMaxClients);
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::DoCmdJoin")), 1u);
    EXPECT_EQ(log.Records(LogRecord::EntryPoint)[0].chainId, static_cast<DWORD>(E_OUTOFMEMORY));
}

TEST_F(Membership, JoinWithoutRoomForItsChannelIdIsRefused) {
    RequestSpec given;
    given.entity = Command(1, 15);
    given.entityOffset = 4096 - 15;  // the id would end one byte behind the buffer
    EXPECT_EQ(Process(given), E_INVALIDARG);
    EXPECT_EQ(Clients(), 0u);
    EXPECT_EQ(http.SentCount(), 1u);
}

TEST_F(Membership, ChannelIdThatWasNotSentReadsAsZero) {
    EXPECT_EQ(Post(Command(1, 15)), S_OK);
    ASSERT_NE(Channel(), nullptr);
    EXPECT_EQ(Channel()->ChannelNumber(), 0x8000u);
}

TEST_F(Membership, JoinMarksItsStagesAndNamesItsTimer) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(1, 15, Bytes(DWORD{255}));
    Lay(xaction, given);
    std::vector<DWORD> stages;
    CatchStages(xaction, stages);
    server.ProcessRequest(xaction);
    EXPECT_EQ(stages, (std::vector<DWORD>{0, 3, 5, 6}));
    EXPECT_EQ(WString(xaction.Timer().Name()), TEXT("ZemHttpdXaction client: JOIN, transId 1"));
    Pool().Release(&xaction);
}

TEST_F(Membership, TraceFlagFollowsThe32BitRegistryAtEveryJoin) {
    {
        const CRegistryValue other(kTestZemKey, TEXT("RsDbg"), 1u);
        Join();
        EXPECT_FALSE(server.Tracing()) << "the 64-bit view does not count";
    }
    {
        const CRegistryValue flag(kTestZemKey32, TEXT("RsDbg"), 5u);
        Join("b", 255);
        EXPECT_EQ(access.RsDbg(), 5u);
    }
    Join("c", 255);
    EXPECT_EQ(access.RsDbg(), 5u) << "a missing value leaves the flag";
    const CRegistryValue off(kTestZemKey32, TEXT("RsDbg"), 0u);
    Join("d", 255);
    EXPECT_FALSE(server.Tracing());
}

TEST_F(Membership, JoinIsTracedWhenTheFlagIsSet) {
    SetTracing(true);
    JoinAs("me", std::nullopt, 255, 4);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("me: handling CMD_JOIN, chanId 255, transId 4"),
                                    TEXT("me: CMD_JOIN OK, transId 4")}));
}

TEST_F(Membership, FailedJoinIsTracedWhenTheFlagIsSet) {
    SetTracing(true);
    RequestSpec given;
    given.entity = Command(4, 15);
    given.entityOffset = 4096 - 15;
    Process(given);
    EXPECT_EQ(log.Texts(kTrace), (std::vector<WString>{TEXT("client: error CMD_JOIN, transId 4")}));
}

TEST_F(Membership, TwoJoinsOfOneClientAtOnceCreateOneRecord) {
    std::latch start(2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            CHttpXaction* xaction = nullptr;
            ASSERT_EQ(Pool().Acquire(xaction), S_OK);
            ZemCommand command{};
            command.clientId = TEXT("me");
            command.xaction = xaction;
            start.arrive_and_wait();
            EXPECT_EQ(server.DoCmdJoin(command, 1), S_OK);
            Pool().Release(xaction);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(Clients(), 1u);
    EXPECT_EQ(media.LiveChannels(), 1);
}

// --- leave ---

TEST_F(Membership, LeaveOfTheOnlyClientLogsZeroRemaining) {
    JoinAs("me", "x (S/1.2.3.4)");
    log.Reset();
    EXPECT_EQ(Leave("me", 12), S_OK);
    ExpectReply(12, 13);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("me: Leaving (0 clients remaining), transId 12...!"),
                                    TEXT("me: Relinquishing real-time status...")}));
    EXPECT_EQ(media.LiveChannels(), 0);
    EXPECT_EQ(RealTime(), TEXT(""));
    EXPECT_EQ(media.Count("SetIoRealTime"), 1u) << "not switched off";
}

TEST_F(Membership, LeavingTwiceIsFine) {
    Join();
    Join("other");
    Leave();
    log.Reset();
    EXPECT_EQ(Leave(), S_OK);
    ExpectReply(2, 13);
    EXPECT_TRUE(log.Empty());
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Membership, LeaveIsTracedWhenTheFlagIsSet) {
    SetTracing(true);
    Leave("nobody", 3);
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("nobody: handling CMD_LEAVE, transId 3"),
                                    TEXT("nobody: Deleting ZEM client, transId 3..."),
                                    TEXT("nobody: CMD_LEAVE OK, transId 3")}));
}

TEST_F(Membership, LeaveThatCannotBuildItsReplyIsTraced) {
    SetTracing(true);
    RequestSpec given;
    given.entity = Command(4, 16);
    given.entityOffset = 4096 - 12;
    EXPECT_EQ(Process(given), E_INVALIDARG);
    EXPECT_TRUE(log.Has(kTrace, TEXT("client: error CMD_LEAVE, transId 4")));
    EXPECT_EQ(http.Last().reason, "Error 0x80070057");
}

TEST_F(Membership, LeaveMarksItsStages) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(1, 16);
    Lay(xaction, given);
    std::vector<DWORD> stages;
    CatchStages(xaction, stages);
    server.ProcessRequest(xaction);
    EXPECT_EQ(stages, (std::vector<DWORD>{0, 3, 5, 6}));
    EXPECT_EQ(WString(xaction.Timer().Name()), TEXT("ZemHttpdXaction client: LEAVE, transId 1"));
    Pool().Release(&xaction);
}

TEST_F(Membership, LeaveWaitsForNobodyButTheChannelStaysWhileInUse) {
    Join();
    {
        const CZemClientRef inUse = server.LookupClient(TEXT("client"), true);
        EXPECT_EQ(Leave(), S_OK);
        EXPECT_EQ(RealTime(), TEXT("")) << "given up at once";
        EXPECT_EQ(media.LiveChannels(), 1);
        inUse.Channel()->BumpRealTimeIoMsgs();
        Join();
        EXPECT_EQ(media.LiveChannels(), 2) << "a new join is a new channel";
    }
    EXPECT_EQ(media.LiveChannels(), 1);
}

TEST_F(Membership, LeaveOfAnotherClientKeepsTheRealTimeClient) {
    Join("first");
    Join("second");
    Leave("second");
    EXPECT_EQ(RealTime(), TEXT("first"));
}

TEST_F(Membership, RealTimeIsRelinquishedWithoutRegardToCase) {
    Join("ABC");
    Join("abc");
    log.Reset();
    Leave("abc");
    EXPECT_TRUE(log.Has(kTrace, TEXT("abc: Relinquishing real-time status...")));
    EXPECT_EQ(RealTime(), TEXT(""));
}

// --- keep-alive ---

TEST_F(Membership, KeepAliveOfAnUnknownClientIsFineAndSilent) {
    EXPECT_EQ(Post(Command(6, 17), "nobody"), S_OK);
    ExpectReply(6, 14);
    EXPECT_TRUE(log.Empty());
    EXPECT_EQ(Clients(), 0u);
}

TEST_F(Membership, KeepAliveMarksNoStagesOfItsOwn) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(1, 17);
    Lay(xaction, given);
    std::vector<DWORD> stages;
    CatchStages(xaction, stages);
    server.ProcessRequest(xaction);
    EXPECT_EQ(stages, (std::vector<DWORD>{0, 6}));
    EXPECT_EQ(WString(xaction.Timer().Name()),
              TEXT("ZemHttpdXaction client: KEEP_ALIVE, transId 1"));
    Pool().Release(&xaction);
}

TEST_F(Membership, KeepAliveIsTracedWhenTheFlagIsSet) {
    SetTracing(true);
    Post(Command(6, 17), "me");
    EXPECT_EQ(log.Texts(kTrace),
              (std::vector<WString>{TEXT("me: handling CMD_KEEP_ALIVE, transId 6"),
                                    TEXT("me: CMD_KEEP_ALIVE OK, transId 6")}));
    log.Reset();
    RequestSpec given;
    given.entity = Command(4, 17);
    given.entityOffset = 4096 - 12;
    Process(given);
    EXPECT_TRUE(log.Has(kTrace, TEXT("client: error CMD_KEEP_ALIVE, transId 4")));
}

// --- look-up and deletion ---

TEST_F(Membership, LookUpTouchesOnlyWhenAsked) {
    clock.SetTime(10);
    Join();
    clock.SetTime(20);
    const CZemClientRef untouched = server.LookupClient(TEXT("client"), false);
    EXPECT_EQ(untouched.Record()->lastRequestTime, 10);
    EXPECT_EQ(untouched.Record()->requestCount, 1u);
    const CZemClientRef touched = server.LookupClient(TEXT("client"), true);
    EXPECT_EQ(touched.Record()->lastRequestTime, 20);
    EXPECT_EQ(touched.Record()->requestCount, 2u);
    EXPECT_FALSE(server.LookupClient(TEXT("nobody"), true));
}

TEST_F(Membership, DeletionOfNothingIsInvalidAndSilent) {
    EXPECT_EQ(server.DeleteZemClient(nullptr), E_INVALIDARG);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Membership, DeletionDetachesTheReadAllocatorFirst) {
    Join();
    Leave();
    const auto calls = media.Calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[calls.size() - 2].op, "SetReadAllocator");
    EXPECT_EQ(calls[calls.size() - 2].pointer, nullptr);
    EXPECT_EQ(calls.back().op, "~CZemChannelIo");
}

TEST_F(Membership, RecordWithoutAChannelIsDeletedToo) {
    EXPECT_EQ(server.DeleteZemClient(new ZemClient(TEXT("x"), nullptr, 0)), S_OK);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Membership, LeaveWhoseTraceThrowsDeletesTheClientAllTheSame) {
    Join();
    log.Reset();
    log.written = ThrowAt(TEXT("client: Leaving"));
    EXPECT_EQ(Post(Command(3, 16)), S_OK);
    EXPECT_EQ(http.Last().Body(), Bytes(DWORD{3}, DWORD{13}, DWORD{4}, S_OK));
    EXPECT_EQ(log.Count(kErrorLogLevelError, TEXT("Unknown error")), 0u) << "logging never throws";
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Membership, DeletionWhoseTraceThrowsDeletesAllTheSame) {
    Join();
    log.Reset();
    log.written = ThrowAt(TEXT("client: Relinquishing"));
    EXPECT_EQ(Post(Command(3, 16)), S_OK);
    EXPECT_EQ(http.Last().Body(), Bytes(DWORD{3}, DWORD{13}, DWORD{4}, S_OK));
    EXPECT_EQ(log.Count(kErrorLogLevelError, TEXT("Unknown error")), 0u) << "logging never throws";
    EXPECT_EQ(RealTime(), TEXT(""));
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Membership, ChannelThatThrowsWhenItIsAskedForItsClientIsDestroyed) {
    Join();
    log.Reset();
    media.results["GetClientId"] = E_UNEXPECTED;
    EXPECT_EQ(Post(Command(3, 16)), S_OK);
    EXPECT_EQ(http.Last().Body(), Bytes(DWORD{3}, DWORD{13}, DWORD{4}, S_OK));
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::DeleteZemClient")), 1u);
    EXPECT_EQ(Clients(), 0u);
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Membership, ChannelThatThrowsWhenItIsDetachedIsDestroyed) {
    Join();
    log.Reset();
    media.onCall = [](const MediaCall& call) {
        if (call.op == "SetReadAllocator") throw std::runtime_error("a host's module");
    };
    EXPECT_EQ(Post(Command(3, 16)), S_OK);
    EXPECT_EQ(http.Last().Body(), Bytes(DWORD{3}, DWORD{13}, DWORD{4}, S_OK));
    EXPECT_EQ(log.Error(TEXT("Unknown error")).hr, E_FAIL);
    EXPECT_EQ(log.EntryPoints(TEXT("ZemClient::~ZemClient")), 1u);
    EXPECT_EQ(media.LiveChannels(), 0);
}

TEST_F(Membership, InFileServerModeNothingIsRelinquished) {
    Join();
    access.FileServerMode() = 1;
    log.Reset();
    Leave();
    EXPECT_FALSE(log.Has(kTrace, TEXT("client: Relinquishing real-time status...")));
    EXPECT_EQ(RealTime(), TEXT("client"));
    access.FileServerMode() = 0;
}

}  // namespace
