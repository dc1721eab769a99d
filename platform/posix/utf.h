// UTF-8 and UTF-16, one code point at a time. Internal to the layer; pure functions. Ill-formed
// input reads as U+FFFD, one for each maximal part that could have begun a character, and never
// runs past the size given.
#pragma once

#include <string>
#include <string_view>

#include "platform/posix/types.h"

namespace posix {

constexpr char32_t kReplacement = 0xFFFD;

struct CDecoded {
    char32_t code;
    uint32_t units;  // consumed, at least 1
    bool valid;
};

// REQUIRES: size > 0.
CDecoded DecodeUtf8(const char* text, size_t size);
CDecoded DecodeUtf16(const WCHAR* text, size_t size);

// Units written (1-4, 1-2). REQUIRES: a code point, not a surrogate.
uint32_t EncodeUtf8(char32_t code, char* to);
uint32_t EncodeUtf16(char32_t code, WCHAR* to);

std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

constexpr WCHAR AsciiLower(WCHAR c) {
    return c >= u'A' && c <= u'Z' ? static_cast<WCHAR>(c + 32) : c;
}

}  // namespace posix
