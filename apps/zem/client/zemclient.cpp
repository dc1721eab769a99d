// The commands as exchanges on the connection: build, post, check, decode.
#include "apps/zem/client/zemclient.h"

#include <algorithm>
#include <utility>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {
namespace {

// Any answer but a frame: generous, yet nothing that could hurt.
constexpr uint64_t kSmallReplyLimit_bytes = 65536;
constexpr uint64_t kFrameReplyLimit_bytes = kMaxFrame_bytes + 65536;

uint64_t TokenOf(const CheckedReply& reply, const char* what, std::u16string_view name) {
    const uint64_t token = DecodeToken(reply);
    if (token == 0) {
        throw CZemError(ErrorKind::kRefused,
                        std::string("the server could not ") + what + " '" +
                            Printable(ToUtf8(name)) + "' (its log has the reason)",
                        kHrFail);
    }
    return token;
}

ZemEsDesc CheckedDesc(const CheckedReply& reply) {
    const ZemEsDesc desc = DecodeEsDesc(reply);
    if (desc.sizeVersion != kEsDescVersion1) {
        throw CZemError(ErrorKind::kRefused,
                        "the server has no information about this file (its log has the reason)",
                        kHrFail);
    }
    return desc;
}

template <typename Ask>
std::vector<FrameDescEntry> InBatches(uint32_t position, uint32_t count, Ask ask) {
    std::vector<FrameDescEntry> all;
    for (uint32_t done = 0; done < count;) {
        const uint32_t batch = std::min(kFrameDescBatch, count - done);
        const std::vector<FrameDescEntry> some = ask(position + done, batch);
        all.insert(all.end(), some.begin(), some.end());
        done += batch;
    }
    return all;
}

}  // namespace

CZemClient::CZemClient(ConnectionOptions options) : m_http(std::move(options)) {}

uint32_t CZemClient::NextTransId() {
    if (++m_trans_id == kNoTransId) m_trans_id = 1;
    return m_trans_id;
}

CheckedReply CZemClient::Exchange(CRequest request, size_t body_bytes,
                                  CHttpConnection::OnStop onStop) {
    m_reply = m_http.Post(request.Finish(), kSmallReplyLimit_bytes, onStop);
    return CheckReply(m_reply, request.Code(), request.TransId(), body_bytes);
}

CheckedReply CZemClient::Exchange(CRequest request) {
    const size_t body_bytes = ReplyBodySize_bytes(request.Code());
    return Exchange(std::move(request), body_bytes);
}

void CZemClient::Join(uint32_t channel_id) {
    Exchange(MakeJoin(NextTransId(), channel_id));
}
void CZemClient::Leave() {
    Exchange(MakeBare(Command::kLeave, NextTransId()));
}
void CZemClient::KeepAlive() {
    Exchange(MakeBare(Command::kKeepAlive, NextTransId()));
}
void CZemClient::SetIoRealTime() {
    Exchange(MakeBare(Command::kSetIoRealTime, NextTransId()));
}

uint64_t CZemClient::Create(std::u16string_view name, std::u16string_view aux,
                            const ZemEsDesc& desc, uint32_t create_flags) {
    CRequest request = MakeCreateFile(NextTransId(), name, aux, desc, create_flags);
    const size_t body_bytes = ReplyBodySize_bytes(request.Code());
    return TokenOf(
        Exchange(std::move(request), body_bytes, CHttpConnection::OnStop::kWaitForAnswer), "create",
        name);
}

uint64_t CZemClient::Open(const FileRef& file, bool open_bool) {
    return TokenOf(Exchange(MakeOpenFile(NextTransId(), file, open_bool)), "open", file.name);
}

void CZemClient::Close(uint64_t token) {
    Exchange(MakeToken(Command::kCloseFile, NextTransId(), token));
}

ZemEsDesc CZemClient::FileInfo(uint64_t token) {
    return CheckedDesc(Exchange(MakeToken(Command::kGetFileInfo, NextTransId(), token)));
}

ZemEsDesc CZemClient::FileInfo(const FileRef& file) {
    return CheckedDesc(Exchange(MakeFileRef(Command::kGetFileInfo2, NextTransId(), file)));
}

std::vector<FrameDescEntry> CZemClient::FrameDescs(uint64_t token, uint32_t position,
                                                   uint32_t count, int32_t rate) {
    return InBatches(position, count, [&](uint32_t from, uint32_t batch) {
        return DecodeFrameDescs(
            Exchange(MakeFrameDesc(NextTransId(), token, from, static_cast<int32_t>(batch), rate),
                     FrameDescBodySize_bytes(Command::kGetFrameDesc, batch)),
            batch);
    });
}

std::vector<FrameDescEntry> CZemClient::FrameDescs(const FileRef& file, uint32_t position,
                                                   uint32_t count) {
    return InBatches(position, count, [&](uint32_t from, uint32_t batch) {
        return DecodeFrameDescs(
            Exchange(MakeFrameDesc2(NextTransId(), file, from, static_cast<int32_t>(batch)),
                     FrameDescBodySize_bytes(Command::kGetFrameDesc2, batch)),
            batch);
    });
}

FileMarks CZemClient::Marks(uint64_t token) {
    return DecodeMarks(Exchange(MakeToken(Command::kGetFileMarks, NextTransId(), token)));
}

FileMarks CZemClient::Marks(const FileRef& file) {
    return DecodeMarks(Exchange(MakeFileRef(Command::kGetFileMarks2, NextTransId(), file)));
}

void CZemClient::Flush(uint64_t token) {
    Exchange(MakeToken(Command::kFlushBuffers, NextTransId(), token));
}

void CZemClient::StripeTimecode(const FileRef& file, const vdrTimecode_s& start, uint32_t flags) {
    Exchange(MakeStripe(NextTransId(), file, start, flags));
}

void CZemClient::EraseSegment(uint64_t token, uint32_t first, uint32_t end, int32_t media_type) {
    Exchange(MakeErase(NextTransId(), token, first, end, media_type));
}

VolumeSpace CZemClient::Space(std::u16string_view volume) {
    return DecodeSpace(Exchange(MakeName(Command::kQueryFilesystemSpace, NextTransId(), volume)));
}

uint32_t CZemClient::Attributes(std::u16string_view name) {
    return DecodeAttributes(Exchange(MakeName(Command::kGetFileAttribs, NextTransId(), name)));
}

uint64_t CZemClient::Size_bytes(std::u16string_view name) {
    return DecodeFileSize(Exchange(MakeName(Command::kGetFileSize, NextTransId(), name)));
}

void CZemClient::Remove(std::u16string_view name) {
    Exchange(MakeName(Command::kDeleteFile, NextTransId(), name));
}

void CZemClient::MakeDirectory(std::u16string_view name) {
    Exchange(MakeName(Command::kCreateDirectory, NextTransId(), name));
}

void CZemClient::Move(std::u16string_view from, std::u16string_view to) {
    Exchange(MakeMove(NextTransId(), from, to));
}

void CZemClient::UpdateConfig(std::u16string_view xml) {
    Exchange(MakeUpdateCfg(NextTransId(), xml));
}

void CZemClient::SetConfigAttribute(std::u16string_view name, std::u16string_view value) {
    Exchange(MakeUpdateCfgAttr(NextTransId(), name, value));
}

std::span<const StreamFrame> CZemClient::ReadFrames(std::span<const ReadEntry> entries,
                                                    uint32_t word) {
    CRequest request = MakeReadFrame(NextTransId(), word, entries);
    m_reply = m_http.Post(request.Finish(), kFrameReplyLimit_bytes);
    m_frames = DecodeReadFrame(m_reply, request.TransId(), entries);
    return m_frames;
}

void CZemClient::WriteFrames(std::span<const WriteEntry> entries, std::span<const uint8_t> payload,
                             uint32_t word) {
    uint64_t total_bytes = 0;
    for (const WriteEntry& entry : entries) {
        for (const uint32_t length_bytes : entry.bufferLengths_bytes)
            total_bytes += length_bytes;
    }
    if (total_bytes != payload.size())
        throw CZemError(ErrorKind::kUsage, "the buffer lengths do not add up to the frame data");
    CRequest request = MakeWriteFrame(NextTransId(), word, entries);
    request.Payload(payload);
    Exchange(std::move(request));
}

}  // namespace zem
