// The reservation on Windows. Address space that costs nothing until it is touched does not exist
// there: pages are committed with the reservation, which counts against the system's limit but
// takes no memory until the first touch; dropped pages leave the working set and their contents.
#include "mediaio/allocator/reservation.h"

#include "platform/platform.h"

namespace zemstore {

void* ReservePages(size_t size_bytes) {
    return VirtualAlloc(nullptr, size_bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void ReleaseReservation(void* base, size_t) {
    VirtualFree(base, 0, MEM_RELEASE);
}

void DropPages(void* start, size_t size_bytes) {
    VirtualFree(start, size_bytes, MEM_DECOMMIT);
    VirtualAlloc(start, size_bytes, MEM_COMMIT, PAGE_READWRITE);
}

}  // namespace zemstore
