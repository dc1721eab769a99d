// What the value of an option may be. Pure functions; main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace zem {

struct ValueCheck {
    // What is wrong with a value, in a sentence; nothing when it is good. It may put another
    // spelling in its place, which is then what the parser reads.
    std::function<std::string(std::string& value)> problem;
    // What help tells of it: "1 to 40", "{quick,all}"; empty: nothing.
    std::string bounds;
};

inline constexpr uint64_t kAnyNumber = std::numeric_limits<uint32_t>::max();

// A whole number, decimal or with 0x in front; it becomes decimal, for the parser by itself reads
// 010 as eight. Help tells the bounds, but for `most` kAnyNumber.
ValueCheck WholeNumber(uint64_t least, uint64_t most = kAnyNumber);
// A decimal number, with a point or without.
ValueCheck Number(double least, double most);
ValueCheck OneOf(const std::vector<std::string>& words);

}  // namespace zem
