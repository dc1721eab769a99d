// Codec parameters to the store's terms.
#include "mediaio/foreign/esdesc.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>

namespace zemstore {
namespace {

uint32_t Positive(int value) {
    return value > 0 ? static_cast<uint32_t>(value) : 0;
}

// Containers such as MXF have no four-character codes; the names that QuickTime or AVI use stand
// in.
uint32_t FourccOf(const AVCodecParameters& codec) {
    if (codec.codec_tag > 0xFFFF) return codec.codec_tag;
    const AVCodecTag* const tables[] = {avformat_get_mov_video_tags(),
                                        avformat_get_mov_audio_tags(),
                                        avformat_get_riff_video_tags(), nullptr};
    if (const unsigned tag = av_codec_get_tag(tables, codec.codec_id); tag > 0xFFFF) return tag;
    uint32_t code = 0;
    std::string name = avcodec_get_name(codec.codec_id);
    name.resize(4, ' ');
    for (size_t i = 0; i < 4; ++i)
        code |= static_cast<uint32_t>(static_cast<uint8_t>(name[i])) << (8 * i);
    return code;
}

uint32_t BitsOf(const AVCodecParameters& codec) {
    if (codec.bits_per_coded_sample > 0) return Positive(codec.bits_per_coded_sample);
    if (codec.bits_per_raw_sample > 0) return Positive(codec.bits_per_raw_sample);
    return Positive(av_get_bits_per_sample(codec.codec_id));
}

uint8_t Bcd(int value) {
    return static_cast<uint8_t>((value / 10) << 4 | (value % 10));
}

// "HH:MM:SS:FF", with ';' or '.' before the frames for drop-frame.
void ReadTimecode(const char* text, ZemEsDesc& desc) {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
    char mark = 0;
    if (sscanf(text, "%2d:%2d:%2d%c%2d", &hours, &minutes, &seconds, &mark, &frames) != 5) return;
    if (hours < 0 || hours > 23 || minutes < 0 || minutes > 59 || seconds < 0 || seconds > 59)
        return;
    const FrameRate rate{desc.rateNumerator, desc.rateDenominator};
    const bool pairs = rate.Valid() && rate.numerator / rate.denominator > 30;
    if (frames < 0 || frames > (pairs ? 59 : 29)) return;
    const bool dropFrame = mark == ';' || mark == '.';
    vdrTimecode_s start{};
    start.frames = static_cast<uint8_t>(Bcd(pairs ? frames / 2 : frames) |
                                        (dropFrame ? kTimecodeDropFrameBit : 0));
    start.seconds =
        static_cast<uint8_t>(Bcd(seconds) | (pairs && frames % 2 == 1 ? kTimecodeFieldBit : 0));
    start.minutes = Bcd(minutes);
    start.hours = Bcd(hours);
    uint32_t count = 0;
    if (rate.Valid() && !TimecodeToCount(start, rate, dropFrame, count)) return;
    desc.startTimecode = start;
    if (dropFrame) desc.flags |= kEsFlagDropFrame;
}

// Plain PCM whose samples can be cut anywhere: bytes of one sample of all channels.
uint32_t PcmSampleSize(const AVCodecParameters& codec) {
    const std::string name = avcodec_get_name(codec.codec_id);
    const int bits = av_get_exact_bits_per_sample(codec.codec_id);
    if (!name.starts_with("pcm_") || name.ends_with("_planar")) return 0;
    if (bits <= 0 || bits % 8 != 0 || codec.sample_rate <= 0) return 0;
    const int channels = codec.ch_layout.nb_channels;
    return channels > 0 && channels <= 0xFFFF ? static_cast<uint32_t>(bits / 8 * channels) : 0;
}

uint32_t KindOf(AVMediaType type) {
    switch (type) {
        case AVMEDIA_TYPE_VIDEO:
            return kTokenKindVideo;
        case AVMEDIA_TYPE_AUDIO:
            return kTokenKindAudio;
        case AVMEDIA_TYPE_DATA:
            return kTokenKindData;
        default:
            return 0;
    }
}

void DescribeVideo(AVFormatContext& format, AVStream& stream, ZemEsDesc& desc) {
    AVRational rate = av_guess_frame_rate(&format, &stream, nullptr);
    // The time base of an MXF picture track is its frame.
    const bool mxf = strcmp(format.iformat->name, "mxf") == 0;
    if (mxf && (rate.num <= 0 || rate.den <= 0)) rate = av_inv_q(stream.time_base);
    const FrameRate known = NearestRate(rate);
    desc.mediaType = kMediaFileVideo;
    desc.rateNumerator = known.numerator;
    desc.rateDenominator = known.denominator;
    desc.width = Positive(stream.codecpar->width);
    desc.height = Positive(stream.codecpar->height);
}

void DescribeAudio(const AVCodecParameters& codec, ZemEsDesc& desc) {
    desc.mediaType = kMediaFileAudio;
    desc.sampleRate = Positive(codec.sample_rate);
    const int channels = codec.ch_layout.nb_channels;
    desc.channels = static_cast<uint16_t>(channels > 0 && channels <= 0xFFFF ? channels : 0);
    // A coded audio frame holds so many samples.
    if (codec.frame_size > 1 && desc.sampleRate > 0) {
        const uint32_t samples = Positive(codec.frame_size);
        const uint32_t common = std::gcd(desc.sampleRate, samples);
        desc.rateNumerator = desc.sampleRate / common;
        desc.rateDenominator = samples / common;
    }
}

}  // namespace

FrameRate NearestRate(const AVRational& rate) {
    if (rate.num <= 0 || rate.den <= 0) return {};
    static constexpr FrameRate kKnown[] = {{24000, 1001}, {24, 1},        {25, 1}, {30000, 1001},
                                           {30, 1},       {48, 1},        {50, 1}, {60000, 1001},
                                           {60, 1},       {120000, 1001}, {120, 1}};
    for (const FrameRate& known : kKnown) {
        // Less than 0.04 % apart: 24 and 23.976 differ by 0.1 %.
        const int64_t here = int64_t{rate.num} * known.denominator;
        const int64_t there = int64_t{rate.den} * known.numerator;
        const int64_t apart = here > there ? here - there : there - here;
        if (apart <= there / 2500) return known;
    }
    return {Positive(rate.num), Positive(rate.den)};
}

void SetRate(StreamIndex& stream, const AVRational& timeBase, int64_t frameDistance) {
    if (frameDistance <= 0 || timeBase.num <= 0 || timeBase.den <= 0) return;
    // Milliseconds are too coarse to tell a rate.
    if (timeBase.num == 1 && timeBase.den == 1000) return;
    int num = 0;
    int den = 0;
    if (av_reduce(&num, &den, timeBase.den, timeBase.num * frameDistance, INT32_MAX) == 0) return;
    const bool video = stream.desc.mediaType == kMediaFileVideo;
    const FrameRate rate =
        video ? NearestRate({num, den}) : FrameRate{Positive(num), Positive(den)};
    if (!rate.Valid()) return;
    stream.desc.rateNumerator = rate.numerator;
    stream.desc.rateDenominator = rate.denominator;
}

void DescribeStreams(AVFormatContext& format, ClipIndex& index) {
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        AVStream& stream = *format.streams[i];
        const AVCodecParameters& codec = *stream.codecpar;
        StreamIndex entry;
        entry.kind = KindOf(codec.codec_type);
        const bool cover = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        if (entry.kind == 0 || cover) {
            stream.discard = AVDISCARD_ALL;
            continue;
        }
        ZemEsDesc& desc = entry.desc;
        entry.avIndex = static_cast<int>(i);
        desc.sizeVersion = kEsDescVersion1;
        desc.codec = FourccOf(codec);
        if (entry.kind == kTokenKindVideo) {
            DescribeVideo(format, stream, desc);
        } else if (entry.kind == kTokenKindAudio) {
            DescribeAudio(codec, desc);
            entry.sampleSize = PcmSampleSize(codec);
        } else {
            desc.mediaType = kMediaFileData;
        }
        if (desc.mediaType != kMediaFileData)
            desc.bitsPerSample = static_cast<uint16_t>(BitsOf(codec));
        const AVDictionaryEntry* start = av_dict_get(stream.metadata, "timecode", nullptr, 0);
        if (start == nullptr) start = av_dict_get(format.metadata, "timecode", nullptr, 0);
        if (start != nullptr) ReadTimecode(start->value, desc);
        index.streams.push_back(std::move(entry));
    }
}

}  // namespace zemstore
