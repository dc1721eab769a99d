// The completion port: an epoll instance, the packets that were posted, and the targets that are
// ready to be run. A worker that waits here runs the targets itself; what a run completes is the
// packet that the worker returns, so nothing is handed from thread to thread. Any thread.
//
// Sleeping and waking: a worker announces itself in m_sleepers, looks at the two queues once more,
// and only then enters epoll_wait; whoever queues something looks at m_sleepers afterwards. All of
// these are sequentially consistent, so one of the two always sees the other. A wake is a write to
// an eventfd that is registered edge-triggered and never read: each write wakes one worker, and a
// worker that leaves work behind wakes the next.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

#include "platform/posix/object.h"
#include "platform/posix/port_seats.h"

struct epoll_event;

namespace posix {

struct CPacket {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    DWORD error = NO_ERROR;  // of a failed operation
};

// Something with a file descriptor in a port. Targets live in storage that is never freed, so a
// late event may still name one.
class CPollTarget {
public:
    // An event of the target was taken. True: the caller holds the target and must Run it.
    virtual bool Claim(uint32_t events) = 0;
    // Does the work of a target that the caller holds, and gives it up. True: packet is filled.
    virtual bool Run(CPacket& packet) = 0;
    // A target whose owner is closing is not queued any more but dropped.
    virtual bool Dying() const { return false; }
    virtual void Drop() {}
    // Whether the target works for that owner; asked of a target that is queued.
    virtual bool Belongs(const void*) const { return false; }

    CPollTarget* m_next_ready = nullptr;

protected:
    ~CPollTarget() = default;
};

enum class EWake { Now, Later };

class CCompletionPort final : public CObject {
public:
    static constexpr ObjectKind kKind = ObjectKind::CompletionPort;
    enum class EGot { Packet, Timeout, Closed };

    // Null with the last error set.
    static CCompletionPort* Create();

    EGot Get(CPacket& packet, DWORD timeout_ms);
    // False when there is no memory for it.
    bool Post(const CPacket& packet);

    // One step for a caller that waits for something else than packets: runs at most one target.
    // True: packet is filled and must be posted.
    bool RunOnce(int timeout_ms, CPacket& packet);

    bool Add(int fd, uint32_t events, CPollTarget* target);
    bool Modify(int fd, uint32_t events, CPollTarget* target);
    void Remove(int fd);

    // Queues a target that the caller holds. EWake::Later leaves it to the next worker that comes
    // by, at the latest at the next quick tick: for callers that are workers of this port and will
    // be back. A dying target is dropped instead.
    void PushReady(CPollTarget* target, EWake wake);
    // Takes out the targets that `wanted` accepts, as a list.
    CPollTarget* TakeReady(bool (*wanted)(const CPollTarget*, const void*), const void* context);

    // Whether work waits while no worker does.
    bool WorkWaits();
    // Whether a worker is waiting for events now.
    bool HasSleeper() const { return m_sleepers.load() > 0; }
    // Whether the calling thread's last wait was in this port.
    bool IsWorkerHere() const;
    // The calling worker will be busy with one thing for long.
    void Invite() { m_seats->Invite(*this); }
    // Whether a worker is left that only waits to be called.
    bool HasParked() const { return m_seats->HasParked(); }

    // The tick: `on_tick` runs on a worker at least every second (slow) or tenth of one (quick),
    // and says which it needs further.
    enum class ETick : int { Off, Slow, Quick };
    void SetTick(ETick (*on_tick)(CCompletionPort*)) { m_on_tick = on_tick; }
    void EnsureTick(ETick tick) {
        if (m_tick.load() < static_cast<int>(tick)) StartTick(tick);
    }

    void OnClose() override;

private:
    class CWakeTarget final : public CPollTarget {
    public:
        bool Claim(uint32_t) override { return false; }
        bool Run(CPacket&) override { return false; }
    };
    class CTickTarget final : public CPollTarget {
    public:
        bool Claim(uint32_t) override { return !m_claimed.exchange(true); }
        bool Run(CPacket&) override {
            m_claimed.store(false);
            m_port->RunTick();
            return false;
        }
        CCompletionPort* m_port = nullptr;
        std::atomic<bool> m_claimed{false};
    };

    CCompletionPort() : CObject(kKind) {}
    ~CCompletionPort() override;
    bool Init();
    bool TakePacket(CPacket& packet);
    CPollTarget* PopReady();
    CPollTarget* Wait(int timeout_ms, bool may_sleep, bool& woken);
    CPollTarget* ClaimEvents(const epoll_event* events, int count);
    void Append(CPollTarget* target);
    void WakeOne();
    void RunTick();
    void StartTick(ETick tick);
    bool Queued() const { return m_packet_count.load() > 0 || m_ready_count.load() > 0; }

    std::shared_ptr<CWorkerSeats> m_seats = CWorkerSeats::Create();
    int m_epoll = -1;
    int m_wake = -1;
    int m_timer = -1;
    CWakeTarget m_wake_target;
    CTickTarget m_tick_target;
    ETick (*m_on_tick)(CCompletionPort*) = nullptr;
    std::atomic<int> m_tick{0};
    std::atomic<bool> m_closed{false};

    alignas(64) std::atomic<int32_t> m_sleepers{0};
    std::atomic<int32_t> m_packet_count{0};
    std::atomic<int32_t> m_ready_count{0};

    alignas(64) std::mutex m_ready_lock;  // guards the list
    CPollTarget* m_ready_head = nullptr;
    CPollTarget* m_ready_tail = nullptr;

    alignas(64) std::mutex m_packet_lock;  // guards the packets
    std::deque<CPacket> m_packets;

    std::mutex m_tick_lock;  // guards changes of the timer
};

}  // namespace posix
