// The request queue: its receives and waiting requests, and its URLs.
#include "platform/posix/http_queue.h"

#include <cstring>
#include <deque>
#include <new>

#include "platform/posix/http_background.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_tuning.h"

namespace posix {
namespace {

// A mark for each queue there ever was: a byte that can be read when the queue may be gone.
std::atomic<bool>* NewMark() {
    static auto* lock = new std::mutex();
    static auto* marks = new std::deque<std::atomic<bool>>();
    const std::lock_guard guard(*lock);
    return &marks->emplace_back(false);
}

}  // namespace

CRequestQueue* CRequestQueue::Create() {
    auto* queue = new (std::nothrow) CRequestQueue();
    CCompletionPort* port = queue ? CCompletionPort::Create() : nullptr;
    if (port) {
        // A queue that is never bound waits on a port of its own, for synchronous receives.
        queue->m_port = CRef<CCompletionPort>::Adopt(port);
        port->SetTick(&CHttpConnection::Sweep);
        try {
            queue->SetRoutes({});
            queue->m_closing = NewMark();
            return queue;
        } catch (const std::bad_alloc&) {
        }
    }
    const DWORD error = queue && !port ? GetLastError() : ERROR_NOT_ENOUGH_MEMORY;
    if (queue) queue->Release();
    SetLastError(error);
    return nullptr;
}

CRequestQueue::~CRequestQueue() = default;

bool CRequestQueue::Bind(CCompletionPort* port, ULONG_PTR key) {
    const std::lock_guard lock(m_url_lock);
    if (m_bound || !m_ports.empty() || m_closing->load()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    port->SetTick(&CHttpConnection::Sweep);
    m_port = CRef<CCompletionPort>(port);
    m_key = key;
    m_bound = true;
    return true;
}

void CRequestQueue::SetRoutes(Routes routes) {
    m_all_routes.push_back(std::make_unique<const Routes>(std::move(routes)));
    m_routes.store(m_all_routes.back().get(), std::memory_order_release);
}

ULONG CRequestQueue::AddUrl(std::u16string_view url) try {
    UrlPrefix prefix;
    if (!ParsePrefix(url, prefix)) return ERROR_INVALID_PARAMETER;
    const std::lock_guard lock(m_url_lock);
    if (m_closing->load()) return ERROR_INVALID_HANDLE;
    CListenPort* listen = nullptr;
    for (const auto& port : m_ports)
        if (port->Asked() == prefix.port) listen = port.get();
    std::unique_ptr<CListenPort> fresh;
    if (!listen) {
        fresh = std::make_unique<CListenPort>();
        listen = fresh.get();
        if (const ULONG error = listen->Start(prefix.port, this, m_port.Get())) return error;
    }
    prefix.port = listen->Bound();
    Routes routes = *m_routes.load();
    for (const UrlPrefix& other : routes)
        if (other.port == prefix.port && other.path == prefix.path) return ERROR_ALREADY_EXISTS;
    routes.push_back(prefix);
    m_ports.reserve(m_ports.size() + 1);
    SetRoutes(std::move(routes));
    if (fresh) m_ports.push_back(std::move(fresh));
    return NO_ERROR;
} catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
}

ULONG CRequestQueue::RemoveUrl(std::u16string_view url) try {
    UrlPrefix prefix;
    if (!ParsePrefix(url, prefix)) return ERROR_INVALID_PARAMETER;
    const std::lock_guard lock(m_url_lock);
    for (const auto& port : m_ports)
        if (port->Asked() == prefix.port) prefix.port = port->Bound();
    Routes routes = *m_routes.load();
    const size_t before = routes.size();
    std::erase_if(routes, [&](const UrlPrefix& other) {
        return other.port == prefix.port && other.path == prefix.path;
    });
    if (routes.size() == before) return ERROR_FILE_NOT_FOUND;
    bool used = false;
    for (const UrlPrefix& other : routes)
        used |= other.port == prefix.port;
    SetRoutes(std::move(routes));
    if (!used)
        std::erase_if(m_ports, [&](const auto& port) { return port->Bound() == prefix.port; });
    return NO_ERROR;
} catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
}

uint16_t CRequestQueue::BoundPort(uint16_t asked) {
    const std::lock_guard lock(m_url_lock);
    for (const auto& port : m_ports)
        if (port->Asked() == asked || port->Bound() == asked) return port->Bound();
    return 0;
}

CHttpConnection* CRequestQueue::PostReceive(const CPostedReceive& receive, ULONG* error) {
    *error = NO_ERROR;
    if (m_receive_bytes.load(std::memory_order_relaxed) != receive.size)
        m_receive_bytes.store(receive.size, std::memory_order_relaxed);
    const std::lock_guard lock(m_lock);
    if (m_closing->load()) {
        *error = ERROR_OPERATION_ABORTED;
        return nullptr;
    }
    if (CHttpConnection* connection = PopWaiting()) return connection;
    auto* kept = new (receive.buffer) CPostedReceive(receive);
    kept->next = m_receives;
    m_receives = kept;
    return nullptr;
}

CHttpConnection* CRequestQueue::TakeWaiting() {
    const std::lock_guard lock(m_lock);
    return PopWaiting();
}

// The oldest request that waits, or null. With the lock held.
CHttpConnection* CRequestQueue::PopWaiting() {
    CHttpConnection* connection = m_waiting_head;
    if (!connection) return nullptr;
    m_waiting_head = connection->m_next_waiting;
    if (!m_waiting_head) m_waiting_tail = nullptr;
    m_waiting_count.fetch_sub(1);
    return connection;
}

bool CRequestQueue::TakeReceive(CPostedReceive& receive) {
    const std::lock_guard lock(m_lock);
    if (!m_receives) return false;
    receive = *m_receives;
    m_receives = receive.next;
    return true;
}

CRequestQueue::EEnqueue CRequestQueue::Enqueue(CHttpConnection* connection,
                                               CPostedReceive& receive) {
    const std::lock_guard lock(m_lock);
    if (m_closing->load()) return EEnqueue::Closing;
    if (m_receives) {
        receive = *m_receives;
        m_receives = receive.next;
        return EEnqueue::Taken;
    }
    if (static_cast<uint32_t>(m_waiting_count.load()) >= HttpTune()->waiting_requests)
        return EEnqueue::Full;
    connection->m_next_waiting = nullptr;
    (m_waiting_tail ? m_waiting_tail->m_next_waiting : m_waiting_head) = connection;
    m_waiting_tail = connection;
    m_waiting_count.fetch_add(1);
    return EEnqueue::Waits;
}

void CRequestQueue::Park(CHttpConnection* connection, EUpload kind) {
    const std::lock_guard lock(m_parked_lock);
    m_parked[kind].Append(connection);
    m_parked_count.fetch_add(1);
}

void CRequestQueue::Unpark(CHttpConnection* connection, EUpload kind) {
    {
        const std::lock_guard lock(m_parked_lock);
        m_parked[kind].Remove(connection);
        m_parked_count.fetch_sub(1);
    }
    WakeNextUploads();
}

bool CRequestQueue::IsNextUpload(const CHttpConnection* connection, EUpload kind) {
    if (!UploadsWait()) return true;
    const std::lock_guard lock(m_parked_lock);
    const CHttpConnection* first = m_parked[kind].First();
    return !first || first == connection;
}

void CRequestQueue::WakeNextUploads() {
    if (!UploadsWait() || Closing()) return;
    for (const EUpload kind : {kSmallUpload, kLargeUpload}) {
        CHttpConnection* next;
        {
            const std::lock_guard lock(m_parked_lock);
            next = m_parked[kind].First();
            // Nobody frees it while it is in the list. Who runs it now may have looked too early;
            // its deadline makes it look again.
            if (!next || !next->TryOwn()) continue;
        }
        m_port->PushReady(next, EWake::Now);
    }
}

void CRequestQueue::Serve(const CPostedReceive& receive) {
    for (;;) {
        ULONG error;
        CHttpConnection* connection = PostReceive(receive, &error);
        if (error != NO_ERROR) return Abort(receive);
        if (!connection) return;
        CPacket packet;
        if (!connection->DeliverWaiting(receive, packet)) continue;
        m_port->Complete(packet);
        return;
    }
}

void CRequestQueue::Abort(const CPostedReceive& receive) {
    receive.overlapped->InternalHigh = 0;
    m_port->Complete({0, m_key, receive.overlapped, ERROR_OPERATION_ABORTED});
}

void CRequestQueue::OnClose() {
    m_closing->store(true);
    CPostedReceive* receives;
    CHttpConnection* waiting;
    {
        const std::lock_guard lock(m_lock);
        receives = std::exchange(m_receives, nullptr);
        waiting = std::exchange(m_waiting_head, nullptr);
        m_waiting_tail = nullptr;
        m_waiting_count.store(0);
    }
    {
        const std::lock_guard lock(m_url_lock);
        m_ports.clear();
    }
    while (waiting) {
        CHttpConnection* next = waiting->m_next_waiting;
        waiting->Drop();
        waiting = next;
    }
    CHttpConnection::CloseAll(this);
    while (receives) {
        const CPostedReceive receive = *receives;
        memset(receive.buffer, 0, sizeof(CPostedReceive));
        Abort(receive);
        receives = receive.next;
    }
}

}  // namespace posix
