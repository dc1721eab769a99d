// I/O completion ports. The port is the place where the process's workers wait: it is built on the
// system's event queue, and a worker that waits in GetQueuedCompletionStatus does itself the
// network work whose result it returns. Any thread.
#pragma once

#include "platform/posix/errors.h"

#pragma GCC visibility push(default)
extern "C" {

// FileHandle INVALID_HANDLE_VALUE and ExistingCompletionPort null: a new port. FileHandle a request
// queue: binds it under CompletionKey to the given port, or to a new one, which is returned. Null
// with ERROR_INVALID_HANDLE for other kinds of handle, ERROR_INVALID_PARAMETER for a queue that is
// bound already or has URLs already. NumberOfConcurrentThreads is not a limit here: of the threads
// that wait for ever as many run as the work keeps busy, and one more for each that waits
// elsewhere.
HANDLE CreateIoCompletionPort(HANDLE FileHandle, HANDLE ExistingCompletionPort,
                              ULONG_PTR CompletionKey, DWORD NumberOfConcurrentThreads) noexcept;

// Waits for a packet. Needs no memory, nor does an operation that ends: its packet lies in its
// OVERLAPPED (all of it but hEvent), which is the port's until the packet was taken here or the
// port is closed. FALSE with *lpOverlapped null: nothing was taken (WAIT_TIMEOUT, or
// ERROR_ABANDONED_WAIT_0 when the port was closed). FALSE with *lpOverlapped set: the operation
// failed and GetLastError tells how.
BOOL GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred,
                               PULONG_PTR lpCompletionKey, LPOVERLAPPED* lpOverlapped,
                               DWORD dwMilliseconds) noexcept;

// Queues a packet of the caller's own; the three values come out as they went in, lpOverlapped need
// not name anything. 64 packets need no memory; FALSE with ERROR_NOT_ENOUGH_MEMORY when a further
// one finds none.
BOOL PostQueuedCompletionStatus(HANDLE CompletionPort, DWORD dwNumberOfBytesTransferred,
                                ULONG_PTR dwCompletionKey, LPOVERLAPPED lpOverlapped) noexcept;
}
#pragma GCC visibility pop
