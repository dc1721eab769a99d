// The binary protocol: every command as bytes, every reply as values. A request is a 12-byte header
// (transaction id, command code, body size) and a body; a reply is a 12-byte header (the same id,
// the reply code, body size), a body and, for frame reads, frame data. Everything is little-endian.
// Nothing received is trusted: each field is read with a bounds check, and no size from the network
// leads to an allocation. Pure functions; any thread.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mediaio/zemiotypes.h"

namespace zem {

enum class Command : uint32_t {
    kCreateFile = 1,
    kOpenFile = 2,
    kReadFrame = 3,
    kWriteFrame = 4,
    kCloseFile = 5,
    kGetFileInfo = 6,
    kGetFileInfo2 = 7,
    kGetFrameDesc = 8,
    kGetFrameDesc2 = 9,
    kFlushBuffers = 10,
    kGetFileMarks = 11,
    kGetFileMarks2 = 12,
    kStripeTimecode = 13,
    kUpdateCfg = 14,
    kJoin = 15,
    kLeave = 16,
    kKeepAlive = 17,
    kSetIoRealTime = 18,
    kQueryFilesystemSpace = 19,
    kGetFileAttribs = 20,
    kDeleteFile = 21,
    kGetFileSize = 22,
    kCreateDirectory = 23,
    kMoveFile = 24,
    kEraseSegment = 25,
    kUpdateCfgAttrStr = 26,
};

struct CommandInfo {
    Command command;
    const char* name;
    uint32_t replyCode;  // a numbering of its own: name and token forms of a query share one
};
inline constexpr size_t kCommandCount = 26;
const std::array<CommandInfo, kCommandCount>& Commands();
const CommandInfo& InfoOf(Command command);

inline constexpr size_t kHeaderSize_bytes = 12;
inline constexpr size_t kNameField_units = 260;
inline constexpr size_t kStreamEntry_bytes = 96;
inline constexpr uint32_t kNoChannel = 255;             // a join with this id joins nothing
inline constexpr uint32_t kNoTransId = 0xFFFFFFFFu;     // the server's own marker, never sent
inline constexpr uint32_t kNoAttributes = 0xFFFFFFFFu;  // attributes of a file that does not exist
inline constexpr uint32_t kAttributeDirectory = 0x10;
inline constexpr uint64_t kMaxFrame_bytes = 251658240;  // the whole of a server's frame memory

// A request under construction. The header's body size is patched by Finish, so a request cannot
// lie about its length.
class CRequest {
public:
    CRequest(Command command, uint32_t trans_id);

    CRequest& U8(uint8_t value);
    CRequest& U16(uint16_t value);
    CRequest& U32(uint32_t value);
    CRequest& U64(uint64_t value);
    CRequest& Zeros(size_t count_bytes);
    CRequest& Bytes(std::span<const uint8_t> bytes);
    // A fixed field of 260 units, zero-filled. Throws CZemError(kUsage) for a name of more than 259
    // units or with a NUL.
    CRequest& Name(std::u16string_view name);
    CRequest& Text(std::u16string_view text);  // as it stands, with a closing NUL
    CRequest& EsDesc(const ZemEsDesc& desc);

    // The request so far with its final header. Frame data is appended behind it with Payload and
    // is not in the count.
    std::span<const uint8_t> Finish();
    CRequest& Payload(std::span<const uint8_t> bytes);

    Command Code() const { return m_command; }
    uint32_t TransId() const { return m_trans_id; }

private:
    std::vector<uint8_t> m_bytes;
    size_t m_payload_bytes = 0;
    Command m_command;
    uint32_t m_trans_id;
};

// A file named by name, as open and the "2" forms of the queries take it.
struct FileRef {
    std::u16string name;
    std::u16string aux;  // stream of a multi-stream file: v0, a1, tc; empty is the first
    int32_t mediaType = kMediaFileAny;
    uint32_t openFlags = kFileRead;
};

// One stream of a frame to write. For a special token `special` travels in the table and there are
// no buffers.
struct WriteEntry {
    uint64_t token = 0;
    uint32_t position = 0;
    uint32_t streamFlags = 0;
    std::vector<uint32_t> bufferLengths_bytes;  // at most 6
    std::array<uint8_t, 24> special{};
    uint64_t userData64 = 0;
    uint32_t userData32 = 0;
};

struct ReadEntry {
    uint64_t token = 0;
    uint32_t position = 0;
    uint32_t streamFlags = 0;
    uint64_t userData64 = 0;
};

// Requests, one function per body shape. Where several commands share a shape the command is an
// argument.
CRequest MakeJoin(uint32_t trans_id, uint32_t channel_id);
CRequest MakeBare(Command command, uint32_t trans_id);  // leave, keep alive, real time
CRequest MakeCreateFile(uint32_t trans_id, std::u16string_view name, std::u16string_view aux,
                        const ZemEsDesc& desc, uint32_t create_flags);
CRequest MakeOpenFile(uint32_t trans_id, const FileRef& file, bool open_bool);
// close, info, marks, flush
CRequest MakeToken(Command command, uint32_t trans_id, uint64_t token);
CRequest MakeFileRef(Command command, uint32_t trans_id, const FileRef& file);  // info2, marks2
CRequest MakeFrameDesc(uint32_t trans_id, uint64_t token, uint32_t position, int32_t count,
                       int32_t rate);
CRequest MakeFrameDesc2(uint32_t trans_id, const FileRef& file, uint32_t position, int32_t count);
CRequest MakeStripe(uint32_t trans_id, const FileRef& file, const vdrTimecode_s& start,
                    uint32_t flags);
CRequest MakeErase(uint32_t trans_id, uint64_t token, uint32_t segment_a, uint32_t segment_b,
                   int32_t media_type);
CRequest MakeName(Command command, uint32_t trans_id, std::u16string_view name);
CRequest MakeMove(uint32_t trans_id, std::u16string_view from, std::u16string_view to);
CRequest MakeUpdateCfg(uint32_t trans_id, std::u16string_view xml);
CRequest MakeUpdateCfgAttr(uint32_t trans_id, std::u16string_view name, std::u16string_view value);
CRequest MakeReadFrame(uint32_t trans_id, uint32_t word, std::span<const ReadEntry> entries);
CRequest MakeWriteFrame(uint32_t trans_id, uint32_t word, std::span<const WriteEntry> entries);

// What came back over HTTP for one POST.
struct HttpReply {
    int status = 0;
    std::string reason;
    int64_t headerLength_bytes = -1;  // "zem-resphdr-len"; -1 when absent or not a number
    std::string protocolVersion;      // "zem-ver"
    std::vector<uint8_t> entity;
};

// A reply that belongs to its request: code, id, sizes and headers agree, and nothing in it says
// that it failed.
struct CheckedReply {
    std::span<const uint8_t> body;     // into HttpReply::entity
    std::span<const uint8_t> payload;  // frame data behind the body
};

// Checks all that every reply has in common. `body_bytes` is the size that a good reply's body must
// have. Throws CZemError: kRefused (with its HRESULT) when the server said no, kBadReply when the
// bytes do not follow the protocol.
CheckedReply CheckReply(const HttpReply& reply, Command command, uint32_t trans_id,
                        size_t body_bytes);

// Size of the body of a good reply: fixed per command but for the frame descriptors and the frame
// reads.
size_t ReplyBodySize_bytes(Command command);
size_t FrameDescBodySize_bytes(Command command, uint32_t count);
size_t ReadFrameBodySize_bytes(size_t entry_count);

struct FrameDescEntry {
    uint32_t dataSize = 0;
    uint32_t flags = 0;
    vdrTimecode_s timecode{};
};

struct FileMarks {
    uint32_t first = 0;
    uint32_t second = 0;
};

struct VolumeSpace {
    uint64_t total_bytes = 0;
    uint64_t free_bytes = 0;
};

// One stream of a frame that was read. `data` points into the reply.
struct StreamFrame {
    int32_t status = 0;
    uint64_t token = 0;
    uint32_t position = 0;
    uint32_t streamFlags = 0;
    std::span<const uint8_t> data;
    std::array<uint8_t, 24> special{};  // of a special token
    uint64_t userData64 = 0;
    uint32_t userData32 = 0;
};

uint64_t DecodeToken(const CheckedReply& reply);
ZemEsDesc DecodeEsDesc(const CheckedReply& reply);
std::vector<FrameDescEntry> DecodeFrameDescs(const CheckedReply& reply, uint32_t count);
FileMarks DecodeMarks(const CheckedReply& reply);
VolumeSpace DecodeSpace(const CheckedReply& reply);
uint32_t DecodeAttributes(const CheckedReply& reply);
uint64_t DecodeFileSize(const CheckedReply& reply);

// The reply of a frame read differs from all others: a read that ended in an error still carries
// its whole table under HTTP status 500. Throws as CheckReply; the streams' own failures are in
// their status.
std::vector<StreamFrame> DecodeReadFrame(const HttpReply& reply, uint32_t trans_id,
                                         std::span<const ReadEntry> asked);

}  // namespace zem
