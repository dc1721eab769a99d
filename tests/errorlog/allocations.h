// Counts what the calling thread allocates with operator new, anywhere in the process.
#pragma once

#include <cstdint>

uint64_t AllocationsOfThisThread();
