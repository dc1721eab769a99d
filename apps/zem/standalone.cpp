#include "apps/zem/standalone.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavutil/mem.h>
}

#include <cstring>
#include <memory>
#include <new>

#include "apps/zem/averror.h"

namespace zem {
namespace {

struct DecoderDeleter {
    void operator()(AVCodecContext* decoder) const { avcodec_free_context(&decoder); }
};
struct FilterDeleter {
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;

PacketPtr PacketOf(std::span<const uint8_t> frame) {
    PacketPtr packet(av_packet_alloc());
    if (packet == nullptr || av_new_packet(packet.get(), static_cast<int>(frame.size())) < 0)
        throw std::bad_alloc();
    if (!frame.empty()) memcpy(packet->data, frame.data(), frame.size());
    packet->flags |= AV_PKT_FLAG_KEY;
    return packet;
}

// The decoder takes AAC without any word on its form for the most usual one; players do not. A
// frame says it in an ADTS header.
bool IsBareAac(const AVCodecParameters& codec, std::span<const uint8_t> frame) {
    const bool adts = frame.size() >= 2 && frame[0] == 0xFF && (frame[1] & 0xF6) == 0xF0;
    return codec.codec_id == AV_CODEC_ID_AAC && codec.extradata_size == 0 && !adts;
}

bool Decodes(const AVCodecParameters& codec, AVPacket& packet) {
    const AVCodec* const kind = avcodec_find_decoder(codec.codec_id);
    if (kind == nullptr) return true;
    const std::unique_ptr<AVCodecContext, DecoderDeleter> decoder(avcodec_alloc_context3(kind));
    const std::unique_ptr<AVFrame, FrameDeleter> decoded(av_frame_alloc());
    if (decoder == nullptr || decoded == nullptr ||
        avcodec_parameters_to_context(decoder.get(), &codec) < 0) {
        throw std::bad_alloc();
    }
    decoder->thread_count = 1;
    if (avcodec_open2(decoder.get(), kind, nullptr) < 0) return false;
    if (avcodec_send_packet(decoder.get(), &packet) < 0) return false;
    // A decoder that waits for the frames behind it is told that there are none. Some have nothing
    // to show for a first frame that they took: that says nothing against it.
    avcodec_send_packet(decoder.get(), nullptr);
    const int result = avcodec_receive_frame(decoder.get(), decoded.get());
    return result >= 0 || result == AVERROR_EOF || result == AVERROR(EAGAIN);
}

// The packet is used up.
void TakeDescription(AVCodecParameters& codec, AVPacket& packet) {
    const AVBitStreamFilter* const kind = av_bsf_get_by_name("extract_extradata");
    AVBSFContext* raw = nullptr;
    if (kind == nullptr) return;
    if (av_bsf_alloc(kind, &raw) < 0) throw std::bad_alloc();
    const std::unique_ptr<AVBSFContext, FilterDeleter> filter(raw);
    // It knows only the codecs that have such a description.
    if (avcodec_parameters_copy(raw->par_in, &codec) < 0 || av_bsf_init(raw) < 0) return;
    if (av_bsf_send_packet(raw, &packet) < 0 || av_bsf_receive_packet(raw, &packet) < 0) return;
    size_t size_bytes = 0;
    const uint8_t* const said =
        av_packet_get_side_data(&packet, AV_PKT_DATA_NEW_EXTRADATA, &size_bytes);
    if (said == nullptr) return;
    auto* const kept = static_cast<uint8_t*>(av_mallocz(size_bytes + AV_INPUT_BUFFER_PADDING_SIZE));
    if (kept == nullptr) throw std::bad_alloc();
    memcpy(kept, said, size_bytes);
    av_freep(&codec.extradata);
    codec.extradata = kept;
    codec.extradata_size = static_cast<int>(size_bytes);
}

}  // namespace

bool DecodesAlone(AVCodecParameters& codec, std::span<const uint8_t> frame) {
    SetAvLog();
    const PacketPtr packet = PacketOf(frame);
    if (IsBareAac(codec, frame) || !Decodes(codec, *packet)) return false;
    TakeDescription(codec, *packet);
    return true;
}

}  // namespace zem
