// libavformat behind a narrow door. Streams that the server has no file kind for are left out.
#include "apps/zem/demux.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {
namespace {

constexpr size_t kNoStream = static_cast<size_t>(-1);

[[noreturn]] void ThrowAv(const std::string& path, int error, const char* what) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": " + what + ": " + text.data());
}

uint32_t FourccOf(const AVCodecParameters& codec) {
    if (codec.codec_tag != 0) return codec.codec_tag;
    // Containers such as MXF have no four-character codes; the names that QuickTime or AVI use
    // stand in.
    const std::array<const AVCodecTag*, 5> tables = {
        avformat_get_mov_video_tags(), avformat_get_mov_audio_tags(),
        avformat_get_riff_video_tags(), avformat_get_riff_audio_tags(), nullptr};
    if (const unsigned tag = av_codec_get_tag(tables.data(), codec.codec_id); tag != 0) return tag;
    uint32_t code = 0;
    std::string name = avcodec_get_name(codec.codec_id);
    name.resize(4, ' ');
    for (size_t i = 0; i < 4; ++i) {
        code |= static_cast<uint32_t>(static_cast<uint8_t>(name[i])) << (8 * i);
    }
    return code;
}

int BitsOf(const AVCodecParameters& codec) {
    if (codec.bits_per_coded_sample > 0) return codec.bits_per_coded_sample;
    if (codec.bits_per_raw_sample > 0) return codec.bits_per_raw_sample;
    return av_get_bits_per_sample(codec.codec_id);
}

uint32_t Positive(int value) {
    return value > 0 ? static_cast<uint32_t>(value) : 0;
}

std::string TimecodeOf(const AVFormatContext& format, const AVStream& stream) {
    const AVDictionaryEntry* entry = av_dict_get(stream.metadata, "timecode", nullptr, 0);
    if (entry == nullptr) entry = av_dict_get(format.metadata, "timecode", nullptr, 0);
    return entry == nullptr ? std::string() : entry->value;
}

void ReadStartTimecode(const AVFormatContext& format, const AVStream& stream, ZemEsDesc& desc) {
    const std::string text = TimecodeOf(format, stream);
    if (text.empty() || !ParseTimecode(text, CountsPairs(desc), desc.startTimecode)) return;
    if (IsDropFrame(desc.startTimecode)) desc.flags |= kEsFlagDropFrame;
}

ZemEsDesc DescOf(AVFormatContext& format, AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.codec = FourccOf(codec);
    if (codec.codec_type == AVMEDIA_TYPE_VIDEO) {
        const AVRational rate = av_guess_frame_rate(&format, &stream, nullptr);
        desc.mediaType = kMediaFileVideo;
        desc.rateNumerator = rate.den > 0 ? Positive(rate.num) : 0;
        desc.rateDenominator = desc.rateNumerator > 0 ? Positive(rate.den) : 0;
        desc.width = Positive(codec.width);
        desc.height = Positive(codec.height);
    } else {
        desc.mediaType = kMediaFileAudio;
        desc.sampleRate = Positive(codec.sample_rate);
        desc.channels = static_cast<uint16_t>(Positive(codec.ch_layout.nb_channels));
        // A coded audio frame holds so many samples; PCM has no frames of its own and gets no rate.
        if (codec.frame_size > 1 && desc.sampleRate > 0) {
            desc.rateNumerator = desc.sampleRate;
            desc.rateDenominator = Positive(codec.frame_size);
        }
    }
    desc.bitsPerSample = static_cast<uint16_t>(Positive(BitsOf(codec)));
    ReadStartTimecode(format, stream, desc);
    return desc;
}

}  // namespace

struct CDemuxer::Context {
    AVFormatContext* format = nullptr;
    AVPacket* packet = nullptr;
    ~Context() {
        av_packet_free(&packet);
        avformat_close_input(&format);
    }
};

CDemuxer::CDemuxer(const std::string& path) : m_path(path), m_context(new Context) {
    av_log_set_level(AV_LOG_ERROR);
    // A clip is a file: neither a name with a colon nor a playlist inside it may open a connection.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file,pipe", 0);
    const std::string url = path == "-" ? "pipe:0" : "file:" + path;
    int result = avformat_open_input(&m_context->format, url.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (result < 0) ThrowAv(path, result, "cannot be opened as a clip");
    result = avformat_find_stream_info(m_context->format, nullptr);
    if (result < 0) ThrowAv(path, result, "its streams cannot be told");
    m_context->packet = av_packet_alloc();
    if (m_context->packet == nullptr) throw std::bad_alloc();

    int videos = 0;
    int audios = 0;
    for (unsigned i = 0; i < m_context->format->nb_streams; ++i) {
        AVStream& stream = *m_context->format->streams[i];
        const AVMediaType type = stream.codecpar->codec_type;
        if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO) {
            m_streamOfIndex.push_back(kNoStream);
            stream.discard = AVDISCARD_ALL;
            ++m_skipped;
            continue;
        }
        const bool video = type == AVMEDIA_TYPE_VIDEO;
        ClipStream clip;
        clip.suffix = video ? "v" + std::to_string(videos++) : "a" + std::to_string(audios++);
        clip.codecName = avcodec_get_name(stream.codecpar->codec_id);
        clip.desc = DescOf(*m_context->format, stream);
        clip.timecode = TimecodeOf(*m_context->format, stream);
        m_streamOfIndex.push_back(m_streams.size());
        m_streams.push_back(clip);
    }
    if (m_streams.empty()) {
        throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": no video and no audio in it");
    }
}

CDemuxer::~CDemuxer() = default;

bool CDemuxer::Next(ClipPacket& packet) {
    AVPacket* const raw = m_context->packet;
    for (;;) {
        av_packet_unref(raw);
        const int result = av_read_frame(m_context->format, raw);
        if (result == AVERROR_EOF) return false;
        if (result < 0) ThrowAv(m_path, result, "reading it failed");
        const auto index = static_cast<size_t>(raw->stream_index);
        if (index >= m_streamOfIndex.size() || m_streamOfIndex[index] == kNoStream) continue;
        packet.stream = m_streamOfIndex[index];
        packet.data = {raw->data, static_cast<size_t>(raw->size)};
        packet.isKey = (raw->flags & AV_PKT_FLAG_KEY) != 0;
        packet.dts = raw->dts;
        packet.pts = raw->pts;
        packet.duration = raw->duration;
        return true;
    }
}

const AVStream& CDemuxer::Source(size_t stream) const {
    const auto index = std::find(m_streamOfIndex.begin(), m_streamOfIndex.end(), stream);
    return *m_context->format->streams[index - m_streamOfIndex.begin()];
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

uint8_t Bcd(int value) {
    return static_cast<uint8_t>((value / 10) << 4 | (value % 10));
}
int FromBcd(int byte) {
    return (byte >> 4) * 10 + (byte & 15);
}

}  // namespace

bool ParseTimecode(const std::string& text, bool pairs, vdrTimecode_s& timecode) {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
    char mark = 0;
    int length = 0;
    if (std::sscanf(text.c_str(), "%2d:%2d:%2d%c%2d%n", &hours, &minutes, &seconds, &mark, &frames,
                    &length) != 5 ||
        static_cast<size_t>(length) != text.size()) {
        return false;
    }
    if (hours < 0 || hours > 23 || minutes < 0 || minutes > 59 || seconds < 0 || seconds > 59 ||
        frames < 0 || frames > 59 || (mark != ':' && mark != ';' && mark != '.')) {
        return false;
    }
    // Two digits of BCD have room for 39 beside the flags: rates above 30 count pairs, the field
    // flag tells which.
    if (!pairs && frames > 29) return false;
    const bool second_of_pair = pairs && frames % 2 == 1;
    const int counted = pairs ? frames / 2 : frames;
    timecode.frames = static_cast<uint8_t>(Bcd(counted) | (mark == ':' ? 0 : 0x40));
    timecode.seconds = static_cast<uint8_t>(Bcd(seconds) | (second_of_pair ? 0x80 : 0));
    timecode.minutes = Bcd(minutes);
    timecode.hours = Bcd(hours);
    return true;
}

bool CountsPairs(const ZemEsDesc& desc) {
    return desc.rateDenominator != 0 && desc.rateNumerator / desc.rateDenominator > 30;
}

bool IsDropFrame(const vdrTimecode_s& timecode) {
    return (timecode.frames & 0x40) != 0;
}

std::string TimecodeText(const vdrTimecode_s& timecode) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d%c%02d%s",
                  FromBcd(timecode.hours & 0x3F), FromBcd(timecode.minutes & 0x7F),
                  FromBcd(timecode.seconds & 0x7F), IsDropFrame(timecode) ? ';' : ':',
                  FromBcd(timecode.frames & 0x3F), (timecode.seconds & 0x80) != 0 ? ".1" : "");
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

}  // namespace zem
