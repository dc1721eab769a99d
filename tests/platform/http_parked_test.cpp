// Long bodies that wait for room to be gathered. On a clock that the tests move.
#include <gtest/gtest.h>

#include "http_uploads.h"

namespace httptest {
namespace {

TEST(ParkedUpload, WithoutRoomItStaysInTheSocketUntilThereIsSome) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, 15 * kMiB / 2);
    CTuned<uint32_t> patience(HttpTune()->stall_ms, 10000);
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(4 * kMiB);
    CUpload first(server, body.size(), false), second(server, body.size(), false);
    CUpload third(server, 3 * kMiB, true);
    first.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 0; }));
    second.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 1; }));
    // There would be room for this one, but others wait longer.
    third.client.Send(Pattern(5 * kMiB / 4));
    EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 2; }));
    EXPECT_LT(HttpTuneGatheredBytes(), 5 * kMiB);
    first.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(first.client.Read().status, 200);
    second.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(second.client.Read().body, std::to_string(body.size()));
    third.client.Send(std::string(7 * kMiB / 4, 'e'));
    EXPECT_EQ(third.client.Read().status, 200);
    EXPECT_TRUE(reader.Body(0) == body);
    EXPECT_TRUE(reader.Body(1) == body);
    EXPECT_EQ(HttpTuneParkedUploads(server.Queue()), 0u);
    EXPECT_TRUE(Holds(0));
}

// Few who declare much do not keep everybody out.
TEST(ParkedUpload, SmallOneDoesNotWaitForLargeOnes) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, 40 * kMiB);
    CTuned<uint32_t> patience(HttpTune()->stall_ms, 10000);
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    const std::string body = Pattern(3 * kMiB);
    CUpload first(server, 25 * kMiB, false), second(server, 20 * kMiB, false);
    CUpload small(server, body.size(), true);
    first.client.Send(Pattern(2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 24 * kMiB; }));
    second.client.Send(Pattern(2 * kMiB));
    EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 1; }));
    small.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 27 * kMiB; }));
    small.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(small.client.Read().status, 200);
    EXPECT_TRUE(reader.Body(0) == body);
    EXPECT_EQ(HttpTuneParkedUploads(server.Queue()), 1u);
    first.client.Reset();
    EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 0; }));
}

TEST(ParkedUpload, WhoLeavesIsForgotten) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, kMiB);
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    CUpload first(server, kMiB, false);  // whole in the socket when it is delivered: needs no room
    CUpload second(server, 4 * kMiB, false);
    second.client.Send(Pattern(2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    CUpload third(server, 4 * kMiB, true);
    third.client.Send(Pattern(2 * kMiB));
    EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 1; }));
    third.client.Reset();
    EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 0; }));
    first.client.Send(Pattern(kMiB));
    EXPECT_EQ(first.client.Read().status, 200);
}

// Its turn comes although it sent no more since: it is then judged like any other.
TEST(ParkedUpload, WhoSendsNoMoreKeepsNobodyOut) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, 5 * kMiB);
    CReader reader;
    CServer server;
    server.StartWorkers(2, reader.Answer());
    const auto parked = [&] { return HttpTuneParkedUploads(server.Queue()); };
    const std::string body = Pattern(4 * kMiB);
    CUpload first(server, body.size(), true);
    first.client.Send(body.substr(0, 2 * kMiB));
    EXPECT_TRUE(Eventually([] { return HttpTuneGatheredBytes() > 0; }));
    CUpload second(server, body.size(), true);
    // It stops as soon as it is parked: what is then taken from the socket leaves less there than
    // the socket tells of.
    size_t sent = 0;
    EXPECT_TRUE(Eventually([&] {
        const size_t piece = sent < kMiB ? 16 * 1024 : 512;
        if (parked() == 0 && sent < 2 * kMiB) second.client.Send(body.substr(sent, piece));
        sent += piece;
        return parked() == 1;
    }));
    first.client.Send(body.substr(2 * kMiB));
    EXPECT_EQ(first.client.Read().status, 200);
    EXPECT_TRUE(Eventually([&] { return parked() == 0; }));
    CUpload third(server, body.size(), true);
    std::thread sender([&] { third.client.TrySend(body); });
    EXPECT_TRUE(Eventually([&] {
        if (parked() == 1) HttpTuneAdvanceClock(200);
        return reader.Count() == 2;
    }));
    sender.join();
    EXPECT_EQ(second.client.Read().status, 503);
    EXPECT_EQ(third.client.Read().status, 200);
    EXPECT_TRUE(reader.Body(1) == body);
}

// It is not the client's fault that no worker had time to read what it sent.
TEST(ParkedUpload, WhoHasSentIsNotRefusedBecauseNobodyRead) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, 5 * kMiB);
    CTuned<uint32_t> patience(HttpTune()->stall_ms, 10000);
    CServer server;
    const std::string body = Pattern(4 * kMiB);
    const auto settle = [&] { server.Settle(); };
    CUpload first(server, body.size(), true, settle);
    std::thread sender([&] { first.client.Send(body.substr(0, 2 * kMiB)); });
    EXPECT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneGatheredBytes() > 0;
    }));
    sender.join();
    CUpload second(server, body.size(), true, settle);
    sender = std::thread([&] { second.client.Send(body.substr(0, 2 * kMiB)); });
    EXPECT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneParkedUploads(server.Queue()) == 1;
    }));
    sender.join();
    first.client.Send(body.substr(2 * kMiB));
    for (int i = 0; i < 3; ++i)
        HttpTuneAdvanceClock(11000);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::string got;
    EXPECT_EQ(ReadAll(server, *block, got), NO_ERROR);
    EXPECT_TRUE(got == body);
    server.Reply(block->Id(), "yes");
    EXPECT_EQ(first.client.Read().status, 200);
}

// A chunked body that finds neither room nor a worker to spare.
struct CParkedChunked {
    CParkedChunked() {
        server.StartWorkers(2, reader.Answer());
        first.emplace(server, 4 * kMiB, false);
        first->client.Send(Pattern(2 * kMiB));
        EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
        upload.emplace(server, "Transfer-Encoding: chunked\r\n", false);
        upload->client.Send(Chunk(body));
        EXPECT_TRUE(Eventually([&] { return HttpTuneParkedUploads(server.Queue()) == 1; }));
    }
    // The other upload ends, so that a worker is free, and then this one.
    void Finish(const std::string& last) {
        first->client.Send(std::string(2 * kMiB, 'e'));
        EXPECT_EQ(first->client.Read().status, 200);
        upload->client.Send(last);
        EXPECT_EQ(upload->client.Read().status, 200);
        EXPECT_EQ(HttpTuneParkedUploads(server.Queue()), 0u);
        EXPECT_TRUE(Holds(0));
    }
    CTuned<uint64_t> bound{HttpTune()->gathered_bytes, kMiB / 2};
    CTuned<uint32_t> patience{HttpTune()->stall_ms, 60000};
    const std::string body = Pattern(100000);
    CReader reader;
    CServer server{6};
    std::optional<CUpload> first, upload;
};

TEST(ParkedUpload, ChunkedOneThatMakesAPauseStaysParked) {
    CParkedChunked parked;
    HttpTuneAdvanceClock(1000);
    CClient other(parked.server.TcpPort());
    other.Send(Get("/zem/other"));
    EXPECT_EQ(other.Read().status, 200);
    EXPECT_EQ(HttpTuneBlockedThreads(), 1u);
    parked.Finish("0\r\n\r\n");
    EXPECT_TRUE(parked.reader.Body(2) == parked.body);
}

TEST(ParkedUpload, ChunkedOneThatSendsOnIsNotClosed) {
    CParkedChunked parked;
    std::string body = parked.body;
    CClient other(parked.server.TcpPort());
    for (int i = 0; i < 8; ++i) {
        const std::string more = Pattern(5000 + static_cast<size_t>(i));
        parked.upload->client.Send(Chunk(more));
        body += more;
        other.Send(Get("/zem/other"));  // behind the pieces in the worker's row
        EXPECT_EQ(other.Read().status, 200);
    }
    parked.Finish("0\r\n\r\n");
    EXPECT_TRUE(parked.reader.Body(9) == body);
}

}  // namespace
}  // namespace httptest
