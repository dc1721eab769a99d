// Conversion between UTF-8 and UTF-16, by hand: the standard library's converters are deprecated
// and locale-bound.
#include "apps/zem/client/text.h"

#include <array>
#include <cstdint>
#include <cstdio>

#include "apps/zem/client/zemerror.h"

namespace zem {
namespace {

// Length of the sequence that `lead` opens, with its payload bits and the smallest code point that
// needs so many bytes.
struct Sequence {
    int length;
    uint32_t bits;
    uint32_t smallest;
};

Sequence SequenceOf(uint8_t lead) {
    if (lead < 0x80) return {1, lead, 0};
    if ((lead & 0xE0) == 0xC0) return {2, lead & 0x1Fu, 0x80};
    if ((lead & 0xF0) == 0xE0) return {3, lead & 0x0Fu, 0x800};
    if ((lead & 0xF8) == 0xF0) return {4, lead & 0x07u, 0x10000};
    return {0, 0, 0};
}

void AppendUtf8(std::string& out, uint32_t point) {
    if (point < 0x80) {
        out.push_back(static_cast<char>(point));
    } else if (point < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (point >> 6)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    } else if (point < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (point >> 12)));
        out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (point >> 18)));
        out.push_back(static_cast<char>(0x80 | ((point >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    }
}

bool IsHighSurrogate(uint32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(uint32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

uint32_t NextCodePoint(std::string_view utf8, size_t& at) {
    const Sequence sequence = SequenceOf(static_cast<uint8_t>(utf8[at]));
    const auto length = static_cast<size_t>(sequence.length);
    bool good = length > 0 && length <= utf8.size() - at;
    uint32_t point = sequence.bits;
    for (size_t i = 1; good && i < length; ++i) {
        const auto byte = static_cast<uint8_t>(utf8[at + i]);
        good = (byte & 0xC0) == 0x80;
        point = (point << 6) | (byte & 0x3Fu);
    }
    good = good && point >= sequence.smallest && point <= 0x10FFFF &&
           (point < 0xD800 || point > 0xDFFF);
    at += good ? length : 1;
    return good ? point : kIllFormed;
}

std::u16string ToUtf16(std::string_view utf8, const char* what) {
    std::u16string out;
    out.reserve(utf8.size());
    for (size_t at = 0; at < utf8.size();) {
        const uint32_t point = NextCodePoint(utf8, at);
        if (point == kIllFormed)
            throw CZemError(ErrorKind::kUsage, std::string(what) + " is not well-formed UTF-8");
        if (point < 0x10000) {
            out.push_back(static_cast<char16_t>(point));
        } else {
            out.push_back(static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
        }
    }
    return out;
}

std::string ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        uint32_t point = text[at];
        if (IsHighSurrogate(point) && at + 1 < text.size() && IsLowSurrogate(text[at + 1]))
            point = 0x10000 + ((point - 0xD800) << 10) + (text[++at] - 0xDC00u);
        else if (IsHighSurrogate(point) || IsLowSurrogate(point))
            point = 0xFFFD;
        AppendUtf8(out, point);
    }
    return out;
}

bool IsControl(uint32_t point) {
    return point < 0x20 || (point >= 0x7F && point <= 0x9F) || point == 0x061C || point == 0x200E ||
           point == 0x200F || (point >= 0x2028 && point <= 0x202E) ||
           (point >= 0x2066 && point <= 0x2069);
}

std::string Printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::array<char, 16> escape{};
    for (size_t at = 0; at < text.size();) {
        const size_t from = at;
        const uint32_t point = NextCodePoint(text, at);
        if (point != kIllFormed && !IsControl(point)) {
            out.append(text, from, at - from);
            continue;
        }
        const auto byte = static_cast<uint8_t>(text[from]);
        if (point == kIllFormed || point < 0x80)
            std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(byte));
        else
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(point));
        out += escape.data();
    }
    return out;
}

}  // namespace zem
