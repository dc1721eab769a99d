// The allocation functions, in a file of their own so that no caller sees their bodies.
#include "tests/fakes/allocfault.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

constexpr size_t kNone = static_cast<size_t>(-1);
thread_local size_t t_failFrom = kNone;
thread_local bool t_failed = false;
thread_local uint64_t t_allocations = 0;
thread_local size_t t_largest_bytes = 0;
thread_local size_t t_watchedSize = kNone;
thread_local void* t_watched = nullptr;
constexpr uint64_t kNever = static_cast<uint64_t>(-1);
thread_local uint64_t t_failAt = kNever;  // a value of t_allocations
thread_local size_t t_failFromAnyForm = kNone;
thread_local bool t_failAll = false;
thread_local bool t_anyFormFailed = false;

bool FailsInTurn(size_t bytes) {
    const bool inTurn = t_allocations++ == t_failAt;
    if (!inTurn && bytes < t_failFromAnyForm && !t_failAll) return false;
    t_failAt = kNever;
    t_failFromAnyForm = kNone;
    return t_anyFormFailed = true;
}

void* Allocate(size_t bytes, size_t align = 0) {
    t_largest_bytes = std::max(t_largest_bytes, bytes);
    if (!CAllocationFaultPause::Active() && FailsInTurn(bytes)) return nullptr;
    if (align == 0) return std::malloc(bytes ? bytes : 1);
    return std::aligned_alloc(align, (bytes + align - 1) / align * align);
}

bool FailsNow(size_t bytes) {
    if (CAllocationFaultPause::Active() || bytes < t_failFrom) return false;
    t_failFrom = kNone;
    return t_failed = true;
}

}  // namespace

void FailAllocationAfter(uint64_t skipped) {
    t_failAt = t_allocations + skipped;
    t_anyFormFailed = false;
}
void FailNextAllocation(size_t size) {
    t_failFromAnyForm = size;
    t_anyFormFailed = false;
}
void FailAllAllocations(bool fail) {
    t_failAll = fail;
}
bool AllocationFailed() {
    t_failAt = kNever;
    t_failFromAnyForm = kNone;
    return std::exchange(t_anyFormFailed, false);
}
void FailNextNothrowAllocation(size_t size) {
    t_failFrom = size;
    t_failed = false;
}
bool NothrowAllocationFailed() {
    t_failFrom = kNone;
    return std::exchange(t_failed, false);
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
void ResetLargestAllocation() {
    t_largest_bytes = 0;
}
size_t LargestAllocation_bytes() {
    return t_largest_bytes;
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
void* operator new(size_t bytes, std::align_val_t align) {
    if (void* block = Allocate(bytes, static_cast<size_t>(align))) return block;
    throw std::bad_alloc();
}
void* operator new[](size_t bytes, std::align_val_t align) {
    return operator new(bytes, align);
}
void* operator new(size_t bytes, std::align_val_t align, const std::nothrow_t&) noexcept {
    return Allocate(bytes, static_cast<size_t>(align));
}
void* operator new[](size_t bytes, std::align_val_t align, const std::nothrow_t& tag) noexcept {
    return operator new(bytes, align, tag);
}
void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete(void* block, size_t, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, size_t, std::align_val_t) noexcept {
    std::free(block);
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
