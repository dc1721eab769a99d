// Open files on Linux.
#include "mediaio/store/fileio_posix.h"

#include "mediaio/store/filepages_posix.h"
#include "mediaio/store/mediafile.h"
#include "platform/posix/views.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace zemstore {
namespace {

static_assert(CMediaFile::kLargeRecord <= kViewSentFromPages_bytes,
              "what is sent from its pages has pages of its own");

// A failed system call's number as an HRESULT; 0 is S_OK.
HRESULT HresultFromErrno(int error) {
    struct Row {
        int error;
        uint32_t code;
    };
    static constexpr Row kRows[] = {
        {0, ERROR_SUCCESS},
        {ENOENT, ERROR_FILE_NOT_FOUND},
        {ENOTDIR, ERROR_DIRECTORY},
        {EACCES, ERROR_ACCESS_DENIED},
        {EPERM, ERROR_ACCESS_DENIED},
        {EISDIR, ERROR_ACCESS_DENIED},
        {ENXIO, ERROR_ACCESS_DENIED},
        {ELOOP, ERROR_ACCESS_DENIED},
        {EXDEV, ERROR_NOT_SAME_DEVICE},
        {EROFS, ERROR_WRITE_PROTECT},
        {EEXIST, ERROR_ALREADY_EXISTS},
        {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
        {ENOSPC, ERROR_DISK_FULL},
        {EDQUOT, ERROR_DISK_FULL},
        {EFBIG, ERROR_FILE_TOO_LARGE},
        {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
        {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
        {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
        {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
        {EINVAL, ERROR_INVALID_PARAMETER},
        {ETXTBSY, ERROR_SHARING_VIOLATION},
        {EBUSY, ERROR_BUSY},
        {EIO, ERROR_IO_DEVICE},
        {ECANCELED, ERROR_OPERATION_ABORTED},
    };
    for (const Row& row : kRows)
        if (row.error == error) return HRESULT_FROM_WIN32(row.code);
    return HRESULT_FROM_WIN32(ERROR_GEN_FAILURE);
}

// Range of page-cache statistics; the call is newer than the headers of some systems.
struct CacheStatRange {
    uint64_t offset;
    uint64_t length;
};
struct CacheStat {
    uint64_t cached, dirty, writeback, evicted, recentlyEvicted;
};
constexpr long kCacheStatCall = 451;
const auto kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

// What is in the page cache the kernel tells, and tells rightly, to whom the file belongs and who
// may write it: cachestat(2), mincore(2).
bool MayAskForPages(int descriptor) {
    struct stat info;
    if (fstat(descriptor, &info) == 0 && info.st_uid == geteuid()) return true;
    char path[32];
    std::snprintf(path, sizeof(path), "/proc/self/fd/%d", descriptor);
    return faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) == 0;
}

class CPosixFile final : public IStoreFile {
public:
    CPosixFile(CDescriptor fd, bool writable, FileIdentity identity)
        : m_fd(std::move(fd)),
          m_pages(m_fd.Get()),
          m_writable(writable),
          m_identity(identity),
          m_mayAsk(MayAskForPages(m_fd.Get())) {}

    HRESULT ReadAt(void* to, size_t size_bytes, uint64_t offset_bytes, size_t& done) override {
        done = 0;
        while (done < size_bytes) {
            const ssize_t n = pread(m_fd.Get(), static_cast<char*>(to) + done, size_bytes - done,
                                    static_cast<off_t>(offset_bytes + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return LastFailure();
            if (n == 0) break;
            done += static_cast<size_t>(n);
        }
        return S_OK;
    }

    HRESULT WriteAt(const IoSpan* spans, size_t count, uint64_t offset_bytes,
                    size_t& done) override {
        done = 0;
        size_t span = 0;
        size_t within = 0;
        while (span < count) {
            iovec vector[64];
            int used = 0;
            for (size_t i = span; i < count && used < 64; ++i) {
                const size_t skip = i == span ? within : 0;
                if (spans[i].size_bytes == skip) continue;
                vector[used].iov_base =
                    const_cast<char*>(static_cast<const char*>(spans[i].data)) + skip;
                vector[used++].iov_len = spans[i].size_bytes - skip;
            }
            if (used == 0) break;
            const ssize_t n =
                pwritev(m_fd.Get(), vector, used, static_cast<off_t>(offset_bytes + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return LastFailure();
            if (n == 0) return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
            done += static_cast<size_t>(n);
            for (size_t left = static_cast<size_t>(n); span < count;) {
                const size_t room = spans[span].size_bytes - within;
                if (left < room) {
                    within += left;
                    break;
                }
                left -= room;
                within = 0;
                ++span;
            }
        }
        return S_OK;
    }

    HRESULT Sync() override { return fdatasync(m_fd.Get()) == 0 ? S_OK : LastFailure(); }

    HRESULT Size(uint64_t& size_bytes) override {
        struct stat info;
        if (fstat(m_fd.Get(), &info) != 0) return LastFailure();
        size_bytes = static_cast<uint64_t>(info.st_size);
        return S_OK;
    }

    HRESULT ModifiedTime(uint64_t& time) override {
        struct stat info;
        if (fstat(m_fd.Get(), &info) != 0) return LastFailure();
        time = static_cast<uint64_t>(info.st_mtim.tv_sec) * 1000000000u +
               static_cast<uint64_t>(info.st_mtim.tv_nsec);
        return S_OK;
    }

    HRESULT SetSize(uint64_t size_bytes) override {
        return ftruncate(m_fd.Get(), static_cast<off_t>(size_bytes)) == 0 ? S_OK : LastFailure();
    }

    bool IsBeingSent(uint64_t offset_bytes, uint64_t size_bytes) override {
        return IsFilePartInUse(m_fd.Get(), offset_bytes, size_bytes);
    }
    bool LetGo(uint64_t offset_bytes, uint64_t size_bytes) override {
        return m_pages.LetGo(offset_bytes, size_bytes);
    }
    HRESULT PunchHole(uint64_t offset_bytes, uint64_t size_bytes) override {
        if (fallocate(m_fd.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                      static_cast<off_t>(offset_bytes), static_cast<off_t>(size_bytes)) == 0) {
            return S_OK;
        }
        return errno == EOPNOTSUPP || errno == ENOSYS ? S_OK : LastFailure();
    }

    // The lock belongs to this open description, so it also tells apart two opens by one process.
    HRESULT LockForWriting() override {
        if (flock(m_fd.Get(), LOCK_EX | LOCK_NB) == 0) return S_OK;
        if (errno == EWOULDBLOCK) return HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);
        return errno == ENOLCK || errno == EOPNOTSUPP ? S_OK : LastFailure();
    }
    void UnlockForWriting() override { flock(m_fd.Get(), LOCK_UN); }
    bool Writable() const override { return m_writable; }
    FileIdentity Identity() const override { return m_identity; }

    bool Cached(uint64_t offset_bytes, size_t size_bytes) override;
    size_t ReadCached(void* to, size_t size_bytes, uint64_t offset_bytes) override {
        iovec vector{to, size_bytes};
        const ssize_t n =
            preadv2(m_fd.Get(), &vector, 1, static_cast<off_t>(offset_bytes), RWF_NOWAIT);
        return n > 0 ? static_cast<size_t>(n) : 0;
    }

    uint64_t NextData(uint64_t offset_bytes) override {
        const off_t at = lseek(m_fd.Get(), static_cast<off_t>(offset_bytes), SEEK_DATA);
        if (at >= 0) return static_cast<uint64_t>(at);
        uint64_t size = 0;
        return errno == ENXIO && SUCCEEDED(Size(size)) ? size : offset_bytes;
    }
    void DropCache() override { posix_fadvise(m_fd.Get(), 0, 0, POSIX_FADV_DONTNEED); }
    void StopReadAhead() override { posix_fadvise(m_fd.Get(), 0, 0, POSIX_FADV_RANDOM); }
    void ResumeReadAhead() override { posix_fadvise(m_fd.Get(), 0, 0, POSIX_FADV_NORMAL); }
    void* MapView(uint64_t offset_bytes, size_t size_bytes) override {
        return m_pages.MapView(offset_bytes, size_bytes);
    }
    void UnmapView(void* view) override { m_pages.UnmapView(view); }
    intptr_t Descriptor() const override { return m_fd.Get(); }

private:
    bool CachedByMap(uint64_t first, uint64_t end);
    bool CachedByProbing(uint64_t first, uint64_t end);

    CDescriptor m_fd;
    CFilePages m_pages;
    bool m_writable;
    FileIdentity m_identity;
    std::atomic<bool> m_mayAsk;
};

bool CPosixFile::Cached(uint64_t offset_bytes, size_t size_bytes) {
    static std::atomic<bool> haveCacheStat{true};
    if (size_bytes == 0) return true;
    const uint64_t first = offset_bytes / kPage * kPage;
    const uint64_t end = (offset_bytes + size_bytes + kPage - 1) / kPage * kPage;
    if (!m_mayAsk) return CachedByProbing(first, end);
    if (haveCacheStat.load(std::memory_order_relaxed)) {
        CacheStatRange range{first, end - first};
        CacheStat state{};
        if (syscall(kCacheStatCall, m_fd.Get(), &range, &state, 0) == 0)
            return state.cached * kPage >= end - first;
        m_mayAsk = MayAskForPages(m_fd.Get());  // somebody may have taken the right away meanwhile
        if (!m_mayAsk) return CachedByProbing(first, end);
        haveCacheStat.store(false, std::memory_order_relaxed);
    }
    return CachedByMap(first, end);
}

// Kernels before 6.5, and sandboxes that do not know the newer call.
bool CPosixFile::CachedByMap(uint64_t first, uint64_t end) {
    constexpr uint64_t kPages = 1024;
    const uint64_t kStep = kPages * kPage;
    unsigned char there[kPages];
    for (; first < end; first += kStep) {
        const auto size_bytes = static_cast<size_t>(std::min(kStep, end - first));
        void* const pages =
            mmap(nullptr, size_bytes, PROT_READ, MAP_SHARED, m_fd.Get(), static_cast<off_t>(first));
        if (pages == MAP_FAILED) return CachedByProbing(first, end);
        const bool told = mincore(pages, size_bytes, there) == 0;
        munmap(pages, size_bytes);
        if (!told) return CachedByProbing(first, end);
        if (!std::all_of(there, there + size_bytes / kPage, [](int page) { return page & 1; }))
            return false;
    }
    return true;
}

// A byte of every page, each read only if that needs no waiting: a call for each.
bool CPosixFile::CachedByProbing(uint64_t first, uint64_t end) {
    for (uint64_t at = first; at < end; at += kPage) {
        char byte;
        if (ReadCached(&byte, 1, at) != 1) return false;
    }
    return true;
}

}  // namespace

HRESULT LastFailure() {
    return HresultFromErrno(errno);
}

std::unique_ptr<IStoreFile> MakeStoreFile(CDescriptor fd, bool writable,
                                          const FileIdentity& identity) {
    return std::make_unique<CPosixFile>(std::move(fd), writable, identity);
}

HRESULT RandomBytes(void* to, size_t size_bytes) {
    return getentropy(to, size_bytes) == 0 ? S_OK : LastFailure();
}

bool EnvironmentFlag(const char* name) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0';
}

}  // namespace zemstore
