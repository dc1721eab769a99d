// Memory for gathered bodies: mappings, so that it goes back to the system with each of them.
#include "platform/posix/http_gathered.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "platform/posix/http_tuning.h"

namespace posix {
namespace {

std::atomic<uint64_t> g_held{0};

bool Reserve(uint64_t bytes, uint64_t bound) {
    uint64_t held = g_held.load();
    do {
        if (held > bound || bytes > bound - held) return false;
    } while (!g_held.compare_exchange_weak(held, held + bytes));
    return true;
}

}  // namespace

uint64_t CGatheredBody::BoundOf(EUpload kind) {
    const uint64_t all = HttpTune()->gathered_bytes;
    return kind == kSmallUpload ? all : all - all / 4;
}

uint64_t CGatheredBody::BytesHeld() {
    return g_held.load();
}

std::unique_ptr<CGatheredBody> CGatheredBody::Make(uint64_t room_bytes) {
    std::unique_ptr<CGatheredBody> body(new (std::nothrow) CGatheredBody());
    if (!body || !body->Grow(room_bytes)) return nullptr;
    return body;
}

CGatheredBody::~CGatheredBody() {
    if (m_data) munmap(m_data, m_room);
    g_held.fetch_sub(m_room);
}

bool CGatheredBody::Grow(uint64_t room_bytes) {
    const uint64_t more = room_bytes - m_room;
    if (!Reserve(more, BoundOf(UploadOf(room_bytes)))) return false;
    void* const data = m_data ? mremap(m_data, m_room, room_bytes, MREMAP_MAYMOVE)
                              : mmap(nullptr, room_bytes, PROT_READ | PROT_WRITE,
                                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data == MAP_FAILED) {
        g_held.fetch_sub(more);
        return false;
    }
    m_data = static_cast<char*>(data);
    m_room = room_bytes;
    return true;
}

size_t CGatheredBody::Take(char* to, size_t size) {
    const size_t n = std::min<uint64_t>(size, m_end - m_begin);
    memcpy(to, m_data + m_begin, n);
    m_begin += n;
    return n;
}

}  // namespace posix

uint64_t HttpTuneGatheredBytes() noexcept {
    return posix::CGatheredBody::BytesHeld();
}
