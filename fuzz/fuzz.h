// What every fuzz target is made of: the entry that libFuzzer and the replay program call, a reader
// that takes an input apart, and the check that ends the process when something does not hold.
// A target keeps nothing from one input to the next that could change what the next one does.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

// One input. 0, always. Called on one thread.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Ends the process with the place and the reason: a finding.
inline void Require(bool holds, const char* what, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
    if (holds) return;
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    std::abort();
}

// Takes an input apart from its front. Behind its end everything reads as zero.
class CReader {
public:
    CReader(const uint8_t* data, size_t size) : m_next(data), m_end(data + size) {}

    bool AtEnd() const { return m_next == m_end; }
    size_t Left() const { return static_cast<size_t>(m_end - m_next); }

    // A little-endian number.
    template <class T>
    T Take() {
        T value{};
        const size_t n = std::min(sizeof value, Left());
        if (n > 0) std::memcpy(&value, m_next, n);
        m_next += n;
        return value;
    }
    std::string_view TakeBytes(size_t n) {
        n = std::min(n, Left());
        const auto* from = reinterpret_cast<const char*>(m_next);
        m_next += n;
        return {from, n};
    }
    std::string_view TakeRest() { return TakeBytes(Left()); }

private:
    const uint8_t* m_next;
    const uint8_t* m_end;
};

}  // namespace fuzz
