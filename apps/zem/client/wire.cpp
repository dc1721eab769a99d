// Commands into bytes; wirereply.cpp has the way back. The offsets follow the protocol document;
// see wire.h for the rules.
#include "apps/zem/client/wire.h"

#include <string>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {
namespace {

constexpr std::array<CommandInfo, kCommandCount> kCommands = {{
    {Command::kCreateFile, "CMD_CREATE_FILE", 2},
    {Command::kOpenFile, "CMD_OPEN_FILE", 2},
    {Command::kReadFrame, "CMD_READ_FRAME", 3},
    {Command::kWriteFrame, "CMD_WRITE_FRAME", 4},
    {Command::kCloseFile, "CMD_CLOSE_FILE", 5},
    {Command::kGetFileInfo, "CMD_GET_FILE_INFO", 6},
    {Command::kGetFileInfo2, "CMD_GET_FILE_INFO2", 6},
    {Command::kGetFrameDesc, "CMD_GET_FRAME_DESC", 7},
    {Command::kGetFrameDesc2, "CMD_GET_FRAME_DESC2", 7},
    {Command::kFlushBuffers, "CMD_FLUSH_BUFFERS", 8},
    {Command::kGetFileMarks, "CMD_GET_FILE_MARKS", 9},
    {Command::kGetFileMarks2, "CMD_GET_FILE_MARKS2", 9},
    {Command::kStripeTimecode, "CMD_STRIPE_TIMECODE", 10},
    {Command::kUpdateCfg, "CMD_UPDATE_CFG", 11},
    {Command::kJoin, "CMD_JOIN", 12},
    {Command::kLeave, "CMD_LEAVE", 13},
    {Command::kKeepAlive, "CMD_KEEP_ALIVE", 14},
    {Command::kSetIoRealTime, "CMD_SET_IO_REAL_TIME", 15},
    {Command::kQueryFilesystemSpace, "CMD_QUERY_FILESYSTEM_SPACE", 16},
    {Command::kGetFileAttribs, "CMD_GET_FILE_ATTRIBS", 17},
    {Command::kDeleteFile, "CMD_DELETE_FILE", 18},
    {Command::kGetFileSize, "CMD_GET_FILESIZE", 19},
    {Command::kCreateDirectory, "CMD_CREATE_DIRECTORY", 20},
    {Command::kMoveFile, "CMD_MOVE_FILE", 21},
    {Command::kEraseSegment, "CMD_ERASE_SEGMENT", 22},
    {Command::kUpdateCfgAttrStr, "CMD_UPDATE_CFG_ATTR_STR", 23},
}};

template <typename T>
void AppendLe(std::vector<uint8_t>& out, T value) {
    for (size_t i = 0; i < sizeof(T); ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

uint32_t TimecodeWord(const vdrTimecode_s& timecode) {
    return static_cast<uint32_t>(timecode.frames) | static_cast<uint32_t>(timecode.seconds) << 8 |
           static_cast<uint32_t>(timecode.minutes) << 16 |
           static_cast<uint32_t>(timecode.hours) << 24;
}

CRequest& PutFileRef(CRequest& request, const FileRef& file) {
    return request.Name(file.name)
        .Name(file.aux)
        .U32(static_cast<uint32_t>(file.mediaType))
        .U32(file.openFlags);
}

void CheckEntryCount(size_t count) {
    if (count < 1 || count > static_cast<size_t>(kMaxStreamEntries))
        throw CZemError(ErrorKind::kUsage, "a frame request takes 1 to 22 streams");
}

}  // namespace

const std::array<CommandInfo, kCommandCount>& Commands() {
    return kCommands;
}

const CommandInfo& InfoOf(Command command) {
    return kCommands.at(static_cast<size_t>(command) - 1);
}

CRequest::CRequest(Command command, uint32_t trans_id) : m_command(command), m_trans_id(trans_id) {
    U32(trans_id).U32(static_cast<uint32_t>(command)).U32(0);
}

CRequest& CRequest::U8(uint8_t value) {
    m_bytes.push_back(value);
    return *this;
}
CRequest& CRequest::U16(uint16_t value) {
    AppendLe(m_bytes, value);
    return *this;
}
CRequest& CRequest::U32(uint32_t value) {
    AppendLe(m_bytes, value);
    return *this;
}
CRequest& CRequest::U64(uint64_t value) {
    AppendLe(m_bytes, value);
    return *this;
}
CRequest& CRequest::Zeros(size_t count_bytes) {
    m_bytes.resize(m_bytes.size() + count_bytes);
    return *this;
}
CRequest& CRequest::Bytes(std::span<const uint8_t> bytes) {
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

CRequest& CRequest::Name(std::u16string_view name) {
    if (name.size() >= kNameField_units) {
        throw CZemError(ErrorKind::kUsage, "a name may have at most 259 characters: '" +
                                               Printable(ToUtf8(name.substr(0, 60))) + "...'");
    }
    if (name.find(u'\0') != std::u16string_view::npos)
        throw CZemError(ErrorKind::kUsage, "a name may not contain a NUL character");
    for (const char16_t unit : name)
        U16(static_cast<uint16_t>(unit));
    return Zeros(2 * (kNameField_units - name.size()));
}

CRequest& CRequest::Text(std::u16string_view text) {
    if (text.find(u'\0') != std::u16string_view::npos)
        throw CZemError(ErrorKind::kUsage, "a text may not contain a NUL character");
    m_bytes.reserve(m_bytes.size() + 2 * text.size() + 2);
    for (const char16_t unit : text)
        U16(static_cast<uint16_t>(unit));
    return U16(0);
}

CRequest& CRequest::EsDesc(const ZemEsDesc& desc) {
    return U32(desc.sizeVersion)
        .U32(static_cast<uint32_t>(desc.mediaType))
        .U32(desc.codec)
        .U32(desc.rateNumerator)
        .U32(desc.rateDenominator)
        .U32(desc.width)
        .U32(desc.height)
        .U32(desc.sampleRate)
        .U16(desc.channels)
        .U16(desc.bitsPerSample)
        .U32(desc.frameCount)
        .U32(TimecodeWord(desc.startTimecode))
        .U32(desc.flags)
        .U32(desc.reserved[0])
        .U32(desc.reserved[1]);
}

CRequest& CRequest::Payload(std::span<const uint8_t> bytes) {
    m_payload_bytes += bytes.size();
    return Bytes(bytes);
}

std::span<const uint8_t> CRequest::Finish() {
    const size_t body = m_bytes.size() - m_payload_bytes - kHeaderSize_bytes;
    if (body > 0xFFFFFFF0u) throw CZemError(ErrorKind::kUsage, "the request is too large");
    for (size_t i = 0; i < 4; ++i)
        m_bytes[8 + i] = static_cast<uint8_t>(body >> (8 * i));
    return m_bytes;
}

CRequest MakeJoin(uint32_t trans_id, uint32_t channel_id) {
    CRequest request(Command::kJoin, trans_id);
    request.U32(channel_id);
    return request;
}

CRequest MakeBare(Command command, uint32_t trans_id) {
    return CRequest(command, trans_id);
}

CRequest MakeCreateFile(uint32_t trans_id, std::u16string_view name, std::u16string_view aux,
                        const ZemEsDesc& desc, uint32_t create_flags) {
    CRequest request(Command::kCreateFile, trans_id);
    request.Name(name).Name(aux).EsDesc(desc).U32(create_flags);
    return request;
}

CRequest MakeOpenFile(uint32_t trans_id, const FileRef& file, bool open_bool) {
    CRequest request(Command::kOpenFile, trans_id);
    // The boolean is the second byte of the last word; the others are padding.
    PutFileRef(request, file).U8(0).U8(open_bool ? 1 : 0).Zeros(2);
    return request;
}

CRequest MakeToken(Command command, uint32_t trans_id, uint64_t token) {
    CRequest request(command, trans_id);
    request.U64(token);
    return request;
}

CRequest MakeFileRef(Command command, uint32_t trans_id, const FileRef& file) {
    CRequest request(command, trans_id);
    PutFileRef(request, file);
    return request;
}

CRequest MakeFrameDesc(uint32_t trans_id, uint64_t token, uint32_t position, int32_t count,
                       int32_t rate) {
    CRequest request(Command::kGetFrameDesc, trans_id);
    request.U64(token).U32(position).U32(static_cast<uint32_t>(count));
    request.U32(static_cast<uint32_t>(rate));
    return request;
}

CRequest MakeFrameDesc2(uint32_t trans_id, const FileRef& file, uint32_t position, int32_t count) {
    CRequest request(Command::kGetFrameDesc2, trans_id);
    PutFileRef(request, file).U32(position).U32(static_cast<uint32_t>(count));
    return request;
}

CRequest MakeStripe(uint32_t trans_id, const FileRef& file, const vdrTimecode_s& start,
                    uint32_t flags) {
    CRequest request(Command::kStripeTimecode, trans_id);
    PutFileRef(request, file).U32(TimecodeWord(start)).U32(flags);
    return request;
}

CRequest MakeErase(uint32_t trans_id, uint64_t token, uint32_t segment_a, uint32_t segment_b,
                   int32_t media_type) {
    CRequest request(Command::kEraseSegment, trans_id);
    request.U64(token).U32(segment_a).U32(segment_b).U32(static_cast<uint32_t>(media_type));
    return request;
}

CRequest MakeName(Command command, uint32_t trans_id, std::u16string_view name) {
    CRequest request(command, trans_id);
    request.Name(name);
    return request;
}

CRequest MakeMove(uint32_t trans_id, std::u16string_view from, std::u16string_view to) {
    CRequest request(Command::kMoveFile, trans_id);
    request.Name(from).Name(to);
    return request;
}

CRequest MakeUpdateCfg(uint32_t trans_id, std::u16string_view xml) {
    CRequest request(Command::kUpdateCfg, trans_id);
    request.Text(xml);
    return request;
}

CRequest MakeUpdateCfgAttr(uint32_t trans_id, std::u16string_view name, std::u16string_view value) {
    CRequest request(Command::kUpdateCfgAttrStr, trans_id);
    request.Name(name).Text(value);
    return request;
}

CRequest MakeReadFrame(uint32_t trans_id, uint32_t word, std::span<const ReadEntry> entries) {
    CheckEntryCount(entries.size());
    CRequest request(Command::kReadFrame, trans_id);
    request.U32(word).U32(static_cast<uint32_t>(entries.size())).Zeros(8);
    for (const ReadEntry& entry : entries) {
        request.Zeros(8).U64(entry.token).U32(entry.position).U32(entry.streamFlags);
        request.Zeros(56).U64(entry.userData64).Zeros(8);
    }
    return request;
}

CRequest MakeWriteFrame(uint32_t trans_id, uint32_t word, std::span<const WriteEntry> entries) {
    CheckEntryCount(entries.size());
    CRequest request(Command::kWriteFrame, trans_id);
    request.U32(word).U32(static_cast<uint32_t>(entries.size())).Zeros(8);
    for (const WriteEntry& entry : entries) {
        request.Zeros(8).U64(entry.token).U32(entry.position).U32(entry.streamFlags);
        if (IsSpecialToken(entry.token)) {
            request.Bytes(entry.special).Zeros(32);
        } else {
            const size_t buffers = entry.bufferLengths_bytes.size();
            if (buffers > static_cast<size_t>(kMaxBuffersPerEntry))
                throw CZemError(ErrorKind::kUsage, "a stream of a frame takes at most 6 buffers");
            request.U32(static_cast<uint32_t>(buffers)).Zeros(4);
            for (const uint32_t length_bytes : entry.bufferLengths_bytes)
                request.U32(length_bytes).Zeros(4);
            request.Zeros(8 * (static_cast<size_t>(kMaxBuffersPerEntry) - buffers));
        }
        request.U64(entry.userData64).U32(entry.userData32).Zeros(4);
    }
    return request;
}

}  // namespace zem
