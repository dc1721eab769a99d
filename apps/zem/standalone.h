// Whether a coded frame says by itself how to decode it. Main thread.
#pragma once

#include <cstdint>
#include <span>

struct AVCodecParameters;

namespace zem {

// Decodes `frame`, the first of its stream, with what `codec` tells and nothing else. True as well
// where the FFmpeg libraries have no decoder for it: then nobody here can tell. Throws
// std::bad_alloc.
bool DecodesAlone(const AVCodecParameters& codec, std::span<const uint8_t> frame);

}  // namespace zem
