// Clip heads to bytes and back. Names instead of libavcodec's numbers wherever it has names: those
// stay the same from version to version.
#include "apps/zem/clipfile.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include <cstring>

#include "apps/zem/client/zemerror.h"
#include "mediaio/foreign/avdesc.h"

namespace zem {
namespace {

constexpr uint64_t kClipMagic = 0x3150494C434D455Aull;  // "ZEMCLIP1"
constexpr uint32_t kVersion = 1;

class CWriter {
public:
    template <typename T>
    void Number(T value) {
        const auto* from = reinterpret_cast<const uint8_t*>(&value);
        bytes.insert(bytes.end(), from, from + sizeof value);
    }
    void Bytes(const void* from, size_t size) {
        Number(static_cast<uint32_t>(size));
        const auto* data = static_cast<const uint8_t*>(from);
        bytes.insert(bytes.end(), data, data + size);
    }
    void Text(const char* text) { Bytes(text, text == nullptr ? 0 : strlen(text)); }
    std::vector<uint8_t> bytes;
};

class CReader {
public:
    explicit CReader(std::span<const uint8_t> bytes) : m_bytes(bytes) {}
    template <typename T>
    T Number() {
        T value;
        memcpy(&value, Take(sizeof value).data(), sizeof value);
        return value;
    }
    std::span<const uint8_t> Bytes() { return Take(Number<uint32_t>()); }
    std::string Text() {
        const std::span<const uint8_t> bytes = Bytes();
        return {bytes.begin(), bytes.end()};
    }
    std::span<const uint8_t> Take(size_t size) {
        if (size > m_bytes.size())
            throw CZemError(ErrorKind::kBadReply, "the clip's description is damaged");
        const std::span<const uint8_t> taken = m_bytes.first(size);
        m_bytes = m_bytes.subspan(size);
        return taken;
    }
    size_t Left() const { return m_bytes.size(); }

private:
    std::span<const uint8_t> m_bytes;
};

// The plain numbers of a stream, in the order of the file.
template <typename Visit>
void ForEachNumber(AVCodecParameters& p, Visit visit) {
    const auto number = [&](auto& field) {
        auto value = static_cast<int64_t>(field);
        visit(value);
        field = static_cast<std::remove_reference_t<decltype(field)>>(value);
    };
    number(p.codec_tag);
    number(p.bit_rate);
    number(p.bits_per_coded_sample);
    number(p.bits_per_raw_sample);
    number(p.profile);
    number(p.level);
    number(p.width);
    number(p.height);
    number(p.sample_aspect_ratio.num);
    number(p.sample_aspect_ratio.den);
    number(p.field_order);
    number(p.color_range);
    number(p.color_primaries);
    number(p.color_trc);
    number(p.color_space);
    number(p.chroma_location);
    number(p.video_delay);
    number(p.sample_rate);
    number(p.block_align);
    number(p.frame_size);
    number(p.initial_padding);
    number(p.trailing_padding);
    number(p.seek_preroll);
}

const char* FormatName(const AVCodecParameters& p) {
    if (p.codec_type == AVMEDIA_TYPE_VIDEO)
        return av_get_pix_fmt_name(static_cast<AVPixelFormat>(p.format));
    return av_get_sample_fmt_name(static_cast<AVSampleFormat>(p.format));
}

int FormatOf(const AVCodecParameters& p, const std::string& name) {
    return p.codec_type == AVMEDIA_TYPE_VIDEO ? static_cast<int>(av_get_pix_fmt(name.c_str()))
                                              : static_cast<int>(av_get_sample_fmt(name.c_str()));
}

}  // namespace

std::string ClipFileName(const std::string& name) {
    return name + ".clip";
}

std::string ClipOfFile(const std::string& name) {
    const size_t dot = name.find_last_of("./\\");
    if (dot == std::string::npos || name[dot] != '.') return {};
    const std::string ending = name.substr(dot + 1);
    const bool stream = ending.size() > 1 && (ending[0] == 'v' || ending[0] == 'a') &&
                        ending.find_first_not_of("0123456789", 1) == std::string::npos;
    return stream || ending == "clip" ? name.substr(0, dot) : std::string();
}

ZemEsDesc ClipFileDesc() {
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.mediaType = kMediaFileVideo;  // the kind of file whose frames carry bytes
    memcpy(&desc.codec, "zclp", sizeof desc.codec);
    return desc;
}

std::vector<uint8_t> WriteClipHead(size_t stream_count) {
    CWriter out;
    out.Number(kClipMagic);
    out.Number(kVersion);
    out.Number(static_cast<uint32_t>(stream_count));
    return std::move(out.bytes);
}

size_t ReadClipHead(std::span<const uint8_t> bytes) {
    CReader in(bytes);
    const auto magic = in.Number<uint64_t>();
    const auto version = in.Number<uint32_t>();
    const auto count = in.Number<uint32_t>();
    if (magic != kClipMagic || version != kVersion || count == 0 || count > 1000)
        throw CZemError(ErrorKind::kBadReply, "the clip's description is of another kind");
    return count;
}

std::vector<uint8_t> WriteStreamHead(const StreamHead& head) {
    AVCodecParameters& p = *head.parameters;
    CWriter out;
    out.Text(head.suffix.c_str());
    out.Text(p.codec_type == AVMEDIA_TYPE_VIDEO ? "video" : "audio");
    out.Text(avcodec_get_name(p.codec_id));
    out.Text(FormatName(p));
    ForEachNumber(p, [&](int64_t value) { out.Number(value); });
    out.Number(static_cast<uint32_t>(p.ch_layout.nb_channels));
    out.Number(p.ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? p.ch_layout.u.mask : uint64_t{0});
    for (const AVRational& ratio : {head.timeBase, head.rate}) {
        out.Number(static_cast<int32_t>(ratio.num));
        out.Number(static_cast<int32_t>(ratio.den));
    }
    out.Text(head.timecode.c_str());
    out.Bytes(p.extradata, p.extradata == nullptr ? 0 : static_cast<size_t>(p.extradata_size));
    out.Number(head.sampleSize);
    out.Number(head.firstPts);
    out.Number(static_cast<uint32_t>(head.times.size()));
    for (const PacketTime& time : head.times)
        out.Number(time);
    return std::move(out.bytes);
}

StreamHead ReadStreamHead(std::span<const uint8_t> bytes) {
    CReader in(bytes);
    StreamHead head;
    head.parameters.reset(avcodec_parameters_alloc());
    if (head.parameters == nullptr) throw std::bad_alloc();
    AVCodecParameters& p = *head.parameters;
    head.suffix = in.Text();
    p.codec_type = in.Text() == "video" ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
    const std::string codec = in.Text();
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name(codec.c_str());
    if (descriptor == nullptr || descriptor->type != p.codec_type)
        throw CZemError(ErrorKind::kBadReply, "the clip has a codec that is not known here");
    p.codec_id = descriptor->id;
    p.format = FormatOf(p, in.Text());
    ForEachNumber(p, [&](int64_t& value) { value = in.Number<int64_t>(); });
    const auto channels = in.Number<uint32_t>();
    const auto mask = in.Number<uint64_t>();
    if (mask != 0) {
        av_channel_layout_from_mask(&p.ch_layout, mask);
    } else if (channels > 0 && channels <= 1024) {
        p.ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
        p.ch_layout.nb_channels = static_cast<int>(channels);
    }
    for (AVRational* ratio : {&head.timeBase, &head.rate}) {
        ratio->num = in.Number<int32_t>();
        ratio->den = in.Number<int32_t>();
    }
    head.timecode = in.Text();
    const std::span<const uint8_t> extra = in.Bytes();
    if (!extra.empty()) {
        p.extradata =
            static_cast<uint8_t*>(av_mallocz(extra.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (p.extradata == nullptr) throw std::bad_alloc();
        memcpy(p.extradata, extra.data(), extra.size());
        p.extradata_size = static_cast<int>(extra.size());
    }
    head.sampleSize = in.Number<uint32_t>();
    head.firstPts = in.Number<int64_t>();
    const auto count = in.Number<uint32_t>();
    if (count != in.Left() / sizeof(PacketTime) || head.timeBase.num <= 0 ||
        head.timeBase.den <= 0 ||
        (head.sampleSize != 0 && head.sampleSize != zemav::PcmSampleSize(p))) {
        throw CZemError(ErrorKind::kBadReply, "the clip's description is damaged");
    }
    head.times.resize(count);
    for (PacketTime& time : head.times)
        time = in.Number<PacketTime>();
    return head;
}

}  // namespace zem
