// Replies from bytes. The offsets follow the protocol document; see wire.h for the rules.
#include "apps/zem/client/wire.h"

#include <algorithm>
#include <string>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {
namespace {

[[noreturn]] void ThrowBadReply(const std::string& message) {
    throw CZemError(ErrorKind::kBadReply, "the server's answer cannot be understood: " + message);
}

template <typename T>
T ReadLe(std::span<const uint8_t> bytes, size_t offset) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T))
        ThrowBadReply("it ends inside a field");
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) {
        value =
            static_cast<T>(value | static_cast<T>(static_cast<T>(bytes[offset + i]) << (8 * i)));
    }
    return value;
}

uint32_t U32At(std::span<const uint8_t> bytes, size_t offset) {
    return ReadLe<uint32_t>(bytes, offset);
}
uint64_t U64At(std::span<const uint8_t> bytes, size_t offset) {
    return ReadLe<uint64_t>(bytes, offset);
}

vdrTimecode_s TimecodeAt(std::span<const uint8_t> bytes, size_t offset) {
    const uint32_t word = U32At(bytes, offset);
    return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
            static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
}

}  // namespace

size_t ReplyBodySize_bytes(Command command) {
    switch (command) {
        case Command::kCreateFile:
        case Command::kOpenFile:
        case Command::kGetFileSize:
            return 16;
        case Command::kGetFileInfo:
        case Command::kGetFileInfo2:
            return 60;
        case Command::kGetFileMarks:
        case Command::kGetFileMarks2:
            return 12;
        case Command::kQueryFilesystemSpace:
            return 24;
        case Command::kGetFileAttribs:
            return 8;
        default:
            return 4;
    }
}

size_t FrameDescBodySize_bytes(Command command, uint32_t count) {
    // The name form's reply is longer than its entries; the bytes behind the last entry mean
    // nothing.
    if (command == Command::kGetFrameDesc2) return size_t{24} * count - 4;
    return 8 + size_t{12} * count;
}

size_t ReadFrameBodySize_bytes(size_t entry_count) {
    // The size counts 144 bytes per further stream although the entries stand 96 bytes apart.
    return (entry_count - 1) * 144 + 104;
}

namespace {

struct ReplyHead {
    uint32_t code;
    uint32_t bodySize_bytes;
};

// What a reply without a usable entity means is in its HTTP status line alone.
[[noreturn]] void ThrowWithoutEntity(const HttpReply& reply, Command command) {
    const std::string what = std::string(InfoOf(command).name) + ": HTTP " +
                             std::to_string(reply.status) + " " + Printable(reply.reason);
    if (reply.status == 200) ThrowBadReply(what + " without a reply header");
    if (reply.status == 500) {
        throw CZemError(ErrorKind::kRefused, "the server could not read the request: " + what,
                        kHrUnexpected);
    }
    throw CZemError(ErrorKind::kBadReply, "this does not look like a media server: " + what, 0,
                    kReasonOtherServer);
}

ReplyHead CheckHead(const HttpReply& reply, Command command, uint32_t trans_id) {
    if (reply.entity.size() < kHeaderSize_bytes || reply.protocolVersion.empty() ||
        (reply.status != 200 && reply.status != 500)) {
        ThrowWithoutEntity(reply, command);
    }
    if (reply.protocolVersion != "1")
        ThrowBadReply("protocol version '" + Printable(reply.protocolVersion) + "', expected '1'");
    const std::span<const uint8_t> entity(reply.entity);
    const ReplyHead head{U32At(entity, 4), U32At(entity, 8)};
    if (U32At(entity, 0) != trans_id) ThrowBadReply("it belongs to another transaction");
    if (head.bodySize_bytes > entity.size() - kHeaderSize_bytes) {
        ThrowBadReply("it declares " + std::to_string(head.bodySize_bytes) + " body bytes, " +
                      std::to_string(entity.size() - kHeaderSize_bytes) + " arrived");
    }
    if (reply.headerLength_bytes !=
        static_cast<int64_t>(head.bodySize_bytes) + static_cast<int64_t>(kHeaderSize_bytes)) {
        ThrowBadReply("its zem-resphdr-len header and its body size disagree");
    }
    return head;
}

[[noreturn]] void ThrowRefused(Command command, int32_t hr) {
    throw CZemError(
        ErrorKind::kRefused,
        std::string("the server refused ") + InfoOf(command).name + ": " + HresultText(hr), hr);
}

// A failure carries its HRESULT in a 4-byte body, under the reply's own code or, when the server
// gave up before a handler could answer, under the request's code.
[[noreturn]] void ThrowFailure(const HttpReply& reply, Command command, const ReplyHead& head) {
    const uint32_t own = InfoOf(command).replyCode;
    if (head.code != own && head.code != static_cast<uint32_t>(command))
        ThrowBadReply("reply code " + std::to_string(head.code) + " for " + InfoOf(command).name);
    if (head.bodySize_bytes < 4) ThrowBadReply("a failure without its result");
    const auto hr = static_cast<int32_t>(U32At(reply.entity, kHeaderSize_bytes));
    ThrowRefused(command, hr == 0 ? kHrFail : hr);
}

CheckedReply Slice(const HttpReply& reply, const ReplyHead& head) {
    const std::span<const uint8_t> entity(reply.entity);
    return {entity.subspan(kHeaderSize_bytes, head.bodySize_bytes),
            entity.subspan(kHeaderSize_bytes + head.bodySize_bytes)};
}

}  // namespace

CheckedReply CheckReply(const HttpReply& reply, Command command, uint32_t trans_id,
                        size_t body_bytes) {
    const ReplyHead head = CheckHead(reply, command, trans_id);
    if (reply.status != 200) ThrowFailure(reply, command, head);
    if (head.code != InfoOf(command).replyCode) {
        ThrowBadReply("reply code " + std::to_string(head.code) + " for " + InfoOf(command).name +
                      ", expected " + std::to_string(InfoOf(command).replyCode));
    }
    if (head.bodySize_bytes != body_bytes) {
        ThrowBadReply(std::string(InfoOf(command).name) + " with a body of " +
                      std::to_string(head.bodySize_bytes) + " bytes, expected " +
                      std::to_string(body_bytes));
    }
    const CheckedReply checked = Slice(reply, head);
    if (!checked.payload.empty()) ThrowBadReply("bytes behind the reply body");
    const auto hr = static_cast<int32_t>(U32At(checked.body, 0));
    if (hr < 0) ThrowRefused(command, hr);
    return checked;
}

uint64_t DecodeToken(const CheckedReply& reply) {
    return U64At(reply.body, 8);
}

ZemEsDesc DecodeEsDesc(const CheckedReply& reply) {
    const std::span<const uint8_t> bytes =
        reply.body.subspan(std::min<size_t>(4, reply.body.size()));
    ZemEsDesc desc{};
    desc.sizeVersion = U32At(bytes, 0);
    desc.mediaType = static_cast<int32_t>(U32At(bytes, 4));
    desc.codec = U32At(bytes, 8);
    desc.rateNumerator = U32At(bytes, 12);
    desc.rateDenominator = U32At(bytes, 16);
    desc.width = U32At(bytes, 20);
    desc.height = U32At(bytes, 24);
    desc.sampleRate = U32At(bytes, 28);
    desc.channels = ReadLe<uint16_t>(bytes, 32);
    desc.bitsPerSample = ReadLe<uint16_t>(bytes, 34);
    desc.frameCount = U32At(bytes, 36);
    desc.startTimecode = TimecodeAt(bytes, 40);
    desc.flags = U32At(bytes, 44);
    desc.reserved[0] = U32At(bytes, 48);
    desc.reserved[1] = U32At(bytes, 52);
    return desc;
}

std::vector<FrameDescEntry> DecodeFrameDescs(const CheckedReply& reply, uint32_t count) {
    if (U32At(reply.body, 4) != count) ThrowBadReply("another number of frames than asked for");
    if ((reply.body.size() - 8) / 12 < count) ThrowBadReply("it ends inside its frame list");
    std::vector<FrameDescEntry> entries(count);
    for (size_t i = 0; i < count; ++i) {
        const size_t at = 8 + 12 * i;
        entries[i] = {U32At(reply.body, at), U32At(reply.body, at + 4),
                      TimecodeAt(reply.body, at + 8)};
    }
    return entries;
}

FileMarks DecodeMarks(const CheckedReply& reply) {
    return {U32At(reply.body, 4), U32At(reply.body, 8)};
}

VolumeSpace DecodeSpace(const CheckedReply& reply) {
    return {U64At(reply.body, 8), U64At(reply.body, 16)};
}

uint32_t DecodeAttributes(const CheckedReply& reply) {
    return U32At(reply.body, 4);
}
uint64_t DecodeFileSize(const CheckedReply& reply) {
    return U64At(reply.body, 8);
}

std::vector<StreamFrame> DecodeReadFrame(const HttpReply& reply, uint32_t trans_id,
                                         std::span<const ReadEntry> asked) {
    constexpr Command kRead = Command::kReadFrame;
    const ReplyHead head = CheckHead(reply, kRead, trans_id);
    if (head.code != InfoOf(kRead).replyCode) ThrowFailure(reply, kRead, head);
    if (head.bodySize_bytes == 4) {
        const auto hr = static_cast<int32_t>(U32At(reply.entity, kHeaderSize_bytes));
        if (hr < 0) ThrowRefused(kRead, hr);
        // The server says S_OK here whatever the reason; only its log knows.
        throw CZemError(ErrorKind::kRefused,
                        "the server did not start the frame read: this client is not joined (any "
                        "more), or the server is out of frame blocks; its log has the reason",
                        kHrFail);
    }
    if (head.bodySize_bytes != ReadFrameBodySize_bytes(asked.size()))
        ThrowBadReply("a stream table of " + std::to_string(head.bodySize_bytes) + " bytes");
    const CheckedReply checked = Slice(reply, head);
    if (U32At(checked.body, 4) != asked.size()) ThrowBadReply("another number of streams");
    std::vector<StreamFrame> frames(asked.size());
    uint64_t used_bytes = 0;
    for (size_t i = 0; i < asked.size(); ++i) {
        const std::span<const uint8_t> entry =
            checked.body.subspan(8 + kStreamEntry_bytes * i, kStreamEntry_bytes);
        StreamFrame& frame = frames[i];
        frame.status = static_cast<int32_t>(U32At(entry, 0));
        frame.token = U64At(entry, 8);
        frame.position = U32At(entry, 16);
        frame.streamFlags = U32At(entry, 20);
        frame.userData64 = U64At(entry, 80);
        frame.userData32 = U32At(entry, 88);
        if (frame.token != asked[i].token) ThrowBadReply("a stream that was not asked for");
        if (IsSpecialToken(frame.token)) {
            std::copy_n(entry.begin() + 24, frame.special.size(), frame.special.begin());
            continue;
        }
        if (frame.status < 0 || (frame.streamFlags & kStreamFlagNoData) != 0) continue;
        const uint32_t length_bytes = U32At(entry, 32);
        if (length_bytes > checked.payload.size() - used_bytes) {
            ThrowBadReply("a frame of " + std::to_string(length_bytes) + " bytes, " +
                          std::to_string(checked.payload.size() - used_bytes) + " arrived");
        }
        frame.data = checked.payload.subspan(used_bytes, length_bytes);
        used_bytes += length_bytes;
    }
    if (used_bytes != checked.payload.size()) ThrowBadReply("bytes behind the last frame");
    return frames;
}

}  // namespace zem
