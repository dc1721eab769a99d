// Asynchronous I/O by io_uring: a ring and a thread for each side of the queue, which submits,
// reaps and runs completions. Others wake it through an event counter that the ring itself reads.
// What the ring cannot do, or does only in part, is finished by an ordinary call.
#include "mediaio/allocator/reservation.h"
#include "mediaio/errorlog.h"
#include "mediaio/store/asyncio.h"
#include "mediaio/store/log.h"

#include <fcntl.h>
#include <liburing.h>
#include <linux/falloc.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace zemstore {
namespace {

// As many as may be at the device, and as many again that are being completed.
constexpr unsigned kRealTimeSlots = 2 * (CIoQueue::kRealTimeLimit + CIoQueue::kRealTimeAheadLimit);
constexpr unsigned kBackgroundSlots = 2 * CIoQueue::kBackgroundLimit + CIoQueue::kSyncLimit;
constexpr size_t kSpansPerWrite = 64;

// Where requests wait for the rings.
struct Waiting {
    std::mutex lock;  // guards what follows
    CIoQueue queue;
    bool stop = false;
};

class CRingIo final : public IAsyncIo {
public:
    CRingIo();
    ~CRingIo() override;
    void Submit(IoRequest& request) override;
    const char* Kind() const override { return "io_uring"; }
    void RealTimeSeen() override { m_waiting->queue.RealTimeSeen(CIoQueue::Clock::now()); }
    void BeginRealTimeRead() override;
    void EndRealTimeRead() override;

private:
    struct Slot {  // a request at the kernel, or being completed
        IoRequest* request = nullptr;
        char* scratch = nullptr;
        iovec vector[kSpansPerWrite];
        unsigned calls = 0;  // that are at the kernel
        size_t moved_bytes = 0;
        bool failed = false;
    };

    struct Side {
        Side(std::shared_ptr<Waiting> shared, bool isRealTime);
        ~Side();
        void Run();
        void Wake();
        void ArmWake();
        bool SubmitWaiting();
        io_uring_sqe* NextSubmission();
        void Start(Slot& slot);
        void StartWrite(Slot& slot, int fd);
        bool CallDone(Slot& slot, int result);
        void Finish(Slot& slot);
        void Reap();

        const std::shared_ptr<Waiting> waiting;
        const bool realTime;
        io_uring ring{};
        std::vector<Slot> slots;
        std::vector<Slot*> done;  // the thread's; has room for all, so that it needs no memory
        int event = -1;
        uint64_t eventCount = 0;
        char* scratch = nullptr;
        std::atomic<bool> signalled{false};
    };
    void Stop();

    const std::shared_ptr<Waiting> m_waiting = std::make_shared<Waiting>();
    std::shared_ptr<Side> m_sides[2];  // the background's, the real-time client's
    std::thread m_threads[2];
};

// The kernel may give a new ring the addresses of one that is gone. The lock puts the end of the
// one before the start of the other, for tools that cannot see liburing's own mappings come and go.
std::mutex& RingLock() {
    static auto* lock = new std::mutex;
    return *lock;
}

// Of the reasons for EPERM, besides the filter of a container, the one that a user can look up.
bool IsDisabledBySetting() {
    int value = 0;
    std::ifstream("/proc/sys/kernel/io_uring_disabled") >> value;
    return value != 0;
}

// Once in a process: it stays so.
void SayThatThereIsNoRing(int error) {
    static std::atomic_flag said;
    if (said.test_and_set()) return;
    const bool disabled = error == EPERM && IsDisabledBySetting();
    LogStore(kErrorLogLevelWarning, 0, TEXT("ring_posix.cpp"),
             std::string("io_uring cannot be used (") + std::strerror(error) +
                 "): threads read and write instead" +
                 (disabled ? "; sysctl kernel.io_uring_disabled=0 allows it" : ""));
}

CRingIo::Side::Side(std::shared_ptr<Waiting> shared, bool isRealTime)
    : waiting(std::move(shared)),
      realTime(isRealTime),
      slots(isRealTime ? kRealTimeSlots : kBackgroundSlots),
      done(slots.size()),
      event(eventfd(0, EFD_CLOEXEC)) {
    if (event < 0) throw std::bad_alloc();
    {
        const std::lock_guard hold(RingLock());
        if (const int result = io_uring_queue_init(64, &ring, 0); result < 0) {
            close(event);
            SayThatThereIsNoRing(-result);
            throw std::bad_alloc();
        }
    }
    scratch = static_cast<char*>(ReservePages(slots.size() * kScratchSize));
    if (scratch == nullptr) {
        io_uring_queue_exit(&ring);
        close(event);
        throw std::bad_alloc();
    }
    for (size_t i = 0; i < slots.size(); ++i)
        slots[i].scratch = scratch + i * kScratchSize;
}

CRingIo::Side::~Side() {
    {
        const std::lock_guard hold(RingLock());
        io_uring_queue_exit(&ring);
    }
    close(event);
    ReleaseReservation(scratch, slots.size() * kScratchSize);
}

CRingIo::CRingIo() {
    for (const bool realTime : {false, true})
        m_sides[realTime] = std::make_shared<Side>(m_waiting, realTime);
    try {
        for (const bool realTime : {false, true})
            m_threads[realTime] = std::thread([side = m_sides[realTime]] { side->Run(); });
    } catch (...) {
        Stop();
        throw;
    }
}

CRingIo::~CRingIo() {
    Stop();
}

void CRingIo::Stop() {
    {
        const std::lock_guard hold(m_waiting->lock);
        m_waiting->stop = true;
    }
    for (const bool realTime : {false, true}) {
        std::thread& thread = m_threads[realTime];
        if (!thread.joinable()) continue;
        m_sides[realTime]->Wake();
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
    }
}

void CRingIo::Submit(IoRequest& request) {
    Side& side = *m_sides[OfRealTimeSide(request)];
    {
        const std::lock_guard hold(m_waiting->lock);
        m_waiting->queue.Push(request, CIoQueue::Clock::now());
    }
    side.Wake();
}

void CRingIo::BeginRealTimeRead() {
    const std::lock_guard hold(m_waiting->lock);
    m_waiting->queue.BeginRealTimeRead(CIoQueue::Clock::now());
    if (m_waiting->queue.BackgroundIsHeld()) m_sides[false]->Wake();
}

void CRingIo::EndRealTimeRead() {
    const std::lock_guard hold(m_waiting->lock);
    m_waiting->queue.EndRealTimeRead();
    if (m_waiting->queue.BackgroundIsHeld()) m_sides[false]->Wake();
}

void CRingIo::Side::Wake() {
    if (!signalled.exchange(true)) eventfd_write(event, 1);
}

void CRingIo::Side::ArmWake() {
    io_uring_sqe* sqe = NextSubmission();
    io_uring_prep_read(sqe, event, &eventCount, sizeof eventCount, 0);
    io_uring_sqe_set_data(sqe, nullptr);
}

// The kernel takes the pages on their way into the page cache, without a copy; they are there when
// the last byte, whose place is returned, can be read.
uint64_t LastByteOfFetch(int fd, const IoRequest& request) {
    posix_fadvise(fd, static_cast<off_t>(request.offset_bytes),
                  static_cast<off_t>(request.size_bytes), POSIX_FADV_WILLNEED);
    return request.offset_bytes + request.size_bytes - 1;
}

// A round may have more calls than the ring has places; the kernel takes what there is, at the
// latest when it has memory again.
io_uring_sqe* CRingIo::Side::NextSubmission() {
    for (;;) {
        if (io_uring_sqe* sqe = io_uring_get_sqe(&ring)) return sqe;
        if (io_uring_submit(&ring) < 0) std::this_thread::yield();
    }
}

// Turns the slot's request into submissions; what has no descriptor is done at once.
void CRingIo::Side::Start(Slot& slot) {
    IoRequest& request = *slot.request;
    const auto fd = static_cast<int>(request.file->Descriptor());
    if (Reads(request.op) && request.data == nullptr) request.data = slot.scratch;
    slot.calls = 0;
    slot.moved_bytes = 0;
    slot.failed = false;
    request.borrowed = fd < 0 || (request.op == IoOp::kWrite && request.spanCount == 0);
    if (!request.borrowed && request.op == IoOp::kWrite) return StartWrite(slot, fd);
    if (request.borrowed) {
        PerformIo(request);
    } else if (request.op == IoOp::kPunch &&
               !request.file->LetGo(request.offset_bytes, request.size_bytes)) {
        request.result = S_FALSE;
        request.borrowed = true;
    }
    slot.calls = 1;
    io_uring_sqe* sqe = NextSubmission();
    if (request.borrowed) {
        // A ring without work of its own still has to turn round for this one.
        io_uring_prep_nop(sqe);
    } else if (request.op == IoOp::kRead) {
        io_uring_prep_read(sqe, fd, request.data, static_cast<unsigned>(request.size_bytes),
                           request.offset_bytes);
    } else if (request.op == IoOp::kFetch) {
        io_uring_prep_read(sqe, fd, request.data, 1, LastByteOfFetch(fd, request));
    } else if (request.op == IoOp::kSync) {
        io_uring_prep_fsync(sqe, fd, IORING_FSYNC_DATASYNC);
    } else {
        io_uring_prep_fallocate(sqe, fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                static_cast<off_t>(request.offset_bytes),
                                static_cast<off_t>(request.size_bytes));
    }
    io_uring_sqe_set_data(sqe, &slot);
}

// Each call is a submission of its own. Spans beyond kSpansPerWrite are missing in the sum, and
// written by an ordinary call.
void CRingIo::Side::StartWrite(Slot& slot, int fd) {
    const IoRequest& request = *slot.request;
    const size_t count = std::min(request.spanCount, kSpansPerWrite);
    const size_t most = request.spansPerCall != 0 ? request.spansPerCall : count;
    uint64_t offset = request.offset_bytes;
    for (size_t i = 0; i < count; i += most) {
        const size_t used = std::min(most, count - i);
        const uint64_t from = offset;
        for (size_t k = i; k < i + used; ++k) {
            slot.vector[k].iov_base = const_cast<void*>(request.spans[k].data);
            slot.vector[k].iov_len = request.spans[k].size_bytes;
            offset += request.spans[k].size_bytes;
        }
        io_uring_sqe* sqe = NextSubmission();
        io_uring_prep_writev(sqe, fd, slot.vector + i, static_cast<unsigned>(used), from);
        io_uring_sqe_set_data(sqe, &slot);
        ++slot.calls;
    }
}

// True when there is something new for the kernel.
bool CRingIo::Side::SubmitWaiting() {
    const auto now = CIoQueue::Clock::now();
    bool any = false;
    for (Slot& slot : slots) {
        if (slot.request != nullptr) continue;
        {
            const std::lock_guard hold(waiting->lock);
            slot.request = waiting->queue.Pick(realTime, now);
        }
        if (slot.request == nullptr) break;
        Start(slot);
        any = true;
    }
    return any;
}

size_t TotalOf(const IoRequest& request) {
    if (request.op != IoOp::kWrite) return request.size_bytes;
    size_t total = 0;
    for (size_t i = 0; i < request.spanCount; ++i)
        total += request.spans[i].size_bytes;
    return total;
}

// True when it was the last one of the request.
bool CRingIo::Side::CallDone(Slot& slot, int result) {
    if (result < 0)
        slot.failed = true;
    else
        slot.moved_bytes += static_cast<size_t>(result);
    return --slot.calls == 0;
}

void CRingIo::Side::Finish(Slot& slot) {
    IoRequest& request = *slot.request;
    if (!request.borrowed) {
        const bool data = Reads(request.op) || request.op == IoOp::kWrite;
        const size_t expected = request.op == IoOp::kFetch ? 1 : TotalOf(request);
        if (!slot.failed && (!data || slot.moved_bytes == expected)) {
            request.result = S_OK;
            request.done_bytes = request.op == IoOp::kFetch ? request.size_bytes : slot.moved_bytes;
        } else {
            // A short transfer or a refusal: the ordinary call says what is the matter, from the
            // first byte on so that it alone accounts for what was done.
            PerformIo(request);
        }
    }
    const std::lock_guard hold(waiting->lock);
    waiting->queue.Finished(request);
}

void CRingIo::Side::Reap() {
    done.clear();
    io_uring_cqe* entries[64];
    const unsigned count = io_uring_peek_batch_cqe(&ring, entries, 64);
    for (unsigned i = 0; i < count; ++i) {
        auto* slot = static_cast<Slot*>(io_uring_cqe_get_data(entries[i]));
        if (slot == nullptr) {
            signalled.store(false);
            ArmWake();
            continue;
        }
        if (!CallDone(*slot, entries[i]->res)) continue;
        Finish(*slot);
        done.push_back(slot);
    }
    io_uring_cq_advance(&ring, count);
}

// Of what waits in the device's own queue, the system's scheduler takes the real-time client's
// first, if it knows such a difference; the strong one needs a privilege.
void PreferThisThread() {
    constexpr int kThread = 1;
    constexpr int kThisOne = 0;
    constexpr int kRealTimeClass = 1 << 13;
    constexpr int kBestEffortClass = 2 << 13;
    for (const int priority : {kRealTimeClass, kBestEffortClass})
        if (syscall(SYS_ioprio_set, kThread, kThisOne, priority) == 0) return;
}

void CRingIo::Side::Run() {
    EnterIoThread(kStoreThreadNames.of[realTime]);
    if (realTime) PreferThisThread();
    ArmWake();
    for (;;) {
        SubmitWaiting();
        {
            const std::lock_guard hold(waiting->lock);
            const CIoQueue& queue = waiting->queue;
            if (waiting->stop && queue.Empty(realTime) && queue.InFlight(realTime) == 0) return;
        }
        io_uring_submit_and_wait(&ring, 1);
        Reap();
        // The device works on while completions run here.
        if (SubmitWaiting()) io_uring_submit(&ring);
        for (Slot* slot : done) {
            slot->request->completed(*slot->request);
            slot->request = nullptr;
            if (SubmitWaiting()) io_uring_submit(&ring);
        }
    }
}

}  // namespace

std::shared_ptr<IAsyncIo> CreateRingIo() {
    try {
        return std::make_shared<CRingIo>();
    } catch (const std::exception&) {
        return nullptr;
    }
}

}  // namespace zemstore
