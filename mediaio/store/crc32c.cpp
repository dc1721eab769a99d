// CRC-32C. The instruction takes three cycles and can begin every cycle, so the fast form runs over
// three blocks at once and joins their checksums: a checksum moves past a block of zeros by a
// linear map, which a table per byte of the checksum applies.
#include "mediaio/store/crc32c.h"

#include <array>
#include <cstring>

namespace zemstore {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78u;  // reflected
constexpr size_t kBlock = 4096;

using ByteTable = std::array<uint32_t, 256>;

constexpr std::array<ByteTable, 8> MakeTables() {
    std::array<ByteTable, 8> tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (crc & 1 ? kPolynomial : 0);
        tables[0][i] = crc;
    }
    for (uint32_t i = 0; i < 256; ++i) {
        for (size_t k = 1; k < 8; ++k)
            tables[k][i] = (tables[k - 1][i] >> 8) ^ tables[0][tables[k - 1][i] & 0xFF];
    }
    return tables;
}
constexpr auto kTables = MakeTables();

uint32_t RunTables(uint32_t state, const uint8_t* p, size_t size) {
    while (size >= 8) {
        uint64_t word = 0;
        for (int i = 0; i < 8; ++i)
            word |= uint64_t{p[i]} << (8 * i);
        word ^= state;
        state = 0;
        for (size_t i = 0; i < 8; ++i)
            state ^= kTables[7 - i][(word >> (8 * i)) & 0xFF];
        p += 8;
        size -= 8;
    }
    for (; size > 0; --size, ++p)
        state = (state >> 8) ^ kTables[0][(state ^ *p) & 0xFF];
    return state;
}

#if defined(__x86_64__) && defined(__GNUC__)

// A state's value after kBlock zero bytes, by the state's four bytes.
std::array<ByteTable, 4> MakeShift() {
    std::array<uint32_t, 32> unit{};
    static const uint8_t zeros[kBlock] = {};
    for (size_t bit = 0; bit < 32; ++bit)
        unit[bit] = RunTables(1u << bit, zeros, kBlock);
    std::array<ByteTable, 4> shift{};
    for (size_t byte = 0; byte < 4; ++byte) {
        for (size_t value = 0; value < 256; ++value) {
            for (size_t bit = 0; bit < 8; ++bit)
                if (value & (size_t{1} << bit)) shift[byte][value] ^= unit[byte * 8 + bit];
        }
    }
    return shift;
}

uint64_t Load(const uint8_t* p) {
    uint64_t word;
    memcpy(&word, p, 8);
    return word;
}

__attribute__((target("sse4.2"))) uint32_t RunInstruction(uint32_t state, const uint8_t* p,
                                                          size_t size) {
    static const auto shift = MakeShift();
    const auto past = [](uint64_t crc) {
        return shift[0][crc & 0xFF] ^ shift[1][(crc >> 8) & 0xFF] ^ shift[2][(crc >> 16) & 0xFF] ^
               shift[3][(crc >> 24) & 0xFF];
    };
    uint64_t a = state;
    for (; size >= 3 * kBlock; size -= 3 * kBlock, p += 3 * kBlock) {
        uint64_t b = 0;
        uint64_t c = 0;
        for (size_t i = 0; i < kBlock; i += 8) {
            a = __builtin_ia32_crc32di(a, Load(p + i));
            b = __builtin_ia32_crc32di(b, Load(p + kBlock + i));
            c = __builtin_ia32_crc32di(c, Load(p + 2 * kBlock + i));
        }
        a = past(past(a) ^ b) ^ c;
    }
    for (; size >= 8; size -= 8, p += 8)
        a = __builtin_ia32_crc32di(a, Load(p));
    auto last = static_cast<uint32_t>(a);
    for (; size > 0; --size, ++p)
        last = __builtin_ia32_crc32qi(last, *p);
    return last;
}

const bool kHaveInstruction = __builtin_cpu_supports("sse4.2");

#endif

}  // namespace

uint32_t Crc32cPortable(uint32_t crc, const void* data, size_t size_bytes) {
    return ~RunTables(~crc, static_cast<const uint8_t*>(data), size_bytes);
}

uint32_t Crc32c(uint32_t crc, const void* data, size_t size_bytes) {
#if defined(__x86_64__) && defined(__GNUC__)
    if (kHaveInstruction)
        return ~RunInstruction(~crc, static_cast<const uint8_t*>(data), size_bytes);
#endif
    return Crc32cPortable(crc, data, size_bytes);
}

}  // namespace zemstore
