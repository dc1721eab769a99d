// Conversion between UTF-8 and UTF-16, by hand: the standard library's converters are deprecated
// and locale-bound.
#include "apps/zem/client/text.h"

#include <cstdint>

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

std::u16string ToUtf16(std::string_view utf8, const char* what) {
    std::u16string out;
    out.reserve(utf8.size());
    for (size_t at = 0; at < utf8.size();) {
        const Sequence sequence = SequenceOf(static_cast<uint8_t>(utf8[at]));
        bool good = sequence.length > 0 && at + static_cast<size_t>(sequence.length) <= utf8.size();
        uint32_t point = sequence.bits;
        for (int i = 1; good && i < sequence.length; ++i) {
            const auto byte = static_cast<uint8_t>(utf8[at + static_cast<size_t>(i)]);
            good = (byte & 0xC0) == 0x80;
            point = (point << 6) | (byte & 0x3Fu);
        }
        if (!good || point < sequence.smallest || point > 0x10FFFF ||
            (point >= 0xD800 && point <= 0xDFFF)) {
            throw CZemError(ErrorKind::kUsage, std::string(what) + " is not well-formed UTF-8");
        }
        if (point < 0x10000) {
            out.push_back(static_cast<char16_t>(point));
        } else {
            out.push_back(static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
        }
        at += static_cast<size_t>(sequence.length);
    }
    return out;
}

std::string ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        uint32_t point = text[at];
        if (IsHighSurrogate(point) && at + 1 < text.size() && IsLowSurrogate(text[at + 1])) {
            point = 0x10000 + ((point - 0xD800) << 10) + (text[++at] - 0xDC00u);
        } else if (IsHighSurrogate(point) || IsLowSurrogate(point)) {
            point = 0xFFFD;
        }
        AppendUtf8(out, point);
    }
    return out;
}

std::string Printable(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (static_cast<uint8_t>(c) < 0x20 || static_cast<uint8_t>(c) == 0x7F) c = '?';
    }
    return out;
}

}  // namespace zem
