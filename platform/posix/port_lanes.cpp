// Waiting and waking. Run by every worker of a port, and by whoever queues something.
#include "platform/posix/port_lanes.h"

#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "platform/posix/http_limits.h"
#include "platform/posix/processors.h"

namespace posix {
namespace {

// What one look at the sockets brings at most. What is ready is run before the next look, which
// comes after kPipelineTurn runs at the latest: a larger batch would only be looked behind.
constexpr int kBatch = kPipelineTurn;

constexpr uint64_t kLook_ns = 60'000;  // before a thread sleeps; who takes longer is not looked for

uint64_t NowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

bool Control(int epoll, int operation, int fd, uint32_t events, CPollTarget* target) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = target;
    return epoll_ctl(epoll, operation, fd, &event) == 0;
}

}  // namespace

bool CReadyList::Push(CPollTarget* target) {
    target->m_next_ready = nullptr;
    {
        const std::lock_guard lock(m_lock);
        // Asked under the lock that the closing queue takes to collect its targets.
        if (!target->Dying()) {
            (m_tail ? m_tail->m_next_ready : m_head) = target;
            m_tail = target;
            m_count.fetch_add(1);
            return true;
        }
    }
    target->Drop();
    return false;
}

CPollTarget* CReadyList::Pop() {
    if (Empty()) return nullptr;
    const std::lock_guard lock(m_lock);
    CPollTarget* target = m_head;
    if (!target) return nullptr;
    m_head = target->m_next_ready;
    if (!m_head) m_tail = nullptr;
    m_count.fetch_sub(1);
    return target;
}

CPollTarget* CReadyList::Take(bool (*wanted)(const CPollTarget*, const void*), const void* context,
                              CPollTarget* taken) {
    const std::lock_guard lock(m_lock);
    CPollTarget** link = &m_head;
    m_tail = nullptr;
    while (CPollTarget* target = *link) {
        if (wanted(target, context)) {
            *link = target->m_next_ready;
            target->m_next_ready = taken;
            taken = target;
            m_count.fetch_sub(1);
        } else {
            m_tail = target;
            link = &target->m_next_ready;
        }
    }
    return taken;
}

CPortLanes::~CPortLanes() {
    for (CLane& lane : m_lanes) {
        for (const int fd : {lane.wake, lane.epoll})
            if (fd >= 0) close(fd);
    }
}

bool CPortLanes::Init(int count) {
    m_looks = count != 1 && std::thread::hardware_concurrency() > 1;
    m_count = std::clamp(count ? count : UsableProcessors(), 1, kMost);
    for (int i = 0; i < m_count; ++i) {
        CLane& lane = m_lanes[i];
        lane.epoll = epoll_create1(EPOLL_CLOEXEC);
        lane.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        lane.nested.Set(this, i);
        if (lane.epoll < 0 || lane.wake < 0 ||
            !Add(i, lane.wake, EPOLLIN | EPOLLET, &m_wake_target) || (i > 0 && !WatchClosed(i))) {
            return false;
        }
    }
    return true;
}

bool CPortLanes::Add(int lane, int fd, uint32_t events, CPollTarget* target) {
    return Control(m_lanes[lane].epoll, EPOLL_CTL_ADD, fd, events, target);
}

bool CPortLanes::Modify(int lane, int fd, uint32_t events, CPollTarget* target) {
    return Control(m_lanes[lane].epoll, EPOLL_CTL_MOD, fd, events, target);
}

bool CPortLanes::Move(int from, int to, int fd, uint32_t events, CPollTarget* target) {
    if (!Add(to, fd, events, target)) return false;
    Control(m_lanes[from].epoll, EPOLL_CTL_DEL, fd, 0, nullptr);
    return true;
}

int CPortLanes::HomeOf(int socket, int lane) const {
    const uint32_t open = m_open.load(std::memory_order_relaxed);
    if (open == 0) return 0;
    int processor = -1;
    socklen_t length = sizeof processor;
    if (getsockopt(socket, SOL_SOCKET, SO_INCOMING_CPU, &processor, &length) != 0 || processor < 0)
        return lane;
    const int home = ProcessorPlace(processor) % m_count;
    return open >> home & 1 ? home : 0;
}

// The only one who waits in a lane takes several events at once; while others wait too, each takes
// one.
CPollTarget* CPortLanes::Wait(int lane, int timeout_ms, bool may_sleep, bool* idle) {
    CLane& here = m_lanes[lane];
    epoll_event events[kBatch];
    *idle = false;
    int limit = kBatch;
    if (may_sleep) {
        limit = here.sleepers.fetch_add(1) == 0 ? kBatch : 1;
        if (Queued(lane) || m_shut.load() || !IsOpen(lane)) {
            here.sleepers.fetch_sub(1);
            return nullptr;
        }
    }
    int wait_ms = timeout_ms;
    if (lane == 0 && m_unwatched.load() != 0) {
        LookIntoUnwatched();
        wait_ms = Queued(0) ? 0 : timeout_ms < 0 ? kLookMs : std::min(timeout_ms, kLookMs);
    }
    const int count = wait_ms < 0 && limit == kBatch
                          ? WaitForOne(here, events)
                          : epoll_wait(here.epoll, events, limit, wait_ms);
    if (may_sleep) here.sleepers.fetch_sub(1);
    *idle = count == 0 && wait_ms == timeout_ms;
    if (count <= 0) return nullptr;
    CPollTarget* first = Claim(lane, events, count);
    // Whoever was woken for what anybody may do, but got something else to do, passes the wake on.
    if (first && (HasPackets() || !m_shared.Empty() || m_unwatched.load() != 0)) WakeAny();
    return first;
}

// Waits as long as it takes. One client that asks for one thing after another is back sooner than a
// sleeping thread can be woken: while all that came was the same client, and soon, the sockets are
// looked at for a while before the thread sleeps. With more clients than one there is no need: the
// others' requests fill the time, and the processor may be theirs. On a machine with one processor
// it is the client's.
int CPortLanes::WaitForOne(CLane& here, epoll_event* events) {
    const uint64_t start_ns = NowNs();
    int count = 0;
    if (here.alone.load(std::memory_order_relaxed)) {
        do
            count = epoll_wait(here.epoll, events, kBatch, 0);
        while (count == 0 && NowNs() - start_ns < kLook_ns);
    }
    if (count == 0) count = epoll_wait(here.epoll, events, kBatch, -1);
    const void* const who = count == 1 ? events[0].data.ptr : nullptr;
    const bool again = who && here.last.exchange(who, std::memory_order_relaxed) == who;
    here.alone.store(again && NowNs() - start_ns < kLook_ns && m_looks, std::memory_order_relaxed);
    return count;
}

// Returns the first and queues the others. The lane may have been closed since it was looked at:
// then nobody comes for its list any more. Who closes it clears its bit and then shares the list,
// this fills the list and then looks at the bit, so one of the two sees the other.
CPollTarget* CPortLanes::Claim(int lane, const epoll_event* events, int count) {
    CPollTarget* first = nullptr;
    bool left = false;
    for (int i = 0; i < count; ++i) {
        auto* target = static_cast<CPollTarget*>(events[i].data.ptr);
        if (!target->Claim(events[i].events)) continue;
        if (!first)
            first = target;
        else
            left |= m_lanes[lane].ready.Push(target);
    }
    if (left && !IsOpen(lane))
        Share(lane);
    else if (left && HasSleeper(lane))
        Wake(lane);
    return first;
}

bool CPortLanes::CNestedTarget::Claim(uint32_t) {
    epoll_event events[kBatch];
    const int count = epoll_wait(m_lanes->m_lanes[m_lane].epoll, events, kBatch, 0);
    CPollTarget* first = count > 0 ? m_lanes->Claim(0, events, count) : nullptr;
    if (first) m_lanes->m_lanes[0].ready.Push(first);
    return false;
}

void CPortLanes::Push(CPollTarget* target, bool wake) {
    if (m_shared.Push(target) && wake) WakeAny();
}

CPollTarget* CPortLanes::Pop(int lane) {
    CPollTarget* target = m_lanes[lane].ready.Pop();
    return target ? target : m_shared.Pop();
}

// The shared list comes last: targets move there from the others.
CPollTarget* CPortLanes::Take(bool (*wanted)(const CPollTarget*, const void*),
                              const void* context) {
    CPollTarget* taken = nullptr;
    for (int i = 0; i < m_count; ++i)
        taken = m_lanes[i].ready.Take(wanted, context, taken);
    return m_shared.Take(wanted, context, taken);
}

void CPortLanes::Share(int lane) {
    bool any = false;
    while (CPollTarget* target = m_lanes[lane].ready.Pop())
        any |= m_shared.Push(target);
    if (any) WakeAny();
}

void CPortLanes::Wake(int lane) {
    const uint64_t one = 1;
    while (write(m_lanes[lane].wake, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void CPortLanes::WakeAny() {
    for (int i = 0; i < m_count; ++i)
        if (HasSleeper(i)) return Wake(i);
}

void CPortLanes::Open(int lane) {
    const std::lock_guard lock(m_watch_lock);
    Control(m_lanes[0].epoll, EPOLL_CTL_DEL, m_lanes[lane].epoll, 0, nullptr);
    m_unwatched.fetch_and(~(1u << lane));
    m_open.fetch_or(1u << lane);
    m_changes.fetch_add(1);
}

// Whoever still waits in the lane is told before others can take the wake; what was left in the
// lane's list is shared.
void CPortLanes::Close(int lane) {
    m_open.fetch_and(~(1u << lane));
    m_changes.fetch_add(1);
    if (HasSleeper(lane)) Wake(lane);
    {
        const std::lock_guard lock(m_watch_lock);
        if (!WatchClosed(lane)) m_unwatched.fetch_or(1u << lane);
    }
    // Who waits in lane 0 already does not know that it must look by itself.
    if (m_unwatched.load() != 0 && HasSleeper(0)) Wake(0);
    Share(lane);
}

bool CPortLanes::WatchClosed(int lane) {
    return Add(0, m_lanes[lane].epoll, EPOLLIN, &m_lanes[lane].nested);
}

void CPortLanes::LookIntoUnwatched() {
    uint32_t still = 0;
    {
        const std::lock_guard lock(m_watch_lock);
        for (int lane = 1; lane < m_count; ++lane) {
            const uint32_t bit = 1u << lane;
            if (!(m_unwatched.load() & bit)) continue;
            if (WatchClosed(lane))
                m_unwatched.fetch_and(~bit);
            else
                still |= bit;
        }
    }
    for (int lane = 1; lane < m_count; ++lane)
        if (still >> lane & 1) m_lanes[lane].nested.Claim(EPOLLIN);
}

bool CPortLanes::WorkWaits(int lane) const {
    if (HasSleeper(lane)) return false;
    if (Queued(lane)) return true;
    pollfd fd{m_lanes[lane].epoll, POLLIN, 0};
    return poll(&fd, 1, 0) > 0;
}

uint64_t CPortLanes::Taken() const {
    uint64_t taken = 0;
    for (int i = 0; i < m_count; ++i)
        taken += Taken(i);
    return taken;
}

}  // namespace posix
