// The two halves of the file-I/O seam on Windows, to each other: open files (fileio_windows.cpp)
// and the directory tree (volume_windows.cpp). Any thread.
#pragma once

#include "mediaio/store/fileio.h"

#include <winternl.h>

#include <utility>

namespace zemstore {

// A handle that closes itself; null: none.
class CHandle {
public:
    explicit CHandle(HANDLE handle = nullptr) : m_handle(handle) {}
    CHandle(CHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    CHandle& operator=(CHandle&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;
    ~CHandle() {
        if (m_handle != nullptr) CloseHandle(m_handle);
    }
    HANDLE Get() const { return m_handle; }

private:
    HANDLE m_handle;
};

// The result of the system call that failed last on this thread; never a success.
HRESULT LastFailure();
HRESULT FromStatus(NTSTATUS status);
// Whether a call failed because the file system, or the system, does not have it.
bool NotSupported(DWORD error);

// Takes over the handle of a file that was opened for overlapped I/O.
std::unique_ptr<IStoreFile> MakeStoreFile(CHandle file, bool writable,
                                          const FileIdentity& identity);

}  // namespace zemstore
