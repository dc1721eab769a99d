// Locks, semaphores, events, threads and asynchronous procedure calls, in Windows terms.
// Differences from Windows, all deliberate:
// - nothing is named or inherited: a name or security attributes give ERROR_NOT_SUPPORTED;
// - a thread starts at once (initflag must be 0), and an APC queued to it before its first
//   alertable wait stays queued until that wait; APCs of a thread that has ended are dropped;
// - handles of threads that this layer did not start do not exist;
// - waiters are not served in order of arrival.
// A signalled object wins over a queued APC: an alertable wait that can be satisfied at once
// returns without running APCs, as on Windows. Every call may be made from any thread.
#pragma once

#include "platform/posix/errors.h"

#define WAIT_OBJECT_0 0u
#define WAIT_IO_COMPLETION 0xC0u
#define WAIT_TIMEOUT 258u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64
#define STILL_ACTIVE 259u

// A re-entrant lock. Free when zero. The members belong to the layer.
struct CRITICAL_SECTION {
    uint32_t State;           // 0 free, 1 held, 2 held and somebody sleeps
    uint32_t OwningThread;    // thread id, 0 when free
    uint32_t RecursionCount;  // how often the owner has entered
    uint32_t SpinCount;
    uint64_t Reserved[3];
};
using LPCRITICAL_SECTION = CRITICAL_SECTION*;
static_assert(sizeof(CRITICAL_SECTION) == 40);

using PAPCFUNC = void(NTAPI*)(ULONG_PTR parameter);
using ThreadStart = unsigned(__stdcall*)(void*);

#pragma GCC visibility push(default)
extern "C" {

// Spin count: how often Enter looks again before it sleeps. Default 0; ...AndSpinCount always
// returns TRUE.
void InitializeCriticalSection(LPCRITICAL_SECTION section);
BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spin_count);
void EnterCriticalSection(LPCRITICAL_SECTION section);
BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section);
// REQUIRES: the caller owns the section.
void LeaveCriticalSection(LPCRITICAL_SECTION section);
// REQUIRES: nobody owns it or waits for it.
void DeleteCriticalSection(LPCRITICAL_SECTION section);

// Null on failure: ERROR_INVALID_PARAMETER unless 0 <= initial <= maximum and maximum > 0. The last
// error is 0 after success, as on Windows. Closed with CloseHandle.
HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES attributes, LONG initial, LONG maximum, LPCWSTR name);
// Adds `count` (> 0, else ERROR_INVALID_PARAMETER). Above the maximum: ERROR_TOO_MANY_POSTS,
// nothing is added and `previous` (may be null) is left alone. Makes no system call unless somebody
// sleeps on the semaphore.
BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LPLONG previous);

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manual_reset, BOOL initial_state,
                    LPCWSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);

// Waits for a semaphore (takes one), an event (an auto-reset event is reset) or a thread (until it
// has ended). WAIT_OBJECT_0, WAIT_TIMEOUT, WAIT_FAILED (ERROR_INVALID_HANDLE), or when alertable
// WAIT_IO_COMPLETION after all APCs queued to the calling thread have run; APCs queued before the
// wait count. The object may be closed meanwhile: the wait goes on.
DWORD WaitForSingleObject(HANDLE object, DWORD timeout_ms);
DWORD WaitForSingleObjectEx(HANDLE object, DWORD timeout_ms, BOOL alertable);
// `count` is 1 to MAXIMUM_WAIT_OBJECTS, else ERROR_INVALID_PARAMETER, as for the same handle twice
// in a wait for all. Any: WAIT_OBJECT_0 + lowest index that is signalled. All: takes all at one
// moment or none.
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* objects, BOOL wait_all, DWORD timeout_ms);
// 0 after the time has passed, WAIT_IO_COMPLETION after APCs have run.
DWORD SleepEx(DWORD timeout_ms, BOOL alertable);

// Any handle of this layer, also files, request queues, completion ports and event sources.
// FALSE with ERROR_INVALID_HANDLE when it is not open.
BOOL CloseHandle(HANDLE object);

// Queues a call that runs on `thread` in its next (or current) alertable wait, in order. 0 on
// failure: ERROR_INVALID_HANDLE, ERROR_INVALID_PARAMETER for a null routine, ERROR_GEN_FAILURE when
// the thread has ended.
DWORD QueueUserAPC(PAPCFUNC routine, HANDLE thread, ULONG_PTR parameter);

// A thread's handle, or 0 with errno and the last error set (EAGAIN: no more threads; EINVAL: null
// routine, security attributes or flags). `stack_size` 0 is the default of the process. The handle
// is closed with CloseHandle; that does not touch the thread.
uintptr_t _beginthreadex(void* security, unsigned stack_size, ThreadStart start, void* argument,
                         unsigned initflag, unsigned* thread_id);
// STILL_ACTIVE while it runs, then what its routine returned.
BOOL GetExitCodeThread(HANDLE thread, LPDWORD exit_code);
// The kernel's number of the calling thread; never 0.
DWORD GetCurrentThreadId();
// Gives the calling thread a name for top -H, ps -T, /proc and debuggers. One system call, so at a
// thread's start. At most 15 ASCII characters: further ones are cut off, others become '?'.
void NameThisThread(const WCHAR* name);
}
#pragma GCC visibility pop
