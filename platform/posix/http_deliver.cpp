// Meeting of requests and receives. Run by the workers, by the timers, and by the thread that posts
// a receive for which a request waits.
#include <algorithm>
#include <cstring>

#include "platform/posix/http_background.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_queue.h"

namespace posix {

void CHttpConnection::FillView(CRequestView& view, const RequestHead& head,
                               const TargetParts& target, const CookedPath& path,
                               const char* base) {
    view.head = &head;
    view.base = base;
    view.target = &target;
    view.path = &path;
    view.remote = &m_remote;
    view.local = &m_local;
    view.connection_id = m_connection_id;
    view.request_id = 0;
    view.body = view.raw = nullptr;
    view.body_bytes = view.raw_bytes = 0;
    view.body_done = true;
    Measure(view);
}

// Makes the buffer hold the view's head (if wanted), its body from `body_from` on, and the raw
// bytes, with room for `wanted` bytes in all. The view may lie in the buffer itself.
bool CHttpConnection::Keep(const CRequestView& view, size_t head_bytes, size_t body_from,
                           size_t wanted) {
    const size_t body_bytes = view.body_bytes - body_from;
    const size_t total = head_bytes + body_bytes + view.raw_bytes;
    if (total == 0) {
        m_buffer.Free();
    } else {
        const char* head = view.base;
        const char* body = view.body + body_from;
        const char* raw = view.raw;
        const char* old = m_buffer.Data();
        const size_t used = m_buffer ? m_raw_end : 0;
        const auto moved = [&](const char* p) {
            return old && p >= old && p <= old + used ? m_buffer.Data() + (p - old) : p;
        };
        if (!m_buffer.Reserve(std::max(total, wanted), used)) return false;
        if (head_bytes) memmove(m_buffer.Data(), moved(head), head_bytes);
        if (body_bytes) memmove(m_buffer.Data() + head_bytes, moved(body), body_bytes);
        if (view.raw_bytes)
            memmove(m_buffer.Data() + head_bytes + body_bytes, moved(raw), view.raw_bytes);
    }
    m_head_bytes = static_cast<uint32_t>(head_bytes);
    m_body_begin = m_head_bytes;
    m_body_end = m_raw_begin = m_body_begin + static_cast<uint32_t>(body_bytes);
    m_raw_end = static_cast<uint32_t>(total);
    return true;
}

void CHttpConnection::ViewKept(CRequestView& view, RequestHead& head, TargetParts& target,
                               CookedPath& path) {
    // All of these succeeded before, on the same bytes.
    ParseHead(m_buffer.Data(), m_head_bytes, head);
    SplitTarget(head.verb, head.target, target);
    CookPath(target.path, path);
    FillView(view, head, target, path, m_buffer.Data());
    view.body = m_buffer.Data() + m_body_begin;
    view.body_bytes = m_body_end - m_body_begin;
    view.raw = m_buffer.Data() + m_raw_begin;
    view.raw_bytes = m_raw_end - m_raw_begin;
    view.body_done = m_decoder.Done() && !m_gathered;
}

CHttpConnection::EStep CHttpConnection::DeliverKept(CPacket& packet) {
    RequestHead head;
    TargetParts target;
    CookedPath path;
    CRequestView view;
    ViewKept(view, head, target, path);
    return Deliver(view, packet);
}

CHttpConnection::EStep CHttpConnection::Deliver(CRequestView& view, CPacket& packet) {
    m_deadline.store(0, std::memory_order_relaxed);
    CPostedReceive receive;
    EStep step = EStep::More;
    if (!m_queue->TakeReceive(receive)) {
        if (!Keep(view, view.head->bytes, 0, 0)) return Die();
        m_phase = EPhase::Waiting;
        switch (m_queue->Enqueue(this, receive)) {
            case CRequestQueue::EEnqueue::Waits:
                return EStep::Gone;
            case CRequestQueue::EEnqueue::Full:
                return Refuse(503);
            case CRequestQueue::EEnqueue::Closing:
                return Die();
            case CRequestQueue::EEnqueue::Taken:
                step = HandOverKept(receive, packet);
                break;
        }
    } else {
        step = HandOver(view, receive, packet);
    }
    if (step == EStep::Packet) return step;
    m_queue->Serve(receive);
    return step == EStep::More ? Refuse(431) : Die();
}

// More: the head is too large for any receive of this kind. Gone: there is no memory for what lies
// behind the request, and the client must go. In both cases the receive was not used.
CHttpConnection::EStep CHttpConnection::HandOver(CRequestView& view, const CPostedReceive& receive,
                                                 CPacket& packet) {
    const size_t needed = view.layout_bytes;
    if (needed > std::max<size_t>(receive.size, kUsualReceiveBytes) - kReserveBytes)
        return EStep::More;
    view.request_id = NextId();
    packet = {static_cast<DWORD>(needed), m_queue->Key(), receive.overlapped, NO_ERROR};
    bool kept;
    if (needed > receive.size) {
        LayOutIds(view, receive.buffer, receive.size);
        packet.error = ERROR_MORE_DATA;
        kept = Keep(view, view.head->bytes, 0, 0);
        m_phase = EPhase::Held;
    } else {
        size_t copied;
        packet.bytes =
            static_cast<DWORD>(LayOut(view, receive.flags, receive.buffer, receive.size, &copied));
        kept = Keep(view, 0, copied, 0);
        m_phase = EPhase::Delivered;
    }
    if (!kept) {
        memset(receive.buffer, 0, receive.size);  // the next request finds it as it was posted
        return EStep::Gone;
    }
    if (!Publish(view.request_id)) packet.error = ERROR_OPERATION_ABORTED;
    if (packet.overlapped) packet.overlapped->InternalHigh = packet.bytes;
    return EStep::Packet;
}

CHttpConnection::EStep CHttpConnection::HandOverKept(const CPostedReceive& receive,
                                                     CPacket& packet) {
    RequestHead head;
    TargetParts target;
    CookedPath path;
    CRequestView view;
    ViewKept(view, head, target, path);
    return HandOver(view, receive, packet);
}

bool CHttpConnection::DeliverWaiting(const CPostedReceive& receive, CPacket& packet) {
    const EStep step = HandOverKept(receive, packet);
    if (step == EStep::Packet) return true;
    if (step == EStep::Gone)
        Dispose();
    else if (Refuse(431) == EStep::Again)
        m_queue->Port()->PushReady(this, EWake::Now);
    return false;
}

// For a request that was delivered with ERROR_MORE_DATA; the caller is inside a call on it.
ULONG CHttpConnection::FetchById(void* buffer, ULONG size, ULONG flags, ULONG* used) {
    if (m_phase != EPhase::Held) {
        LeaveCall();
        return ERROR_INVALID_PARAMETER;
    }
    RequestHead head;
    TargetParts target;
    CookedPath path;
    CRequestView view;
    ViewKept(view, head, target, path);
    view.request_id = m_call.load() & ~kBusy;
    const size_t needed = view.layout_bytes;
    ULONG error = NO_ERROR;
    *used = static_cast<ULONG>(needed);
    if (needed > size) {
        LayOutIds(view, buffer, size);
        error = ERROR_MORE_DATA;
    } else {
        size_t copied;
        *used = static_cast<ULONG>(LayOut(view, flags, buffer, size, &copied));
        m_phase = EPhase::Delivered;
        Keep(view, 0, copied, 0);  // cannot fail: nothing grows
    }
    LeaveCall();
    return error;
}

}  // namespace posix
