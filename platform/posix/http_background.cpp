// Copies and descriptors of responses that are finished in the background.
#include "platform/posix/http_background.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/posix/http_tuning.h"
#include "platform/posix/views.h"

namespace posix {
namespace {

std::atomic<uint64_t> g_held{0};

// A view's bytes are the application's only until its call returns: afterwards it may give their
// place in the file back. They are copied like all memory, but through a read: pages of a file that
// was cut raise a signal. False when they are not all there.
bool CopyMemory(const CSendPiece& piece, char* to) {
    int fd = piece.fd;
    uint64_t offset = piece.offset;
    const auto bytes = static_cast<size_t>(piece.bytes);
    if (piece.data && !FindFileView(piece.data, bytes, &fd, &offset)) {
        memcpy(to, piece.data, bytes);
        return true;
    }
    for (size_t done = 0; done < bytes;) {
        const ssize_t n = pread(fd, to + done, bytes - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
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
    const uint64_t memory = rest.MemoryLeft();
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
        if (!piece.data && !piece.is_view) {
            if (!AddFile(piece.fd, piece.offset, piece.bytes)) return false;
            continue;
        }
        if (!CopyMemory(piece, to)) return false;
        m_pieces.push_back({to, piece.bytes, -1, 0, false});
        to += piece.bytes;
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
