// Files of the store for the fuzz target: some to begin with, always the same to the byte, and the
// checksums of one whose bytes were changed, made right again.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/mediaio/simfile.h"

namespace fuzz {

// 0: empty; 1: frames, closed; 2: frames and a tail, as a killed process leaves it. Others count
// round.
simfile::Device FirstFile(uint8_t which);

// Makes the checksums of header, roots, records and index nodes right, and those by which nodes
// name each other; with `data` those of the frames too.
void Forge(std::vector<uint8_t>& bytes, bool data);

}  // namespace fuzz
