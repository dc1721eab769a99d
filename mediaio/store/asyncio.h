// The store's asynchronous file I/O, one for the process while any channel or writer is
// alive. What the real-time client asked for has a queue and threads of its own, so nothing of the
// others' is ever before it but at the device; and there, while it is active, is at most one
// request of theirs. The work is done by the kernel's rings where it lets us have them
// (ring_posix.cpp), or by overlapped calls (ring_windows.cpp), else by threads that call the
// file-I/O seam. Completions run on the library's threads.
#pragma once

#include "mediaio/store/fileio.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>

#pragma GCC visibility push(default)

namespace zemstore {

// kFetch: a read of which nobody wants the bytes but in the page cache. kPunch: the range is let go
// of and becomes a hole; S_FALSE: not now, somebody may still hold what would be cleared.
enum class IoOp : uint8_t { kRead, kFetch, kWrite, kSync, kPunch };

inline bool Reads(IoOp op) {
    return op == IoOp::kRead || op == IoOp::kFetch;
}

// Owned by the caller, who keeps it (and what it points to) in place until `completed` is called
// and may reuse or free it from there on.
struct IoRequest {
    IoOp op = IoOp::kRead;
    bool realTime = false;
    bool ahead = false;  // nobody waits for it: it goes behind what its side else has to do
    IStoreFile* file = nullptr;
    uint64_t offset_bytes = 0;
    size_t size_bytes = 0;          // read: at most kScratchSize unless `data` is given; punch
    void* data = nullptr;           // read: null borrows scratch memory, valid inside `completed`
    const IoSpan* spans = nullptr;  // write
    size_t spanCount = 0;
    size_t spansPerCall = 0;  // so many go to the system in one call, 0: all
    void (*completed)(IoRequest& request) = nullptr;
    void* context = nullptr;

    HRESULT result = S_OK;
    size_t done_bytes = 0;

    IoRequest* next = nullptr;  // from here on the engine's
    bool borrowed = false;
};

inline constexpr size_t kScratchSize = size_t{1} << 20;

// Does the request on the calling thread, without calling `completed`.
void PerformIo(IoRequest& request);

// Whether it goes ahead of the others' requests; a sync never does.
bool OfRealTimeSide(const IoRequest& request);

// Where requests wait; picks the next one that may go to the device. Not thread-safe, but for
// RealTimeSeen.
class CIoQueue {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr unsigned kRealTimeLimit = 4;
    static constexpr unsigned kRealTimeAheadLimit = 2;
    static constexpr unsigned kBackgroundLimit = 6;
    static constexpr unsigned kSyncLimit = 8;
    // The real-time client counts as active for so long after its last frame I/O.
    static constexpr std::chrono::milliseconds kRealTimeMemory{10000};

    void Push(IoRequest& request, Clock::time_point now);
    // Of one side, or, where one thread does everything, the real-time side's first.
    IoRequest* Pick(bool realTime, Clock::time_point now);
    IoRequest* Pick(Clock::time_point now);
    void Finished(const IoRequest& request);
    bool Empty(bool realTime) const;
    bool Empty() const { return Empty(true) && Empty(false); }
    unsigned InFlight(bool realTime) const;
    unsigned InFlight() const { return InFlight(true) + InFlight(false); }

    // The real-time client did some I/O, which may not have come here. Any thread.
    void RealTimeSeen(Clock::time_point now) {
        m_lastRealTime.store(now.time_since_epoch().count(), std::memory_order_relaxed);
    }
    bool RealTimeActive(Clock::time_point now) const;
    // A read of the real-time client is a row of requests. From the first to the last of them no
    // request of the others starts; but if none was at the device when it began, one may.
    void BeginRealTimeRead(Clock::time_point now);
    void EndRealTimeRead() { --m_reads; }
    // Whether the others' side may have to be told that it can go on.
    bool BackgroundIsHeld() const {
        return BackgroundActive() == 0 &&
               (m_background.first != nullptr || m_backgroundAhead.first != nullptr);
    }

private:
    unsigned BackgroundActive() const { return m_background.active + m_backgroundAhead.active; }
    bool BackgroundMayStart(Clock::time_point now) const;
    struct Lane {
        IoRequest* first = nullptr;
        IoRequest** last = &first;
        unsigned active = 0;
        void Append(IoRequest& request);
        IoRequest* Take();
    };
    Lane& LaneOf(const IoRequest& request);

    Lane m_realTime;
    Lane m_realTimeAhead;
    Lane m_background;
    Lane m_backgroundAhead;
    unsigned m_reads = 0;   // of the real-time client, under way
    bool m_oneMay = false;  // start although a read is under way
    Lane m_sync;  // waits for the device to settle: neither holds up data nor counts as such
    // Before the first sight of it the real-time client has been silent for ages.
    std::atomic<Clock::rep> m_lastRealTime{Clock::duration{-kRealTimeMemory}.count()};
};

class IAsyncIo {
public:
    // Joins the threads after the last request has completed; from one of them, lets it end itself.
    virtual ~IAsyncIo() = default;
    virtual void Submit(IoRequest& request) = 0;
    virtual const char* Kind() const = 0;  // "io_uring", "overlapped" or "threads"
    // The real-time client read or wrote a frame, from the page cache as it may be: as long as it
    // is active the others' requests go to the device one at a time.
    virtual void RealTimeSeen() = 0;
    // Before the first and after the last request of a read by the real-time client.
    virtual void BeginRealTimeRead() = 0;
    virtual void EndRealTimeRead() = 0;

    // The process's one, made when there is none. Null only when no thread can be started.
    static std::shared_ptr<IAsyncIo> Shared();
    // True on a thread that runs completions: it must not wait for others.
    static bool OnOwnThread();
    // ZEM_NO_IO_URING in the environment, or a refusal by the kernel, gives the threads.
    static std::shared_ptr<IAsyncIo> Create();
};

// Marks the calling thread for OnOwnThread, and names it.
void EnterIoThread(const WCHAR* name);
// By their side: the others', the real-time client's.
struct IoThreadNames {
    const WCHAR* of[2];
};
inline constexpr IoThreadNames kStoreThreadNames = {{TEXT("zem-store"), TEXT("zem-store-rt")}};

// Null when the kernel refuses a ring.
std::shared_ptr<IAsyncIo> CreateRingIo();
std::shared_ptr<IAsyncIo> CreateThreadIo();
std::shared_ptr<IAsyncIo> CreateThreadIoNamed(const IoThreadNames& names);

}  // namespace zemstore

#pragma GCC visibility pop
