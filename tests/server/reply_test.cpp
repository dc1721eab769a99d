// Replies: what is laid over the request, which headers and status go out, what is counted, marked
// and logged.
#include "tests/fakes/serverfixture.h"
#include "zemhttpd/entry/entrypoint.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

class Reply : public CServerFixture {
protected:
    Reply() : xaction(Take()) {
        RequestSpec given;
        given.entity =
            Command(0x0A0B0C0D, 15, std::string("request body that a reply must not leak"));
        Lay(xaction, given);
        xaction.SetTransId(0x0A0B0C0D);
        clock.SetTick(10000);
        xaction.SetStartTick(10000);
        xaction.Timer().StartXaction(TEXT("client"), TEXT("TEST"), 1);
    }
    ~Reply() override { Pool().Release(&xaction); }

    std::vector<DWORD> Stages() {
        std::vector<DWORD> stages;
        for (LONG i = 0; i < std::min(xaction.Timer().Count(), LONG{25}); ++i)
            stages.push_back(static_cast<DWORD>(xaction.Timer().StageAt(i) >> 32));
        return stages;
    }
    HTTP_DATA_CHUNK& Chunk() { return xaction.Request()->pEntityChunks[0]; }

    CHttpXaction& xaction;
};

TEST_F(Reply, MessageIsLaidOverTheRequest) {
    BYTE* body = nullptr;
    const void* const place = Chunk().FromMemory.pBuffer;
    EXPECT_EQ(server.GetZemReplyMsg(xaction, 4, 12, &body), S_OK);
    EXPECT_EQ(body, static_cast<const BYTE*>(place) + 12);
    EXPECT_EQ(xaction.Response().EntityChunkCount, 1);
    EXPECT_EQ(xaction.Response().pEntityChunks, &Chunk());
    EXPECT_EQ(Chunk().FromMemory.BufferLength, 16u);
    EXPECT_EQ(std::memcmp(place, Bytes(DWORD{0x0A0B0C0D}, DWORD{12}, DWORD{4}).data(), 12), 0)
        << "the transId stays";
}

TEST_F(Reply, MessageLengthIsCutTo16BitsButTheSizeFieldIsWhole) {
    BYTE* body = nullptr;
    EXPECT_EQ(server.GetZemReplyMsg(xaction, 65536 + 100, 12, &body), S_OK);
    EXPECT_EQ(Chunk().FromMemory.BufferLength, 112u);
    DWORD size = 0;
    std::memcpy(&size, body - 4, sizeof(size));
    EXPECT_EQ(size, 65636u);
    EXPECT_EQ(server.GetZemReplyMsg(xaction, 65536, 12, &body), S_OK);
    EXPECT_EQ(Chunk().FromMemory.BufferLength, 12u);
}

TEST_F(Reply, MessageThatDoesNotFitBehindTheChunkIsRefused) {
    BYTE* body = nullptr;
    const DWORD room = static_cast<DWORD>(xaction.RequestBuffer() + 4096 -
                                          static_cast<BYTE*>(Chunk().FromMemory.pBuffer));
    EXPECT_EQ(server.GetZemReplyMsg(xaction, room - 12, 12, &body), S_OK);
    body = nullptr;
    EXPECT_EQ(server.GetZemReplyMsg(xaction, room - 11, 12, &body), E_INVALIDARG);
    EXPECT_EQ(server.GetZemReplyMsg(xaction, 65535, 12, &body), E_INVALIDARG);
    EXPECT_EQ(body, nullptr);
    EXPECT_EQ(server.GetZemReplyMsg(xaction, 4, 12, nullptr), E_INVALIDARG);
    xaction.Request()->EntityChunkCount = 0;
    EXPECT_EQ(server.GetZemReplyMsg(xaction, 4, 12, &body), E_INVALIDARG);
}

TEST_F(Reply, CommandReplyIsExactlyThis) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    const HRESULT status = S_OK;
    std::memcpy(body, &status, sizeof(status));
    EXPECT_EQ(server.SendZemHttpResponse(xaction, S_OK, 16, TEXT("client")), S_OK);
    ASSERT_EQ(http.SentCount(), 1u);
    const SentResponse reply = http.Last();
    EXPECT_EQ(reply.requestId, xaction.RequestId());
    EXPECT_EQ(reply.queue, access.RequestQueue());
    EXPECT_EQ(reply.flags, 0u);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.reason, "OK");
    const std::vector<std::pair<HTTP_HEADER_ID, std::string>> known = {
        {HttpHeaderContentLength, "16"},
        {HttpHeaderContentType, "application/octet-string"},
        {HttpHeaderServer, "Quorvane ZEM /1.2.3.4"}};
    EXPECT_EQ(reply.known, known);
    const std::vector<std::pair<std::string, std::string>> unknown = {{"zem-resphdr-len", "16"},
                                                                      {"zem-ver", "1"}};
    EXPECT_EQ(reply.unknown, unknown);
    EXPECT_EQ(reply.Body(), std::string("\x0D\x0C\x0B\x0A\x0C\0\0\0\x04\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(xaction.SendCount(), 1);
    EXPECT_TRUE(xaction.ReplySent());
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0, 6, 8}));
    EXPECT_TRUE(log.Empty());
}

TEST_F(Reply, NothingOfASentReplyStaysInTheResponse) {
    for (const ULONG error : {ULONG{NO_ERROR}, ULONG{ERROR_NETNAME_DELETED}}) {
        http.sendError = error;
        const auto expectCleared = [this] {
            const HTTP_RESPONSE& response = xaction.Response();
            EXPECT_EQ(response.pReason, nullptr);
            EXPECT_EQ(response.ReasonLength, 0);
            EXPECT_EQ(response.EntityChunkCount, 0);
            EXPECT_EQ(response.pEntityChunks, nullptr);
            EXPECT_EQ(response.Headers.UnknownHeaderCount, 0);
            EXPECT_EQ(response.Headers.pUnknownHeaders, nullptr);
        };
        BYTE* body = nullptr;
        server.GetZemReplyMsg(xaction, 4, 12, &body);
        server.SendZemHttpResponse(xaction, E_FAIL, 16, TEXT("client"));
        expectCleared();
        EXPECT_EQ(xaction.Response().Headers.KnownHeaders[HttpHeaderContentLength].pRawValue,
                  nullptr);
        server.SendGenericZemFailureResponse(E_FAIL, TEXT("client"), xaction);
        expectCleared();
        server.SendStatusOnlyError(E_FAIL, TEXT("client"), xaction);
        expectCleared();
    }
}

TEST_F(Reply, HeaderLengthFollowsTheReplyHeaderAndContentLengthTheHandler) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 104, 3, &body);
    server.SendZemHttpResponse(xaction, S_OK, 5'000'000'000ull, TEXT("client"));
    EXPECT_EQ(http.Last().Header(HttpHeaderContentLength), "5000000000");
    EXPECT_EQ(http.Last().unknown[0].second, "116");
}

TEST_F(Reply, FailedResultGives500AndThePreparedBody) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    std::memset(body, 0x5A, 4);
    server.SendZemHttpResponse(xaction, E_FAIL, 16, TEXT("client"));
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(http.Last().reason, "Failed 0x80004005");
    EXPECT_EQ(http.Last().Word(12), 0x5A5A5A5A);
}

TEST_F(Reply, PositiveResultIsNotOk) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    server.SendZemHttpResponse(xaction, S_FALSE, 16, TEXT("client"));
    EXPECT_EQ(http.Last().status, 500);
    EXPECT_EQ(http.Last().reason, "Failed 0x1");
}

TEST_F(Reply, SendErrorIsMarkedAndLoggedAndTheReplyCountsAsSent) {
    http.sendError = ERROR_NETNAME_DELETED;
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    server.SendZemHttpResponse(xaction, S_OK, 16, TEXT("client"));
    const LogRecord error =
        log.Error(TEXT("client: Error sending HTTP reply for cmd 12, transId 168496141"));
    EXPECT_EQ(error.hr, HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED));
    EXPECT_EQ(error.file, TEXT("httpcmdhdlr.cpp"));
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0, 6, 7}));
    EXPECT_EQ(xaction.SendCount(), 0);
    EXPECT_TRUE(xaction.ReplySent());
}

TEST_F(Reply, Exactly500MillisecondsAreNotSlow) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    clock.AdvanceTick(500);
    server.SendZemHttpResponse(xaction, S_OK, 16, TEXT("client"));
    EXPECT_TRUE(log.Empty());
    xaction.Timer().Discard();
}

TEST_F(Reply, MoreThan500MillisecondsAreSlow) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    clock.AdvanceTick(501);
    server.SendZemHttpResponse(xaction, S_OK, 16, TEXT("client"));
    const auto messages = log.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].level, kErrorLogLevelSlowOperation);
    EXPECT_EQ(messages[0].elapsed_ms, 501u);
    EXPECT_EQ(messages[0].text,
              TEXT("client: Slow ZEM HTTP server processing for reply code 12, transId 168496141"));
    xaction.Timer().Discard();
}

TEST_F(Reply, SlownessIsMeasuredAcrossTheWrapOfTheTickCounter) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    xaction.SetStartTick(0xFFFFFF00u);
    clock.SetTick(0x200);
    server.SendZemHttpResponse(xaction, S_OK, 16, TEXT("client"));
    ASSERT_EQ(log.Messages().size(), 1u);
    EXPECT_EQ(log.Messages()[0].elapsed_ms, 0x300u);
    xaction.Timer().Discard();
}

TEST_F(Reply, GenericFailureIsExactlyThis) {
    server.SendGenericZemFailureResponse(E_NOTIMPL, TEXT("client"), xaction);
    ASSERT_EQ(http.SentCount(), 1u);
    const SentResponse reply = http.Last();
    EXPECT_EQ(reply.status, 500);
    EXPECT_EQ(reply.reason, "Failed ZEM request code 15 (hr = 0x80004001), transId 168496141");
    EXPECT_EQ(reply.Body(), std::string("\x0D\x0C\x0B\x0A\x0F\0\0\0\x04\0\0\0\x01\x40\0\x80", 16));
    EXPECT_EQ(reply.Header(HttpHeaderContentLength), "16");
    EXPECT_EQ(reply.Header(HttpHeaderContentType), "application/octet-string");
    EXPECT_EQ(reply.Header(HttpHeaderServer), "Quorvane ZEM /1.2.3.4");
    const std::vector<std::pair<std::string, std::string>> unknown = {{"zem-resphdr-len", "16"},
                                                                      {"zem-ver", "1"}};
    EXPECT_EQ(reply.unknown, unknown);
    EXPECT_EQ(xaction.SendCount(), 1);
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0, 8}));
    EXPECT_FALSE(xaction.ReplySent()) << "left to the caller";
}

TEST_F(Reply, GenericFailureIsNeverSlow) {
    clock.AdvanceTick(5000);
    server.SendGenericZemFailureResponse(E_NOTIMPL, TEXT("client"), xaction);
    EXPECT_TRUE(log.Empty());
    xaction.Timer().Discard();
}

TEST_F(Reply, GenericFailureThatCannotBeSentIsLogged) {
    http.sendError = ERROR_CONNECTION_INVALID;
    server.SendGenericZemFailureResponse(E_NOTIMPL, TEXT("client"), xaction);
    EXPECT_EQ(
        log
            .Error(TEXT(
                "client: Error sending HTTP genric failure reply for cmd 15, transId 168496141"))
            .hr,
        HRESULT_FROM_WIN32(ERROR_CONNECTION_INVALID));
    EXPECT_EQ(xaction.SendCount(), 0);
    EXPECT_EQ(Stages(), (std::vector<DWORD>{0}));
}

TEST_F(Reply, GenericFailureThatCannotBeLaidOutBecomesTheStatusOnlyOne) {
    Chunk().FromMemory.pBuffer = xaction.RequestBuffer() + 4096 - 15;
    server.SendGenericZemFailureResponse(E_NOTIMPL, TEXT("client"), xaction);
    ASSERT_EQ(http.SentCount(), 1u);
    EXPECT_EQ(http.Last().reason, "Error 0x80004001");
}

TEST_F(Reply, BasicResponseHasNoEntityAndNoHeadersOfItsOwn) {
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);  // begun, then given up
    server.SendHttpResponse(TEXT("client"), xaction, 405, "HTTP method not allowed");
    const SentResponse reply = http.Last();
    EXPECT_EQ(reply.status, 405);
    EXPECT_EQ(reply.reason, "HTTP method not allowed");
    const std::vector<std::pair<HTTP_HEADER_ID, std::string>> known = {
        {HttpHeaderContentLength, "0"}, {HttpHeaderServer, "Quorvane ZEM /1.2.3.4"}};
    EXPECT_EQ(reply.known, known);
    EXPECT_TRUE(reply.unknown.empty());
    EXPECT_TRUE(reply.chunks.empty());
    EXPECT_EQ(xaction.SendCount(), 1);
    EXPECT_TRUE(xaction.ReplySent());
}

TEST_F(Reply, BasicResponseThatCannotBeSentIsLoggedOnlyWhenTracing) {
    http.sendError = ERROR_NETNAME_DELETED;
    server.SendHttpResponse(TEXT("client"), xaction, 400, "Bad Request");
    EXPECT_TRUE(log.Empty());
    EXPECT_EQ(xaction.SendCount(), 1) << "counted whether sent or not";
    EXPECT_TRUE(xaction.ReplySent());
    SetTracing(true);
    server.SendHttpResponse(TEXT("client"), xaction, 400, "Bad Request");
    EXPECT_EQ(log.Error(TEXT("client: Error sending basic HTTP response")).hr,
              HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED));
    log.Reset();
    server.SendHttpResponse(nullptr, xaction, 400, "Bad Request");
    EXPECT_EQ(log.Error(TEXT(": Error sending basic HTTP response")).kind, LogRecord::Ex);
}

TEST_F(Reply, LogThatThrowsLeavesOneAnswer) {
    http.sendError = ERROR_NETNAME_DELETED;
    SetTracing(true);
    BYTE* body = nullptr;
    server.GetZemReplyMsg(xaction, 4, 12, &body);
    constexpr HRESULT kGone = HRESULT_FROM_WIN32(ERROR_NETNAME_DELETED);
    log.written = ThrowAt(TEXT("client: Error sending HTTP reply"));
    EXPECT_EQ(server.SendZemHttpResponse(xaction, S_OK, 16, TEXT("client")), kGone);
    EXPECT_TRUE(xaction.ReplySent()) << "or dispatch would answer again";
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::SendZemHttpResponse")), 1u);

    log.written = ThrowAt(TEXT("client: Error sending HTTP genric"));
    EXPECT_EQ(server.SendGenericZemFailureResponse(E_NOTIMPL, TEXT("client"), xaction), kGone);
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::SendGenericZemFailureResponse")), 1u);

    CHttpXaction& other = Take();
    Lay(other, RequestSpec{});
    log.written = ThrowAt(TEXT("client: Error sending basic"));
    EXPECT_EQ(server.SendHttpResponse(TEXT("client"), other, 405, "no"), kGone);
    EXPECT_EQ(other.SendCount(), 1);
    EXPECT_TRUE(other.ReplySent());
    EXPECT_EQ(log.EntryPoints(TEXT("CHttpCommandHandler::SendHttpResponse")), 1u);
    Pool().Release(&other);
}

}  // namespace
