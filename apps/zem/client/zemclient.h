// The client of a media server: every command of the protocol as a function, on one connection. A
// function returns what the server answered or throws CZemError. What the protocol does not say
// this class cannot know: most replies carry only "the reply was built", so a caller that must be
// sure checks the effect (a token of 0, a file's attributes, a frame read back). An object belongs
// to one thread at a time.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "apps/zem/client/httpconn.h"
#include "apps/zem/client/wire.h"

namespace zem {

// Positions that one request for descriptors asks for. Its reply is built inside the server's
// 4096-byte request buffer, behind the request's own headers: so many fit whatever was sent.
inline constexpr uint32_t kFrameDescBatch = 64;

class CZemClient {
public:
    explicit CZemClient(ConnectionOptions options);

    // Client table. Joining again is harmless; a server drops a client that was silent for 50
    // seconds.
    void Join(uint32_t channel_id);
    void Leave();
    void KeepAlive();
    void SetIoRealTime();

    // Files. Create and Open return a token that is never 0: the 0 of a failed operation is thrown
    // as kRefused. A stop does not break a creation off once it is sent: who is told that a file
    // was made can put it away.
    uint64_t Create(std::u16string_view name, std::u16string_view aux, const ZemEsDesc& desc,
                    uint32_t create_flags);
    uint64_t Open(const FileRef& file, bool open_bool = false);
    void Close(uint64_t token);

    // Queries. A descriptor whose version word is not the known one means that there is no such
    // file (kRefused).
    ZemEsDesc FileInfo(uint64_t token);
    ZemEsDesc FileInfo(const FileRef& file);
    // Positions past the last frame give all-zero entries. Any count is allowed: it is asked for in
    // batches.
    std::vector<FrameDescEntry> FrameDescs(uint64_t token, uint32_t position, uint32_t count,
                                           int32_t rate = kFrameRateFile);
    std::vector<FrameDescEntry> FrameDescs(const FileRef& file, uint32_t position, uint32_t count);
    FileMarks Marks(uint64_t token);
    FileMarks Marks(const FileRef& file);

    // Maintenance.
    void Flush(uint64_t token);
    void StripeTimecode(const FileRef& file, const vdrTimecode_s& start, uint32_t flags);
    // Erases the frames from the first up to, but not including, the end.
    void EraseSegment(uint64_t token, uint32_t first, uint32_t end, int32_t media_type);

    // File system. The answers are what the server's library left in its outputs, success or not.
    VolumeSpace Space(std::u16string_view volume);
    uint32_t Attributes(std::u16string_view name);  // kNoAttributes: there is no such file
    uint64_t Size_bytes(std::u16string_view name);
    void Remove(std::u16string_view name);
    void MakeDirectory(std::u16string_view name);
    void Move(std::u16string_view from, std::u16string_view to);

    // Configuration of this client's channel. UpdateConfig alone reports the library's own result.
    void UpdateConfig(std::u16string_view xml);
    void SetConfigAttribute(std::u16string_view name, std::u16string_view value);

    // Frames. The streams' data stay valid until the next call; failed streams have a negative
    // status.
    std::span<const StreamFrame> ReadFrames(std::span<const ReadEntry> entries, uint32_t word = 0);
    // The payload is the buffers of all entries, one after another. S_OK does not mean that it was
    // written.
    void WriteFrames(std::span<const WriteEntry> entries, std::span<const uint8_t> payload,
                     uint32_t word = 0);

    // The plain pages and files.
    CHttpConnection& Http() { return m_http; }

private:
    CheckedReply Exchange(CRequest request, size_t body_bytes,
                          CHttpConnection::OnStop onStop = CHttpConnection::OnStop::kBreakOff);
    CheckedReply Exchange(CRequest request);
    uint32_t NextTransId();

    CHttpConnection m_http;
    HttpReply m_reply;  // the last answer; what functions return by reference lies in it
    std::vector<StreamFrame> m_frames;
    uint32_t m_trans_id = 0;
};

}  // namespace zem
