// Asynchronous I/O by overlapped reads and writes: one thread that submits and runs completions,
// those of the real-time client first. The system calls back on that thread while it waits (so no
// file has to belong to a completion port); others wake it through an event. Flushes and holes,
// which Windows has no asynchronous form of, go to the system's thread pool. What is done only in
// part is finished by an ordinary call.
#include "mediaio/allocator/reservation.h"
#include "mediaio/store/asyncio.h"

#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace zemstore {
namespace {

constexpr unsigned kSlots = CIoQueue::kRealTimeLimit + CIoQueue::kRealTimeAheadLimit +
                            CIoQueue::kBackgroundLimit + CIoQueue::kSyncLimit;

class COverlappedIo final : public IAsyncIo {
public:
    COverlappedIo();
    ~COverlappedIo() override;
    void Submit(IoRequest& request) override;
    const char* Kind() const override { return "overlapped"; }
    void RealTimeSeen() override { m_core->queue.RealTimeSeen(CIoQueue::Clock::now()); }
    void BeginRealTimeRead() override;
    void EndRealTimeRead() override;

private:
    struct Core;
    struct Slot {                 // a request at the system
        OVERLAPPED overlapped{};  // first: the completion's record is the slot
        Core* core = nullptr;
        IoRequest* request = nullptr;
        char* scratch = nullptr;
        const char* data = nullptr;  // of the write that is out, or next
        size_t size_bytes = 0;
        size_t nextSpan = 0;
        size_t moved_bytes = 0;
        Slot* nextDone = nullptr;
        std::shared_ptr<Core> inPool;  // keeps the core for a thread of the pool
    };

    struct Core : std::enable_shared_from_this<Core> {
        Core();
        ~Core();
        void Run();
        void SubmitWaiting();
        void Start(Slot& slot);
        bool StartTransfer(Slot& slot);
        bool NextWrite(Slot& slot);
        void Finish(Slot& slot, bool whole);
        void Done(Slot& slot);
        void Wake();
        static void CALLBACK Transferred(DWORD error, DWORD moved_bytes, OVERLAPPED* overlapped);
        static void CALLBACK PerformInPool(PTP_CALLBACK_INSTANCE, void* slot);

        HANDLE event = nullptr;
        char* scratch = nullptr;
        Slot slots[kSlots];

        std::atomic<bool> signalled{false};
        std::mutex lock;  // guards what follows
        CIoQueue queue;
        Slot* firstDone = nullptr;
        bool stop = false;
    };

    std::shared_ptr<Core> m_core;
    std::thread m_thread;
};

COverlappedIo::Core::Core() {
    event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (event == nullptr) throw std::bad_alloc();
    scratch = static_cast<char*>(ReservePages(kSlots * kScratchSize));
    if (scratch == nullptr) {
        CloseHandle(event);
        throw std::bad_alloc();
    }
    for (unsigned i = 0; i < kSlots; ++i) {
        slots[i].core = this;
        slots[i].scratch = scratch + i * kScratchSize;
    }
}

COverlappedIo::Core::~Core() {
    CloseHandle(event);
    ReleaseReservation(scratch, kSlots * kScratchSize);
}

COverlappedIo::COverlappedIo() : m_core(std::make_shared<Core>()) {
    m_thread = std::thread([core = m_core] { core->Run(); });
}

COverlappedIo::~COverlappedIo() {
    {
        const std::lock_guard hold(m_core->lock);
        m_core->stop = true;
    }
    m_core->Wake();
    if (m_thread.get_id() == std::this_thread::get_id())
        m_thread.detach();
    else
        m_thread.join();
}

void COverlappedIo::Submit(IoRequest& request) {
    {
        const std::lock_guard hold(m_core->lock);
        m_core->queue.Push(request, std::chrono::steady_clock::now());
    }
    m_core->Wake();
}

void COverlappedIo::BeginRealTimeRead() {
    const std::lock_guard hold(m_core->lock);
    m_core->queue.BeginRealTimeRead(CIoQueue::Clock::now());
}

void COverlappedIo::EndRealTimeRead() {
    const std::lock_guard hold(m_core->lock);
    m_core->queue.EndRealTimeRead();
    if (m_core->queue.BackgroundIsHeld()) m_core->Wake();
}

void COverlappedIo::Core::Wake() {
    if (!signalled.exchange(true)) SetEvent(event);
}

size_t TotalOf(const IoRequest& request) {
    size_t total = 0;
    for (size_t i = 0; i < request.spanCount; ++i)
        total += request.spans[i].size_bytes;
    return total;
}

// Begins a read, or the write of the slot's data. False: the system did not take it.
bool COverlappedIo::Core::StartTransfer(Slot& slot) {
    const IoRequest& request = *slot.request;
    const auto file = reinterpret_cast<HANDLE>(request.file->Descriptor());
    const uint64_t at = request.offset_bytes + slot.moved_bytes;
    slot.overlapped = {};
    slot.overlapped.Offset = static_cast<DWORD>(at);
    slot.overlapped.OffsetHigh = static_cast<DWORD>(at >> 32);
    if (Reads(request.op)) {
        return ReadFileEx(file, request.data, static_cast<DWORD>(request.size_bytes),
                          &slot.overlapped, Transferred) != 0;
    }
    return WriteFileEx(file, slot.data, static_cast<DWORD>(slot.size_bytes), &slot.overlapped,
                       Transferred) != 0;
}

// Takes the next span that has bytes. False: there is none.
bool COverlappedIo::Core::NextWrite(Slot& slot) {
    const IoRequest& request = *slot.request;
    for (; slot.nextSpan < request.spanCount; ++slot.nextSpan) {
        const IoSpan& span = request.spans[slot.nextSpan];
        if (span.size_bytes == 0) continue;
        slot.data = static_cast<const char*>(span.data);
        slot.size_bytes = span.size_bytes;
        ++slot.nextSpan;
        return true;
    }
    return false;
}

// Turns the slot's request into a submission; what has no handle is done at once.
void COverlappedIo::Core::Start(Slot& slot) {
    IoRequest& request = *slot.request;
    slot.moved_bytes = 0;
    slot.nextSpan = 0;
    if (Reads(request.op) && request.data == nullptr) request.data = slot.scratch;
    bool started = false;
    if (request.file->Descriptor() != -1) {
        switch (request.op) {
            case IoOp::kRead:
            case IoOp::kFetch:
                started = StartTransfer(slot);
                break;
            case IoOp::kWrite: {
                const size_t total = TotalOf(request);
                if (request.spanCount > 1 && total <= kScratchSize) {
                    // One write is cheaper than one for each span.
                    char* to = slot.scratch;
                    for (size_t i = 0; i < request.spanCount; ++i) {
                        if (request.spans[i].size_bytes == 0) continue;
                        memcpy(to, request.spans[i].data, request.spans[i].size_bytes);
                        to += request.spans[i].size_bytes;
                    }
                    slot.data = slot.scratch;
                    slot.size_bytes = total;
                    slot.nextSpan = request.spanCount;
                    started = StartTransfer(slot);
                } else {
                    started = NextWrite(slot) && StartTransfer(slot);
                }
                break;
            }
            case IoOp::kSync:
            case IoOp::kPunch:
                slot.inPool = shared_from_this();
                started = TrySubmitThreadpoolCallback(PerformInPool, &slot, nullptr) != 0;
                if (!started) slot.inPool = nullptr;
                break;
        }
    }
    if (!started) Finish(slot, false);
}

// The request is done, wholly by the system or now: the ordinary call says what is the matter, from
// the first byte on so that it alone accounts for what was done.
void COverlappedIo::Core::Finish(Slot& slot, bool whole) {
    IoRequest& request = *slot.request;
    if (whole) {
        request.result = S_OK;
        request.done_bytes = slot.moved_bytes;
    } else {
        PerformIo(request);
    }
    Done(slot);
}

void COverlappedIo::Core::Done(Slot& slot) {
    {
        const std::lock_guard hold(lock);
        slot.nextDone = firstDone;
        firstDone = &slot;
    }
    Wake();
}

// On the I/O thread, while it waits.
void CALLBACK COverlappedIo::Core::Transferred(DWORD error, DWORD moved_bytes,
                                               OVERLAPPED* overlapped) {
    Slot& slot = *reinterpret_cast<Slot*>(overlapped);
    Core& core = *slot.core;
    slot.moved_bytes += moved_bytes;
    if (Reads(slot.request->op))
        core.Finish(slot, error == ERROR_SUCCESS && moved_bytes == slot.request->size_bytes);
    else if (error != ERROR_SUCCESS || moved_bytes != slot.size_bytes)
        core.Finish(slot, false);
    else if (!core.NextWrite(slot))
        core.Finish(slot, true);
    else if (!core.StartTransfer(slot))
        core.Finish(slot, false);
}

void CALLBACK COverlappedIo::Core::PerformInPool(PTP_CALLBACK_INSTANCE, void* argument) {
    Slot& slot = *static_cast<Slot*>(argument);
    const std::shared_ptr<Core> core = std::move(slot.inPool);
    core->Finish(slot, false);
}

void COverlappedIo::Core::SubmitWaiting() {
    const auto now = std::chrono::steady_clock::now();
    for (Slot& slot : slots) {
        if (slot.request != nullptr) continue;
        {
            const std::lock_guard hold(lock);
            slot.request = queue.Pick(now);
        }
        if (slot.request == nullptr) return;
        Start(slot);
    }
}

void COverlappedIo::Core::Run() {
    EnterIoThread(kStoreThreadNames.of[0]);
    std::vector<IoRequest*> done;
    done.reserve(kSlots);
    for (;;) {
        SubmitWaiting();
        {
            const std::lock_guard hold(lock);
            if (stop && queue.Empty() && queue.InFlight() == 0) return;
        }
        WaitForSingleObjectEx(event, INFINITE, TRUE);
        signalled.store(false);
        done.clear();
        {
            const std::lock_guard hold(lock);
            for (; firstDone != nullptr; firstDone = firstDone->nextDone) {
                IoRequest* const request = firstDone->request;
                queue.Finished(*request);
                firstDone->request = nullptr;
                done.insert(request->realTime ? done.begin() : done.end(), request);
            }
        }
        for (IoRequest* request : done)
            request->completed(*request);
    }
}

}  // namespace

std::shared_ptr<IAsyncIo> CreateRingIo() {
    try {
        return std::make_shared<COverlappedIo>();
    } catch (const std::exception&) {
        return nullptr;
    }
}

}  // namespace zemstore
