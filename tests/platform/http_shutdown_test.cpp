// Closing the queue from every state of a connection and of a call. The harness checks at the end
// that no connection and no background bytes are left.
#include <gtest/gtest.h>

#include "http_support.h"

namespace httptest {
namespace {

TEST(Shutdown, OutstandingReceivesAreAborted) {
    CServer server(8);
    server.CloseQueue();
    for (int i = 0; i < 8; ++i) {
        CBlock* block = server.Take(0);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->error, DWORD{ERROR_OPERATION_ABORTED});
    }
    EXPECT_EQ(server.Take(0), nullptr);
}

void ExpectClosed(CServer& server, CClient& client) {
    server.CloseQueue();
    EXPECT_EQ(HttpTuneConnections(), 0u);
    client.ReadToEnd();
}

TEST(Shutdown, WhileIdle) {
    CServer server;
    CClient client(server.TcpPort());
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == 1;
    }));
    ExpectClosed(server, client);
}

TEST(Shutdown, WhileAHeadIsIncomplete) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send("GET /zem/ HT");
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == 1;
    }));
    server.Settle();
    ExpectClosed(server, client);
}

TEST(Shutdown, WhileBodiesAreIncomplete) {
    for (const size_t length : {size_t{100}, size_t{5000000}}) {
        CServer server;
        CClient client(server.TcpPort());
        client.Send(PostHead(length) + "part");
        ASSERT_TRUE(Eventually([&] {
            server.Settle();
            return HttpTuneConnections() == 1;
        }));
        server.Settle();
        ExpectClosed(server, client);
    }
}

TEST(Shutdown, WhileARequestWaits) {
    CServer server(0);
    CClient client(server.TcpPort());
    client.Send(Get("/zem/"));
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneWaitingRequests(server.Queue()) == 1;
    }));
    ExpectClosed(server, client);
}

TEST(Shutdown, WhileARequestIsInHand) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(Get("/zem/1") + Get("/zem/2"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    const HANDLE queue = server.Queue();
    ExpectClosed(server, client);
    HTTP_RESPONSE response{};
    response.StatusCode = 200;
    EXPECT_EQ(HttpSendHttpResponse(queue, block->Id(), 0, &response, nullptr, nullptr, nullptr, 0,
                                   nullptr, nullptr),
              ERROR_INVALID_HANDLE);
}

TEST(Shutdown, WhilePipelinedRequestsAreReady) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send(Get("/zem/1") + Get("/zem/2"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    server.Reply(block->Id(), "");
    ExpectClosed(server, client);
}

TEST(Shutdown, WhileABodyReadBlocks) {
    CServer server;
    CTuned<uint32_t> at_once(HttpTune()->short_body_ms, 0);
    CClient client(server.TcpPort());
    client.Send(PostHead(1000) + "part");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    const HANDLE queue = server.Queue();
    std::thread reader([&] {
        char piece[100];
        ULONG got;
        EXPECT_EQ(
            HttpReceiveRequestEntityBody(queue, block->Id(), 0, piece, sizeof piece, &got, nullptr),
            ERROR_NETNAME_DELETED);
    });
    ASSERT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    server.CloseQueue();
    reader.join();
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

TEST(Shutdown, WhileASendBlocks) {
    CServer server;
    CClient client(server.TcpPort(), 4096);
    client.Send(Get("/zem/"));
    std::thread sender([&] {
        CBlock* block = server.Take();  // a worker of the port: another would not wait
        ASSERT_NE(block, nullptr);
        const std::string body(30u << 20, 's');
        EXPECT_NE(server.Reply(block->Id(), body), NO_ERROR);
    });
    ASSERT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    server.CloseQueue();
    sender.join();
    EXPECT_EQ(HttpTuneConnections(), 0u);
}

TEST(Shutdown, WhileAResponseIsInTheBackground) {
    CServer server;
    CTuned<uint32_t> at_once(HttpTune()->stall_bytes, 1u << 30);
    CClient client(server.TcpPort(), 4096);
    client.Send(Get("/zem/"));
    CClient other(server.TcpPort());
    std::thread sender([&] {
        CBlock* block = server.Take();  // a worker of the port: another would not wait
        ASSERT_NE(block, nullptr);
        other.Send(Get("/zem/"));
        const std::string body(20u << 20, 's');
        EXPECT_EQ(server.Reply(block->Id(), body), NO_ERROR);
    });
    ASSERT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    HttpTuneAdvanceClock(300);
    sender.join();
    EXPECT_GT(HttpTuneBackgroundBytes(), 1u << 20);
    ExpectClosed(server, client);
    EXPECT_EQ(HttpTuneBackgroundBytes(), 0u);
}

TEST(Shutdown, WhileAnAsynchronousBodyReadIsPending) {
    CServer server(1);
    CTuned<uint32_t> at_once(HttpTune()->short_body_ms, 0);
    CClient client(server.TcpPort());
    client.Send(PostHead(10) + "a");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    char piece[16];
    block->overlapped = {};
    EXPECT_EQ(HttpReceiveRequestEntityBody(server.Queue(), block->Id(), 0, piece, sizeof piece,
                                           nullptr, &block->overlapped),
              ERROR_IO_PENDING);
    ExpectClosed(server, client);
    ASSERT_EQ(server.Take(), block);
    EXPECT_EQ(block->error, DWORD{ERROR_OPERATION_ABORTED});
}

TEST(Shutdown, WhileLingering) {
    CServer server;
    CClient client(server.TcpPort());
    client.Send("nonsense\r\n\r\n");
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == 1;
    }));
    ExpectClosed(server, client);
}

TEST(Shutdown, UnderLoadAgainAndAgain) {
    for (int round = 0; round < 20; ++round) {
        CServer server(8);
        server.StartWorkers(3);
        std::vector<std::thread> clients;
        for (int i = 0; i < 4; ++i) {
            clients.emplace_back([&] {
                CClient client(server.TcpPort());
                while (client.TrySend(PostHead(4) + "load" + Get("/zem/x")) &&
                       client.Read().status == 200 && client.Read().status == 200) {
                }
            });
        }
        ASSERT_TRUE(Eventually([] { return HttpTuneConnections() == 4; }));
        server.StopWorkers();
        server.CloseQueue();
        for (std::thread& client : clients)
            client.join();
    }
}

TEST(Shutdown, QueueClosedUnderWorkers) {
    for (int round = 0; round < 20; ++round) {
        CServer server(8);
        server.StartWorkers(3);
        std::vector<std::thread> clients;
        for (int i = 0; i < 4; ++i) {
            clients.emplace_back([&] {
                CClient client(server.TcpPort());
                while (client.TrySend(PostHead(4) + "load") && client.Read().status == 200) {
                }
            });
        }
        ASSERT_TRUE(Eventually([] { return HttpTuneConnections() == 4; }));
        server.CloseQueue();  // aborted receives end some workers, as they should
        for (std::thread& client : clients)
            client.join();
        EXPECT_TRUE(Eventually([] { return HttpTuneConnections() == 0; }));
    }
}

}  // namespace
}  // namespace httptest
