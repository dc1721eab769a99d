// From bytes to a request: heads, and bodies until they can be delivered. Run by the port's workers
// on connections that they own.
#include <errno.h>

#include <algorithm>
#include <cstring>

#include "platform/posix/http_background.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/http_tuning.h"

namespace posix {
namespace {

// A body that is refused with its request is still read when it is no longer than this.
constexpr uint64_t kSmallBodyBytes = 64 * 1024;
// What is gathered of a body before its request is delivered.
constexpr size_t kGatherBytes = kBigBufferBytes - 4096;

}  // namespace

// Reads into the stack while nothing is held back, so that idle connections need no buffer.
CHttpConnection::EStep CHttpConnection::RunReading(CPacket& packet) {
    alignas(64) char scratch[kReadBytes];
    if (m_unparsed) {
        m_unparsed = false;
        const EStep step = TakeHead(m_buffer.Data() + m_raw_begin, m_raw_end - m_raw_begin, packet);
        if (step != EStep::More) return step;
        SetDeadline(HttpTune()->header_ms);
    }
    for (;;) {
        const size_t held = m_raw_end - m_raw_begin;
        if (held > 0 && m_raw_begin > 0) {
            memmove(m_buffer.Data(), m_buffer.Data() + m_raw_begin, held);
            m_raw_begin = 0;
            m_raw_end = static_cast<uint32_t>(held);
        }
        if (held >= kReadBytes / 2 && !m_buffer.Reserve(kBigBufferBytes, held)) return Die();
        char* to = held ? m_buffer.Data() + held : scratch;
        const ssize_t n = Receive(to, held ? m_buffer.Capacity() - held : sizeof scratch);
        if (n == 0 || (n < 0 && errno != EAGAIN)) return Die();
        if (n < 0) {
            if (Rest() == EStep::Gone) return EStep::Gone;
            continue;
        }
        const size_t size = held + static_cast<size_t>(n);
        m_raw_end = static_cast<uint32_t>(held ? size : 0);
        EStep step = EStep::More;
        // A head that grows byte by byte is parsed again only when it has a line more.
        if (!held || size >= kMaxHeadBytes || memchr(to, '\n', static_cast<size_t>(n)))
            step = TakeHead(held ? m_buffer.Data() : scratch, size, packet);
        if (step != EStep::More) return step;
        if (!held) {
            if (!m_buffer.Reserve(kReadBytes, 0)) return Die();
            memcpy(m_buffer.Data(), scratch, size);
            m_raw_end = static_cast<uint32_t>(size);
            SetDeadline(HttpTune()->header_ms);
        }
        Acknowledge();
        if (Rest() == EStep::Gone) return EStep::Gone;
    }
}

CHttpConnection::EStep CHttpConnection::TakeHead(char* data, size_t size, CPacket& packet) {
    RequestHead head;
    switch (ParseHead(data, size, head)) {
        case EParse::Incomplete:
            return EStep::More;
        case EParse::Refused:
            m_head_only = head.method == "HEAD";
            return Refuse(head.status);
        case EParse::Done:
            break;
    }
    return AcceptHead(head, data, size, packet);
}

CHttpConnection::EStep CHttpConnection::AcceptHead(const RequestHead& head, char* data, size_t size,
                                                   CPacket& packet) {
    m_close = head.close;
    m_head_only = head.verb == HttpVerbHEAD;
    if (head.chunked)
        m_decoder.SetChunked();
    else
        m_decoder.SetLength(head.content_length);
    TargetParts target;
    CookedPath path;
    int status = SplitTarget(head.verb, head.target, target);
    if (status == 0) status = CookPath(target.path, path);
    if (status == 0 && !m_queue->Match(m_local.Port(), {path.text, path.length})) status = 404;
    if (status != 0) return RefuseTarget(status, head, data, size);

    CRequestView view;
    FillView(view, head, target, path, data);
    return StartBody(view, data, size, packet);
}

// A request for nothing of ours is an ordinary request, so its connection may live on.
CHttpConnection::EStep CHttpConnection::RefuseTarget(int status, const RequestHead& head,
                                                     const char* data, size_t size) {
    const bool small =
        !head.chunked && head.content_length <= kSmallBodyBytes && !head.expect_continue;
    if (status != 404 || head.close || !small) return Refuse(status);
    CRequestView rest{};
    rest.raw = data + head.bytes;
    rest.raw_bytes = size - head.bytes;
    if (!Keep(rest, 0, 0, 0)) return Die();
    return Refuse(status, true);
}

CHttpConnection::EStep CHttpConnection::StartBody(CRequestView& view, char* data, size_t size,
                                                  CPacket& packet) {
    const size_t usual = m_queue->UsualReceiveBytes();
    const size_t layout = view.layout_bytes;
    if (layout > std::max(usual, kUsualReceiveBytes) - kReserveBytes) return Refuse(431);
    const size_t room = std::min(usual > layout ? usual - layout : 0, kGatherBytes);

    char* body = data + view.head->bytes;
    const char* raw = body;
    char* body_end = body;
    if (const int status = m_decoder.Decode(raw, data + size, body_end, data + size))
        return Refuse(status);
    view.body = body;
    view.body_bytes = static_cast<size_t>(body_end - body);
    view.raw = raw;
    view.raw_bytes = static_cast<size_t>(data + size - raw);
    view.body_done = m_decoder.Done();
    if (view.body_done) return Deliver(view, packet);
    StartPace();
    if (view.head->expect_continue && view.body_bytes == 0) SendContinue();
    return WaitForBody(view, room, packet);
}

// Keeps what there is and waits for more.
CHttpConnection::EStep CHttpConnection::WaitForBody(const CRequestView& view, size_t room,
                                                    CPacket& packet) {
    const bool big = !view.head->chunked && view.head->content_length > room;
    if (!Keep(view, view.head->bytes, 0, view.head->bytes + room + kChunkRoomBytes)) return Die();
    m_room = static_cast<uint32_t>(room);
    Acknowledge();
    if (big) return WaitForBigBody();
    m_phase = EPhase::Body;
    if (BodyIsReady()) return EndShortBody(packet);
    SetBodyDeadline();
    return Rest();
}

bool CHttpConnection::BodyIsReady() const {
    const size_t have = m_body_end - m_body_begin;
    return m_decoder.Done() || (!m_decoder.IsLength() && have >= m_room) ||
           (have > 0 && HttpTune()->short_body_ms == 0);
}

void CHttpConnection::SetBodyDeadline() {
    const HttpTuning& tune = *HttpTune();
    m_body_limit_ms = ClockMs() + tune.body_ms;
    if (m_body_end > m_body_begin)
        SetDeadline(tune.short_body_ms, true);
    else
        SetDeadline(tune.body_ms);
}

CHttpConnection::EStep CHttpConnection::RunBody(CPacket& packet) {
    for (;;) {
        char* const base = m_buffer.Data();
        const size_t room = m_buffer.Capacity() - m_raw_end;
        const ssize_t n = Receive(base + m_raw_end, room);
        if (n == 0 || (n < 0 && errno != EAGAIN)) return Die();
        if (n > 0) {
            const char* raw = base + m_raw_begin;
            const char* raw_end = base + m_raw_end + n;
            char* body_end = base + m_body_end;
            if (const int status = m_decoder.Decode(raw, raw_end, body_end, raw_end))
                return Refuse(status);
            m_body_end = static_cast<uint32_t>(body_end - base);
            m_raw_begin = static_cast<uint32_t>(raw - base);
            m_raw_end = static_cast<uint32_t>(raw_end - base);
            if (m_raw_begin == m_raw_end) m_raw_begin = m_raw_end = m_body_end;
            if (BodyIsReady()) return EndShortBody(packet);
            Acknowledge();
            SetBodyDeadline();
        }
        if (Rest() == EStep::Gone) return EStep::Gone;
    }
}

// A chunked body that is longer than a receive can take is a long one.
CHttpConnection::EStep CHttpConnection::EndShortBody(CPacket& packet) {
    const bool goes_on = !m_decoder.Done() && !m_decoder.IsLength();
    if (!goes_on || m_body_end - m_body_begin < m_room) return DeliverKept(packet);
    m_phase = EPhase::Gathering;
    return GatherMore(packet);
}

// The client makes a pause in its body: the application gets what there is. It has been waited for
// already: who reads on holds a thread only while nobody wants one.
CHttpConnection::EStep CHttpConnection::DeliverStalled(CPacket& packet) {
    m_window_open = m_slow = true;
    m_window_start = ClockMs();
    m_window_bytes = 0;
    SetLowWater(1);
    const EStep step = DeliverKept(packet);
    if (step != EStep::Again) return step;
    m_queue->Port()->PushReady(this, EWake::Now);
    return EStep::Gone;
}

}  // namespace posix
