// The completion port's waiting, waking and ticking. Run by every worker of the port.
#include "platform/posix/port_object.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "platform/posix/filesinternal.h"
#include "platform/posix/http_limits.h"

namespace posix {
namespace {

thread_local const CCompletionPort* t_port = nullptr;
thread_local int t_ready_turns = 0;

uint64_t NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace

DWORD ErrorOfWatch(int error) {
    return error == ENOSPC ? ERROR_NO_SYSTEM_RESOURCES : ErrorFromErrno(error);
}

CCompletionPort* CCompletionPort::Create() {
    CCompletionPort* port;
    try {
        port = new CCompletionPort();
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (port->Init()) return port;
    SetLastError(ErrorOfWatch(errno));
    port->Release();
    return nullptr;
}

bool CCompletionPort::Init() {
    m_tick_target.m_port = this;
    m_timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    return m_timer >= 0 && m_lanes->Init() &&
           m_lanes->Add(0, m_timer, EPOLLIN | EPOLLET, &m_tick_target);
}

CCompletionPort::~CCompletionPort() {
    if (m_timer >= 0) close(m_timer);
}

void CCompletionPort::OnClose() {
    m_closed.store(true);
    m_seats->Close();
    m_lanes->Shut();
}

bool CCompletionPort::IsWorkerHere() const {
    return t_port == this;
}

CCompletionPort::EGot CCompletionPort::Get(CPacket& packet, DWORD timeout_ms) {
    t_port = this;
    // Who will not wait for ever is not counted on.
    const bool stays = timeout_ms == INFINITE;
    if (stays) m_seats->Sit();
    const uint64_t deadline = timeout_ms == INFINITE || timeout_ms == 0 ? 0 : NowMs() + timeout_ms;
    bool idle = false;
    for (;;) {
        const int lane = stays ? m_seats->LaneHere() : 0;
        if (m_lanes->HasPackets() && TakePacket(packet)) {
            if (stays) m_seats->NoteWork(lane);
            return EGot::Packet;
        }
        if (m_closed.load()) {
            m_lanes->WakeAny();
            return EGot::Closed;
        }
        CPollTarget* target = PopReady(lane);
        if (!target) {
            int wait = -1;
            if (timeout_ms == 0) {
                if (idle) return EGot::Timeout;
                wait = 0;
            } else if (timeout_ms != INFINITE) {
                const uint64_t now = NowMs();
                if (now >= deadline) return EGot::Timeout;
                wait = static_cast<int>(std::min<uint64_t>(deadline - now, 1u << 30));
            } else if (lane != 0 || !m_seats->IsLast()) {
                wait = CWorkerSeats::kIdleMs;
            }
            target = m_lanes->Wait(lane, wait, true, &idle);
            if (!target && idle && stays) m_seats->Rest();
        }
        if (!target) continue;
        if (stays) m_seats->NoteWork(lane);
        if (target->Run(packet)) return EGot::Packet;
    }
}

bool CCompletionPort::RunOnce(int timeout_ms, CPacket& packet) {
    CPollTarget* target = PopReady(0);
    bool idle;
    if (!target) target = m_lanes->Wait(0, timeout_ms, true, &idle);
    return target && target->Run(packet);
}

// Every so often the sockets are looked at although something is ready, so that pipelined requests
// do not keep others waiting.
CPollTarget* CCompletionPort::PopReady(int lane) {
    if (!m_lanes->HasReady(lane)) {
        t_ready_turns = 0;
        return nullptr;
    }
    if (++t_ready_turns >= kPipelineTurn) {
        t_ready_turns = 0;
        bool idle;
        if (CPollTarget* target = m_lanes->Wait(lane, 0, false, &idle)) m_lanes->Push(target, true);
    }
    return m_lanes->Pop(lane);
}

void CCompletionPort::PushReady(CPollTarget* target, EWake wake) {
    m_lanes->Push(target, wake == EWake::Now);
    if (wake == EWake::Later) EnsureTick(ETick::Quick);
}

CPollTarget* CCompletionPort::TakeReady(bool (*wanted)(const CPollTarget*, const void*),
                                        const void* context) {
    return m_lanes->Take(wanted, context);
}

void CCompletionPort::Complete(const CPacket& packet) {
    m_packets.Complete(packet);
    m_lanes->NotePacket();
}

bool CCompletionPort::Post(const CPacket& packet) {
    if (!m_packets.Post(packet)) return false;
    m_lanes->NotePacket();
    return true;
}

bool CCompletionPort::TakePacket(CPacket& packet) {
    if (!m_packets.Take(packet)) return false;
    if (m_lanes->TookPacket() > 0) m_lanes->WakeAny();
    return true;
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
