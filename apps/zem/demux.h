// Coded packets of a clip, in the order in which they lie in it, through the FFmpeg libraries.
// Nothing is decoded or changed. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mediaio/zemiotypes.h"

struct AVStream;

namespace zem {

class CJson;

struct ClipStream {
    std::string suffix;  // v0, v1, a0 ...
    std::string codecName;
    ZemEsDesc desc{};
    std::string timecode;  // of the first frame, as the clip spells it; empty: none
};

struct ClipPacket {
    size_t stream = 0;              // index into Streams()
    std::span<const uint8_t> data;  // valid until the next Next
    bool isKey = false;
    int64_t dts = 0;  // in units of the stream's time base; kNoTime where the clip has none
    int64_t pts = 0;
    int64_t duration = 0;  // 0: unknown
};
inline constexpr int64_t kNoTime = INT64_MIN;

class CDemuxer {
public:
    // Opens a file of this machine ("-" is the standard input). Throws CZemError(kLocalFile), and
    // kInterrupted when a stop ends the wait for a pipe. So does Next.
    explicit CDemuxer(const std::string& path);
    ~CDemuxer();
    CDemuxer(const CDemuxer&) = delete;
    CDemuxer& operator=(const CDemuxer&) = delete;

    // The video and audio streams; cover pictures and streams of other kinds are counted only.
    const std::vector<ClipStream>& Streams() const { return m_streams; }
    int SkippedStreams() const { return m_skipped; }

    // The next packet of those streams; false at the end of the clip. Throws CZemError(kLocalFile)
    // also for a clip that is cut off, as far as that can be told. Of the first one also what a
    // pipe may have to do with it.
    bool Next(ClipPacket& packet);

    // libavformat's own description of a stream of Streams(); valid as long as the demuxer.
    const AVStream& Source(size_t stream) const;

    uint64_t Position_bytes() const;
    uint64_t Size_bytes() const;  // 0 when unknown

private:
    struct Context;
    void OpenInput();
    std::string Head() const;
    bool IsEmpty(const std::string& head, int result) const;
    void FindStreams();
    bool IsMov() const;
    bool AtEnd() const;
    size_t SourceIndex(size_t stream) const;
    void RequireWhole(uint64_t end) const;
    void RequireEnd() const;
    [[noreturn]] void ThrowCut(const std::string& where) const;
    void ExplainPipe() const;
    std::string m_path;
    std::unique_ptr<Context> m_context;
    std::vector<ClipStream> m_streams;
    std::vector<size_t> m_streamOfIndex;
    std::vector<uint64_t> m_taken;  // packets of each stream
    bool m_begun = false;           // there was a first packet
    int m_skipped = 0;
};

// "HH:MM:SS:FF", ';' before the frames for drop-frame, ".1" behind the second frame of a pair.
std::string TimecodeText(const vdrTimecode_s& timecode);
// The timecode of the first frame, marked as drop-frame where the file is counted so: the mark of
// the address itself may be missing.
vdrTimecode_s StartTimecode(const ZemEsDesc& desc);
bool IsDropFrame(const vdrTimecode_s& timecode);

// The four characters of a codec, dots for what is not printable.
std::string FourccText(uint32_t codec);
// "jpeg (mjpeg)": those, and the FFmpeg libraries' name where they know the four.
std::string CodecText(const ZemEsDesc& desc);
// The same as "codec" and "codec_name", which is null where there is none.
CJson& TellCodec(CJson& json, const ZemEsDesc& desc);

}  // namespace zem
