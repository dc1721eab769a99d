// The allocation functions, in a file of their own so that no caller sees their bodies.
#include "tests/fakes/allocfault.h"

#include <cstdlib>
#include <new>

namespace {

constexpr size_t kNone = static_cast<size_t>(-1);
thread_local size_t t_failFrom = kNone;
thread_local bool t_failed = false;
thread_local uint64_t t_allocations = 0;
thread_local size_t t_watchedSize = kNone;
thread_local void* t_watched = nullptr;

void* Allocate(size_t bytes) {
    ++t_allocations;
    return std::malloc(bytes ? bytes : 1);
}

bool FailsNow(size_t bytes) {
    if (bytes < t_failFrom) return false;
    t_failFrom = kNone;
    return t_failed = true;
}

}  // namespace

void FailNextNothrowAllocation(size_t size) {
    t_failFrom = size;
    t_failed = false;
}
bool NothrowAllocationFailed() {
    t_failFrom = kNone;
    return t_failed;
}
void WatchNothrowAllocation(size_t size) {
    t_watchedSize = size;
    t_watched = nullptr;
}
void* WatchedAllocation() {
    return t_watched;
}
uint64_t AllocationsOfThisThread() {
    return t_allocations;
}

void* operator new(size_t bytes) {
    if (void* block = Allocate(bytes)) return block;
    throw std::bad_alloc();
}
void* operator new[](size_t bytes) {
    return operator new(bytes);
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    if (FailsNow(bytes)) return nullptr;
    void* const block = Allocate(bytes);
    if (bytes == t_watchedSize) {
        t_watched = block;
        t_watchedSize = kNone;
    }
    return block;
}
void* operator new[](size_t bytes, const std::nothrow_t& tag) noexcept {
    return operator new(bytes, tag);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block, size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
