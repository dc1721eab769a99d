// From an HTTP_RESPONSE to the pieces that go over the wire. Pure but for the look-up of files and
// views; any thread.
#pragma once

#include <memory>

#include "platform/posix/http.h"
#include "platform/posix/http_pieces.h"

namespace posix {

// The bytes and pieces of one response. It refers to the application's memory and descriptors, so
// it lives no longer than the call.
class CResponseWire {
public:
    // Win32 error number; `close`: the connection ends with this response.
    ULONG Build(const HTTP_RESPONSE& response, bool head_only, bool close);

    CSendCursor Cursor() { return CSendCursor(m_pieces, m_count); }
    // The connection cannot be used further: so was asked, or the length that the application gave
    // is not the body's.
    bool MustClose() const { return m_close; }

private:
    static constexpr size_t kStackPieces = 144;
    static constexpr size_t kStackHeader = 2048;

    ULONG AddChunk(const HTTP_DATA_CHUNK& chunk);
    ULONG AddFile(const HTTP_DATA_CHUNK& chunk);
    void Look(const HTTP_RESPONSE& response);
    size_t HeaderRoom(const HTTP_RESPONSE& response);
    char* WriteHeader(const HTTP_RESPONSE& response, char* to);
    bool FitsBehindHeader() const;

    CSendPiece m_stack_pieces[kStackPieces];
    char m_stack_header[kStackHeader];
    std::unique_ptr<CSendPiece[]> m_heap_pieces;
    std::unique_ptr<char[]> m_heap_header;
    CSendPiece* m_pieces = nullptr;
    size_t m_count = 0;
    uint64_t m_body_bytes = 0;
    bool m_close = false;
    bool m_says_close = false;  // the application's own Connection field does
    bool m_adds_length = false;
    uint32_t m_known = 0;  // bit by bit, the known fields that are written
    bool m_bodyless = false;
};

// A small answer of the layer's own; returns its length.
size_t WriteOwnAnswer(int status, bool head_only, bool close, char* to, size_t room);

}  // namespace posix
