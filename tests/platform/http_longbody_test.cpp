// Long bodies: those that come fast are read where they are wanted, slow ones are gathered before
// anybody waits for them. On a clock that the tests move.
#include <gtest/gtest.h>

#include "http_uploads.h"

namespace httptest {
namespace {

// A slow upload that has sent the half of its body, and no more.
struct CHalfGathered {
    CHalfGathered() {
        server.StartWorkers(2, reader.Answer());
        upload.emplace(server, 4 * kMiB, true);
        upload->client.Send(Pattern(2 * kMiB));
        EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 0; }));
    }
    CReader reader;
    CServer server;
    std::optional<CUpload> upload;
};

TEST(LongBody, SlowOneIsGatheredBeforeAnybodyWaitsForIt) {
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(4 * kMiB);
    CUpload upload(server, body.size(), true);
    std::thread sender([&] { upload.client.Send(body.substr(0, 2 * kMiB)); });
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 3 * kMiB; }));
    sender.join();
    HttpTuneAdvanceClock(10000);  // it makes a pause, and nobody minds
    EXPECT_EQ(reader.Count(), 0u);
    EXPECT_EQ(HttpTuneBlockedThreads(), 0u);
    upload.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(upload.client.Read().body, std::to_string(body.size()));
    EXPECT_TRUE(reader.Body(0) == body);
    EXPECT_TRUE(Holds(0));
    upload.client.Send(Get("/zem/after"));
    EXPECT_EQ(upload.client.Read().status, 200);
}

TEST(LongBody, FastOneIsReadWhereItIsWanted) {
    CServer server;
    const std::string body = Pattern(3 * kMiB);
    CUpload upload(server, body.size(), false, [&] { server.Settle(); });
    std::thread sender([&] { upload.client.Send(body.substr(0, 3 * kMiB / 2)); });
    CBlock* block = server.Take();
    sender.join();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
    upload.client.Send(body.substr(3 * kMiB / 2));
    std::string got;
    EXPECT_EQ(ReadAll(server, *block, got), NO_ERROR);
    EXPECT_TRUE(got == body);
    EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
}

TEST(LongBody, SlowOneThatHurriesUpIsReadWhereItIsWanted) {
    CServer server;
    const std::string body = Pattern(16 * kMiB);
    CUpload upload(server, body.size(), true, [&] { server.Settle(); });
    std::thread sender([&] { upload.client.Send(body); });
    CBlock* block = server.Take();  // long before all of it was sent
    ASSERT_NE(block, nullptr);
    EXPECT_GT(HttpTuneGatheredBytes(), 0u);
    std::string got;
    EXPECT_EQ(ReadAll(server, *block, got), NO_ERROR);
    sender.join();
    EXPECT_TRUE(got == body);
    EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
}

// The last worker that is left serves the others, whatever an upload promises.
TEST(LongBody, LastWorkerWaitsForNoClient) {
    CTuned<uint32_t> patience(HttpTune()->stall_ms, 20000);
    CReader reader;
    CServer server(6);
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(4 * kMiB);
    CUpload first(server, body.size(), false);
    first.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    CUpload second(server, body.size(), false);
    second.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 0; }));
    EXPECT_EQ(HttpTuneBlockedThreads(), 1u);
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    EXPECT_EQ(other.Read().status, 200);
    second.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(second.client.Read().status, 200);
    first.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(first.client.Read().status, 200);
    EXPECT_TRUE(Holds(0));
}

// Who was to be here in a moment and is not is in the way of a request that waits.
TEST(LongBody, BrokenPromiseEndsWhenARequestWaits) {
    CReader reader;
    CServer server(1);  // so that the second request waits
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(4 * kMiB);
    CUpload upload(server, body.size(), false);
    upload.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    HttpTuneAdvanceClock(1000);
    EXPECT_EQ(HttpTuneBlockedThreads(), 1u);  // nobody minds yet
    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 0; }));
    EXPECT_EQ(upload.client.Read().status, 500);
    EXPECT_EQ(other.Read().status, 200);
}

// Memory that others wait for goes to those who use it.
TEST(LongBody, WhoStandsStillGivesItsRoomUpToOneThatWaits) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, 5 * kMiB);
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(4 * kMiB);
    CUpload first(server, body.size(), true);
    first.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 0; }));
    HttpTuneAdvanceClock(1000);  // it is looked at, and nobody waits
    HttpTuneAdvanceClock(1000);
    EXPECT_GT(HttpTuneGatheredBytes(), 0u);
    CUpload second(server, body.size(), true);
    second.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_EQ(first.client.Read().status, 503);
    second.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(second.client.Read().status, 200);
    EXPECT_TRUE(reader.Body(0) == body);
}

// What is larger than all the room there is cannot be gathered.
TEST(LongBody, LargerThanTheBoundIsWaitedForAfterAll) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, kMiB);
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(4 * kMiB);
    CUpload upload(server, body.size(), true);
    upload.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    upload.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(upload.client.Read().status, 200);
    EXPECT_TRUE(reader.Body(0) == body);
}

TEST(LongBody, ChunkedIsGatheredWithTheNextRequestBehindIt) {
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(5 * kMiB);
    CUpload upload(server, "Transfer-Encoding: chunked\r\n", true);
    std::thread sender([&] {
        std::string wire;
        for (size_t at = 0; at < body.size(); at += 70000)
            wire += Chunk(body.substr(at, 70000));
        upload.client.Send(wire + "0\r\n\r\n" + Get("/zem/behind"));
    });
    EXPECT_EQ(upload.client.Read().body, std::to_string(body.size()));
    EXPECT_EQ(upload.client.Read().body, "0");
    sender.join();
    EXPECT_TRUE(reader.Body(0) == body);
    EXPECT_TRUE(Holds(0));
}

TEST(LongBody, ChunkedThatMakesAPauseIsDeliveredWithWhatItSent) {
    CServer server;
    CUpload upload(server, "Transfer-Encoding: chunked\r\n", false, [&] { server.Settle(); });
    const std::string body = Pattern(100000);
    upload.client.Send(Chunk(body));
    EXPECT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneGatheredBytes() > 0;
    }));
    server.Settle();
    HttpTuneAdvanceClock(300);  // notes how far it has come
    HttpTuneAdvanceClock(600);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    upload.client.Send("0\r\n\r\n");
    std::string got;
    EXPECT_EQ(ReadAll(server, *block, got), NO_ERROR);
    EXPECT_TRUE(got == body);
}

TEST(LongBody, UnreadOneDoesNotHoldUpTheNextRequest) {
    CServer server;
    const std::string body = Pattern(2 * kMiB);
    CUpload upload(server, body.size(), true, [&] { server.Settle(); });
    std::thread sender([&] { upload.client.Send(body + Get("/zem/next")); });
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), "no"), NO_ERROR);
    EXPECT_TRUE(Holds(0));
    block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block->Request()->pRawUrl, "/zem/next");
    server.Reply(block->Id(), "yes");
    sender.join();
    EXPECT_EQ(upload.client.Read().body, "no");
    EXPECT_EQ(upload.client.Read().body, "yes");
}

TEST(LongBody, WhoLeavesInTheMiddleLeavesNothingBehind) {
    CHalfGathered half;
    half.upload->client.EndSending();
    EXPECT_TRUE(Holds(0));
    EXPECT_EQ(half.upload->client.Read().status, 0);
    EXPECT_EQ(half.reader.Count(), 0u);
}

TEST(LongBody, StandingStillForGoodEndsTheConnection) {
    CHalfGathered half;
    EXPECT_TRUE(Eventually([&] {
        HttpTuneAdvanceClock(HttpTune()->body_ms);
        return HttpTuneConnections() == 0;
    }));
    EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
}

TEST(LongBody, ClosingTheQueueFreesWhatIsGatheredAndParked) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, 4 * kMiB);
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    CUpload first(server, 4 * kMiB, false), second(server, 4 * kMiB, true);
    first.client.Send(Pattern(2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 0; }));
    second.client.Send(Pattern(2 * kMiB));
    EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 1; }));
    server.StopWorkers();
    server.CloseQueue();
    EXPECT_EQ(HttpTuneConnections(), 0u);
    EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
}

}  // namespace
}  // namespace httptest
