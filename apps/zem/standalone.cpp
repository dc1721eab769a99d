#include "apps/zem/standalone.h"

extern "C" {
#include <libavcodec/avcodec.h>
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
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

}  // namespace

bool DecodesAlone(const AVCodecParameters& codec, std::span<const uint8_t> frame) {
    SetAvLog();
    const AVCodec* const kind = avcodec_find_decoder(codec.codec_id);
    if (kind == nullptr) return true;
    const std::unique_ptr<AVCodecContext, DecoderDeleter> decoder(avcodec_alloc_context3(kind));
    const std::unique_ptr<AVPacket, PacketDeleter> packet(av_packet_alloc());
    const std::unique_ptr<AVFrame, FrameDeleter> decoded(av_frame_alloc());
    if (decoder == nullptr || packet == nullptr || decoded == nullptr ||
        avcodec_parameters_to_context(decoder.get(), &codec) < 0 ||
        av_new_packet(packet.get(), static_cast<int>(frame.size())) < 0) {
        throw std::bad_alloc();
    }
    if (!frame.empty()) memcpy(packet->data, frame.data(), frame.size());
    packet->flags |= AV_PKT_FLAG_KEY;
    decoder->thread_count = 1;
    if (avcodec_open2(decoder.get(), kind, nullptr) < 0) return false;
    if (avcodec_send_packet(decoder.get(), packet.get()) < 0) return false;
    // A decoder that waits for the frames behind it is told that there are none. Some want more
    // than one for the first sound or picture: what says nothing against the frame is no failure.
    avcodec_send_packet(decoder.get(), nullptr);
    const int result = avcodec_receive_frame(decoder.get(), decoded.get());
    return result >= 0 || result == AVERROR_EOF || result == AVERROR(EAGAIN);
}

}  // namespace zem
