// Containers' streams to the store's terms.
#include "mediaio/foreign/esdesc.h"

#include "mediaio/foreign/avdesc.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace zemstore {
namespace {

uint32_t KindOf(AVMediaType type) {
    switch (type) {
        case AVMEDIA_TYPE_VIDEO:
            return kTokenKindVideo;
        case AVMEDIA_TYPE_AUDIO:
            return kTokenKindAudio;
        case AVMEDIA_TYPE_DATA:
            return kTokenKindData;
        default:
            return 0;
    }
}

// A start address that does not exist at the stream's rate is none.
void CheckTimecode(ZemEsDesc& desc) {
    const FrameRate rate{desc.rateNumerator, desc.rateDenominator};
    const bool dropFrame = (desc.flags & kEsFlagDropFrame) != 0;
    uint32_t count = 0;
    if (!rate.Valid() || TimecodeToCount(desc.startTimecode, rate, dropFrame, count)) return;
    desc.startTimecode = {};
    desc.flags &= ~kEsFlagDropFrame;
}

}  // namespace

void SetRate(StreamIndex& stream, const AVRational& timeBase, int64_t frameDistance) {
    if (frameDistance <= 0 || timeBase.num <= 0 || timeBase.den <= 0) return;
    // Milliseconds are too coarse to tell a rate.
    if (timeBase.num == 1 && timeBase.den == 1000) return;
    AVRational rate{0, 1};
    if (av_reduce(&rate.num, &rate.den, timeBase.den, timeBase.num * frameDistance, INT32_MAX) == 0)
        return;
    if (stream.desc.mediaType == kMediaFileVideo) rate = zemav::NearestRate(rate);
    if (rate.num <= 0 || rate.den <= 0) return;
    stream.desc.rateNumerator = static_cast<uint32_t>(rate.num);
    stream.desc.rateDenominator = static_cast<uint32_t>(rate.den);
}

void DescribeStreams(AVFormatContext& format, ClipIndex& index) {
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        AVStream& stream = *format.streams[i];
        StreamIndex entry;
        entry.kind = KindOf(stream.codecpar->codec_type);
        const bool cover = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        if (entry.kind == 0 || cover) {
            stream.discard = AVDISCARD_ALL;
            continue;
        }
        entry.avIndex = static_cast<int>(i);
        entry.desc = zemav::Describe(format, stream);
        CheckTimecode(entry.desc);
        if (entry.kind == kTokenKindAudio)
            entry.sampleSize = zemav::PcmSampleSize(*stream.codecpar);
        index.streams.push_back(std::move(entry));
    }
}

}  // namespace zemstore
