// Uploads of every kind at once, with little room for them: each byte of what is taken is right,
// and nothing is left behind.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "http_uploads.h"

namespace httptest {
namespace {

std::string Sum(const std::string& body) {
    uint64_t sum = 14695981039346656037u;
    for (const char c : body)
        sum = (sum ^ static_cast<uint8_t>(c)) * 1099511628211u;
    return std::to_string(body.size()) + "-" + std::to_string(sum);
}

// Answers with the body's sum; 500 when it did not come whole.
void AnswerSum(CServer& server, CBlock& block) {
    if (block.error != NO_ERROR) return;
    std::string body;
    const ULONG error = ReadAll(server, block, body);
    server.Reply(block.Id(), Sum(body), static_cast<USHORT>(error == NO_ERROR ? 200 : 500));
}

// One client's uploads, one after the other; how many were taken.
class CRestlessClient {
public:
    // Port 0: for a connection of the caller's to a server that may end.
    CRestlessClient(uint16_t port, unsigned seed)
        : m_port(port), m_may_end(port == 0), m_random(seed) {}
    int Run(int uploads) {
        int taken = 0;
        for (int i = 0; i < uploads; ++i) {
            CClient client(m_port);
            taken += Upload(client);
        }
        return taken;
    }

    bool Upload(CClient& client);

private:
    size_t Any(size_t from, size_t to) {
        return std::uniform_int_distribution<size_t>(from, to)(m_random);
    }
    std::string Wire(const std::string& body, bool chunked) {
        if (!chunked) return PostHead(body.size()) + body;
        std::string wire = "POST /zem/ HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n";
        for (size_t at = 0; at < body.size();) {
            const size_t most = Any(0, 1) ? 9000 : 300000;
            const size_t size = std::min(body.size() - at, Any(1, most));
            wire += Chunk(body.substr(at, size));
            at += size;
        }
        return wire + "0\r\n\r\n";
    }
    uint16_t m_port;
    bool m_may_end;
    std::mt19937 m_random;
};

bool CRestlessClient::Upload(CClient& client) {
    static const size_t kSizes[] = {4096,     8192,         16384,       kMiB - 1,
                                    kMiB,     kMiB + 1,     kMiB + 8192, kMiB + 16384,
                                    2 * kMiB, 5 * kMiB / 2, 4 * kMiB};
    std::string body = Pattern(kSizes[Any(0, std::size(kSizes) - 1)] + Any(0, 2) - 1);
    body[Any(0, body.size() - 1)] = 'x';
    std::string wire = Wire(body, Any(0, 2) == 0);
    const bool behind = Any(0, 2) == 0;
    const size_t whole = wire.size();
    if (behind) wire += Get("/zem/behind");
    const bool leaves = Any(0, 5) == 0;
    if (leaves) wire.resize(Any(0, whole - 1));
    for (size_t at = 0; at < wire.size();) {
        const size_t size = std::min(wire.size() - at, Any(1, Any(0, 1) ? 40000 : 2 * kMiB));
        if (!client.TrySend(wire.substr(at, size))) break;
        at += size;
    }
    if (leaves && Any(0, 1)) {
        client.Reset();
        return false;
    }
    if (leaves || Any(0, 2) == 0) client.EndSending();
    const CReply reply = client.Read();
    if (reply.status != 200) return false;
    EXPECT_FALSE(leaves);
    EXPECT_EQ(reply.body, Sum(body));
    if (behind) {
        const CReply second = client.Read();
        const bool over = m_may_end && second.status == 0;
        EXPECT_TRUE(over || second.body == Sum(""));
    }
    return true;
}

void Storm(uint32_t stall_ms, uint64_t room) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, room);
    CTuned<uint32_t> patience(HttpTune()->stall_ms, stall_ms);
    CServer server(8);
    server.StartWorkers(4, AnswerSum);
    std::atomic<int> taken{0};
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < 12; ++i) {
        clients.emplace_back(
            [&, i] { taken += CRestlessClient(server.TcpPort(), i + stall_ms).Run(6); });
    }
    for (std::thread& client : clients)
        client.join();
    EXPECT_GT(taken.load(), 0);
    EXPECT_TRUE(Eventually([] { return HttpTuneConnections() == 0; }));
    EXPECT_EQ(HttpTuneParkedUploads(server.Queue()), 0u);
    EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
}

TEST(UploadStress, PatientWithRoomForTwo) {
    Storm(60000, 9 * kMiB);
}

TEST(UploadStress, PatientWithRoomForNone) {
    Storm(60000, kMiB / 2);
}

TEST(UploadStress, HurriedWithRoomForTwo) {
    Storm(20, 9 * kMiB);
}

TEST(UploadStress, HurriedWithRoomForNone) {
    Storm(20, kMiB / 2);
}

TEST(UploadStress, ClosingInTheMiddleLeavesNothing) {
    CTuned<uint64_t> bound(HttpTune()->gathered_bytes, 3 * kMiB);
    CTuned<uint32_t> patience(HttpTune()->stall_ms, 1);
    for (unsigned round = 0; round < 10; ++round) {
        CServer server(8);
        server.StartWorkers(4, AnswerSum);
        std::vector<std::unique_ptr<CClient>> sockets;
        for (int i = 0; i < 8; ++i)
            sockets.push_back(std::make_unique<CClient>(server.TcpPort()));
        std::atomic<size_t> done{0};
        std::vector<std::thread> clients;
        for (unsigned i = 0; i < sockets.size(); ++i) {
            clients.emplace_back([&sockets, &done, seed = 100 * round + i, i] {
                CRestlessClient(0, seed).Upload(*sockets[i]);
                ++done;
            });
        }
        EXPECT_TRUE(Eventually(
            [&] { return HttpTuneGatheredBytes() > 0 || done.load() == sockets.size(); }));
        server.CloseQueue();
        server.StopWorkers();
        for (std::thread& client : clients)
            client.join();
        EXPECT_EQ(HttpTuneConnections(), 0u);
        EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
    }
}

}  // namespace
}  // namespace httptest
