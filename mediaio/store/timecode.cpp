// Frame rates and time addresses.
#include "mediaio/store/timecode.h"

namespace zemstore {
namespace {

__extension__ using Wide = unsigned __int128;

// Frames that one second of addresses counts.
uint32_t NominalRate(const FrameRate& rate) {
    return static_cast<uint32_t>((uint64_t{rate.numerator} + rate.denominator / 2) /
                                 rate.denominator);
}

// How addresses count at a rate: `base` numbers per second, each naming `pair` frames.
struct Counting {
    uint32_t base;
    uint32_t pair;
    uint32_t dropped;  // numbers left out at every minute but each tenth
};

bool CountingOf(const FrameRate& rate, bool dropFrame, Counting& counting) {
    if (!rate.Valid()) return false;
    const uint32_t nominal = NominalRate(rate);
    if (nominal == 0 || nominal > 60) return false;
    counting.pair = nominal > 30 ? 2 : 1;
    counting.base = nominal / counting.pair;
    counting.dropped = dropFrame ? 2 : 0;
    return !dropFrame || CanDropFrame(rate);
}

bool FromBcd(uint32_t bcd, uint32_t limit, uint32_t& value) {
    value = (bcd >> 4) * 10 + (bcd & 0xF);
    return (bcd & 0xF) < 10 && value < limit;
}
uint8_t ToBcd(uint64_t value) {
    return static_cast<uint8_t>(value / 10 * 16 + value % 10);
}

}  // namespace

bool RateOf(VioFrameRate_t code, FrameRate& rate) {
    static constexpr FrameRate kRates[] = {{24000, 1001}, {24, 1}, {25, 1},       {30000, 1001},
                                           {30, 1},       {50, 1}, {60000, 1001}, {60, 1}};
    if (code < kFrameRate23976 || code > kFrameRate60) return false;
    rate = kRates[code - kFrameRate23976];
    return true;
}

bool MapPosition(uint32_t position, const FrameRate& asked, const FrameRate& file,
                 uint32_t& mapped) {
    if (!asked.Valid() || !file.Valid()) return false;
    const Wide above = Wide{position} * file.numerator * asked.denominator;
    const Wide below = Wide{file.denominator} * asked.numerator;
    const Wide result = above / below;
    if (result > 0xFFFFFFFFu) return false;
    mapped = static_cast<uint32_t>(result);
    return true;
}

uint64_t PresentationTime(uint32_t position, const FrameRate& rate) {
    if (!rate.Valid()) return 0;
    const Wide time = Wide{position} * 10000000u * rate.denominator / rate.numerator;
    return time > ~uint64_t{0} ? ~uint64_t{0} : static_cast<uint64_t>(time);
}

bool CanDropFrame(const FrameRate& rate) {
    const uint64_t over = uint64_t{rate.numerator} * 1001;
    return rate.denominator != 0 && (over == uint64_t{rate.denominator} * 30000 ||
                                     over == uint64_t{rate.denominator} * 60000);
}

bool TimecodeToCount(const vdrTimecode_s& timecode, const FrameRate& rate, bool dropFrame,
                     uint32_t& count) {
    Counting counting;
    uint32_t hours;
    uint32_t minutes;
    uint32_t seconds;
    uint32_t frames;
    if (!CountingOf(rate, dropFrame, counting)) return false;
    const bool noFlags = (timecode.hours & ~kTimecodeHoursDigits) == 0 &&
                         (timecode.minutes & ~kTimecodeMinutesDigits) == 0;
    const uint32_t secondDigits = timecode.seconds & kTimecodeSecondsDigits;
    const uint32_t frameDigits = timecode.frames & kTimecodeFramesDigits;
    if (!noFlags || !FromBcd(timecode.hours, 24, hours) || !FromBcd(timecode.minutes, 60, minutes))
        return false;
    if (!FromBcd(secondDigits, 60, seconds) || !FromBcd(frameDigits, counting.base, frames))
        return false;
    const uint32_t field = (timecode.seconds & kTimecodeFieldBit) != 0 ? 1 : 0;
    if (field != 0 && counting.pair == 1) return false;
    const bool gap = seconds == 0 && minutes % 10 != 0 && frames < counting.dropped;
    if (gap) return false;
    const uint32_t minute = hours * 60 + minutes;
    const uint32_t number = (minute * 60 + seconds) * counting.base + frames -
                            counting.dropped * (minute - minute / 10);
    count = number * counting.pair + field;
    return true;
}

vdrTimecode_s CountToTimecode(uint64_t count, const FrameRate& rate, bool dropFrame) {
    Counting counting;
    if (!CountingOf(rate, dropFrame, counting)) return {};
    const uint64_t field = count % counting.pair;
    uint64_t number = count / counting.pair;
    const uint64_t perMinute = counting.base * 60 - counting.dropped;
    const uint64_t perTen = counting.base * 600 - counting.dropped * 9;
    number %= perTen * 6 * 24;
    // Puts the numbers back that the address count leaves out.
    const uint64_t tens = number / perTen;
    const uint64_t rest = number % perTen;
    uint64_t skipped = tens * 9 * counting.dropped;
    if (rest >= counting.dropped)
        skipped += (rest - counting.dropped) / perMinute * counting.dropped;
    number += skipped;
    const uint64_t seconds = number / counting.base;
    vdrTimecode_s timecode;
    timecode.frames = ToBcd(number % counting.base);
    timecode.seconds = ToBcd(seconds % 60);
    timecode.minutes = ToBcd(seconds / 60 % 60);
    timecode.hours = ToBcd(seconds / 3600);
    if (dropFrame) timecode.frames |= kTimecodeDropFrameBit;
    if (field != 0) timecode.seconds |= kTimecodeFieldBit;
    return timecode;
}

}  // namespace zemstore
