// Who of the workers that wait in a completion port serves it. One does as long as it keeps up:
// what it needs stays in one processor's caches, and nobody is woken for work that the one will
// have done by then. The others are parked. Another is seated when
//   - the last seated one is about to wait for something else (StandUp),
//   - work waits behind a long piece of work (Invite),
//   - the watch finds all seated ones away, asleep or for long, or
//   - the watch finds work waiting time and again although the seated ones take what they can.
// A seat that is not the last is given up when it found nothing to do for a while, and once a
// second to see whether it is still needed.
//
// The watch is kept by a parked worker, only while there is work: it sleeps for good when the port
// is idle. All members may be called by any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace posix {

class CCompletionPort;

class CWorkerSeats : public std::enable_shared_from_this<CWorkerSeats> {
public:
    // How long a seat that is not the last is kept without work.
    static constexpr int kIdleMs = 20;

    static std::shared_ptr<CWorkerSeats> Create();

    // Returns when the calling worker is seated, or when the port was closed. `port` outlives the
    // call.
    void Sit(CCompletionPort& port);
    // The same for a seated worker that found nothing to do.
    void Rest(CCompletionPort& port);
    // The calling thread gives its seat up, if it has one in any port. It may come back by Sit.
    static void StandUp();

    // A seated worker took something and will work on it now.
    void NoteWork() {
        m_taken.fetch_add(1);
        if (!m_watched.load()) StartWatch();
    }
    // The calling worker will be busy for long: seats another if work waits.
    void Invite(CCompletionPort& port);

    bool IsLast() const { return m_seated.load(std::memory_order_relaxed) <= 1; }
    bool HasParked() const { return m_parked_count.load(std::memory_order_relaxed) > 0; }

    // Sends every parked worker home.
    void Close();

private:
    struct CParked {
        std::condition_variable called;
        bool seated = false;
    };
    struct CHere;  // the calling thread's seat
    static thread_local CHere t_here;

    CWorkerSeats();
    void Leave(pid_t thread);
    void Occupy();
    void Call();
    void Park(CCompletionPort& port, std::unique_lock<std::mutex>& lock);
    void StartWatch();
    bool Watch(CCompletionPort& port);
    bool SeatedSleep() const;

    std::mutex m_lock;               // guards the lists and what the watch remembers
    std::vector<pid_t> m_seats;      // threads
    std::vector<CParked*> m_parked;  // the first one keeps the watch, the last is called first
    bool m_closed = false;
    uint64_t m_last_taken = 0;
    int m_quiet = 0;  // watches in a row without work
    int m_stuck = 0;  // with nobody waiting and nothing taken
    int m_busy = 0;   // with work, although some was taken
    int m_since_retry = 0;

    std::atomic<int> m_seated{0};
    std::atomic<int> m_parked_count{0};
    std::atomic<bool> m_spare{false};    // one seat is to be given up
    std::atomic<bool> m_watched{false};  // the watch is kept
    alignas(64) std::atomic<uint64_t> m_taken{0};
};

}  // namespace posix
