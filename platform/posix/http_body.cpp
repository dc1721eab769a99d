// The chunked decoder: a state machine over the framing, with the data moved in runs.
#include "platform/posix/http_body.h"

#include <algorithm>
#include <cstring>

#include "platform/posix/http_parser.h"

namespace posix {

void CBodyDecoder::TakePlain(uint64_t n) {
    m_left -= n;
    if (m_left > 0) return;
    m_state = m_state == EState::Length ? EState::Done : EState::DataCr;
}

int CBodyDecoder::Decode(const char*& in, const char* in_end, char*& out, const char* out_end) {
    if (IsBroken()) return 400;
    while (in != in_end && !Done()) {
        if (const uint64_t plain = Plain()) {
            const size_t n = static_cast<size_t>(std::min(
                {plain, static_cast<uint64_t>(in_end - in), static_cast<uint64_t>(out_end - out)}));
            if (n == 0) return 0;
            if (out != in) memmove(out, in, n);
            in += n;
            out += n;
            TakePlain(n);
        } else if (const int status = DecodeFraming(*in++)) {
            m_state = EState::Broken;
            return status;
        }
    }
    return 0;
}

int CBodyDecoder::AddSizeDigit(char c) {
    uint64_t digit;
    if (c >= '0' && c <= '9')
        digit = static_cast<uint64_t>(c - '0');
    else if (c >= 'A' && c <= 'F')
        digit = static_cast<uint64_t>(c - 'A' + 10);
    else if (c >= 'a' && c <= 'f')
        digit = static_cast<uint64_t>(c - 'a' + 10);
    else
        return 400;
    if (m_left >> 58) return 413;
    m_left = m_left * 16 + digit;
    m_state = EState::Size;
    return 0;
}

int CBodyDecoder::EndSize() {
    m_line = 0;
    m_state = m_left ? EState::Data : EState::TrailerFirst;
    return 0;
}

// Lines end with CR LF and nothing else; a control character in an extension or trailer is refused,
// and so is a trailer line without a field name: it may be the next request, behind an end that
// somebody else saw.
int CBodyDecoder::DecodeFraming(char c) {
    const bool text = static_cast<uint8_t>(c) >= 0x20 ? c != 0x7F : c == '\t';
    switch (m_state) {
        case EState::SizeFirst:
        case EState::Size:
            if (++m_line > kMaxChunkLineBytes) return 400;
            if (m_state == EState::Size && c == '\r') return m_state = EState::SizeLf, 0;
            if (m_state == EState::Size && c == ';') return m_state = EState::Extension, 0;
            if (m_state == EState::Size && (c == ' ' || c == '\t'))
                return m_state = EState::SizeBlank, 0;
            return AddSizeDigit(c);
        case EState::SizeBlank:
            if (++m_line > kMaxChunkLineBytes) return 400;
            if (c == ';') m_state = EState::Extension;
            return c == ';' || c == ' ' || c == '\t' ? 0 : 400;
        case EState::Extension:
            if (++m_line > kMaxChunkLineBytes || ++m_overhead > kMaxTrailerBytes) return 400;
            if (c == '\r') return m_state = EState::SizeLf, 0;
            return text ? 0 : 400;
        case EState::SizeLf:
            return c == '\n' ? EndSize() : 400;
        case EState::DataCr:
            return m_state = EState::DataLf, c == '\r' ? 0 : 400;
        case EState::DataLf:
            return m_state = EState::SizeFirst, c == '\n' ? 0 : 400;
        case EState::TrailerFirst:
            if (c == '\r') return m_state = EState::EndLf, 0;
            m_state = EState::TrailerName;
            return IsTokenChar(c) ? 0 : 400;
        case EState::TrailerName:
            if (++m_overhead > kMaxTrailerBytes) return 431;
            if (c == ':') return m_state = EState::Trailer, 0;
            return IsTokenChar(c) ? 0 : 400;
        case EState::Trailer:
            if (++m_overhead > kMaxTrailerBytes) return 431;
            if (c == '\r') return m_state = EState::TrailerLf, 0;
            return text ? 0 : 400;
        case EState::TrailerLf:
            return m_state = EState::TrailerFirst, c == '\n' ? 0 : 400;
        case EState::EndLf:
            return m_state = EState::Done, c == '\n' ? 0 : 400;
        default:
            return 400;
    }
}

}  // namespace posix
