// Filling in a response: status line and headers. The texts must live until the response is sent.
#pragma once

#include "platform/platform.h"

#include <cstring>

inline void SetStatus(HTTP_RESPONSE& response, USHORT status, const char* reason) {
    response.StatusCode = status;
    response.pReason = reason;
    response.ReasonLength = static_cast<USHORT>(std::strlen(reason));
}

// Null and 0 take the header out again.
inline void SetHeader(HTTP_RESPONSE& response, HTTP_HEADER_ID id, const char* value,
                      size_t length) {
    response.Headers.KnownHeaders[id].pRawValue = value;
    response.Headers.KnownHeaders[id].RawValueLength = static_cast<USHORT>(length);
}
inline void SetHeader(HTTP_RESPONSE& response, HTTP_HEADER_ID id, const char* value) {
    SetHeader(response, id, value, std::strlen(value));
}
