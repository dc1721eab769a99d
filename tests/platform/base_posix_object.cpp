// The handle table: forged and stale handles, reuse, and what the wait calls cost in system calls.
// Linux only.
#include "platform/posix/object.h"

#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace {
std::atomic<int> g_futex_calls{0};
}

// Stands in for the C library's, and counts the layer's sleeps and wake-ups. As the real one does,
// it takes six arguments however many there are: what it finds behind the last is not the caller's.
// A sanitizer's calls would change the registers that are set for the instruction.
extern "C" [[gnu::visibility("default"), gnu::no_sanitize_address, gnu::no_sanitize_thread]] long
syscall(long number, ...) noexcept {
    va_list args;
    va_start(args, number);
    long a[6];
    for (long& value : a)
        value = va_arg(args, long);
    va_end(args);
    if (number == SYS_futex) ++g_futex_calls;
    register long fourth asm("r10") = a[3];
    register long fifth asm("r8") = a[4];
    register long sixth asm("r9") = a[5];
    long result;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a[0]), "S"(a[1]), "d"(a[2]), "r"(fourth), "r"(fifth), "r"(sixth)
                 : "rcx", "r11", "memory");
    if (result >= 0) return result;
    errno = static_cast<int>(-result);
    return -1;
}

namespace {

HANDLE NewEvent() {
    return CreateEventW(nullptr, FALSE, FALSE, nullptr);
}

TEST(HandleTable, NeverGivesAStaleHandleTwice) {
    const size_t before = posix::OpenHandleCount();
    std::set<HANDLE> seen;
    for (int i = 0; i < 5000; ++i) {
        const HANDLE handle = NewEvent();
        EXPECT_TRUE(seen.insert(handle).second);
        EXPECT_TRUE(CloseHandle(handle));
        EXPECT_FALSE(CloseHandle(handle));
    }
    for (const HANDLE handle : seen)
        EXPECT_FALSE(SetEvent(handle));
    EXPECT_EQ(posix::OpenHandleCount(), before);
}

TEST(HandleTable, HoldsMany) {
    std::vector<HANDLE> handles;
    for (int i = 0; i < 5000; ++i)
        handles.push_back(NewEvent());
    EXPECT_EQ(std::set<HANDLE>(handles.begin(), handles.end()).size(), handles.size());
    for (const HANDLE handle : handles)
        EXPECT_TRUE(SetEvent(handle));
    for (const HANDLE handle : handles)
        EXPECT_TRUE(CloseHandle(handle));
}

TEST(HandleTable, RefusesForgedHandles) {
    const HANDLE real = NewEvent();
    const auto bits = reinterpret_cast<uint64_t>(real);
    for (const uint64_t forged :
         {bits + 1, bits + 2, bits + 4, bits ^ (uint64_t{1} << 24), bits | (uint64_t{1} << 63),
          bits | (uint64_t{1} << 22), uint64_t{0x7FFFFFFFFFFF}}) {
        SetLastError(0);
        EXPECT_FALSE(SetEvent(reinterpret_cast<HANDLE>(forged))) << forged;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    for (int i = 0; i < 100000; ++i) {
        const uint64_t forged = random() >> (random() % 64);
        if (forged == bits) continue;
        EXPECT_FALSE(CloseHandle(reinterpret_cast<HANDLE>(forged)));
    }
    EXPECT_TRUE(CloseHandle(real));
}

TEST(HandleTable, UseAndCloseRace) {
    for (int round = 0; round < 300; ++round) {
        const HANDLE handle = NewEvent();
        std::vector<std::thread> threads;
        std::atomic<int> closed{0};
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&, i] {
                for (int n = 0; n < 20; ++n) {
                    SetEvent(handle);
                    WaitForSingleObject(handle, 0);
                    if (n == i && CloseHandle(handle)) ++closed;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(closed, 1);
    }
}

TEST(SystemCalls, NoneWithoutContention) {
    const HANDLE semaphore = CreateSemaphoreW(nullptr, 0, 100, nullptr);
    const HANDLE event = NewEvent();
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    const int before = g_futex_calls;
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(ReleaseSemaphore(semaphore, 1, nullptr));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(WaitForSingleObjectEx(semaphore, INFINITE, TRUE), WAIT_OBJECT_0);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EnterCriticalSection(&section);
    EnterCriticalSection(&section);
    LeaveCriticalSection(&section);
    LeaveCriticalSection(&section);
    EXPECT_EQ(g_futex_calls, before);
    // The counter sees a real sleep.
    EXPECT_EQ(WaitForSingleObject(event, 1), WAIT_TIMEOUT);
    EXPECT_GT(g_futex_calls, before);
    DeleteCriticalSection(&section);
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_TRUE(CloseHandle(semaphore));
}

TEST(LastError, IsEachThreadsOwn) {
    SetLastError(5);
    std::thread([] {
        EXPECT_EQ(GetLastError(), 0u);
        SetLastError(6);
    }).join();
    EXPECT_EQ(GetLastError(), 5u);
}

TEST(Hresult, ConvertsErrors) {
    EXPECT_EQ(HRESULT_FROM_WIN32(0), S_OK);
    EXPECT_EQ(HRESULT_FROM_WIN32(WAIT_IO_COMPLETION), static_cast<HRESULT>(0x800700C0));
    EXPECT_EQ(HRESULT_FROM_WIN32(0x12345), static_cast<HRESULT>(0x80072345));
    EXPECT_EQ(HRESULT_FROM_WIN32(static_cast<DWORD>(E_FAIL)), E_FAIL);
    EXPECT_TRUE(FAILED(E_FAIL));
    EXPECT_TRUE(SUCCEEDED(S_FALSE));
}

}  // namespace
