// Bodies: read into the application's memory, or discarded when nobody wants them.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "platform/posix/http_background.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_limits.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/http_tuning.h"

namespace posix {
namespace {

// From this many wanted bytes on the socket is asked to wake the reader for a pile, not for each
// segment.
constexpr uint64_t kPileFromBytes = 128 * 1024;
constexpr uint32_t kPileBytes = 64 * 1024;

}  // namespace

// The caller is inside a call on the request and stays there.
ULONG CHttpConnection::ReadBody(char* to, ULONG size, bool fill, bool may_wait, ULONG* got) {
    char* const begin = to;
    char* const end = to + size;
    uint64_t idle_from = ClockMs();
    ULONG error = NO_ERROR;
    if (size >= kLongBytes && may_wait) m_queue->Port()->Invite();
    while (error == NO_ERROR && to != end) {
        if (const size_t held = m_body_end - m_body_begin) {
            const size_t n = std::min(held, static_cast<size_t>(end - to));
            memcpy(to, m_buffer.Data() + m_body_begin, n);
            m_body_begin += static_cast<uint32_t>(n);
            to += n;
            continue;
        }
        if (m_gathered) {
            to += m_gathered->Take(to, static_cast<size_t>(end - to));
            if (m_gathered->IsTaken()) DropGathered();
            continue;
        }
        if (m_decoder.Done()) break;
        if (m_broken || m_decoder.IsBroken()) {
            error = ERROR_NETNAME_DELETED;
            break;
        }
        const char* const start = to;
        error = ReadSocketBody(to, end);
        if (to != start) idle_from = ClockMs();
        if (error == NO_ERROR && to != begin && m_drained && !fill) break;
        if (error != ERROR_IO_PENDING || (to != begin && !fill)) continue;
        Acknowledge();
        if (!may_wait) continue;
        const uint64_t want =
            std::min<uint64_t>(m_decoder.Plain(), static_cast<uint64_t>(end - to));
        SetLowWater(want >= kPileFromBytes ? kPileBytes : 1);
        const bool ready =
            WaitSocket(POLLIN, idle_from + HttpTune()->body_ms, EPatience::UntilStalled);
        error = ready ? NO_ERROR : ERROR_NETNAME_DELETED;
        // After this the client may get an answer, but its body is not waited for again.
        if (!ready) m_close = true;
    }
    *got = static_cast<ULONG>(to - begin);
    if (to != begin) return NO_ERROR;
    if (error == NO_ERROR && size > 0) return ERROR_HANDLE_EOF;
    return error;
}

// One read; ERROR_IO_PENDING when the socket is empty.
ULONG CHttpConnection::ReadSocketBody(char*& to, char* to_end) {
    if (m_raw_begin == m_raw_end) {
        const uint64_t plain = m_decoder.Plain();
        ssize_t n;
        if (plain > 0) {
            n = Receive(to,
                        static_cast<size_t>(std::min(plain, static_cast<uint64_t>(to_end - to))));
            if (n > 0) {
                m_decoder.TakePlain(static_cast<uint64_t>(n));
                to += n;
            }
        } else {
            ForgetRaw();
            if (!m_buffer.Reserve(m_raw_begin + kReadBytes, m_raw_begin))
                return ERROR_NOT_ENOUGH_MEMORY;
            n = Receive(m_buffer.Data() + m_raw_begin, kReadBytes);
            if (n > 0) m_raw_end = m_raw_begin + static_cast<uint32_t>(n);
        }
        if (n < 0 && errno == EAGAIN) return ERROR_IO_PENDING;
        if (n <= 0) {
            m_broken = true;
            return ERROR_NETNAME_DELETED;
        }
        NoteProgress(static_cast<size_t>(n));
        if (plain > 0) return NO_ERROR;
    }
    const char* raw = m_buffer.Data() + m_raw_begin;
    const int status = m_decoder.Decode(raw, m_buffer.Data() + m_raw_end, to, to_end);
    m_raw_begin = static_cast<uint32_t>(raw - m_buffer.Data());
    if (m_raw_begin == m_raw_end) ForgetRaw();
    if (status == 0) return NO_ERROR;
    // What follows a framing error cannot be told from the next request.
    m_close = true;
    ForgetRaw();
    return ERROR_NETNAME_DELETED;
}

// The next raw bytes go behind what the buffer holds: while a body is gathered a head, and its
// beginning.
void CHttpConnection::ForgetRaw() {
    if (m_body_begin == m_body_end) m_body_begin = m_body_end = m_head_bytes;
    m_raw_begin = m_raw_end = m_body_end;
}

ULONG CHttpConnection::StartAsyncBody(char* to, ULONG size, OVERLAPPED* overlapped) {
    ULONG got = 0;
    SetLowWater(1);
    const ULONG error = ReadBody(to, size, false, false, &got);
    if (error != ERROR_IO_PENDING) {
        overlapped->InternalHigh = got;
        const CRef<CRequestQueue> queue(m_queue);
        LeaveCall();
        if (error != NO_ERROR) return error;
        queue->Port()->Complete({got, queue->Key(), overlapped, NO_ERROR});
        return ERROR_IO_PENDING;
    }
    m_async_to = to;
    m_async_size = size;
    m_async = overlapped;
    m_phase = EPhase::AsyncBody;
    SetDeadline(HttpTune()->body_ms);
    if (!Release()) m_queue->Port()->PushReady(this, EWake::Now);
    return ERROR_IO_PENDING;
}

CHttpConnection::EStep CHttpConnection::RunAsyncBody(CPacket& packet) {
    ULONG got = 0;
    const ULONG error = ReadBody(m_async_to, m_async_size, false, false, &got);
    if (error == ERROR_IO_PENDING) return Release() ? EStep::Gone : EStep::Again;
    OVERLAPPED* overlapped = std::exchange(m_async, nullptr);
    overlapped->InternalHigh = got;
    packet = {got, m_queue->Key(), overlapped, error};
    m_phase = EPhase::Delivered;
    m_deadline.store(0, std::memory_order_relaxed);
    LeaveCall();
    return EStep::Packet;
}

CHttpConnection::EStep CHttpConnection::RunDraining() {
    char scratch[kReadBytes];
    for (size_t turn = 0; turn < kTurnBytes;) {
        if (m_decoder.Done()) return NextRequest();
        char* to = scratch;
        const ULONG error = ReadSocketBody(to, scratch + sizeof scratch);
        turn += static_cast<size_t>(to - scratch) + 1;
        if (error == ERROR_IO_PENDING) return Release() ? EStep::Gone : EStep::Again;
        if (error != NO_ERROR) return m_decoder.IsBroken() ? CloseGently(true) : Die();
    }
    m_queue->Port()->PushReady(this, EWake::Now);
    return EStep::Gone;
}

CHttpConnection::EStep CHttpConnection::RunLingering() {
    char scratch[kReadBytes];
    for (size_t turn = 0; turn < kTurnBytes; turn += sizeof scratch) {
        const ssize_t n = Receive(scratch, sizeof scratch);
        if (n == 0 || (n < 0 && errno != EAGAIN)) return Die();
        if (n < 0) return Release() ? EStep::Gone : EStep::Again;
    }
    m_queue->Port()->PushReady(this, EWake::Now);
    return EStep::Gone;
}

}  // namespace posix
