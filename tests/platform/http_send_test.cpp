// Sending: framing fields, chunks of memory and files, and what happens when they go wrong.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "http_send_support.h"

namespace httptest {
namespace {

TEST(Send, AddsLengthAndDateAndCountsTheHead) {
    CExchange x;
    ULONG sent = 0;
    EXPECT_EQ(x.server.Reply(x.block->Id(), "entity", 200, 0, &sent), NO_ERROR);
    const CReply reply = x.client.Read();
    EXPECT_EQ(reply.head.substr(0, 17), "HTTP/1.1 200 OK\r\n");
    EXPECT_EQ(reply.Field("Content-Length"), "6");
    EXPECT_EQ(reply.Field("Connection"), "(none)");
    EXPECT_EQ(reply.Field("Server"), "(none)");
    EXPECT_EQ(reply.Field("Date").substr(reply.Field("Date").size() - 4), " GMT");
    EXPECT_EQ(sent, reply.head.size() + 2 + reply.body.size());
}

TEST(Send, FieldsGoOutAsGiven) {
    CExchange x;
    std::vector<HTTP_DATA_CHUNK> chunks;
    HTTP_RESPONSE response = Response(chunks);
    response.StatusCode = 405;
    response.pReason = "HTTP method not allowed, and more";
    response.ReasonLength = 23;
    response.Headers.KnownHeaders[HttpHeaderServer] = {12, "Quorvane ZEM"};
    response.Headers.KnownHeaders[HttpHeaderContentLength] = {1, "0"};
    response.Headers.KnownHeaders[HttpHeaderWwwAuthenticate] = {1, "w"};
    HTTP_UNKNOWN_HEADER unknown[2] = {{7, 1, "zem-ver", "1"}, {1, 2, "Xy", "ab"}};
    response.Headers.UnknownHeaderCount = 2;
    response.Headers.pUnknownHeaders = unknown;
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), NO_ERROR);
    const CReply reply = x.client.Read();
    EXPECT_EQ(reply.head.substr(0, 38), "HTTP/1.1 405 HTTP method not allowed\r\n");
    EXPECT_EQ(reply.Field("Server"), "Quorvane ZEM");
    EXPECT_EQ(reply.Field("Content-Length"), "0");
    EXPECT_EQ(reply.Field("WWW-Authenticate"), "w");
    EXPECT_EQ(reply.Field("zem-ver"), "1");
    EXPECT_EQ(reply.Field("X"), "ab");
    EXPECT_LT(reply.head.find("zem-ver"), reply.head.find("X: ab"));
}

// The largest bodies that go out behind the header in one run, and the smallest that do not.
TEST(Send, BodiesOfFewBytesArriveWhole) {
    for (const size_t bytes : {1, 2, 255, 256, 257, 300}) {
        std::string first(bytes / 2, 'a'), second(bytes - bytes / 2, 'b');
        std::vector<HTTP_DATA_CHUNK> chunks = {Memory(first), Memory(second)};
        HTTP_RESPONSE response = Response(chunks);
        const std::string field(1500, 'f');  // with it the header has no room for more
        HTTP_UNKNOWN_HEADER unknown = {1, static_cast<USHORT>(field.size()), "X", field.data()};
        response.Headers.pUnknownHeaders = &unknown;
        for (const USHORT fields : {USHORT{0}, USHORT{1}}) {
            CExchange x;
            response.Headers.UnknownHeaderCount = fields;
            EXPECT_EQ(SendIt(x.server, x.block->Id(), response), NO_ERROR);
            const CReply reply = x.client.Read();
            EXPECT_EQ(reply.body, first + second);
            EXPECT_EQ(reply.Field("Content-Length"), std::to_string(bytes));
            EXPECT_EQ(reply.Field("X"), fields == 0 ? "(none)" : field);
        }
    }
}

TEST(Send, GivenLengthIsKeptAndAWrongOneClosesTheConnection) {
    for (const char* length : {"5", "100", "2"}) {
        CExchange x;
        const std::string text = "hello";
        std::vector<HTTP_DATA_CHUNK> chunks = {Memory(text)};
        HTTP_RESPONSE response = Response(chunks);
        response.Headers.KnownHeaders[HttpHeaderContentLength] = {
            static_cast<USHORT>(strlen(length)), length};
        EXPECT_EQ(SendIt(x.server, x.block->Id(), response), NO_ERROR);
        if (std::string(length) == "5") {
            EXPECT_EQ(x.client.Read().body, "hello");
            x.Ask();
            x.server.Reply(x.block->Id(), "");
        } else {
            const std::string all = x.client.ReadToEnd();
            EXPECT_NE(all.find(std::string("Content-Length: ") + length + "\r\n"),
                      std::string::npos);
            EXPECT_EQ(all.substr(all.size() - 5), "hello");
        }
    }
}

TEST(Send, MemoryAndFileChunksMix) {
    CExchange x;
    const CTextFile file(300000);
    const HANDLE handle = file.Open();
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    const std::string before = "before-", between = "-between-", after = "-after";
    std::vector<HTTP_DATA_CHUNK> chunks = {Memory(before), File(handle, 10, 1000), Memory(between),
                                           File(handle, 0, HTTP_BYTE_RANGE_TO_EOF), Memory(after)};
    HTTP_RESPONSE response = Response(chunks);
    ULONG sent = 0;
    std::thread reader([&] {
        const CReply reply = x.client.Read();
        EXPECT_EQ(reply.body, before + file.text.substr(10, 1000) + between + file.text + after);
    });
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response, &sent), NO_ERROR);
    CloseHandle(handle);  // a rest in the background has its own
    x.server.StartWorkers(1);
    reader.join();
    EXPECT_GT(sent, 301000u);
}

TEST(Send, BadChunksAreRefusedAndTheRequestStaysInHand) {
    CExchange x;
    const CTextFile file(100);
    const HANDLE handle = file.Open();
    std::vector<HTTP_DATA_CHUNK> chunks = {File(handle, 50, 51)};
    HTTP_RESPONSE response = Response(chunks);
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), ERROR_HANDLE_EOF);
    chunks = {File(handle, 101, HTTP_BYTE_RANGE_TO_EOF)};
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), ERROR_HANDLE_EOF);
    chunks = {File(nullptr, 0, 1)};
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), ERROR_INVALID_HANDLE);
    chunks[0].DataChunkType = HttpDataChunkFromFragmentCache;
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(x.server.Reply(x.block->Id(), "", 99), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(x.server.Reply(x.block->Id(), "", 200, 2), ERROR_INVALID_PARAMETER);
    CloseHandle(handle);
    EXPECT_EQ(x.server.Reply(x.block->Id(), "fine"), NO_ERROR);
    EXPECT_EQ(x.client.Read().body, "fine");
}

TEST(Send, ManyChunksInOrder) {
    CExchange x;
    std::vector<std::string> texts;
    std::string all;
    for (int i = 0; i < 1000; ++i)
        all += texts.emplace_back(std::to_string(i) + ",");
    std::vector<HTTP_DATA_CHUNK> chunks;
    for (const std::string& text : texts)
        chunks.push_back(Memory(text));
    HTTP_RESPONSE response = Response(chunks);
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), NO_ERROR);
    EXPECT_EQ(x.client.Read().body, all);
}

TEST(Send, BigHeaderAndLongFields) {
    CExchange x;
    const std::string value(30000, 'v');
    std::vector<HTTP_DATA_CHUNK> chunks;
    HTTP_RESPONSE response = Response(chunks);
    HTTP_UNKNOWN_HEADER unknown = {3, 30000, "Big", value.c_str()};
    response.Headers.UnknownHeaderCount = 1;
    response.Headers.pUnknownHeaders = &unknown;
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), NO_ERROR);
    EXPECT_EQ(x.client.Read().Field("Big"), value);
}

TEST(Send, StatusesWithoutBody) {
    CExchange x;
    EXPECT_EQ(x.server.Reply(x.block->Id(), "no such", 204), NO_ERROR);
    const CReply reply = x.client.Read();
    EXPECT_EQ(reply.status, 204);
    EXPECT_EQ(reply.Field("Content-Length"), "(none)");
    x.Ask();
    EXPECT_EQ(x.server.Reply(x.block->Id(), "next"), NO_ERROR);
    EXPECT_EQ(x.client.Read().body, "next");
}

TEST(Send, DisconnectFlagAndConnectionFieldClose) {
    CExchange x;
    EXPECT_EQ(x.server.Reply(x.block->Id(), "bye", 200, HTTP_SEND_RESPONSE_FLAG_DISCONNECT),
              NO_ERROR);
    CReply reply = x.client.Read();
    EXPECT_EQ(reply.Field("Connection"), "close");
    EXPECT_TRUE(x.client.AtEnd());
    CExchange y;
    std::vector<HTTP_DATA_CHUNK> chunks;
    HTTP_RESPONSE response = Response(chunks);
    response.Headers.KnownHeaders[HttpHeaderConnection] = {5, "close"};
    EXPECT_EQ(SendIt(y.server, y.block->Id(), response), NO_ERROR);
    reply = y.client.Read();
    EXPECT_EQ(reply.head.find("Connection"), reply.head.rfind("Connection"));
    EXPECT_TRUE(y.client.AtEnd());
}

TEST(Send, UnreadBodyIsDrainedBeforeTheNextRequest) {
    CServer server;
    CClient client(server.TcpPort());
    const std::string body(3000000, 'b');
    std::thread sender([&] { client.Send(PostHead(body.size()) + body + Get("/zem/next")); });
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), "not read"), NO_ERROR);
    block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block->Request()->pRawUrl, "/zem/next");
    server.Reply(block->Id(), "");
    sender.join();
    EXPECT_EQ(client.Read().body, "not read");
}

TEST(Send, FileTruncatedInMidSendEndsTheConnection) {
    CTextFile file(40u << 20);
    CExchange x;
    const HANDLE handle = file.Open();
    std::vector<HTTP_DATA_CHUNK> chunks = {File(handle, 0, HTTP_BYTE_RANGE_TO_EOF)};
    HTTP_RESPONSE response = Response(chunks);
    EXPECT_EQ(SendIt(x.server, x.block->Id(), response), NO_ERROR);  // the rest in the background
    CloseHandle(handle);
    ASSERT_EQ(truncate(file.Path().c_str(), 100), 0);
    x.server.StartWorkers(1);
    EXPECT_EQ(x.client.Read().status, 0);
}

TEST(Send, ClientThatIsGoneRaisesNoSignal) {
    struct sigaction before, fatal{};
    fatal.sa_handler = [](int) { abort(); };
    sigaction(SIGPIPE, &fatal, &before);
    CTextFile file(4u << 20);
    for (const bool from_file : {false, true}) {
        CExchange x;
        x.client.Reset();
        const HANDLE handle = file.Open();
        std::vector<HTTP_DATA_CHUNK> chunks = {from_file ? File(handle, 0, HTTP_BYTE_RANGE_TO_EOF)
                                                         : Memory(file.text)};
        HTTP_RESPONSE response = Response(chunks);
        const ULONG error = SendIt(x.server, x.block->Id(), response);
        EXPECT_TRUE(error == ERROR_CONNECTION_INVALID || error == ERROR_NETNAME_DELETED) << error;
        CloseHandle(handle);
    }
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));
    sigaction(SIGPIPE, &before, nullptr);
}

}  // namespace
}  // namespace httptest
