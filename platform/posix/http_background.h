// The rest of a response whose client takes it too slowly: descriptors of files, the parts of them
// that were named by a view kept in their place, and a copy of the memory. The connection that owns
// it sends it on as the socket takes more. All copies of the process together are bounded. Used by
// the thread that owns the connection.
#pragma once

#include <memory>
#include <vector>

#include "platform/posix/fileparts.h"
#include "platform/posix/http_pieces.h"

namespace posix {

class CBackgroundSend {
public:
    // Null when the bound, memory or descriptors do not allow it; the cursor is as before then.
    static std::unique_ptr<CBackgroundSend> Make(const CSendCursor& rest);
    ~CBackgroundSend();
    CBackgroundSend(const CBackgroundSend&) = delete;
    CBackgroundSend& operator=(const CBackgroundSend&) = delete;

    ESent Advance(int socket) { return m_cursor->Advance(socket, &m_sent); }

    // Whether the client took enough since this was last asked.
    bool KeepsRate(int socket);
    void StartRate(int socket);

    static uint64_t BytesHeld();

private:
    CBackgroundSend() = default;
    bool Take(const CSendCursor& rest);
    bool AddFile(const CSendPiece& piece);
    bool AddView(const CSendPiece& piece);
    bool Reserve(uint64_t bytes);

    std::vector<CSendPiece> m_pieces;
    std::vector<int> m_files;
    int m_last_source = -1;  // what the last of them was made from
    std::vector<std::unique_ptr<CFilePartUse>> m_parts;
    std::unique_ptr<char[]> m_memory;
    uint64_t m_reserved = 0;
    uint64_t m_sent = 0;
    int64_t m_delivered = 0;
    std::unique_ptr<CSendCursor> m_cursor;
};

}  // namespace posix
