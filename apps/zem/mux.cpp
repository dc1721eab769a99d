// libavformat's writing half behind a narrow door.
#include "apps/zem/mux.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/log.h>
}

#include <cstring>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <vector>

#include "apps/zem/averror.h"
#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/localfile.h"

namespace zem {
namespace {

struct FilterDeleter {
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};
using FilterPtr = std::unique_ptr<AVBSFContext, FilterDeleter>;

// MXF wants H.264 and HEVC between start codes, and its muxer, other than those of transport
// streams and MOV, does not see to it. Null where nothing is to be done.
FilterPtr FilterFor(const AVOutputFormat& container, const AVCodecParameters& codec) {
    const bool lengths = codec.extradata_size > 0 && codec.extradata[0] == 1;
    if (!lengths || !std::string_view(container.name).starts_with("mxf")) return nullptr;
    const char* name = codec.codec_id == AV_CODEC_ID_H264   ? "h264_mp4toannexb"
                       : codec.codec_id == AV_CODEC_ID_HEVC ? "hevc_mp4toannexb"
                                                            : nullptr;
    const AVBitStreamFilter* kind = name == nullptr ? nullptr : av_bsf_get_by_name(name);
    if (kind == nullptr) return nullptr;
    AVBSFContext* raw = nullptr;
    if (av_bsf_alloc(kind, &raw) < 0) throw std::bad_alloc();
    FilterPtr filter(raw);
    if (avcodec_parameters_copy(filter->par_in, &codec) < 0 || av_bsf_init(raw) < 0) return nullptr;
    return filter;
}

// The tag that the MXF muxer tells ProRes' flavours by, where the source has none.
uint32_t ProResTag(int profile) {
    constexpr const char* kTags[] = {"apco", "apcs", "apcn", "apch", "ap4h", "ap4x"};
    if (profile < 0 || profile >= static_cast<int>(std::size(kTags))) return 0;
    const char* tag = kTags[profile];
    return MKTAG(tag[0], tag[1], tag[2], tag[3]);
}

}  // namespace

struct CMuxer::Context {
    AVFormatContext* format = nullptr;
    AVPacket* packet = av_packet_alloc();
    std::vector<AVRational> timeBases;
    std::vector<FilterPtr> filters;  // by stream
    std::string place;               // where it goes when it is complete
    std::string partPath;            // where it is written
    bool finished = false;
    ~Context() {
        av_packet_free(&packet);
        if (format != nullptr) avio_closep(&format->pb);
        avformat_free_context(format);
        std::error_code ignored;
        if (!finished && !partPath.empty()) std::filesystem::remove(partPath, ignored);
    }
};

CMuxer::CMuxer(const std::string& path, bool force) : m_path(path), m_context(new Context) {
    SetAvLog();
    m_context->place = PlaceToReplace(path, force);
    if (m_context->place.empty()) {
        throw CZemError(ErrorKind::kLocalFile,
                        path + " is no file: a clip is read back when it is written");
    }
    const AVOutputFormat* container = av_guess_format(nullptr, path.c_str(), nullptr);
    if (container == nullptr || m_context->packet == nullptr) {
        throw CZemError(
            ErrorKind::kUsage,
            Printable(path) + ": its ending names no container; .mov, .mp4, .mxf, .mkv do");
    }
    int result = avformat_alloc_output_context2(&m_context->format, container, nullptr, nullptr);
    if (result < 0) ThrowAv(path, result, "cannot be written");
    m_context->partPath = m_context->place + ".part";
    result =
        avio_open(&m_context->format->pb, ("file:" + m_context->partPath).c_str(), AVIO_FLAG_WRITE);
    if (result < 0) {
        RequireFolderOf(path);
        ThrowAv(path, result, "cannot be written");
    }
}

CMuxer::~CMuxer() = default;

void CMuxer::AddStream(const StreamHead& head) {
    AVStream* stream = avformat_new_stream(m_context->format, nullptr);
    if (stream == nullptr || avcodec_parameters_copy(stream->codecpar, head.parameters.get()) < 0)
        throw std::bad_alloc();
    AVCodecParameters& codec = *stream->codecpar;
    m_context->filters.push_back(FilterFor(*m_context->format->oformat, codec));
    if (const FilterPtr& filter = m_context->filters.back())
        avcodec_parameters_copy(&codec, filter->par_out);
    // A four-character code of another container means nothing in this one.
    const AVCodecTag* const* tables = m_context->format->oformat->codec_tag;
    if (tables == nullptr)
        codec.codec_tag = codec.codec_id == AV_CODEC_ID_PRORES ? ProResTag(codec.profile) : 0;
    else if (av_codec_get_id(tables, codec.codec_tag) != codec.codec_id)
        codec.codec_tag = av_codec_get_tag(tables, codec.codec_id);
    stream->time_base = head.timeBase;
    if (head.rate.num > 0 && head.rate.den > 0) {
        stream->avg_frame_rate = head.rate;
        stream->r_frame_rate = head.rate;
        // MXF counts pictures, and its muxer takes their rate from the time base.
        if (std::string_view(m_context->format->oformat->name).starts_with("mxf"))
            stream->time_base = av_inv_q(head.rate);
    }
    if (!head.timecode.empty() && codec.codec_type == AVMEDIA_TYPE_VIDEO) {
        av_dict_set(&stream->metadata, "timecode", head.timecode.c_str(), 0);
        av_dict_set(&m_context->format->metadata, "timecode", head.timecode.c_str(), 0);
    }
    m_context->timeBases.push_back(head.timeBase);
}

void CMuxer::Begin() {
    const int result = avformat_write_header(m_context->format, nullptr);
    if (result >= 0) return;
    std::string codecs;
    for (unsigned i = 0; i < m_context->format->nb_streams; ++i) {
        const AVCodecID codec = m_context->format->streams[i]->codecpar->codec_id;
        codecs += std::string(codecs.empty() ? "" : ", ") + avcodec_get_name(codec);
    }
    const std::string what =
        "this container does not take these streams (" + codecs + "); another may, as .mov or .mkv";
    ThrowAv(m_path, result, what.c_str());
}

void CMuxer::Write(size_t stream, std::span<const uint8_t> data, int64_t dts, int64_t pts,
                   int64_t duration, bool isKey) {
    AVPacket& packet = *m_context->packet;
    av_packet_unref(&packet);
    if (av_new_packet(&packet, static_cast<int>(data.size())) < 0) throw std::bad_alloc();
    if (!data.empty()) memcpy(packet.data, data.data(), data.size());
    packet.stream_index = static_cast<int>(stream);
    packet.dts = dts;
    packet.pts = pts;
    packet.duration = duration;
    if (isKey) packet.flags |= AV_PKT_FLAG_KEY;
    av_packet_rescale_ts(&packet, m_context->timeBases[stream],
                         m_context->format->streams[stream]->time_base);
    int result = 0;
    if (AVBSFContext* const filter = m_context->filters[stream].get()) {
        result = av_bsf_send_packet(filter, &packet);
        if (result >= 0) result = av_bsf_receive_packet(filter, &packet);
    }
    if (result >= 0) result = av_interleaved_write_frame(m_context->format, &packet);
    if (result < 0) ThrowAv(m_path, result, "a frame was not taken");
}

void CMuxer::End() {
    int result = av_write_trailer(m_context->format);
    const int closed = avio_closep(&m_context->format->pb);
    if (result >= 0) result = closed;
    if (result < 0) ThrowAv(m_path, result, "it could not be completed");
}

const std::string& CMuxer::WrittenPath() const {
    return m_context->partPath;
}

void CMuxer::Finish() {
    std::error_code error;
    std::filesystem::rename(m_context->partPath, m_context->place, error);
    if (error) throw CZemError(ErrorKind::kLocalFile, m_path + ": " + error.message());
    m_context->finished = true;
}

}  // namespace zem
