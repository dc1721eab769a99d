// Sending of responses: in the caller's thread while the client takes them, in the background when
// it does not, and what becomes of the connection afterwards. Run by any thread that answers, and
// by the port's workers.
#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>

#include <utility>

#include "platform/posix/http_background.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_limits.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/http_response.h"
#include "platform/posix/http_tuning.h"

namespace posix {

// The caller is inside a call on the request; the call has ended when this returns.
ULONG CHttpConnection::Send(const HTTP_RESPONSE& response, bool disconnect, uint64_t* sent) {
    CResponseWire wire;
    if (const ULONG error = wire.Build(response, m_head_only, m_close || disconnect)) {
        LeaveCall();
        return error;
    }
    m_close = wire.MustClose();
    CSendCursor cursor = wire.Cursor();
    return SendPieces(cursor, sent);
}

ULONG CHttpConnection::SendPieces(CSendCursor& cursor, uint64_t* sent) {
    uint64_t whole = 0;
    for (size_t i = 0; i < cursor.Count(); ++i)
        whole += cursor.Pieces()[i].bytes;
    if (whole >= kLongBytes) m_queue->Port()->Invite();
    for (;;) {
        const uint64_t sent_before = *sent;
        const ESent result = cursor.Advance(m_fd, sent);
        NoteProgress(*sent - sent_before);
        switch (result) {
            case ESent::Done:
                FinishResponse();
                return NO_ERROR;
            case ESent::Turn:
                // A large file never keeps the thread that answers.
                if (!StartBackground(cursor, false)) continue;
                *sent = whole;
                return NO_ERROR;
            case ESent::Blocked:
                switch (WaitToSend(cursor)) {
                    case EBlocked::Goes:
                        continue;
                    case EBlocked::Background:
                        *sent = whole;
                        return NO_ERROR;
                    case EBlocked::Lost:
                        return AbortResponse(ESent::Broken, true);
                }
                continue;
            default:
                return AbortResponse(result, *sent > 0);
        }
    }
}

// A rest that costs next to nothing to keep is waited for only while the thread has nothing better
// to do: sending it here is a little faster. A thread that is no worker of the port has work of its
// own that waits meanwhile, unseen from here: it waits for a client only when nothing else can send
// the rest.
CHttpConnection::EBlocked CHttpConnection::WaitToSend(CSendCursor& cursor) {
    CCompletionPort& port = *m_queue->Port();
    const uint64_t memory = cursor.MemoryLeft();
    const bool cheap = memory <= kCopyAtOnceBytes;
    const bool at_once = !port.IsWorkerHere() || memory + cursor.ViewsLeft() <= kCopyAtOnceBytes ||
                         (cheap && (port.IsLastServer() || m_queue->RequestsWait()));
    if (at_once && StartBackground(cursor, true)) return EBlocked::Background;
    const uint64_t until = ClockMs() + HttpTune()->body_ms;
    if (cheap && !at_once) {
        if (WaitSocket(POLLOUT, until, EPatience::WhileIdle)) return EBlocked::Goes;
        if (!m_queue->Closing() && StartBackground(cursor, true)) return EBlocked::Background;
    }
    // What cannot be kept costs the thread its time; a client that takes it well loses nothing.
    if (WaitSocket(POLLOUT, until, EPatience::UntilStalled)) return EBlocked::Goes;
    // A closing queue ends its connections: nothing would be sent in the background.
    if (m_queue->Closing()) return EBlocked::Lost;
    return StartBackground(cursor, true) ? EBlocked::Background : EBlocked::Lost;
}

// `blocked`: the socket will tell when it takes more.
bool CHttpConnection::StartBackground(CSendCursor& cursor, bool blocked) {
    m_background = CBackgroundSend::Make(cursor);
    if (!m_background) return false;
    m_background->StartRate(m_fd);
    m_phase = EPhase::Sending;
    m_call.store(0);
    SetDeadline(HttpTune()->send_window_ms);
    if (blocked) WatchOut();
    if (!blocked || !Release()) m_queue->Port()->PushReady(this, EWake::Now);
    return true;
}

void CHttpConnection::WatchOut() {
    if (std::exchange(m_watches_out, true)) return;
    m_queue->Port()->Lanes().Modify(m_lane, m_fd, kWatched | EPOLLOUT, this);
}

ULONG CHttpConnection::AbortResponse(ESent result, bool began) {
    if (result == ESent::Fault || result == ESent::Short)
        syslog(LOG_WARNING, "http: a file became unreadable while it was sent; connection closed");
    m_call.store(0);
    Dispose();
    if (result == ESent::Short) return ERROR_HANDLE_EOF;
    if (result == ESent::Fault) return ERROR_INVALID_ADDRESS;
    return began ? ERROR_NETNAME_DELETED : ERROR_CONNECTION_INVALID;
}

CHttpConnection::EStep CHttpConnection::RunSending() {
    switch (const ESent result = m_background->Advance(m_fd)) {
        case ESent::Done:
            m_background.reset();
            return m_close ? CloseGently(false) : NextRequest();
        case ESent::Blocked:
            WatchOut();
            return Release() ? EStep::Gone : EStep::Again;
        case ESent::Turn:
            m_queue->Port()->PushReady(this, EWake::Now);
            return EStep::Gone;
        default:
            AbortResponse(result, true);
            return EStep::Gone;
    }
}

// The whole response is with the system. The request is over; the connection goes on.
void CHttpConnection::FinishResponse() {
    m_call.store(0);
    EStep step = m_close ? CloseGently(false) : NextRequest();
    // An event that came meanwhile is most often one that was dealt with already: look before the
    // connection is handed to a worker.
    while (step == EStep::Again && m_phase == EPhase::Reading && !m_unparsed && !m_hangup.load()) {
        char byte;
        if (recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN) break;
        if (Release()) step = EStep::Gone;
    }
    if (step != EStep::Again) return;
    CCompletionPort* port = m_queue->Port();
    const bool later = m_unparsed && port->IsWorkerHere();
    port->PushReady(this, later ? EWake::Later : EWake::Now);
}

// Again: there is something to do at once.
CHttpConnection::EStep CHttpConnection::NextRequest() {
    m_head_bytes = m_body_begin = m_body_end = 0;
    m_window_open = m_slow = false;
    m_read_from_ms = 0;
    DropGathered();
    SetLowWater(1);
    if (m_broken) return Die();
    GoHome();
    if (!m_decoder.Done()) {
        m_phase = EPhase::Draining;
        SetDeadline(HttpTune()->drain_ms);
        return EStep::Again;
    }
    m_phase = EPhase::Reading;
    SetDeadline(HttpTune()->idle_ms);
    if (m_raw_end > m_raw_begin) {
        m_unparsed = true;
        return EStep::Again;
    }
    m_buffer.Free();
    m_raw_begin = m_raw_end = 0;
    // Who read no further than the body may have left the next request in the socket, and its event
    // is long gone.
    if (m_hangup.load() || !m_drained) return EStep::Again;
    return Release() ? EStep::Gone : EStep::Again;
}

// Packets come to another processor when the client's thread or the network card says so: now and
// then a connection looks whether it is still in the right lane. Where it cannot move it stays.
void CHttpConnection::GoHome() {
    CPortLanes& lanes = m_queue->Port()->Lanes();
    const uint32_t changes = lanes.Changes();
    if (++m_requests % kRequestsAtHome != 0 && changes == m_lane_changes) return;
    m_lane_changes = changes;
    const int home = lanes.HomeOf(m_fd, m_lane);
    if (home == m_lane) return;
    const uint32_t watched = m_watches_out ? kWatched | EPOLLOUT : kWatched;
    if (lanes.Move(m_lane, home, m_fd, watched, this)) m_lane = home;
}

// A socket that is closed with bytes unread resets the connection, which can destroy the response
// on its way; so the client gets a while to close first.
CHttpConnection::EStep CHttpConnection::CloseGently(bool linger) {
    int unread = 0;
    if (!linger && m_decoder.Done() && m_raw_begin == m_raw_end)
        ioctl(m_fd, FIONREAD, &unread);
    else
        linger = true;
    if (m_broken || (!linger && unread == 0)) return Die();
    shutdown(m_fd, SHUT_WR);
    SetLowWater(1);
    DropGathered();
    m_buffer.Free();
    m_head_bytes = m_body_begin = m_body_end = m_raw_begin = m_raw_end = 0;
    m_phase = EPhase::Lingering;
    SetDeadline(HttpTune()->linger_ms);
    return EStep::Again;
}

CHttpConnection::EStep CHttpConnection::Refuse(int status, bool keep_connection) {
    char answer[1024];
    m_close = !keep_connection;
    const size_t length = WriteOwnAnswer(status, m_head_only, m_close, answer, sizeof answer);
    // An answer that does not fit into an empty socket buffer has no reader.
    ssize_t n;
    do
        n = send(m_fd, answer, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(length)) return Die();
    return keep_connection ? NextRequest() : CloseGently(true);
}

void CHttpConnection::SendContinue() {
    static constexpr char kText[] = "HTTP/1.1 100 Continue\r\n\r\n";
    ssize_t n;
    do
        n = send(m_fd, kText, sizeof kText - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (n < 0 && errno == EINTR);
}

}  // namespace posix
