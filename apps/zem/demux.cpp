// libavformat behind a narrow door. Streams that the server has no file kind for are left out.
#include "apps/zem/demux.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "apps/zem/averror.h"
#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/clipend.h"
#include "apps/zem/output.h"
#include "apps/zem/pipeinput.h"
#include "mediaio/foreign/avdesc.h"

namespace zem {
namespace {

constexpr size_t kNoStream = static_cast<size_t>(-1);
constexpr const char* kUnreadable = "reading it failed";
// How a file of a server's store begins: docs/media.md.
constexpr std::string_view kStoreHead = "ZEMSTOR1";

bool IsNoClip(int result) {
    return result == AVERROR_INVALIDDATA || result == AVERROR_EOF;
}

// What the libraries call invalid data, an end or, some, an I/O error, whatever it is. `head`: how
// it begins.
const char* WhyNoClip(const std::string& head) {
    const std::string kind = head.substr(std::min<size_t>(4, head.size()));
    if (kind == "ftyp" || kind == "wide" || kind == "mdat" || kind == "moov") {
        return "a MOV or MP4 whose index cannot be read: perhaps it is cut off, or still being "
               "written";
    }
    return "cannot be opened as a clip; perhaps it is none, or it is cut off";
}

// A clip is a file: neither a name with a colon nor a playlist inside it may open a connection.
int Open(AVFormatContext*& format, const std::string& url) {
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file,pipe", 0);
    const int result = avformat_open_input(&format, url.c_str(), nullptr, &options);
    av_dict_free(&options);
    return result;
}

// The read error for which a file of this machine cannot be opened as a clip, of which the library
// keeps nothing: found by opening it once more. 0: there is none.
int ReadErrorOf(const std::string& url) {
    AVIOContext* io = nullptr;
    if (avio_open(&io, url.c_str(), AVIO_FLAG_READ) < 0) return 0;
    AVFormatContext* format = avformat_alloc_context();
    if (format != nullptr) {
        format->pb = io;
        Open(format, url);
        avformat_close_input(&format);
    }
    const int error = std::min(io->error, 0);
    avio_closep(&io);
    return error;
}

}  // namespace

struct CDemuxer::Context {
    std::unique_ptr<CPipeInput> pipe;
    AVFormatContext* format = nullptr;
    AVPacket* packet = nullptr;
    ~Context() {
        av_packet_free(&packet);
        avformat_close_input(&format);
    }
    bool Stopped() const { return pipe != nullptr && pipe->Stopped(); }
    // Of a read that failed, which many demuxers take for the end; 0: none has.
    int ReadError() const { return format->pb == nullptr ? 0 : std::min(format->pb->error, 0); }
    // Not so what comes through a pipe: its length is known when it is over.
    bool Seeks() const {
        return format->pb == nullptr || (format->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0;
    }
};

CDemuxer::CDemuxer(const std::string& path) : m_path(path), m_context(new Context) {
    SetAvLog();
    OpenInput();
    m_context->packet = av_packet_alloc();
    if (m_context->packet == nullptr) throw std::bad_alloc();
    FindStreams();
    if (m_streams.empty())
        throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": no video and no audio in it");
    m_taken.resize(m_streams.size());
    // Before anything is made on a server.
    if (!m_context->Seeks()) return;
    RequireWhole(Size_bytes());
    RequireEnd();
}

CDemuxer::~CDemuxer() = default;

void CDemuxer::OpenInput() {
    std::string url = "file:" + m_path;
    if (CPipeInput::IsPipe(m_path)) {
        url = "pipe:";
        m_context->pipe = std::make_unique<CPipeInput>(m_path);
        m_context->format = avformat_alloc_context();
        if (m_context->format == nullptr) throw std::bad_alloc();
        m_context->format->pb = m_context->pipe->Io();
    }
    int result = Open(m_context->format, url);
    const bool opened = result >= 0;
    const char* what = "cannot be opened as a clip";
    if (result >= 0) {
        result = avformat_find_stream_info(m_context->format, nullptr);
        what = "its streams cannot be told";
    }
    if (m_context->Stopped()) throw CZemError(ErrorKind::kInterrupted, "stopped");
    const std::string head = Head();
    // Its frames may pass for a raw stream's, with what lies between them.
    if (head == kStoreHead) {
        throw CZemError(ErrorKind::kLocalFile,
                        Printable(m_path) +
                            ": a file of a server's store, and no clip; lay it below the volume "
                            "root as it is, or bring in what zem export makes of it");
    }
    if (IsEmpty(head, result))
        throw CZemError(ErrorKind::kLocalFile, Printable(m_path) + ": it is empty");
    const bool doubtful = IsNoClip(result) || result == AVERROR(EIO);
    int device = 0;
    if (opened)
        device = m_context->ReadError();
    else if (m_context->pipe != nullptr)
        device = std::min(m_context->pipe->Io()->error, 0);
    else if (doubtful)
        device = ReadErrorOf(url);
    if (device < 0) ThrowAv(m_path, device, kUnreadable);
    if (result >= 0) return;
    ThrowAv(m_path, result, doubtful && !head.empty() ? WhyNoClip(head) : what);
}

// Of an empty file some readers find no fault. EIO is the device's, which gives no byte either.
bool CDemuxer::IsEmpty(const std::string& head, int result) const {
    std::error_code unknown;
    if (!head.empty()) return false;
    if (m_context->pipe != nullptr || !std::filesystem::is_regular_file(m_path, unknown))
        return IsNoClip(result);
    return std::filesystem::file_size(m_path, unknown) == 0 && result != AVERROR(EIO) &&
           result != AVERROR(EACCES);
}

std::string CDemuxer::Head() const {
    if (m_context->pipe != nullptr) return m_context->pipe->Head();
    std::string head(CPipeInput::kHead_bytes, '\0');
    std::ifstream file(m_path, std::ios::binary);
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(file.gcount()));
    return head;
}

void CDemuxer::FindStreams() {
    int videos = 0;
    int audios = 0;
    for (unsigned i = 0; i < m_context->format->nb_streams; ++i) {
        AVStream& stream = *m_context->format->streams[i];
        const AVMediaType type = stream.codecpar->codec_type;
        const bool cover = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        if ((type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO) || cover) {
            m_streamOfIndex.push_back(kNoStream);
            stream.discard = AVDISCARD_ALL;
            ++m_skipped;
            continue;
        }
        const bool video = type == AVMEDIA_TYPE_VIDEO;
        ClipStream clip;
        clip.suffix = video ? "v" + std::to_string(videos++) : "a" + std::to_string(audios++);
        clip.codecName = avcodec_get_name(stream.codecpar->codec_id);
        clip.desc = zemav::Describe(*m_context->format, stream);
        clip.timecode = zemav::TimecodeOf(*m_context->format, stream);
        m_streamOfIndex.push_back(m_streams.size());
        m_streams.push_back(clip);
    }
}

bool CDemuxer::IsMov() const {
    return std::string_view(m_context->format->iformat->name).starts_with("mov");
}

void CDemuxer::ThrowCut(const std::string& where) const {
    throw CZemError(ErrorKind::kLocalFile,
                    Printable(m_path) + ": the clip is cut off: " + where +
                        "; copy it anew, or make a clip of what is there (ffmpeg -i CLIP -c copy "
                        "NEW)");
}

// The index of a MOV or MP4 tells where each frame lies, also what is behind the clip's end.
void CDemuxer::RequireWhole(uint64_t end) const {
    if (!IsMov()) return;
    for (size_t i = 0; i < m_streams.size(); ++i) {
        AVStream* const stream = m_context->format->streams[SourceIndex(i)];
        const int count = avformat_index_get_entries_count(stream);
        for (int frame = 0; frame < count; ++frame) {
            const AVIndexEntry& entry = *avformat_index_get_entry(stream, frame);
            const auto behind =
                static_cast<uint64_t>(entry.pos) + static_cast<uint64_t>(entry.size);
            if (behind <= end) continue;
            ThrowCut("by its index packet " + std::to_string(frame) + " of the " +
                     std::to_string(count) + " of " + m_streams[i].suffix + " ends at byte " +
                     std::to_string(behind) + ", but it has " + std::to_string(end));
        }
    }
}

// Of those that have no such index.
void CDemuxer::RequireEnd() const {
    CClipEnd end;
    const bool looks = m_context->Seeks() && m_context->format->pb != nullptr;
    if (looks) end.Look(*m_context->format->pb);
    const CClipEnd& seen = looks || m_context->pipe == nullptr ? end : m_context->pipe->End();
    const std::string why = seen.WhyCut(m_context->format->iformat->name);
    if (!why.empty()) ThrowCut(why);
}

// Throws where that may be why no frame can be read.
void CDemuxer::ExplainPipe() const {
    if (m_context->Seeks() || !IsMov()) return;
    throw CZemError(ErrorKind::kLocalFile,
                    Printable(m_path) +
                        ": no frame of it can be read: a MOV or MP4 whose index stands at its end "
                        "cannot come through a pipe; name the file, or bring the index to the "
                        "front (ffmpeg -i CLIP -c copy -movflags +faststart NEW)");
}

bool CDemuxer::Next(ClipPacket& packet) {
    AVPacket* const raw = m_context->packet;
    for (;;) {
        av_packet_unref(raw);
        const int result = av_read_frame(m_context->format, raw);
        if (m_context->Stopped()) throw CZemError(ErrorKind::kInterrupted, "stopped");
        if (result < 0 && !m_begun) ExplainPipe();
        const int device = m_context->ReadError();
        if (device < 0) ThrowAv(m_path, device, kUnreadable);
        // Some demuxers (GXF's) end with a bare -1.
        if (result == AVERROR_EOF || result == -1) {
            // What came through a pipe is all there is; a fragment's index was read meanwhile.
            RequireWhole(m_context->Seeks() ? Size_bytes() : Position_bytes());
            if (!m_context->Seeks()) RequireEnd();
            return false;
        }
        if (result < 0) ThrowAv(m_path, result, kUnreadable);
        const auto index = static_cast<size_t>(raw->stream_index);
        if (index >= m_streamOfIndex.size() || m_streamOfIndex[index] == kNoStream) continue;
        packet.stream = m_streamOfIndex[index];
        const uint64_t number = m_taken[packet.stream]++;
        if ((raw->flags & AV_PKT_FLAG_CORRUPT) != 0 && AtEnd()) {
            ThrowCut("it ends within packet " + std::to_string(number) + " of " +
                     m_streams[packet.stream].suffix);
        }
        packet.data = {raw->data, static_cast<size_t>(raw->size)};
        packet.isKey = (raw->flags & AV_PKT_FLAG_KEY) != 0;
        packet.dts = raw->dts;
        packet.pts = raw->pts;
        packet.duration = raw->duration;
        m_begun = true;
        return true;
    }
}

size_t CDemuxer::SourceIndex(size_t stream) const {
    const auto index = std::find(m_streamOfIndex.begin(), m_streamOfIndex.end(), stream);
    return static_cast<size_t>(index - m_streamOfIndex.begin());
}

const AVStream& CDemuxer::Source(size_t stream) const {
    return *m_context->format->streams[SourceIndex(stream)];
}

// Nothing is left to read.
bool CDemuxer::AtEnd() const {
    AVIOContext* const io = m_context->format->pb;
    return io == nullptr || avio_feof(io) != 0;
}

uint64_t CDemuxer::Position_bytes() const {
    const AVIOContext* io = m_context->format->pb;
    const int64_t position = io == nullptr ? 0 : avio_tell(m_context->format->pb);
    return position > 0 ? static_cast<uint64_t>(position) : 0;
}

uint64_t CDemuxer::Size_bytes() const {
    const int64_t size = m_context->format->pb == nullptr ? 0 : avio_size(m_context->format->pb);
    return size > 0 ? static_cast<uint64_t>(size) : 0;
}

namespace {

int FromBcd(int byte) {
    return (byte >> 4) * 10 + (byte & 15);
}

}  // namespace

bool IsDropFrame(const vdrTimecode_s& timecode) {
    return (timecode.frames & kTimecodeDropFrameBit) != 0;
}

vdrTimecode_s StartTimecode(const ZemEsDesc& desc) {
    vdrTimecode_s timecode = desc.startTimecode;
    if ((desc.flags & kEsFlagDropFrame) != 0) timecode.frames |= kTimecodeDropFrameBit;
    return timecode;
}

std::string TimecodeText(const vdrTimecode_s& timecode) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d%c%02d%s",
                  FromBcd(timecode.hours & kTimecodeHoursDigits),
                  FromBcd(timecode.minutes & kTimecodeMinutesDigits),
                  FromBcd(timecode.seconds & kTimecodeSecondsDigits),
                  IsDropFrame(timecode) ? ';' : ':',
                  FromBcd(timecode.frames & kTimecodeFramesDigits),
                  (timecode.seconds & kTimecodeFieldBit) != 0 ? ".1" : "");
    return text.data();
}

std::string FourccText(uint32_t codec) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const auto c = static_cast<char>(codec >> (8 * i));
        text.push_back(c >= 0x20 && c < 0x7F ? c : '.');
    }
    return text;
}

namespace {

// Null where the four characters are not known.
const char* CodecName(const ZemEsDesc& desc) {
    const bool video = desc.mediaType == kMediaFileVideo;
    const AVCodecID codec = zemav::CodecOf(video ? kMediaFileVideo : kMediaFileAudio, desc.codec);
    return codec == AV_CODEC_ID_NONE ? nullptr : avcodec_get_name(codec);
}

}  // namespace

std::string CodecText(const ZemEsDesc& desc) {
    const char* const name = CodecName(desc);
    return FourccText(desc.codec) + (name == nullptr ? "" : std::string(" (") + name + ")");
}

CJson& TellCodec(CJson& json, const ZemEsDesc& desc) {
    json.Text("codec", FourccText(desc.codec));
    const char* const name = CodecName(desc);
    return name == nullptr ? json.Null("codec_name") : json.Text("codec_name", name);
}

}  // namespace zem
