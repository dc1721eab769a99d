// Failure of allocations on demand: replaces the allocation functions of the test that links it.
// Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// The next allocation of the calling thread that asks for `size` bytes or more with std::nothrow
// fails, once.
void FailNextNothrowAllocation(size_t size);
// Whether the failure that was asked for has happened; asking takes an unused one back.
bool NothrowAllocationFailed();

// Remembers the calling thread's next nothrow allocation of exactly `size` bytes, so that a test
// can free what the code under test deliberately leaves behind.
void WatchNothrowAllocation(size_t size);
void* WatchedAllocation();

// Allocations of the calling thread with operator new, of any form.
uint64_t AllocationsOfThisThread();
