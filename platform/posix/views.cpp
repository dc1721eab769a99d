// The reserved stretch of addresses and the table that finds a view from a pointer. Mapping takes a
// lock, finding none.
#include "platform/posix/views.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <iterator>
#include <map>
#include <mutex>

#include "platform/posix/filesinternal.h"

namespace posix {
namespace {

constexpr size_t kSlotBytes = size_t{64} << 20;
constexpr size_t kLargestRegion = size_t{16} << 40;
constexpr size_t kSmallestRegion = size_t{1} << 30;

struct CView {
    const char* start;  // what the caller got
    size_t length;
    uint64_t offset;
    int descriptor;
    size_t first_slot;
    size_t slots;
};

struct CRegion {
    char* base = nullptr;
    size_t slots = 0;
    // One entry for each slot; all entries of a view's slots name the view. Anonymous pages: what
    // is unused costs nothing.
    std::atomic<CView*>* table = nullptr;
    std::mutex lock;                // guards the maps
    std::map<size_t, size_t> free;  // first slot -> slots, never adjacent
    // By first slot. The table alone would not do: leak checkers do not look into such pages.
    std::map<size_t, CView> views;

    CRegion() {
        for (size_t size = kLargestRegion; size >= kSmallestRegion; size /= 4) {
            void* place =
                mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            if (place == MAP_FAILED) continue;
            madvise(place, size, MADV_DONTDUMP);
            base = static_cast<char*>(place);
            slots = size / kSlotBytes;
            break;
        }
        if (slots == 0) return;
        void* entries = mmap(nullptr, slots * sizeof(std::atomic<CView*>), PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (entries == MAP_FAILED) {
            slots = 0;
            return;
        }
        table = static_cast<std::atomic<CView*>*>(entries);
        free.emplace(0, slots);
    }

    bool TakeSlots(size_t count, size_t* first) {
        const std::lock_guard guard(lock);
        for (auto range = free.begin(); range != free.end(); ++range) {
            if (range->second < count) continue;
            *first = range->first;
            const size_t rest = range->second - count;
            free.erase(range);
            if (rest > 0) free.emplace(*first + count, rest);
            return true;
        }
        return false;
    }

    void GiveSlots(size_t first, size_t count) {
        const std::lock_guard guard(lock);
        auto next = free.upper_bound(first);
        if (next != free.end() && next->first == first + count) {
            count += next->second;
            next = free.erase(next);
        }
        if (next != free.begin()) {
            const auto before = std::prev(next);
            if (before->first + before->second == first) {
                before->second += count;
                return;
            }
        }
        free.emplace(first, count);
    }

    CView* Keep(const CView& view) {
        const std::lock_guard guard(lock);
        return &views.emplace(view.first_slot, view).first->second;
    }

    // The view ends here, and its slots are free.
    void Forget(const CView& view) {
        const CView gone = view;
        {
            const std::lock_guard guard(lock);
            views.erase(gone.first_slot);
        }
        GiveSlots(gone.first_slot, gone.slots);
    }

    // The addresses stay reserved; only what was mapped there goes.
    void Unmap(size_t first, size_t count) {
        mmap(base + first * kSlotBytes, count * kSlotBytes, PROT_NONE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    }
};

// Made at the first view, never destroyed. Who looks before that finds nothing.
std::atomic<CRegion*> g_region{nullptr};

CRegion& Region() {
    static CRegion* region = [] {
        auto* made = new CRegion;
        g_region.store(made, std::memory_order_release);
        return made;
    }();
    return *region;
}

CView* ViewAt(const void* address) {
    const CRegion* region = g_region.load(std::memory_order_acquire);
    if (!region) return nullptr;
    const auto distance =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(region->base);
    const size_t slot = distance / kSlotBytes;
    return slot < region->slots ? region->table[slot].load(std::memory_order_acquire) : nullptr;
}

void* Fail(DWORD error) {
    SetLastError(error);
    return nullptr;
}

// Maps into the slots and enters the view in the table; null with errno set.
void* MapInto(CRegion& region, const CView& view, size_t lead) {
    char* place = region.base + view.first_slot * kSlotBytes;
    if (mmap(place, view.length + lead, PROT_READ, MAP_SHARED | MAP_FIXED, view.descriptor,
             static_cast<off_t>(view.offset - lead)) == MAP_FAILED) {
        return nullptr;
    }
    CView* entry = region.Keep(view);
    entry->start = place + lead;
    for (size_t i = 0; i < view.slots; ++i)
        region.table[view.first_slot + i].store(entry, std::memory_order_release);
    return place + lead;
}

}  // namespace
}  // namespace posix

using namespace posix;

void* MapFileView(int descriptor, uint64_t offset_bytes, size_t length) {
    CRegion& region = Region();
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const auto lead = static_cast<size_t>(offset_bytes % page);
    if (length == 0 || length > kLargestRegion || offset_bytes > INT64_MAX - kLargestRegion)
        return Fail(ERROR_INVALID_PARAMETER);
    CView view{};
    view.length = length;
    view.offset = offset_bytes;
    view.slots = (length + lead + kSlotBytes - 1) / kSlotBytes;
    if (!region.TakeSlots(view.slots, &view.first_slot)) return Fail(ERROR_NOT_ENOUGH_MEMORY);
    view.descriptor = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    void* start = view.descriptor >= 0 ? MapInto(region, view, lead) : nullptr;
    if (start) return start;
    const int error = errno;
    if (view.descriptor >= 0) {
        close(view.descriptor);
        region.Unmap(view.first_slot, view.slots);
    }
    region.GiveSlots(view.first_slot, view.slots);
    return Fail(ErrorFromErrno(error));
}

void UnmapFileView(void* view) {
    CView* found = view ? ViewAt(view) : nullptr;
    if (!found || found->start != view) return;
    CRegion& region = Region();
    for (size_t i = 0; i < found->slots; ++i)
        region.table[found->first_slot + i].store(nullptr, std::memory_order_release);
    region.Unmap(found->first_slot, found->slots);
    close(found->descriptor);
    region.Forget(*found);
}

bool FindFileView(const void* address, size_t length, int* descriptor, uint64_t* offset_bytes) {
    const CView* view = ViewAt(address);
    if (!view) return false;
    const auto* first = static_cast<const char*>(address);
    if (first < view->start) return false;
    const auto distance = static_cast<size_t>(first - view->start);
    if (distance > view->length || length > view->length - distance) return false;
    *descriptor = view->descriptor;
    *offset_bytes = view->offset + distance;
    return true;
}
