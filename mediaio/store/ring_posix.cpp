// Asynchronous I/O by io_uring: one ring, one thread that submits, reaps and runs completions,
// those of the real-time client first. Others wake it through an event counter that the ring itself
// reads. What the ring cannot do, or does only in part, is finished by an ordinary call.
#include <liburing.h>
#include <sys/eventfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <linux/falloc.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "mediaio/allocator/reservation.h"
#include "mediaio/errorlog.h"
#include "mediaio/store/asyncio.h"
#include "mediaio/store/log.h"

namespace zemstore {
namespace {

constexpr unsigned kSlots =
    CIoQueue::kRealTimeLimit + CIoQueue::kBackgroundLimit + CIoQueue::kSyncLimit;
constexpr size_t kSpansPerWrite = 64;

class CRingIo final : public IAsyncIo {
public:
    CRingIo();
    ~CRingIo() override;
    void Submit(IoRequest& request) override;
    const char* Kind() const override { return "io_uring"; }

private:
    struct Slot {  // a request at the kernel
        IoRequest* request = nullptr;
        char* scratch = nullptr;
        iovec vector[kSpansPerWrite];
    };

    struct Core {
        Core();
        ~Core();
        void Run();
        void ArmWake();
        void SubmitWaiting();
        void Start(Slot& slot);
        void Finish(Slot& slot, int result);
        void Reap(std::vector<IoRequest*>& done);

        io_uring ring{};
        int event = -1;
        uint64_t eventCount = 0;
        char* scratch = nullptr;
        Slot slots[kSlots];

        std::atomic<bool> signalled{false};
        std::mutex lock;  // guards what follows
        CIoQueue queue;
        bool stop = false;
    };

    std::shared_ptr<Core> m_core;
    std::thread m_thread;
};

// The kernel may give a new ring the addresses of one that is gone. The lock puts the end of the
// one before the start of the other, for tools that cannot see liburing's own mappings come and go.
std::mutex& RingLock() {
    static auto* lock = new std::mutex;
    return *lock;
}

// Once in a process: it stays so.
void SayThatThereIsNoRing(int error) {
    static std::atomic_flag said;
    if (said.test_and_set()) return;
    LogStore(kErrorLogLevelWarning, 0, TEXT("ring_posix.cpp"),
             std::string("io_uring cannot be used (") + std::strerror(error) +
                 "): threads read and write instead");
}

CRingIo::Core::Core() {
    event = eventfd(0, EFD_CLOEXEC);
    if (event < 0) throw std::bad_alloc();
    {
        const std::lock_guard hold(RingLock());
        if (const int result = io_uring_queue_init(64, &ring, 0); result < 0) {
            close(event);
            SayThatThereIsNoRing(-result);
            throw std::bad_alloc();
        }
    }
    scratch = static_cast<char*>(ReservePages(kSlots * kScratchSize));
    if (scratch == nullptr) {
        io_uring_queue_exit(&ring);
        close(event);
        throw std::bad_alloc();
    }
    for (unsigned i = 0; i < kSlots; ++i)
        slots[i].scratch = scratch + i * kScratchSize;
}

CRingIo::Core::~Core() {
    {
        const std::lock_guard hold(RingLock());
        io_uring_queue_exit(&ring);
    }
    close(event);
    ReleaseReservation(scratch, kSlots * kScratchSize);
}

CRingIo::CRingIo() : m_core(std::make_shared<Core>()) {
    m_thread = std::thread([core = m_core] { core->Run(); });
}

CRingIo::~CRingIo() {
    {
        std::lock_guard hold(m_core->lock);
        m_core->stop = true;
    }
    eventfd_write(m_core->event, 1);
    if (m_thread.get_id() == std::this_thread::get_id()) {
        m_thread.detach();
    } else {
        m_thread.join();
    }
}

void CRingIo::Submit(IoRequest& request) {
    {
        std::lock_guard hold(m_core->lock);
        m_core->queue.Push(request, std::chrono::steady_clock::now());
    }
    if (!m_core->signalled.exchange(true)) eventfd_write(m_core->event, 1);
}

void CRingIo::Core::ArmWake() {
    io_uring_sqe* sqe = io_uring_get_sqe(&ring);
    io_uring_prep_read(sqe, event, &eventCount, sizeof eventCount, 0);
    io_uring_sqe_set_data(sqe, nullptr);
}

// Turns the slot's request into a submission; what has no descriptor is done at once.
void CRingIo::Core::Start(Slot& slot) {
    IoRequest& request = *slot.request;
    const auto fd = static_cast<int>(request.file->Descriptor());
    if (request.op == IoOp::kRead && request.data == nullptr) request.data = slot.scratch;
    io_uring_sqe* sqe = fd < 0 ? nullptr : io_uring_get_sqe(&ring);
    if (sqe == nullptr) {
        // A ring without work of its own still has to turn round for this one.
        PerformIo(request);
        request.borrowed = true;
        sqe = io_uring_get_sqe(&ring);
        io_uring_prep_nop(sqe);
        io_uring_sqe_set_data(sqe, &slot);
        return;
    }
    request.borrowed = false;
    switch (request.op) {
        case IoOp::kRead:
            io_uring_prep_read(sqe, fd, request.data, static_cast<unsigned>(request.size_bytes),
                               request.offset_bytes);
            break;
        case IoOp::kWrite: {
            size_t used = 0;
            for (; used < request.spanCount && used < kSpansPerWrite; ++used) {
                slot.vector[used].iov_base = const_cast<void*>(request.spans[used].data);
                slot.vector[used].iov_len = request.spans[used].size_bytes;
            }
            io_uring_prep_writev(sqe, fd, slot.vector, static_cast<unsigned>(used),
                                 request.offset_bytes);
            break;
        }
        case IoOp::kSync:
            io_uring_prep_fsync(sqe, fd, IORING_FSYNC_DATASYNC);
            break;
        case IoOp::kPunch:
            io_uring_prep_fallocate(sqe, fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                    static_cast<off_t>(request.offset_bytes),
                                    static_cast<off_t>(request.size_bytes));
            break;
    }
    io_uring_sqe_set_data(sqe, &slot);
}

void CRingIo::Core::SubmitWaiting() {
    const auto now = std::chrono::steady_clock::now();
    for (Slot& slot : slots) {
        if (slot.request != nullptr) continue;
        {
            std::lock_guard hold(lock);
            slot.request = queue.Pick(now);
        }
        if (slot.request == nullptr) return;
        Start(slot);
    }
}

size_t TotalOf(const IoRequest& request) {
    if (request.op != IoOp::kWrite) return request.size_bytes;
    size_t total = 0;
    for (size_t i = 0; i < request.spanCount; ++i)
        total += request.spans[i].size_bytes;
    return total;
}

void CRingIo::Core::Finish(Slot& slot, int result) {
    IoRequest& request = *slot.request;
    if (!request.borrowed) {
        const bool data = request.op == IoOp::kRead || request.op == IoOp::kWrite;
        const bool whole =
            !data || (result >= 0 && static_cast<size_t>(result) == TotalOf(request));
        if (result >= 0 && whole) {
            request.result = S_OK;
            request.done_bytes = static_cast<size_t>(result);
        } else {
            // A short transfer or a refusal: the ordinary call says what is the matter, from the
            // first byte on so that it alone accounts for what was done.
            PerformIo(request);
        }
    }
    std::lock_guard hold(lock);
    queue.Finished(request);
    slot.request = nullptr;
}

void CRingIo::Core::Reap(std::vector<IoRequest*>& done) {
    io_uring_cqe* entries[64];
    const unsigned count = io_uring_peek_batch_cqe(&ring, entries, 64);
    for (unsigned i = 0; i < count; ++i) {
        auto* slot = static_cast<Slot*>(io_uring_cqe_get_data(entries[i]));
        if (slot == nullptr) {
            signalled.store(false);
            ArmWake();
            continue;
        }
        IoRequest* request = slot->request;
        Finish(*slot, entries[i]->res);
        if (request->realTime) {
            done.insert(done.begin(), request);
        } else {
            done.push_back(request);
        }
    }
    io_uring_cq_advance(&ring, count);
}

void CRingIo::Core::Run() {
    EnterIoThread();
    std::vector<IoRequest*> done;
    done.reserve(64);
    ArmWake();
    for (;;) {
        SubmitWaiting();
        {
            std::lock_guard hold(lock);
            if (stop && queue.Empty() && queue.InFlight() == 0) return;
        }
        io_uring_submit_and_wait(&ring, 1);
        done.clear();
        Reap(done);
        for (IoRequest* request : done)
            request->completed(*request);
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
