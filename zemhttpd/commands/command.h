// One command on its way through dispatch and handler: what every On_CMD_X is given. Lives on the
// worker's stack.
#pragma once

#include "platform/platform.h"

#include <cstddef>

class CHttpXaction;

inline constexpr DWORD kZemHeader_bytes = 12;  // ZemRequestHdr and ZemReplyHdr
inline constexpr DWORD kStatusBody_bytes = 4;  // of most replies: one HRESULT
inline constexpr DWORD kStatusReply_bytes = kZemHeader_bytes + kStatusBody_bytes;
inline constexpr DWORD kNoTransId = 0xFFFFFFFFu;  // the request header was not read yet
inline constexpr int kNameUnits = 260;  // UTF-16 units of a name field, a client ID, a path

// What a command of a client that has not joined is logged with: its ID and the transId.
inline constexpr const WCHAR* kUnknownClient = TEXT("%s: Unknown client; transId %u!");

struct ZemCommand {
    const WCHAR* clientId;  // NUL-terminated, at most 259 units
    DWORD transId;
    DWORD code;
    BYTE* body;                // behind the request header, inside the block's receive buffer
    size_t bodyRoom_bytes;     // from `body` to that buffer's end; what was not received is zero
    ULONGLONG received_bytes;  // of header and body, in memory
    DWORD expected_bytes;      // data size + 12, in 32-bit arithmetic
    const BYTE* frameData;     // CMD_WRITE_FRAME: payload bytes that came with the request, or null
    ULONGLONG frameData_bytes;
    LONGLONG payload_bytes;  // CMD_WRITE_FRAME: Content-Length less expected_bytes
    CHttpXaction* xaction;
};
