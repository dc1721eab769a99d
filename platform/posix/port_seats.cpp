// Seating, parking and the watch. See port_seats.h.
#include "platform/posix/port_seats.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/posix/processors.h"

namespace posix {
namespace {

constexpr std::chrono::milliseconds kWatch{2};
constexpr int kQuietWatches = 10;
constexpr int kStuckWatches = 10;  // of a worker that seems to run: it may lack a processor
constexpr int kBusyWatches = 5;
constexpr int kRetryWatches = 2500;
constexpr int kWindowWatches = 50;

const int kProcessors = UsableProcessors();

// The state letter of a thread of this process, as in proc(5); 0 when it cannot be read.
char ThreadState(pid_t thread) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/stat", static_cast<int>(thread));
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return 0;
    char text[128];
    const ssize_t n = read(file, text, sizeof text - 1);
    close(file);
    if (n <= 0) return 0;
    text[n] = '\0';
    const char* name_end = strrchr(text, ')');
    return name_end && name_end[1] == ' ' ? name_end[2] : 0;
}

}  // namespace

struct CWorkerSeats::CHere {
    ~CHere() { Leave(); }
    void Leave() {
        if (const auto left = std::move(seats)) left->Leave(this);
        seats = nullptr;
    }
    CHere *before = nullptr, *after = nullptr;
    std::shared_ptr<CWorkerSeats> seats;
    pid_t thread = 0;
    std::atomic<int> lane{0};
};

thread_local CWorkerSeats::CHere CWorkerSeats::t_here;

CWorkerSeats::CWorkerSeats(std::shared_ptr<CPortLanes> lanes) : m_lanes(std::move(lanes)) {}

std::shared_ptr<CWorkerSeats> CWorkerSeats::Create(std::shared_ptr<CPortLanes> lanes) {
    return std::shared_ptr<CWorkerSeats>(new CWorkerSeats(std::move(lanes)));
}

void CWorkerSeats::StandUp() {
    if (t_here.seats) t_here.Leave();
}

int CWorkerSeats::LaneHere() const {
    return t_here.seats.get() == this ? t_here.lane.load(std::memory_order_relaxed) : 0;
}

void CWorkerSeats::Leave(CHere* here) {
    const std::lock_guard lock(m_lock);
    m_seats.Remove(here);
    const int lane = here->lane.load();
    if (lane != 0) TakeLaneAway(lane);
    if (m_seated.fetch_sub(1) == 1)
        Call(ECall::Needed);
    else if (!HasOthers(0, nullptr) && !m_seats.Empty())
        // Somebody must see to lane 0, and the fewer work the better: nobody new is called. (With
        // no seat taken, who was called and is on the way comes to lane 0.)
        TakeLaneAway(m_seats.Last()->lane.load());
}

// With the lock held: the calling thread takes a seat that was counted already.
void CWorkerSeats::Occupy(ECall why) {
    if (t_here.thread == 0) t_here.thread = static_cast<pid_t>(syscall(SYS_gettid));
    t_here.seats = shared_from_this();
    t_here.lane.store(0);
    m_seats.Append(&t_here);
    if (why == ECall::Busy && HasOthers(0, &t_here)) GiveLane(&t_here);
}

// With the lock held: gives a worker of lane 0 a lane of its own, the one after the last such, if
// there is any left.
void CWorkerSeats::GiveLane(CHere* here) {
    if (!m_lanes_help || m_parked.Empty()) return;
    for (int i = 1; i < m_lanes->Count(); ++i) {
        const int lane = 1 + (m_last_lane + i - 1) % (m_lanes->Count() - 1);
        if (m_watches[lane].owner) continue;
        here->lane.store(lane);
        m_watches[lane] = {};
        m_watches[lane].owner = here;
        m_watches[lane].taken = m_watches[lane].window_taken = m_lanes->Taken(lane);
        m_last_lane = lane;
        m_lanes->Open(lane);
        return;
    }
}

// With the lock held. The owner may be anywhere; it waits in lane 0 when it comes back.
void CWorkerSeats::TakeLaneAway(int lane) {
    m_watches[lane].owner->lane.store(0);
    m_watches[lane].owner = nullptr;
    m_lanes->Close(lane);
}

void CWorkerSeats::TakeLanesAway() {
    for (int lane = 1; lane < m_lanes->Count(); ++lane)
        if (m_watches[lane].owner) TakeLaneAway(lane);
}

// With the lock held: seats the worker that was parked last.
void CWorkerSeats::Call(ECall why) {
    if (m_parked.Empty() || m_closed) return;
    CParked* parked = m_parked.Last();
    m_parked.Remove(parked);
    m_parked_count.fetch_sub(1);
    m_seated.fetch_add(1);
    parked->seated = true;
    parked->why = why;
    parked->called.notify_one();
    // Without a watch nobody would see that the owner of a lane is away.
    if (m_parked.Empty()) TakeLanesAway();
}

void CWorkerSeats::Sit() {
    if (t_here.seats.get() == this) {
        if (m_spare.load(std::memory_order_relaxed) && m_spare.exchange(false)) Rest();
        return;
    }
    StandUp();
    std::unique_lock lock(m_lock);
    if (m_closed) return;
    if (m_seated.load() == 0) {
        m_seated.fetch_add(1);
        Occupy(ECall::Needed);
        return;
    }
    Park(lock);
}

void CWorkerSeats::Rest() {
    {
        const std::lock_guard lock(m_lock);
        if (m_seated.load() <= 1 || m_closed) return;
    }
    StandUp();
    Sit();
}

void CWorkerSeats::Park(std::unique_lock<std::mutex>& lock) {
    CParked me;
    m_parked.Append(&me);
    m_parked_count.fetch_add(1);
    while (!me.seated && !m_closed) {
        if (m_parked.First() != &me || !m_watched.load())
            me.called.wait(lock);
        else if (me.called.wait_for(lock, kWatch) == std::cv_status::timeout && !me.seated)
            Watch();
    }
    if (!me.seated) {
        m_parked.Remove(&me);
        m_parked_count.fetch_sub(1);
        return;
    }
    Occupy(me.why);
    // Whoever keeps the watch now does not know yet.
    if (!m_parked.Empty()) m_parked.First()->called.notify_one();
}

void CWorkerSeats::StartWatch() {
    const std::lock_guard lock(m_lock);
    if (m_watched.exchange(true)) return;
    m_quiet = m_window = 0;
    m_lanes_help = true;
    m_last_taken = m_lanes->Taken() - 1;
    for (int lane = 0; lane < m_lanes->Count(); ++lane) {
        CLaneWatch& watch = m_watches[lane];
        watch.taken = watch.window_taken = m_lanes->Taken(lane) - 1;
        watch.stuck = watch.busy = watch.window_busy = 0;
    }
    if (!m_parked.Empty()) m_parked.First()->called.notify_one();
}

void CWorkerSeats::Invite() {
    if (t_here.seats.get() != this) return;
    const int lane = t_here.lane.load();
    if (!m_lanes->WorkWaits(lane)) return;
    if (lane != 0) return m_lanes->Share(lane);
    if (!HasParked() || m_seated.load(std::memory_order_relaxed) >= kProcessors) return;
    const std::lock_guard lock(m_lock);
    Call(ECall::Needed);
}

// With the lock held.
void CWorkerSeats::Watch() {
    if (++m_since_retry >= kRetryWatches) {
        m_since_retry = 0;
        m_lanes_help = true;
        if (!IsLast()) m_spare.store(true);
    }
    if (IsIdle()) return;
    bool busy = false;
    for (int lane = 0; lane < m_lanes->Count(); ++lane)
        if (IsOpen(lane)) busy |= WatchLane(lane);
    if (++m_window >= kWindowWatches) CompareLanes();
    if (!busy) return;
    if (m_seated.load() < kProcessors) {
        m_watches[0].busy = 0;
        Call(ECall::Busy);
    } else if (HasOthers(0, m_seats.Last()) && m_seats.Last()->lane.load() == 0) {
        GiveLane(m_seats.Last());
    }
}

// With the lock held. Lanes help where the packets are spread over the processors. Where one lane
// has far more than it can do and another next to nothing, they are given up.
void CWorkerSeats::CompareLanes() {
    m_window = 0;
    uint64_t most = 0, least = UINT64_MAX;
    bool busy = false;
    for (int lane = 0; lane < m_lanes->Count(); ++lane) {
        if (!IsOpen(lane)) continue;
        CLaneWatch& watch = m_watches[lane];
        const uint64_t taken = watch.taken - std::exchange(watch.window_taken, watch.taken);
        const bool often = std::exchange(watch.window_busy, 0) >= kWindowWatches / 2;
        if (taken > most) busy = often;
        most = std::max(most, taken);
        least = std::min(least, taken);
    }
    if (!busy || least >= most / 8) return;
    m_lanes_help = false;
    TakeLanesAway();
}

// With the lock held. Whether every lane has somebody waiting; after a while the watch ends.
bool CWorkerSeats::IsIdle() {
    for (int lane = 0; lane < m_lanes->Count(); ++lane) {
        if (IsOpen(lane) && !m_lanes->HasSleeper(lane)) {
            m_quiet = 0;
            return false;
        }
    }
    const uint64_t taken = m_lanes->Taken();
    m_quiet = taken == m_last_taken ? m_quiet + 1 : 0;
    m_last_taken = taken;
    for (CLaneWatch& watch : m_watches)
        watch.stuck = watch.busy = 0;
    if (m_quiet < kQuietWatches) return true;
    m_quiet = 0;
    // Who takes something after this either sees the mark, or is seen here.
    m_watched.store(false);
    if (m_lanes->Taken() != taken) m_watched.store(true);
    return true;
}

// With the lock held. Whether more work waits in the lane than those who wait there can take. Sees
// to it that somebody waits there.
bool CWorkerSeats::WatchLane(int lane) {
    CLaneWatch& watch = m_watches[lane];
    const uint64_t taken = m_lanes->Taken(lane);
    const bool moved = std::exchange(watch.taken, taken) != taken;
    if (m_lanes->HasSleeper(lane)) {
        watch.stuck = watch.busy = 0;
        return false;
    }
    if (moved) {
        watch.stuck = 0;
        const bool waits = m_lanes->WorkWaits(lane);
        watch.busy = waits ? watch.busy + 1 : 0;
        watch.window_busy += waits;
        return watch.busy >= kBusyWatches;
    }
    // Even with no work at hand somebody must wait for it.
    watch.busy = 0;
    if (!OccupantsSleep(lane) && ++watch.stuck < kStuckWatches) return false;
    watch.stuck = 0;
    if (lane != 0)
        TakeLaneAway(lane);
    else
        Call(ECall::Needed);
    return false;
}

// Whether somebody else than `but` is to wait in the lane.
bool CWorkerSeats::HasOthers(int lane, const CHere* but) const {
    for (const CHere* here = m_seats.First(); here; here = here->after)
        if (here != but && here->lane.load() == lane) return true;
    return false;
}

// Whether everybody who is to wait in the lane waits for something else, and so cannot take what
// waits here.
bool CWorkerSeats::OccupantsSleep(int lane) const {
    for (const CHere* here = m_seats.First(); here; here = here->after) {
        if (here->lane.load() != lane) continue;
        const char state = ThreadState(here->thread);
        if (state != 'S' && state != 'D') return false;
    }
    return true;
}

void CWorkerSeats::Close() {
    const std::lock_guard lock(m_lock);
    m_closed = true;
    for (CParked* parked = m_parked.First(); parked; parked = parked->after)
        parked->called.notify_one();
}

}  // namespace posix
