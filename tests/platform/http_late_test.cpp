// Events that a worker has taken from the system and comes to only later, when they tell of nothing
// any more.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <atomic>
#include <functional>
#include <thread>

#include "http_support.h"

namespace {

// What the calling thread does with events that it has taken before anybody looks at them.
thread_local std::function<void(const epoll_event*, int)>* t_on_events = nullptr;

}  // namespace

// Stands in for the C library's.
extern "C" __attribute__((visibility("default"))) int epoll_wait(int epoll, epoll_event* events,
                                                                 int room, int timeout_ms) {
    using Wait = int(int, epoll_event*, int, int);
    static auto* const wait = reinterpret_cast<Wait*>(dlsym(RTLD_NEXT, "epoll_wait"));
    const int count = wait(epoll, events, room, timeout_ms);
    if (t_on_events) (*t_on_events)(events, count);
    return count;
}

namespace httptest {
namespace {

constexpr uint32_t kIdle_ms = 120000;

void Connected(CServer& server, uint32_t count) {
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == count;
    }));
    server.Settle();
}

// The client that has closed its side is gone by then, and another has its slot: that one did not
// close anything, and nobody waits in vain for it to end.
TEST(LateEvent, OfAClosedConnectionLeavesTheNextOneAlone) {
    CServer server;
    auto first = std::make_unique<CClient>(server.TcpPort());
    Connected(server, 1);
    first->EndSending();

    std::atomic<bool> taken{false}, go_on{false}, done{false};
    std::function<void(const epoll_event*, int)> hold = [&](const epoll_event* events, int count) {
        for (int i = 0; i < count; ++i)
            if ((events[i].events & EPOLLRDHUP) && !taken.exchange(true)) go_on.wait(false);
    };
    std::thread worker([&] {
        t_on_events = &hold;
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* overlapped = nullptr;
        EXPECT_TRUE(GetQueuedCompletionStatus(server.Port(), &bytes, &key, &overlapped, INFINITE));
        EXPECT_EQ(bytes, 7u);
        t_on_events = nullptr;
        done = true;
    });
    EXPECT_TRUE(Eventually([&] { return taken.load(); }));
    HttpTuneAdvanceClock(kIdle_ms + 1);  // ends the connection, which nobody has claimed
    EXPECT_EQ(HttpTuneConnections(), 0u);
    CClient second(server.TcpPort());
    Connected(server, 1);
    go_on = true;
    go_on.notify_all();

    EXPECT_TRUE(PostQueuedCompletionStatus(server.Port(), 7, 1, nullptr));
    EXPECT_TRUE(Eventually([&] { return done.load(); }));
    if (!done) second.Reset();  // lets a worker go that reads on and on
    worker.join();
    if (HasFailure()) return;
    second.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), "here"), NO_ERROR);
    EXPECT_EQ(second.Read().body, "here");
    second.EndSending();
    Connected(server, 0);
}

}  // namespace
}  // namespace httptest
