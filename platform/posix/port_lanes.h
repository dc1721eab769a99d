// The epoll instances of a completion port and the targets that were taken from them.
//
// Lane 0 has the listeners, the timers and, at first, every connection. The other lanes are for one
// worker each: while such a lane is open, the connections whose packets arrive on its processor
// live there, so that what a connection needs stays in that processor's caches and its events go to
// a worker that runs close by. A lane that is closed is watched through lane 0, so an event is
// never lost whoever comes and goes. When the system has no memory for that, those who wait in lane
// 0 look into the closed lane themselves, every kLookMs, until it has.
//
// Sleeping and waking: a worker announces itself in its lane's sleepers, looks at the queues once
// more, and only then enters epoll_wait; whoever queues something looks at the sleepers afterwards.
// All of these are sequentially consistent, so one of the two always sees the other. A wake is a
// write to the lane's eventfd, which is registered edge-triggered and never read: each write wakes
// one worker, and a worker that leaves work behind wakes the next.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

struct epoll_event;

namespace posix {

struct CPacket;

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

// Targets that are held and wait to be run, first in, first out. Any thread.
class CReadyList {
public:
    // A dying target is dropped instead; false then.
    bool Push(CPollTarget* target);
    CPollTarget* Pop();
    // Takes out the targets that `wanted` accepts and puts them before `taken`.
    CPollTarget* Take(bool (*wanted)(const CPollTarget*, const void*), const void* context,
                      CPollTarget* taken);
    bool Empty() const { return m_count.load() == 0; }

private:
    std::atomic<int32_t> m_count{0};
    std::mutex m_lock;  // guards the list
    CPollTarget* m_head = nullptr;
    CPollTarget* m_tail = nullptr;
};

class CPortLanes {
public:
    static constexpr int kMost = 16;
    static constexpr int kLookMs = 10;

    CPortLanes() = default;
    ~CPortLanes();
    CPortLanes(const CPortLanes&) = delete;
    CPortLanes& operator=(const CPortLanes&) = delete;

    // False with errno set. One lane for each processor that the process may run on if not said
    // otherwise, kMost at most. A count of 1 stands for a machine with one processor.
    bool Init(int count = 0);
    int Count() const { return m_count; }

    bool Add(int lane, int fd, uint32_t events, CPollTarget* target);
    bool Modify(int lane, int fd, uint32_t events, CPollTarget* target);
    // What happened meanwhile is announced again. False: the descriptor stays where it was.
    bool Move(int from, int to, int fd, uint32_t events, CPollTarget* target);
    // The lane where a socket's packets are best served now.
    int HomeOf(int socket, int lane) const;
    // Another number whenever a lane was opened or closed.
    uint32_t Changes() const { return m_changes.load(std::memory_order_relaxed); }

    // Enters epoll_wait and claims what it brings. The first target is returned, the others wait in
    // the lane's list. Null also when there is something to look at in the queues; `idle`: the time
    // was up.
    CPollTarget* Wait(int lane, int timeout_ms, bool may_sleep, bool* idle);

    // A target for any worker.
    void Push(CPollTarget* target, bool wake);
    // The next one for a worker of the lane.
    CPollTarget* Pop(int lane);
    CPollTarget* Take(bool (*wanted)(const CPollTarget*, const void*), const void* context);
    // Puts what waits in the lane's list where any worker finds it.
    void Share(int lane);
    bool HasReady(int lane) const { return !m_lanes[lane].ready.Empty() || !m_shared.Empty(); }

    // Packets of the port, which its workers look for themselves.
    void NotePacket() {
        m_packets.fetch_add(1);
        WakeAny();
    }
    // How many are left.
    int TookPacket() { return m_packets.fetch_sub(1) - 1; }
    bool HasPackets() const { return m_packets.load() > 0; }

    // Wakes a worker that sleeps, in whichever lane.
    void WakeAny();
    // Nobody sleeps here any more.
    void Shut() {
        m_shut.store(true);
        WakeAny();
    }

    // One call at a time (the seats' lock). Lane 0 is always open.
    void Open(int lane);
    void Close(int lane);

    // Whether somebody waits for events in the lane now.
    bool HasSleeper(int lane) const { return m_lanes[lane].sleepers.load() > 0; }
    // Whether something waits in the lane while nobody does.
    bool WorkWaits(int lane) const;

    void NoteTaken(int lane) { m_lanes[lane].taken.fetch_add(1); }
    uint64_t Taken(int lane) const { return m_lanes[lane].taken.load(); }
    uint64_t Taken() const;

private:
    class CWakeTarget final : public CPollTarget {
    public:
        bool Claim(uint32_t) override { return false; }
        bool Run(CPacket&) override { return false; }
    };
    // A closed lane in lane 0: brings the events of the one into the list of the other.
    class CNestedTarget final : public CPollTarget {
    public:
        bool Claim(uint32_t) override;
        bool Run(CPacket&) override { return false; }
        void Set(CPortLanes* lanes, int lane) {
            m_lanes = lanes;
            m_lane = lane;
        }

    private:
        CPortLanes* m_lanes = nullptr;
        int m_lane = 0;
    };
    struct alignas(64) CLane {
        std::atomic<int32_t> sleepers{0};
        std::atomic<uint64_t> taken{0};
        std::atomic<const void*> last{nullptr};  // of whom the last event told
        std::atomic<bool> alone{false};          // nobody else came, and that one soon
        int epoll = -1;
        int wake = -1;
        CReadyList ready;
        CNestedTarget nested;
    };

    int WaitForOne(CLane& here, epoll_event* events);
    bool WatchClosed(int lane);
    void LookIntoUnwatched();
    CPollTarget* Claim(int lane, const epoll_event* events, int count);
    bool IsOpen(int lane) const { return lane == 0 || (m_open.load() >> lane & 1) != 0; }
    bool Queued(int lane) const { return HasPackets() || HasReady(lane); }
    void Wake(int lane);

    std::array<CLane, kMost> m_lanes;
    int m_count = 0;
    bool m_looks = false;  // before a sleep, for a client that is alone
    CWakeTarget m_wake_target;
    std::atomic<uint32_t> m_open{0};       // a bit for each lane but 0
    std::atomic<uint32_t> m_unwatched{0};  // of the closed ones: those that are not in lane 0
    std::atomic<uint32_t> m_changes{0};
    std::atomic<bool> m_shut{false};
    alignas(64) std::atomic<int32_t> m_packets{0};
    CReadyList m_shared;
    std::mutex m_watch_lock;  // guards what lane 0 watches of the others
};

}  // namespace posix
