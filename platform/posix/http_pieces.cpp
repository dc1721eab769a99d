// Sending of pieces: runs of memory in one call, files by sendfile.
#include "platform/posix/http_pieces.h"

#include <errno.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>

#include "platform/posix/http_limits.h"
#include "platform/posix/pipesignal.h"

namespace posix {
namespace {

constexpr size_t kVectors = 136;

ESent ResultOfErrno() {
    switch (errno) {
        case EAGAIN:
        case ENOBUFS:
        case ENOMEM:
            return ESent::Blocked;
        case EFAULT:
        case EIO:
        case EINVAL:
            return ESent::Fault;
        default:
            return ESent::Broken;
    }
}

}  // namespace

uint64_t CSendCursor::MemoryLeft() const {
    uint64_t bytes = 0;
    for (size_t i = 0; i < m_count; ++i)
        if (m_pieces[i].data) bytes += m_pieces[i].bytes;
    return bytes;
}

uint64_t CSendCursor::ViewsLeft() const {
    uint64_t bytes = 0;
    for (size_t i = 0; i < m_count; ++i)
        if (m_pieces[i].is_view) bytes += m_pieces[i].bytes;
    return bytes;
}

void CSendCursor::Take(uint64_t bytes) {
    while (m_count > 0 && bytes >= m_pieces->bytes) {
        bytes -= m_pieces->bytes;
        ++m_pieces;
        --m_count;
    }
    if (bytes == 0) return;
    m_pieces->bytes -= bytes;
    m_pieces->offset += bytes;
    if (m_pieces->data) m_pieces->data += bytes;
}

ESent CSendCursor::Advance(int socket, uint64_t* sent) {
    uint64_t turn = kTurnBytes;
    while (m_count > 0) {
        if (m_pieces->bytes == 0) {
            Take(0);
            continue;
        }
        const ESent result =
            m_pieces->data ? SendMemory(socket, sent) : SendFile(socket, sent, &turn);
        if (result != ESent::Done) return result;
    }
    return ESent::Done;
}

ESent CSendCursor::SendMemory(int socket, uint64_t* sent) {
    iovec vectors[kVectors];
    size_t count = 0;
    uint64_t bytes = 0;
    while (count < m_count && count < kVectors && m_pieces[count].data) {
        const CSendPiece& piece = m_pieces[count];
        vectors[count++] = {const_cast<char*>(piece.data), static_cast<size_t>(piece.bytes)};
        bytes += piece.bytes;
    }
    msghdr message{};
    message.msg_iov = vectors;
    message.msg_iovlen = count;
    const int flags = MSG_NOSIGNAL | MSG_DONTWAIT | (count < m_count ? MSG_MORE : 0);
    ssize_t n;
    do
        n = count == 1 ? send(socket, vectors->iov_base, vectors->iov_len, flags)
                       : sendmsg(socket, &message, flags);
    while (n < 0 && errno == EINTR);
    if (n < 0) return ResultOfErrno();
    *sent += static_cast<uint64_t>(n);
    Take(static_cast<uint64_t>(n));
    return static_cast<uint64_t>(n) == bytes ? ESent::Done : ESent::Blocked;
}

ESent CSendCursor::SendFile(int socket, uint64_t* sent, uint64_t* turn) {
    const bool counts = !m_pieces->is_view;
    if (counts && *turn == 0) return ESent::Turn;
    const CPipeGuard guard;
    const uint64_t bytes = counts ? std::min(m_pieces->bytes, *turn) : m_pieces->bytes;
    auto offset = static_cast<off_t>(m_pieces->offset);
    ssize_t n;
    do
        n = sendfile(socket, m_pieces->fd, &offset, static_cast<size_t>(bytes));
    while (n < 0 && errno == EINTR);
    if (n < 0) return ResultOfErrno();
    if (n == 0) return ESent::Short;
    *sent += static_cast<uint64_t>(n);
    if (counts) *turn -= static_cast<uint64_t>(n);
    Take(static_cast<uint64_t>(n));
    return ESent::Done;
}

}  // namespace posix
