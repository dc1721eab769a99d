// Frame memory. One lock guards the tree of free runs and is held for well under a microsecond;
// system calls are made outside it, on runs that are taken meanwhile. Used by workers (write
// buffers) and by the store's I/O threads.
#include "mediaio/zemmemallocator.h"

#include "mediaio/allocator/reservation.h"
#include "mediaio/allocator/runtree.h"

#include <atomic>
#include <cassert>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

namespace {

constexpr size_t kPage = 4096;
// A burst's memory above this much goes back to the system once nothing is handed out, or when this
// many bytes have come home while the pages in question stayed idle.
constexpr uint32_t kKeptPages = (32u << 20) / kPage;
constexpr uint32_t kTrimEveryPages = (128u << 20) / kPage;

}  // namespace

struct CZemMemAllocator::State {
    State(char* reserved, uint32_t pageCount)
        : base(reserved), pages(pageCount), tree(pageCount), runPages(pageCount) {}
    ~State() { zemstore::ReleaseReservation(base, size_t{pages} * kPage); }
    void* TakeRun(uint32_t count);
    void Trim(uint32_t from);

    char* const base;
    const uint32_t pages;
    std::atomic<size_t> usedPages{0};
    std::atomic<bool> trimming{false};
    std::mutex trimLock;  // held by the thread that trims; taken before `lock`

    std::mutex lock;  // guards what follows
    zemstore::CRunTree tree;
    std::vector<uint32_t> runPages;  // length of the run that begins at a page, 0 elsewhere
    uint32_t touchedEnd = 0;         // pages from here on were never used or are dropped
    uint32_t recentEnd = 0;          // highest end of a run since the last trim
    uint32_t freedPages = 0;         // since the last trim
};

CZemMemAllocator::CZemMemAllocator() : m_state(nullptr) {}

CZemMemAllocator::~CZemMemAllocator() {
    assert(BytesInUse() == 0);
    delete m_state;
}

HRESULT CZemMemAllocator::Initialize(size_t size_bytes, void* reserved) {
    if (size_bytes == 0 || reserved != nullptr || m_state != nullptr) return E_INVALIDARG;
    if (size_bytes > (size_t{1} << 30) * kPage) return E_OUTOFMEMORY;
    const size_t pages = (size_bytes + kPage - 1) / kPage;
    void* base = zemstore::ReservePages(pages * kPage);
    if (base == nullptr) return E_OUTOFMEMORY;
    try {
        m_state = new State(static_cast<char*>(base), static_cast<uint32_t>(pages));
    } catch (const std::bad_alloc&) {
        zemstore::ReleaseReservation(base, pages * kPage);
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

void* CZemMemAllocator::Allocate(size_t size_bytes) {
    if (m_state == nullptr || size_bytes == 0) return nullptr;
    if (size_bytes > size_t{m_state->pages} * kPage) return nullptr;
    const auto pages = static_cast<uint32_t>((size_bytes + kPage - 1) / kPage);
    void* run = m_state->TakeRun(pages);
    if (run == nullptr && m_state->trimming.load(std::memory_order_acquire)) {
        // Pages that are being trimmed are free all the same: let the trim end, then look again.
        std::lock_guard wait(m_state->trimLock);
        run = m_state->TakeRun(pages);
    }
    return run;
}

void* CZemMemAllocator::State::TakeRun(uint32_t count) {
    std::lock_guard hold(lock);
    const uint32_t first = tree.Take(count);
    if (first == zemstore::CRunTree::kNone) return nullptr;
    runPages[first] = count;
    const uint32_t end = first + count;
    if (end > touchedEnd) touchedEnd = end;
    if (end > recentEnd) recentEnd = end;
    usedPages.fetch_add(count, std::memory_order_relaxed);
    return base + size_t{first} * kPage;
}

void CZemMemAllocator::Free(void* run) {
    if (run == nullptr || m_state == nullptr) return;
    const auto offset = static_cast<size_t>(static_cast<char*>(run) - m_state->base);
    const size_t first = offset / kPage;
    if (offset % kPage != 0 || first >= m_state->pages) {
        assert(!"not a run of this allocator");
        return;
    }
    uint32_t trimFrom = 0;
    {
        std::lock_guard hold(m_state->lock);
        const uint32_t pages = m_state->runPages[first];
        if (pages == 0) {
            assert(!"the run is not handed out");
            return;
        }
        m_state->runPages[first] = 0;
        m_state->tree.Give(static_cast<uint32_t>(first), pages);
        const size_t left = m_state->usedPages.fetch_sub(pages, std::memory_order_relaxed) - pages;
        m_state->freedPages += pages;
        if (left == 0 && m_state->touchedEnd > kKeptPages) {
            trimFrom = kKeptPages;
        } else if (m_state->freedPages >= kTrimEveryPages) {
            trimFrom = m_state->recentEnd > kKeptPages ? m_state->recentEnd : kKeptPages;
            m_state->recentEnd = 0;
            m_state->freedPages = 0;
        }
    }
    if (trimFrom != 0) m_state->Trim(trimFrom);
}

// Takes the idle pages from `from` on out of circulation while the system takes their memory back.
void CZemMemAllocator::State::Trim(uint32_t from) {
    std::lock_guard alone(trimLock);
    trimming.store(true, std::memory_order_release);
    uint32_t at = from;
    for (;;) {
        uint32_t first = 0;
        uint32_t count = 0;
        {
            std::lock_guard hold(lock);
            if (!tree.NextFree(at, first, count) || first >= touchedEnd) break;
            tree.TakeAt(first, count);
        }
        zemstore::DropPages(base + size_t{first} * kPage, size_t{count} * kPage);
        std::lock_guard hold(lock);
        tree.Give(first, count);
        at = first + count;
        if (at >= touchedEnd && touchedEnd > first) touchedEnd = first;
    }
    trimming.store(false, std::memory_order_release);
}

size_t CZemMemAllocator::BytesInUse() const {
    return m_state == nullptr ? 0 : m_state->usedPages.load(std::memory_order_relaxed) * kPage;
}
