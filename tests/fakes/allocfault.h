// Counts of allocations, and their failure on demand: replaces the allocation functions of the test
// that links it. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// While one lives, allocations of the thread neither fail nor count: the stand-ins' own
// book-keeping is no part of what a test fails.
class CAllocationFaultPause {
public:
    CAllocationFaultPause() { ++s_depth; }
    ~CAllocationFaultPause() { --s_depth; }
    CAllocationFaultPause(const CAllocationFaultPause&) = delete;
    CAllocationFaultPause& operator=(const CAllocationFaultPause&) = delete;
    static bool Active() { return s_depth != 0; }

private:
    static inline thread_local int s_depth = 0;
};

// The allocation of the calling thread that comes after `skipped` others fails, once: with
// bad_alloc, or with null in its nothrow form.
void FailAllocationAfter(uint64_t skipped);
// The next allocation of the calling thread of `size` bytes or more fails, once, in either form.
void FailNextAllocation(size_t size);
// While `fail` is set, every allocation of the calling thread fails.
void FailAllAllocations(bool fail);
// Whether a failure that was asked for has happened; asking takes an unused one back.
bool AllocationFailed();

// The next allocation of the calling thread that asks for `size` bytes or more with std::nothrow
// fails, once.
void FailNextNothrowAllocation(size_t size);
// Whether the failure that was asked for has happened; asking takes an unused one back.
bool NothrowAllocationFailed();

// Remembers the calling thread's next nothrow allocation of exactly `size` bytes, so that a test
// can free what the code under test deliberately leaves behind.
void WatchNothrowAllocation(size_t size);
void* WatchedAllocation();

// Allocations of the calling thread with operator new, of any form, pauses apart.
uint64_t AllocationsOfThisThread();
// The largest one since the reset: tells memory that was taken on a peer's word from memory for
// what really arrived.
void ResetLargestAllocation();
size_t LargestAllocation_bytes();
