// Looks at every part of a native media file and says what is wrong. The file is loaded by
// the store's own loader, so what is found is what a server would serve; on top of that come the
// things that a server need not look at. Nothing is ever written. One thread.
#pragma once

#include "mediaio/store/fileio.h"
#include "mediaio/store/mediafile.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zemfsck {

struct Finding {
    bool damage;           // else a remark: what a crash leaves in a file that is in order
    const char* part;      // "header", "root", "index", "log", "frame", "extent", "space"
    int64_t position;      // of the frame; -1: of none
    int64_t offset_bytes;  // in the file; -1: nowhere
    std::string text;
};

struct Report {
    static constexpr size_t kListed = 1000;

    uint64_t size_bytes = 0;
    zemstore::FileHeader header{};
    bool loaded = false;  // a server can open it; what follows is known only then
    zemstore::LoadReport load;
    uint32_t frameCount = 0;
    uint64_t present = 0;
    uint64_t erased = 0;
    uint64_t holes = 0;
    uint64_t damagedFrames = 0;
    uint64_t dataBytes = 0;
    uint64_t indexNodes = 0;
    uint64_t deadBytes = 0;  // belong to nothing any more and are not given back

    std::vector<Finding> findings;  // the first kListed
    uint64_t damages = 0;
    uint64_t remarks = 0;

    void Add(Finding finding);
};

// S_OK: everything was looked at; `report` says whether it is in order. ERROR_BAD_FORMAT: not a
// native media file at all. ERROR_SHARING_VIOLATION: it is being written. Others: it could not be
// read to the end.
HRESULT Check(std::unique_ptr<zemstore::IStoreFile> file, Report& report);

}  // namespace zemfsck
