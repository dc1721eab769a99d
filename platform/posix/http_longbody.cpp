// Long bodies. What has arrived as a whole is delivered with its request, and so is one that comes
// so fast that the worker which reads it into the application's memory will have it in a moment.
// Any other is gathered first: no worker waits for a client that is slow, however steady it is. Run
// by the port's workers on connections that they own.
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "platform/posix/http_background.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_limits.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/http_tuning.h"

namespace posix {
namespace {

// How often a connection that waits for a place to gather its body looks for one.
constexpr uint32_t kParkedMs = 100;

// A chunked body does not tell its length. It is taken to be of this one when it is asked how long
// its rest will take.
constexpr uint64_t kChunkedRestBytes = 8u << 20;

// So much a client may send in any case before it hears of a larger window.
constexpr uint64_t kFirstWindowBytes = 32 * 1024;

// Several of the largest segments.
constexpr uint32_t kWindowBehindMarkBytes = 256 * 1024;

// From so much on the socket tells of a pile of a chunk's data, not of each segment.
constexpr uint64_t kPileFromBytes = 64 * 1024;

// While others wait for memory, each gathered body must come so fast that this many windows of the
// stall rule, half a minute, are enough for all of it.
constexpr uint64_t kWindowsForABody = 128;

}  // namespace

uint64_t CHttpConnection::Arrived() const {
    int bytes = 0;
    ioctl(m_fd, FIONREAD, &bytes);
    return static_cast<uint64_t>(bytes);
}

// Whether the socket tells of one of these now.
bool CHttpConnection::Tells(short events) const {
    pollfd fd{m_fd, events, 0};
    poll(&fd, 1, 0);
    return (fd.revents & events) != 0;
}

// Whether the client will send no more.
bool CHttpConnection::HasLeft() const {
    return Tells(POLLRDHUP | POLLHUP | POLLERR);
}

// From a moment at which the socket is empty: what it holds may have come at any pace.
void CHttpConnection::StartPace() {
    m_pace_from_ms = ClockMs();
    m_pace_bytes = 0;
}

// Whether the rest, at the pace of what came since StartPace, is here within a window of the stall
// rule. `arrived`: how much of it the socket holds.
bool CHttpConnection::ComesSoon(uint64_t arrived) const {
    const uint64_t rest = m_decoder.IsLength()
                              ? m_decoder.Plain() - std::min(arrived, m_decoder.Plain())
                              : kChunkedRestBytes;
    const uint64_t took_ms = ClockMs() - m_pace_from_ms;
    const uint64_t window_ms = HttpTune()->stall_ms;
    return took_ms == 0 || rest <= (m_pace_bytes + arrived) * window_ms / took_ms;
}

// Whether a worker may wait for the client, in short: not the last one that is left while others
// do.
bool CHttpConnection::WorkerMayWait() const {
    return HttpTuneBlockedThreads() == 0 || !m_queue->Port()->IsLastServer();
}

// The socket tells when it holds all that is left, or as much as it can.
CHttpConnection::EStep CHttpConnection::WaitForBigBody() {
    m_phase = EPhase::BigBody;
    m_arrived = 0;
    if (m_decoder.Plain() > kFirstWindowBytes && OpenWindow()) TakeMore();
    SetLowWater(static_cast<uint32_t>(std::min<uint64_t>(m_decoder.Plain(), kLowWaterBytes)));
    SetDeadline(HttpTune()->body_ms);
    return Rest();
}

// The system makes the receive window as large as the low-water mark, at most (Linux:
// tcp_set_rcvlowat), and a client sends no part of a segment into a window that does not hold the
// whole, but waits a fifth of a second for a larger one (RFC 9293, 3.8.6.2.1). So the window would
// end before the mark: it is made larger than any mark, once. True: just now.
bool CHttpConnection::OpenWindow() {
    if (m_window_opened) return false;
    m_window_opened = true;
    SetLowWater(kLowWaterBytes + kWindowBehindMarkBytes);
    return true;
}

// The client may have filled the window that it knew. A read tells it of the larger one.
void CHttpConnection::TakeMore() {
    const size_t most = m_body_end - m_body_begin + kReadBytes;
    if (m_buffer.Reserve(m_body_begin + most, m_body_end)) m_pace_bytes += GatherBody(most);
}

CHttpConnection::EStep CHttpConnection::RunBigBody(CPacket& packet) {
    const uint64_t wanted = std::min<uint64_t>(m_decoder.Plain(), kLowWaterBytes);
    uint64_t arrived = Arrived();
    // Who is parked has been here before; what was taken then may leave less than the mark, and its
    // turn comes all the same.
    if (arrived < wanted && !m_parked) {
        pollfd fd{m_fd, POLLIN | POLLRDHUP, 0};
        poll(&fd, 1, 0);
        // What a client left behind is delivered only when it is whole.
        const bool over = (fd.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
        arrived = Arrived();
        if (over && arrived < wanted) return Die();
        if (!over && !(fd.revents & POLLIN)) return Release() ? EStep::Gone : EStep::Again;
    }
    if (arrived >= m_decoder.Plain()) return DeliverLongBody(packet);
    if (!m_parked) m_comes_soon = ComesSoon(arrived);
    if (m_comes_soon && WorkerMayWait()) return DeliverLongBody(packet);
    GatherBody(m_room);
    return GatherMore(packet);
}

CHttpConnection::EStep CHttpConnection::DeliverLongBody(CPacket& packet) {
    SetParked(false);
    SetLowWater(1);
    if (!m_gathered) GatherBody(m_room);
    return DeliverKept(packet);
}

// Takes what there is of a body of known length, up to `limit` bytes held; the bytes taken.
size_t CHttpConnection::GatherBody(size_t limit) {
    const uint32_t held = m_body_end;
    while (m_decoder.IsLength() && m_body_end - m_body_begin < limit) {
        const size_t room =
            std::min<size_t>(limit - (m_body_end - m_body_begin), m_buffer.Capacity() - m_body_end);
        const ssize_t n = Receive(m_buffer.Data() + m_body_end,
                                  static_cast<size_t>(std::min<uint64_t>(room, m_decoder.Plain())));
        if (n <= 0) break;
        m_decoder.TakePlain(static_cast<uint64_t>(n));
        m_body_end += static_cast<uint32_t>(n);
    }
    if (m_raw_begin == m_raw_end) m_raw_begin = m_raw_end = m_body_end;
    return m_body_end - held;
}

// Finds room for the rest of the body. Who finds none is parked: its bytes stay in the socket.
// Those of its kind that wait go before those that come.
CHttpConnection::EStep CHttpConnection::GatherMore(CPacket& packet) {
    const uint64_t held = m_gathered ? m_gathered->Room() : 0;
    const uint64_t wanted =
        m_decoder.IsLength() ? m_decoder.Plain() : std::max<uint64_t>(2 * held, kLowWaterBytes);
    if (!m_parked) m_upload = UploadOf(wanted);
    bool room = false;
    if (m_queue->IsNextUpload(this, m_upload)) {
        if (m_gathered)
            room = m_gathered->Grow(wanted);
        else
            room = (m_gathered = CGatheredBody::Make(wanted)) != nullptr;
    }
    if (room) {
        SetParked(false);
        m_phase = EPhase::Gathering;
        m_arrived = m_gathered->Gathered() + Arrived();
        m_body_limit_ms = ClockMs() + HttpTune()->body_ms;
        m_pace_from_ms = 0;
        SetDeadline(HttpTune()->stall_ms, true);
        return EStep::Again;
    }
    // What can never be gathered has to be waited for after all.
    const bool never = !m_decoder.IsLength() || wanted > CGatheredBody::BoundOf(m_upload);
    if (never && WorkerMayWait()) return DeliverLongBody(packet);
    if (m_decoder.IsLength() && HasLeft() && Arrived() < m_decoder.Plain()) return Die();
    SetParked(true);
    SetDeadline(kParkedMs, true);
    return Release() ? EStep::Gone : EStep::Again;
}

void CHttpConnection::SetParked(bool parked) {
    if (std::exchange(m_parked, parked) == parked) return;
    if (parked)
        m_queue->Park(this, m_upload);
    else
        m_queue->Unpark(this, m_upload);
}

void CHttpConnection::DropGathered() {
    if (!m_gathered) return;
    m_gathered.reset();
    m_queue->WakeNextUploads();
}

CHttpConnection::EStep CHttpConnection::RunGathering(CPacket& packet) {
    for (size_t turn = 0; !m_decoder.Done();) {
        if (!m_gathered || m_gathered->IsFull()) return GatherMore(packet);
        char* to = m_gathered->End();
        const ULONG error = ReadSocketBody(to, m_gathered->Limit());
        const auto came = static_cast<size_t>(to - m_gathered->End());
        m_gathered->SetEnd(to);
        turn += came + 1;
        m_pace_bytes += came;
        if (error == ERROR_IO_PENDING) {
            if (m_pace_from_ms == 0) StartPace();
            const uint64_t plain = m_decoder.Plain();
            const bool pile = m_decoder.IsLength() || plain >= kPileFromBytes;
            if (pile) OpenWindow();
            SetLowWater(pile ? static_cast<uint32_t>(std::min<uint64_t>(plain, kLowWaterBytes))
                             : 1);
            Acknowledge();
            return Release() ? EStep::Gone : EStep::Again;
        }
        if (m_decoder.IsBroken()) break;  // the application is told when it has read so far
        if (error != NO_ERROR) return Die();
        if (m_pace_from_ms != 0 && m_pace_bytes >= kLowWaterBytes) {
            if (ComesSoon(0) && WorkerMayWait()) break;
            m_pace_from_ms = 0;
        }
        if (turn < kTurnBytes) continue;
        m_queue->Port()->PushReady(this, EWake::Now);
        return EStep::Gone;
    }
    return DeliverLongBody(packet);
}

// Below the low-water mark nothing is announced, so progress is looked for here.
CHttpConnection::EStep CHttpConnection::OnGatherDeadline(CPacket& packet) {
    const HttpTuning& tune = *HttpTune();
    const uint64_t now = ClockMs();
    const uint64_t have = m_gathered->Gathered() + Arrived();
    const uint64_t came = have - std::min(have, m_arrived);
    m_arrived = have;
    if (came > 0) m_body_limit_ms = now + tune.body_ms;
    if (now >= m_body_limit_ms) return Die();
    if (!m_decoder.IsLength() && now + tune.body_ms - m_body_limit_ms >= tune.short_body_ms)
        return DeliverStalled(packet);
    const uint64_t least =
        std::max<uint64_t>(tune.stall_bytes, m_gathered->Room() / kWindowsForABody);
    if (!m_queue->UploadsWait() || came >= least) {
        SetDeadline(tune.stall_ms, true);
        return EStep::Again;
    }
    if (Tells(POLLIN)) {  // the client has done its part, and no worker has had time for it
        SetDeadline(tune.stall_ms, true);
        m_queue->Port()->PushReady(this, EWake::Now);
        return EStep::Gone;
    }
    if (Refuse(503) == EStep::Again) m_queue->Port()->PushReady(this, EWake::Now);
    return EStep::Gone;
}

}  // namespace posix
