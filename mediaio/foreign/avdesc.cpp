// Codec parameters to the server's terms.
#include "mediaio/foreign/avdesc.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
}

#include <array>
#include <cstdio>
#include <numeric>
#include <string_view>

namespace zemav {
namespace {

constexpr uint32_t Fourcc(std::string_view text) {
    uint32_t code = 0;
    for (size_t i = 0; i < 4; ++i)
        code |= static_cast<uint32_t>(static_cast<uint8_t>(text[i])) << (8 * i);
    return code;
}

// Tags up to here are AVI's numbers of sound formats, not four characters.
constexpr uint32_t kLastFormatNumber = 0xFFFF;
constexpr int kMostChannels = UINT16_MAX;  // room of the descriptor
// Two rates that are less than a 2500th (0.04 %) apart are one: 24 and 23.976 differ by 0.1 %.
constexpr int64_t kSameRatePart = 2500;
// Above it an address names two frames: two digits of BCD have room for 39 beside the flags.
constexpr uint32_t kMostAddressesPerSecond = 30;

// QuickTime's codes, which tell the byte order of 16 bits only; the others, little-endian, are the
// big-endian ones written backwards.
constexpr struct {
    AVCodecID id;
    uint32_t code;
} kPcmCodes[] = {
    {AV_CODEC_ID_PCM_U8, Fourcc("raw ")},    {AV_CODEC_ID_PCM_S16LE, Fourcc("sowt")},
    {AV_CODEC_ID_PCM_S16BE, Fourcc("twos")}, {AV_CODEC_ID_PCM_S24LE, Fourcc("42ni")},
    {AV_CODEC_ID_PCM_S24BE, Fourcc("in24")}, {AV_CODEC_ID_PCM_S32LE, Fourcc("23ni")},
    {AV_CODEC_ID_PCM_S32BE, Fourcc("in32")}, {AV_CODEC_ID_PCM_F32LE, Fourcc("23lf")},
    {AV_CODEC_ID_PCM_F32BE, Fourcc("fl32")}, {AV_CODEC_ID_PCM_F64LE, Fourcc("46lf")},
    {AV_CODEC_ID_PCM_F64BE, Fourcc("fl64")},
};

uint32_t Positive(int value) {
    return value > 0 ? static_cast<uint32_t>(value) : 0;
}

uint32_t BitsOf(const AVCodecParameters& codec) {
    if (codec.bits_per_coded_sample > 0) return Positive(codec.bits_per_coded_sample);
    if (codec.bits_per_raw_sample > 0) return Positive(codec.bits_per_raw_sample);
    return Positive(av_get_bits_per_sample(codec.codec_id));
}

uint8_t Bcd(int value) {
    return static_cast<uint8_t>((value / 10) << 4 | (value % 10));
}

void DescribeVideo(AVFormatContext& format, AVStream& stream, ZemEsDesc& desc) {
    AVRational rate = av_guess_frame_rate(&format, &stream, nullptr);
    // The time base of an MXF picture track is its frame.
    const bool mxf = std::string(format.iformat->name) == "mxf";
    if (mxf && (rate.num <= 0 || rate.den <= 0)) rate = av_inv_q(stream.time_base);
    rate = NearestRate(rate);
    desc.mediaType = kMediaFileVideo;
    desc.rateNumerator = Positive(rate.num);
    desc.rateDenominator = Positive(rate.den);
    desc.width = Positive(stream.codecpar->width);
    desc.height = Positive(stream.codecpar->height);
}

void DescribeAudio(const AVCodecParameters& codec, ZemEsDesc& desc) {
    desc.mediaType = kMediaFileAudio;
    desc.sampleRate = Positive(codec.sample_rate);
    const int channels = codec.ch_layout.nb_channels;
    desc.channels = static_cast<uint16_t>(channels > 0 && channels <= kMostChannels ? channels : 0);
    // A coded audio frame holds so many samples.
    if (codec.frame_size <= 1 || desc.sampleRate == 0) return;
    const uint32_t samples = Positive(codec.frame_size);
    const uint32_t common = std::gcd(desc.sampleRate, samples);
    desc.rateNumerator = desc.sampleRate / common;
    desc.rateDenominator = samples / common;
}

}  // namespace

uint32_t FourccOf(const AVCodecParameters& codec) {
    for (const auto& pcm : kPcmCodes)
        if (pcm.id == codec.codec_id) return pcm.code;
    if (codec.codec_tag > kLastFormatNumber) return codec.codec_tag;
    const AVCodecTag* const tables[] = {avformat_get_mov_video_tags(),
                                        avformat_get_mov_audio_tags(),
                                        avformat_get_riff_video_tags(), nullptr};
    if (const unsigned tag = av_codec_get_tag(tables, codec.codec_id); tag > kLastFormatNumber)
        return tag;
    std::string name = avcodec_get_name(codec.codec_id);
    name.resize(4, ' ');
    return Fourcc(name);
}

AVCodecID CodecOf(MediaFileType type, uint32_t fourcc) {
    const bool video = type == kMediaFileVideo;
    for (const auto& pcm : kPcmCodes)
        if (!video && pcm.code == fourcc) return pcm.id;
    const AVCodecTag* const tables[] = {
        video ? avformat_get_mov_video_tags() : avformat_get_mov_audio_tags(),
        video ? avformat_get_riff_video_tags() : avformat_get_riff_audio_tags(), nullptr};
    return av_codec_get_id(tables, fourcc);
}

uint32_t PcmSampleSize(const AVCodecParameters& codec) {
    const std::string name = avcodec_get_name(codec.codec_id);
    const int bits = av_get_exact_bits_per_sample(codec.codec_id);
    if (!name.starts_with("pcm_") || name.ends_with("_planar")) return 0;
    if (bits <= 0 || bits % 8 != 0 || codec.sample_rate <= 0) return 0;
    const int channels = codec.ch_layout.nb_channels;
    return channels > 0 && channels <= kMostChannels ? static_cast<uint32_t>(bits / 8 * channels)
                                                     : 0;
}

AVRational NearestRate(const AVRational& rate) {
    if (rate.num <= 0 || rate.den <= 0) return {0, 0};
    static constexpr AVRational kKnown[] = {{24000, 1001}, {24, 1},        {25, 1}, {30000, 1001},
                                            {30, 1},       {48, 1},        {50, 1}, {60000, 1001},
                                            {60, 1},       {120000, 1001}, {120, 1}};
    for (const AVRational& known : kKnown) {
        const int64_t here = int64_t{rate.num} * known.den;
        const int64_t there = int64_t{rate.den} * known.num;
        const int64_t apart = here > there ? here - there : there - here;
        if (apart <= there / kSameRatePart) return known;
    }
    return rate;
}

std::string TimecodeOf(const AVFormatContext& format, const AVStream& stream) {
    const AVDictionaryEntry* entry = av_dict_get(stream.metadata, "timecode", nullptr, 0);
    if (entry == nullptr) entry = av_dict_get(format.metadata, "timecode", nullptr, 0);
    return entry == nullptr ? std::string() : entry->value;
}

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
    if (hours < 0 || hours > 23 || minutes < 0 || minutes > 59 || seconds < 0 || seconds > 59)
        return false;
    if (mark != ':' && mark != ';' && mark != '.') return false;
    const auto limit =
        static_cast<int>(pairs ? 2 * kMostAddressesPerSecond : kMostAddressesPerSecond);
    if (frames < 0 || frames >= limit) return false;
    const bool secondOfPair = pairs && frames % 2 == 1;
    timecode.frames = static_cast<uint8_t>(Bcd(pairs ? frames / 2 : frames) |
                                           (mark == ':' ? 0 : kTimecodeDropFrameBit));
    timecode.seconds = static_cast<uint8_t>(Bcd(seconds) | (secondOfPair ? kTimecodeFieldBit : 0));
    timecode.minutes = Bcd(minutes);
    timecode.hours = Bcd(hours);
    return true;
}

std::string TimecodeSpelling(const vdrTimecode_s& timecode, bool pairs) {
    const auto number = [](int bcd) { return (bcd >> 4) * 10 + (bcd & 0xF); };
    int frames = number(timecode.frames & kTimecodeFramesDigits);
    if (pairs) frames = frames * 2 + ((timecode.seconds & kTimecodeFieldBit) != 0 ? 1 : 0);
    const char mark = (timecode.frames & kTimecodeDropFrameBit) != 0 ? ';' : ':';
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d%c%02d",
                  number(timecode.hours & kTimecodeHoursDigits),
                  number(timecode.minutes & kTimecodeMinutesDigits),
                  number(timecode.seconds & kTimecodeSecondsDigits), mark, frames);
    return text.data();
}

bool CountsPairs(const ZemEsDesc& desc) {
    return desc.rateDenominator != 0 &&
           desc.rateNumerator / desc.rateDenominator > kMostAddressesPerSecond;
}

ZemEsDesc Describe(AVFormatContext& format, AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.codec = FourccOf(codec);
    if (codec.codec_type == AVMEDIA_TYPE_VIDEO)
        DescribeVideo(format, stream, desc);
    else if (codec.codec_type == AVMEDIA_TYPE_AUDIO)
        DescribeAudio(codec, desc);
    else
        desc.mediaType = kMediaFileData;
    if (desc.mediaType != kMediaFileData) desc.bitsPerSample = static_cast<uint16_t>(BitsOf(codec));
    if (ParseTimecode(TimecodeOf(format, stream), CountsPairs(desc), desc.startTimecode) &&
        (desc.startTimecode.frames & kTimecodeDropFrameBit) != 0) {
        desc.flags |= kEsFlagDropFrame;
    }
    return desc;
}

}  // namespace zemav
