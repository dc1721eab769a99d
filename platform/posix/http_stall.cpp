// Waiting for a client in the middle of a call, and the rule that no client owns a thread: while
// requests wait for one, a client that moves too little in a window is stalled. Run by any thread
// that answers or reads a body.
#include <poll.h>

#include <algorithm>
#include <atomic>

#include "platform/posix/http_background.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/http_tuning.h"

namespace posix {
namespace {

constexpr int kSliceMs = 50;

std::atomic<uint32_t> g_blocked{0};

struct CBlocked {
    CBlocked() { g_blocked.fetch_add(1); }
    ~CBlocked() { g_blocked.fetch_sub(1); }
};

}  // namespace

// The window runs over all of the request's calls, so that a client cannot begin anew with every
// byte.
// `alone`: the thread's other work cannot be seen from here, and is taken to wait.
bool CHttpConnection::IsStalled(uint64_t now, bool alone) {
    const HttpTuning& tune = *HttpTune();
    if (!m_window_open) {
        m_window_open = true;
        m_slow = false;
        m_window_start = now;
        m_window_bytes = 0;
    } else if (now - m_window_start >= tune.stall_ms) {
        m_slow = m_window_bytes < tune.stall_bytes;
        m_window_start = now;
        m_window_bytes = 0;
    }
    return m_slow && (alone || m_queue->RequestsWait());
}

// A body is delivered before it is whole only when it promises to come within a window. One that
// takes two is in the way of others: of requests, or of uploads that would keep the promise.
bool CHttpConnection::IsLate(uint64_t now) {
    if (m_read_from_ms == 0) m_read_from_ms = now;
    return now - m_read_from_ms >= 2ull * HttpTune()->stall_ms &&
           (m_queue->RequestsWait() || m_queue->UploadsWait());
}

// False: the client is stalled, its time is up, the queue is closing, or, with
// EPatience::WhileIdle, requests wait.
bool CHttpConnection::WaitSocket(short events, uint64_t until_ms, EPatience patience) {
    const CBlocked blocked;
    const bool alone = events == POLLOUT && !m_queue->Port()->IsWorkerHere();
    CWorkerSeats::StandUp();
    for (;;) {
        const uint64_t now = ClockMs();
        if (m_queue->Closing() || IsStalled(now, alone) || now >= until_ms) return false;
        if (events == POLLIN && IsLate(now)) return false;
        if (patience == EPatience::WhileIdle && m_queue->RequestsWait()) return false;
        pollfd fd{m_fd, events, 0};
        const int slice = std::max(1, std::min(kSliceMs, static_cast<int>(HttpTune()->stall_ms)));
        if (poll(&fd, 1, slice) > 0) return true;
        // Below a low-water mark there may be bytes although nothing is announced.
        if (events == POLLIN && m_low_water > 1) return true;
    }
}

}  // namespace posix

uint32_t HttpTuneBlockedThreads() noexcept {
    return posix::g_blocked.load();
}
