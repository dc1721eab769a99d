// The reservation on Linux: a private mapping that the kernel neither commits nor counts in
// advance.
#include "mediaio/allocator/reservation.h"

#include <sys/mman.h>

namespace zemstore {

void* ReservePages(size_t size_bytes) {
    void* base = mmap(nullptr, size_bytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return base == MAP_FAILED ? nullptr : base;
}

void ReleaseReservation(void* base, size_t size_bytes) {
    munmap(base, size_bytes);
}

void DropPages(void* start, size_t size_bytes) {
    madvise(start, size_bytes, MADV_DONTNEED);
}

}  // namespace zemstore
