// The records that travel in command and reply bodies, each declared once, and the bounded copies
// in and out. Network bytes are never cast: they may lie at any address. All numbers are
// little-endian, offsets count from the start of the body (behind the 12-byte header). Used by the
// workers and, for read replies, the media library's threads.
#pragma once

#include "mediaio/zemiotypes.h"
#include "platform/platform.h"
#include "zemhttpd/commands/command.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

struct ZemRequestHdr {
    DWORD transId;
    DWORD code;
    DWORD dataSize_bytes;
};
static_assert(sizeof(ZemRequestHdr) == 12 && offsetof(ZemRequestHdr, code) == 4);
static_assert(offsetof(ZemRequestHdr, dataSize_bytes) == 8);

struct ZemReplyHdr {
    DWORD transId;    // as it was in the request
    DWORD replyCode;  // in a generic failure reply: the request's command code
    DWORD dataSize_bytes;
};
static_assert(sizeof(ZemReplyHdr) == 12 && offsetof(ZemReplyHdr, replyCode) == 4);
static_assert(offsetof(ZemReplyHdr, dataSize_bytes) == 8);

using WireName = WCHAR[kNameUnits];  // NUL-terminated within the field
static_assert(sizeof(WireName) == 520);

// The two names with which every body that names a media file begins. kRead_bytes is what the
// handlers read of a record: the tail padding of the last word is not part of it.
struct WireFileNames {
    WireName fileName;
    WireName auxName;
    static constexpr size_t kRead_bytes = 1040;
};
static_assert(sizeof(WireFileNames) == 1040 && offsetof(WireFileNames, auxName) == 520);

struct WireNameBlock {  // CMD_GET_FILE_INFO2, CMD_GET_FILE_MARKS2
    WireFileNames names;
    int32_t mediaFileType;
    DWORD openFlags;
    static constexpr size_t kRead_bytes = 1048;
};
static_assert(sizeof(WireNameBlock) == 1048 && offsetof(WireNameBlock, mediaFileType) == 1040);
static_assert(offsetof(WireNameBlock, openFlags) == 1044);

struct WireOpenFile {
    WireNameBlock block;
    BYTE unread;
    BYTE openBool;
    static constexpr size_t kRead_bytes = 1050;
};
static_assert(offsetof(WireOpenFile, openBool) == 1049);

struct WireCreateFile {
    WireFileNames names;
    ZemEsDesc esDesc;
    DWORD createFlags;
    static constexpr size_t kRead_bytes = 1100;
};
static_assert(sizeof(WireCreateFile) == 1100 && offsetof(WireCreateFile, esDesc) == 1040);
static_assert(offsetof(WireCreateFile, createFlags) == 1096);

struct WireToken {  // close, flush, file info, file marks
    ULONGLONG token;
    static constexpr size_t kRead_bytes = 8;
};
static_assert(sizeof(WireToken) == 8);

struct WireFrameDescByToken {
    ULONGLONG token;
    DWORD position;
    LONG count;
    int32_t frameRate;
    static constexpr size_t kRead_bytes = 20;
};
static_assert(offsetof(WireFrameDescByToken, position) == 8 &&
              offsetof(WireFrameDescByToken, count) == 12);
static_assert(offsetof(WireFrameDescByToken, frameRate) == 16);

struct WireFrameDescByName {
    WireNameBlock block;
    DWORD position;
    LONG count;
    static constexpr size_t kRead_bytes = 1056;
};
static_assert(sizeof(WireFrameDescByName) == 1056 &&
              offsetof(WireFrameDescByName, position) == 1048);
static_assert(offsetof(WireFrameDescByName, count) == 1052);

struct WireStripe {
    WireNameBlock block;
    vdrTimecode_s startTimecode;
    DWORD stripeFlags;
    static constexpr size_t kRead_bytes = 1056;
};
static_assert(sizeof(WireStripe) == 1056 && offsetof(WireStripe, startTimecode) == 1048);
static_assert(offsetof(WireStripe, stripeFlags) == 1052);

struct WireErase {
    ULONGLONG token;
    DWORD segmentA;
    DWORD segmentB;
    int32_t mediaFileType;
    static constexpr size_t kRead_bytes = 20;
};
static_assert(offsetof(WireErase, segmentA) == 8 && offsetof(WireErase, segmentB) == 12);
static_assert(offsetof(WireErase, mediaFileType) == 16);

struct WireOneName {  // space, attributes, delete, size, create directory
    WireName name;
    static constexpr size_t kRead_bytes = 520;
};
static_assert(sizeof(WireOneName) == 520);

// Frame reads and writes: a head, then one record per elementary stream.
struct WireFrameHead {
    DWORD requestWord;
    DWORD entryCount;
    BYTE unread[8];
    static constexpr size_t kRead_bytes = 16;
};
static_assert(sizeof(WireFrameHead) == 16 && offsetof(WireFrameHead, entryCount) == 4);

struct WireBufferSlot {
    DWORD length_bytes;
    DWORD unread;
};

struct WireFrameEntry {
    LONG status;  // reply only
    DWORD unread1;
    ULONGLONG token;
    DWORD position;
    DWORD streamFlags;
    union {
        struct {
            LONG bufferCount;
            DWORD unread2;
            WireBufferSlot buffers[kMaxBuffersPerEntry];
        };
        BYTE special[24];  // special tokens: a description, copied as it stands
    };
    ULONGLONG userData64;
    DWORD userData32;
    DWORD unread3;
};
// What the commands read of an entry ends with userData64 in a read, with userData32 in a write.
inline constexpr size_t kReadEntry_bytes = 88;
inline constexpr size_t kWriteEntry_bytes = 92;
static_assert(sizeof(WireFrameEntry) == 96 && offsetof(WireFrameEntry, token) == 8);
static_assert(offsetof(WireFrameEntry, position) == 16 &&
              offsetof(WireFrameEntry, streamFlags) == 20);
static_assert(offsetof(WireFrameEntry, bufferCount) == 24 &&
              offsetof(WireFrameEntry, buffers) == 32);
static_assert(offsetof(WireFrameEntry, special) == 24 &&
              offsetof(WireFrameEntry, userData64) == 80);
static_assert(offsetof(WireFrameEntry, userData32) == 88);

inline constexpr size_t kFirstEntryOffset = 16;  // in the request body; in the reply body it is 8
inline constexpr size_t kFirstReplyEntryOffset = 8;

// CMD_UPDATE_CFG_ATTR_STR: the value behind the name.
inline constexpr size_t kAttrValueOffset = 520;

inline constexpr size_t kFrameDescEntry_bytes = 12;
struct WireFrameDesc {  // reply: what is passed on of a ZemFrameDesc
    DWORD word0;
    DWORD word8;
    DWORD word16;
};
static_assert(sizeof(WireFrameDesc) == kFrameDescEntry_bytes);

// True when `size_bytes` bytes at `offset` lie inside the posted buffer. Bytes there that were not
// received are zero.
inline bool BodyHas(const ZemCommand& command, size_t offset, size_t size_bytes) {
    return offset <= command.bodyRoom_bytes && size_bytes <= command.bodyRoom_bytes - offset;
}

// Copies the read part of a record out of the body; false (and `record` untouched) when it would
// leave the buffer.
template <class Record>
bool CopyFromBody(const ZemCommand& command, size_t offset, Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    if (!BodyHas(command, offset, Record::kRead_bytes)) return false;
    std::memcpy(&record, command.body + offset, Record::kRead_bytes);
    return true;
}

// The same for a single number.
template <class Number>
requires(std::is_arithmetic_v<Number>) bool CopyNumber(const ZemCommand& command, size_t offset,
                                                       Number& value) {
    if (!BodyHas(command, offset, sizeof(Number))) return false;
    std::memcpy(&value, command.body + offset, sizeof(Number));
    return true;
}

// Writes a number or record into a reply body of which `offset + sizeof` bytes were asked for.
template <class Value>
void PutReply(BYTE* replyBody, size_t offset, const Value& value) {
    static_assert(std::is_trivially_copyable_v<Value>);
    std::memcpy(replyBody + offset, &value, sizeof(Value));
}
template <class Value>
void GetReply(const BYTE* replyBody, size_t offset, Value& value) {
    static_assert(std::is_trivially_copyable_v<Value>);
    std::memcpy(&value, replyBody + offset, sizeof(Value));
}

// True when the name field holds a NUL.
inline bool IsTerminated(const WireName& name) {
    for (WCHAR unit : name)
        if (unit == 0) return true;
    return false;
}
inline bool IsTerminated(const WireFileNames& names) {
    return IsTerminated(names.fileName) && IsTerminated(names.auxName);
}
