// Who of the workers that wait in a completion port serves it. One does as long as it keeps up:
// what it needs stays in one processor's caches, and nobody is woken for work that the one will
// have done by then. The others are parked. Another is seated when
//   - the last seated one is about to wait for something else (StandUp),
//   - work waits behind a long piece of work (Invite),
//   - the watch finds all who wait in a lane away, asleep or for long, or
//   - the watch finds work waiting time and again although the seated ones take what they can.
// A seat that is not the last is given up when it found nothing to do for a while, and every few
// seconds to see whether it is still needed.
//
// Who is seated because there is so much to do gets a lane of its own, as long as somebody is left
// to keep the watch; everybody else waits in lane 0. A lane is taken away from a worker that is
// away for long, and from all when one has next to nothing to do while another does not keep up:
// then who comes first serves.
//
// The watch is kept by a parked worker, only while there is work: it sleeps for good when the port
// is idle. All members may be called by any thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "platform/posix/nodelist.h"
#include "platform/posix/port_lanes.h"

namespace posix {

class CWorkerSeats : public std::enable_shared_from_this<CWorkerSeats> {
public:
    // How long a seat that is not the last is kept without work.
    static constexpr int kIdleMs = 20;

    static std::shared_ptr<CWorkerSeats> Create(std::shared_ptr<CPortLanes> lanes);

    // Returns when the calling worker is seated, or when the port was closed.
    void Sit();
    // The same for a seated worker that found nothing to do.
    void Rest();
    // The calling thread gives its seat up, if it has one in any port. It may come back by Sit.
    static void StandUp();
    // Where the calling worker is to wait. It may change at any time: then somebody else sees to
    // what comes in the former lane.
    int LaneHere() const;

    // A seated worker took something from that lane and will work on it now.
    void NoteWork(int lane) {
        m_lanes->NoteTaken(lane);
        if (!m_watched.load()) StartWatch();
    }
    // The calling worker will be busy for long: others get what waits.
    void Invite();

    bool IsLast() const { return m_seated.load(std::memory_order_relaxed) <= 1; }
    bool HasParked() const { return m_parked_count.load(std::memory_order_relaxed) > 0; }

    // Sends every parked worker home.
    void Close();

private:
    struct CHere;  // the calling thread's seat
    static thread_local CHere t_here;

    // Why another worker is called: lane 0 lacks one, or there is much to do.
    enum class ECall { Needed, Busy };
    struct CParked {
        CParked *before = nullptr, *after = nullptr;
        std::condition_variable called;
        bool seated = false;
        ECall why = ECall::Needed;
    };
    struct CLaneWatch {
        CHere* owner = nullptr;  // of a lane but 0, while it is open
        uint64_t taken = 0;
        int stuck = 0;  // watches in a row with nobody waiting and nothing taken
        int busy = 0;   // with work waiting, although some was taken
        // Since the lanes were last compared.
        uint64_t window_taken = 0;
        int window_busy = 0;
    };

    explicit CWorkerSeats(std::shared_ptr<CPortLanes> lanes);
    void Leave(CHere* here);
    void Occupy(ECall why);
    void GiveLane(CHere* here);
    void TakeLaneAway(int lane);
    void TakeLanesAway();
    void Call(ECall why);
    void Park(std::unique_lock<std::mutex>& lock);
    void StartWatch();
    void Watch();
    bool WatchLane(int lane);
    void CompareLanes();
    bool IsIdle();
    bool IsOpen(int lane) const { return lane == 0 || m_watches[lane].owner; }
    bool HasOthers(int lane, const CHere* but) const;
    bool OccupantsSleep(int lane) const;

    const std::shared_ptr<CPortLanes> m_lanes;

    std::mutex m_lock;            // guards the lists and what the watch remembers
    CNodeList<CHere> m_seats;     // of the seated workers
    CNodeList<CParked> m_parked;  // the first one keeps the watch, the last is called first
    std::array<CLaneWatch, CPortLanes::kMost> m_watches;
    bool m_closed = false;
    bool m_lanes_help = true;  // none was left idle while another was busy
    int m_last_lane = 0;       // that was opened
    uint64_t m_last_taken = 0;
    int m_quiet = 0;   // watches in a row without work
    int m_window = 0;  // since the lanes were compared
    int m_since_retry = 0;

    std::atomic<int> m_seated{0};
    std::atomic<int> m_parked_count{0};
    std::atomic<bool> m_spare{false};    // one seat is to be given up
    std::atomic<bool> m_watched{false};  // the watch is kept
};

}  // namespace posix
