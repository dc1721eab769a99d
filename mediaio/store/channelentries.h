// What a channel's reads and writes share: looking at the entries of a frame I/O. Pure functions,
// any thread.
#pragma once

#include "mediaio/zemiotypes.h"
#include "platform/platform.h"

namespace zemstore {

// The source name of a channel's log records. It stays when code moves.
inline constexpr const WCHAR* kSourceChannel = TEXT("channelcore.cpp");

// Whether there are entries, and not too many.
inline bool IsSane(const ZemIoDesc& desc) {
    const ZemElemStrmIoData* streams = desc.streamData;
    return streams != nullptr && streams->entries != nullptr && streams->entryCount >= 1 &&
           streams->entryCount <= kMaxStreamEntries;
}

inline HRESULT FirstFailure(const ZemElemStrmIoData& streams) {
    for (uint32_t i = 0; i < streams.entryCount; ++i)
        if (FAILED(streams.entries[i].status)) return streams.entries[i].status;
    return S_OK;
}

}  // namespace zemstore
