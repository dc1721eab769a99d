// Timers, on a clock that the tests move.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>

#include "http_support.h"

namespace httptest {
namespace {

constexpr uint32_t kMinutes2_ms = 120000;

void Connected(CServer& server, uint32_t count) {
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == count;
    }));
    server.Settle();
}

TEST(Timeout, IdleConnection) {
    CServer server;
    CClient client(server.TcpPort());
    Connected(server, 1);
    HttpTuneAdvanceClock(kMinutes2_ms - 10000);
    EXPECT_EQ(HttpTuneConnections(), 1u);
    client.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    HttpTuneAdvanceClock(10 * kMinutes2_ms);  // a request in hand has all the time in the world
    EXPECT_EQ(server.Reply(block->Id(), "late"), NO_ERROR);
    EXPECT_EQ(client.Read().body, "late");
    HttpTuneAdvanceClock(kMinutes2_ms - 10000);
    EXPECT_EQ(HttpTuneConnections(), 1u);
    HttpTuneAdvanceClock(10001);
    EXPECT_EQ(HttpTuneConnections(), 0u);
    EXPECT_TRUE(client.AtEnd());
}

TEST(Timeout, HeadThatDoesNotEnd) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send("GET /zem/ HTTP/1.1\r\n");
    Connected(server, 1);
    HttpTuneAdvanceClock(kMinutes2_ms - 10000);
    client.Send("Host: h\r\n");  // more of it does not start the time again
    server.Settle();
    EXPECT_EQ(HttpTuneConnections(), 1u);
    HttpTuneAdvanceClock(10001);
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

TEST(Timeout, BodyThatDoesNotBegin) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(PostHead(100));
    Connected(server, 1);
    HttpTuneAdvanceClock(kMinutes2_ms - 10000);
    server.Settle();  // never before its first byte
    EXPECT_EQ(HttpTuneConnections(), 1u);
    HttpTuneAdvanceClock(10001);
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

TEST(Timeout, LongBodyThatStopsNeverReachesAWorker) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(PostHead(10u << 20) + std::string(20000, 'x'));
    Connected(server, 1);
    HttpTuneAdvanceClock(60000);
    server.Settle();
    HttpTuneAdvanceClock(70000);  // what came since it was last looked at starts the time again
    server.Settle();
    HttpTuneAdvanceClock(kMinutes2_ms + 1);
    server.Settle();
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

TEST(Timeout, ShortBodyThatStallsIsDeliveredAfterHalfASecond) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(PostHead(100) + "beginning");
    Connected(server, 1);
    HttpTuneAdvanceClock(400);
    server.Settle();
    HttpTuneAdvanceClock(200);
    CBlock* block = server.Take(0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Body(), "beginning");
    EXPECT_EQ(block->Request()->Flags, ULONG{HTTP_REQUEST_FLAG_MORE_ENTITY_BODY_EXISTS});
    client.Send(std::string(91, 'r'));
    std::string body;
    ASSERT_TRUE(Eventually([&] { return server.ReadBody(block->Id(), body) == ERROR_HANDLE_EOF; }));
    EXPECT_EQ(body, std::string(91, 'r'));
    server.Reply(block->Id(), "ok");
    EXPECT_EQ(client.Read().body, "ok");
}

TEST(Timeout, BodyIsDeliveredWholeWhenItArrivesInTime) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(PostHead(10));
    Connected(server, 1);
    HttpTuneAdvanceClock(60000);
    client.Send("01234");
    server.Settle();
    HttpTuneAdvanceClock(400);
    client.Send("56789");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Body(), "0123456789");
    server.Reply(block->Id(), "");
}

TEST(Timeout, LongBodyIsDeliveredWhenTheSocketIsFull) {
    CServer server;
    CClient client(server.TcpPort());
    std::thread sender([&] { client.Send(PostHead(30u << 20) + std::string(30u << 20, 'x')); });
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::string body = block->Body();
    std::string piece(1u << 20, '\0');
    size_t total = body.size();
    ULONG got = 0;
    while (HttpReceiveRequestEntityBody(server.Queue(), block->Id(), 0, piece.data(),
                                        static_cast<ULONG>(piece.size()), &got,
                                        nullptr) == NO_ERROR) {
        total += got;
    }
    EXPECT_EQ(total, 30u << 20);
    server.Reply(block->Id(), "");
    sender.join();
}

TEST(Timeout, BodyReadThatGetsNothing) {
    CServer server;
    CTuned<uint32_t> at_once(HttpTune()->short_body_ms, 0);
    CClient client(server.TcpPort());
    client.Send(PostHead(100) + "x");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::thread reader([&] {
        std::string body;
        EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_NETNAME_DELETED);
        EXPECT_EQ(server.Reply(block->Id(), "timed out", 500), NO_ERROR);  // and can be told
    });
    ASSERT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    HttpTuneAdvanceClock(kMinutes2_ms + 1);
    reader.join();
    const CReply reply = client.Read();
    EXPECT_EQ(reply.status, 500);
    EXPECT_EQ(reply.Field("Connection"), "close");
}

TEST(Timeout, DrainOfAnUnreadBody) {
    CServer server;
    CTuned<uint32_t> at_once(HttpTune()->short_body_ms, 0);
    CClient client(server.TcpPort());
    client.Send(PostHead(100) + "x");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), ""), NO_ERROR);
    server.Settle();
    HttpTuneAdvanceClock(kMinutes2_ms - 10000);
    EXPECT_EQ(HttpTuneConnections(), 1u);
    HttpTuneAdvanceClock(10001);
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

TEST(Timeout, LingeringEnds) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send("nonsense\r\n\r\n");
    Connected(server, 1);
    HttpTuneAdvanceClock(2001);
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

TEST(Timeout, ClientThatTakesLessThanTheLeastRate) {
    CServer server;
    char name[] = "/tmp/httprateXXXXXX";
    const int fd = mkstemp(name);
    ASSERT_EQ(ftruncate(fd, 50 << 20), 0);
    const std::u16string path(name, name + sizeof name - 1);
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    close(fd);
    unlink(name);
    CClient client(server.TcpPort(), 4096);
    client.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    HTTP_DATA_CHUNK chunk{};
    chunk.DataChunkType = HttpDataChunkFromFileHandle;
    chunk.FromFileHandle.FileHandle = file;
    chunk.FromFileHandle.ByteRange.Length.QuadPart = HTTP_BYTE_RANGE_TO_EOF;
    HTTP_RESPONSE response{};
    response.StatusCode = 200;
    response.EntityChunkCount = 1;
    response.pEntityChunks = &chunk;
    EXPECT_EQ(HttpSendHttpResponse(server.Queue(), block->Id(), 0, &response, nullptr, nullptr,
                                   nullptr, 0, nullptr, nullptr),
              NO_ERROR);
    CloseHandle(file);
    server.Settle();
    char piece[1000];
    for (int i = 0; i < 200; ++i)
        ASSERT_GT(recv(client.Socket(), piece, sizeof piece, 0), 0);
    HttpTuneAdvanceClock(20001);
    EXPECT_EQ(HttpTuneConnections(), 1u);
    server.Settle();
    HttpTuneAdvanceClock(20001);
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

}  // namespace
}  // namespace httptest
