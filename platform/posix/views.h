// Ranges of files mapped read-only into one reserved stretch of addresses, so that any thread can
// tell from a pointer which file bytes it names without a lock: the HTTP interface sends such
// memory straight from its file, without a copy and without ever touching the pages. A view takes
// whole slots of 64 MiB of addresses (not of memory). The stretch is 16 TiB, less where the system
// refuses it. Lifetime: a view must outlive every call that sends its pages; it keeps a descriptor
// of its own, so the file may be closed or deleted meanwhile. What a client takes slowly is sent on
// from the file when the call has returned, so bytes that were handed out once are never written
// again, and their place is given back only when IsFilePartInUse says that nobody is on it. Reading
// a page that lies beyond the file's end raises SIGBUS: user code only hands the pages on.
#pragma once

#include <cstddef>
#include <cstdint>

// Pieces of a view from this size on are sent from the file's pages, smaller ones are copied.
inline constexpr uint32_t kViewSentFromPages_bytes = 32 * 1024;

#pragma GCC visibility push(default)

// Maps `length` bytes (> 0) of the open file from `offset_bytes` on (any alignment; the range may
// pass the file's end, for a file that will grow). Null when no addresses, descriptors or mappings
// are left, or the file cannot be mapped (GetLastError tells). Any thread.
void* MapFileView(int descriptor, uint64_t offset_bytes, size_t length);

// Gives the view back: `view` is what MapFileView returned; null is ignored. Any thread.
void UnmapFileView(void* view);

// True when all of [address, address + length) lies in one view: `descriptor` is then the view's
// own (do not close it) and `offset_bytes` where the bytes are in the file. Lock-free, any thread;
// the pages are not touched.
bool FindFileView(const void* address, size_t length, int* descriptor, uint64_t* offset_bytes);

// Whether bytes of that range of the open file are still being sent, although the call that named
// them has returned (fileparts.h): their place must not be given back yet. Any thread.
bool IsFilePartInUse(int descriptor, uint64_t offset_bytes, uint64_t length);

#pragma GCC visibility pop
