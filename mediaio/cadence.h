// How sound is cut to pictures. Shared by the media library and the client, so that both
// cut alike. Pure, any thread.
#pragma once

#include <cstdint>

// The first sample of frame `frame` where frames follow one another at `rateNumerator` /
// `rateDenominator` per second: exact, rounded to the nearest, so that 48 kHz at 30000/1001 gives
// frames of 1602, 1601, 1602, 1601, 1602 samples for ever. The rate is valid (both above 0).
inline uint64_t FirstSampleOfFrame(uint64_t frame, uint32_t sampleRate, uint32_t rateNumerator,
                                   uint32_t rateDenominator) {
    using Wide = unsigned __int128;
    const Wide twice = Wide{frame} * sampleRate * rateDenominator * 2 + rateNumerator;
    return static_cast<uint64_t>(twice / (Wide{rateNumerator} * 2));
}
