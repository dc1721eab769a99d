// The registry, read-only, from a text file in the registry editor's export format (described in
// registryfile.h). Names of keys and values compare without regard to ASCII case. A key is the
// state of the file at the moment it was opened; a changed file (time, size or inode) is seen when
// the next key is opened, which costs one stat when nothing changed. A missing file is an empty
// registry; a malformed line is skipped and reported once per file state to stderr and the system
// log. Any thread.
//
// Differences: only HKEY_LOCAL_MACHINE and HKEY_CLASSES_ROOT (=
// HKEY_LOCAL_MACHINE\Software\Classes) exist; write rights may be asked for but nothing can be
// written; there are no links, classes or security.
#pragma once

#include "platform/posix/errors.h"

struct HKEY__;
using HKEY = HKEY__*;
using PHKEY = HKEY*;
using REGSAM = DWORD;
using LSTATUS = LONG;

#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0xFFFFFFFF80000000)))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0xFFFFFFFF80000002)))

#define KEY_QUERY_VALUE 0x0001u
#define KEY_WOW64_64KEY 0x0100u
#define KEY_WOW64_32KEY 0x0200u
#define KEY_READ 0x20019u
#define KEY_WRITE 0x20006u
#define KEY_ALL_ACCESS 0xF003Fu

#define REG_NONE 0u
#define REG_SZ 1u
#define REG_EXPAND_SZ 2u
#define REG_BINARY 3u
#define REG_DWORD 4u
#define REG_MULTI_SZ 7u
#define REG_QWORD 11u

#pragma GCC visibility push(default)
extern "C" {

// `sub_key` null or empty opens `key` itself. With KEY_WOW64_32KEY a key below
// HKEY_LOCAL_MACHINE\Software is the one below Software\WOW6432Node (Software\Classes is shared by
// both views); the 64-bit view is the default. ERROR_FILE_NOT_FOUND, ERROR_INVALID_HANDLE,
// ERROR_BAD_PATHNAME (leading backslash), ERROR_INVALID_PARAMETER (no result, options, unknown
// rights, both views at once). Closed with RegCloseKey.
LSTATUS RegOpenKeyExW(HKEY key, LPCWSTR sub_key, DWORD options, REGSAM rights, PHKEY result);

// The value's type and bytes; `type` and `data` may be null. `size` holds the buffer's size in and
// the value's size out, in bytes, NUL of a string included. A buffer that is too small gives
// ERROR_MORE_DATA and the size needed, with null `data` only the size is told. `name` null or empty
// is the default value. ERROR_FILE_NOT_FOUND, ERROR_INVALID_PARAMETER (`reserved` not null, `data`
// without `size`), ERROR_INVALID_HANDLE.
LSTATUS RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                         LPDWORD size);
// The same with strings as UTF-8 (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ); other types as they are.
LSTATUS RegQueryValueExA(HKEY key, LPCSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                         LPDWORD size);

LSTATUS RegCloseKey(HKEY key);

// Names the file; from the next opened key on. Null or empty: the ZEM_REGISTRY environment
// variable, else /etc/zemhttpd/zemhttpd.reg. Only this layer has it.
void SetRegistryFile(const char* path);

// The name of the file in use, UTF-8 with its NUL, cut at `size` bytes. It need not exist. Only
// this layer has it.
void RegistryFileInUse(char* path, DWORD size);

// Puts a value over the file's for this process, in keys opened from now on. `key` is the whole
// name as in the file ("HKEY_LOCAL_MACHINE\Software\..."); null `data` takes the override away
// again. False when `key` is malformed. Only this layer has it.
bool OverrideRegistryValue(LPCWSTR key, LPCWSTR name, DWORD type, const void* data, DWORD size);

// How many lines of the file are malformed. Only this layer has it.
DWORD SkippedRegistryLines();

// Calls `each` for every value there is, overrides included, in the order of their keys. Key (below
// HKEY_LOCAL_MACHINE) and name are in lower case. Only this layer has it.
void VisitRegistryValues(void (*each)(void* context, LPCWSTR key, LPCWSTR name, DWORD type),
                         void* context);
}
#pragma GCC visibility pop
