// Pages of files on Linux. See filepages_posix.h.
#include "mediaio/store/filepages_posix.h"

#include "platform/posix/views.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <new>

namespace zemstore {
namespace {

const auto kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
// No piece is larger than what one table of pages maps, or 2048 pages.
const uint64_t kLargestPiece = kPage * std::min<uint64_t>(kPage / sizeof(uint64_t), 2048);
// From the neighbours' pieces to the largest in three steps.
constexpr uint64_t kBlockStep = 16;
constexpr size_t kPagesAtAnEdge = 2;

uint64_t RoundDown(uint64_t offset_bytes, uint64_t unit) {
    return offset_bytes / unit * unit;
}

// Memory is all that such a file lies in.
bool StaysInMemory(int descriptor) {
    struct statfs info;
    return fstatfs(descriptor, &info) == 0 && info.f_type == TMPFS_MAGIC;
}

bool HasLargePieces(int descriptor) {
    struct stat info;
    return fstat(descriptor, &info) == 0 && static_cast<uint64_t>(info.st_blksize) > kPage;
}

}  // namespace

// Where pieces are large and none can be let go of, frames are read and copied instead.
void* CFilePages::MapView(uint64_t offset_bytes, size_t size_bytes) {
    if (StaysInMemory(m_descriptor) && HasLargePieces(m_descriptor)) return nullptr;
    const std::lock_guard hold(m_lock);
    try {
        m_views.reserve(m_views.size() + 1);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    void* const view = MapFileView(m_descriptor, offset_bytes, size_bytes);
    if (view != nullptr) m_views.push_back({static_cast<char*>(view), offset_bytes, size_bytes});
    return view;
}

void CFilePages::UnmapView(void* view) {
    const std::lock_guard hold(m_lock);
    std::erase_if(m_views, [view](const View& known) { return known.start == view; });
    UnmapFileView(view);
}

bool CFilePages::LetGo(uint64_t offset_bytes, uint64_t size_bytes) {
    if (size_bytes < kViewSentFromPages_bytes || StaysInMemory(m_descriptor)) return true;
    Forget(offset_bytes, size_bytes);
    return EdgeIsFree(offset_bytes) && EdgeIsFree(offset_bytes + size_bytes);
}

// Asks the system to let those pieces go that lie in the range as a whole. It keeps what is mapped,
// sent, or not on the device yet.
void CFilePages::Forget(uint64_t offset_bytes, uint64_t size_bytes) {
    const uint64_t first = RoundDown(offset_bytes, kPage);
    const uint64_t end = offset_bytes + size_bytes;
    {
        const std::lock_guard hold(m_lock);
        for (const View& view : m_views) {
            const uint64_t from = std::max(first, view.offset_bytes);
            const uint64_t to = std::min(end, view.offset_bytes + view.size_bytes);
            if (from < to)
                madvise(view.start + (from - view.offset_bytes), to - from, MADV_DONTNEED);
        }
    }
    posix_fadvise(m_descriptor, static_cast<off_t>(offset_bytes), static_cast<off_t>(size_bytes),
                  POSIX_FADV_DONTNEED);
}

// Whole pages, two at most. True also when there is no telling.
bool CFilePages::InMemory(uint64_t offset_bytes, size_t size_bytes) {
    unsigned char there[kPagesAtAnEdge] = {1, 1};
    void* const pages = mmap(nullptr, size_bytes, PROT_READ, MAP_SHARED, m_descriptor,
                             static_cast<off_t>(offset_bytes));
    if (pages == MAP_FAILED) return true;
    mincore(pages, size_bytes, there);
    munmap(pages, size_bytes);
    return (there[0] & there[1] & 1) != 0;
}

// Whether both pages, or the one page, at the edge of a range are in memory. If not, no piece holds
// both.
bool CFilePages::MayReachAcross(uint64_t edge_bytes) {
    const uint64_t first = RoundDown(edge_bytes - 1, kPage);
    return InMemory(first, static_cast<size_t>(RoundDown(edge_bytes, kPage) + kPage - first));
}

// A piece begins at a multiple of its size. So those that end at the edge are not larger than the
// edge is a multiple of; one that reaches across is larger, and lies in the block of its size.
// What has been let go of across an edge comes back only in pieces that no socket has.
bool CFilePages::EdgeIsFree(uint64_t edge_bytes) {
    if (edge_bytes % kLargestPiece == 0) return true;
    uint64_t block = 2 * std::max(edge_bytes & -edge_bytes, kPage);
    for (; MayReachAcross(edge_bytes); block = std::min(kBlockStep * block, kLargestPiece)) {
        Forget(RoundDown(edge_bytes, block), block);
        if (block == kLargestPiece) return !MayReachAcross(edge_bytes);
    }
    return true;
}

}  // namespace zemstore
