// The two halves of the file-I/O seam on Linux, to each other: open files (fileio_posix.cpp) and
// the directory tree (volume_posix.cpp). Any thread.
#pragma once

#include "mediaio/store/fileio.h"

#include <unistd.h>

namespace zemstore {

// A descriptor that closes itself; -1: none.
class CDescriptor {
public:
    explicit CDescriptor(int fd = -1) : m_fd(fd) {}
    CDescriptor(CDescriptor&& other) noexcept : m_fd(other.Release()) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            m_fd = other.Release();
        }
        return *this;
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;
    ~CDescriptor() { Close(); }
    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    void Close() {
        if (m_fd >= 0) close(m_fd);
    }
    int m_fd;
};

// The result of the system call that failed last on this thread, by errno; 0 is S_OK.
HRESULT LastFailure();

// Takes over the descriptor of a regular file.
std::unique_ptr<IStoreFile> MakeStoreFile(CDescriptor fd, bool writable,
                                          const FileIdentity& identity);

}  // namespace zemstore
