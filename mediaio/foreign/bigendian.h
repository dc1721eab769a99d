// Numbers as containers write them, first byte first. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zemstore {

inline uint64_t BigEndian(const uint8_t* bytes, size_t count) {
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value = value << 8 | bytes[i];
    return value;
}

inline uint32_t BigEndian32(const uint8_t* bytes) {
    return static_cast<uint32_t>(BigEndian(bytes, 4));
}

}  // namespace zemstore
