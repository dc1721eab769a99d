// The handle table: chunks of slots that are allocated when needed and never given back, so that a
// look-up needs no lock. Runs on any thread.
#include "platform/posix/object.h"

#include <array>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

namespace posix {
namespace {

constexpr uint32_t kChunkSlots = 1024;
constexpr uint32_t kChunks = 1024;
constexpr uint32_t kNoSlot = 0xFFFFFFFFu;

// A slot's word: generation in the high half, "open" in bit 31, the number of pins below. Only the
// thread that takes the last pin off a closed slot may recycle it.
constexpr uint64_t kOpen = 0x80000000u;
constexpr uint64_t kPinMask = 0x7FFFFFFFu;

// On a cache line of its own: the handles of a port and of its queue are pinned all the time.
struct alignas(64) CSlot {
    std::atomic<uint64_t> word{uint64_t{1} << 32};
    CObject* object = nullptr;
    uint32_t next_free = kNoSlot;
};

struct CHandleTable {
    std::array<std::atomic<CSlot*>, kChunks> chunks{};
    std::mutex lock;  // guards first_free, last_free, used, and every free slot's next_free
    // First freed, first used again: keeps the generation of a busy slot from running fast.
    uint32_t first_free = kNoSlot;
    uint32_t last_free = kNoSlot;
    uint32_t used = 0;
    std::atomic<size_t> open{0};
};

// Never destroyed: threads may still close handles while the process ends.
constinit CHandleTable g_table;
static_assert(std::is_trivially_destructible_v<CHandleTable>);

inline CSlot* SlotAt(uint32_t index) {
    CSlot* chunk = g_table.chunks[index / kChunkSlots].load(std::memory_order_acquire);
    return chunk ? &chunk[index % kChunkSlots] : nullptr;
}

// Handle bits: 0-1 clear, 2-21 slot, 24-55 generation (never 0).
HANDLE MakeHandle(uint32_t index, uint32_t generation) {
    return reinterpret_cast<HANDLE>((uint64_t{generation} << 24) | (uint64_t{index} << 2));
}

struct CHandleParts {
    CSlot* slot;
    uint32_t index;
    uint32_t generation;
};

[[gnu::always_inline]] inline CHandleParts Split(HANDLE handle) {  // for every call on a handle
    const auto bits = reinterpret_cast<uint64_t>(handle);
    if ((bits & 3) != 0 || (bits >> 56) != 0 || ((bits >> 22) & 3) != 0) return {nullptr, 0, 0};
    const auto index = static_cast<uint32_t>((bits >> 2) & 0xFFFFF);
    return {SlotAt(index), index, static_cast<uint32_t>(bits >> 24)};
}

uint32_t TakeFreeSlot() {
    CHandleTable& table = g_table;
    std::lock_guard guard(table.lock);
    if (table.first_free != kNoSlot) {
        const uint32_t index = table.first_free;
        table.first_free = SlotAt(index)->next_free;
        if (table.first_free == kNoSlot) table.last_free = kNoSlot;
        return index;
    }
    if (table.used == kChunks * kChunkSlots) return kNoSlot;
    if (table.used % kChunkSlots == 0) {
        auto* const chunk = new (std::nothrow) CSlot[kChunkSlots];
        if (!chunk) return kNoSlot;
        table.chunks[table.used / kChunkSlots].store(chunk, std::memory_order_release);
    }
    return table.used++;
}

void Recycle(CSlot* slot, uint32_t index) {
    CHandleTable& table = g_table;
    slot->object->Release();
    slot->object = nullptr;
    auto generation = static_cast<uint32_t>(slot->word.load(std::memory_order_relaxed) >> 32) + 1;
    if (generation == 0) generation = 1;
    slot->word.store(uint64_t{generation} << 32, std::memory_order_release);
    std::lock_guard guard(table.lock);
    slot->next_free = kNoSlot;
    if (table.last_free == kNoSlot)
        table.first_free = index;
    else
        SlotAt(table.last_free)->next_free = index;
    table.last_free = index;
}

void Unpin(CSlot* slot, uint32_t index) {
    const uint64_t before = slot->word.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & (kOpen | kPinMask)) == 1) Recycle(slot, index);
}

}  // namespace

HANDLE OpenHandle(CObject* object) {
    const uint32_t index = TakeFreeSlot();
    if (index == kNoSlot) {
        object->Release();
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return nullptr;
    }
    CSlot* slot = SlotAt(index);
    slot->object = object;
    const uint64_t word = slot->word.load(std::memory_order_relaxed);
    g_table.open.fetch_add(1, std::memory_order_relaxed);
    slot->word.store(word | kOpen, std::memory_order_release);
    return MakeHandle(index, static_cast<uint32_t>(word >> 32));
}

CObject* PinHandle(HANDLE handle) {
    const CHandleParts parts = Split(handle);
    if (parts.slot) {
        uint64_t word = parts.slot->word.load(std::memory_order_relaxed);
        while ((word >> 32) == parts.generation && (word & kOpen)) {
            if (parts.slot->word.compare_exchange_weak(word, word + 1, std::memory_order_acquire,
                                                       std::memory_order_relaxed)) {
                return parts.slot->object;
            }
        }
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

void UnpinHandle(HANDLE handle) {
    const CHandleParts parts = Split(handle);
    Unpin(parts.slot, parts.index);
}

bool CloseObjectHandle(HANDLE handle) {
    const CHandleParts parts = Split(handle);
    if (parts.slot) {
        uint64_t word = parts.slot->word.load(std::memory_order_relaxed);
        while ((word >> 32) == parts.generation && (word & kOpen)) {
            if (!parts.slot->word.compare_exchange_weak(word, (word & ~kOpen) + 1,
                                                        std::memory_order_acq_rel,
                                                        std::memory_order_relaxed)) {
                continue;
            }
            g_table.open.fetch_sub(1, std::memory_order_relaxed);
            parts.slot->object->OnClose();
            Unpin(parts.slot, parts.index);
            return true;
        }
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
}

size_t OpenHandleCount() {
    return g_table.open.load(std::memory_order_relaxed);
}

}  // namespace posix
