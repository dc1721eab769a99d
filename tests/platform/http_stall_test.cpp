// No client owns a thread: stalled sends and body reads, on a clock that the tests move.
#include <gtest/gtest.h>

#include "http_support.h"

namespace httptest {
namespace {

constexpr size_t kBig = 20u << 20;  // more than any socket buffers take

// A client that asked and does not read, and a thread that blocks in the answer.
struct CSlowReader {
    explicit CSlowReader(CServer& s) : server(s), client(s.TcpPort(), 4096) {
        client.Send(Get("/zem/"));
        sender = std::thread([this] {
            block = server.Take();  // a worker of the port
            ASSERT_NE(block, nullptr);
            std::string body(kBig, 's');
            error = server.Reply(block->Id(), body, 200, 0, &sent);
            body.assign(kBig, '#');  // the application uses its memory again
        });
        EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    }
    CServer& server;
    CClient client;
    CBlock* block = nullptr;
    std::thread sender;
    ULONG error = ~0u, sent = 0;
};

TEST(Stall, SendIsFinishedInTheBackgroundWhileARequestWaits) {
    CServer server;
    CSlowReader slow(server);
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    HttpTuneAdvanceClock(300);
    slow.sender.join();
    EXPECT_EQ(slow.error, NO_ERROR);
    EXPECT_GT(slow.sent, kBig);
    EXPECT_GT(HttpTuneBackgroundBytes(), 0u);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block->Request()->pRawUrl, "/zem/other");
    server.Reply(block->Id(), "quick");
    EXPECT_EQ(other.Read().body, "quick");
    server.StartWorkers(1);
    EXPECT_EQ(slow.client.Read().body, std::string(kBig, 's'));
    EXPECT_TRUE(Eventually([] { return HttpTuneBackgroundBytes() == 0; }));
    slow.client.Send(Get("/zem/"));  // and the connection lives on
    EXPECT_EQ(slow.client.Read().status, 200);
}

// What else the thread of a media library has to do cannot be seen, and may be everybody's: it does
// not wait for a client at all while there is room for the rest.
TEST(Stall, ThreadThatIsNoWorkerLeavesTheRestToTheBackgroundAtOnce) {
    CServer server;
    CClient client(server.TcpPort(), 4096);
    client.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::thread library([&] {
        std::string body(kBig, 'l');
        EXPECT_EQ(server.Reply(block->Id(), body), NO_ERROR);
        body.assign(kBig, '#');
    });
    library.join();  // nobody has read, and the clock has not moved
    EXPECT_GT(HttpTuneBackgroundBytes(), 0u);
    server.StartWorkers(1);
    EXPECT_EQ(client.Read().body, std::string(kBig, 'l'));
    EXPECT_TRUE(Eventually([] { return HttpTuneBackgroundBytes() == 0; }));
}

TEST(Stall, ThreadThatIsNoWorkerGivesAStalledClientUpWithoutRoom) {
    CTuned<uint64_t> none(HttpTune()->background_bytes, 0);
    CServer server;
    CClient client(server.TcpPort(), 4096);
    client.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::thread library([&] {
        EXPECT_EQ(server.Reply(block->Id(), std::string(kBig, 'l')), ERROR_NETNAME_DELETED);
    });
    EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    HttpTuneAdvanceClock(300);
    library.join();  // although no request waits
    EXPECT_EQ(client.Read().status, 0);
}

TEST(Stall, NothingHappensWhileNobodyWaits) {
    CServer server;
    CSlowReader slow(server);
    HttpTuneAdvanceClock(300);
    HttpTuneAdvanceClock(300);
    EXPECT_EQ(HttpTuneBlockedThreads(), 1u);
    EXPECT_EQ(HttpTuneBackgroundBytes(), 0u);
    server.StartWorkers(1);  // for the last bytes, which no thread is kept for
    EXPECT_EQ(slow.client.Read().body.size(), kBig);  // it was only slow
    slow.sender.join();
    EXPECT_EQ(slow.error, NO_ERROR);
    EXPECT_TRUE(Eventually([] { return HttpTuneBackgroundBytes() == 0; }));
}

TEST(Stall, ThreadThatWaitsInThePortIsEnough) {
    CServer server;
    CSlowReader slow(server);
    server.StartWorkers(1);
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    EXPECT_EQ(other.Read().status, 200);
    HttpTuneAdvanceClock(300);
    other.Send(Get("/zem/other"));
    EXPECT_EQ(other.Read().status, 200);
    EXPECT_EQ(slow.client.Read().body.size(), kBig);
    slow.sender.join();
    EXPECT_EQ(slow.error, NO_ERROR);
}

TEST(Stall, WithoutRoomForACopyTheConnectionIsGivenUp) {
    CTuned<uint64_t> none(HttpTune()->background_bytes, 0);
    CServer server;
    CSlowReader slow(server);
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    HttpTuneAdvanceClock(300);
    slow.sender.join();
    EXPECT_EQ(slow.error, ERROR_NETNAME_DELETED);
    EXPECT_EQ(server.Reply(slow.block->Id(), ""), ERROR_CONNECTION_INVALID);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    server.Reply(block->Id(), "");
    EXPECT_EQ(slow.client.Read().status, 0);
}

TEST(Stall, SmallRestIsNeverWaitedFor) {
    CServer server;
    CClient client(server.TcpPort(), 4096);
    CBlock* block = nullptr;
    // Answers until one does not fit into the socket any more; none of them blocks.
    const std::string body(50000, 'r');
    int answers = 0;
    while (HttpTuneBackgroundBytes() == 0 && answers < 2000) {
        client.Send(Get("/zem/"));
        block = server.Take();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(server.Reply(block->Id(), body), NO_ERROR);
        server.Repost(block);
        ++answers;
    }
    EXPECT_GT(HttpTuneBackgroundBytes(), 0u);
    server.StartWorkers(1);
    for (int i = 0; i < answers; ++i)
        ASSERT_EQ(client.Read().body.size(), body.size()) << i;
}

// Large answers that nobody reads must not keep everybody else from being slow.
TEST(Stall, LargeRestsLeaveRoomForSmallOnes) {
    CServer server;
    const auto answer = [&](CClient& client, size_t bytes, ULONG error) {
        client.Send(Get("/zem/"));
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        std::thread library(
            [&, id = block->Id()] { EXPECT_EQ(server.Reply(id, std::string(bytes, 'r')), error); });
        if (error != NO_ERROR) {
            EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
            HttpTuneAdvanceClock(300);
        }
        library.join();
        server.Repost(block);
    };
    CClient first(server.TcpPort(), 4096);
    answer(first, kBig, NO_ERROR);
    const uint64_t rest = HttpTuneBackgroundBytes();
    first.Reset();
    EXPECT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneBackgroundBytes() == 0;
    }));
    CTuned<uint64_t> little(HttpTune()->background_bytes, rest * 6 / 5);
    CClient large(server.TcpPort(), 4096), small(server.TcpPort(), 4096);
    answer(large, kBig, ERROR_NETNAME_DELETED);
    int answers = 0;
    for (; HttpTuneBackgroundBytes() == 0 && answers < 2000; ++answers)
        answer(small, 50000, NO_ERROR);
    EXPECT_GT(HttpTuneBackgroundBytes(), 0u);
    server.StartWorkers(1);
    for (int i = 0; i < answers; ++i)
        ASSERT_EQ(small.Read().body.size(), 50000u) << i;
}

TEST(Stall, BodyReadFailsAsALastResortAndCanStillBeAnswered) {
    CServer server;
    CTuned<uint32_t> at_once(HttpTune()->short_body_ms, 0);
    CClient slow(server.TcpPort());
    slow.Send(PostHead(1000) + "x");
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    ULONG error = 0;
    std::thread reader([&] {
        std::string body;
        while ((error = server.ReadBody(block->Id(), body)) == NO_ERROR) {
        }
        server.Reply(block->Id(), "stalled", 500);
    });
    ASSERT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    HttpTuneAdvanceClock(200);
    slow.Send("y");  // a byte now and then does not help
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    HttpTuneAdvanceClock(100);
    HttpTuneAdvanceClock(300);
    reader.join();
    EXPECT_EQ(error, ERROR_NETNAME_DELETED);
    CBlock* next = server.Take();
    ASSERT_NE(next, nullptr);
    server.Reply(next->Id(), "");
    EXPECT_EQ(slow.Read().body, "stalled");
}

// Half a second of silence has passed before such a body is delivered at all.
TEST(Stall, BodyThatWasDeliveredUnfinishedIsNotWaitedForWhileARequestWaits) {
    CServer server;
    CTuned<uint32_t> never(HttpTune()->stall_ms, 600000);
    CClient client(server.TcpPort());
    client.Send(PostHead(100) + "beginning");
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == 1;
    }));
    server.Settle();
    HttpTuneAdvanceClock(600);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Body(), "beginning");
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::string body;
        EXPECT_EQ(server.ReadBody(block->Id(), body), ERROR_NETNAME_DELETED);
        done = true;
    });
    EXPECT_TRUE(Eventually([&] { return done.load(); }));
    HttpTuneAdvanceClock(600001);  // lets the reader out in any case
    reader.join();
    server.StartWorkers(1);
    EXPECT_EQ(other.Read().status, 200);
}

TEST(Stall, RequestThatWaitsForAReceiveCounts) {
    CServer server(1);
    CSlowReader slow(server);
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneWaitingRequests(server.Queue()) == 1;
    }));
    HttpTuneAdvanceClock(300);
    slow.sender.join();
    EXPECT_EQ(slow.error, NO_ERROR);
    EXPECT_GT(HttpTuneBackgroundBytes(), 0u);
}

}  // namespace
}  // namespace httptest
