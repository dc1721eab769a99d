// Which file below the volume root a request names, and whether it really lies there. To find out
// where a name leads, files and folders outside the root may be opened; none is ever sent or
// deleted, whatever `..`, symbolic link or missing root a request makes use of. Worker threads.
#pragma once

#include "platform/platform.h"
#include "zemhttpd/commands/command.h"

// A handle that closes itself; empty for INVALID_HANDLE_VALUE.
class CFileHandle {
public:
    explicit CFileHandle(HANDLE handle = INVALID_HANDLE_VALUE) : m_handle(handle) {}
    CFileHandle(const CFileHandle&) = delete;
    CFileHandle& operator=(const CFileHandle&) = delete;
    ~CFileHandle() { Close(); }
    void Reset(HANDLE handle) {
        Close();
        m_handle = handle;
    }
    HANDLE Get() const { return m_handle; }
    explicit operator bool() const { return m_handle != INVALID_HANDLE_VALUE; }

private:
    void Close() {
        if (*this) CloseHandle(m_handle);
    }
    HANDLE m_handle;
};

// A text of the cooked URL, which is counted, as a C string; cut where a log message would be.
struct UrlText {
    static constexpr size_t kUnits = 512;
    WCHAR text[kUnits];
    UrlText(const WCHAR* start, USHORT length_bytes);
};

// Where the system says that an open file or folder is, links and relative parts resolved.
struct FinalPath {
    static constexpr DWORD kUnits = 4096;
    WCHAR text[kUnits];
    DWORD length = 0;  // without separators at the end; 0: unknown, or the top of the file system

    explicit FinalPath(HANDLE file);
    bool Contains(const FinalPath& other) const;
};

class CVolumePath {
public:
    // `separator` stands between root and path: the two ways of naming a file differ in it.
    // `volumeRoot` ends in a backslash, or is empty.
    CVolumePath(const WCHAR* volumeRoot, const WCHAR* separator, const UrlText& path);

    const WCHAR* FullPath() const { return m_fullPath; }  // cut at 259 characters
    // Whether the name stands for a plain file in a folder at or below the root: no folder, no
    // link, no device, nothing when there is no root or the name is too long.
    bool IsPlainFile() const;
    // Whether an open file lies below the root, all links resolved.
    bool Holds(HANDLE file) const;

private:
    const FinalPath m_root;
    WCHAR m_fullPath[kNameUnits];
    bool m_refused;  // too long, or a name that Windows gives another meaning
};
