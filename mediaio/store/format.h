// The native media file to the byte. One file holds one elementary stream; everything is
// little-endian; pages are 4096 bytes; positions in the file are byte offsets.
//
//   0       FileHeader (page), written once
//   4096    Root (page), the even generations      the valid one with the higher generation counts
//   8192    Root (page), the odd generations
//   12288   reserved page, zero
//   16384   the log, to the end of the file
//
// The log only grows and is a sequence of slots and index nodes, each a whole number of pages.
// A slot is [data][zeros][LogRecord]: the data begins at the slot's first byte, the record is its
// last 128 bytes, so one sequential write puts both, and the record proves that the data is
// complete (dataCrc) and lies where it was meant to (slotOffset). Nothing is ever overwritten; what
// was superseded is punched out of the file once no root and no reader needs it.
//
// A checkpoint writes the index nodes that changed (leaves first), waits until they are on the
// device, then writes the next root. So the index of any valid root is whole, and opening a file
// costs its index plus the log from Root.logStart on: there every page's last 128 bytes may be a
// record; those with the right file id, offset and checksums count, in the order of the file.
#pragma once

#include "mediaio/zemiotypes.h"

#include <cstddef>
#include <cstdint>

namespace zemstore {

inline constexpr uint32_t kPageSize = 4096;
inline constexpr uint64_t kRootOffset[2] = {4096, 8192};
inline constexpr uint64_t kLogOffset = 16384;
inline constexpr uint32_t kMaxFrameSize = 251658240;    // the larger frame memory
inline constexpr uint32_t kLastPosition = 0xFFFFFFFEu;  // so that the frame count has room too
inline constexpr uint32_t kFormatVersion = 1;
// Offsets, generations and sequence numbers stay below: nobody gets there by counting, and what is
// added to them does not run over.
inline constexpr uint64_t kCountLimit = uint64_t{1} << 62;

struct FileId {
    uint8_t bytes[16];
    bool operator==(const FileId&) const = default;
};

inline constexpr uint64_t kHeaderMagic = 0x31524F54534D455Aull;  // "ZEMSTOR1"
struct FileHeader {
    uint64_t magic;
    uint32_t version;       // kFormatVersion
    uint32_t size;          // 512
    FileId fileId;          // random; every record and node repeats it
    ZemEsDesc esDesc;       // as created; frameCount 0, of the flags only kEsFlagDropFrame
    uint64_t created;       // 100 ns units since 1601, UTC
    uint32_t incompatible;  // features a reader must know; unknown bits: refuse to open
    uint32_t compatible;    // features a reader may ignore; unknown bits: open read-only
    uint8_t reserved[404];  // 0
    uint32_t crc;           // CRC-32C of the bytes before it
};
static_assert(sizeof(FileHeader) == 512);
static_assert(offsetof(FileHeader, fileId) == 16 && offsetof(FileHeader, esDesc) == 32);
static_assert(offsetof(FileHeader, created) == 88 && offsetof(FileHeader, incompatible) == 96);
static_assert(offsetof(FileHeader, crc) == 508);

inline constexpr uint32_t kMarkUnset = 0xFFFFFFFFu;
inline constexpr uint32_t kSettingStriped = 0x1;    // stripeStart counts for every frame
inline constexpr uint32_t kSettingDropFrame = 0x2;  // in drop-frame

// What a file carries beside its frames.
struct Settings {
    uint32_t firstMark;   // kMarkUnset: the first frame
    uint32_t secondMark;  // kMarkUnset: the end of the file
    vdrTimecode_s stripeStart;
    uint32_t flags;  // kSetting…
};
static_assert(sizeof(Settings) == 16);

inline constexpr uint64_t kRootMagic = 0x31544F4F524D455Aull;  // "ZEMROOT1"
struct Root {
    uint64_t magic;
    FileId fileId;
    uint64_t generation;    // its lowest bit tells which page holds it
    uint64_t logStart;      // records below are in the index; a page boundary
    uint64_t nextSequence;  // of the first record at or after logStart
    uint64_t indexOffset;   // the top index node; 0: the index is empty
    uint32_t indexCrc;      // of that node
    uint32_t frameCount;    // highest position ever written, plus one
    Settings settings;
    uint64_t compactOffset;  // nodes in [compactOffset, compactEnd) lie side by side and are
    uint64_t compactEnd;     // best read in large pieces; a hint, both may be 0
    uint8_t reserved[412];   // 0
    uint32_t crc;            // CRC-32C of the bytes before it
};
static_assert(sizeof(Root) == 512);
static_assert(offsetof(Root, generation) == 24 && offsetof(Root, logStart) == 32);
static_assert(offsetof(Root, nextSequence) == 40 && offsetof(Root, indexOffset) == 48);
static_assert(offsetof(Root, indexCrc) == 56 && offsetof(Root, frameCount) == 60);
static_assert(offsetof(Root, settings) == 64 && offsetof(Root, compactOffset) == 80);
static_assert(offsetof(Root, crc) == 508);

inline constexpr uint32_t kRecordMagic = 0x4345525Au;  // "ZREC"
enum class RecordKind : uint16_t {
    kFrame = 1,     // position, dataSize, dataCrc, flags, timecode, description
    kErase = 2,     // frames position to position + count - 1
    kSettings = 3,  // settings; replaces all of them
};
inline constexpr uint32_t kDescriptionSize = 24;

struct LogRecord {
    uint32_t magic;
    uint16_t kind;
    uint16_t size;  // 128
    FileId fileId;
    uint64_t sequence;    // grows by one with every record of the file
    uint64_t slotOffset;  // where the slot and its data begin
    uint32_t position;
    uint32_t dataSize;
    uint32_t flags;          // kFrameFlagKey
    vdrTimecode_s timecode;  // 0: counted from the file's start
    uint32_t dataCrc;        // CRC-32C of the data
    uint32_t count;
    uint8_t description[kDescriptionSize];  // of a special stream's frame, which has no data
    Settings settings;
    uint8_t reserved[20];  // 0
    uint32_t crc;          // CRC-32C of the bytes before it
};
static_assert(sizeof(LogRecord) == 128);
static_assert(offsetof(LogRecord, fileId) == 8 && offsetof(LogRecord, sequence) == 24);
static_assert(offsetof(LogRecord, slotOffset) == 32 && offsetof(LogRecord, position) == 40);
static_assert(offsetof(LogRecord, dataSize) == 44 && offsetof(LogRecord, timecode) == 52);
static_assert(offsetof(LogRecord, dataCrc) == 56 && offsetof(LogRecord, description) == 64);
static_assert(offsetof(LogRecord, settings) == 88 && offsetof(LogRecord, crc) == 124);

// The slot's length for a frame of data_size bytes.
inline constexpr uint64_t SlotSize(uint64_t data_size) {
    return (data_size + sizeof(LogRecord) + kPageSize - 1) / kPageSize * kPageSize;
}

// The index is a tree of fixed height. A position's bits select, from the top: 5 bits in the top
// node (level 4), 7 bits each in levels 3, 2 and 1, 6 bits in the leaf (level 0).
inline constexpr uint32_t kLeafBits = 6;
inline constexpr uint32_t kInnerBits = 7;
inline constexpr uint32_t kTopLevel = 4;
inline constexpr uint32_t kLeafEntries = 1u << kLeafBits;
inline constexpr uint32_t kInnerChildren = 1u << kInnerBits;
inline constexpr uint32_t LevelShift(uint32_t level) {
    return level == 0 ? 0 : kLeafBits + (level - 1) * kInnerBits;
}

inline constexpr uint32_t kNodeMagic = 0x444F4E5Au;  // "ZNOD"
struct NodeHeader {
    uint32_t magic;
    uint16_t level;
    uint16_t size;  // 64
    FileId fileId;
    uint64_t offset;         // its own
    uint64_t generation;     // of the root that it was written for
    uint32_t firstPosition;  // lowest position below it
    uint8_t reserved[16];    // 0
    uint32_t crc;            // CRC-32C of the whole page with this field 0
};
static_assert(sizeof(NodeHeader) == 64);
static_assert(offsetof(NodeHeader, fileId) == 8 && offsetof(NodeHeader, offset) == 24);
static_assert(offsetof(NodeHeader, firstPosition) == 40 && offsetof(NodeHeader, crc) == 60);

struct ChildRef {
    uint64_t offset;  // 0: nothing there
    uint32_t crc;     // the child's NodeHeader.crc
    uint32_t reserved;
};
static_assert(sizeof(ChildRef) == 16);

struct InnerNode {
    NodeHeader header;
    ChildRef children[kInnerChildren];
    uint8_t reserved[1984];  // 0
};
static_assert(sizeof(InnerNode) == kPageSize && offsetof(InnerNode, children) == 64);

struct FrameEntry {
    uint64_t slotOffset;  // 0 for a frame that is not present or has no data
    uint64_t sequence;    // 0: never written
    uint32_t dataSize;
    uint32_t dataCrc;
    uint32_t flags;  // kFrameFlagKey, kFrameFlagPresent, kFrameFlagErased
    vdrTimecode_s timecode;
    uint8_t description[kDescriptionSize];
};
static_assert(sizeof(FrameEntry) == 56 && offsetof(FrameEntry, description) == 32);

struct LeafNode {
    NodeHeader header;
    FrameEntry entries[kLeafEntries];
    uint8_t reserved[448];  // 0
};
static_assert(sizeof(LeafNode) == kPageSize && offsetof(LeafNode, entries) == 64);

}  // namespace zemstore
