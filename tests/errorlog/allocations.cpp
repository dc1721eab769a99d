// Replaces the global allocation functions, in a file of its own so that no caller sees their
// bodies.
#include "tests/errorlog/allocations.h"

#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t t_allocations = 0;
}

uint64_t AllocationsOfThisThread() {
    return t_allocations;
}

void* operator new(size_t bytes) {
    ++t_allocations;
    if (void* block = std::malloc(bytes ? bytes : 1)) return block;
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
