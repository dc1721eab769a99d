// CRC-32C: published values, and the instruction against the tables.
#include "mediaio/store/crc32c.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using zemstore::Crc32c;
using zemstore::Crc32cPortable;

TEST(Checksum, PublishedValues) {
    EXPECT_EQ(Crc32c(0, "123456789", 9), 0xE3069283u);
    const std::vector<uint8_t> zeros(32, 0);
    EXPECT_EQ(Crc32c(0, zeros.data(), 32), 0x8A9136AAu);
    const std::vector<uint8_t> ones(32, 0xFF);
    EXPECT_EQ(Crc32c(0, ones.data(), 32), 0x62A8AB43u);
    EXPECT_EQ(Crc32cPortable(0, "123456789", 9), 0xE3069283u);
}

TEST(Checksum, BothFormsAgreeAtAnyLengthAndAlignment) {
    std::mt19937 random(7);
    std::vector<uint8_t> data(200000);
    for (uint8_t& byte : data)
        byte = static_cast<uint8_t>(random());
    for (size_t size : {0u, 1u, 7u, 8u, 4095u, 12287u, 12288u, 12289u, 24576u, 100000u, 199000u}) {
        for (size_t shift : {0u, 1u, 5u}) {
            EXPECT_EQ(Crc32c(0, data.data() + shift, size),
                      Crc32cPortable(0, data.data() + shift, size))
                << size << " bytes at " << shift;
        }
    }
}

TEST(Checksum, Continues) {
    std::vector<uint8_t> data(50000, 0x5A);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 31);
    const uint32_t whole = Crc32c(0, data.data(), data.size());
    for (size_t cut : {0u, 1u, 4096u, 13000u, 50000u}) {
        const uint32_t first = Crc32c(0, data.data(), cut);
        EXPECT_EQ(Crc32c(first, data.data() + cut, data.size() - cut), whole);
    }
}

}  // namespace
