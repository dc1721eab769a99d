// The completion port: the packets that were posted, and the targets whose events its lanes bring.
// A worker that waits here runs the targets itself; what a run completes is the packet that the
// worker returns, so nothing is handed from thread to thread. Any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/posix/object.h"
#include "platform/posix/port_lanes.h"
#include "platform/posix/port_packets.h"
#include "platform/posix/port_seats.h"

namespace posix {

enum class EWake { Now, Later };

// Win32 error number of a descriptor that cannot be watched (errno): ENOSPC is the user's bound of
// watches there, no disk's.
DWORD ErrorOfWatch(int error);

class CCompletionPort final : public CObject {
public:
    static constexpr ObjectKind kKind = ObjectKind::CompletionPort;
    enum class EGot { Packet, Timeout, Closed };

    // Null with the last error set.
    static CCompletionPort* Create();

    EGot Get(CPacket& packet, DWORD timeout_ms);
    // The end of an operation, whose OVERLAPPED the packet has: needs no memory.
    void Complete(const CPacket& packet);
    // A packet of the caller's own. False when there is no memory for it.
    bool Post(const CPacket& packet);

    // One step for a caller that waits for something else than packets: runs at most one target.
    // True: packet is filled, and Complete must be told.
    bool RunOnce(int timeout_ms, CPacket& packet);

    // Whom the port's descriptors tell of events. New ones go to lane 0.
    CPortLanes& Lanes() { return *m_lanes; }

    // Queues a target that the caller holds. EWake::Later leaves it to the next worker that comes
    // by, at the latest at the next quick tick: for callers that are workers of this port and will
    // be back. A dying target is dropped instead.
    void PushReady(CPollTarget* target, EWake wake);
    // Takes out the targets that `wanted` accepts, as a list.
    CPollTarget* TakeReady(bool (*wanted)(const CPollTarget*, const void*), const void* context);

    // Whether the calling thread's last wait was in this port.
    bool IsWorkerHere() const;
    // The calling worker will be busy with one thing for long.
    void Invite() { m_seats->Invite(); }
    // Whether work waits that nobody will take soon.
    bool IsShortOfWorkers() const { return !m_seats->HasParked() && m_lanes->WorkWaits(0); }
    // Whether nobody would be left to serve the port if the calling worker waited now.
    bool IsLastServer() const { return !m_seats->HasParked() && m_seats->IsLast(); }

    // The tick: `on_tick` runs on a worker at least every second (slow) or tenth of one (quick),
    // and says which it needs further.
    enum class ETick : int { Off, Slow, Quick };
    void SetTick(ETick (*on_tick)(CCompletionPort*)) { m_on_tick = on_tick; }
    void EnsureTick(ETick tick) {
        if (m_tick.load() < static_cast<int>(tick)) StartTick(tick);
    }

    void OnClose() override;

private:
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
    CPollTarget* PopReady(int lane);
    void RunTick();
    void StartTick(ETick tick);

    // Workers keep both beyond the port's end.
    std::shared_ptr<CPortLanes> m_lanes = std::make_shared<CPortLanes>();
    std::shared_ptr<CWorkerSeats> m_seats = CWorkerSeats::Create(m_lanes);
    int m_timer = -1;
    CTickTarget m_tick_target;
    ETick (*m_on_tick)(CCompletionPort*) = nullptr;
    std::atomic<int> m_tick{0};
    std::atomic<bool> m_closed{false};

    alignas(64) CPacketList m_packets;

    std::mutex m_tick_lock;  // guards changes of the timer
};

}  // namespace posix
