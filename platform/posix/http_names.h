// The names of headers, verbs and statuses, and the look-ups from text. Pure functions, any thread.
#pragma once

#include <string_view>

#include "platform/posix/http.h"

namespace posix {

inline constexpr int kUnknownHeader = -1;

// The request header's HTTP_HEADER_ID, or kUnknownHeader. The name must be a token; case does not
// matter.
int FindRequestHeader(const char* name, size_t length);

// As it is written in a response.
std::string_view ResponseHeaderName(int id);

// Case-sensitive; HttpVerbUnknown for another token.
HTTP_VERB FindVerb(std::string_view method);

// The reason phrase of a status that the layer answers by itself.
std::string_view ReasonOf(int status);

// ASCII only, as everything that the protocol compares.
bool EqualsNoCase(std::string_view text, std::string_view lower);

}  // namespace posix
