// The kernel's wait-if-unchanged call.
#include "platform/posix/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace posix {

void FutexWait(const uint32_t* word, uint32_t expected, const uint64_t* deadline_ns) {
    timespec until{};
    if (deadline_ns) {
        until.tv_sec = static_cast<time_t>(*deadline_ns / 1'000'000'000);
        until.tv_nsec = static_cast<long>(*deadline_ns % 1'000'000'000);
    }
    // The bitset form takes an absolute time.
    syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, expected, deadline_ns ? &until : nullptr,
            nullptr, FUTEX_BITSET_MATCH_ANY);
}

void FutexWake(const uint32_t* word, int count) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

}  // namespace posix
