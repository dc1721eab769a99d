// Cadence and totals of an index.
#include "mediaio/foreign/clipindex.h"

#include "mediaio/cadence.h"
#include "mediaio/store/format.h"

#include <algorithm>

namespace zemstore {
namespace {

using Wide = unsigned __int128;

}  // namespace

void StreamIndex::AddRun(uint64_t offset, uint64_t size) {
    if (size == 0) return;
    const bool joins =
        !runs.empty() && runs.back().offset + (pcmBytes - runs.back().first) == offset;
    if (!joins) runs.push_back({pcmBytes, offset});
    pcmBytes += size;
}

uint64_t FirstSample(uint64_t position, uint32_t sampleRate, const FrameRate& cut) {
    return FirstSampleOfFrame(position, sampleRate, cut.numerator, cut.denominator);
}

uint32_t FramesOf(uint64_t samples, uint32_t sampleRate, const FrameRate& cut) {
    if (samples == 0) return 0;
    // Near the quotient; the rounding of the cut decides on which side.
    const Wide quotient = Wide{samples} * cut.numerator / (Wide{sampleRate} * cut.denominator);
    if (quotient >= kMostFrames) return kMostFrames;
    auto count = static_cast<uint64_t>(quotient);
    count -= std::min<uint64_t>(count, 2);
    while (FirstSample(count, sampleRate, cut) < samples)
        ++count;
    return static_cast<uint32_t>(count);
}

void FinishIndex(ClipIndex& index) {
    FrameRate picture;
    const ZemEsDesc* video = nullptr;
    for (const StreamIndex& stream : index.streams) {
        const FrameRate rate{stream.desc.rateNumerator, stream.desc.rateDenominator};
        if (stream.desc.mediaType != kMediaFileVideo || !rate.Valid()) continue;
        picture = rate;
        video = &stream.desc;
        break;
    }
    if (!picture.Valid()) picture = {25, 1};
    for (StreamIndex& stream : index.streams) {
        ZemEsDesc& desc = stream.desc;
        desc.flags |= kEsFlagReadOnly;
        if (stream.IsPcm() && stream.inPackages) {  // cut by the container
            desc.rateNumerator = picture.numerator;
            desc.rateDenominator = picture.denominator;
            desc.frameCount = static_cast<uint32_t>(index.packages.size());
        } else if (stream.IsPcm()) {
            stream.cut = picture;
            desc.rateNumerator = picture.numerator;
            desc.rateDenominator = picture.denominator;
            // Where pictures follow faster than samples, whoever says so: no more frames than there
            // are samples to put into them.
            const uint64_t samples = stream.pcmBytes / stream.sampleSize;
            desc.frameCount = static_cast<uint32_t>(
                std::min<uint64_t>(FramesOf(samples, desc.sampleRate, picture), samples));
        } else {
            desc.frameCount = static_cast<uint32_t>(
                std::min<size_t>(stream.inPackages ? index.packages.size() : stream.frames.size(),
                                 size_t{kMostFrames}));
        }
        if (desc.mediaType == kMediaFileData) {
            desc.rateNumerator = picture.numerator;
            desc.rateDenominator = picture.denominator;
        }
        // What is cut to the pictures is counted like them.
        const bool follows = stream.IsPcm() || desc.mediaType == kMediaFileData;
        if (video != nullptr && follows) {
            desc.startTimecode = video->startTimecode;
            desc.flags |= video->flags & kEsFlagDropFrame;
        }
    }
}

}  // namespace zemstore
