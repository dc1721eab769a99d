// The slab of connections, their ownership, and their timers.
#include "platform/posix/http_connection.h"

#include <errno.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <mutex>
#include <new>
#include <type_traits>

#include "platform/posix/http_background.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/http_tuning.h"

namespace posix {

constexpr uint32_t kSlotBits = 20;
constexpr uint32_t kBlockSize = 256;
constexpr uint32_t kBlocks = (1u << kSlotBits) / kBlockSize;

// Blocks are added and never taken away, so a slot is found without a lock.
class CConnectionSlab {
public:
    static CConnectionSlab& Instance() { return s_slab; }

    CHttpConnection* At(uint32_t slot) {
        CHttpConnection* block = m_blocks[slot / kBlockSize].load(std::memory_order_acquire);
        return block ? block + slot % kBlockSize : nullptr;
    }

    // Takes a free slot and makes it the socket's, still owned by the caller.
    CHttpConnection* Take(int fd, CRequestQueue* queue);
    void Give(CHttpConnection* connection);

    uint32_t Slots() const { return m_slots.load(std::memory_order_acquire); }
    uint32_t Count() const { return m_count.load(); }
    std::mutex& Lock() { return m_lock; }

private:
    bool Grow();

    std::mutex m_lock;  // guards the free list, and every connection's descriptor and queue
    CHttpConnection* m_free = nullptr;
    std::atomic<uint32_t> m_slots{0};
    std::atomic<uint32_t> m_count{0};
    std::atomic<CHttpConnection*> m_blocks[kBlocks]{};

    static CConnectionSlab s_slab;
};

// Never destroyed: threads may still look for connections while the process ends.
constinit CConnectionSlab CConnectionSlab::s_slab;
static_assert(std::is_trivially_destructible_v<CConnectionSlab>);

bool CConnectionSlab::Grow() {
    const uint32_t first = m_slots.load();
    if (first == kBlocks * kBlockSize) return false;
    auto* block = new (std::nothrow) CHttpConnection[kBlockSize];
    if (!block) return false;
    for (uint32_t i = kBlockSize; i-- > 0;) {
        block[i].m_slot = first + i;
        block[i].m_next_waiting = m_free;
        m_free = &block[i];
    }
    m_blocks[first / kBlockSize].store(block, std::memory_order_release);
    m_slots.store(first + kBlockSize, std::memory_order_release);
    return true;
}

CHttpConnection* CConnectionSlab::Take(int fd, CRequestQueue* queue) {
    const std::lock_guard lock(m_lock);
    if (queue->Closing() || (!m_free && !Grow())) return nullptr;
    CHttpConnection* connection = m_free;
    m_free = connection->m_next_waiting;
    connection->m_next_waiting = nullptr;
    connection->m_fd = fd;
    connection->m_queue = queue;
    queue->AddRef();
    connection->m_owner.store(CHttpConnection::kOwned);
    m_count.fetch_add(1);
    return connection;
}

void CConnectionSlab::Give(CHttpConnection* connection) {
    CRequestQueue* queue;
    {
        const std::lock_guard lock(m_lock);
        close(connection->m_fd);
        connection->m_fd = -1;
        queue = std::exchange(connection->m_queue, nullptr);
        connection->m_owner.store(CHttpConnection::kFree);
        connection->m_next_waiting = m_free;
        m_free = connection;
        m_count.fetch_sub(1);
    }
    queue->Release();
}

bool CHttpConnection::Open(int fd, CRequestQueue* queue, const CSocketAddress& remote) {
    CHttpConnection* c = CConnectionSlab::Instance().Take(fd, queue);
    if (!c) {
        close(fd);
        errno = ENOMEM;
        return false;
    }
    c->m_phase = EPhase::Reading;
    c->m_connection_id = c->NextId();
    c->m_unparsed = c->m_drained = c->m_broken = c->m_watches_out = false;
    c->m_lane = 0;
    c->m_lane_changes = 0;
    c->m_requests = 0;
    c->m_window_open = c->m_slow = false;
    c->m_read_from_ms = 0;
    c->m_low_water = 1;
    c->m_window_opened = false;
    c->m_hangup.store(false);
    c->m_remote = remote;
    c->m_remote.Unmap();
    socklen_t length = sizeof c->m_local;
    if (getsockname(fd, &c->m_local.any, &length) != 0) c->m_local = c->m_remote;
    c->m_local.Unmap();
    CCompletionPort* port = queue->Port();
    port->EnsureTick(CCompletionPort::ETick::Slow);
    c->SetDeadline(HttpTune()->idle_ms);
    // From here on an event may come; the connection is ours until Release.
    if (!port->Lanes().Add(0, fd, kWatched, c)) {
        const int error = errno;
        c->Dispose();
        errno = error;
        return false;
    }
    if (!c->Release()) port->PushReady(c, EWake::Now);
    return true;
}

CHttpConnection* CHttpConnection::Find(uint64_t request_id) {
    return CConnectionSlab::Instance().At(request_id & ((1u << kSlotBits) - 1));
}

uint32_t CHttpConnection::Count() {
    return CConnectionSlab::Instance().Count();
}

bool CHttpConnection::Claim(uint32_t events) {
    if (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) m_hangup.store(true);
    uint32_t owner = m_owner.load();
    for (;;) {
        if (owner == kFree || owner == kOwnedEvent) return false;
        const uint32_t next = owner == kIdle ? kOwned : kOwnedEvent;
        if (!m_owner.compare_exchange_weak(owner, next)) continue;
        if (next != kOwned) return false;
        m_drained = false;
        return true;
    }
}

bool CHttpConnection::TryOwn() {
    uint32_t owner = kIdle;
    return m_owner.compare_exchange_strong(owner, kOwned);
}

// False: something happened meanwhile; the caller still holds the connection and looks again.
bool CHttpConnection::Release() {
    uint32_t owner = kOwned;
    if (m_owner.compare_exchange_strong(owner, kIdle)) return true;
    m_owner.store(kOwned);
    m_drained = false;
    return false;
}

// Gives the connection back when there is nothing more to read. The end of what a client sends may
// have been announced together with its last bytes: no other event tells of it.
CHttpConnection::EStep CHttpConnection::Rest() {
    if (!m_drained || m_hangup.load()) return EStep::Again;
    return Release() ? EStep::Gone : EStep::Again;
}

bool CHttpConnection::Dying() const {
    return m_queue->Closing();
}

bool CHttpConnection::Run(CPacket& packet) {
    for (;;) {
        if (m_queue->Closing()) {
            Dispose();
            return false;
        }
        EStep step = EStep::Gone;
        switch (m_phase) {
            case EPhase::Reading:
                step = RunReading(packet);
                break;
            case EPhase::Body:
                step = RunBody(packet);
                break;
            case EPhase::BigBody:
                step = RunBigBody(packet);
                break;
            case EPhase::Gathering:
                step = RunGathering(packet);
                break;
            case EPhase::AsyncBody:
                step = RunAsyncBody(packet);
                break;
            case EPhase::Sending:
                step = RunSending();
                break;
            case EPhase::Draining:
                step = RunDraining();
                break;
            case EPhase::Lingering:
                step = RunLingering();
                break;
            case EPhase::Waiting:
            case EPhase::Held:
            case EPhase::Delivered:
                break;
        }
        if (step == EStep::Packet) return true;
        if (step == EStep::Gone) return false;
    }
}

void CHttpConnection::Dispose() {
    m_deadline.store(0, std::memory_order_relaxed);
    m_call.store(0);
    m_buffer.Free();
    m_raw_begin = m_raw_end = m_body_begin = m_body_end = 0;
    SetParked(false);
    DropGathered();
    m_background.reset();
    if (OVERLAPPED* overlapped = std::exchange(m_async, nullptr)) {
        const DWORD error = m_queue->Closing() ? ERROR_OPERATION_ABORTED : ERROR_NETNAME_DELETED;
        m_queue->Port()->Complete({0, m_queue->Key(), overlapped, error});
    }
    CConnectionSlab::Instance().Give(this);
}

void CHttpConnection::SetDeadline(uint32_t after_ms, bool quick) {
    m_quick.store(quick, std::memory_order_relaxed);
    m_deadline.store(ClockMs() + after_ms, std::memory_order_relaxed);
    if (quick) m_queue->Port()->EnsureTick(CCompletionPort::ETick::Quick);
}

ssize_t CHttpConnection::Receive(char* to, size_t room) {
    ssize_t n;
    do
        n = recv(m_fd, to, room, MSG_DONTWAIT);
    while (n < 0 && errno == EINTR);
    m_drained = n < static_cast<ssize_t>(room);
    // A late event can have marked the slot's next connection. Who believed such a mark would read
    // on for ever; a client that does close its side from here on is announced again.
    if (n < 0 && errno == EAGAIN && m_hangup.load()) m_hangup.store(false);
    return n;
}

void CHttpConnection::SetLowWater(uint32_t bytes) {
    if (bytes == m_low_water) return;
    const int value = static_cast<int>(bytes);
    if (setsockopt(m_fd, SOL_SOCKET, SO_RCVLOWAT, &value, sizeof value) == 0) m_low_water = bytes;
}

// Who waits for the rest of a request tells the client that what it sent is here. Systems put that
// off for some 40 ms, and a client that does not set TCP_NODELAY keeps its last piece until it
// hears so (RFC 896, RFC 9293 3.7.4 and 3.8.6.3). While something lies in the socket Linux does
// not.
void CHttpConnection::Acknowledge() const {
    if (!m_drained) return;
    const int now = 1;
    setsockopt(m_fd, IPPROTO_TCP, TCP_QUICKACK, &now, sizeof now);
}

// Puts the request into the application's hands. False: the queue is closing and got the connection
// instead. The queue closes every request in hand after it has set its mark, and this looks at the
// mark after the request is in hand, so one of the two sees the other.
bool CHttpConnection::Publish(uint64_t request_id) {
    const std::atomic<bool>& closing = m_queue->ClosingMark();  // outlives the queue
    m_call.store(request_id);
    if (!closing.load()) return true;
    if (m_call.compare_exchange_strong(request_id, 0)) Dispose();
    return false;
}

bool CHttpConnection::EnterCall(uint64_t request_id, const CRequestQueue* queue, bool* busy) {
    *busy = false;
    if (request_id == HTTP_NULL_ID || (request_id & kBusy)) return false;
    uint64_t expected = request_id;
    if (!m_call.compare_exchange_strong(expected, request_id | kBusy)) {
        *busy = expected == (request_id | kBusy);
        return false;
    }
    if (m_queue == queue) return true;
    LeaveCall();
    return false;
}

void CHttpConnection::LeaveCall() {
    Publish(m_call.load() & ~kBusy);
}

void CHttpConnection::CloseAll(CRequestQueue* queue) {
    CConnectionSlab& slab = CConnectionSlab::Instance();
    const uint32_t slots = slab.Slots();
    for (uint32_t slot = 0; slot < slots; ++slot) {
        CHttpConnection* c = slab.At(slot);
        bool ours = false;
        {
            const std::lock_guard lock(slab.Lock());
            if (c->m_queue != queue) continue;
            shutdown(c->m_fd, SHUT_RDWR);  // whoever is blocked on it comes out
            ours = c->Claim(EPOLLHUP);
            if (!ours) {
                uint64_t id = c->m_call.load();
                ours = id != 0 && !(id & kBusy) && c->m_call.compare_exchange_strong(id, 0);
            }
        }
        if (ours) c->Dispose();
    }
    const auto wanted = [](const CPollTarget* target, const void* context) {
        return target->Belongs(context);
    };
    CPollTarget* target = queue->Port()->TakeReady(wanted, queue);
    while (target) {
        CPollTarget* next = target->m_next_ready;
        target->Drop();
        target = next;
    }
}

CCompletionPort::ETick CHttpConnection::Sweep(CCompletionPort* port) {
    using ETick = CCompletionPort::ETick;
    CConnectionSlab& slab = CConnectionSlab::Instance();
    const uint64_t now = ClockMs();
    const uint32_t slots = slab.Count() ? slab.Slots() : 0;
    ETick need = slots ? ETick::Slow : ETick::Off;
    for (uint32_t slot = 0; slot < slots; ++slot) {
        CHttpConnection* c = slab.At(slot);
        const uint64_t deadline = c->m_deadline.load(std::memory_order_relaxed);
        if (deadline == 0) continue;
        if (deadline > now) {
            if (c->m_quick.load(std::memory_order_relaxed)) need = ETick::Quick;
            continue;
        }
        if (!c->TryOwn()) continue;
        const CRef<CRequestQueue> queue(c->m_queue);
        EStep step = EStep::Again;
        CPacket packet;
        const bool here = !port || queue->Port() == port;
        if (here && c->m_deadline.load() <= now && c->m_deadline.load() != 0)
            step = c->OnDeadline(packet);
        if (step == EStep::Packet) queue->Port()->Complete(packet);
        if (step == EStep::Again && !c->Release()) queue->Port()->PushReady(c, EWake::Now);
    }
    if (port) CListener::Resume(port);
    return need;
}

// The connection's time is up. Again: it goes on, with another deadline.
CHttpConnection::EStep CHttpConnection::OnDeadline(CPacket& packet) {
    if (m_queue->Closing()) return Die();
    if (m_phase == EPhase::Body && m_body_end > m_body_begin && ClockMs() < m_body_limit_ms)
        return DeliverStalled(packet);
    if (m_parked) {
        m_queue->Port()->PushReady(this, EWake::Now);
        return EStep::Gone;
    }
    if (m_phase == EPhase::Gathering) return OnGatherDeadline(packet);
    if (m_phase == EPhase::Body && ClockMs() < m_body_limit_ms) {
        m_quick.store(false, std::memory_order_relaxed);
        m_deadline.store(m_body_limit_ms, std::memory_order_relaxed);
        return EStep::Again;
    }
    if (m_phase == EPhase::BigBody) {
        // Below the low-water mark nothing is announced, so progress is looked for here.
        const uint64_t arrived = Arrived();
        if (arrived > m_arrived) {
            m_arrived = arrived;
            SetDeadline(HttpTune()->body_ms);
            return EStep::Again;
        }
    }
    if (m_phase == EPhase::Sending && m_background->KeepsRate(m_fd)) {
        SetDeadline(HttpTune()->send_window_ms);
        return EStep::Again;
    }
    return Die();
}

}  // namespace posix

HttpTuning* HttpTune() noexcept {
    static HttpTuning tuning;
    return &tuning;
}

uint32_t HttpTuneConnections() noexcept {
    return posix::CHttpConnection::Count();
}
