// Locks, waits, threads and queued calls, in Windows terms. Threads meet at semaphores and events,
// never by time.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "platform/atomicwait.h"
#include "platform/platform.h"

namespace {

// A thread that runs a function and is waited for at the end of the scope.
class CTestThread {
public:
    explicit CTestThread(std::function<unsigned()> body) : m_body(std::move(body)) {
        m_handle = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Run, this, 0, &m_id));
    }
    ~CTestThread() {
        Join();
        EXPECT_TRUE(CloseHandle(m_handle));
    }
    void Join() { EXPECT_EQ(WaitForSingleObject(m_handle, INFINITE), WAIT_OBJECT_0); }
    HANDLE Handle() const { return m_handle; }
    unsigned Id() const { return m_id; }

private:
    static unsigned __stdcall Run(void* self) { return static_cast<CTestThread*>(self)->m_body(); }
    std::function<unsigned()> m_body;
    HANDLE m_handle = nullptr;
    unsigned m_id = 0;
};

struct CHandle {
    explicit CHandle(HANDLE h) : handle(h) { EXPECT_NE(h, nullptr); }
    ~CHandle() { EXPECT_TRUE(CloseHandle(handle)); }
    operator HANDLE() const { return handle; }
    HANDLE handle;
};

HANDLE NewEvent(bool manual, bool set) {
    return CreateEventW(nullptr, manual, set, nullptr);
}

HANDLE NewSemaphore(LONG initial, LONG maximum) {
    return CreateSemaphoreW(nullptr, initial, maximum, nullptr);
}

TEST(CriticalSection, IsReEntrant) {
    CRITICAL_SECTION section;
    EXPECT_TRUE(InitializeCriticalSectionAndSpinCount(&section, 4000));
    EnterCriticalSection(&section);
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));
    LeaveCriticalSection(&section);
    LeaveCriticalSection(&section);
    {
        CTestThread other([&] { return static_cast<unsigned>(TryEnterCriticalSection(&section)); });
        other.Join();
        DWORD got = 1;
        EXPECT_TRUE(GetExitCodeThread(other.Handle(), &got));
        EXPECT_EQ(got, 0u);
    }
    LeaveCriticalSection(&section);
    {
        CTestThread other([&] {
            const BOOL entered = TryEnterCriticalSection(&section);
            if (entered) LeaveCriticalSection(&section);
            return static_cast<unsigned>(entered);
        });
        other.Join();
        DWORD got = 0;
        EXPECT_TRUE(GetExitCodeThread(other.Handle(), &got));
        EXPECT_EQ(got, 1u);
    }
    DeleteCriticalSection(&section);
}

TEST(CriticalSection, ExcludesUnderContention) {
    for (const DWORD spin : {0u, 4000u}) {
        CRITICAL_SECTION section;
        InitializeCriticalSectionAndSpinCount(&section, spin);
        uint64_t plain = 0;  // the sanitizer sees a race if the lock fails
        constexpr int kThreads = 4, kRounds = 20000;
        {
            std::vector<std::unique_ptr<CTestThread>> threads;
            for (int i = 0; i < kThreads; ++i) {
                threads.push_back(std::make_unique<CTestThread>([&] {
                    for (int round = 0; round < kRounds; ++round) {
                        EnterCriticalSection(&section);
                        EnterCriticalSection(&section);
                        ++plain;
                        LeaveCriticalSection(&section);
                        LeaveCriticalSection(&section);
                    }
                    return 0u;
                }));
            }
        }
        EXPECT_EQ(plain, uint64_t{kThreads} * kRounds);
        DeleteCriticalSection(&section);
    }
}

TEST(Semaphore, CountsAndRefuses) {
    const CHandle semaphore(NewSemaphore(1, 3));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    LONG previous = -1;
    EXPECT_TRUE(ReleaseSemaphore(semaphore, 2, &previous));
    EXPECT_EQ(previous, 1);
    previous = -1;
    EXPECT_FALSE(ReleaseSemaphore(semaphore, 1, &previous));
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
    EXPECT_EQ(previous, -1);
    EXPECT_FALSE(ReleaseSemaphore(semaphore, 0, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(ReleaseSemaphore(semaphore, -1, nullptr));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseSemaphore(semaphore, 3, nullptr));
    EXPECT_FALSE(ReleaseSemaphore(semaphore, INT32_MAX, nullptr));
}

TEST(Semaphore, CreationChecksItsCounts) {
    for (const auto& [initial, maximum] : {std::pair<LONG, LONG>{-1, 1}, {0, 0}, {2, 1}, {0, -1}}) {
        SetLastError(0);
        EXPECT_EQ(NewSemaphore(initial, maximum), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    const CHandle largest(NewSemaphore(INT32_MAX, INT32_MAX));
    EXPECT_FALSE(ReleaseSemaphore(largest, 1, nullptr));
    EXPECT_EQ(WaitForSingleObject(largest, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseSemaphore(largest, 1, nullptr));
}

TEST(Semaphore, EveryReleaseWakesOneTaker) {
    constexpr int kTakers = 4, kEach = 5000;
    const CHandle semaphore(NewSemaphore(0, kTakers * kEach));
    std::atomic<int> taken{0};
    std::vector<std::unique_ptr<CTestThread>> takers;
    for (int i = 0; i < kTakers; ++i) {
        takers.push_back(std::make_unique<CTestThread>([&] {
            for (int n = 0; n < kEach; ++n) {
                EXPECT_EQ(WaitForSingleObject(semaphore, INFINITE), WAIT_OBJECT_0);
                ++taken;
            }
            return 0u;
        }));
    }
    for (int i = 0; i < kTakers * kEach; ++i)
        EXPECT_TRUE(ReleaseSemaphore(semaphore, 1, nullptr));
    takers.clear();
    EXPECT_EQ(taken, kTakers * kEach);
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
}

TEST(Event, AutoResetServesOneWaitManualResetAll) {
    const CHandle automatic(NewEvent(false, true));
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(automatic));
    EXPECT_TRUE(SetEvent(automatic));
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(automatic));
    EXPECT_TRUE(ResetEvent(automatic));
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);

    const CHandle manual(NewEvent(true, false));
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(manual));
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
}

TEST(Event, WakesSleepers) {
    const CHandle go(NewEvent(true, false));
    const CHandle ready(NewSemaphore(0, 3));
    std::vector<std::unique_ptr<CTestThread>> threads;
    for (int i = 0; i < 3; ++i) {
        threads.push_back(std::make_unique<CTestThread>([&] {
            ReleaseSemaphore(ready, 1, nullptr);
            return static_cast<unsigned>(WaitForSingleObject(go, INFINITE));
        }));
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(WaitForSingleObject(ready, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(SetEvent(go));
    for (auto& thread : threads) {
        thread->Join();
        DWORD code = 1;
        EXPECT_TRUE(GetExitCodeThread(thread->Handle(), &code));
        EXPECT_EQ(code, WAIT_OBJECT_0);
    }
}

TEST(Wait, TimesOutNotBeforeItsTime) {
    const CHandle event(NewEvent(false, false));
    LARGE_INTEGER frequency, start, end;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&start);
    EXPECT_EQ(WaitForSingleObject(event, 30), WAIT_TIMEOUT);
    QueryPerformanceCounter(&end);
    // Waits end with a tick of the system clock: on Windows up to one tick early.
    EXPECT_GE((end.QuadPart - start.QuadPart) * 1000 / frequency.QuadPart, 14);
    EXPECT_EQ(SleepEx(1, FALSE), 0u);
    EXPECT_EQ(SleepEx(0, TRUE), 0u);
}

TEST(Wait, RefusesBadHandles) {
    const HANDLE closed = NewEvent(false, true);
    ASSERT_TRUE(CloseHandle(closed));
    for (const HANDLE bad :
         {closed, HANDLE{nullptr}, INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(0x12345678)}) {
        SetLastError(0);
        EXPECT_EQ(WaitForSingleObject(bad, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(bad));
        EXPECT_FALSE(SetEvent(bad));
        EXPECT_FALSE(ReleaseSemaphore(bad, 1, nullptr));
        EXPECT_EQ(QueueUserAPC([](ULONG_PTR) {}, bad, 0), 0u);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    const CHandle event(NewEvent(false, true));
    EXPECT_FALSE(ReleaseSemaphore(event, 1, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Wait, MultipleAnyTakesTheLowestOnly) {
    const CHandle a(NewEvent(false, false)), b(NewEvent(false, true));
    const CHandle c(NewSemaphore(1, 1));
    const HANDLE all[] = {a, b, c};
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_TIMEOUT);
    CTestThread setter([&] { return static_cast<unsigned>(SetEvent(a)); });
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, INFINITE), WAIT_OBJECT_0);
}

TEST(Wait, MultipleAllTakesAllOrNone) {
    const CHandle a(NewEvent(false, true)), b(NewEvent(false, false));
    const CHandle c(NewSemaphore(2, 2));
    const HANDLE all[] = {a, b, c};
    EXPECT_EQ(WaitForMultipleObjects(3, all, TRUE, 0), WAIT_TIMEOUT);
    // Nothing was taken.
    EXPECT_TRUE(SetEvent(b));
    EXPECT_EQ(WaitForMultipleObjects(3, all, TRUE, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(a, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(c, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(c, 0), WAIT_TIMEOUT);
}

TEST(Wait, MultipleAllForThreads) {
    const CHandle go(NewEvent(true, false));
    std::vector<std::unique_ptr<CTestThread>> threads;
    std::vector<HANDLE> handles;
    for (unsigned i = 0; i < 12; ++i) {
        threads.push_back(std::make_unique<CTestThread>([&go, i] {
            WaitForSingleObject(go, INFINITE);
            return i;
        }));
        handles.push_back(threads.back()->Handle());
    }
    EXPECT_EQ(WaitForMultipleObjects(12, handles.data(), TRUE, 0), WAIT_TIMEOUT);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(handles[3], &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_TRUE(SetEvent(go));
    EXPECT_EQ(WaitForMultipleObjects(12, handles.data(), TRUE, INFINITE), WAIT_OBJECT_0);
    for (unsigned i = 0; i < 12; ++i) {
        EXPECT_TRUE(GetExitCodeThread(handles[i], &code));
        EXPECT_EQ(code, i);
    }
}

TEST(Wait, MultipleAllNeverDeadlocksOrLosesInOppositeOrders) {
    const CHandle a(NewSemaphore(1, 1)), b(NewSemaphore(1, 1));
    int inside = 0;  // the pair is a lock
    {
        std::vector<std::unique_ptr<CTestThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(std::make_unique<CTestThread>([&, i] {
                const HANDLE order[] = {i % 2 ? a : b, i % 2 ? b : a};
                for (int round = 0; round < 2000; ++round) {
                    EXPECT_EQ(WaitForMultipleObjects(2, order, TRUE, INFINITE), WAIT_OBJECT_0);
                    ++inside;
                    EXPECT_TRUE(ReleaseSemaphore(order[0], 1, nullptr));
                    EXPECT_TRUE(ReleaseSemaphore(order[1], 1, nullptr));
                }
                return 0u;
            }));
        }
    }
    EXPECT_EQ(inside, 8000);
}

TEST(Wait, MultipleChecksItsArguments) {
    const CHandle event(NewEvent(false, true));
    std::vector<HANDLE> many(MAXIMUM_WAIT_OBJECTS + 1, event);
    for (const DWORD count : {DWORD{0}, static_cast<DWORD>(MAXIMUM_WAIT_OBJECTS + 1)}) {
        SetLastError(0);
        EXPECT_EQ(WaitForMultipleObjects(count, many.data(), FALSE, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    SetLastError(0);
    EXPECT_EQ(WaitForMultipleObjects(2, many.data(), TRUE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    const HANDLE bad[] = {event, nullptr};
    EXPECT_EQ(WaitForMultipleObjects(2, bad, TRUE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, many.data(), FALSE, 0), WAIT_OBJECT_0);
}

TEST(Thread, HasAnIdAndAnExitCode) {
    DWORD id = 0;
    CTestThread thread([&] {
        id = GetCurrentThreadId();
        return 0xFFFFFFFEu;
    });
    thread.Join();
    EXPECT_EQ(id, thread.Id());
    EXPECT_NE(id, 0u);
    EXPECT_NE(id, GetCurrentThreadId());
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread.Handle(), &code));
    EXPECT_EQ(code, 0xFFFFFFFEu);
    EXPECT_EQ(WaitForSingleObject(thread.Handle(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(QueueUserAPC([](ULONG_PTR) {}, thread.Handle(), 0), 0u);
    EXPECT_EQ(GetLastError(), ERROR_GEN_FAILURE);
}

TEST(Thread, RunsOnWithoutItsHandle) {
    const CHandle go(NewEvent(true, false)), done(NewEvent(true, false));
    struct CBoth {
        HANDLE go, done;
    } both{go, done};
    const auto handle = reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, 64 * 1024,
        [](void* context) -> unsigned {
            const CBoth events = *static_cast<CBoth*>(context);
            WaitForSingleObject(events.go, INFINITE);
            SetEvent(events.done);
            return 0;
        },
        &both, 0, nullptr));
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(CloseHandle(handle));
    EXPECT_TRUE(SetEvent(go));
    EXPECT_EQ(WaitForSingleObject(done, INFINITE), WAIT_OBJECT_0);
}

struct CLog {
    std::vector<ULONG_PTR> entries;
    DWORD thread = 0;
};
CLog* g_log = nullptr;

void __stdcall Note(ULONG_PTR value) {
    g_log->entries.push_back(value);
    g_log->thread = GetCurrentThreadId();
}

TEST(Apc, EndsAnAlertableWaitAfterAllHaveRun) {
    CLog log;
    g_log = &log;
    const CHandle semaphore(NewSemaphore(0, 1)), ready(NewEvent(false, false)),
        queued(NewEvent(false, false));
    DWORD first = 0, second = 0;
    CTestThread thread([&] {
        SetEvent(ready);
        WaitForSingleObject(queued, INFINITE);
        // Queued before this wait.
        first = WaitForSingleObjectEx(semaphore, INFINITE, TRUE);
        SetEvent(ready);
        // Queued before or during this one.
        second = SleepEx(INFINITE, TRUE);
        return 0u;
    });
    WaitForSingleObject(ready, INFINITE);
    for (ULONG_PTR i = 1; i <= 3; ++i)
        EXPECT_NE(QueueUserAPC(Note, thread.Handle(), i), 0u);
    SetEvent(queued);
    WaitForSingleObject(ready, INFINITE);
    EXPECT_NE(QueueUserAPC(Note, thread.Handle(), 4), 0u);
    thread.Join();
    EXPECT_EQ(first, WAIT_IO_COMPLETION);
    EXPECT_EQ(second, WAIT_IO_COMPLETION);
    EXPECT_EQ(log.entries, (std::vector<ULONG_PTR>{1, 2, 3, 4}));
    EXPECT_EQ(log.thread, thread.Id());
    // The semaphore was not touched by the interrupted wait.
    EXPECT_TRUE(ReleaseSemaphore(semaphore, 1, nullptr));
}

TEST(Apc, LeavesOtherWaitsAlone) {
    CLog log;
    g_log = &log;
    const CHandle event(NewEvent(false, false)), ready(NewEvent(false, false)),
        queued(NewEvent(false, false));
    DWORD plain = 0, immediate = 0, timed = 0;
    CTestThread thread([&] {
        SetEvent(ready);
        WaitForSingleObject(queued, INFINITE);
        plain = WaitForSingleObjectEx(event, 0, FALSE);
        SetEvent(event);
        // A wait that is satisfied at once runs no calls.
        immediate = WaitForSingleObjectEx(event, INFINITE, TRUE);
        EXPECT_TRUE(log.entries.empty());
        timed = WaitForSingleObjectEx(event, 0, TRUE);
        return 0u;
    });
    WaitForSingleObject(ready, INFINITE);
    EXPECT_NE(QueueUserAPC(Note, thread.Handle(), 9), 0u);
    SetEvent(queued);
    thread.Join();
    EXPECT_EQ(plain, WAIT_TIMEOUT);
    EXPECT_EQ(immediate, WAIT_OBJECT_0);
    EXPECT_EQ(timed, WAIT_IO_COMPLETION);
    EXPECT_EQ(log.entries, (std::vector<ULONG_PTR>{9}));
}

HANDLE g_self = nullptr;

TEST(Apc, MayQueueFurtherCalls) {
    CLog log;
    g_log = &log;
    const CHandle begun(NewEvent(false, false)), ready(NewEvent(false, false));
    CTestThread thread([&] {
        SetEvent(begun);  // what is queued earlier may run before the wait
        WaitForSingleObject(ready, INFINITE);
        return static_cast<unsigned>(SleepEx(INFINITE, TRUE));
    });
    g_self = thread.Handle();
    WaitForSingleObject(begun, INFINITE);
    QueueUserAPC(
        [](ULONG_PTR) {
            Note(1);
            QueueUserAPC(Note, g_self, 2);
        },
        thread.Handle(), 0);
    SetEvent(ready);
    thread.Join();
    EXPECT_EQ(log.entries, (std::vector<ULONG_PTR>{1, 2}));
    EXPECT_EQ(QueueUserAPC(nullptr, thread.Handle(), 0), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Apc, NoneIsLostAgainstWaits) {
    static std::atomic<int> ran;
    ran = 0;
    constexpr int kCalls = 20000;
    const CHandle semaphore(NewSemaphore(0, kCalls));
    int interrupted = 0, taken = 0;
    CTestThread thread([&] {
        while (ran < kCalls || taken < kCalls) {
            const DWORD result = WaitForSingleObjectEx(semaphore, INFINITE, TRUE);
            if (result == WAIT_IO_COMPLETION) ++interrupted;
            if (result == WAIT_OBJECT_0) ++taken;
        }
        return 0u;
    });
    for (int i = 0; i < kCalls; ++i) {
        ASSERT_NE(QueueUserAPC([](ULONG_PTR) { ++ran; }, thread.Handle(), 0), 0u);
        ASSERT_TRUE(ReleaseSemaphore(semaphore, 1, nullptr));
    }
    thread.Join();
    EXPECT_EQ(ran, kCalls);
    EXPECT_EQ(taken, kCalls);
    EXPECT_GT(interrupted, 0);
}

// A wake that gets lost stops the round for ever. Where the wait can lose one, a thread that has
// just begun is the likeliest to bring that about.
TEST(AtomicWait, LosesNoWakeOfAThreadThatBegins) {
    for (int round = 0; round < 300; ++round) {
        std::atomic<bool> begun{false};
        CTestThread thread([&] {
            begun = true;
            WakeWaiters(begun);
            return 0u;
        });
        WaitWhile(begun, false);
    }
}

TEST(AtomicWait, SeesAChangeThatWasThereBefore) {
    std::atomic<bool> begun{true};
    WaitWhile(begun, false);
    WakeWaiters(begun);  // nobody waits
}

TEST(AtomicWait, WakesAllThatWait) {
    std::atomic<bool> begun{false};
    std::vector<std::unique_ptr<CTestThread>> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.push_back(std::make_unique<CTestThread>([&] {
            WaitWhile(begun, false);
            return static_cast<unsigned>(begun.load());
        }));
    }
    begun = true;
    WakeWaiters(begun);
    for (const auto& thread : waiting) {
        thread->Join();
        DWORD got = 0;
        EXPECT_TRUE(GetExitCodeThread(thread->Handle(), &got));
        EXPECT_EQ(got, 1u);
    }
}

TEST(Handle, ClosingWhileSomebodyWaitsIsSafe) {
    for (int i = 0; i < 200; ++i) {
        const HANDLE event = NewEvent(true, false);
        const CHandle ready(NewEvent(false, false));
        CTestThread thread([&] {
            SetEvent(ready);
            // The wait may begin before or after the event is closed.
            return static_cast<unsigned>(WaitForSingleObject(event, INFINITE));
        });
        WaitForSingleObject(ready, INFINITE);
        SetEvent(event);
        EXPECT_TRUE(CloseHandle(event));
        thread.Join();
        DWORD code = 7;
        EXPECT_TRUE(GetExitCodeThread(thread.Handle(), &code));
        EXPECT_TRUE(code == WAIT_OBJECT_0 || code == WAIT_FAILED) << code;
    }
}

}  // namespace
