// Frame rates as ratios, positions between rates, and time addresses as in SMPTE
// ST 12-1. Integers only. Pure functions, any thread.
#pragma once

#include "mediaio/zemiotypes.h"

#pragma GCC visibility push(default)

namespace zemstore {

struct FrameRate {
    uint32_t numerator = 0;
    uint32_t denominator = 0;
    bool Valid() const { return numerator != 0 && denominator != 0; }
};

// False for kFrameRateFile and for values that are no rate.
bool RateOf(VioFrameRate_t code, FrameRate& rate);

// The frame of a file at `file` that is shown when frame `position` of the `asked` rate begins.
// False when a rate is not valid or the result has no room in 32 bits.
bool MapPosition(uint32_t position, const FrameRate& asked, const FrameRate& file,
                 uint32_t& mapped);

// 100 ns units from the start of the file; 0 without a rate.
uint64_t PresentationTime(uint32_t position, const FrameRate& rate);

// Drop-frame counting exists at 30000/1001 and 60000/1001.
bool CanDropFrame(const FrameRate& rate);

// Number of frames from 00:00:00:00 to the address; false when there is no such address at this
// rate (BCD digits, ranges, dropped numbers). Above 30 frames per second an address names a pair,
// bit 7 of `seconds` its second frame.
bool TimecodeToCount(const vdrTimecode_s& timecode, const FrameRate& rate, bool dropFrame,
                     uint32_t& count);
// The other way; the count wraps after 24 hours. All zero without a rate.
vdrTimecode_s CountToTimecode(uint64_t count, const FrameRate& rate, bool dropFrame);

}  // namespace zemstore

#pragma GCC visibility pop
