// Seating, parking and the watch. See port_seats.h.
#include "platform/posix/port_seats.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "platform/posix/port_object.h"

namespace posix {
namespace {

constexpr std::chrono::milliseconds kWatch{2};
constexpr int kQuietWatches = 10;
constexpr int kStuckWatches = 10;  // of a worker that seems to run: it may lack a processor
constexpr int kBusyWatches = 5;
constexpr int kRetryWatches = 500;

const int kProcessors = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));

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
        if (const auto left = std::move(seats)) left->Leave(thread);
        seats = nullptr;
    }
    std::shared_ptr<CWorkerSeats> seats;
    pid_t thread = 0;
};

thread_local CWorkerSeats::CHere CWorkerSeats::t_here;

CWorkerSeats::CWorkerSeats() = default;

std::shared_ptr<CWorkerSeats> CWorkerSeats::Create() {
    return std::shared_ptr<CWorkerSeats>(new CWorkerSeats());
}

void CWorkerSeats::StandUp() {
    if (t_here.seats) t_here.Leave();
}

void CWorkerSeats::Leave(pid_t thread) {
    const std::lock_guard lock(m_lock);
    m_seats.erase(std::find(m_seats.begin(), m_seats.end(), thread));
    if (m_seated.fetch_sub(1) == 1) Call();
}

// With the lock held: the calling thread takes a seat that was counted already.
void CWorkerSeats::Occupy() {
    if (t_here.thread == 0) t_here.thread = static_cast<pid_t>(syscall(SYS_gettid));
    t_here.seats = shared_from_this();
    m_seats.push_back(t_here.thread);
}

// With the lock held: seats the worker that was parked last.
void CWorkerSeats::Call() {
    if (m_parked.empty() || m_closed) return;
    CParked* parked = m_parked.back();
    m_parked.pop_back();
    m_parked_count.fetch_sub(1);
    m_seated.fetch_add(1);
    parked->seated = true;
    parked->called.notify_one();
}

void CWorkerSeats::Sit(CCompletionPort& port) {
    if (t_here.seats.get() == this) {
        if (m_spare.load(std::memory_order_relaxed) && m_spare.exchange(false)) Rest(port);
        return;
    }
    StandUp();
    std::unique_lock lock(m_lock);
    if (m_closed) return;
    if (m_seated.load() == 0) {
        m_seated.fetch_add(1);
        Occupy();
        return;
    }
    Park(port, lock);
}

void CWorkerSeats::Rest(CCompletionPort& port) {
    {
        const std::lock_guard lock(m_lock);
        if (m_seated.load() <= 1 || m_closed) return;
    }
    StandUp();
    Sit(port);
}

void CWorkerSeats::Park(CCompletionPort& port, std::unique_lock<std::mutex>& lock) {
    CParked me;
    m_parked.push_back(&me);
    m_parked_count.fetch_add(1);
    while (!me.seated && !m_closed) {
        if (m_parked.front() != &me || !m_watched.load()) {
            me.called.wait(lock);
        } else if (me.called.wait_for(lock, kWatch) == std::cv_status::timeout && !me.seated) {
            if (Watch(port)) Call();
        }
    }
    if (!me.seated) {
        m_parked.erase(std::find(m_parked.begin(), m_parked.end(), &me));
        m_parked_count.fetch_sub(1);
        return;
    }
    Occupy();
    // Whoever keeps the watch now does not know yet.
    if (!m_parked.empty()) m_parked.front()->called.notify_one();
}

void CWorkerSeats::StartWatch() {
    const std::lock_guard lock(m_lock);
    if (m_watched.exchange(true)) return;
    m_quiet = m_stuck = m_busy = 0;
    m_last_taken = m_taken.load() - 1;
    if (!m_parked.empty()) m_parked.front()->called.notify_one();
}

void CWorkerSeats::Invite(CCompletionPort& port) {
    if (!HasParked() || t_here.seats.get() != this) return;
    if (m_seated.load(std::memory_order_relaxed) >= kProcessors || !port.WorkWaits()) return;
    const std::lock_guard lock(m_lock);
    Call();
}

// With the lock held. True: another worker is needed.
bool CWorkerSeats::Watch(CCompletionPort& port) {
    const uint64_t taken = m_taken.load();
    const bool moved = taken != m_last_taken;
    m_last_taken = taken;
    if (++m_since_retry >= kRetryWatches) {
        m_since_retry = 0;
        if (!IsLast()) m_spare.store(true);
    }
    if (port.HasSleeper()) {
        m_stuck = m_busy = 0;
        m_quiet = moved ? 0 : m_quiet + 1;
        if (m_quiet < kQuietWatches) return false;
        m_quiet = 0;
        // Who takes something after this either sees the mark, or is seen here.
        m_watched.store(false);
        if (m_taken.load() != taken) m_watched.store(true);
        return false;
    }
    m_quiet = 0;
    if (!moved) {
        // Even with no work at hand somebody must wait for it.
        m_busy = 0;
        return SeatedSleep() || ++m_stuck >= kStuckWatches;
    }
    m_stuck = 0;
    m_busy = port.WorkWaits() ? m_busy + 1 : 0;
    if (m_busy < kBusyWatches || m_seated.load() >= kProcessors) return false;
    m_busy = 0;
    return true;
}

// Whether every seated worker waits for something, and so cannot take what waits here.
bool CWorkerSeats::SeatedSleep() const {
    return std::all_of(m_seats.begin(), m_seats.end(), [](pid_t thread) {
        const char state = ThreadState(thread);
        return state == 'S' || state == 'D';
    });
}

void CWorkerSeats::Close() {
    const std::lock_guard lock(m_lock);
    m_closed = true;
    for (CParked* parked : m_parked)
        parked->called.notify_one();
}

}  // namespace posix
