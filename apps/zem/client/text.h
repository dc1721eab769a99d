// UTF-8 outside, UTF-16 on the wire. Both directions are strict or say what they do with what is
// ill-formed. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace zem {

// Throws CZemError(kUsage) for ill-formed UTF-8; `what` names the argument in the message.
std::u16string ToUtf16(std::string_view utf8, const char* what);

// Lone surrogates become U+FFFD: text that comes from a server may be printed whatever it holds.
std::string ToUtf8(std::u16string_view text);

// For a terminal: control characters become '?', so that no reply can move the cursor or change the
// colours.
std::string Printable(std::string_view text);

}  // namespace zem
