// As much of MXF (SMPTE ST 377-1) as finding frames takes: key-length-value triplets,
// partitions, index table segments. Everything read is checked against the file's size; what is not
// understood makes the caller scan the file instead.
#pragma once

#include "mediaio/foreign/clipindex.h"
#include "mediaio/store/fileio.h"

#pragma GCC visibility push(default)

namespace zemstore {

struct Klv {
    MxfKey key{};
    uint32_t headSize = 0;  // bytes of key and length
    uint64_t length = 0;    // of the value
};

// False when the bytes do not begin with a whole key and length.
bool ParseKlv(const uint8_t* bytes, size_t size, Klv& klv);
bool IsFill(const MxfKey& key);
bool IsEssence(const MxfKey& key);  // an element of the generic container

// Looks for the element `key` in a content package, of which `bytes` lie at `at`.
struct ElementSearch {
    enum { kFound, kReadOn, kMissing } outcome = kMissing;
    uint64_t offset = 0;  // found: of its value; read on: of the next bytes to look at
    uint64_t length = 0;
};
ElementSearch FindElement(const MxfKey& key, uint64_t at, const uint8_t* bytes, size_t size,
                          uint64_t end);
inline constexpr uint32_t kLookSize = 4096;

// The file's one essence container and its index.
struct MxfMap {
    struct Unit {
        uint64_t streamOffset;
        bool key;
    };
    std::vector<Unit> units;     // of a table with an entry for each edit unit
    uint32_t unitSize = 0;       // or: all units have this size
    uint64_t unitCount = 0;      // as the table says; 0: unknown
    uint64_t essenceOffset = 0;  // of its first byte in the file
    uint64_t essenceEnd = 0;     // nothing of it lies behind

    bool Load(IStoreFile& file, uint64_t size_bytes);
    uint64_t FileOffset(uint64_t streamOffset) const;

private:
    struct Partition;
    struct Piece {
        uint64_t streamOffset;
        uint64_t fileOffset;
    };
    bool ReadPartitions(IStoreFile& file, uint64_t size_bytes, std::vector<Partition>& partitions);
    bool ReadSegments(IStoreFile& file, const Partition& partition, uint32_t bodySid);
    bool TakeSegment(const uint8_t* bytes, size_t size, uint32_t bodySid);
    std::vector<Piece> m_pieces;  // by stream offset
    std::vector<std::pair<int64_t, std::vector<Unit>>> m_segments;
};

}  // namespace zemstore

#pragma GCC visibility pop
