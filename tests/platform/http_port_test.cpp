// The completion port by itself.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "http_support.h"

namespace httptest {
namespace {

struct CGot {
    BOOL ok;
    DWORD bytes = 0, error = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
};

CGot Get1(HANDLE port, DWORD timeout_ms) {
    CGot got;
    got.ok = GetQueuedCompletionStatus(port, &got.bytes, &got.key, &got.overlapped, timeout_ms);
    if (!got.ok) got.error = GetLastError();
    return got;
}

HANDLE NewPort() {
    return CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
}

TEST(Port, PacketsComeOutInOrderAsTheyWentIn) {
    const HANDLE port = NewPort();
    ASSERT_NE(port, nullptr);
    OVERLAPPED overlapped{};
    for (DWORD i = 1; i <= 100; ++i)
        EXPECT_TRUE(PostQueuedCompletionStatus(port, i, i * 10, i % 2 ? &overlapped : nullptr));
    for (DWORD i = 1; i <= 100; ++i) {
        const CGot got = Get1(port, 0);
        EXPECT_TRUE(got.ok);
        EXPECT_EQ(got.bytes, i);
        EXPECT_EQ(got.key, i * 10);
        EXPECT_EQ(got.overlapped, i % 2 ? &overlapped : nullptr);
    }
    CloseHandle(port);
}

TEST(Port, TimesOut) {
    const HANDLE port = NewPort();
    for (DWORD timeout_ms : {0u, 1u, 20u}) {
        const CGot got = Get1(port, timeout_ms);
        EXPECT_FALSE(got.ok);
        EXPECT_EQ(got.error, DWORD{WAIT_TIMEOUT});
        EXPECT_EQ(got.overlapped, nullptr);
    }
    CloseHandle(port);
}

TEST(Port, BadArguments) {
    const HANDLE port = NewPort();
    EXPECT_EQ(CreateIoCompletionPort(INVALID_HANDLE_VALUE, port, 0, 0), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CreateIoCompletionPort(nullptr, port, 0, 0), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_FALSE(PostQueuedCompletionStatus(nullptr, 0, 0, nullptr));
    EXPECT_EQ(Get1(nullptr, 0).error, DWORD{ERROR_INVALID_HANDLE});
    CServer server(0);
    EXPECT_EQ(CreateIoCompletionPort(server.Queue(), port, 1, 0), nullptr);  // it has its port
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Get1(server.Queue(), 0).error, DWORD{ERROR_INVALID_HANDLE});
    CloseHandle(port);
    EXPECT_EQ(Get1(port, 0).error, DWORD{ERROR_INVALID_HANDLE});
}

TEST(Port, EveryPacketIsTakenOnceByManyThreads) {
    const HANDLE port = NewPort();
    constexpr int kThreads = 6, kPackets = 20000;
    std::atomic<uint64_t> sum{0};
    std::atomic<int> taken{0};
    std::vector<std::thread> takers, posters;
    for (int i = 0; i < kThreads; ++i) {
        takers.emplace_back([&] {
            for (;;) {
                const CGot got = Get1(port, INFINITE);
                if (!got.ok || got.key == 0) return;
                sum += got.bytes;
                ++taken;
            }
        });
    }
    for (int i = 0; i < 2; ++i) {
        posters.emplace_back([&] {
            for (DWORD n = 1; n <= kPackets; ++n)
                PostQueuedCompletionStatus(port, n, 1, nullptr);
        });
    }
    for (std::thread& poster : posters)
        poster.join();
    for (int i = 0; i < kThreads; ++i)
        PostQueuedCompletionStatus(port, 0, 0, nullptr);
    for (std::thread& taker : takers)
        taker.join();
    EXPECT_EQ(taken.load(), 2 * kPackets);
    EXPECT_EQ(sum.load(), uint64_t{kPackets} * (kPackets + 1));
    CloseHandle(port);
}

TEST(Port, ClosingItFreesEveryWaiter) {
    const HANDLE port = NewPort();
    std::atomic<int> abandoned{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 5; ++i) {
        waiters.emplace_back([&] {
            const CGot got = Get1(port, INFINITE);
            if (!got.ok && !got.overlapped &&
                (got.error == ERROR_ABANDONED_WAIT_0 || got.error == ERROR_INVALID_HANDLE)) {
                ++abandoned;
            }
        });
    }
    CloseHandle(port);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(abandoned.load(), 5);
}

TEST(Port, FailedReceiveIsFalseWithItsOverlapped) {
    CServer server(1);
    server.CloseQueue();
    const CGot got = Get1(server.Port(), 0);
    EXPECT_FALSE(got.ok);
    EXPECT_NE(got.overlapped, nullptr);
    EXPECT_EQ(got.error, DWORD{ERROR_OPERATION_ABORTED});
}

}  // namespace
}  // namespace httptest
