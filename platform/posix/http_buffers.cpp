// The free list of read buffers.
#include "platform/posix/http_buffers.h"

#include <cstring>
#include <mutex>
#include <new>

#include "platform/posix/http_limits.h"
#include "platform/posix/http_tuning.h"

namespace posix {
namespace {

// A free buffer's first bytes link the list; it is reachable from here, so never a leak.
struct CFreeBuffer {
    CFreeBuffer* next;
};

std::mutex g_lock;  // guards the list
CFreeBuffer* g_free = nullptr;
size_t g_free_count = 0;

char* Take() {
    if (HttpTune()->kept_buffers > 0) {
        const std::lock_guard lock(g_lock);
        if (CFreeBuffer* buffer = g_free) {
            g_free = buffer->next;
            --g_free_count;
            return reinterpret_cast<char*>(buffer);
        }
    }
    return new (std::nothrow) char[kReadBytes];
}

bool Give(char* data) {
    const std::lock_guard lock(g_lock);
    if (g_free_count >= HttpTune()->kept_buffers) return false;
    g_free = new (data) CFreeBuffer{g_free};
    ++g_free_count;
    return true;
}

}  // namespace

bool CReadBuffer::Reserve(size_t bytes, size_t keep) {
    if (bytes <= m_capacity) return true;
    const size_t capacity = bytes <= kReadBytes ? kReadBytes : bytes;
    char* data = capacity == kReadBytes ? Take() : new (std::nothrow) char[capacity];
    if (!data) return false;
    if (keep > 0) memcpy(data, m_data, keep);
    Free();
    m_data = data;
    m_capacity = static_cast<uint32_t>(capacity);
    return true;
}

void CReadBuffer::Free() {
    if (!m_data) return;
    if (m_capacity != kReadBytes || !Give(m_data)) delete[] m_data;
    m_data = nullptr;
    m_capacity = 0;
}

}  // namespace posix
