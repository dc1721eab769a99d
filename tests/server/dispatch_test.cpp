// Request assembly and dispatch: what is refused, with which words and which answer, and what
// reaches the handlers.
#include "tests/fakes/allocfault.h"
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/entry/entrypoint.h"

#include <gtest/gtest.h>

#include <random>

namespace {

constexpr DWORD kJoin = 15, kLeave = 16, kKeepAlive = 17, kSetRealTime = 18;

class Dispatch : public CServerFixture {
protected:
    // The one reply of a request that failed before its header was read.
    void ExpectStatusOnly(HRESULT hr) {
        ASSERT_EQ(http.SentCount(), 1u);
        const SentResponse reply = http.Last();
        char reason[40];
        snprintf(reason, sizeof(reason), "Error 0x%x", static_cast<unsigned>(hr));
        EXPECT_EQ(reply.status, 500);
        EXPECT_EQ(reply.reason, reason);
        EXPECT_TRUE(reply.chunks.empty());
        EXPECT_EQ(reply.Header(HttpHeaderContentLength), "0");
        EXPECT_EQ(reply.Header(HttpHeaderServer), "Quorvane ZEM /1.2.3.4");
        EXPECT_EQ(reply.Header(HttpHeaderContentType), std::nullopt);
        EXPECT_TRUE(reply.unknown.empty());
    }
    // The one reply of a command that failed before its handler replied.
    void ExpectGenericFailure(DWORD code, HRESULT hr, DWORD transId) {
        ASSERT_EQ(http.SentCount(), 1u);
        const SentResponse reply = http.Last();
        char reason[120];
        snprintf(reason, sizeof(reason), "Failed ZEM request code %d (hr = 0x%x), transId %u",
                 static_cast<int>(code), static_cast<unsigned>(hr), transId);
        EXPECT_EQ(reply.status, 500);
        EXPECT_EQ(reply.reason, reason);
        EXPECT_EQ(reply.Body(), Bytes(transId, code, DWORD{4}, hr));
        EXPECT_EQ(reply.Header(HttpHeaderContentLength), "16");
        EXPECT_EQ(reply.Header(HttpHeaderContentType), "application/octet-string");
    }
    void ExpectError(HRESULT hr, const WCHAR* text) {
        const LogRecord error = log.Error(text);
        EXPECT_EQ(error.kind, LogRecord::Ex) << "not logged: " << Utf8(text);
        EXPECT_EQ(error.hr, hr);
        EXPECT_EQ(error.file, TEXT("httpcmdhdlr.cpp"));
    }
    static constexpr const WCHAR* kNoId =
        TEXT("ZEM client ID HTTP header not present in HTTP request, discarding...");
};

// --- methods ---

TEST_F(Dispatch, OtherMethodsAreNotAllowed) {
    for (const HTTP_VERB verb :
         {HttpVerbPUT, HttpVerbHEAD, HttpVerbOPTIONS, HttpVerbUnknown, HttpVerbMOVE}) {
        RequestSpec given;
        given.verb = verb;
        EXPECT_EQ(Process(given), S_OK);
        EXPECT_EQ(http.Last().status, 405);
        EXPECT_EQ(http.Last().reason, "HTTP method not allowed");
        EXPECT_EQ(http.Last().Header(HttpHeaderContentLength), "0");
    }
    EXPECT_EQ(http.SentCount(), 5u);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Dispatch, GetIsAnsweredByTheFileService) {
    RequestSpec given;
    given.verb = HttpVerbGET;
    given.absPath = TEXT("/media/clients");
    EXPECT_EQ(Process(given), S_OK);
    EXPECT_EQ(http.Last().status, 200);
    EXPECT_EQ(http.Last().Body(), "No Clients\r\n");
}

TEST_F(Dispatch, DeleteIsAnsweredByTheFileService) {
    RequestSpec given;
    given.verb = HttpVerbDELETE;
    given.absPath = TEXT("/media/none");
    Process(given);
    ASSERT_EQ(http.SentCount(), 1u);
    EXPECT_EQ(http.Last().status, 400);
}

// --- the client ID ---

TEST_F(Dispatch, PostWithoutUnknownHeadersIsRefused) {
    RequestSpec given;
    given.withClientId = false;
    given.entity = Command(1, kKeepAlive);
    EXPECT_EQ(Process(given), E_UNEXPECTED);
    ExpectStatusOnly(E_UNEXPECTED);
    ExpectError(E_UNEXPECTED, kNoId);
}

TEST_F(Dispatch, ClientIdThatIsNotTheFirstUnknownHeaderIsRefused) {
    RequestSpec given;
    given.headersBefore = {{"X-Other", "1"}};
    given.entity = Command(1, kKeepAlive);
    EXPECT_EQ(Process(given), E_UNEXPECTED);
    ExpectStatusOnly(E_UNEXPECTED);
    ExpectError(E_UNEXPECTED, kNoId);
}

TEST_F(Dispatch, LaterUnknownHeadersAreNotLookedAt) {
    RequestSpec given;
    given.headersAfter = {{"X-Other", "1"}, {"Zem-Id", "someone else"}};
    given.entity = Command(1, kKeepAlive);
    SetTracing(true);
    EXPECT_EQ(Process(given), S_OK);
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace, TEXT("client: handling CMD_KEEP_ALIVE, transId 1")));
}

TEST_F(Dispatch, NameOfTheIdHeaderIsComparedWithoutCase) {
    for (const char* name : {"zem-id", "ZEM-ID", "Zem-Id"}) {
        RequestSpec given;
        given.clientIdHeader = name;
        given.entity = Command(1, kKeepAlive);
        EXPECT_EQ(Process(given), S_OK) << name;
    }
    for (const char* name : {"Zem-I", "Zem-Idx", "Zem_Id"}) {
        RequestSpec given;
        given.clientIdHeader = name;
        given.entity = Command(1, kKeepAlive);
        EXPECT_EQ(Process(given), E_UNEXPECTED) << name;
    }
}

TEST_F(Dispatch, ClientIdIsConvertedAndCutAt259Characters) {
    SetTracing(true);
    Post(Command(1, kKeepAlive), "\xC3\xA4" + std::string(400, 'x'));
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace, TEXT("\u00E4") + WString(258, u'x') +
                                                 TEXT(": handling CMD_KEEP_ALIVE, transId 1")));
}

TEST_F(Dispatch, LengthAsSentBoundsTheClientId) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.clientId = "abcdef";
    given.entity = Command(1, kKeepAlive);
    Lay(xaction, given);
    xaction.Request()->Headers.pUnknownHeaders[0].RawValueLength = 3;
    SetTracing(true);
    EXPECT_EQ(server.ProcessRequest(xaction), S_OK);
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace, TEXT("abc: handling CMD_KEEP_ALIVE, transId 1")));
    Pool().Release(&xaction);
}

TEST_F(Dispatch, ClientIdFullOfConversionsIsText) {
    EXPECT_EQ(Post(Command(5, 99), "%s%n%9999x"), E_NOTIMPL);
    ExpectError(E_NOTIMPL, TEXT("%s%n%9999x: ZEM command 99 not implemented, transId 5."));
}

// --- the entity ---

TEST_F(Dispatch, PostWithoutABodyGetsTheStatusOnlyFailure) {
    RequestSpec none;
    none.chunkCount = 0;
    EXPECT_EQ(Process(none), E_UNEXPECTED);
    ExpectStatusOnly(E_UNEXPECTED);
    ExpectError(E_UNEXPECTED, TEXT("client: ZEM request header not present in HTTP request."));
}

TEST_F(Dispatch, EmptyFirstChunkIsNoBody) {
    RequestSpec empty;
    EXPECT_EQ(Process(empty), E_UNEXPECTED);
    ExpectStatusOnly(E_UNEXPECTED);
    ExpectError(E_UNEXPECTED, TEXT("client: ZEM request header not present in HTTP request."));
}

TEST_F(Dispatch, EveryShortHeaderReadsZerosBehindWhatWasReceived) {
    // A declared size that was not received is 0: the missing bytes of the header are fetched.
    const std::string whole = Command(0x04030201, kJoin, Bytes(DWORD{255}));
    for (size_t sent = 1; sent <= 11; ++sent) {
        SCOPED_TRACE(sent);
        CFakeHttp own;
        own.FeedBody(whole.substr(sent));
        log.Reset();
        const HRESULT hr = Post(whole.substr(0, sent));
        if (sent >= 5) {
            EXPECT_EQ(hr, S_OK);
            ASSERT_EQ(own.BodyReads().size(), 1u);
            EXPECT_EQ(own.BodyReads()[0].asked_bytes, (sent < 9 ? 12 : 16) - sent);
        } else {
            EXPECT_EQ(hr, E_NOTIMPL) << "the code was not received and is 0";
        }
    }
}

TEST_F(Dispatch, ShortHeaderThatIsNeverCompletedIsAGenericFailure) {
    EXPECT_EQ(Post(Command(7, kJoin).substr(0, 8)), E_INVALIDARG);
    ExpectGenericFailure(kJoin, E_INVALIDARG, 7);
    ExpectError(HRESULT_FROM_WIN32(ERROR_HANDLE_EOF),
                TEXT("client: Error receving remaining ZEM request. Total request sz 12 bytes, "
                     "received 8 bytes"));
    ExpectError(E_INVALIDARG,
                TEXT("client: ZEM request data size 8 for CMD_JOIN < expected size 12, transId 7"));
}

TEST_F(Dispatch, EntityMayLieAnywhereInTheBuffer) {
    // Wherever the entity starts, nothing beyond the buffer is touched (the sanitizers watch).
    for (size_t room = 1; room <= 40; ++room) {
        SCOPED_TRACE(room);
        CFakeHttp own;
        RequestSpec given;
        given.entity = Command(3, kKeepAlive).substr(0, std::min<size_t>(room, 12));
        given.entityOffset = 4096 - room;
        given.received_bytes = 1000;
        const HRESULT hr = Process(given);
        ASSERT_EQ(own.SentCount(), 1u) << "exactly one answer";
        if (room >= 16) {
            EXPECT_EQ(hr, S_OK);
            EXPECT_EQ(own.Last().status, 200);
        } else {
            EXPECT_LT(hr, 0);
            EXPECT_EQ(own.Last().status, 500);
            EXPECT_TRUE(own.Last().chunks.empty()) << "there is no room for a reply";
        }
    }
}

TEST_F(Dispatch, EntityOutsideTheBufferIsUsedWhereItLies) {
    alignas(8) char elsewhere[64] = {};
    RequestSpec given;
    given.entity = Command(3, kKeepAlive) + "more";
    given.entityElsewhere = elsewhere;
    EXPECT_EQ(Process(given), S_OK);
    EXPECT_EQ(http.Last().chunks.at(0).address, elsewhere);
    EXPECT_EQ(http.Last().Body(), Bytes(DWORD{3}, DWORD{14}, DWORD{4}, DWORD{0}));
}

TEST_F(Dispatch, ShortEntityOutsideTheBufferIsNotReadPastItsEnd) {
    char elsewhere[5];
    RequestSpec given;
    given.entity = Command(3, kKeepAlive).substr(0, 5);
    given.entityElsewhere = elsewhere;
    EXPECT_EQ(Process(given), E_INVALIDARG);
    ASSERT_EQ(http.SentCount(), 1u);
    EXPECT_EQ(http.Last().reason, "Error 0x80070057");
}

// --- look-up and codes ---

TEST_F(Dispatch, KnownClientIsTouchedAndItsMessageCounted) {
    clock.SetTime(1000);
    Join();
    CZemChannelIo* const channel = Channel();
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(channel->Counters().realTimeIoMsgs, 0u);
    clock.SetTime(1030);
    Post(Command(2, kKeepAlive));
    EXPECT_EQ(channel->Counters().realTimeIoMsgs, 1u);
    const CZemClientRef client = server.LookupClient(TEXT("client"), false);
    EXPECT_EQ(client.Record()->lastRequestTime, 1030);
    EXPECT_EQ(client.Record()->requestCount, 2u);
}

TEST_F(Dispatch, UnknownClientStillReachesItsHandler) {
    EXPECT_EQ(Post(Command(2, kKeepAlive), "nobody"), S_OK);
    EXPECT_EQ(http.Last().status, 200);
}

TEST_F(Dispatch, CodesOutsideTheTableAreNotImplemented) {
    for (const DWORD code : {DWORD{0}, kCommandCount + 1, DWORD{255}, 0xFFFFFFFFu}) {
        CFakeHttp own;
        log.Reset();
        EXPECT_EQ(Post(Command(8, code)), E_NOTIMPL);
        WCHAR text[100];
        _snwprintf_s(text, 100, _TRUNCATE,
                     TEXT("client: ZEM command %d not implemented, transId 8."), code);
        ExpectError(E_NOTIMPL, text);
        ASSERT_EQ(own.SentCount(), 1u);
        EXPECT_EQ(own.Last().Word(4), static_cast<LONG>(code)) << "the request's own code";
        EXPECT_EQ(own.Last().Word(12), E_NOTIMPL);
    }
}

TEST_F(Dispatch, FailureOfTheReservedTransIdGetsTheStatusOnlyAnswer) {
    EXPECT_EQ(Post(Command(0xFFFFFFFFu, 99)), E_NOTIMPL);
    ExpectStatusOnly(E_NOTIMPL);
}

// An error log may give any number as the chain id of a failure: none of them is the word for a
// kept block, or for success.

TEST_F(Dispatch, FailureIsAnsweredWhateverItsChainId) {
    for (const DWORD chainId : {0u, 1u, 2u, 0x12345u, 0x80CC0001u}) {
        SCOPED_TRACE(chainId);
        log.chainId = [chainId](HRESULT) { return chainId; };
        {
            CFakeHttp own;
            EXPECT_NE(Post(Command(7, 99)), S_FALSE);
            ASSERT_EQ(own.SentCount(), 1u);
            EXPECT_EQ(own.Last().status, 500);
            EXPECT_EQ(own.Last().Body(), Bytes(DWORD{7}, DWORD{99}, DWORD{4}, chainId));
        }
        CFakeHttp own;
        RequestSpec given;
        given.withClientId = false;
        EXPECT_NE(Process(given), S_FALSE);
        ASSERT_EQ(own.SentCount(), 1u);
        char reason[40];
        snprintf(reason, sizeof(reason), "Error 0x%x", chainId);
        EXPECT_EQ(own.Last().reason, reason);
    }
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
}

TEST_F(Dispatch, HandlerThatFailsWithAPositiveChainIdIsAnsweredAndKeepsNoBlock) {
    constexpr DWORD kUpdateCfg = 14;
    for (const DWORD chainId : {0u, 1u, 2u}) {
        SCOPED_TRACE(chainId);
        CFakeHttp own;
        log.chainId = [chainId](HRESULT) { return chainId; };
        own.FeedBodyError(ERROR_NETNAME_DELETED);
        EXPECT_NE(Post(Command(7, kUpdateCfg, "ab", 100)), S_FALSE);
        ASSERT_EQ(own.SentCount(), 1u);
        EXPECT_EQ(own.Last().status, 500);
        EXPECT_EQ(own.Last().Body(), Bytes(DWORD{7}, kUpdateCfg, DWORD{4}, chainId));
    }
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
}

TEST_F(Dispatch, CommandThatCouldNotBeCompletedIsNotRunWhateverTheChainId) {
    log.chainId = [](HRESULT) { return 0u; };
    http.FeedBodyError(ERROR_NETNAME_DELETED);
    Post(Command(6, kJoin, "", 4));
    ASSERT_EQ(http.SentCount(), 1u);
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(http.Last().Word(4), 15);
    EXPECT_EQ(Channel(), nullptr);
}

TEST_F(Dispatch, EmptyClientIdIsAnIdLikeAnother) {
    EXPECT_EQ(Join(""), S_OK);
    ASSERT_NE(Channel(TEXT("")), nullptr);
    WCHAR id[kNameUnits];
    EXPECT_FALSE(server.GetRealTimeIoClient(id)) << "recorded, it says that there is none";
    EXPECT_EQ(Post(Command(2, kKeepAlive), ""), S_OK);
    EXPECT_EQ(server.LookupClient(TEXT(""), false).Record()->requestCount, 2u);
    EXPECT_EQ(Post(Command(3, kSetRealTime), ""), S_OK);
    EXPECT_FALSE(server.GetRealTimeIoClient(id));
    EXPECT_EQ(Post(Command(4, kLeave), ""), S_OK);
    EXPECT_EQ(Channel(TEXT("")), nullptr);
    EXPECT_EQ(http.SentCount(), 4u);
}

TEST_F(Dispatch, TransIdIsKeptInTheBlock) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(4711, kKeepAlive);
    Lay(xaction, given);
    EXPECT_EQ(xaction.TransId(), kNoTransId);
    server.ProcessRequest(xaction);
    EXPECT_EQ(xaction.TransId(), 4711u);
    EXPECT_TRUE(xaction.ReplySent());
    Pool().Release(&xaction);
    EXPECT_EQ(xaction.TransId(), kNoTransId);
}

// --- size rules ---

TEST_F(Dispatch, EveryCommandHasItsSizeRuleNameAndReplyCode) {
    struct Row {
        DWORD code;
        const char* name;
        DWORD reply;
        SizeRule rule;
    };
    constexpr SizeRule c = SizeRule::Completion, s = SizeRule::Strict;
    const Row rows[] = {{1, "CMD_CREATE_FILE", 2, c},
                        {2, "CMD_OPEN_FILE", 2, c},
                        {3, "CMD_READ_FRAME", 3, c},
                        {4, "CMD_WRITE_FRAME", 4, SizeRule::WriteFrame},
                        {5, "CMD_CLOSE_FILE", 5, c},
                        {6, "CMD_GET_FILE_INFO", 6, c},
                        {7, "CMD_GET_FILE_INFO2", 6, c},
                        {8, "CMD_GET_FRAME_DESC", 7, c},
                        {9, "CMD_GET_FRAME_DESC2", 7, c},
                        {10, "CMD_FLUSH_BUFFERS", 8, c},
                        {11, "CMD_GET_FILE_MARKS", 9, c},
                        {12, "CMD_GET_FILE_MARKS2", 9, c},
                        {13, "CMD_STRIPE_TIMECODE", 10, c},
                        {14, "CMD_UPDATE_CFG", 11, SizeRule::None},
                        {15, "CMD_JOIN", 12, c},
                        {16, "CMD_LEAVE", 13, s},
                        {17, "CMD_KEEP_ALIVE", 14, s},
                        {18, "CMD_SET_IO_REAL_TIME", 15, s},
                        {19, "CMD_QUERY_FILESYSTEM_SPACE", 16, c},
                        {20, "CMD_GET_FILE_ATTRIBS", 17, c},
                        {21, "CMD_DELETE_FILE", 18, c},
                        {22, "CMD_GET_FILESIZE", 19, c},
                        {23, "CMD_CREATE_DIRECTORY", 20, c},
                        {24, "CMD_MOVE_FILE", 21, c},
                        {25, "CMD_ERASE_SEGMENT", 22, c},
                        {26, "CMD_UPDATE_CFG_ATTR_STR", 23, c}};
    static_assert(std::size(rows) == kCommandCount);
    for (const Row& row : rows) {
        const CommandRow* command = FindCommand(row.code);
        ASSERT_NE(command, nullptr);
        EXPECT_EQ(command->code, row.code);
        EXPECT_STREQ(command->name, row.name);
        EXPECT_EQ(command->replyCode, row.reply);
        EXPECT_EQ(command->sizeRule, row.rule);
    }
}

TEST_F(Dispatch, EveryCommandThatIsTooShortIsRefusedInItsWords) {
    for (const CommandRow& row : kCommands) {
        if (row.sizeRule == SizeRule::None) continue;
        SCOPED_TRACE(row.name);
        CFakeHttp own;  // the network brings nothing more
        log.Reset();
        EXPECT_EQ(Post(Command(6, row.code, "ab", 10)), E_INVALIDARG);
        const bool brackets = row.sizeRule != SizeRule::Completion;
        WCHAR text[200];
        _snwprintf_s(text, 200, _TRUNCATE,
                     brackets ? TEXT("client: ZEM request data size (14) for %S < expected size "
                                     "(22), transId 6")
                              : TEXT("client: ZEM request data size 14 for %S < expected size 22, "
                                     "transId 6"),
                     row.name);
        ExpectError(E_INVALIDARG, text);
        EXPECT_EQ(own.BodyReads().size(), row.sizeRule == SizeRule::Strict ? 0u : 1u);
        ASSERT_EQ(own.SentCount(), 1u);
        EXPECT_EQ(own.Last().Body(), Bytes(DWORD{6}, row.code, DWORD{4}, E_INVALIDARG));
    }
}

TEST_F(Dispatch, LeaveThatIsTooShortIsRefusedAtOnce) {
    http.FeedBody("more");
    EXPECT_EQ(Post(Command(6, kLeave, "", 4)), E_INVALIDARG);
    EXPECT_TRUE(http.BodyReads().empty());
    ExpectGenericFailure(kLeave, E_INVALIDARG, 6);
}

TEST_F(Dispatch, JoinThatIsTooShortIsCompletedFromTheNetwork) {
    http.FeedBody(std::string("\xFF\0", 2));
    http.FeedBody(std::string("\0\0", 2));
    SetTracing(true);
    EXPECT_EQ(Post(Command(6, kJoin, "", 4)), S_OK);
    ASSERT_EQ(http.BodyReads().size(), 2u);
    EXPECT_EQ(http.BodyReads()[0].asked_bytes, 4u);
    EXPECT_EQ(http.BodyReads()[1].asked_bytes, 2u);
    EXPECT_EQ(http.BodyReads()[0].flags, 0u);
    EXPECT_EQ(log.Count(kErrorLogLevelTrace, TEXT("client: read remaining len 2")), 2u);
    EXPECT_TRUE(
        log.Has(kErrorLogLevelTrace, TEXT("client: handling CMD_JOIN, chanId 255, transId 6")));
}

TEST_F(Dispatch, CompletionIsSilentWithoutTheTraceFlag) {
    http.FeedBody(Bytes(DWORD{255}));
    EXPECT_EQ(Post(Command(6, kJoin, "", 4)), S_OK);
    EXPECT_TRUE(log.Empty());
}

TEST_F(Dispatch, CompletionCountsItsReadsAndGrowsChunkAndTotal) {
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(6, kJoin, "ab", 10);
    Lay(xaction, given);
    http.FeedBody("cdef");
    http.FeedBody("ghij");
    const ULONGLONG before = xaction.Request()->BytesReceived;
    ZemCommand command{};
    command.clientId = TEXT("client");
    command.xaction = &xaction;
    command.received_bytes = 14;
    command.expected_bytes = 22;
    EXPECT_EQ(server.GetCompleteRequest(command), S_OK);
    EXPECT_EQ(command.received_bytes, 22u);
    EXPECT_EQ(xaction.ReceiveCount(), 2);
    EXPECT_EQ(xaction.Request()->BytesReceived, before + 8);
    const HTTP_DATA_CHUNK& chunk = xaction.Request()->pEntityChunks[0];
    EXPECT_EQ(chunk.FromMemory.BufferLength, 22u);
    EXPECT_EQ(std::string(static_cast<char*>(chunk.FromMemory.pBuffer) + 12, 10), "abcdefghij");
    EXPECT_EQ(http.BodyReads()[0].requestId, xaction.RequestId());
    EXPECT_EQ(http.BodyReads()[1].destination, static_cast<char*>(chunk.FromMemory.pBuffer) + 18);
    Pool().Release(&xaction);
}

TEST_F(Dispatch, NetworkErrorWhileCompletingIsLoggedBeforeTheSizeMessage) {
    http.FeedBody("ab");
    http.FeedBodyError(ERROR_NETNAME_DELETED);
    EXPECT_EQ(Post(Command(6, kJoin, "", 4)), E_INVALIDARG);
    ExpectError(HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED),
                TEXT("client: Error receving remaining ZEM request. Total request sz 16 bytes, "
                     "received 14 bytes"));
    ExpectError(
        E_INVALIDARG,
        TEXT("client: ZEM request data size 12 for CMD_JOIN < expected size 16, transId 6"));
    ExpectGenericFailure(kJoin, E_INVALIDARG, 6);
}

TEST_F(Dispatch, ReadThatSucceedsWithNothingDoesNotSpin) {
    http.FeedBodyError(NO_ERROR);
    EXPECT_EQ(Post(Command(6, kJoin, "", 4)), E_INVALIDARG);
    EXPECT_EQ(http.BodyReads().size(), 1u);
    ExpectError(HRESULT_FROM_WIN32(ERROR_HANDLE_EOF),
                TEXT("client: Error receving remaining ZEM request. Total request sz 16 bytes, "
                     "received 12 bytes"));
}

TEST_F(Dispatch, CommandThatCannotFitIsRefusedEvenIfItAllArrives) {
    http.FeedBody(std::string(5000, 'x'));
    EXPECT_EQ(Post(Command(6, kJoin, "", 4000)), E_INVALIDARG);
    EXPECT_TRUE(http.BodyReads().empty());
    ExpectGenericFailure(kJoin, E_INVALIDARG, 6);
    ExpectError(
        E_INVALIDARG,
        TEXT("client: ZEM request data size 12 for CMD_JOIN < expected size 4012, transId 6"));
}

TEST_F(Dispatch, SizeThatWrapsIsTakenIn32Bits) {
    // 0xFFFFFFF8 + 12 is 4: less than what was received, so nothing is fetched.
    EXPECT_EQ(Post(Command(6, kKeepAlive, "", 0xFFFFFFF8u)), S_OK);
    EXPECT_TRUE(http.BodyReads().empty());
    // The largest size that does not wrap cannot fit.
    CFakeHttp own;
    EXPECT_EQ(Post(Command(6, kJoin, "", 0xFFFFFFF3u)), E_INVALIDARG);
    EXPECT_TRUE(own.BodyReads().empty());
}

class Completion : public Dispatch {
protected:
    Completion() : xaction(Take()) { http.FeedBody(std::string(4096, 'x')); }
    ~Completion() override { Pool().Release(&xaction); }
    // Lays the request out and asks for its completion, which must be refused with this trace.
    void ExpectRefusal(const RequestSpec& given, DWORD expected_bytes, const WCHAR* format) {
        Lay(xaction, given);
        ZemCommand command{};
        command.clientId = TEXT("client");
        command.xaction = &xaction;
        command.received_bytes = given.entity.size();
        command.expected_bytes = expected_bytes;
        EXPECT_EQ(server.GetCompleteRequest(command), S_FALSE);
        EXPECT_TRUE(http.BodyReads().empty());
        const auto traces = log.Texts(kErrorLogLevelTrace);
        ASSERT_EQ(traces.size(), 1u);
        const BYTE* buffer = xaction.RequestBuffer();
        const auto low = [](const void* address) {
            return static_cast<unsigned>(reinterpret_cast<uintptr_t>(address));
        };
        const unsigned start = low(xaction.Request()->pEntityChunks[0].FromMemory.pBuffer);
        WCHAR text[300];
        _snwprintf_s(text, 300, _TRUNCATE, format, start, low(buffer), low(buffer + 4096));
        EXPECT_EQ(traces[0], text);
        EXPECT_EQ(command.received_bytes, given.entity.size());
    }
    CHttpXaction& xaction;
};

TEST_F(Completion, RefusesWhenTheBufferWasFull) {
    RequestSpec given;
    given.entity = Command(1, kJoin);
    given.received_bytes = 4096;
    ExpectRefusal(given, 16,
                  TEXT("client: No space in HTTP request buffer, request bytes 4096, buffer sz "
                       "4096!"));
}

TEST_F(Completion, AcceptsOneByteLess) {
    RequestSpec given;
    given.entity = Command(1, kJoin, "", 4);
    given.received_bytes = 4095;
    EXPECT_EQ(Process(given), S_OK);
}

TEST_F(Completion, RefusesSeveralChunks) {
    RequestSpec given;
    given.entity = Command(1, kJoin);
    given.chunkCount = 3;
    ExpectRefusal(given, 16, TEXT("client: Found 3 entity chunks in HTTP request buffer!"));
}

TEST_F(Completion, RefusesAChunkBelowOrAboveTheBuffer) {
    std::vector<char> elsewhere(64);
    RequestSpec given;
    given.entity = Command(1, kJoin);
    given.entityElsewhere = elsewhere.data();
    ExpectRefusal(
        given, 16,
        TEXT("client: First partial Entity chunk 0x%x beyond request buffer (0x%x 0x%x]!"));
}

TEST_F(Completion, RefusesWhatDoesNotFitBehindTheStart) {
    RequestSpec given;
    given.entity = Command(1, kJoin);
    given.entityOffset = 4096 - 20;
    given.received_bytes = 2000;
    Lay(xaction, given);
    ZemCommand command{};
    command.clientId = TEXT("client");
    command.xaction = &xaction;
    command.received_bytes = 12;
    command.expected_bytes = 21;
    EXPECT_EQ(server.GetCompleteRequest(command), S_FALSE);
    const auto low = [](const void* address) {
        return static_cast<unsigned>(reinterpret_cast<uintptr_t>(address));
    };
    WCHAR text[300];
    _snwprintf_s(text, 300, _TRUNCATE,
                 TEXT("client: Full request 21 bytes (tot recvd 2000) cannot fit in entity buffer; "
                      "entity start 0x%x req end 0x%x"),
                 low(xaction.RequestBuffer() + 4096 - 20), low(xaction.RequestBuffer() + 4096));
    EXPECT_TRUE(log.Has(kErrorLogLevelTrace, text));
    command.expected_bytes = 20;
    EXPECT_EQ(server.GetCompleteRequest(command), S_OK) << "the last byte of the buffer is used";
}

// --- what the frame write is given ---

class WriteSizes : public Dispatch {
protected:
    // Runs a frame write of an unknown client: the handler answers S_OK and logs why.
    void Write(const RequestSpec& given) {
        EXPECT_EQ(Process(given), S_OK);
        ASSERT_EQ(http.SentCount(), 1u);
        EXPECT_EQ(http.Last().Word(4), 4);
    }
};

TEST_F(WriteSizes, FrameDataBehindTheBodyDoesNotCountAsBody) {
    const std::string body = Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + std::string(96, '\0');
    RequestSpec given;
    given.entity = Command(2, 4, body) + "payload";
    given.contentLength = std::to_string(given.entity.size());
    Write(given);
    EXPECT_TRUE(http.BodyReads().empty());
}

TEST_F(WriteSizes, ContentLengthsOutOfRangeAreMismatches) {
    Join();
    const std::string body = Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + std::string(96, '\0');
    const int expected = static_cast<int>(12 + body.size());
    struct Row {
        const char* text;
        int payload;  // the low half, as the record prints it
    };
    for (const Row& row :
         {Row{"99999999999999999999999", -1 - expected}, Row{"9223372036854775808", -1 - expected},
          Row{"9223372036854775807", -1 - expected}, Row{"-9223372036854775808", -expected},
          Row{"-1", -expected}}) {
        SCOPED_TRACE(row.text);
        CFakeHttp own;
        log.Reset();
        RequestSpec given;
        given.entity = Command(2, 4, body);
        given.contentLength = row.text;
        EXPECT_EQ(Process(given), S_OK);
        EXPECT_EQ(own.SentCount(), 1u);
        EXPECT_TRUE(own.BodyReads().empty());
        WCHAR text[200];
        _snwprintf_s(text, 200, _TRUNCATE,
                     TEXT("client: WriteFrame data size in header (0 bytes) and payload (%d bytes) "
                          "mismatch, pos 0, transId 2"),
                     row.payload);
        ExpectError(E_UNEXPECTED, text);
    }
    EXPECT_EQ(media.Count("WriteFrame"), 0u);
}

TEST_F(WriteSizes, BodyIsCompletedBeforeTheHandler) {
    const std::string body = Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + std::string(96, '\0');
    RequestSpec given;
    given.entity = Command(2, 4, body).substr(0, 50);
    http.FeedBody(Command(2, 4, body).substr(50));
    Write(given);
    EXPECT_EQ(http.BodyReads().at(0).asked_bytes, 12 + body.size() - 50);
}

// --- answering once ---

TEST_F(Dispatch, HandlerThatRepliedGetsNoSecondAnswer) {
    http.sendError = ERROR_NETNAME_DELETED;
    Post(Command(2, kKeepAlive));
    EXPECT_EQ(http.SentCount(), 1u) << "also when the send failed";
}

TEST_F(Dispatch, GenericFailureOfAJoinCarriesTheRequestCode) {
    EXPECT_EQ(Post(Command(2, kJoin, "", 4)), E_INVALIDARG);
    EXPECT_EQ(http.Last().Word(4), 15) << "not 12";
}

TEST_F(Dispatch, EveryPostIsAnsweredExactlyOnce) {
    Join();
    for (DWORD code = 0; code <= 30; ++code) {
        for (const size_t bytes : {0u, 4u, 16u, 100u, 1100u}) {
            SCOPED_TRACE(std::to_string(code) + " with " + std::to_string(bytes));
            CFakeHttp own;
            Post(Command(2, code, std::string(bytes, '\0')));
            EXPECT_EQ(own.SentCount(), 1u);
        }
        Join();
    }
    EXPECT_EQ(Pool().FreeCount(), kBlocks) << "every block came home";
}

TEST_F(Dispatch, RandomRequestsAreAnsweredOnceAndStayInTheirBuffer) {
    const unsigned seed = std::random_device{}();
    printf("seed %u\n", seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 3000; ++i) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " request " + std::to_string(i));
        if (i % 50 == 0) Join();
        CFakeHttp own;
        std::string entity(random() % 1400, '\0');
        for (char& byte : entity)
            byte = random() % 4 ? '\0' : static_cast<char>(random());
        if (entity.size() >= 12 && random() % 8) {
            const std::string header =
                Command(static_cast<DWORD>(random()), static_cast<DWORD>(random() % 28), "",
                        static_cast<DWORD>(entity.size() - 12 + random() % 3));
            entity.replace(0, 12, header);
        }
        if (random() % 2) own.FeedBody(std::string(random() % 4, 'x'));
        RequestSpec given;
        given.entity = entity;
        given.contentLength = std::to_string(random() % 3000);
        Process(given);
        EXPECT_EQ(own.SentCount(), 1u);
    }
    EXPECT_EQ(Pool().FreeCount(), kBlocks);
    log.Reset();
}

TEST_F(Dispatch, KeepAliveOfAJoinedClientAllocatesNothing) {
    Join();
    CHttpXaction& xaction = Take();
    RequestSpec given;
    given.entity = Command(2, kKeepAlive);
    Lay(xaction, given);
    xaction.SetStartTick(GetTickCount());
    int sends = 0;
    http.rawSend = [&](HTTP_RESPONSE&) {
        ++sends;
        return ULONG{NO_ERROR};
    };
    const uint64_t before = AllocationsOfThisThread();
    server.ProcessRequest(xaction);
    EXPECT_EQ(AllocationsOfThisThread(), before);
    EXPECT_EQ(sends, 1);
    http.rawSend = nullptr;
    Pool().Release(&xaction);
}

}  // namespace
