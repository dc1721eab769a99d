// The request queue with its two priorities, and the form of asynchronous I/O that needs nothing
// but threads.
#include "mediaio/store/asyncio.h"

#include "mediaio/allocator/reservation.h"

#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace zemstore {

void PerformIo(IoRequest& request) {
    IStoreFile& file = *request.file;
    request.done_bytes = 0;
    switch (request.op) {
        case IoOp::kRead:
            request.result = file.ReadAt(request.data, request.size_bytes, request.offset_bytes,
                                         request.done_bytes);
            break;
        case IoOp::kWrite:
            request.result = file.WriteAt(request.spans, request.spanCount, request.offset_bytes,
                                          request.done_bytes);
            break;
        case IoOp::kSync:
            request.result = file.Sync();
            break;
        case IoOp::kPunch:
            request.result = file.PunchHole(request.offset_bytes, request.size_bytes);
            break;
    }
}

void CIoQueue::Lane::Append(IoRequest& request) {
    request.next = nullptr;
    *last = &request;
    last = &request.next;
}

IoRequest* CIoQueue::Lane::Take() {
    IoRequest* request = first;
    first = request->next;
    if (first == nullptr) last = &first;
    ++active;
    return request;
}

CIoQueue::Lane& CIoQueue::LaneOf(const IoRequest& request) {
    if (request.op == IoOp::kSync) return m_sync;
    return request.realTime ? m_realTime : m_background;
}

void CIoQueue::Push(IoRequest& request, std::chrono::steady_clock::time_point now) {
    if (request.realTime) m_lastRealTime = now;
    LaneOf(request).Append(request);
}

IoRequest* CIoQueue::Pick(std::chrono::steady_clock::time_point now) {
    if (m_realTime.first != nullptr && m_realTime.active < kRealTimeLimit) return m_realTime.Take();
    if (m_sync.first != nullptr && m_sync.active < kSyncLimit) return m_sync.Take();
    const bool realTimeActive = m_realTime.active != 0 || now - m_lastRealTime < kRealTimeMemory;
    const unsigned limit = realTimeActive ? 1 : kBackgroundLimit;
    if (m_background.first != nullptr && m_background.active < limit) return m_background.Take();
    return nullptr;
}

void CIoQueue::Finished(const IoRequest& request) {
    --LaneOf(request).active;
}

namespace {

class CThreadIo final : public IAsyncIo {
public:
    CThreadIo();
    ~CThreadIo() override;
    void Submit(IoRequest& request) override;
    const char* Kind() const override { return "threads"; }

private:
    // The limits leave at least one thread for the real-time client.
    static constexpr unsigned kThreads = CIoQueue::kBackgroundLimit + 2;

    struct Core {
        ~Core() {
            if (scratch != nullptr) ReleaseReservation(scratch, kThreads * kScratchSize);
        }
        std::mutex lock;
        std::condition_variable work;
        CIoQueue queue;
        bool stop = false;
        char* scratch = nullptr;
    };
    static void Run(std::shared_ptr<Core> core, unsigned index);

    std::shared_ptr<Core> m_core;
    std::vector<std::thread> m_threads;
};

CThreadIo::CThreadIo() : m_core(std::make_shared<Core>()) {
    m_core->scratch = static_cast<char*>(ReservePages(kThreads * kScratchSize));
    if (m_core->scratch == nullptr) throw std::bad_alloc();
    m_threads.reserve(kThreads);
    try {
        for (unsigned i = 0; i < kThreads; ++i)
            m_threads.emplace_back(Run, m_core, i);
    } catch (const std::system_error&) {
        if (m_threads.empty()) throw;
    }
}

CThreadIo::~CThreadIo() {
    {
        std::lock_guard hold(m_core->lock);
        m_core->stop = true;
    }
    m_core->work.notify_all();
    for (std::thread& thread : m_threads) {
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }
}

void CThreadIo::Submit(IoRequest& request) {
    {
        std::lock_guard hold(m_core->lock);
        m_core->queue.Push(request, std::chrono::steady_clock::now());
    }
    m_core->work.notify_one();
}

void CThreadIo::Run(std::shared_ptr<Core> core, unsigned index) {
    EnterIoThread();
    void* const scratch = core->scratch + index * kScratchSize;
    std::unique_lock hold(core->lock);
    for (;;) {
        IoRequest* request = core->queue.Pick(std::chrono::steady_clock::now());
        if (request == nullptr) {
            if (core->stop && core->queue.Empty()) return;
            core->work.wait(hold);
            continue;
        }
        hold.unlock();
        const IoRequest accounting = *request;  // `completed` may free it
        if (request->op == IoOp::kRead && request->data == nullptr) request->data = scratch;
        PerformIo(*request);
        hold.lock();
        core->queue.Finished(accounting);
        hold.unlock();
        request->completed(*request);
        hold.lock();
        // What waited for this request's place may be anyone's.
        core->work.notify_one();
    }
}

}  // namespace

namespace {
thread_local bool t_ioThread = false;
}

void EnterIoThread() {
    t_ioThread = true;
}
bool IAsyncIo::OnOwnThread() {
    return t_ioThread;
}

std::shared_ptr<IAsyncIo> CreateThreadIo() {
    try {
        return std::make_shared<CThreadIo>();
    } catch (const std::exception&) {
        return nullptr;
    }
}

std::shared_ptr<IAsyncIo> IAsyncIo::Create() {
    if (!EnvironmentFlag("ZEM_NO_IO_URING")) {
        if (std::shared_ptr<IAsyncIo> ring = CreateRingIo()) return ring;
    }
    return CreateThreadIo();
}

std::shared_ptr<IAsyncIo> IAsyncIo::Shared() {
    static std::mutex lock;
    static std::weak_ptr<IAsyncIo> current;
    std::lock_guard hold(lock);
    std::shared_ptr<IAsyncIo> io = current.lock();
    if (io == nullptr) {
        io = Create();
        current = io;
    }
    return io;
}

}  // namespace zemstore
