// Whether a clip ends where it should, for the two kinds of file that the FFmpeg libraries take for
// whole wherever they end: a Matroska's elements say how long they are, and a transport stream
// consists of packets of one length. Of a damaged file, and of any other, nothing is said. One
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct AVIOContext;

namespace zem {

// From the head of one element of a Matroska to that of the next.
class CMatroskaWalk {
public:
    // The byte that it wants next; kNone when it has seen enough.
    static constexpr uint64_t kNone = UINT64_MAX;
    uint64_t Wants() const { return m_done ? kNone : m_at + m_count; }
    void Take(uint8_t byte);
    // Why a file of so many bytes is not whole; empty: it may be.
    std::string WhyCut(uint64_t size_bytes) const;

private:
    void Step();
    std::array<uint8_t, 12> m_head{};  // of the element: its name, then its size
    size_t m_count = 0;                // bytes of it that are known
    uint64_t m_before = 0;             // where the element before this one begins
    uint64_t m_at = 0;
    bool m_done = false;
    bool m_lost = false;  // nobody knows where it should end
};

// The clip's bytes in order, as they come through a pipe, or from a file where it wants them.
class CClipEnd {
public:
    CClipEnd();
    // Allocates nothing.
    void Take(std::span<const uint8_t> data);
    // All of a file. Leaves the place in the file where it was.
    void Look(AVIOContext& file);
    std::string WhyCut(const char* format) const;

private:
    std::string WhyTransportCut() const;
    CMatroskaWalk m_walk;
    std::vector<uint8_t> m_first;
    std::vector<uint8_t> m_last;
    uint64_t m_size_bytes = 0;
};

}  // namespace zem
