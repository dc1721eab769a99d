// The Windows scalar types, records and constants that the tree uses, with the sizes that 64-bit
// Windows gives them. Differences: LONG and HRESULT are int32_t (on Windows `long`), so code throws
// and catches HRESULT, never a bare long; WCHAR is char16_t, so wide literals are written
// TEXT("...").
#pragma once

#include <cstddef>
#include <cstdint>

#define WINAPI
#define CALLBACK
#define NTAPI
#define STDMETHODCALLTYPE
#define __stdcall

#define __TEXT(quote) u##quote
#define TEXT(quote) __TEXT(quote)

using BYTE = uint8_t;
using CHAR = char;
using UCHAR = uint8_t;
using WCHAR = char16_t;
using SHORT = int16_t;
using USHORT = uint16_t;
using WORD = uint16_t;
using INT = int32_t;
using UINT = uint32_t;
using LONG = int32_t;
using ULONG = uint32_t;
using DWORD = uint32_t;
using BOOL = int32_t;
using BOOLEAN = uint8_t;
using HRESULT = int32_t;
using LONGLONG = int64_t;
using ULONGLONG = uint64_t;
using LONG_PTR = int64_t;
using ULONG_PTR = uint64_t;

using PVOID = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPBYTE = BYTE*;
using PUCHAR = UCHAR*;
using PULONG = ULONG*;
using LPDWORD = DWORD*;
using LPLONG = LONG*;
using LPBOOL = BOOL*;
using PULONG_PTR = ULONG_PTR*;
using LPSTR = CHAR*;
using LPCSTR = const CHAR*;
using PCSTR = const CHAR*;
using LPWSTR = WCHAR*;
using LPCWSTR = const WCHAR*;
using PCWSTR = const WCHAR*;

// An opaque number; 0 and INVALID_HANDLE_VALUE never name an object.
using HANDLE = void*;
using PHANDLE = HANDLE*;

#define TRUE 1
#define FALSE 0
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))
#define INFINITE 0xFFFFFFFFu
#define MAX_PATH 260
#define MAX_COMPUTERNAME_LENGTH 15

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};
using LPFILETIME = FILETIME*;

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};
using LPSYSTEMTIME = SYSTEMTIME*;

union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};

struct GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
};
using IID = GUID;
using CLSID = GUID;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

inline bool operator==(const GUID& a, const GUID& b) {
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
    for (int i = 0; i < 8; ++i)
        if (a.Data4[i] != b.Data4[i]) return false;
    return true;
}

// The record of one asynchronous call. It belongs to the caller, who keeps it in place until the
// call has completed.
struct OVERLAPPED {
    ULONG_PTR Internal;      // the result, as the interface that completes the call defines it
    ULONG_PTR InternalHigh;  // bytes moved
    union {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED*;

// Only the null pointer is accepted wherever one of these is taken.
struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;
using PSID = void*;

static_assert(sizeof(WCHAR) == 2 && sizeof(LONG) == 4 && sizeof(HRESULT) == 4);
static_assert(sizeof(HANDLE) == 8 && sizeof(ULONG_PTR) == 8);
static_assert(sizeof(FILETIME) == 8 && sizeof(SYSTEMTIME) == 16 && sizeof(GUID) == 16);
static_assert(sizeof(LARGE_INTEGER) == 8 && sizeof(ULARGE_INTEGER) == 8);
static_assert(sizeof(OVERLAPPED) == 32 && offsetof(OVERLAPPED, Offset) == 16 &&
              offsetof(OVERLAPPED, hEvent) == 24);
static_assert(sizeof(SECURITY_ATTRIBUTES) == 24);
