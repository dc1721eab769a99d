// The request queue with its two sides, and the form of asynchronous I/O that needs nothing
// but threads.
#include "mediaio/store/asyncio.h"

#include "mediaio/allocator/reservation.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace zemstore {

namespace {

void PerformWrite(IoRequest& request) {
    const size_t most = request.spansPerCall != 0 ? request.spansPerCall : request.spanCount;
    request.result = S_OK;
    for (size_t i = 0; i < request.spanCount && SUCCEEDED(request.result); i += most) {
        size_t done = 0;
        request.result =
            request.file->WriteAt(request.spans + i, std::min(most, request.spanCount - i),
                                  request.offset_bytes + request.done_bytes, done);
        request.done_bytes += done;
    }
}

}  // namespace

void PerformIo(IoRequest& request) {
    IStoreFile& file = *request.file;
    request.done_bytes = 0;
    switch (request.op) {
        case IoOp::kRead:
        case IoOp::kFetch:
            request.result = file.ReadAt(request.data, request.size_bytes, request.offset_bytes,
                                         request.done_bytes);
            break;
        case IoOp::kWrite:
            PerformWrite(request);
            break;
        case IoOp::kSync:
            request.result = file.Sync();
            break;
        case IoOp::kPunch:
            request.result = file.LetGo(request.offset_bytes, request.size_bytes)
                                 ? file.PunchHole(request.offset_bytes, request.size_bytes)
                                 : S_FALSE;
            break;
    }
}

bool OfRealTimeSide(const IoRequest& request) {
    return request.realTime && request.op != IoOp::kSync;
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
    if (request.ahead) return request.realTime ? m_realTimeAhead : m_backgroundAhead;
    return request.realTime ? m_realTime : m_background;
}

void CIoQueue::Push(IoRequest& request, Clock::time_point now) {
    if (OfRealTimeSide(request)) RealTimeSeen(now);
    LaneOf(request).Append(request);
}

bool CIoQueue::RealTimeActive(Clock::time_point now) const {
    if (m_realTime.active != 0 || m_reads != 0) return true;
    const Clock::duration last{m_lastRealTime.load(std::memory_order_relaxed)};
    return now.time_since_epoch() - last < kRealTimeMemory;
}

IoRequest* CIoQueue::Pick(bool realTime, Clock::time_point now) {
    if (realTime) {
        if (m_realTime.first != nullptr && m_realTime.active < kRealTimeLimit)
            return m_realTime.Take();
        // What is wanted now is never behind what may be wanted soon.
        const bool quiet = m_realTime.active == 0 && m_realTimeAhead.active < kRealTimeAheadLimit;
        return m_realTimeAhead.first != nullptr && quiet ? m_realTimeAhead.Take() : nullptr;
    }
    if (m_sync.first != nullptr && m_sync.active < kSyncLimit) return m_sync.Take();
    Lane& lane = m_background.first != nullptr ? m_background : m_backgroundAhead;
    if (lane.first == nullptr || !BackgroundMayStart(now)) return nullptr;
    m_oneMay = false;
    return lane.Take();
}

bool CIoQueue::BackgroundMayStart(Clock::time_point now) const {
    if (!RealTimeActive(now)) return BackgroundActive() < kBackgroundLimit;
    return BackgroundActive() == 0 && (m_reads == 0 || m_oneMay);
}

// The others must not starve behind a client that reads without a pause.
void CIoQueue::BeginRealTimeRead(Clock::time_point now) {
    RealTimeSeen(now);
    ++m_reads;
    if (BackgroundActive() == 0) m_oneMay = true;
}

IoRequest* CIoQueue::Pick(Clock::time_point now) {
    IoRequest* const request = Pick(true, now);
    return request != nullptr ? request : Pick(false, now);
}

void CIoQueue::Finished(const IoRequest& request) {
    --LaneOf(request).active;
}

bool CIoQueue::Empty(bool realTime) const {
    if (realTime) return m_realTime.first == nullptr && m_realTimeAhead.first == nullptr;
    return m_background.first == nullptr && m_backgroundAhead.first == nullptr &&
           m_sync.first == nullptr;
}

unsigned CIoQueue::InFlight(bool realTime) const {
    if (realTime) return m_realTime.active + m_realTimeAhead.active;
    return m_background.active + m_backgroundAhead.active + m_sync.active;
}

namespace {

class CThreadIo final : public IAsyncIo {
public:
    explicit CThreadIo(const IoThreadNames& names);
    ~CThreadIo() override;
    void Submit(IoRequest& request) override;
    const char* Kind() const override { return "threads"; }
    void RealTimeSeen() override { m_core->queue.RealTimeSeen(CIoQueue::Clock::now()); }
    void BeginRealTimeRead() override;
    void EndRealTimeRead() override;

private:
    static constexpr unsigned kRealTimeThreads = CIoQueue::kRealTimeLimit;
    static constexpr unsigned kThreads = kRealTimeThreads + CIoQueue::kBackgroundLimit;

    struct Core {
        explicit Core(const IoThreadNames& threadNames) : names(threadNames) {}
        ~Core() {
            if (scratch != nullptr) ReleaseReservation(scratch, kThreads * kScratchSize);
        }
        std::condition_variable& WorkOf(bool realTime) { return realTime ? urgent : work; }
        const IoThreadNames names;
        std::mutex lock;
        std::condition_variable urgent;  // of the real-time side
        std::condition_variable work;
        CIoQueue queue;
        bool stop = false;
        char* scratch = nullptr;
    };
    static void Run(std::shared_ptr<Core> core, unsigned index);
    void Stop();

    std::shared_ptr<Core> m_core;
    std::vector<std::thread> m_threads;
};

CThreadIo::CThreadIo(const IoThreadNames& names) : m_core(std::make_shared<Core>(names)) {
    m_core->scratch = static_cast<char*>(ReservePages(kThreads * kScratchSize));
    if (m_core->scratch == nullptr) throw std::bad_alloc();
    m_threads.reserve(kThreads);
    try {
        for (unsigned i = 0; i < kThreads; ++i)
            m_threads.emplace_back(Run, m_core, i);
    } catch (const std::system_error&) {
        if (m_threads.size() >= 2) return;  // one of each side
        Stop();
        throw;
    }
}

CThreadIo::~CThreadIo() {
    Stop();
}

void CThreadIo::Stop() {
    {
        std::lock_guard hold(m_core->lock);
        m_core->stop = true;
    }
    m_core->urgent.notify_all();
    m_core->work.notify_all();
    for (std::thread& thread : m_threads) {
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
}

void CThreadIo::Submit(IoRequest& request) {
    const bool realTime = OfRealTimeSide(request);
    {
        std::lock_guard hold(m_core->lock);
        m_core->queue.Push(request, CIoQueue::Clock::now());
    }
    m_core->WorkOf(realTime).notify_one();
}

void CThreadIo::BeginRealTimeRead() {
    const std::lock_guard hold(m_core->lock);
    m_core->queue.BeginRealTimeRead(CIoQueue::Clock::now());
    if (m_core->queue.BackgroundIsHeld()) m_core->work.notify_one();
}

void CThreadIo::EndRealTimeRead() {
    const std::lock_guard hold(m_core->lock);
    m_core->queue.EndRealTimeRead();
    if (m_core->queue.BackgroundIsHeld()) m_core->work.notify_one();
}

void CThreadIo::Run(std::shared_ptr<Core> core, unsigned index) {
    const bool realTime = index < 2 * kRealTimeThreads && index % 2 == 0;
    EnterIoThread(core->names.of[realTime]);
    void* const scratch = core->scratch + index * kScratchSize;
    std::unique_lock hold(core->lock);
    for (;;) {
        IoRequest* request = core->queue.Pick(realTime, CIoQueue::Clock::now());
        if (request == nullptr) {
            if (core->stop && core->queue.Empty(realTime)) return;
            core->WorkOf(realTime).wait(hold);
            continue;
        }
        hold.unlock();
        const IoRequest accounting = *request;  // `completed` may free it
        if (Reads(request->op) && request->data == nullptr) request->data = scratch;
        PerformIo(*request);
        hold.lock();
        core->queue.Finished(accounting);
        // What waited for this request's place may be anyone's.
        core->WorkOf(realTime).notify_one();
        hold.unlock();
        request->completed(*request);
        hold.lock();
    }
}

}  // namespace

namespace {
thread_local bool t_ioThread = false;
}

void EnterIoThread(const WCHAR* name) {
    NameThisThread(name);
    t_ioThread = true;
}
bool IAsyncIo::OnOwnThread() {
    return t_ioThread;
}

std::shared_ptr<IAsyncIo> CreateThreadIo() {
    return CreateThreadIoNamed(kStoreThreadNames);
}

std::shared_ptr<IAsyncIo> CreateThreadIoNamed(const IoThreadNames& names) {
    try {
        return std::make_shared<CThreadIo>(names);
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
