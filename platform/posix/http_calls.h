// The calls of the HTTP Server API. All return a Win32 error number (NO_ERROR is success) and leave
// the last error alone. Included by http.h.
#pragma once

#include "platform/posix/http.h"

#pragma GCC visibility push(default)
extern "C" {

// Version must be 1.0 (else ERROR_REVISION_MISMATCH) and Flags HTTP_INITIALIZE_SERVER (else
// ERROR_INVALID_PARAMETER). Calls are counted; HttpTerminate gives one back.
ULONG HttpInitialize(HTTPAPI_VERSION Version, ULONG Flags, PVOID pReserved) noexcept;
ULONG HttpTerminate(ULONG Flags, PVOID pReserved) noexcept;

// A new request queue; Options must be 0. CloseHandle completes its outstanding receives with
// ERROR_OPERATION_ABORTED, closes its listening sockets and its connections.
ULONG HttpCreateHttpHandle(PHANDLE pReqQueueHandle, ULONG Options) noexcept;

// pUrlPrefix: "http://*:PORT/path/" (or '+'), ending in a slash. The first prefix of a port binds
// the port. ERROR_INVALID_PARAMETER for another form, ERROR_ALREADY_EXISTS when this queue has the
// prefix, ERROR_SHARING_VIOLATION when the port is taken, ERROR_ACCESS_DENIED when the system
// forbids it. Port 0 takes any free port (HttpTuneBoundPort tells which).
ULONG HttpAddUrl(HANDLE ReqQueueHandle, PCWSTR pUrlPrefix, PVOID pReserved) noexcept;

// ERROR_FILE_NOT_FOUND when the prefix is not registered. The port is closed with its last prefix;
// connections that exist stay, and their requests for it are answered 404.
ULONG HttpRemoveUrl(HANDLE ReqQueueHandle, PCWSTR pUrlPrefix) noexcept;

// Opens `Port` on every address of ListenOnlyList before there is a queue; the first HttpAddUrl for
// this port listens there. For a process that gives up the right to open it: only this layer has
// it. Nothing is accepted until then. Errors as HttpAddUrl's; all addresses are open or none is.
ULONG ReserveListenPort(USHORT Port) noexcept;

// Takes the next request (RequestId HTTP_NULL_ID), or the one that an earlier call left behind with
// ERROR_MORE_DATA. The structure comes first in the buffer, then what it points to; the bytes
// behind that stay as they were (behind the ids that come with ERROR_MORE_DATA they are zero). With
// an OVERLAPPED the call returns ERROR_IO_PENDING and completes through the port that the queue is
// bound to; buffer and OVERLAPPED belong to the queue until then. Without one it waits. Flags: 0 or
// HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY.
ULONG HttpReceiveHttpRequest(HANDLE ReqQueueHandle, HTTP_REQUEST_ID RequestId, ULONG Flags,
                             PHTTP_REQUEST pRequestBuffer, ULONG RequestBufferLength,
                             PULONG pBytesReceived, LPOVERLAPPED pOverlapped) noexcept;

// The next bytes of the request's entity body, at most BufferLength and usually as many as have
// arrived. ERROR_HANDLE_EOF after the last byte, ERROR_CONNECTION_INVALID for an id that is not a
// request in hand, ERROR_NETNAME_DELETED when the client is gone or stalled. One call at a time for
// a request (else ERROR_BUSY). Flags: 0 or, in a call without OVERLAPPED,
// HTTP_RECEIVE_REQUEST_ENTITY_BODY_FLAG_FILL_BUFFER.
ULONG HttpReceiveRequestEntityBody(HANDLE ReqQueueHandle, HTTP_REQUEST_ID RequestId, ULONG Flags,
                                   PVOID pBuffer, ULONG BufferLength, PULONG pBytesReceived,
                                   LPOVERLAPPED pOverlapped) noexcept;

// Answers the request, whole, in this call: memory and file chunks. All memory may be reused and
// all handles closed when it returns, even when the rest of a response is still being sent in the
// background. *pBytesSent counts header and body. Flags: 0 or HTTP_SEND_RESPONSE_FLAG_DISCONNECT;
// pOverlapped must be null. ERROR_CONNECTION_INVALID for an id that is not a request in hand or
// whose client has gone, ERROR_NETNAME_DELETED when the client goes in mid-response.
ULONG HttpSendHttpResponse(HANDLE ReqQueueHandle, HTTP_REQUEST_ID RequestId, ULONG Flags,
                           PHTTP_RESPONSE pHttpResponse, PVOID pReserved1, PULONG pBytesSent,
                           PVOID pReserved2, ULONG Reserved3, LPOVERLAPPED pOverlapped,
                           PVOID pReserved4) noexcept;
}
#pragma GCC visibility pop
