// The HTTP Server API's calls. Differences from the kernel's own interface:
// - Only what http_calls.h names exists; other flags are refused. A response is sent whole and
//   synchronously. Prefixes have '*' or '+' as host and no context.
// - The work is done by the threads that wait in the port. Without such a thread only a synchronous
//   receive serves the queue. Two queues cannot share a TCP port.
// - Requests that could be read in two ways are refused: both lengths, equal lengths twice, folded
//   lines, bare line feeds, control characters.
// - A head that leaves less than 128 bytes of a 4096-byte receive buffer is answered 431.
// - A POST is delivered when its body, or as much as the posted buffer takes, has arrived; a long
//   one when all or a full socket buffer has.
// - A response that blocks may be finished in the background; the call then reports all of it sent.
// - No Server field is added. Field values and reasons go out as given.
// - A Content-Length of the application's that is not the body's length closes the connection.
// - Case of prefixes is ignored in ASCII only. IPv6 addresses have the system's family number.
#include <atomic>
#include <new>

#include "platform/posix/http_background.h"
#include "platform/posix/http_clock.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_listener.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/http_tuning.h"

using posix::CHttpConnection;
using posix::CPacket;
using posix::CPin;
using posix::CPostedReceive;
using posix::CRequestQueue;

namespace {

std::atomic<int> g_initialized{0};

constexpr int kSyncSliceMs = 10;

// A synchronous receive works like one of the port's threads until a request is left for it.
ULONG ReceiveNow(CRequestQueue& queue, const CPostedReceive& receive, PULONG received) {
    for (;;) {
        if (queue.Closing()) return ERROR_OPERATION_ABORTED;
        CPacket packet;
        if (CHttpConnection* connection = queue.TakeWaiting()) {
            if (!connection->DeliverWaiting(receive, packet)) continue;
            if (received) *received = packet.bytes;
            return packet.error;
        }
        if (queue.Port()->RunOnce(kSyncSliceMs, packet)) queue.Port()->Complete(packet);
    }
}

ULONG EnterError(bool busy) {
    return busy ? ERROR_BUSY : ERROR_CONNECTION_INVALID;
}

}  // namespace

ULONG HttpInitialize(HTTPAPI_VERSION Version, ULONG Flags, PVOID pReserved) noexcept {
    if (Version.HttpApiMajorVersion != 1 || Version.HttpApiMinorVersion != 0)
        return ERROR_REVISION_MISMATCH;
    if (Flags != HTTP_INITIALIZE_SERVER || pReserved) return ERROR_INVALID_PARAMETER;
    g_initialized.fetch_add(1);
    return NO_ERROR;
}

ULONG HttpTerminate(ULONG Flags, PVOID pReserved) noexcept {
    if (Flags != HTTP_INITIALIZE_SERVER || pReserved) return ERROR_INVALID_PARAMETER;
    int count = g_initialized.load();
    while (count > 0 && !g_initialized.compare_exchange_weak(count, count - 1)) {
    }
    return NO_ERROR;
}

ULONG HttpCreateHttpHandle(PHANDLE pReqQueueHandle, ULONG Options) noexcept {
    if (!pReqQueueHandle || Options != 0) return ERROR_INVALID_PARAMETER;
    CRequestQueue* queue = CRequestQueue::Create();
    *pReqQueueHandle = queue ? posix::OpenHandle(queue) : nullptr;
    return *pReqQueueHandle ? NO_ERROR : GetLastError();
}

ULONG HttpAddUrl(HANDLE ReqQueueHandle, PCWSTR pUrlPrefix, PVOID pReserved) noexcept {
    if (!pUrlPrefix || pReserved) return ERROR_INVALID_PARAMETER;
    const CPin<CRequestQueue> queue(ReqQueueHandle);
    return queue ? queue->AddUrl(pUrlPrefix) : ERROR_INVALID_HANDLE;
}

ULONG HttpRemoveUrl(HANDLE ReqQueueHandle, PCWSTR pUrlPrefix) noexcept {
    if (!pUrlPrefix) return ERROR_INVALID_PARAMETER;
    const CPin<CRequestQueue> queue(ReqQueueHandle);
    return queue ? queue->RemoveUrl(pUrlPrefix) : ERROR_INVALID_HANDLE;
}

ULONG ReserveListenPort(USHORT Port) noexcept try {
    return posix::ReservePort(Port);
} catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
}

ULONG HttpReceiveHttpRequest(HANDLE ReqQueueHandle, HTTP_REQUEST_ID RequestId, ULONG Flags,
                             PHTTP_REQUEST pRequestBuffer, ULONG RequestBufferLength,
                             PULONG pBytesReceived, LPOVERLAPPED pOverlapped) noexcept {
    const CPin<CRequestQueue> queue(ReqQueueHandle);
    if (!queue) return ERROR_INVALID_HANDLE;
    if (!pRequestBuffer || (Flags & ~static_cast<ULONG>(HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY)) ||
        reinterpret_cast<uintptr_t>(pRequestBuffer) % alignof(HTTP_REQUEST) != 0) {
        return ERROR_INVALID_PARAMETER;
    }
    if (RequestBufferLength < sizeof(HTTP_REQUEST)) return ERROR_INSUFFICIENT_BUFFER;
    if (pOverlapped && !queue->IsBound()) return ERROR_INVALID_PARAMETER;

    const CPostedReceive receive{nullptr, pRequestBuffer, RequestBufferLength, Flags, pOverlapped};
    if (RequestId == HTTP_NULL_ID) {
        if (!pOverlapped) return ReceiveNow(*queue, receive, pBytesReceived);
        if (queue->Closing()) return ERROR_OPERATION_ABORTED;
        pOverlapped->Internal = 0;
        queue->Serve(receive);
        return ERROR_IO_PENDING;
    }
    CHttpConnection* connection = CHttpConnection::Find(RequestId);
    bool busy = false;
    if (!connection || !connection->EnterCall(RequestId, queue.Get(), &busy))
        return EnterError(busy);
    ULONG used = 0;
    const ULONG error = connection->FetchById(pRequestBuffer, RequestBufferLength, Flags, &used);
    if (pBytesReceived) *pBytesReceived = used;
    if (!pOverlapped || error != NO_ERROR) return error;
    pOverlapped->InternalHigh = used;
    queue->Port()->Complete({used, queue->Key(), pOverlapped, NO_ERROR});
    return ERROR_IO_PENDING;
}

ULONG HttpReceiveRequestEntityBody(HANDLE ReqQueueHandle, HTTP_REQUEST_ID RequestId, ULONG Flags,
                                   PVOID pBuffer, ULONG BufferLength, PULONG pBytesReceived,
                                   LPOVERLAPPED pOverlapped) noexcept {
    const CPin<CRequestQueue> queue(ReqQueueHandle);
    if (!queue) return ERROR_INVALID_HANDLE;
    constexpr ULONG kFill = HTTP_RECEIVE_REQUEST_ENTITY_BODY_FLAG_FILL_BUFFER;
    if (!pBuffer || (Flags & ~kFill) || (pOverlapped && (Flags || !queue->IsBound())))
        return ERROR_INVALID_PARAMETER;
    CHttpConnection* connection = CHttpConnection::Find(RequestId);
    bool busy = false;
    if (!connection || !connection->EnterCall(RequestId, queue.Get(), &busy))
        return EnterError(busy);
    const bool fill = (Flags & kFill) != 0;
    auto* to = static_cast<char*>(pBuffer);
    if (pOverlapped) return connection->StartAsyncBody(to, BufferLength, pOverlapped);
    ULONG got = 0;
    const ULONG error = connection->ReadBody(to, BufferLength, fill, true, &got);
    connection->LeaveCall();
    if (pBytesReceived) *pBytesReceived = got;
    return error;
}

ULONG HttpSendHttpResponse(HANDLE ReqQueueHandle, HTTP_REQUEST_ID RequestId, ULONG Flags,
                           PHTTP_RESPONSE pHttpResponse, PVOID pReserved1, PULONG pBytesSent,
                           PVOID pReserved2, ULONG Reserved3, LPOVERLAPPED pOverlapped,
                           PVOID pReserved4) noexcept {
    const CPin<CRequestQueue> queue(ReqQueueHandle);
    if (!queue) return ERROR_INVALID_HANDLE;
    if (!pHttpResponse || (Flags & ~static_cast<ULONG>(HTTP_SEND_RESPONSE_FLAG_DISCONNECT)) ||
        pReserved1 || pReserved2 || Reserved3 || pOverlapped || pReserved4) {
        return ERROR_INVALID_PARAMETER;
    }
    CHttpConnection* connection = CHttpConnection::Find(RequestId);
    bool busy = false;
    if (!connection || !connection->EnterCall(RequestId, queue.Get(), &busy))
        return EnterError(busy);
    uint64_t sent = 0;
    const ULONG error =
        connection->Send(*pHttpResponse, (Flags & HTTP_SEND_RESPONSE_FLAG_DISCONNECT) != 0, &sent);
    if (pBytesSent) *pBytesSent = static_cast<ULONG>(sent);
    return error;
}

void HttpTuneAdvanceClock(uint32_t milliseconds) noexcept {
    posix::AdvanceClock(milliseconds);
    CHttpConnection::SweepAll();
}

uint16_t HttpTuneBoundPort(HANDLE queue, uint16_t port) noexcept {
    const CPin<CRequestQueue> pin(queue);
    return pin ? pin->BoundPort(port) : uint16_t{0};
}

uint32_t HttpTuneWaitingRequests(HANDLE queue) noexcept {
    const CPin<CRequestQueue> pin(queue);
    return pin ? pin->WaitingCount() : 0;
}

uint32_t HttpTuneParkedUploads(HANDLE queue) noexcept {
    const CPin<CRequestQueue> pin(queue);
    return pin ? pin->ParkedUploads() : 0;
}
