// What the HTTP layer lets tests and operators turn: its timers, its clock and a few counts. Only
// here, not on Windows. Values are read at use, so a change counts at once for every queue.
#pragma once

#include <atomic>

#include "platform/posix/types.h"
#include "platform/posix/views.h"

#pragma GCC visibility push(default)

struct HttpTuning {
    std::atomic<uint32_t> idle_ms{120000};         // between two requests of a connection
    std::atomic<uint32_t> header_ms{120000};       // from the first byte of a head to its last
    std::atomic<uint32_t> body_ms{120000};         // between two pieces of a body
    std::atomic<uint32_t> drain_ms{120000};        // to discard a body that nobody read
    std::atomic<uint32_t> linger_ms{2000};         // to let a client read the answer before a close
    std::atomic<uint32_t> short_body_ms{500};      // a stalled short body is delivered; 0: at once
    std::atomic<uint32_t> stall_ms{250};           // window of the stall rule
    std::atomic<uint32_t> stall_bytes{64 * 1024};  // progress that a window must show
    std::atomic<uint32_t> send_rate_bytes{150};    // per second, at least
    std::atomic<uint32_t> send_window_ms{20000};   // over which the rate is measured
    std::atomic<uint64_t> background_bytes{64 << 20};  // copies held for background sends, in all
    std::atomic<uint64_t> gathered_bytes{128 << 20};   // of bodies that come slowly, in all
    std::atomic<uint32_t> view_send_bytes{kViewSentFromPages_bytes};  // by sendfile
    std::atomic<uint32_t> waiting_requests{1000};  // of a queue; the next is answered 503
    std::atomic<uint32_t> kept_buffers{1024};      // free read buffers; 0: each comes from the heap
};

extern "C" {

HttpTuning* HttpTune() noexcept;

// Moves the layer's clock forward for the whole process and runs every timer that is due on the
// calling thread before it returns.
void HttpTuneAdvanceClock(uint32_t milliseconds) noexcept;

// The port that the queue listens on for a prefix registered with port 0 or with `port`; 0 if none.
uint16_t HttpTuneBoundPort(HANDLE queue, uint16_t port) noexcept;

// Connections open in the process, requests waiting for a receive, bytes held for background sends,
// and threads blocked by a client in a send or body read.
uint32_t HttpTuneConnections() noexcept;
uint32_t HttpTuneWaitingRequests(HANDLE queue) noexcept;
uint64_t HttpTuneBackgroundBytes() noexcept;
uint32_t HttpTuneBlockedThreads() noexcept;
// Bytes held for slow uploads, and the uploads that wait for room.
uint64_t HttpTuneGatheredBytes() noexcept;
uint32_t HttpTuneParkedUploads(HANDLE queue) noexcept;
}
#pragma GCC visibility pop
