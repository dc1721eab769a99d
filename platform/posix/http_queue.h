// The request queue behind a handle of HttpCreateHttpHandle: the URLs it listens for, the receives
// that the application posted, the requests that wait for one. Its lock is held for a few
// instructions at a time, never across work. Any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/posix/http.h"
#include "platform/posix/http_gathered.h"
#include "platform/posix/http_listener.h"
#include "platform/posix/http_url.h"
#include "platform/posix/nodelist.h"
#include "platform/posix/port_object.h"

namespace posix {

class CHttpConnection;

// A receive that waits for its request. It is kept in the first bytes of the buffer that was posted
// with it, which belongs to the queue meanwhile.
struct CPostedReceive {
    CPostedReceive* next;
    void* buffer;
    ULONG size;
    ULONG flags;
    OVERLAPPED* overlapped;
};

class CRequestQueue final : public CObject {
public:
    static constexpr ObjectKind kKind = ObjectKind::RequestQueue;

    // Null with the last error set.
    static CRequestQueue* Create();

    // False with the last error set.
    bool Bind(CCompletionPort* port, ULONG_PTR key);
    CCompletionPort* Port() const { return m_port.Get(); }
    ULONG_PTR Key() const { return m_key; }
    bool IsBound() const { return m_bound; }

    ULONG AddUrl(std::u16string_view url);
    ULONG RemoveUrl(std::u16string_view url);
    const UrlPrefix* Match(uint16_t port, std::u16string_view path) const {
        return MatchPrefix(*m_routes.load(std::memory_order_acquire), port, path);
    }
    uint16_t BoundPort(uint16_t asked);

    // Takes a waiting request for the receive, or keeps the receive (null). ERROR_OPERATION_ABORTED
    // in *error when the queue is closing.
    CHttpConnection* PostReceive(const CPostedReceive& receive, ULONG* error);
    CHttpConnection* TakeWaiting();
    // False when none is posted.
    bool TakeReceive(CPostedReceive& receive);

    // Keeps the request, which the caller holds, or takes a receive that came meanwhile.
    enum class EEnqueue { Waits, Taken, Full, Closing };
    EEnqueue Enqueue(CHttpConnection* connection, CPostedReceive& receive);

    // Gives the receive a waiting request, whose packet goes to the port, or keeps it.
    void Serve(const CPostedReceive& receive);

    // Completes a receive that got nothing.
    void Abort(const CPostedReceive& receive);

    // The size that receives are posted with, as far as is known.
    size_t UsualReceiveBytes() const { return m_receive_bytes.load(std::memory_order_relaxed); }
    bool Closing() const { return m_closing->load(); }
    const std::atomic<bool>& ClosingMark() const { return *m_closing; }
    // Whether requests wait for a thread or for a receive, so that no client may hold one up.
    bool RequestsWait() { return m_waiting_count.load() > 0 || m_port->IsShortOfWorkers(); }
    // Uploads that wait for room to be gathered: of each kind the oldest first.
    void Park(CHttpConnection* connection, EUpload kind);
    void Unpark(CHttpConnection* connection, EUpload kind);
    bool UploadsWait() const { return m_parked_count.load() > 0; }
    // Whether nobody of that kind goes before it, be it parked or not.
    bool IsNextUpload(const CHttpConnection* connection, EUpload kind);
    void WakeNextUploads();  // when there may be room
    uint32_t ParkedUploads() const { return static_cast<uint32_t>(m_parked_count.load()); }

    uint32_t WaitingCount() const { return static_cast<uint32_t>(m_waiting_count.load()); }

    void OnClose() override;

private:
    using Routes = std::vector<UrlPrefix>;

    CRequestQueue() : CObject(kKind) {}
    ~CRequestQueue() override;
    void SetRoutes(Routes routes);
    CHttpConnection* PopWaiting();

    CRef<CCompletionPort> m_port;
    ULONG_PTR m_key = 0;
    bool m_bound = false;
    std::atomic<bool>* m_closing = nullptr;  // never freed, so that it can be read after the queue
    std::atomic<uint32_t> m_receive_bytes{4096};

    alignas(64) std::mutex m_lock;         // guards receives and waiting requests
    CPostedReceive* m_receives = nullptr;  // last in, first out: the warmest buffer
    CHttpConnection* m_waiting_head = nullptr;
    CHttpConnection* m_waiting_tail = nullptr;
    std::atomic<int32_t> m_waiting_count{0};

    std::mutex m_parked_lock;  // guards the lists
    CNodeList<CHttpConnection> m_parked[2];
    std::atomic<int32_t> m_parked_count{0};

    alignas(64) std::atomic<const Routes*> m_routes{nullptr};
    std::mutex m_url_lock;  // guards what follows; taken before no other lock of the layer's
    std::vector<std::unique_ptr<const Routes>> m_all_routes;  // old ones may still be read
    std::vector<std::unique_ptr<CListenPort>> m_ports;
};

}  // namespace posix
