// asyncio.h: the store's asynchronous file I/O, one for the process while any channel or writer is
// alive. Requests wait in two queues; what the real-time client asked for goes first, and while it
// is active at most one background request is at the device, so it waits for one request at most.
// The work is done by the kernel's ring where it lets us have one (ring_posix.cpp), or by
// overlapped calls (ring_windows.cpp), else by threads that call the file-I/O seam. Completions run
// on the library's threads.
#pragma once

#include "mediaio/store/fileio.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>

#pragma GCC visibility push(default)

namespace zemstore {

enum class IoOp : uint8_t { kRead, kWrite, kSync, kPunch };

// Owned by the caller, who keeps it (and what it points to) in place until `completed` is called
// and may reuse or free it from there on.
struct IoRequest {
    IoOp op = IoOp::kRead;
    bool realTime = false;
    IStoreFile* file = nullptr;
    uint64_t offset_bytes = 0;
    size_t size_bytes = 0;          // read: at most kScratchSize unless `data` is given; punch
    void* data = nullptr;           // read: null borrows scratch memory, valid inside `completed`
    const IoSpan* spans = nullptr;  // write
    size_t spanCount = 0;
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

// Where requests wait; picks the next one that may go to the device. Not thread-safe.
class CIoQueue {
public:
    static constexpr unsigned kRealTimeLimit = 4;
    static constexpr unsigned kBackgroundLimit = 6;
    static constexpr unsigned kSyncLimit = 8;
    static constexpr std::chrono::milliseconds kRealTimeMemory{1000};

    void Push(IoRequest& request, std::chrono::steady_clock::time_point now);
    IoRequest* Pick(std::chrono::steady_clock::time_point now);
    void Finished(const IoRequest& request);
    bool Empty() const { return !m_realTime.first && !m_background.first && !m_sync.first; }
    unsigned InFlight() const { return m_realTime.active + m_background.active + m_sync.active; }

private:
    struct Lane {
        IoRequest* first = nullptr;
        IoRequest** last = &first;
        unsigned active = 0;
        void Append(IoRequest& request);
        IoRequest* Take();
    };
    Lane& LaneOf(const IoRequest& request);

    Lane m_realTime;
    Lane m_background;
    Lane m_sync;  // waits for the device to settle: neither holds up data nor counts as such
    std::chrono::steady_clock::time_point m_lastRealTime{};
};

class IAsyncIo {
public:
    // Joins the threads after the last request has completed; from one of them, lets it end itself.
    virtual ~IAsyncIo() = default;
    virtual void Submit(IoRequest& request) = 0;
    virtual const char* Kind() const = 0;  // "io_uring", "overlapped" or "threads"

    // The process's one, made when there is none. Null only when no thread can be started.
    static std::shared_ptr<IAsyncIo> Shared();
    // True on a thread that runs completions: it must not wait for others.
    static bool OnOwnThread();
    // ZEM_NO_IO_URING in the environment, or a refusal by the kernel, gives the threads.
    static std::shared_ptr<IAsyncIo> Create();
};

// Marks the calling thread for OnOwnThread.
void EnterIoThread();

// Null when the kernel refuses a ring.
std::shared_ptr<IAsyncIo> CreateRingIo();
std::shared_ptr<IAsyncIo> CreateThreadIo();

}  // namespace zemstore

#pragma GCC visibility pop
