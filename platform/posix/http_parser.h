// The request head's parser: one pass over the bytes, no allocation, and strict: whatever two
// parsers could read differently (a bare LF, a folded line, blanks before a colon, two lengths) is
// an error. Pure functions, any thread.
#pragma once

#include <string_view>

#include "platform/posix/http.h"
#include "platform/posix/http_limits.h"

namespace posix {

struct HeaderField {
    uint16_t name;  // offsets from the start of the parsed bytes
    uint16_t name_length;
    uint16_t value;  // without the white space around it
    uint16_t value_length;
    int16_t id;  // HTTP_HEADER_ID or kUnknownHeader
};

// A parsed head. It refers to the bytes that it was parsed from. Left uninitialised on purpose: it
// is large, and the parser sets what counts.
struct RequestHead {
    int status;      // of a refused head: the answer that it gets
    uint32_t bytes;  // of the whole head, the empty line included
    HTTP_VERB verb;
    std::string_view method;  // of a refused head: empty if it was not read
    std::string_view target;
    std::string_view host;  // value of the Host field
    uint64_t content_length;
    uint8_t minor_version;  // of HTTP/1
    bool has_host;
    bool has_length;
    bool chunked;
    bool close;            // the client wants the connection closed, or is HTTP/1.0
    bool expect_continue;  // and may have it: HTTP/1.1 with a body
    uint16_t header_count;
    HeaderField headers[kMaxHeaderCount];

    bool HasBody() const { return chunked || content_length > 0; }
};

enum class EParse { Incomplete, Done, Refused };

// Parses the head at the start of [data, data + size). Empty lines before it are skipped. Refused:
// head.status is the answer, and the connection cannot be used further.
EParse ParseHead(const char* data, size_t size, RequestHead& head);

// Whether the character may stand in a method or a field name (RFC 9110, 5.6.2).
bool IsTokenChar(char c);

// Whether the text may stand as a host with an optional port in a Host field or an authority.
bool IsValidHost(std::string_view host);

}  // namespace posix
