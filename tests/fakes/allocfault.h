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

// Allocations of the calling thread with operator new, of any form.
uint64_t AllocationsOfThisThread();
