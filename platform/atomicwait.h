// Waiting for a change of an atomic, as std::atomic's wait and notify_all do it. For Windows our
// compiler's library loses notifications (libstdc++ 12 without futexes: who waits looks before it
// takes the lock, and who notifies takes none), so there the system waits. Any thread.
#pragma once

#include <atomic>

#include "platform/platform.h"

// Waits until `value` is no longer `old`. Who changes it calls WakeWaiters afterwards, which
// touches nothing of `value` but its address.
template <typename T>
void WaitWhile(const std::atomic<T>& value, T old) {
#ifdef _WIN32
    static_assert(sizeof value == sizeof old && std::atomic<T>::is_always_lock_free);
    while (value.load() == old)  // the system may wake for no reason
        WaitOnAddress(const_cast<std::atomic<T>*>(&value), &old, sizeof old, INFINITE);
#else
    value.wait(old);
#endif
}

template <typename T>
void WakeWaiters(std::atomic<T>& value) {
#ifdef _WIN32
    WakeByAddressAll(&value);
#else
    value.notify_all();
#endif
}
