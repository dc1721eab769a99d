// The wrapped calls: each fails as its own documentation says.
#include "tests/faults/callfaults.h"

#include "platform/platform.h"

#include <atomic>

namespace {

constexpr int64_t kOff = -1;
std::atomic<int64_t> g_left{kOff};  // calls before the one that fails
std::atomic<const char*> g_name{""};
std::atomic<bool> g_failed{false};

}  // namespace

void CCallFaults::FailAfter(uint64_t skipped) {
    g_failed = false;
    g_left = static_cast<int64_t>(skipped);
}

bool CCallFaults::Failed() {
    g_left = kOff;
    return g_failed.exchange(false);
}

std::string CCallFaults::Name() {
    return g_name.load();
}

bool CCallFaults::Hit(const char* name) {
    if (g_left < 0 || g_left-- > 0) return false;
    g_name = name;
    return g_failed = true;
}

extern "C" {

LSTATUS __real_RegOpenKeyExW(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY);
LSTATUS __wrap_RegOpenKeyExW(HKEY key, LPCWSTR name, DWORD options, REGSAM access, PHKEY opened) {
    if (CCallFaults::Hit("RegOpenKeyExW")) return ERROR_ACCESS_DENIED;
    return __real_RegOpenKeyExW(key, name, options, access, opened);
}

LSTATUS __real_RegQueryValueExW(HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD);
LSTATUS __wrap_RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                LPDWORD size) {
    if (CCallFaults::Hit("RegQueryValueExW")) return ERROR_NOT_ENOUGH_MEMORY;
    return __real_RegQueryValueExW(key, name, reserved, type, data, size);
}

LSTATUS __real_RegQueryValueExA(HKEY, LPCSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD);
LSTATUS __wrap_RegQueryValueExA(HKEY key, LPCSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                LPDWORD size) {
    if (CCallFaults::Hit("RegQueryValueExA")) return ERROR_NOT_ENOUGH_MEMORY;
    return __real_RegQueryValueExA(key, name, reserved, type, data, size);
}

HANDLE __real_CreateFileW(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
HANDLE __wrap_CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                          DWORD disposition, DWORD flags, HANDLE file) {
    if (!CCallFaults::Hit("CreateFileW"))
        return __real_CreateFileW(name, access, share, security, disposition, flags, file);
    SetLastError(ERROR_TOO_MANY_OPEN_FILES);
    return INVALID_HANDLE_VALUE;
}

DWORD __real_GetFileAttributesW(LPCWSTR);
DWORD __wrap_GetFileAttributesW(LPCWSTR name) {
    if (!CCallFaults::Hit("GetFileAttributesW")) return __real_GetFileAttributesW(name);
    SetLastError(ERROR_NOT_READY);
    return INVALID_FILE_ATTRIBUTES;
}

DWORD __real_GetFinalPathNameByHandleW(HANDLE, LPWSTR, DWORD, DWORD);
DWORD __wrap_GetFinalPathNameByHandleW(HANDLE file, LPWSTR path, DWORD units, DWORD flags) {
    if (!CCallFaults::Hit("GetFinalPathNameByHandleW"))
        return __real_GetFinalPathNameByHandleW(file, path, units, flags);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
}

BOOL __real_GetDiskFreeSpaceExW(LPCWSTR, ULARGE_INTEGER*, ULARGE_INTEGER*, ULARGE_INTEGER*);
BOOL __wrap_GetDiskFreeSpaceExW(LPCWSTR name, ULARGE_INTEGER* available, ULARGE_INTEGER* total,
                                ULARGE_INTEGER* totalFree) {
    if (!CCallFaults::Hit("GetDiskFreeSpaceExW"))
        return __real_GetDiskFreeSpaceExW(name, available, total, totalFree);
    SetLastError(ERROR_NOT_READY);
    return FALSE;
}

BOOL __real_SetFileInformationByHandle(HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD);
BOOL __wrap_SetFileInformationByHandle(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind,
                                       LPVOID information, DWORD size) {
    if (!CCallFaults::Hit("SetFileInformationByHandle"))
        return __real_SetFileInformationByHandle(file, kind, information, size);
    SetLastError(ERROR_SHARING_VIOLATION);
    return FALSE;
}

HRESULT __real_CoCreateInstance(REFCLSID, IUnknown*, DWORD, REFIID, LPVOID*);
HRESULT __wrap_CoCreateInstance(REFCLSID id, IUnknown* outer, DWORD context, REFIID interfaceId,
                                LPVOID* made) {
    if (CCallFaults::Hit("CoCreateInstance")) return E_OUTOFMEMORY;
    return __real_CoCreateInstance(id, outer, context, interfaceId, made);
}

BSTR __real_SysAllocString(const OLECHAR*);
BSTR __wrap_SysAllocString(const OLECHAR* text) {
    return CCallFaults::Hit("SysAllocString") ? nullptr : __real_SysAllocString(text);
}

}  // extern "C"
