// Memory for a frame that comes in, and the short wait for it.
#include "mediaio/store/frameroom.h"

namespace zemstore {

CFrameRoom& CFrameRoom::Shared() {
    static CFrameRoom room;
    return room;
}

void* CFrameRoom::Allocate(IZemMemAllocator& allocator, size_t size_bytes) {
    void* const run = allocator.Allocate(size_bytes);
    return run != nullptr ? run : WaitFor(allocator, size_bytes);
}

// Who waits is counted before it looks once more, and who frees looks at the count afterwards: one
// of the two sees the other.
void* CFrameRoom::WaitFor(IZemMemAllocator& allocator, size_t size_bytes) {
    std::unique_lock hold(m_lock);
    if (m_waiting == kMostWaiting) return nullptr;
    ++m_waiting;
    const auto until = std::chrono::steady_clock::now() + m_longestWait;
    void* run = allocator.Allocate(size_bytes);
    while (run == nullptr) {
        const bool late = m_freed.wait_until(hold, until) == std::cv_status::timeout;
        run = allocator.Allocate(size_bytes);
        if (late) break;
    }
    --m_waiting;
    return run;
}

void CFrameRoom::Free(IZemMemAllocator& allocator, void* run) {
    allocator.Free(run);
    if (m_waiting == 0) return;
    const std::lock_guard hold(m_lock);
    m_freed.notify_all();
}

}  // namespace zemstore
