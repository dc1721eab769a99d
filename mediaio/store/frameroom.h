// Memory for a frame that comes in, and the short wait for it.
#pragma once

#include "mediaio/zemmemallocator.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zemstore {

// A write is answered before the device has it, so a client that sends faster than the device
// writes fills the frame memory, and what finds no room is lost without a word to the client. A
// frame in that place waits until another one has been written: its client then sends the next one
// later, as it would to any slow receiver. Only so many wait, so that most of the server's threads
// go on, and not for long, because a device may never give anything back. Any thread.
class CFrameRoom {
public:
    static constexpr unsigned kMostWaiting = 2;  // of the 4 workers that there are at least
    static constexpr std::chrono::milliseconds kLongestWait{250};

    explicit CFrameRoom(std::chrono::milliseconds longestWait = kLongestWait)
        : m_longestWait(longestWait) {}

    // A run of size_bytes (above 0), or null when there is none after the wait. The caller gives it
    // back with Free.
    void* Allocate(IZemMemAllocator& allocator, size_t size_bytes);
    void Free(IZemMemAllocator& allocator, void* run);

    // The process's one: what one channel gives back is what another waits for.
    static CFrameRoom& Shared();

private:
    void* WaitFor(IZemMemAllocator& allocator, size_t size_bytes);

    const std::chrono::milliseconds m_longestWait;
    std::mutex m_lock;
    std::condition_variable m_freed;
    std::atomic<unsigned> m_waiting{0};  // changed with the lock held
};

}  // namespace zemstore
