// The list of file parts in use. See fileparts.h.
#include "platform/posix/fileparts.h"

#include <sys/stat.h>

#include <atomic>
#include <mutex>

#include "platform/posix/nodelist.h"
#include "platform/posix/views.h"

namespace posix {
namespace {

std::mutex g_lock;  // guards the list
CNodeList<CFilePartUse> g_parts;
std::atomic<uint32_t> g_count{0};

}  // namespace

bool CFilePartUse::Begin(int descriptor, uint64_t offset_bytes, uint64_t length) {
    struct stat info;
    if (fstat(descriptor, &info) != 0) return false;
    device = info.st_dev;
    inode = info.st_ino;
    begin = offset_bytes;
    end = offset_bytes + length;
    const std::lock_guard guard(g_lock);
    g_parts.Append(this);
    g_count.fetch_add(1);
    return m_held = true;
}

CFilePartUse::~CFilePartUse() {
    if (!m_held) return;
    const std::lock_guard guard(g_lock);
    g_parts.Remove(this);
    g_count.fetch_sub(1);
}

}  // namespace posix

using namespace posix;

// Who holds a part began before the bytes could die, so a part that is missed here is none of them.
bool IsFilePartInUse(int descriptor, uint64_t offset_bytes, uint64_t length) {
    if (g_count.load() == 0) return false;
    struct stat info;
    if (fstat(descriptor, &info) != 0) return false;
    const std::lock_guard guard(g_lock);
    for (const CFilePartUse* part = g_parts.First(); part; part = part->after) {
        const bool same = part->device == info.st_dev && part->inode == info.st_ino;
        if (same && part->begin < offset_bytes + length && offset_bytes < part->end) return true;
    }
    return false;
}
