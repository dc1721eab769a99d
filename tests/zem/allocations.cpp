// Replaces the global allocation functions; a file of its own, so that they are never inlined into
// a caller.
#include "tests/zem/allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> g_largest_bytes{0};

}  // namespace

void ResetLargestAllocation() {
    g_largest_bytes = 0;
}
size_t LargestAllocation_bytes() {
    return g_largest_bytes;
}

void* operator new(size_t size) {
    size_t largest = g_largest_bytes.load();
    while (size > largest && !g_largest_bytes.compare_exchange_weak(largest, size)) {
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
