// UTF-8 outside, UTF-16 on the wire. Both directions are strict or say what they do with what is
// ill-formed. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zem {

// Throws CZemError(kUsage) for ill-formed UTF-8; `what` names the argument in the message.
std::u16string ToUtf16(std::string_view utf8, const char* what);

// Lone surrogates become U+FFFD: text that comes from a server may be printed whatever it holds.
std::string ToUtf8(std::u16string_view text);

// The code point of `utf8` at `at`, which moves behind it; for a byte that begins none, kIllFormed,
// and `at` moves by that byte. `at` is below the size.
inline constexpr uint32_t kIllFormed = 0xFFFFFFFFu;
uint32_t NextCodePoint(std::string_view utf8, size_t& at);

// What does not show but does something: control characters (C1 too: terminals obey them), line and
// paragraph separators, and the marks that turn the direction of writing.
bool IsControl(uint32_t point);

// For a terminal: control characters and bytes that are no UTF-8 become visible, as \x1b, \u202e or
// \xff, so that no reply can move the cursor, change the colours or turn the line around.
std::string Printable(std::string_view text);

}  // namespace zem
