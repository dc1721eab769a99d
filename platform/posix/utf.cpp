// UTF-8 and UTF-16 conversion; pure functions for any thread.
#include "platform/posix/utf.h"

namespace posix {

CDecoded DecodeUtf8(const char* text, size_t size) {
    const auto byte = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = byte(0);
    if (lead < 0x80) return {lead, 1, true};
    uint32_t more = 0;
    // The second byte's range keeps out overlong forms, surrogates and what lies above U+10FFFF.
    uint8_t low = 0x80, high = 0xBF;
    char32_t code = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        more = 1, code = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        more = 2, code = lead & 0x0Fu;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        more = 3, code = lead & 0x07u;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {kReplacement, 1, false};
    }
    for (uint32_t i = 1; i <= more; ++i) {
        if (i >= size || byte(i) < low || byte(i) > high) return {kReplacement, i, false};
        code = (code << 6) | (byte(i) & 0x3Fu);
        low = 0x80, high = 0xBF;
    }
    return {code, more + 1, true};
}

CDecoded DecodeUtf16(const WCHAR* text, size_t size) {
    const char32_t first = text[0];
    if (first < 0xD800 || first > 0xDFFF) return {first, 1, true};
    if (first < 0xDC00 && size > 1 && text[1] >= 0xDC00 && text[1] <= 0xDFFF)
        return {0x10000 + ((first - 0xD800) << 10) + (text[1] - 0xDC00u), 2, true};
    return {kReplacement, 1, false};
}

uint32_t EncodeUtf8(char32_t code, char* to) {
    if (code < 0x80) {
        to[0] = static_cast<char>(code);
        return 1;
    }
    const uint32_t more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    constexpr uint8_t kLead[] = {0, 0xC0, 0xE0, 0xF0};
    to[0] = static_cast<char>(kLead[more] | (code >> (6 * more)));
    for (uint32_t i = 1; i <= more; ++i)
        to[i] = static_cast<char>(0x80 | ((code >> (6 * (more - i))) & 0x3F));
    return more + 1;
}

uint32_t EncodeUtf16(char32_t code, WCHAR* to) {
    if (code < 0x10000) {
        to[0] = static_cast<WCHAR>(code);
        return 1;
    }
    to[0] = static_cast<WCHAR>(0xD800 + ((code - 0x10000) >> 10));
    to[1] = static_cast<WCHAR>(0xDC00 + ((code - 0x10000) & 0x3FF));
    return 2;
}

std::string ToUtf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const CDecoded decoded = DecodeUtf16(text.data() + i, text.size() - i);
        char units[4];
        result.append(units, EncodeUtf8(decoded.code, units));
        i += decoded.units;
    }
    return result;
}

std::u16string ToUtf16(std::string_view text) {
    std::u16string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const CDecoded decoded = DecodeUtf8(text.data() + i, text.size() - i);
        WCHAR units[2];
        result.append(units, EncodeUtf16(decoded.code, units));
        i += decoded.units;
    }
    return result;
}

}  // namespace posix
