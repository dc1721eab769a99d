// What is known of a foreign file: for every stream, where each of its frames lies.
// Plain data; whoever shares it guards it.
#pragma once

#include "mediaio/store/timecode.h"
#include "mediaio/zemiotypes.h"
#include "platform/platform.h"

#include <array>
#include <cstdint>
#include <unordered_map>
#include <vector>

#pragma GCC visibility push(default)

namespace zemstore {

// A coded frame. Its bytes are those of the file from `offset` on, unless they only come out of the
// container's demuxer (kPlaceDemux: `offset` is where the demuxer finds them).
struct FramePlace {
    uint64_t offset;
    uint32_t size;
    uint32_t flags;  // kFrameFlagKey and kPlace…
    uint32_t crc;    // CRC-32C of the bytes, with kPlaceHasCrc
    uint32_t reserved;
};
static_assert(sizeof(FramePlace) == 24);
inline constexpr uint32_t kMostFrames = 1u << 24;  // 77 hours at 60 per second
inline constexpr uint32_t kPlaceDemux = 0x10000;
inline constexpr uint32_t kPlaceHasCrc = 0x20000;
inline constexpr uint32_t kPlaceCorrupt = 0x40000;  // not whole, or read and found wrong

// A piece of a PCM stream: the stream's bytes from `first` on lie at `offset`.
struct PcmRun {
    uint64_t first;
    uint64_t offset;
};
static_assert(sizeof(PcmRun) == 16);

using MxfKey = std::array<uint8_t, 16>;

struct StreamIndex {
    ZemEsDesc desc{};      // frameCount is kept up to date; flags have kEsFlagReadOnly
    int32_t avIndex = -1;  // its number in the container's demuxer
    uint32_t kind = 0;     // kTokenKind…: video, audio or data
    std::vector<FramePlace> frames;

    // PCM is not kept in frames but cut when it is read.
    uint32_t sampleSize = 0;  // bytes of one sample of all channels; 0: not cut
    uint64_t pcmBytes = 0;
    FrameRate cut;  // the rate of the frames
    std::vector<PcmRun> runs;

    // Frames of which only the content package is known (ClipIndex::packages), and the key of
    // the element in it that holds them; their places are found as they are read.
    bool inPackages = false;
    MxfKey key{};
    std::unordered_map<uint32_t, FramePlace> located;

    std::vector<uint32_t> cachedStamps;

    bool IsPcm() const { return sampleSize != 0; }
    void AddRun(uint64_t offset, uint64_t size);
};

struct ClipIndex {
    std::vector<StreamIndex> streams;
    struct Package {
        uint64_t offset;
        bool key;
    };
    std::vector<Package> packages;  // content packages of an MXF file, one for each frame
    uint64_t packagesEnd = 0;
};

// The first sample of frame `position` of a stream that is cut.
uint64_t FirstSample(uint64_t position, uint32_t sampleRate, const FrameRate& cut);
// How many frames `samples` make, the last one perhaps short.
uint32_t FramesOf(uint64_t samples, uint32_t sampleRate, const FrameRate& cut);

// Settles the rate of each stream's frames and their number once all places are known: PCM is cut
// to the frames of the first video stream, or to 25 frames per second where there is none that has
// a rate.
void FinishIndex(ClipIndex& index);

}  // namespace zemstore

#pragma GCC visibility pop
