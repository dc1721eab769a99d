// What the system refuses: memory, descriptors, watches of them. It costs a client its connection
// at most; a receive, and with it a worker, never. The test's thread is the server, so that it is
// the server's calls that fail.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>

#include "http_support.h"
#include "tests/fakes/allocfault.h"
#include "tests/platform/sysloglines.h"

namespace {

// The calling thread's next epoll_ctl with that operation fails, once.
thread_local int t_refused_operation = 0;
thread_local int t_refusal = 0;
thread_local bool t_no_descriptor = false;  // for a connection

void Refuse(int operation, int error) {
    t_refused_operation = operation;
    t_refusal = error;
}

}  // namespace

// These stand in for the C library's.
extern "C" __attribute__((visibility("default"))) int accept4(int socket, sockaddr* address,
                                                              socklen_t* length, int flags) {
    using Accept = int(int, sockaddr*, socklen_t*, int);
    static auto* const accept = reinterpret_cast<Accept*>(dlsym(RTLD_NEXT, "accept4"));
    if (!t_no_descriptor) return accept(socket, address, length, flags);
    errno = EMFILE;
    return -1;
}

extern "C" __attribute__((visibility("default"))) int epoll_ctl(int epoll, int operation, int fd,
                                                                epoll_event* event) noexcept {
    using Control = int(int, int, int, epoll_event*);
    static auto* const control = reinterpret_cast<Control*>(dlsym(RTLD_NEXT, "epoll_ctl"));
    if (t_refusal == 0 || operation != t_refused_operation)
        return control(epoll, operation, fd, event);
    errno = std::exchange(t_refusal, 0);
    return -1;
}

namespace httptest {
namespace {

// While one lives the calling thread gets no memory.
struct CNoMemory {
    CNoMemory() { FailAllAllocations(true); }
    ~CNoMemory() { FailAllAllocations(false); }
};

TEST(NoMemory, EveryAbortedReceiveIsTold) {
    constexpr int kReceives = 200;
    CServer server(kReceives);
    {
        const CNoMemory none;
        server.CloseQueue();
    }
    int aborted = 0;
    while (const CBlock* block = server.Take(0))
        aborted += block->error == ERROR_OPERATION_ABORTED;
    EXPECT_EQ(aborted, kReceives);
}

// The first one's receive is taken by its own request; the others' requests wait.
TEST(NoMemory, EveryRequestThatWaitedIsTold) {
    constexpr int kClients = 50;
    CServer server(1);
    std::vector<std::unique_ptr<CClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<CClient>(server.TcpPort()));
        clients.back()->Send(Get("/zem/" + std::to_string(i)));
    }
    CBlock* const block = server.Take();
    ASSERT_NE(block, nullptr);
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneWaitingRequests(server.Queue()) == kClients - 1;
    }));
    for (int i = 1; i < kClients; ++i) {
        {
            const CNoMemory none;
            server.Repost(block);
        }
        ASSERT_EQ(server.Take(), block);
        EXPECT_EQ(block->error, DWORD{NO_ERROR});
    }
}

TEST(NoMemory, APacketOfOnesOwnIsRefused) {
    const HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    ASSERT_NE(port, nullptr);
    const auto fill = [&] {
        const CNoMemory none;
        DWORD posted = 0;
        while (posted < 10000 && PostQueuedCompletionStatus(port, posted, 1, nullptr))
            ++posted;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
        return posted;
    };
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    // As many as there are from the beginning, and later the one that was made meanwhile.
    for (const DWORD places : {2048u, 2049u}) {
        ASSERT_EQ(fill(), places);
        EXPECT_TRUE(PostQueuedCompletionStatus(port, 4711, 2, nullptr)) << "with memory again";
        for (DWORD i = 0; i < places; ++i) {
            ASSERT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0));
            EXPECT_EQ(bytes, i);
            EXPECT_EQ(key, 1u);
        }
        ASSERT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0));
        EXPECT_EQ(bytes, 4711u);
        EXPECT_EQ(key, 2u);
    }
    CloseHandle(port);
}

TEST(NoMemory, WorkersComeAndGoWithoutAny) {
    constexpr int kWorkers = 8;
    const HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    std::atomic<int> served{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkers; ++i) {
        workers.emplace_back([&] {
            const CNoMemory none;
            DWORD bytes = 0;
            ULONG_PTR key = 1;
            OVERLAPPED* overlapped = nullptr;
            while (GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE) && key)
                ++served;
        });
    }
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(PostQueuedCompletionStatus(port, 0, 1, nullptr));
    for (int i = 0; i < kWorkers; ++i)
        EXPECT_TRUE(PostQueuedCompletionStatus(port, 0, 0, nullptr));
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(served.load(), 100);
    CloseHandle(port);
}

TEST(NoMemory, ForOneMoreHandleIsAnError) {
    constexpr size_t kTable_bytes = 65536;
    std::vector<HANDLE> handles;
    handles.reserve(200000);
    FailNextAllocation(kTable_bytes);
    HANDLE handle = nullptr;
    while (handles.size() < 200000 && (handle = CreateEventW(nullptr, TRUE, FALSE, nullptr)))
        handles.push_back(handle);
    const DWORD error = GetLastError();
    EXPECT_TRUE(AllocationFailed());
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(error, DWORD{ERROR_NO_SYSTEM_RESOURCES});
    handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_NE(handle, nullptr);
    handles.push_back(handle);
    for (const HANDLE one : handles)
        EXPECT_TRUE(CloseHandle(one));
}

TEST(NoMemory, ForWhatLiesBehindARequestCostsTheClientAlone) {
    CTuned<uint32_t> none_kept(HttpTune()->kept_buffers, 0);
    CServer server(1);
    CClient client(server.TcpPort());
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return HttpTuneConnections() == 1;
    }));
    client.Send(Get("/zem/first", "X-Long: " + std::string(500, 'x') + "\r\n") + Get("/zem/next"));
    ASSERT_TRUE(Eventually([&] {
        const CNoMemory none;
        EXPECT_EQ(server.Take(0), nullptr) << "not even a failed one: that ends a worker";
        return HttpTuneConnections() == 0 && client.AtEnd();
    }));

    CClient other(server.TcpPort());
    other.Send(Get("/zem/other"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr) << "the receive is still there";
    ASSERT_EQ(block->error, DWORD{NO_ERROR});
    EXPECT_STREQ(block->Request()->pRawUrl, "/zem/other");
    const char* const bytes = reinterpret_cast<const char*>(block->memory.get());
    EXPECT_EQ(std::string(bytes + block->bytes, block->size - block->bytes),
              std::string(block->size - block->bytes, '\0'))
        << "and holds nothing of the first request";
    EXPECT_EQ(server.Reply(block->Id(), "here"), NO_ERROR);
    EXPECT_EQ(other.Read().body, "here");
}

// --- each allocation in turn ---

const std::string kPiece(3000, 'p');
const std::string kLarge(300'000, 'l');

// A client's session: true when every answer came.
bool Talk(uint16_t port, const std::atomic<int>& rounds) {
    bool whole = true;
    // Until the server has looked at what was sent.
    const auto settle = [&rounds] {
        for (const int before = rounds.load(), enough = before + 3; rounds.load() < enough;)
            std::this_thread::yield();
    };
    const auto exchange = [&](const std::vector<std::string>& pieces, int replies) {
        CClient client(port, 4096);
        for (const std::string& piece : pieces) {
            client.TrySend(piece);
            if (&piece != &pieces.back()) settle();
        }
        for (int i = 0; i < replies; ++i) {
            int status = 100;
            while (status == 100)
                status = client.Read().status;
            whole &= status != 0;
        }
    };
    exchange({Get("/zem/a") + Get("/zem/b") + Get("/zem/c")}, 3);
    exchange({"GET /zem/in-pie", "ces HTTP/1.1\r\nHost: x\r\n\r\n"}, 1);
    exchange({Get("/nobody") + Get("/zem/")}, 2);
    exchange({PostHead(kPiece.size()), kPiece}, 1);
    exchange({PostHead(kPiece.size()) + kPiece.substr(0, 7), kPiece.substr(7) + Get("/zem/")}, 2);
    exchange({"POST /zem/ HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n", "3\r\nab",
              "c\r\n0\r\n\r\n" + Get("/zem/")},
             2);
    exchange({PostHead(kLarge.size()), kLarge}, 1);
    exchange({"GET /zem/long HTTP/1.1\r\nHost: x\r\nX: " + std::string(12000, 'x'), "x\r\n\r\n"},
             1);
    return whole;
}

// Answers one request with the calling thread's memory only where the interface takes some.
void Answer(CServer& server, CBlock& block) {
    static char s_body[65536];
    static const std::string s_small("small");
    ASSERT_EQ(block.error, DWORD{NO_ERROR}) << "a failed receive ends a worker";
    ULONG got = 0, error = NO_ERROR;
    while (error == NO_ERROR) {
        error = HttpReceiveRequestEntityBody(server.Queue(), block.Id(), 0, s_body, sizeof s_body,
                                             &got, nullptr);
    }
    if (server.Reply(block.Id(), s_small) == ERROR_NOT_ENOUGH_MEMORY)
        server.Reply(block.Id(), s_small, 200, HTTP_SEND_RESPONSE_FLAG_DISCONNECT);
    server.Repost(&block);
}

TEST(NoMemory, EachAllocationInTurnCostsAConnectionAtMost) {
    CTuned<uint32_t> none_kept(HttpTune()->kept_buffers, 0);
    constexpr int kReceives = 2;
    CServer server(kReceives);
    std::atomic<int> rounds{0};
    const auto session = [&](uint64_t skipped, bool* failed) {
        std::atomic<bool> done{false};
        bool whole = false;
        std::thread client([&] {
            whole = Talk(server.TcpPort(), rounds);
            done = true;
        });
        FailAllocationAfter(skipped);
        while (!done) {
            if (CBlock* block = server.Take(1)) Answer(server, *block);
            ++rounds;
        }
        *failed = AllocationFailed();
        client.join();
        return whole;
    };
    bool failed = false;
    ASSERT_TRUE(session(1'000'000, &failed)) << "with memory";
    int injected = 0, cut = 0;
    for (uint64_t skipped = 0;; ++skipped) {
        ASSERT_LT(skipped, 1000u);
        SCOPED_TRACE("after " + std::to_string(skipped));
        const bool whole = session(skipped, &failed);
        EXPECT_TRUE(whole || failed);
        if (!failed || HasFailure()) break;
        ++injected;
        cut += !whole;
    }
    RecordProperty("injected", injected);
    std::printf("[ FAULTS   ] %d injected, %d sessions lost a connection\n", injected, cut);
    EXPECT_GE(injected, 5);

    // Every receive is still there.
    CClient one(server.TcpPort()), two(server.TcpPort());
    one.Send(Get("/zem/"));
    two.Send(Get("/zem/"));
    for (int i = 0; i < kReceives; ++i) {
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(server.Reply(block->Id(), "here"), NO_ERROR);
    }
}

// A thread that is no worker of the port leaves what a client does not take to the background at
// once; without memory it waits a while and tries again.
TEST(NoMemory, ForTheRestOfAnAnswerCostsAConnectionAtMost) {
    CServer server(1);
    const std::string large(20u << 20, 'r');
    bool failed = false;
    const auto answer = [&](auto&& fail) {
        CClient client(server.TcpPort(), 4096);
        client.Send(Get("/zem/"));
        CBlock* const block = server.Take();
        EXPECT_NE(block, nullptr);
        if (!block) return ULONG{ERROR_HANDLE_EOF};
        ULONG error = NO_ERROR;
        std::atomic<bool> done{false};
        std::thread library([&] {
            fail();
            error = server.Reply(block->Id(), large);
            FailAllAllocations(false);
            failed = AllocationFailed();
            done = true;
        });
        EXPECT_TRUE(Eventually([&] { return done || HttpTuneBlockedThreads() == 1; }));
        if (!done) HttpTuneAdvanceClock(300);  // the while is over
        library.join();
        client.Reset();
        EXPECT_TRUE(Eventually([&] {
            server.Settle();
            return HttpTuneConnections() == 0;
        }));
        EXPECT_EQ(HttpTuneBackgroundBytes(), 0u);
        server.Repost(block);
        return error;
    };
    uint64_t injected = 0;
    do
        EXPECT_EQ(answer([&] { FailAllocationAfter(injected); }), NO_ERROR) << injected;
    while (failed && ++injected < 100);
    EXPECT_GE(injected, 4u);
    EXPECT_LT(injected, 100u);
    EXPECT_EQ(answer([] { FailAllAllocations(true); }), ULONG{ERROR_NETNAME_DELETED});
}

// --- watches ---

TEST(NoWatch, AUrlWhoseSocketCannotBeWatchedIsRefused) {
    const uint16_t port = CServer(0).TcpPort();  // free again
    CServer server(1);
    const std::u16string url = Prefix(port, "/watch/");
    for (const auto& [error, told] : {std::pair(ENOMEM, ULONG{ERROR_NOT_ENOUGH_MEMORY}),
                                      std::pair(ENOSPC, ULONG{ERROR_NO_SYSTEM_RESOURCES})}) {
        Refuse(EPOLL_CTL_ADD, error);
        EXPECT_EQ(HttpAddUrl(server.Queue(), url.c_str(), nullptr), told);
        EXPECT_EQ(HttpTuneBoundPort(server.Queue(), port), 0);
        EXPECT_EQ(HttpRemoveUrl(server.Queue(), url.c_str()), ERROR_FILE_NOT_FOUND);
    }
    ASSERT_EQ(HttpAddUrl(server.Queue(), url.c_str(), nullptr), NO_ERROR) << "the port is free";
    CClient client(port);
    client.Send(Get("/watch/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), "here"), NO_ERROR);
    EXPECT_EQ(client.Read().body, "here");
}

TEST(NoWatch, AConnectionThatCannotBeWatchedIsClosed) {
    CServer server(1);
    TakeSyslogLines();
    CClient client(server.TcpPort());
    Refuse(EPOLL_CTL_ADD, ENOSPC);
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return t_refusal == 0;
    }));
    EXPECT_EQ(client.ReadToEnd(), "");
    EXPECT_EQ(HttpTuneConnections(), 0u);
    EXPECT_EQ(
        TakeSyslogLines(),
        std::vector<std::string>{"<4> http: a new connection was closed: No space left on device"});
    CClient other(server.TcpPort());
    other.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), "here"), NO_ERROR);
}

// They wait in the backlog, and the system's log says it once.
TEST(NoDescriptor, ClientsWaitUntilThereIsOne) {
    CServer server(1);
    TakeSyslogLines();
    CClient client(server.TcpPort());
    client.Send(Get("/zem/"));
    t_no_descriptor = true;
    std::vector<std::string> told;
    const bool waits = Eventually([&] {
        EXPECT_EQ(server.Take(250), nullptr);  // more than two looks
        told = TakeSyslogLines();
        return !told.empty();
    });
    EXPECT_EQ(server.Take(250), nullptr);
    t_no_descriptor = false;
    EXPECT_TRUE(waits);
    EXPECT_EQ(told,
              std::vector<std::string>{"<4> http: new connections wait: Too many open files"});
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), "here"), NO_ERROR);
    EXPECT_EQ(client.Read().body, "here");
    EXPECT_TRUE(TakeSyslogLines().empty());
}

TEST(NoWatch, AListenerThatCannotBeArmedAcceptsAgainLater) {
    CServer server(1);
    CClient first(server.TcpPort());
    Refuse(EPOLL_CTL_MOD, ENOMEM);
    ASSERT_TRUE(Eventually([&] {
        server.Settle();
        return t_refusal == 0;
    }));
    CClient second(server.TcpPort());
    second.Send(Get("/zem/"));
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(server.Reply(block->Id(), "here"), NO_ERROR);
    EXPECT_EQ(second.Read().body, "here");
}

}  // namespace
}  // namespace httptest
