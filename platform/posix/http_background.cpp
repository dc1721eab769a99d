// Copies and descriptors of responses that are finished in the background.
#include "platform/posix/http_background.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <new>

#include "platform/posix/http_tuning.h"
#include "platform/posix/views.h"

namespace posix {
namespace {

std::atomic<uint64_t> g_held{0};

// Memory that is a view of a file is never read here, so it counts as a file.
bool IsView(const CSendPiece& piece, int* fd, uint64_t* offset) {
    return piece.data && FindFileView(piece.data, static_cast<size_t>(piece.bytes), fd, offset);
}

}  // namespace

uint64_t CBackgroundSend::BytesHeld() {
    return g_held.load();
}

std::unique_ptr<CBackgroundSend> CBackgroundSend::Make(const CSendCursor& rest) {
    try {
        std::unique_ptr<CBackgroundSend> send(new CBackgroundSend());
        if (send->Copy(rest)) return send;
    } catch (const std::bad_alloc&) {
    }
    return nullptr;
}

CBackgroundSend::~CBackgroundSend() {
    for (int fd : m_files)
        close(fd);
    g_held.fetch_sub(m_reserved);
}

bool CBackgroundSend::AddFile(int fd, uint64_t offset, uint64_t bytes) {
    m_files.reserve(m_files.size() + 1);
    const int own = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (own < 0) return false;
    m_files.push_back(own);
    m_pieces.push_back({nullptr, bytes, own, offset, false});
    return true;
}

bool CBackgroundSend::Copy(const CSendCursor& rest) {
    uint64_t memory = 0;
    int fd;
    uint64_t offset;
    for (size_t i = 0; i < rest.Count(); ++i) {
        const CSendPiece& piece = rest.Pieces()[i];
        if (piece.data && !IsView(piece, &fd, &offset)) memory += piece.bytes;
    }
    if (g_held.fetch_add(memory) + memory > HttpTune()->background_bytes) {
        g_held.fetch_sub(memory);
        return false;
    }
    m_reserved = memory;
    m_memory.reset(new char[memory ? memory : 1]);
    m_pieces.reserve(rest.Count());
    char* to = m_memory.get();
    for (size_t i = 0; i < rest.Count(); ++i) {
        const CSendPiece& piece = rest.Pieces()[i];
        if (!piece.data) {
            if (!AddFile(piece.fd, piece.offset, piece.bytes)) return false;
        } else if (IsView(piece, &fd, &offset)) {
            if (!AddFile(fd, offset, piece.bytes)) return false;
        } else {
            memcpy(to, piece.data, static_cast<size_t>(piece.bytes));
            m_pieces.push_back({to, piece.bytes, -1, 0, false});
            to += piece.bytes;
        }
    }
    m_cursor = std::make_unique<CSendCursor>(m_pieces.data(), m_pieces.size());
    return true;
}

// What the client has taken is what was sent less what the socket still holds.
void CBackgroundSend::StartRate(int socket) {
    int held = 0;
    ioctl(socket, SIOCOUTQ, &held);
    m_delivered = static_cast<int64_t>(m_sent) - held;
}

bool CBackgroundSend::KeepsRate(int socket) {
    const int64_t before = m_delivered;
    StartRate(socket);
    const HttpTuning& tune = *HttpTune();
    const int64_t least = static_cast<int64_t>(tune.send_rate_bytes) * tune.send_window_ms / 1000;
    return m_delivered - before >= least;
}

}  // namespace posix

uint64_t HttpTuneBackgroundBytes() noexcept {
    return posix::CBackgroundSend::BytesHeld();
}
