// Many connections and many threads at once.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>

#include "http_support.h"

namespace httptest {
namespace {

TEST(Load, TwoThousandIdleConnections) {
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    const size_t count = files.rlim_cur > 4200 ? 2000 : (files.rlim_cur - 100) / 2;
    CServer server;
    server.StartWorkers(2);
    std::vector<std::unique_ptr<CClient>> clients;
    for (size_t i = 0; i < count; ++i)
        clients.push_back(std::make_unique<CClient>(server.TcpPort()));
    ASSERT_TRUE(Eventually([&] { return HttpTuneConnections() == count; }));
    for (size_t i = 0; i < count; i += 97) {
        clients[i]->Send(PostHead(4) + "ping");
        EXPECT_EQ(clients[i]->Read().body, "ping");
    }
    clients.resize(count / 2);
    EXPECT_TRUE(Eventually([&] { return HttpTuneConnections() == count / 2; }));
    clients.back()->Send(Get("/zem/"));
    EXPECT_EQ(clients.back()->Read().status, 200);
}

TEST(Load, EveryRequestIsAnsweredOnceWithItsOwnBody) {
    CServer server(6);
    server.StartWorkers(4);
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    constexpr int kThreads = 8, kRounds = 150;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            CClient client(server.TcpPort());
            for (int i = 0; i < kRounds; ++i) {
                const std::string body = std::to_string(t) + ":" + std::to_string(i);
                const int pipelined = i % 20 + 1;
                std::string bytes;
                for (int n = 0; n < pipelined; ++n)
                    bytes += PostHead(body.size()) + body;
                client.Send(bytes);
                for (int n = 0; n < pipelined; ++n)
                    if (client.Read().body != body) return;
                ++right;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right.load(), kThreads * kRounds);
}

TEST(Load, PipelinedRequestsDoNotKeepOthersWaiting) {
    CServer server(4);
    std::string many;
    for (int i = 0; i < 200; ++i)
        many += Get("/zem/many");
    CClient greedy(server.TcpPort()), modest(server.TcpPort());
    greedy.Send(many);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    modest.Send(Get("/zem/modest"));
    int before = 0;
    while (std::string(block->Request()->pRawUrl) == "/zem/many") {
        server.Reply(block->Id(), "");
        server.Repost(block);
        ASSERT_LT(++before, 40);
        block = server.Take();
        ASSERT_NE(block, nullptr);
    }
    server.Reply(block->Id(), "");
    EXPECT_EQ(modest.Read().status, 200);
}

}  // namespace
}  // namespace httptest
