// Whether coded frames say by themselves how to decode them. Main thread.
#pragma once

#include <cstdint>
#include <span>

struct AVCodecParameters;

namespace zem {

// Decodes `frame` with what `codec` tells and nothing else, no other frame. If that goes well, what
// the frame says of its whole stream (parameter sets and the like), which containers want to know
// as well, is added to `codec`. True as well where the FFmpeg libraries have no decoder for it:
// then nobody here can tell. Throws std::bad_alloc.
bool DecodesAlone(AVCodecParameters& codec, std::span<const uint8_t> frame);

}  // namespace zem
