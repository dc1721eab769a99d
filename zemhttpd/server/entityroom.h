// Where a request's entity data lies and how many bytes there may be touched. Pure; any thread.
#pragma once

#include "platform/platform.h"
#include "zemhttpd/frameio/httpxactn.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

// Whether the chunk starts inside the posted buffer (its end included).
inline bool StartsInBuffer(CHttpXaction& xaction, const HTTP_DATA_CHUNK& chunk) {
    const auto start = reinterpret_cast<uintptr_t>(chunk.FromMemory.pBuffer);
    const auto buffer = reinterpret_cast<uintptr_t>(xaction.RequestBuffer());
    return start >= buffer && start - buffer <= CHttpXaction::RequestBufferSize();
}

// Bytes from the chunk's start on that may be read and written: to the end of the posted buffer,
// or, for a chunk that lies elsewhere, its own length.
inline size_t EntityRoom_bytes(CHttpXaction& xaction, const HTTP_DATA_CHUNK& chunk) {
    if (!StartsInBuffer(xaction, chunk)) return chunk.FromMemory.BufferLength;
    return CHttpXaction::RequestBufferSize() -
           static_cast<size_t>(static_cast<const BYTE*>(chunk.FromMemory.pBuffer) -
                               xaction.RequestBuffer());
}

// The first `bytes` of the chunk's room are written, or about to be.
inline void NoteEntityWritten(CHttpXaction& xaction, const HTTP_DATA_CHUNK& chunk,
                              ULONGLONG bytes) {
    if (!StartsInBuffer(xaction, chunk)) return;
    const size_t room_bytes = EntityRoom_bytes(xaction, chunk);
    xaction.NoteWritten(CHttpXaction::RequestBufferSize() - room_bytes +
                        static_cast<size_t>(std::min<ULONGLONG>(bytes, room_bytes)));
}
