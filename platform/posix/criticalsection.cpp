// The re-entrant lock: one compare-exchange when free, a futex sleep when not. Any thread.
#include <atomic>
#include <climits>

#include "platform/posix/futex.h"
#include "platform/posix/sync.h"

namespace {

constexpr uint32_t kFree = 0;
constexpr uint32_t kHeld = 1;
constexpr uint32_t kContended = 2;  // held, and whoever leaves must wake a sleeper

using Word = std::atomic_ref<uint32_t>;

bool Take(Word state) {
    uint32_t expected = kFree;
    return state.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                         std::memory_order_relaxed);
}

void Own(LPCRITICAL_SECTION section, DWORD thread) {
    Word(section->OwningThread).store(thread, std::memory_order_relaxed);
    section->RecursionCount = 1;
}

// The owner's field can hold the caller's id only if the caller put it there.
bool ReEnter(LPCRITICAL_SECTION section, DWORD thread) {
    if (Word(section->OwningThread).load(std::memory_order_relaxed) != thread) return false;
    ++section->RecursionCount;
    return true;
}

void TakeSlowly(LPCRITICAL_SECTION section) {
    Word state(section->State);
    for (uint32_t i = 0; i < section->SpinCount; ++i) {
        posix::SpinPause();
        if (state.load(std::memory_order_relaxed) == kFree && Take(state)) return;
    }
    while (state.exchange(kContended, std::memory_order_acquire) != kFree)
        posix::FutexWait(&section->State, kContended, nullptr);
}

}  // namespace

extern "C" {

void InitializeCriticalSection(LPCRITICAL_SECTION section) {
    InitializeCriticalSectionAndSpinCount(section, 0);
}

BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spin_count) {
    *section = {};
    // The top byte holds flags on Windows.
    section->SpinCount = spin_count & 0x00FFFFFF;
    return TRUE;
}

void EnterCriticalSection(LPCRITICAL_SECTION section) {
    const DWORD thread = GetCurrentThreadId();
    if (!Take(Word(section->State))) {
        if (ReEnter(section, thread)) return;
        TakeSlowly(section);
    }
    Own(section, thread);
}

BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section) {
    const DWORD thread = GetCurrentThreadId();
    if (!Take(Word(section->State))) return ReEnter(section, thread);
    Own(section, thread);
    return TRUE;
}

void LeaveCriticalSection(LPCRITICAL_SECTION section) {
    if (--section->RecursionCount != 0) return;
    Word(section->OwningThread).store(0, std::memory_order_relaxed);
    if (Word(section->State).exchange(kFree, std::memory_order_release) == kContended)
        posix::FutexWake(&section->State, 1);
}

void DeleteCriticalSection(LPCRITICAL_SECTION section) {
    *section = {};
}

}  // extern "C"
