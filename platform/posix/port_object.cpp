// The completion port's waiting, waking and ticking. Run by every worker of the port.
#include "platform/posix/port_object.h"

#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "platform/posix/filesinternal.h"
#include "platform/posix/http_limits.h"

namespace posix {
namespace {

constexpr int kBatch = 8;

thread_local const CCompletionPort* t_port = nullptr;
thread_local int t_ready_turns = 0;

uint64_t NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace

CCompletionPort* CCompletionPort::Create() {
    auto* port = new (std::nothrow) CCompletionPort();
    if (!port) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    } else if (!port->Init()) {
        SetLastError(ErrorFromErrno(errno));
        port->Release();
        return nullptr;
    }
    return port;
}

bool CCompletionPort::Init() {
    m_tick_target.m_port = this;
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    return m_epoll >= 0 && m_wake >= 0 && m_timer >= 0 &&
           Add(m_wake, EPOLLIN | EPOLLET, &m_wake_target) &&
           Add(m_timer, EPOLLIN | EPOLLET, &m_tick_target);
}

CCompletionPort::~CCompletionPort() {
    for (int fd : {m_timer, m_wake, m_epoll})
        if (fd >= 0) close(fd);
}

void CCompletionPort::OnClose() {
    m_closed.store(true);
    m_seats->Close();
    WakeOne();
}

bool CCompletionPort::IsWorkerHere() const {
    return t_port == this;
}

CCompletionPort::EGot CCompletionPort::Get(CPacket& packet, DWORD timeout_ms) {
    t_port = this;
    // Who will not wait for ever is not counted on.
    const bool stays = timeout_ms == INFINITE;
    if (stays) m_seats->Sit(*this);
    const uint64_t deadline = timeout_ms == INFINITE || timeout_ms == 0 ? 0 : NowMs() + timeout_ms;
    bool woken = true;
    for (;;) {
        if (m_packet_count.load() > 0 && TakePacket(packet)) {
            if (stays) m_seats->NoteWork();
            return EGot::Packet;
        }
        if (m_closed.load()) {
            WakeOne();
            return EGot::Closed;
        }
        CPollTarget* target = PopReady();
        if (!target) {
            int wait = -1;
            if (timeout_ms == 0) {
                if (!woken) return EGot::Timeout;
                wait = 0;
            } else if (timeout_ms != INFINITE) {
                const uint64_t now = NowMs();
                if (now >= deadline) return EGot::Timeout;
                wait = static_cast<int>(std::min<uint64_t>(deadline - now, 1u << 30));
            } else if (!m_seats->IsLast()) {
                wait = CWorkerSeats::kIdleMs;
            }
            target = Wait(wait, true, woken);
            if (!target && !woken && stays) m_seats->Rest(*this);
        }
        if (!target) continue;
        if (stays) m_seats->NoteWork();
        if (target->Run(packet)) return EGot::Packet;
    }
}

bool CCompletionPort::RunOnce(int timeout_ms, CPacket& packet) {
    CPollTarget* target = PopReady();
    bool woken;
    if (!target) target = Wait(timeout_ms, true, woken);
    return target && target->Run(packet);
}

// Enters epoll_wait. A worker that is the only one waiting takes several events at once and leaves
// all but the first to whoever comes next; while others wait, each takes one.
CPollTarget* CCompletionPort::Wait(int timeout_ms, bool may_sleep, bool& woken) {
    epoll_event events[kBatch];
    woken = true;
    int limit = kBatch;
    if (may_sleep) {
        limit = m_sleepers.fetch_add(1) == 0 ? kBatch : 1;
        if (Queued() || m_closed.load()) {
            m_sleepers.fetch_sub(1);
            return nullptr;
        }
    }
    const int count = epoll_wait(m_epoll, events, limit, timeout_ms);
    if (may_sleep) m_sleepers.fetch_sub(1);
    if (count <= 0) {
        woken = count < 0;
        return nullptr;
    }
    return ClaimEvents(events, count);
}

CPollTarget* CCompletionPort::ClaimEvents(const epoll_event* events, int count) {
    CPollTarget* first = nullptr;
    bool woken = false;
    for (int i = 0; i < count; ++i) {
        auto* target = static_cast<CPollTarget*>(events[i].data.ptr);
        woken |= target == &m_wake_target;
        if (!target->Claim(events[i].events)) continue;
        if (!first) {
            first = target;
        } else {
            PushReady(target, EWake::Now);
        }
    }
    // Who was woken for what is queued but got something else to do passes the wake on.
    if (woken && first && Queued() && m_sleepers.load() > 0) WakeOne();
    return first;
}

// Every so often the sockets are looked at although something is ready, so that pipelined requests
// do not keep others waiting.
CPollTarget* CCompletionPort::PopReady() {
    if (m_ready_count.load() == 0) {
        t_ready_turns = 0;
        return nullptr;
    }
    if (++t_ready_turns >= kPipelineTurn) {
        t_ready_turns = 0;
        bool woken;
        if (CPollTarget* target = Wait(0, false, woken)) PushReady(target, EWake::Now);
    }
    const std::lock_guard lock(m_ready_lock);
    CPollTarget* target = m_ready_head;
    if (!target) return nullptr;
    m_ready_head = target->m_next_ready;
    if (!m_ready_head) m_ready_tail = nullptr;
    m_ready_count.fetch_sub(1);
    return target;
}

void CCompletionPort::PushReady(CPollTarget* target, EWake wake) {
    target->m_next_ready = nullptr;
    bool dying;
    {
        const std::lock_guard lock(m_ready_lock);
        // Asked under the lock that the closing queue takes to collect its targets.
        dying = target->Dying();
        if (!dying) Append(target);
    }
    if (dying) {
        target->Drop();
        return;
    }
    if (wake == EWake::Now) {
        if (m_sleepers.load() > 0) WakeOne();
    } else {
        EnsureTick(ETick::Quick);
    }
}

void CCompletionPort::Append(CPollTarget* target) {
    (m_ready_tail ? m_ready_tail->m_next_ready : m_ready_head) = target;
    m_ready_tail = target;
    m_ready_count.fetch_add(1);
}

CPollTarget* CCompletionPort::TakeReady(bool (*wanted)(const CPollTarget*, const void*),
                                        const void* context) {
    const std::lock_guard lock(m_ready_lock);
    CPollTarget* taken = nullptr;
    CPollTarget** link = &m_ready_head;
    m_ready_tail = nullptr;
    while (CPollTarget* target = *link) {
        if (wanted(target, context)) {
            *link = target->m_next_ready;
            target->m_next_ready = taken;
            taken = target;
            m_ready_count.fetch_sub(1);
        } else {
            m_ready_tail = target;
            link = &target->m_next_ready;
        }
    }
    return taken;
}

bool CCompletionPort::Post(const CPacket& packet) {
    try {
        const std::lock_guard lock(m_packet_lock);
        m_packets.push_back(packet);
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_packet_count.fetch_add(1);
    if (m_sleepers.load() > 0) WakeOne();
    return true;
}

bool CCompletionPort::TakePacket(CPacket& packet) {
    {
        const std::lock_guard lock(m_packet_lock);
        if (m_packets.empty()) return false;
        packet = m_packets.front();
        m_packets.pop_front();
    }
    if (m_packet_count.fetch_sub(1) > 1 && m_sleepers.load() > 0) WakeOne();
    return true;
}

void CCompletionPort::WakeOne() {
    const uint64_t one = 1;
    while (write(m_wake, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

bool CCompletionPort::WorkWaits() {
    if (m_sleepers.load() > 0) return false;
    if (Queued()) return true;
    pollfd fd{m_epoll, POLLIN, 0};
    return poll(&fd, 1, 0) > 0;
}

bool CCompletionPort::Add(int fd, uint32_t events, CPollTarget* target) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = target;
    return epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool CCompletionPort::Modify(int fd, uint32_t events, CPollTarget* target) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = target;
    return epoll_ctl(m_epoll, EPOLL_CTL_MOD, fd, &event) == 0;
}

void CCompletionPort::Remove(int fd) {
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, fd, nullptr);
}

void CCompletionPort::StartTick(ETick tick) {
    const std::lock_guard lock(m_tick_lock);
    if (m_tick.load() >= static_cast<int>(tick)) return;
    m_tick.store(static_cast<int>(tick));
    itimerspec timing{};
    (tick == ETick::Quick ? timing.it_interval.tv_nsec : timing.it_interval.tv_sec) =
        tick == ETick::Quick ? 100000000 : 1;
    timing.it_value = timing.it_interval;
    timerfd_settime(m_timer, 0, &timing, nullptr);
}

// Off is stored before the connections are counted again (by on_tick's next answer), and an accept
// counts before it looks at the tick, so one of the two starts it.
void CCompletionPort::RunTick() {
    uint64_t ticks;
    while (read(m_timer, &ticks, sizeof ticks) < 0 && errno == EINTR) {
    }
    if (!m_on_tick) return;
    ETick need = m_on_tick(this);
    if (static_cast<int>(need) < m_tick.load()) {
        {
            const std::lock_guard lock(m_tick_lock);
            m_tick.store(static_cast<int>(ETick::Off));
            const itimerspec off{};
            timerfd_settime(m_timer, 0, &off, nullptr);
        }
        need = m_on_tick(this);
    }
    if (need != ETick::Off) StartTick(need);
}

}  // namespace posix
