// A container's stream as an elementary-stream descriptor. Pure functions.
#pragma once

#include "mediaio/foreign/clipindex.h"

extern "C" {
#include <libavformat/avformat.h>
}

#pragma GCC visibility push(default)

namespace zemstore {

// The streams that can be read, in the container's order; their places are still to be found.
// Cover pictures, subtitles and attachments are left out.
void DescribeStreams(AVFormatContext& format, ClipIndex& index);

// Takes the rate from the distance of two frames, in units of the time base: more exact than what
// some containers declare. A distance that tells no rate changes nothing.
void SetRate(StreamIndex& stream, const AVRational& timeBase, int64_t frameDistance);

}  // namespace zemstore

#pragma GCC visibility pop
