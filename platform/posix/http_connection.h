// One client's connection: reads and parses requests, hands them to posted receives, gives bodies
// and takes responses. Connections live in a slab that grows in blocks and is never freed, so an id
// or a late event may name one at any time.
//
// Who may touch a connection is told by m_owner: free, idle (the port watches it) or owned by one
// thread. An event of an owned connection only leaves a mark, which makes Release fail: the owner
// then looks again. That is why the sockets are watched edge-triggered, once and for all.
// A delivered request keeps its connection owned: by the application, whose calls name it by
// m_call, the request id with a mark while a call is under way. Everything that is not atomic
// belongs to the owner.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <memory>

#include "platform/posix/http_body.h"
#include "platform/posix/http_buffers.h"
#include "platform/posix/http_gathered.h"
#include "platform/posix/http_layout.h"
#include "platform/posix/http_pieces.h"
#include "platform/posix/port_object.h"

namespace posix {

class CRequestQueue;
class CBackgroundSend;
struct CPostedReceive;

class alignas(64) CHttpConnection final : public CPollTarget {
public:
    // From CPollTarget; run by the port's workers.
    bool Claim(uint32_t events) override;
    bool Run(CPacket& packet) override;
    bool Dying() const override;
    void Drop() override { Dispose(); }
    bool Belongs(const void* queue) const override { return m_queue == queue; }

    // Slab: Open takes over the socket; false when the queue is closing or memory is short (the
    // socket is then closed).
    static bool Open(int fd, CRequestQueue* queue, const CSocketAddress& remote);
    static CHttpConnection* Find(uint64_t request_id);
    static uint32_t Count();
    // Runs the timers that are due on the port's connections; the answer is the tick still needed.
    static CCompletionPort::ETick Sweep(CCompletionPort* port);
    static void SweepAll() { Sweep(nullptr); }  // of every port
    // Ends every connection of the queue that nobody is using, and makes the users of the others
    // end them.
    static void CloseAll(CRequestQueue* queue);

    // The application's calls. EnterCall: false when the id is not a request of this queue in the
    // application's hands (*busy: it is, but another call is under way). After it, one of Leave
    // (the request stays in hand) or FinishResponse / StartBackground / Abort ends the call.
    bool EnterCall(uint64_t request_id, const CRequestQueue* queue, bool* busy);
    void LeaveCall();
    ULONG ReadBody(char* to, ULONG size, bool fill, bool may_wait, ULONG* got);
    ULONG StartAsyncBody(char* to, ULONG size, OVERLAPPED* overlapped);
    ULONG Send(const HTTP_RESPONSE& response, bool disconnect, uint64_t* sent);
    ULONG FetchById(void* buffer, ULONG size, ULONG flags, ULONG* used);

    // Delivers the request that waits in this connection, which the caller holds. False: it was
    // refused instead, and the receive is still to be used.
    bool DeliverWaiting(const CPostedReceive& receive, CPacket& packet);
    CHttpConnection* m_next_waiting = nullptr;

    // False when somebody else holds it, or it is free.
    bool TryOwn();
    CHttpConnection *before = nullptr, *after = nullptr;  // among the queue's parked uploads

private:
    friend class CConnectionSlab;
    enum class EPhase : uint8_t {
        Reading,    // waiting for a head
        Body,       // for a short body, or as much of a chunked one as can be delivered
        BigBody,    // for the socket to hold a long one, or for room to gather it
        Gathering,  // of a long one that is slow; a chunked one may wait for room here
        Waiting,    // for a receive to be posted
        Held,       // delivered in part (ERROR_MORE_DATA), to be fetched by id
        Delivered,  // in the application's hands
        AsyncBody,  // the same, with a body read pending
        Sending,    // the rest of a response in the background
        Draining,   // discarding a body that the application did not read
        Lingering,  // answered and shut down, discarding until the client closes
    };
    enum class EStep { More, Packet, Gone, Again };
    enum EOwner : uint32_t { kFree, kIdle, kOwned, kOwnedEvent };
    static constexpr uint64_t kBusy = 1ull << 63;

    // http_connection.cpp
    bool Release();
    EStep Rest();
    void Dispose();
    EStep Die() {
        Dispose();
        return EStep::Gone;
    }
    void SetDeadline(uint32_t after_ms, bool quick = false);
    EStep OnDeadline(CPacket& packet);
    ssize_t Receive(char* to, size_t room);
    bool Publish(uint64_t request_id);
    void SetLowWater(uint32_t bytes);
    void Acknowledge() const;

    // http_reading.cpp
    EStep RunReading(CPacket& packet);
    EStep RunBody(CPacket& packet);
    EStep EndShortBody(CPacket& packet);
    EStep TakeHead(char* data, size_t size, CPacket& packet);
    EStep AcceptHead(const RequestHead& head, char* data, size_t size, CPacket& packet);
    EStep StartBody(CRequestView& view, char* data, size_t size, CPacket& packet);
    EStep WaitForBody(const CRequestView& view, size_t room, CPacket& packet);
    EStep RefuseTarget(int status, const RequestHead& head, const char* data, size_t size);
    bool BodyIsReady() const;
    void SetBodyDeadline();
    EStep DeliverStalled(CPacket& packet);

    // http_longbody.cpp
    EStep WaitForBigBody();
    bool OpenWindow();
    void TakeMore();
    EStep RunBigBody(CPacket& packet);
    EStep DeliverLongBody(CPacket& packet);
    size_t GatherBody(size_t limit);
    EStep GatherMore(CPacket& packet);
    EStep RunGathering(CPacket& packet);
    EStep OnGatherDeadline(CPacket& packet);
    uint64_t Arrived() const;
    bool Tells(short events) const;
    bool HasLeft() const;
    void StartPace();
    bool ComesSoon(uint64_t arrived) const;
    bool WorkerMayWait() const;
    void SetParked(bool parked);
    void DropGathered();

    // http_deliver.cpp
    EStep Deliver(CRequestView& view, CPacket& packet);
    EStep DeliverKept(CPacket& packet);
    EStep HandOver(CRequestView& view, const CPostedReceive& receive, CPacket& packet);
    EStep HandOverKept(const CPostedReceive& receive, CPacket& packet);
    void ViewKept(CRequestView& view, RequestHead& head, TargetParts& target, CookedPath& path);
    void FillView(CRequestView& view, const RequestHead& head, const TargetParts& target,
                  const CookedPath& path, const char* base);
    bool Keep(const CRequestView& view, size_t head_bytes, size_t body_from, size_t wanted);
    uint64_t NextId() { return ++m_sequence << 20 | m_slot; }

    // http_entity.cpp
    ULONG ReadSocketBody(char*& to, char* to_end);
    void ForgetRaw();
    EStep RunAsyncBody(CPacket& packet);
    EStep RunDraining();
    EStep RunLingering();

    // http_send.cpp
    ULONG SendPieces(CSendCursor& cursor, uint64_t* sent);
    bool StartBackground(CSendCursor& cursor, bool blocked);
    enum class EBlocked { Goes, Background, Lost };
    EBlocked WaitToSend(CSendCursor& cursor);
    ULONG AbortResponse(ESent result, bool began);
    EStep RunSending();
    void FinishResponse();
    EStep NextRequest();
    void WatchOut();
    void GoHome();
    EStep CloseGently(bool linger);
    EStep Refuse(int status, bool keep_connection = false);
    void SendContinue();

    // http_stall.cpp
    enum class EPatience { UntilStalled, WhileIdle };
    bool WaitSocket(short events, uint64_t until_ms, EPatience patience);
    bool IsStalled(uint64_t now, bool alone);
    bool IsLate(uint64_t now);
    void NoteProgress(size_t bytes) { m_window_bytes += bytes; }

    // Looked at by everybody.
    std::atomic<uint32_t> m_owner{kFree};
    std::atomic<bool> m_hangup{false};    // the client has closed its side
    std::atomic<bool> m_quick{false};     // the deadline is a short one
    std::atomic<uint64_t> m_deadline{0};  // of ClockMs; 0: none
    std::atomic<uint64_t> m_call{0};      // request id in the application's hands

    static constexpr uint32_t kWatched = EPOLLIN | EPOLLRDHUP | EPOLLET;

    // The owner's.
    uint32_t m_slot = 0;
    int m_fd = -1;
    uint64_t m_connection_id = 0;
    uint64_t m_sequence = 0;  // counts the slot's requests for ever
    CRequestQueue* m_queue = nullptr;
    EPhase m_phase = EPhase::Reading;
    bool m_unparsed = false;   // the raw bytes were not looked at since the last request
    bool m_drained = false;    // the last read emptied the socket, and no event came since
    bool m_close = false;      // after this response
    bool m_head_only = false;  // the request is a HEAD
    bool m_broken = false;     // the connection failed in mid-body
    bool m_watches_out = false;
    int m_lane = 0;               // of the port, where the socket's events come
    uint32_t m_lane_changes = 0;  // of the port, when the connection last looked for its lane
    uint32_t m_requests = 0;      // of this connection
    bool m_window_open = false;
    bool m_slow = false;  // the last window of the stall rule showed too little progress
    uint32_t m_low_water = 1;
    bool m_window_opened = false;  // wide enough for every low-water mark
    CBodyDecoder m_decoder;

    // The kept bytes: [0, m_head_bytes) a complete head, then decoded body, then raw bytes.
    CReadBuffer m_buffer;
    uint32_t m_head_bytes = 0;
    uint32_t m_body_begin = 0, m_body_end = 0;
    uint32_t m_raw_begin = 0, m_raw_end = 0;
    uint32_t m_room = 0;           // body bytes that a receive can take
    uint64_t m_arrived = 0;        // of a long body, when last looked
    uint64_t m_body_limit_ms = 0;  // ClockMs by which the next piece of the body must come
    uint64_t m_pace_from_ms = 0;   // ClockMs from which a long body's pace is measured; 0: not yet
    uint64_t m_pace_bytes = 0;     // of it that were read since
    uint64_t m_read_from_ms =
        0;                      // ClockMs at which a worker first waited for the body; 0: none did
    bool m_comes_soon = false;  // the pace promises all of the body within a moment
    EUpload m_upload = kSmallUpload;
    bool m_parked = false;                      // waits for room to gather its body
    std::unique_ptr<CGatheredBody> m_gathered;  // behind the buffer's part of the body

    uint64_t m_window_start = 0;
    uint64_t m_window_bytes = 0;

    char* m_async_to = nullptr;
    ULONG m_async_size = 0;
    OVERLAPPED* m_async = nullptr;

    std::unique_ptr<CBackgroundSend> m_background;
    CSocketAddress m_remote;
    CSocketAddress m_local;
};

}  // namespace posix
