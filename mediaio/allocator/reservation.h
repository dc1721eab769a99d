// The address space behind an allocator. Pages cost memory only once they are
// touched and until they are dropped. Any thread; the caller keeps two threads off the same pages.
#pragma once

#include <cstddef>

namespace zemstore {

// Null when the system has no such room. size_bytes is a multiple of 4096.
void* ReservePages(size_t size_bytes);
void ReleaseReservation(void* base, size_t size_bytes);

// Gives the memory of the pages back; they read as zero, and cost memory again, when next touched.
void DropPages(void* start, size_t size_bytes);

}  // namespace zemstore
