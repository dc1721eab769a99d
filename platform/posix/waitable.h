// What can be waited for, and how a thread sleeps. Internal to the layer; any thread.
// A waitable object is a number of signals in one atomic word: taking and giving one is a single
// compare-exchange, and whoever gives looks for sleepers only when somebody has announced to sleep.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "platform/posix/object.h"
#include "platform/posix/sync.h"

namespace posix {

// A point in time of the monotonic clock, or never.
class CDeadline {
public:
    explicit CDeadline(DWORD timeout_ms);
    bool Never() const { return m_never; }
    bool Passed() const;
    uint64_t Nanoseconds() const { return m_nanoseconds; }

private:
    bool m_never;
    uint64_t m_nanoseconds = 0;
};

// One thread's bed. Unpark before Park makes Park return at once; both are cheap unless the thread
// really sleeps.
class CParker {
public:
    // Owner only. Returns after Unpark, at the deadline, and sometimes for no reason.
    void Park(const CDeadline& deadline);
    void Unpark();

private:
    std::atomic<uint32_t> m_word{0};
};

// What every thread has that waits; its APC queue is reachable only through the handle of a thread
// of this layer.
class CThreadState {
public:
    static CThreadState& Current();
    // Makes `state` the calling thread's; it must outlive the thread.
    static void Adopt(CThreadState* state);

    bool Queue(PAPCFUNC routine, ULONG_PTR parameter);  // false when the thread has ended
    bool HasApcs() const { return m_pending.load() != 0; }
    // Runs everything queued, also what is queued meanwhile, on the calling (owning) thread.
    void RunApcs();
    void End();

    CParker parker;

private:
    struct CApc {
        PAPCFUNC routine;
        ULONG_PTR parameter;
    };
    std::atomic<uint32_t> m_pending{0};
    std::mutex m_lock;  // guards the rest
    std::vector<CApc> m_apcs;
    bool m_ended = false;
};

class CWaitable {
public:
    CWaitable(const CWaitable&) = delete;
    CWaitable& operator=(const CWaitable&) = delete;

    // Takes one signal; false when there is none.
    bool TryTake();

    // Takes one signal of each at one moment, or none. The objects are distinct and sorted by
    // address.
    static bool TryTakeAll(CWaitable* const* objects, size_t count);

    // A waiter's announcement; one object of its own for each object waited for.
    struct CWaiter {
        CParker* parker;
        CWaiter* previous = nullptr;
        CWaiter* next = nullptr;
    };
    void Announce(CWaiter* waiter);
    void Withdraw(CWaiter* waiter);

protected:
    // `consumed`: a satisfied wait takes the signal away.
    CWaitable(uint32_t signals, bool consumed) : m_word(signals), m_consumed(consumed) {}
    ~CWaitable() = default;

    // Adds signals up to `maximum`; false (and nothing added) when that would be passed.
    bool Give(uint32_t count, uint32_t maximum, uint32_t* previous);
    // Sets the number of signals to 0 or 1.
    void Set(bool signalled);

private:
    uint32_t Unlocked() const;
    void WakeWaiters();

    static constexpr uint32_t kLocked = 0x80000000u;

    std::atomic<uint32_t> m_word;  // signals; kLocked while a wait for all looks at several
    const bool m_consumed;
    std::atomic<uint32_t> m_waiter_count{0};
    std::mutex m_waiters_lock;  // guards the list
    CWaiter* m_waiters = nullptr;
};

// The heart of every wait call; WAIT_OBJECT_0 + index, WAIT_TIMEOUT or WAIT_IO_COMPLETION.
// `objects` may be empty.
DWORD Wait(CWaitable* const* objects, size_t count, bool all, DWORD timeout_ms, bool alertable);

}  // namespace posix
