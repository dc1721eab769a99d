// The kernel's wait-if-unchanged call. Internal to the layer; any thread.
#pragma once

#include <atomic>
#include <cstdint>

namespace posix {

// Sleeps while `word` holds `expected`, until woken or the monotonic clock reaches `deadline_ns`
// (null: never). May return for no reason.
void FutexWait(const uint32_t* word, uint32_t expected, const uint64_t* deadline_ns);
void FutexWake(const uint32_t* word, int count);

// Tells the processor that a loop is spinning.
inline void SpinPause() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}

}  // namespace posix
