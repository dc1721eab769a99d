// A port's workers are seated one by one; whatever a seated one does, the work that comes next
// finds another. Each test has more workers than work in hand, and ends only when all of it is
// served.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace {

// Workers that wait for ever in one port and run the job that a packet names.
class CWorkers {
public:
    using Job = std::function<void()>;

    explicit CWorkers(int count) {
        for (int i = 0; i < count; ++i)
            m_threads.emplace_back([this] { Serve(); });
    }
    ~CWorkers() {
        for (size_t i = 0; i < m_threads.size(); ++i)
            PostQueuedCompletionStatus(m_port, 0, 0, nullptr);
        for (std::thread& thread : m_threads)
            thread.join();
        CloseHandle(m_port);
    }
    void Run(Job& job) {
        PostQueuedCompletionStatus(m_port, 0, reinterpret_cast<ULONG_PTR>(&job), nullptr);
    }

private:
    void Serve() {
        DWORD bytes;
        ULONG_PTR key;
        LPOVERLAPPED overlapped;
        while (GetQueuedCompletionStatus(m_port, &bytes, &key, &overlapped, INFINITE) && key != 0)
            (*reinterpret_cast<Job*>(key))();
    }

    HANDLE m_port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    std::vector<std::thread> m_threads;
};

// A gate that the platform knows nothing of.
class CGate {
public:
    void Open() {
        const std::lock_guard lock(m_lock);
        m_open = true;
        m_opened.notify_all();
    }
    void Wait() {
        std::unique_lock lock(m_lock);
        m_opened.wait(lock, [this] { return m_open; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_opened;
    bool m_open = false;
};

TEST(PortSeats, AWaitOfAWorkerGivesItsSeatToAnother) {
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    CWorkers::Job waits = [&] { WaitForSingleObject(event, INFINITE); };
    CWorkers::Job ends = [&] { SetEvent(event); };
    {
        CWorkers workers(2);
        workers.Run(waits);
        workers.Run(ends);
    }
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    CloseHandle(event);
}

TEST(PortSeats, AWorkerThatSleepsWhereThePlatformCannotSeeItIsReplaced) {
    CGate gate;
    CWorkers::Job waits = [&] { gate.Wait(); };
    CWorkers::Job ends = [&] { gate.Open(); };
    CWorkers workers(2);
    workers.Run(waits);
    workers.Run(ends);
}

TEST(PortSeats, AWorkerThatNeverPausesIsReplaced) {
    std::atomic<bool> done{false};
    CWorkers::Job spins = [&] {
        while (!done.load())
            std::this_thread::yield();
    };
    CWorkers::Job ends = [&] { done.store(true); };
    CWorkers workers(2);
    workers.Run(spins);
    workers.Run(ends);
}

TEST(PortSeats, WorkThatComesLongAfterTheWorkerWentAwayIsServed) {
    CGate gate;
    CGate begun;
    CWorkers::Job waits = [&] {
        begun.Open();
        gate.Wait();
    };
    CWorkers::Job nothing = [] {};
    CWorkers::Job ends = [&] { gate.Open(); };
    CWorkers workers(3);
    workers.Run(waits);
    begun.Wait();
    for (int i = 0; i < 100; ++i)
        workers.Run(nothing);
    workers.Run(ends);
}

TEST(PortSeats, EveryWorkerCanBeBusyAtOnce) {
    constexpr int kWorkers = 12;
    std::barrier all(kWorkers);
    CWorkers::Job meets = [&] { all.arrive_and_wait(); };
    CWorkers workers(kWorkers);
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < kWorkers; ++i)
            workers.Run(meets);
    }
}

TEST(PortSeats, AWorkerThatEndsLeavesItsSeat) {
    CWorkers::Job nothing = [] {};
    for (int i = 0; i < 50; ++i) {
        CWorkers workers(4);
        workers.Run(nothing);
    }
}

TEST(PortSeats, ClosingThePortSendsTheParkedWorkersHome) {
    const HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    std::atomic<int> abandoned{0};
    std::vector<std::thread> threads;
    std::barrier started(5);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            DWORD bytes;
            ULONG_PTR key;
            LPOVERLAPPED overlapped = nullptr;
            started.arrive_and_wait();
            if (GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE)) return;
            // Who had not begun to wait finds an invalid handle.
            if (GetLastError() == ERROR_ABANDONED_WAIT_0 || GetLastError() == ERROR_INVALID_HANDLE)
                ++abandoned;
        });
    }
    started.arrive_and_wait();
    CloseHandle(port);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(abandoned.load(), 4);
}

}  // namespace
