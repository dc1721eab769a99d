// Rates and time addresses.
#include "mediaio/store/timecode.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace zemstore;

constexpr FrameRate k2997{30000, 1001};
constexpr FrameRate k5994{60000, 1001};
constexpr FrameRate k25{25, 1};

vdrTimecode_s Tc(uint8_t h, uint8_t m, uint8_t s, uint8_t f) {
    return {f, s, m, h};
}

bool Same(const vdrTimecode_s& a, const vdrTimecode_s& b) {
    return memcmp(&a, &b, 4) == 0;
}

TEST(Timecode, DropFrameKnownPoints) {
    uint32_t count = 0;
    ASSERT_TRUE(TimecodeToCount(Tc(0x01, 0, 0, 0), k2997, true, count));
    EXPECT_EQ(count, 107892u);
    ASSERT_TRUE(TimecodeToCount(Tc(0, 0x10, 0, 0), k2997, true, count));
    EXPECT_EQ(count, 17982u);
    ASSERT_TRUE(TimecodeToCount(Tc(0, 0x01, 0, 0x02), k2997, true, count));
    EXPECT_EQ(count, 1800u);
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0x01, 0, 0x00), k2997, true, count));
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0x01, 0, 0x01), k2997, true, count));
    EXPECT_TRUE(TimecodeToCount(Tc(0, 0x20, 0, 0x00), k2997, true, count));
    EXPECT_TRUE(Same(CountToTimecode(1800, k2997, true), Tc(0, 0x01, 0, 0x42)));
    EXPECT_TRUE(Same(CountToTimecode(1799, k2997, true), Tc(0, 0, 0x59, 0x69)));
}

TEST(Timecode, EveryCountOfADayHasItsOwnAddress) {
    for (const auto& [rate, drop] : {std::pair{k2997, true},
                                     {k2997, false},
                                     {k25, false},
                                     {k5994, true},
                                     {FrameRate{50, 1}, false}}) {
        for (uint32_t count = 0; count < 5200000; count += count % 1791 < 5 ? 1 : 7) {
            const vdrTimecode_s address = CountToTimecode(count, rate, drop);
            uint32_t back = 0;
            ASSERT_TRUE(TimecodeToCount(address, rate, drop, back)) << count;
            const uint32_t day =
                drop ? (rate.numerator == 60000 ? 5178816u : 2589408u)
                     : (rate.numerator == 30000 ? 2592000u : rate.numerator * 86400u);
            ASSERT_EQ(back, count % day);
        }
    }
}

TEST(Timecode, PairsAboveThirty) {
    EXPECT_TRUE(Same(CountToTimecode(1, FrameRate{50, 1}, false), Tc(0, 0, 0x80, 0)));
    EXPECT_TRUE(Same(CountToTimecode(50, FrameRate{50, 1}, false), Tc(0, 0, 1, 0)));
    uint32_t count = 0;
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0, 0x80, 0), k25, false, count));
}

TEST(Timecode, Refuses) {
    uint32_t count = 0;
    EXPECT_FALSE(TimecodeToCount(Tc(0x24, 0, 0, 0), k25, false, count));
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0x60, 0, 0), k25, false, count));
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0, 0, 0x25), k25, false, count));
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0, 0, 0x0A), k25, false, count));
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0, 0, 0), k25, true, count)) << "25 never drops";
    EXPECT_FALSE(TimecodeToCount(Tc(0, 0, 0, 0), FrameRate{}, false, count));
}

TEST(Rates, PositionsAreExact) {
    uint32_t mapped = 0;
    ASSERT_TRUE(MapPosition(1001, {24, 1}, {24000, 1001}, mapped));
    EXPECT_EQ(mapped, 1000u);
    ASSERT_TRUE(MapPosition(7, {50, 1}, k25, mapped));
    EXPECT_EQ(mapped, 3u);
    ASSERT_TRUE(MapPosition(7, k25, {50, 1}, mapped));
    EXPECT_EQ(mapped, 14u);
    ASSERT_TRUE(MapPosition(4000000000u, k25, k25, mapped));
    EXPECT_EQ(mapped, 4000000000u);
    EXPECT_FALSE(MapPosition(4000000000u, {24, 1}, {60, 1}, mapped));
    ASSERT_TRUE(MapPosition(1, {0xFFFFFFFF, 1}, {1, 0xFFFFFFFF}, mapped));
    EXPECT_EQ(mapped, 0u);
    EXPECT_FALSE(MapPosition(1, {}, k25, mapped));
    EXPECT_EQ(PresentationTime(25, k25), 10000000u);
    EXPECT_EQ(PresentationTime(30, k2997), 10010000u);
    FrameRate rate;
    EXPECT_FALSE(RateOf(kFrameRateFile, rate));
    EXPECT_FALSE(RateOf(static_cast<VioFrameRate_t>(9), rate));
    ASSERT_TRUE(RateOf(kFrameRate5994, rate));
    EXPECT_EQ(rate.numerator, 60000u);
}

}  // namespace
