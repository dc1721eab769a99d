// Win32 error numbers and HRESULTs that the tree uses, the rule between them, and each thread's
// last error.
#pragma once

#include "platform/posix/types.h"

#define NO_ERROR 0
#define ERROR_SUCCESS 0
#define ERROR_INVALID_FUNCTION 1
#define ERROR_FILE_NOT_FOUND 2
#define ERROR_PATH_NOT_FOUND 3
#define ERROR_TOO_MANY_OPEN_FILES 4
#define ERROR_ACCESS_DENIED 5
#define ERROR_INVALID_HANDLE 6
#define ERROR_NOT_ENOUGH_MEMORY 8
#define ERROR_BAD_FORMAT 11
#define ERROR_INVALID_DATA 13
#define ERROR_OUTOFMEMORY 14
#define ERROR_NOT_SAME_DEVICE 17
#define ERROR_NO_MORE_FILES 18
#define ERROR_WRITE_PROTECT 19
#define ERROR_NOT_READY 21
#define ERROR_CRC 23
#define ERROR_GEN_FAILURE 31
#define ERROR_SHARING_VIOLATION 32
#define ERROR_LOCK_VIOLATION 33
#define ERROR_HANDLE_EOF 38
#define ERROR_HANDLE_DISK_FULL 39
#define ERROR_NOT_SUPPORTED 50
#define ERROR_DEV_NOT_EXIST 55
#define ERROR_NETNAME_DELETED 64
#define ERROR_FILE_EXISTS 80
#define ERROR_INVALID_PARAMETER 87
#define ERROR_BROKEN_PIPE 109
#define ERROR_BUFFER_OVERFLOW 111
#define ERROR_DISK_FULL 112
#define ERROR_CALL_NOT_IMPLEMENTED 120
#define ERROR_SEM_TIMEOUT 121
#define ERROR_INSUFFICIENT_BUFFER 122
#define ERROR_INVALID_NAME 123
#define ERROR_NEGATIVE_SEEK 131
#define ERROR_DIR_NOT_EMPTY 145
#define ERROR_BAD_PATHNAME 161
#define ERROR_BUSY 170
#define ERROR_ALREADY_EXISTS 183
#define ERROR_FILENAME_EXCED_RANGE 206
#define ERROR_FILE_TOO_LARGE 223
#define ERROR_NO_DATA 232
#define ERROR_MORE_DATA 234
#define ERROR_NO_MORE_ITEMS 259
#define ERROR_DIRECTORY 267
#define ERROR_TOO_MANY_POSTS 298
#define ERROR_MR_MID_NOT_FOUND 317
#define ERROR_INVALID_ADDRESS 487
#define ERROR_ABANDONED_WAIT_0 735
#define ERROR_OPERATION_ABORTED 995
#define ERROR_IO_INCOMPLETE 996
#define ERROR_IO_PENDING 997
#define ERROR_STACK_OVERFLOW 1001
#define ERROR_INVALID_FLAGS 1004
#define ERROR_FILE_INVALID 1006
#define ERROR_BADKEY 1010
#define ERROR_END_OF_MEDIA 1100
#define ERROR_NO_UNICODE_TRANSLATION 1113
#define ERROR_IO_DEVICE 1117
#define ERROR_TOO_MANY_LINKS 1142
#define ERROR_NOT_FOUND 1168
#define ERROR_CANCELLED 1223
#define ERROR_CONNECTION_REFUSED 1225
#define ERROR_GRACEFUL_DISCONNECT 1226
#define ERROR_CONNECTION_INVALID 1229
#define ERROR_CONNECTION_ABORTED 1236
#define ERROR_RETRY 1237
#define ERROR_REVISION_MISMATCH 1306
#define ERROR_NO_SYSTEM_RESOURCES 1450
#define ERROR_WORKING_SET_QUOTA 1453
#define ERROR_TIMEOUT 1460
#define ERROR_CANT_RESOLVE_FILENAME 1921

#define S_OK 0
#define S_FALSE 1
#define E_NOTIMPL (static_cast<HRESULT>(0x80004001))
#define E_NOINTERFACE (static_cast<HRESULT>(0x80004002))
#define E_POINTER (static_cast<HRESULT>(0x80004003))
#define E_ABORT (static_cast<HRESULT>(0x80004004))
#define E_FAIL (static_cast<HRESULT>(0x80004005))
#define E_PENDING (static_cast<HRESULT>(0x8000000A))
#define E_BOUNDS (static_cast<HRESULT>(0x8000000B))
#define E_UNEXPECTED (static_cast<HRESULT>(0x8000FFFF))
#define E_ACCESSDENIED (static_cast<HRESULT>(0x80070005))
#define E_HANDLE (static_cast<HRESULT>(0x80070006))
#define E_OUTOFMEMORY (static_cast<HRESULT>(0x8007000E))
#define E_INVALIDARG (static_cast<HRESULT>(0x80070057))
#define RPC_E_CHANGED_MODE (static_cast<HRESULT>(0x80010106))
#define DISP_E_UNKNOWNINTERFACE (static_cast<HRESULT>(0x80020001))
#define DISP_E_MEMBERNOTFOUND (static_cast<HRESULT>(0x80020003))
#define DISP_E_TYPEMISMATCH (static_cast<HRESULT>(0x80020005))
#define DISP_E_UNKNOWNNAME (static_cast<HRESULT>(0x80020006))
#define DISP_E_BADVARTYPE (static_cast<HRESULT>(0x80020008))
#define CLASS_E_NOAGGREGATION (static_cast<HRESULT>(0x80040110))
#define REGDB_E_CLASSNOTREG (static_cast<HRESULT>(0x80040154))
#define CO_E_NOTINITIALIZED (static_cast<HRESULT>(0x800401F0))

#define SUCCEEDED(hr) ((static_cast<HRESULT>(hr)) >= 0)
#define FAILED(hr) ((static_cast<HRESULT>(hr)) < 0)
#define FACILITY_WIN32 7

// The rule of the whole tree: zero and negative values pass, a positive error becomes 0x8007xxxx.
constexpr HRESULT HRESULT_FROM_WIN32(uint32_t error) {
    return static_cast<HRESULT>(error) <= 0
               ? static_cast<HRESULT>(error)
               : static_cast<HRESULT>((error & 0xFFFFu) | (FACILITY_WIN32 << 16) | 0x80000000u);
}

#pragma GCC visibility push(default)
extern "C" {

// The calling thread's last error; calls that succeed leave it alone unless their contract says
// otherwise.
DWORD GetLastError() noexcept;
void SetLastError(DWORD error) noexcept;
}
#pragma GCC visibility pop
