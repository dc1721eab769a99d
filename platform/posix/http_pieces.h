// What is to be sent: pieces of memory and of files, and how far a socket has taken them. Used by
// one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace posix {

struct CSendPiece {
    const char* data;  // of memory; null for a piece of a file
    uint64_t bytes;
    int fd;
    uint64_t offset;
    bool is_view;  // a file's, but memory of the application to the application
};

enum class ESent {
    Done,
    Blocked,  // the socket takes no more now
    Turn,     // it would, but others come first
    Broken,   // the client is gone
    Fault,    // the memory, or the file, could not be read
    Short,    // the file ends before the piece does
};

class CSendCursor {
public:
    CSendCursor(CSendPiece* pieces, size_t count) : m_pieces(pieces), m_count(count) {}

    // Sends until one of the results; *sent grows by what was taken. Bytes of file chunks count
    // against kTurnBytes, memory and views do not.
    ESent Advance(int socket, uint64_t* sent);

    CSendPiece* Pieces() const { return m_pieces; }
    size_t Count() const { return m_count; }
    // Bytes that are left of memory, and of views of files.
    uint64_t MemoryLeft() const;
    uint64_t ViewsLeft() const;

private:
    ESent SendMemory(int socket, uint64_t* sent);
    ESent SendFile(int socket, uint64_t* sent, uint64_t* turn);
    void Take(uint64_t bytes);

    CSendPiece* m_pieces;  // the first is the current one
    size_t m_count;
};

}  // namespace posix
