// How many samples a MOV or MP4 file says that it has. libavformat makes room for each
// before it looks whether there is one, and a few kilobytes can say that there are billions.
#pragma once

#include "mediaio/store/fileio.h"

#pragma GCC visibility push(default)

namespace zemstore {

// What the entries of all tables of one file may come to: 1.6 GB of libavformat's memory. A day of
// pictures and coded sound is a tenth of it.
inline constexpr uint64_t kMostClaimed = uint64_t{64} << 20;

// True for a file whose sample tables and fragments name more than `most` samples in all, and for
// one whose tables are compressed, so that nobody can tell. Reads every box but the media data.
bool MovClaimsTooMuch(IStoreFile& file, uint64_t size_bytes, uint64_t most = kMostClaimed);

}  // namespace zemstore

#pragma GCC visibility pop
