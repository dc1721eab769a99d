// The index of a file that had to be read through, kept beside it. It counts only as
// long as size and time of the file are those that it was made for; a damaged one counts for
// nothing. docs/media.md has its layout to the byte. Any thread.
#pragma once

#include "mediaio/foreign/clipindex.h"
#include "mediaio/store/fileio.h"

#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

// What a file was when its index was made.
struct SourceStamp {
    uint64_t size_bytes = 0;
    uint64_t modified = 0;
    bool operator==(const SourceStamp&) const = default;
};

bool LoadIndex(IVolume& volume, const std::string& path, const SourceStamp& stamp,
               ClipIndex& index);
// A directory that cannot be written to, a full device: the index is then only in memory.
HRESULT SaveIndex(IVolume& volume, const std::string& path, const SourceStamp& stamp,
                  const ClipIndex& index);

}  // namespace zemstore

#pragma GCC visibility pop
