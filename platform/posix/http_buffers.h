// Read buffers of connections that hold bytes back. Idle connections have none: a worker reads into
// its stack. The usual size is kept in a free list; others come from the heap. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace posix {

class CReadBuffer {
public:
    CReadBuffer() = default;
    CReadBuffer(const CReadBuffer&) = delete;
    CReadBuffer& operator=(const CReadBuffer&) = delete;
    ~CReadBuffer() { Free(); }

    char* Data() { return m_data; }
    const char* Data() const { return m_data; }
    size_t Capacity() const { return m_capacity; }
    explicit operator bool() const { return m_data != nullptr; }

    // At least `bytes` of room; what the buffer held up to `keep` stays. False: no memory.
    bool Reserve(size_t bytes, size_t keep);
    void Free();

private:
    char* m_data = nullptr;
    uint32_t m_capacity = 0;
};

}  // namespace posix
