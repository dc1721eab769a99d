// Receiving: how a request lies in the posted buffer, its body, and what an id is good for.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <chrono>
#include <cstring>
#include <set>

#include "http_support.h"

namespace httptest {
namespace {

TEST(Receive, BufferSmallerThanTheStructure) {
    CServer server(0);
    std::vector<uint64_t> buffer(512);
    OVERLAPPED overlapped{};
    auto* request = reinterpret_cast<HTTP_REQUEST*>(buffer.data());
    EXPECT_EQ(HttpReceiveHttpRequest(server.Queue(), 0, 0, request, sizeof(HTTP_REQUEST) - 1,
                                     nullptr, &overlapped),
              ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(HttpReceiveHttpRequest(server.Queue(), 0, 2, request, 4096, nullptr, &overlapped),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(HttpReceiveHttpRequest(server.Queue(), 0, 0, nullptr, 4096, nullptr, &overlapped),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(HttpReceiveHttpRequest(nullptr, 0, 0, request, 4096, nullptr, &overlapped),
              ERROR_INVALID_HANDLE);
}

TEST(Receive, StructureFitsHeadersDoNotThenItIsFetchedByItsIdOnly) {
    CServer server(0);
    server.Post(sizeof(HTTP_REQUEST) + 32);
    CClient client(server.TcpPort());
    client.Send(PostHead(5, "User-Agent: test\r\n") + "hello");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->error, ERROR_MORE_DATA);
    EXPECT_GT(block->bytes, block->size);
    const HTTP_REQUEST_ID id = block->Id();
    ASSERT_NE(id, HTTP_NULL_ID);

    CBlock* other = server.Post(4096);  // does not get it
    server.Settle();
    std::vector<uint64_t> memory(1024);
    auto* request = reinterpret_cast<HTTP_REQUEST*>(memory.data());
    ULONG bytes = 0;
    EXPECT_EQ(
        HttpReceiveHttpRequest(server.Queue(), id, 1, request, block->bytes - 8, &bytes, nullptr),
        ERROR_MORE_DATA);
    EXPECT_EQ(bytes, block->bytes);
    EXPECT_EQ(HttpReceiveHttpRequest(server.Queue(), id, 1, request, 8192, &bytes, nullptr),
              NO_ERROR);
    EXPECT_EQ(request->RequestId, id);
    ASSERT_EQ(request->EntityChunkCount, 1);
    EXPECT_EQ(request->pEntityChunks[0].FromMemory.BufferLength, 5u);
    EXPECT_EQ(HttpReceiveHttpRequest(server.Queue(), id, 1, request, 8192, &bytes, nullptr),
              ERROR_INVALID_PARAMETER);  // it was fetched
    EXPECT_EQ(server.Reply(id, "ok"), NO_ERROR);
    EXPECT_EQ(client.Read().body, "ok");
    client.Send(Get("/zem/"));
    EXPECT_EQ(server.Take(), other);
    server.Reply(other->Id(), "");
}

TEST(Receive, StructureComesFirstThenAllItPointsToAndTheRestIsLeftAlone) {
    constexpr char kOld = '\x5a';
    CServer server(0);
    CBlock* block = server.Post(4096);
    memset(block->Request() + 1, kOld, block->size - sizeof(HTTP_REQUEST));
    CClient client(server.TcpPort());
    client.Send(
        "POST /zem/a%20b?q=%41 HTTP/1.1\r\nHost: h:81\r\nUser-Agent:  x/1 \t\r\n"
        "Zem-Id: one\r\nContent-Length: 3\r\nX-Two:\r\n\r\nabc");
    ASSERT_EQ(server.Take(), block);
    const HTTP_REQUEST& request = *block->Request();
    EXPECT_EQ(request.Verb, HttpVerbPOST);
    EXPECT_EQ(request.Version.MajorVersion, 1);
    EXPECT_EQ(request.Version.MinorVersion, 1);
    EXPECT_EQ(request.Flags, 0u);
    EXPECT_NE(request.ConnectionId, 0u);
    EXPECT_EQ(request.UrlContext, 0u);
    EXPECT_EQ(request.pSslInfo, nullptr);
    EXPECT_EQ(std::string(request.pRawUrl), "/zem/a%20b?q=%41");
    EXPECT_EQ(request.RawUrlLength, 16);
    EXPECT_EQ(block->Known(HttpHeaderUserAgent), "x/1");
    EXPECT_EQ(block->Known(HttpHeaderContentLength), "3");
    EXPECT_EQ(block->Known(HttpHeaderAccept), "(none)");
    EXPECT_EQ(block->Known(HttpHeaderUserAgent).size(),
              strlen(request.Headers.KnownHeaders[HttpHeaderUserAgent].pRawValue));
    ASSERT_EQ(request.Headers.UnknownHeaderCount, 2);
    const HTTP_UNKNOWN_HEADER* unknown = request.Headers.pUnknownHeaders;
    EXPECT_STREQ(unknown[0].pName, "Zem-Id");
    EXPECT_STREQ(unknown[0].pRawValue, "one");
    EXPECT_EQ(unknown[0].RawValueLength, 3);
    EXPECT_STREQ(unknown[1].pName, "X-Two");
    EXPECT_EQ(unknown[1].RawValueLength, 0);
    EXPECT_EQ(request.Headers.TrailerCount, 0);
    ASSERT_NE(request.Address.pRemoteAddress, nullptr);

    const auto* base = reinterpret_cast<const char*>(block->memory.get());
    const auto inside = [&](const void* p) {
        return p >= base + sizeof(HTTP_REQUEST) && p < base + block->bytes;
    };
    EXPECT_TRUE(inside(request.pRawUrl) && inside(unknown) && inside(unknown[0].pName));
    EXPECT_TRUE(inside(request.CookedUrl.pFullUrl) && inside(request.Address.pLocalAddress));
    ASSERT_EQ(request.EntityChunkCount, 1);
    EXPECT_TRUE(inside(request.pEntityChunks));
    const auto& chunk = request.pEntityChunks[0];
    EXPECT_EQ(chunk.DataChunkType, HttpDataChunkFromMemory);
    EXPECT_EQ(static_cast<const char*>(chunk.FromMemory.pBuffer) + 3, base + block->bytes);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(chunk.FromMemory.pBuffer) % 8, 0u);
    for (size_t i = block->bytes; i < block->size; ++i)
        ASSERT_EQ(base[i], kOld) << i;
    server.Reply(block->Id(), "");
}

TEST(Receive, WithoutTheFlagNoBodyIsCopied) {
    CServer server(0);
    CBlock* block = server.Post(4096, 0);
    CClient client(server.TcpPort());
    client.Send(PostHead(3) + "abc");
    ASSERT_EQ(server.Take(), block);
    EXPECT_EQ(block->Request()->EntityChunkCount, 0);
    EXPECT_EQ(block->Request()->Flags, ULONG{HTTP_REQUEST_FLAG_MORE_ENTITY_BODY_EXISTS});
    std::string body;
    EXPECT_EQ(server.ReadBody(block->Id(), body), NO_ERROR);
    EXPECT_EQ(body, "abc");
    server.Reply(block->Id(), "");
}

TEST(Receive, WholeBodyCopiedThenEndOfFile) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(PostHead(5) + "hello");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Request()->Flags, 0u);
    EXPECT_EQ(block->Body(), "hello");
    std::string body;
    EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_HANDLE_EOF);
    EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_HANDLE_EOF);
    server.Reply(block->Id(), "");
}

TEST(Receive, MoreBodyThanRoomFillsTheBufferAndTheRestIsRead) {
    CServer server;
    CClient client(server.TcpPort());
    std::string sent;
    for (int i = 0; sent.size() < 100000; ++i)
        sent += std::to_string(i) + ",";
    std::thread sender([&] { client.Send(PostHead(sent.size()) + sent); });
    CBlock* block = server.Take();
    sender.join();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Request()->Flags, ULONG{HTTP_REQUEST_FLAG_MORE_ENTITY_BODY_EXISTS});
    EXPECT_EQ(block->bytes, 4096u);
    ASSERT_EQ(block->Request()->EntityChunkCount, 1);
    std::string body = block->Body();
    while (server.ReadBody(block->Id(), body, 30000) == NO_ERROR) {
    }
    EXPECT_EQ(body, sent);
    EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_HANDLE_EOF);
    server.Reply(block->Id(), "done");
    EXPECT_EQ(client.Read().body, "done");
}

// The window that a new connection offers is smaller than what is waited for: it must open.
TEST(Receive, UploadThatStallsAboveTheFirstWindowReachesNoWorker) {
    CServer server;
    CClient client(server.TcpPort());
    const std::string first(300000, 'w'), rest(700000, 'r');
    std::thread sender([&] { client.Send(PostHead(first.size() + rest.size()) + first); });
    const auto allTaken = [&] {
        EXPECT_EQ(server.Take(0), nullptr);
        int queued = 1;
        ioctl(client.Socket(), SIOCOUTQ, &queued);
        return queued == 0;
    };
    sender.join();  // the socket takes it, whatever the server does
    EXPECT_TRUE(Eventually(allTaken));
    EXPECT_EQ(server.Take(0), nullptr);
    client.Send(rest);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::string body = block->Body();
    while (server.ReadBody(block->Id(), body, 30000) == NO_ERROR) {
    }
    EXPECT_EQ(body, first + rest);
    server.Reply(block->Id(), "");
    EXPECT_EQ(client.Read().status, 200);
}

// A client that has filled the window with pieces of segments sends on when the window opens, or
// when it has waited 200 ms for that: every time, if the server does not tell it.
TEST(Receive, AClientThatFilledTheFirstWindowIsToldOfALargerOne) {
    using std::chrono::steady_clock;
    constexpr auto kSoon = std::chrono::milliseconds(150);
    const std::string piece(8192, 'p');
    constexpr int kPieces = 30;
    auto least = steady_clock::duration::max();
    for (int tries = 0; least >= kSoon && tries < 20; ++tries) {
        CServer server;
        CClient client(server.TcpPort());
        client.Send(PostHead(kPieces * piece.size()) + piece);
        for (int i = 1; i < kPieces; ++i)
            client.Send(piece);  // the socket takes it, whatever the server does
        const auto full = [&] {
            int unsent_bytes = 0;
            ioctl(client.Socket(), SIOCOUTQNSD, &unsent_bytes);
            return unsent_bytes > 0;
        };
        EXPECT_TRUE(Eventually(full));
        const auto begin = steady_clock::now();
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        std::string body = block->Body();
        while (server.ReadBody(block->Id(), body, 30000) == NO_ERROR) {
        }
        least = std::min(least, steady_clock::now() - begin);
        EXPECT_EQ(body.size(), kPieces * piece.size());
        server.Reply(block->Id(), "");
        EXPECT_EQ(client.Read().status, 200);
    }
    EXPECT_LT(least, kSoon);
}

// Without TCP_NODELAY a client keeps a short body until the head is acknowledged, which systems put
// off for 40 ms on a connection that has been answered before.
TEST(Receive, AHeadWithoutItsBodyIsAcknowledgedAtOnce) {
    using std::chrono::steady_clock;
    constexpr auto kSoon = std::chrono::milliseconds(30);
    CServer server;
    CClient client(server.TcpPort());
    const int off = 0;
    ASSERT_EQ(setsockopt(client.Socket(), IPPROTO_TCP, TCP_NODELAY, &off, sizeof off), 0);
    auto least = steady_clock::duration::max();
    for (int i = 0; least >= kSoon && i < 20; ++i) {
        client.Send(PostHead(5));
        client.Send("hello");
        const auto begin = steady_clock::now();
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->Body(), "hello");
        if (i > 0) least = std::min(least, steady_clock::now() - begin);
        server.Reply(block->Id(), "");
        EXPECT_EQ(client.Read().status, 200);
        server.Repost(block);
    }
    EXPECT_LT(least, kSoon);
}

TEST(Receive, NextRequestMayLieRightBehindABodyThatIsReadExactly) {
    CServer server;
    CClient client(server.TcpPort());
    const std::string sent(20000, 'e');
    client.Send(PostHead(sent.size()) + sent + Get("/zem/next"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::string body = block->Body();
    while (body.size() < sent.size()) {
        ASSERT_EQ(server.ReadBody(block->Id(), body, static_cast<ULONG>(sent.size() - body.size())),
                  NO_ERROR);
    }
    server.Reply(block->Id(), "");
    block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block->Request()->pRawUrl, "/zem/next");
    server.Reply(block->Id(), "");
}

TEST(Receive, FillFlagWaitsForTheWholeBuffer) {
    CServer server;
    CClient client(server.TcpPort());
    const std::string sent(300000, 'f');
    std::thread sender([&] { client.Send(PostHead(sent.size()) + sent); });
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::string rest(sent.size() - block->Body().size(), '\0');
    ULONG got = 0;
    EXPECT_EQ(HttpReceiveRequestEntityBody(server.Queue(), block->Id(), 1, rest.data(),
                                           static_cast<ULONG>(rest.size()), &got, nullptr),
              NO_ERROR);
    sender.join();
    EXPECT_EQ(got, rest.size());
    EXPECT_EQ(rest, std::string(rest.size(), 'f'));
    server.Reply(block->Id(), "");
}

TEST(Receive, UnknownAnsweredOrNullIdIsNoConnection) {
    CServer other;
    CServer server;
    std::string body;
    EXPECT_EQ(server.ReadBody(HTTP_NULL_ID, body), ERROR_CONNECTION_INVALID);
    EXPECT_EQ(server.ReadBody(12345, body), ERROR_CONNECTION_INVALID);
    EXPECT_EQ(server.ReadBody(~0ull, body), ERROR_CONNECTION_INVALID);
    EXPECT_EQ(server.Reply(HTTP_NULL_ID, ""), ERROR_CONNECTION_INVALID);
    EXPECT_EQ(server.Reply(1ull << 40, ""), ERROR_CONNECTION_INVALID);
    CClient client(server.TcpPort());
    client.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    const HTTP_REQUEST_ID id = block->Id();
    EXPECT_EQ(other.Reply(id, ""), ERROR_CONNECTION_INVALID);  // it is good in its own queue only
    EXPECT_EQ(server.Reply(id, "first"), NO_ERROR);
    EXPECT_EQ(server.Reply(id, "second"), ERROR_CONNECTION_INVALID);
    EXPECT_EQ(server.ReadBody(id, body), ERROR_CONNECTION_INVALID);
}

TEST(Receive, DisconnectInMidBody) {
    CServer server;
    for (const bool reset : {false, true}) {
        CClient client(server.TcpPort());
        CTuned<uint32_t> at_once(HttpTune()->short_body_ms, 0);
        client.Send(PostHead(1000) + "some");
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->Body(), "some");
        if (reset)
            client.Reset();
        else
            client.EndSending();
        std::string body;
        EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_NETNAME_DELETED);
        EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_NETNAME_DELETED);
        const ULONG error = server.Reply(block->Id(), "late");
        EXPECT_TRUE(reset ? error == ERROR_CONNECTION_INVALID : error == NO_ERROR) << error;
        EXPECT_EQ(server.Reply(block->Id(), "again"), ERROR_CONNECTION_INVALID);
    }
}

// Bytes and end in one event: nothing else will ever be announced of this connection.
TEST(Receive, ClientThatLeavesRightBehindAnUnfinishedRequestIsLetGoAtOnce) {
    CServer server;
    for (const std::string& begun :
         {std::string("GET /zem/ HTTP/1.1\r\nHo"), PostHead(100), PostHead(100) + "beginning",
          PostHead(1u << 20), PostHead(1u << 20) + "beginning"}) {
        CClient client(server.TcpPort());
        ASSERT_TRUE(Eventually([&] {
            server.Settle();
            return HttpTuneConnections() == 1;
        }));
        server.Settle();
        client.Send(begun);
        client.EndSending();
        EXPECT_TRUE(Eventually([&] {
            server.Settle();
            return HttpTuneConnections() == 0;
        })) << begun;
    }
}

TEST(Receive, PipelinedRequestComesOnlyAfterTheFirstIsAnswered) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(Get("/zem/1") + Get("/zem/2") + PostHead(2) + "xy" + Get("/zem/4"));
    for (const char* expected : {"/zem/1", "/zem/2", "/zem/", "/zem/4"}) {
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        EXPECT_STREQ(block->Request()->pRawUrl, expected);
        server.Settle();
        server.Reply(block->Id(), expected);
        EXPECT_EQ(client.Read().body, expected);
        server.Repost(block);
    }
}

TEST(Receive, VerbsAreCaseSensitiveAndUnknownOnesPass) {
    CServer server;
    CClient client(server.TcpPort());
    struct CCase {
        const char* method;
        HTTP_VERB verb;
    };
    for (const CCase& test : {CCase{"GET", HttpVerbGET}, CCase{"DELETE", HttpVerbDELETE},
                              CCase{"get", HttpVerbUnknown}, CCase{"PURGE", HttpVerbUnknown},
                              CCase{"OPTIONS", HttpVerbOPTIONS}, CCase{"MOVE", HttpVerbMOVE}}) {
        client.Send(std::string(test.method) + " /zem/ HTTP/1.1\r\nHost: h\r\n\r\n");
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->Request()->Verb, test.verb);
        if (test.verb == HttpVerbUnknown) {
            EXPECT_STREQ(block->Request()->pUnknownVerb, test.method);
            EXPECT_EQ(block->Request()->UnknownVerbLength, strlen(test.method));
        }
        server.Reply(block->Id(), "");
        client.Read();
        server.Repost(block);
    }
}

TEST(Receive, RepeatedKnownFieldsAreJoined) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(
        Get("/zem/", "Accept: a\r\nCookie: x=1\r\nAccept: b\r\nCookie: y=2\r\nAccept: c\r\n"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Known(HttpHeaderAccept), "a, b, c");
    EXPECT_EQ(block->Known(HttpHeaderCookie), "x=1; y=2");
    server.Reply(block->Id(), "");
}

TEST(Receive, ChunkedBodyIsDechunked) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send("POST /zem/ HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n");
    client.Send("5\r\nhello\r\n1;x=y\r\n!\r\n0\r\nT: v\r\n\r\n" + Get("/zem/next"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Body(), "hello!");
    EXPECT_EQ(block->Request()->Flags, 0u);
    std::string body;
    EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_HANDLE_EOF);
    server.Reply(block->Id(), "");
    block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block->Request()->pRawUrl, "/zem/next");
    server.Reply(block->Id(), "");
}

TEST(Receive, LongChunkedBodyIsReadOn) {
    CServer server;
    CClient client(server.TcpPort());
    std::string wire, sent;
    for (int i = 1; i < 400; ++i) {
        const std::string piece(static_cast<size_t>(i), static_cast<char>('a' + i % 26));
        char size[16];
        snprintf(size, sizeof size, "%x\r\n", i);
        wire += size + piece + "\r\n";
        sent += piece;
    }
    std::thread sender([&] {
        client.Send("POST /zem/ HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n" + wire +
                    "0\r\n\r\n" + Get("/zem/next"));
    });
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::string body = block->Body();
    EXPECT_GT(body.size(), 2000u);  // as much as there is room for
    while (server.ReadBody(block->Id(), body, 777) == NO_ERROR) {
    }
    sender.join();
    EXPECT_EQ(body, sent);
    server.Reply(block->Id(), "");
    block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block->Request()->pRawUrl, "/zem/next");
    server.Reply(block->Id(), "");
}

TEST(Receive, HundredContinueGoesOutAsSoonAsTheHeadIsAccepted) {
    CServer server;
    server.StartWorkers(1);
    CClient client(server.TcpPort());
    client.Send(PostHead(5, "Expect: 100-continue\r\n"));
    EXPECT_EQ(client.Read().status, 100);
    client.Send("hello");
    const CReply reply = client.Read();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "hello");
    // Not for a head that is refused, and not for one without a body.
    client.Send(Get("/zem/", "Expect: 100-continue\r\n"));
    EXPECT_EQ(client.Read().status, 200);
    client.Send(
        "POST /nothing/ HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n"
        "Expect: 100-continue\r\n\r\n");
    EXPECT_EQ(client.Read().status, 404);
    EXPECT_TRUE(client.AtEnd());
}

TEST(Receive, HeadAndBodyInAnySegments) {
    CServer server;
    server.StartWorkers(2);
    CClient client(server.TcpPort());
    const std::string bytes = PostHead(7, "X: y\r\n") + "content";
    for (size_t cut = 1; cut < bytes.size(); cut += 3) {
        client.Send(bytes.substr(0, cut));
        client.Send(bytes.substr(cut));
        EXPECT_EQ(client.Read().body, "content") << cut;
    }
    for (char byte : bytes)
        client.Send(std::string(1, byte));
    EXPECT_EQ(client.Read().body, "content");
}

TEST(Receive, RequestIdsNeverRepeat) {
    CServer server;
    std::set<HTTP_REQUEST_ID> seen;
    for (int i = 0; i < 20; ++i) {
        CClient client(server.TcpPort());
        for (int j = 0; j < 5; ++j) {
            client.Send(Get("/zem/"));
            CBlock* block = server.Take();
            ASSERT_NE(block, nullptr);
            EXPECT_TRUE(seen.insert(block->Id()).second);
            server.Reply(block->Id(), "");
            client.Read();
            server.Repost(block);
        }
    }
}

TEST(Receive, WaitsInTheQueueUntilAReceiveIsPosted) {
    CServer server(0);
    CClient first(server.TcpPort()), second(server.TcpPort());
    first.Send(PostHead(3) + "one");
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneWaitingRequests(server.Queue()) == 1;
    }));
    second.Send(Get("/zem/two"));
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneWaitingRequests(server.Queue()) == 2;
    }));
    CBlock* block = server.Post(4096);
    ASSERT_EQ(server.Take(), block);
    EXPECT_EQ(block->Body(), "one");
    CBlock* next = server.Post(4096);
    ASSERT_EQ(server.Take(), next);
    EXPECT_STREQ(next->Request()->pRawUrl, "/zem/two");
    server.Reply(block->Id(), "");
    server.Reply(next->Id(), "");
}

TEST(Receive, FullQueueIsAnswered503) {
    CTuned<uint32_t> few(HttpTune()->waiting_requests, 2);
    CServer server(0);
    server.StartWorkers(1);
    CClient one(server.TcpPort()), two(server.TcpPort());
    one.Send(Get("/zem/"));
    two.Send(Get("/zem/"));
    ASSERT_TRUE(Eventually([&] { return HttpTuneWaitingRequests(server.Queue()) == 2; }));
    CClient three(server.TcpPort());
    three.Send(Get("/zem/"));
    EXPECT_EQ(three.Read().status, 503);
    EXPECT_TRUE(three.AtEnd());
}

TEST(Receive, Synchronous) {
    CServer server(0);
    CClient client(server.TcpPort());
    client.Send(PostHead(4) + "sync");
    std::vector<uint64_t> memory(512);
    auto* request = reinterpret_cast<HTTP_REQUEST*>(memory.data());
    ULONG bytes = 0;
    ASSERT_EQ(HttpReceiveHttpRequest(server.Queue(), 0, 1, request, 4096, &bytes, nullptr),
              NO_ERROR);
    EXPECT_EQ(request->pEntityChunks[0].FromMemory.BufferLength, 4u);
    EXPECT_EQ(server.Reply(request->RequestId, "reply"), NO_ERROR);
    EXPECT_EQ(client.Read().body, "reply");
}

TEST(Receive, AsynchronousBody) {
    CServer server;
    CTuned<uint32_t> at_once(HttpTune()->short_body_ms, 0);
    CClient client(server.TcpPort());
    client.Send(PostHead(10) + "a");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    char piece[16];
    OVERLAPPED overlapped{};
    EXPECT_EQ(HttpReceiveRequestEntityBody(server.Queue(), block->Id(), 0, piece, sizeof piece,
                                           nullptr, &overlapped),
              ERROR_IO_PENDING);
    std::string body;
    EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_BUSY);
    client.Send("bcd");
    DWORD bytes = 0;
    ULONG_PTR key;
    OVERLAPPED* done = nullptr;
    ASSERT_TRUE(GetQueuedCompletionStatus(server.Port(), &bytes, &key, &done, kPatience_ms));
    EXPECT_EQ(done, &overlapped);
    EXPECT_EQ(std::string(piece, bytes), "bcd");
    client.Send("efghij");
    ASSERT_TRUE(Eventually([&] { return server.ReadBody(block->Id(), body) == ERROR_HANDLE_EOF; }));
    EXPECT_EQ(body, "efghij");
    EXPECT_EQ(HttpReceiveRequestEntityBody(server.Queue(), block->Id(), 0, piece, sizeof piece,
                                           nullptr, &overlapped),
              ERROR_HANDLE_EOF);
    EXPECT_EQ(server.Reply(block->Id(), "ok"), NO_ERROR);
    EXPECT_EQ(client.Read().body, "ok");
}

TEST(Receive, HeadThatLeavesTooLittleRoomIsAnswered431AndNeverDelivered) {
    CServer server;
    server.StartWorkers(1);
    // Grows until it is refused; the room that the last one left is at least 128 bytes.
    bool refused = false;
    for (size_t filler = 2400; filler < 3400 && !refused; ++filler) {
        CClient client(server.TcpPort());
        client.Send("POST /zem/ HTTP/1.1\r\nHost: h\r\nX: " + std::string(filler, 'x') +
                    "\r\nContent-Length: 128\r\n\r\n" + std::string(128, 'b'));
        const CReply reply = client.Read();
        refused = reply.status == 431;
        ASSERT_TRUE(refused || reply.body.size() == 128) << reply.status;
        filler += refused ? 0 : 30;
    }
    EXPECT_TRUE(refused);
}

}  // namespace
}  // namespace httptest
