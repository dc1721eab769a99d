// The parts in use, in order. See fileparts.h.
#include "platform/posix/fileparts.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <tuple>

#include "platform/posix/views.h"

namespace posix {
namespace {

std::mutex g_lock;  // guards the parts and the longest
// By their file and where they end.
std::set<std::tuple<dev_t, ino_t, uint64_t, const CFilePartUse*>> g_parts;
uint64_t g_longest = 0;  // of them, and of those that went since there was none
std::atomic<uint32_t> g_count{0};

}  // namespace

bool CFilePartUse::Begin(int descriptor, uint64_t offset_bytes, uint64_t length) {
    struct stat info;
    if (fstat(descriptor, &info) != 0) return false;
    m_device = info.st_dev;
    m_inode = info.st_ino;
    m_begin = offset_bytes;
    m_end = offset_bytes + length;
    const std::lock_guard guard(g_lock);
    g_parts.emplace(m_device, m_inode, m_end, this);
    g_longest = std::max(g_longest, length);
    g_count.fetch_add(1);
    return m_held = true;
}

CFilePartUse::~CFilePartUse() {
    if (!m_held) return;
    const std::lock_guard guard(g_lock);
    g_parts.erase({m_device, m_inode, m_end, this});
    if (g_parts.empty()) g_longest = 0;
    g_count.fetch_sub(1);
}

}  // namespace posix

using namespace posix;

// Who holds a part began before the bytes could die, so a part that is missed here is none of them.
bool IsFilePartInUse(int descriptor, uint64_t offset_bytes, uint64_t length) {
    if (g_count.load() == 0) return false;
    struct stat info;
    if (fstat(descriptor, &info) != 0) return false;
    const uint64_t range_end = offset_bytes + length;
    const std::lock_guard guard(g_lock);
    for (auto at = g_parts.lower_bound({info.st_dev, info.st_ino, offset_bytes + 1, nullptr});
         at != g_parts.end(); ++at) {
        const auto& [device, inode, end, part] = *at;
        // From the longest's length behind the range on none begins in it any more.
        const bool may =
            device == info.st_dev && inode == info.st_ino && end < range_end + g_longest;
        if (!may) return false;
        if (part->BeginsAt() < range_end) return true;
    }
    return false;
}
