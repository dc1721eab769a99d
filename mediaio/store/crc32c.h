// CRC-32C (Castagnoli), by the processor's instruction where it has one. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(default)

namespace zemstore {

// The checksum of data that follows data with checksum `crc`; 0 begins.
uint32_t Crc32c(uint32_t crc, const void* data, size_t size_bytes);

// The same by tables alone, for processors without the instruction and for tests.
uint32_t Crc32cPortable(uint32_t crc, const void* data, size_t size_bytes);

}  // namespace zemstore

#pragma GCC visibility pop
