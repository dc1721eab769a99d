// Sleeping, signalling and the wait calls; semaphores and events. Any thread.
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <array>

#include "platform/posix/futex.h"
#include "platform/posix/port_seats.h"
#include "platform/posix/waitable.h"

namespace posix {
namespace {

uint64_t MonotonicNanoseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

constexpr uint32_t kAwake = 0;
constexpr uint32_t kNotified = 1;
constexpr uint32_t kAsleep = 2;

}  // namespace

CDeadline::CDeadline(DWORD timeout_ms) : m_never(timeout_ms == INFINITE) {
    if (!m_never) m_nanoseconds = MonotonicNanoseconds() + uint64_t{timeout_ms} * 1'000'000;
}

bool CDeadline::Passed() const {
    return !m_never && MonotonicNanoseconds() >= m_nanoseconds;
}

void CParker::Park(const CDeadline& deadline) {
    uint32_t expected = kAwake;
    if (m_word.compare_exchange_strong(expected, kAsleep)) {
        CWorkerSeats::StandUp();
        const uint64_t until = deadline.Nanoseconds();
        FutexWait(reinterpret_cast<const uint32_t*>(&m_word), kAsleep,
                  deadline.Never() ? nullptr : &until);
    }
    m_word.exchange(kAwake);
}

void CParker::Unpark() {
    if (m_word.exchange(kNotified) == kAsleep)
        FutexWake(reinterpret_cast<const uint32_t*>(&m_word), 1);
}

uint32_t CWaitable::Unlocked() const {
    uint32_t word = m_word.load();
    for (int i = 0; word & kLocked; ++i, word = m_word.load()) {
        if (i < 64)
            SpinPause();
        else
            sched_yield();
    }
    return word;
}

bool CWaitable::TryTake() {
    uint32_t word = Unlocked();
    while (word != 0) {
        if (!m_consumed || m_word.compare_exchange_weak(word, word - 1)) return true;
        word = Unlocked();
    }
    return false;
}

bool CWaitable::TryTakeAll(CWaitable* const* objects, size_t count) {
    bool all = true;
    size_t locked = 0;
    for (; locked < count && all; ++locked) {
        uint32_t word = objects[locked]->Unlocked();
        while (!objects[locked]->m_word.compare_exchange_weak(word, word | kLocked))
            word = objects[locked]->Unlocked();
        all = word != 0;
    }
    for (size_t i = 0; i < locked; ++i) {
        const uint32_t taken = all && objects[i]->m_consumed ? 1 : 0;
        objects[i]->m_word.fetch_sub(kLocked + taken);
    }
    return all;
}

void CWaitable::Announce(CWaiter* waiter) {
    std::lock_guard guard(m_waiters_lock);
    waiter->next = m_waiters;
    if (m_waiters) m_waiters->previous = waiter;
    m_waiters = waiter;
    m_waiter_count.fetch_add(1);
}

void CWaitable::Withdraw(CWaiter* waiter) {
    std::lock_guard guard(m_waiters_lock);
    (waiter->previous ? waiter->previous->next : m_waiters) = waiter->next;
    if (waiter->next) waiter->next->previous = waiter->previous;
    m_waiter_count.fetch_sub(1);
}

// Who announces looks at the signals afterwards; who signals looks for announcements afterwards.
// One of the two sees the other, because both are sequentially consistent.
void CWaitable::WakeWaiters() {
    if (m_waiter_count.load() == 0) return;
    std::lock_guard guard(m_waiters_lock);
    // Everybody: a waiter that leaves for another reason cannot swallow the signal.
    for (CWaiter* waiter = m_waiters; waiter; waiter = waiter->next)
        waiter->parker->Unpark();
}

bool CWaitable::Give(uint32_t count, uint32_t maximum, uint32_t* previous) {
    uint32_t word = Unlocked();
    for (;;) {
        if (word > maximum || count > maximum - word) return false;
        // Whoever waits may close and free the object as soon as the signal is there; the caller's
        // pin keeps it.
        if (m_word.compare_exchange_weak(word, word + count)) break;
        word = Unlocked();
    }
    *previous = word;
    WakeWaiters();
    return true;
}

void CWaitable::Set(bool signalled) {
    uint32_t word = Unlocked();
    while (!m_word.compare_exchange_weak(word, signalled ? 1 : 0))
        word = Unlocked();
    if (signalled) WakeWaiters();
}

namespace {

// The index of the object that satisfied the wait, or -1.
int Satisfy(CWaitable* const* objects, size_t count, bool all) {
    if (all) return count > 0 && CWaitable::TryTakeAll(objects, count) ? 0 : -1;
    for (size_t i = 0; i < count; ++i)
        if (objects[i]->TryTake()) return static_cast<int>(i);
    return -1;
}

}  // namespace

DWORD Wait(CWaitable* const* objects, size_t count, bool all, DWORD timeout_ms, bool alertable) {
    int index = Satisfy(objects, count, all);
    if (index >= 0) return WAIT_OBJECT_0 + static_cast<DWORD>(index);
    CThreadState& thread = CThreadState::Current();
    if (alertable && thread.HasApcs()) {
        thread.RunApcs();
        return WAIT_IO_COMPLETION;
    }
    if (timeout_ms == 0) return WAIT_TIMEOUT;

    const CDeadline deadline(timeout_ms);
    std::array<CWaitable::CWaiter, MAXIMUM_WAIT_OBJECTS> waiters;
    for (size_t i = 0; i < count; ++i) {
        waiters[i].parker = &thread.parker;
        objects[i]->Announce(&waiters[i]);
    }
    bool alerted = false;
    for (;;) {
        index = Satisfy(objects, count, all);
        if (index >= 0) break;
        alerted = alertable && thread.HasApcs();
        if (alerted || deadline.Passed()) break;
        thread.parker.Park(deadline);
    }
    for (size_t i = 0; i < count; ++i)
        objects[i]->Withdraw(&waiters[i]);
    if (index >= 0) return WAIT_OBJECT_0 + static_cast<DWORD>(index);
    if (!alerted) return WAIT_TIMEOUT;
    thread.RunApcs();
    return WAIT_IO_COMPLETION;
}

namespace {

class CSemaphore final : public CObject, public CWaitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Semaphore;
    CSemaphore(uint32_t initial, uint32_t maximum)
        : CObject(kKind), CWaitable(initial, true), m_maximum(maximum) {}
    CWaitable* Waitable() override { return this; }
    bool Add(uint32_t count, uint32_t* previous) { return Give(count, m_maximum, previous); }

private:
    const uint32_t m_maximum;
};

class CEvent final : public CObject, public CWaitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Event;
    CEvent(bool manual_reset, bool initial)
        : CObject(kKind), CWaitable(initial ? 1 : 0, !manual_reset) {}
    CWaitable* Waitable() override { return this; }
    using CWaitable::Set;
};

// Unpins what it was given when the wait is over.
struct CPinned {
    std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles;
    std::array<CWaitable*, MAXIMUM_WAIT_OBJECTS> objects;
    size_t count = 0;

    ~CPinned() {
        for (size_t i = 0; i < count; ++i)
            UnpinHandle(handles[i]);
    }
    bool Add(HANDLE handle) {
        CObject* object = PinHandle(handle);
        if (!object) return false;
        CWaitable* waitable = object->Waitable();
        if (!waitable) {
            UnpinHandle(handle);
            SetLastError(ERROR_INVALID_HANDLE);
            return false;
        }
        handles[count] = handle;
        objects[count++] = waitable;
        return true;
    }
};

bool RefuseNaming(LPSECURITY_ATTRIBUTES attributes, LPCWSTR name) {
    if (!attributes && !name) return false;
    SetLastError(ERROR_NOT_SUPPORTED);
    return true;
}

HANDLE Created(CObject* object) {
    const HANDLE handle = OpenHandle(object);
    if (handle) SetLastError(ERROR_SUCCESS);
    return handle;
}

}  // namespace
}  // namespace posix

using namespace posix;

extern "C" {

HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES attributes, LONG initial, LONG maximum,
                        LPCWSTR name) {
    if (RefuseNaming(attributes, name)) return nullptr;
    if (maximum <= 0 || initial < 0 || initial > maximum) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Created(new CSemaphore(static_cast<uint32_t>(initial), static_cast<uint32_t>(maximum)));
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LPLONG previous) {
    const CPin<CSemaphore> pin(semaphore);
    if (!pin) return FALSE;
    uint32_t before = 0;
    if (count <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!pin->Add(static_cast<uint32_t>(count), &before)) {
        SetLastError(ERROR_TOO_MANY_POSTS);
        return FALSE;
    }
    if (previous) *previous = static_cast<LONG>(before);
    return TRUE;
}

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manual_reset, BOOL initial_state,
                    LPCWSTR name) {
    if (RefuseNaming(attributes, name)) return nullptr;
    return Created(new CEvent(manual_reset != FALSE, initial_state != FALSE));
}

BOOL SetEvent(HANDLE event) {
    const CPin<CEvent> pin(event);
    if (!pin) return FALSE;
    pin->Set(true);
    return TRUE;
}

BOOL ResetEvent(HANDLE event) {
    const CPin<CEvent> pin(event);
    if (!pin) return FALSE;
    pin->Set(false);
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE object, DWORD timeout_ms) {
    return WaitForSingleObjectEx(object, timeout_ms, FALSE);
}

DWORD WaitForSingleObjectEx(HANDLE object, DWORD timeout_ms, BOOL alertable) {
    CPinned pinned;
    if (!pinned.Add(object)) return WAIT_FAILED;
    return Wait(pinned.objects.data(), 1, false, timeout_ms, alertable != FALSE);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* objects, BOOL wait_all, DWORD timeout_ms) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !objects) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    CPinned pinned;
    for (DWORD i = 0; i < count; ++i)
        if (!pinned.Add(objects[i])) return WAIT_FAILED;
    if (!wait_all) return Wait(pinned.objects.data(), count, false, timeout_ms, false);
    auto sorted = pinned.objects;
    std::sort(sorted.begin(), sorted.begin() + count);
    if (std::adjacent_find(sorted.begin(), sorted.begin() + count) != sorted.begin() + count) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return Wait(sorted.data(), count, true, timeout_ms, false);
}

DWORD SleepEx(DWORD timeout_ms, BOOL alertable) {
    const DWORD result = Wait(nullptr, 0, false, timeout_ms, alertable != FALSE);
    if (timeout_ms == 0 && result == WAIT_TIMEOUT) sched_yield();
    return result == WAIT_TIMEOUT ? 0 : result;
}

BOOL CloseHandle(HANDLE object) {
    return CloseObjectHandle(object) ? TRUE : FALSE;
}

}  // extern "C"
