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

#include "platform/posix/http_limits.h"
#include "platform/posix/http_tuning.h"
#include "platform/posix/views.h"

namespace posix {
namespace {

std::atomic<uint64_t> g_held{0};

// Copies what a piece names. Pages of a file that was cut raise a signal, so a view is read like a
// file. False when the bytes are not all there.
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
        if (send->Take(rest)) return send;
    } catch (const std::bad_alloc&) {
    }
    return nullptr;
}

CBackgroundSend::~CBackgroundSend() {
    for (int fd : m_files)
        close(fd);
    g_held.fetch_sub(m_reserved);
}

bool CBackgroundSend::AddFile(const CSendPiece& piece) {
    if (m_files.empty() || piece.fd != m_last_source) {  // pieces of one file share a descriptor
        m_files.reserve(m_files.size() + 1);
        const int own = fcntl(piece.fd, F_DUPFD_CLOEXEC, 0);
        if (own < 0) return false;
        m_files.push_back(own);
        m_last_source = piece.fd;
    }
    m_pieces.push_back({nullptr, piece.bytes, m_files.back(), piece.offset, false});
    return true;
}

// The application may give the place of a view's bytes back when its call has returned, unless it
// is in use.
bool CBackgroundSend::AddView(const CSendPiece& piece) {
    auto part = std::make_unique<CFilePartUse>();
    m_parts.reserve(m_parts.size() + 1);
    if (!part->Begin(piece.fd, piece.offset, piece.bytes) || !AddFile(piece)) return false;
    m_parts.push_back(std::move(part));
    return true;
}

// The last quarter of the bound is for small rests: a few clients that do not read large answers
// must not keep all others from being slow.
bool CBackgroundSend::Reserve(uint64_t bytes) {
    const uint64_t bound = HttpTune()->background_bytes;
    const uint64_t own = bytes <= kCopyAtOnceBytes ? bound : bound - bound / 4;
    if (bytes != 0 && g_held.fetch_add(bytes) + bytes > own) {
        g_held.fetch_sub(bytes);
        return false;
    }
    m_reserved = bytes;
    m_memory.reset(new char[bytes ? bytes : 1]);
    return true;
}

bool CBackgroundSend::Take(const CSendCursor& rest) {
    uint64_t copied = 0;
    m_pieces.reserve(rest.Count());
    for (size_t i = 0; i < rest.Count(); ++i) {
        const CSendPiece& piece = rest.Pieces()[i];
        if (piece.is_view && AddView(piece)) continue;
        if (!piece.data && !piece.is_view) {
            if (!AddFile(piece)) return false;
            continue;
        }
        // Without a descriptor to spare a view is copied as well.
        copied += piece.bytes;
        m_pieces.push_back(piece);
    }
    if (!Reserve(copied)) return false;
    char* to = m_memory.get();
    for (CSendPiece& piece : m_pieces) {
        if (!piece.data && !piece.is_view) continue;
        if (!CopyMemory(piece, to)) return false;
        piece = {to, piece.bytes, -1, 0, false};
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
