// esdesc.h: a container's stream as an elementary-stream descriptor. Pure functions.
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

// Takes the rate from the distance of the frames, which is more exact than what some containers
// declare. `regular`: all frames are that far apart.
void SetRate(StreamIndex& stream, const AVRational& timeBase, int64_t frameDistance);

}  // namespace zemstore

#pragma GCC visibility pop
