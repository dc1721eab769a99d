// The FFmpeg libraries' description of a stream in the terms of the server. Shared by the
// readers of foreign files and the client, so that a clip is described alike whether it is read
// where it lies or brought in. Pure functions, any thread.
#pragma once

#include "mediaio/zemiotypes.h"

#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

#pragma GCC visibility push(default)

namespace zemav {

// The elementary-stream descriptor of a stream of a container: codec, rate, size, sound format,
// start timecode. Frame count 0. PCM has no frames of its own and gets no rate.
ZemEsDesc Describe(AVFormatContext& format, AVStream& stream);

// The four-character code of a codec: of PCM one that tells format and byte order, else the
// container's own, else what QuickTime or AVI call it, else the beginning of libavcodec's name.
uint32_t FourccOf(const AVCodecParameters& codec);
// The other way; AV_CODEC_ID_NONE for a code that is not known.
AVCodecID CodecOf(MediaFileType type, uint32_t fourcc);

// Bytes of one sample of all channels of plain PCM, which can be cut anywhere; 0 for anything else.
uint32_t PcmSampleSize(const AVCodecParameters& codec);

// A rate that is one of the field's but for what rounding of timestamps did to it; 0/0 for none.
AVRational NearestRate(const AVRational& rate);

// The timecode of the first frame as the container spells it, of the stream or of the whole; empty:
// none.
std::string TimecodeOf(const AVFormatContext& format, const AVStream& stream);
// "HH:MM:SS:FF", with ';' or '.' before the frames for drop-frame. With `pairs` (rates above 30)
// an address names two frames, the field flag tells the second. False when the text is no timecode.
bool ParseTimecode(const std::string& text, bool pairs, vdrTimecode_s& timecode);
// The other way, with two digits of frames at any rate.
std::string TimecodeSpelling(const vdrTimecode_s& timecode, bool pairs);
bool CountsPairs(const ZemEsDesc& desc);

}  // namespace zemav

#pragma GCC visibility pop
