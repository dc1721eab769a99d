// What a clip on the server is beside its frames: NAME.clip, a file whose frame 0 tells how many
// streams there are and whose further frames describe one stream each, codec parameters and times,
// so that the clip can leave as it came. docs/media.md has the layout. Pure functions; one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mediaio/zemiotypes.h"

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavutil/rational.h>
}

namespace zem {

struct CodecParametersDeleter {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, CodecParametersDeleter>;

struct PacketTime {
    int64_t dts = 0;  // kNoTime: none
    int64_t pts = 0;
    uint32_t duration = 0;
    uint32_t flags = 0;  // kFrameFlagKey
};
static_assert(sizeof(PacketTime) == 24);

struct StreamHead {
    std::string suffix;  // of its file: v0, a1
    CodecParametersPtr parameters;
    AVRational timeBase{0, 1};
    AVRational rate{0, 1};          // of pictures; 0 where there is none
    std::string timecode;           // of the first frame, as text; empty: none
    uint32_t sampleSize = 0;        // PCM that is cut: bytes of one sample of all channels
    int64_t firstPts = 0;           // PCM that is cut: of its first sample
    std::vector<PacketTime> times;  // of all frames; PCM that is cut has none
};

// The file's name and elementary-stream descriptor.
std::string ClipFileName(const std::string& name);
// The clip that a file of this name is of: media/c for media/c.a1; empty if it is none of a clip's.
std::string ClipOfFile(const std::string& name);
ZemEsDesc ClipFileDesc();

std::vector<uint8_t> WriteClipHead(size_t stream_count);
// Throws CZemError(kBadReply) for what is no clip head; so does ReadStreamHead.
size_t ReadClipHead(std::span<const uint8_t> bytes);
std::vector<uint8_t> WriteStreamHead(const StreamHead& head);
StreamHead ReadStreamHead(std::span<const uint8_t> bytes);

}  // namespace zem
