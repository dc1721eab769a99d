// What opening a native media file found: for the log, for tests and for the checker.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zemstore {

// An index page that is not what its parent says. `what` is null when there was none.
struct NodeFault {
    const char* what = nullptr;
    uint64_t offset_bytes = 0;
    uint32_t level = 0;
    uint32_t firstPosition = 0;
};

struct LoadReport {
    enum class RootState { kBlank, kValid, kInvalid };
    struct Root {
        RootState state = RootState::kBlank;
        uint64_t generation = 0;
    };
    // A record in the log whose data is not what it says: a write that the power or a process's end
    // cut off.
    struct Torn {
        uint64_t slotOffset_bytes;
        uint32_t position;
        uint32_t dataSize_bytes;
    };
    static constexpr size_t kTornListed = 64;

    Root roots[2];           // of the even and the odd generations
    bool otherRoot = false;  // the index of the newest one could not be read
    bool rebuilt = false;    // nor that of any: the records alone tell what is there
    NodeFault fault;         // why
    uint64_t logStart_bytes = 0;
    uint64_t tailBytes = 0;  // of the log behind the checkpoint
    uint32_t tailRecords = 0;
    uint32_t tornRecords = 0;
    std::vector<Torn> torn;  // the first kTornListed of them
};

}  // namespace zemstore
