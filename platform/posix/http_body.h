// Where a request's body ends: counts a body of known length, and takes a chunked one apart. Owned
// by the connection; used by whichever thread holds it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/posix/http_limits.h"

namespace posix {

class CBodyDecoder {
public:
    void SetNone() { Reset(EState::Done, 0); }
    void SetLength(uint64_t bytes) { Reset(bytes ? EState::Length : EState::Done, bytes); }
    void SetChunked() { Reset(EState::SizeFirst, 0); }

    bool Done() const { return m_state == EState::Done; }
    // After a framing error: no byte that follows is the body's, nor surely another request's.
    bool IsBroken() const { return m_state == EState::Broken; }
    bool IsLength() const { return m_state == EState::Length; }

    // Body bytes that come next on the wire without framing between them: the rest of a body of
    // known length, or of the current chunk. 0 when framing comes first.
    uint64_t Plain() const {
        return m_state == EState::Length || m_state == EState::Data ? m_left : 0;
    }
    // Takes note that n of those bytes were received elsewhere.
    void TakePlain(uint64_t n);

    // Reads wire bytes from `in` and moves body bytes to `out` (which may be `in` itself or lie
    // before it) until the input, the room or the body ends. 0, or the status of a framing error,
    // which every later call gives again (as 400) without reading.
    int Decode(const char*& in, const char* in_end, char*& out, const char* out_end);

private:
    enum class EState : uint8_t {
        Done,
        Length,
        SizeFirst,
        Size,
        SizeBlank,
        Extension,
        SizeLf,
        Data,
        DataCr,
        DataLf,
        TrailerFirst,
        TrailerName,
        Trailer,
        TrailerLf,
        EndLf,
        Broken,
    };
    void Reset(EState state, uint64_t left) {
        m_state = state;
        m_left = left;
        m_overhead = 0;
        m_line = 0;
    }
    int DecodeFraming(char c);
    int AddSizeDigit(char c);
    int EndSize();

    uint64_t m_left = 0;
    uint32_t m_overhead = 0;  // bytes of extensions and trailers so far
    uint32_t m_line = 0;      // bytes of the current size line
    EState m_state = EState::Done;
};

}  // namespace posix
