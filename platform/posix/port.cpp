// The completion port's calls. What can be bound to a port is a request queue.
#include "platform/posix/port.h"

#include "platform/posix/http_queue.h"
#include "platform/posix/port_object.h"
#include "platform/posix/sync.h"

using posix::CCompletionPort;
using posix::CPacket;
using posix::CPin;

HANDLE CreateIoCompletionPort(HANDLE FileHandle, HANDLE ExistingCompletionPort,
                              ULONG_PTR CompletionKey, DWORD) noexcept {
    if (FileHandle == INVALID_HANDLE_VALUE) {
        if (ExistingCompletionPort) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        CCompletionPort* port = CCompletionPort::Create();
        return port ? posix::OpenHandle(port) : nullptr;
    }
    const CPin<posix::CRequestQueue> queue(FileHandle);
    if (!queue) return nullptr;
    if (ExistingCompletionPort) {
        const CPin<CCompletionPort> port(ExistingCompletionPort);
        return port && queue->Bind(port.Get(), CompletionKey) ? ExistingCompletionPort : nullptr;
    }
    CCompletionPort* port = CCompletionPort::Create();
    if (!port) return nullptr;
    const posix::CRef<CCompletionPort> keep(port);
    const HANDLE handle = posix::OpenHandle(port);
    if (handle && !queue->Bind(port, CompletionKey)) {
        const DWORD error = GetLastError();
        posix::CloseObjectHandle(handle);
        SetLastError(error);
        return nullptr;
    }
    return handle;
}

BOOL GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred,
                               PULONG_PTR lpCompletionKey, LPOVERLAPPED* lpOverlapped,
                               DWORD dwMilliseconds) noexcept {
    if (!lpNumberOfBytesTransferred || !lpCompletionKey || !lpOverlapped) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *lpOverlapped = nullptr;
    const CPin<CCompletionPort> port(CompletionPort);
    if (!port) return FALSE;
    CPacket packet;
    const CCompletionPort::EGot got = port->Get(packet, dwMilliseconds);
    if (got != CCompletionPort::EGot::Packet) {
        SetLastError(got == CCompletionPort::EGot::Closed ? ERROR_ABANDONED_WAIT_0 : WAIT_TIMEOUT);
        return FALSE;
    }
    *lpNumberOfBytesTransferred = packet.bytes;
    *lpCompletionKey = packet.key;
    *lpOverlapped = packet.overlapped;
    if (packet.error == NO_ERROR) return TRUE;
    SetLastError(packet.error);
    return FALSE;
}

BOOL PostQueuedCompletionStatus(HANDLE CompletionPort, DWORD dwNumberOfBytesTransferred,
                                ULONG_PTR dwCompletionKey, LPOVERLAPPED lpOverlapped) noexcept {
    const CPin<CCompletionPort> port(CompletionPort);
    if (!port) return FALSE;
    if (port->Post({dwNumberOfBytesTransferred, dwCompletionKey, lpOverlapped, NO_ERROR}))
        return TRUE;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
}
