// The largest single allocation of the test program, so that a test can tell memory that was
// reserved on a peer's word from memory for what really arrived. Any thread.
#pragma once

#include <cstddef>

void ResetLargestAllocation();
size_t LargestAllocation_bytes();
