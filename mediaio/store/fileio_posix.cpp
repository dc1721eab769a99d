// The file-I/O seam on Linux. Names are resolved by the kernel below the volume's directory
// (openat2, RESOLVE_BENEATH), so that neither `..` nor a symbolic link leads out however the tree
// changes meanwhile; kernels without that call get a walk that follows no link at all.
#include "mediaio/store/fileio.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/posix/views.h"

namespace zemstore {
namespace {

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

HRESULT LastFailure() {
    return HresultFromErrno(errno);
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
constexpr uint64_t kPage = 4096;

class CPosixFile final : public IStoreFile {
public:
    CPosixFile(CDescriptor fd, bool writable, FileIdentity identity)
        : m_fd(std::move(fd)), m_writable(writable), m_identity(identity) {}

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

    HRESULT PunchHole(uint64_t offset_bytes, uint64_t size_bytes) override {
        if (fallocate(m_fd.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                      static_cast<off_t>(offset_bytes), static_cast<off_t>(size_bytes)) == 0)
            return S_OK;
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
    void* MapView(uint64_t offset_bytes, size_t size_bytes) override {
        return MapFileView(m_fd.Get(), offset_bytes, size_bytes);
    }
    void UnmapView(void* view) override { UnmapFileView(view); }
    intptr_t Descriptor() const override { return m_fd.Get(); }

private:
    bool CachedByProbing(uint64_t first, uint64_t end);

    CDescriptor m_fd;
    bool m_writable;
    FileIdentity m_identity;
};

bool CPosixFile::Cached(uint64_t offset_bytes, size_t size_bytes) {
    static std::atomic<bool> haveCacheStat{true};
    if (size_bytes == 0) return true;
    const uint64_t first = offset_bytes / kPage * kPage;
    const uint64_t end = (offset_bytes + size_bytes + kPage - 1) / kPage * kPage;
    if (haveCacheStat.load(std::memory_order_relaxed)) {
        CacheStatRange range{first, end - first};
        CacheStat state{};
        if (syscall(kCacheStatCall, m_fd.Get(), &range, &state, 0) == 0)
            return state.cached * kPage >= end - first;
        haveCacheStat.store(false, std::memory_order_relaxed);
    }
    return CachedByProbing(first, end);
}

// Older kernels: a byte of every page, each read only if that needs no waiting.
bool CPosixFile::CachedByProbing(uint64_t first, uint64_t end) {
    for (uint64_t at = first; at < end; at += kPage) {
        char byte;
        if (ReadCached(&byte, 1, at) != 1) return false;
    }
    return true;
}

std::string ParentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}
std::string LeafOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

class CPosixVolume final : public IVolume {
public:
    explicit CPosixVolume(CDescriptor root) : m_root(std::move(root)) {}

    HRESULT Open(const std::string& path, OpenFor mode, std::unique_ptr<IStoreFile>& file) override;
    HRESULT CreateUnpublished(const std::string& path, std::unique_ptr<IStoreFile>& file,
                              std::string& temporary) override;
    HRESULT Publish(const std::string& temporary, const std::string& path, bool replace) override;
    void Discard(const std::string& temporary) override;
    HRESULT SyncDirectoryOf(const std::string& path) override;
    HRESULT Delete(const std::string& path) override;
    HRESULT Move(const std::string& from, const std::string& to) override;
    HRESULT MakeDirectory(const std::string& path) override;
    HRESULT Attributes(const std::string& path, DWORD& attributes) override;
    HRESULT FileSize(const std::string& path, uint64_t& size_bytes) override;
    HRESULT Identity(const std::string& path, FileIdentity& identity) override;
    HRESULT Space(const std::string& path, uint64_t& total_bytes, uint64_t& free_bytes) override;

private:
    HRESULT OpenBeneath(const std::string& path, int flags, CDescriptor& fd) const;
    HRESULT OpenByWalking(const std::string& path, int flags, CDescriptor& fd) const;
    HRESULT OpenDirectory(const std::string& path, CDescriptor& fd) const;
    HRESULT MakeDirectories(const std::string& path, CDescriptor& fd) const;
    HRESULT StatOf(const std::string& path, struct stat& info) const;

    CDescriptor m_root;
};

HRESULT CPosixVolume::OpenBeneath(const std::string& path, int flags, CDescriptor& fd) const {
    static std::atomic<bool> haveOpenat2{true};
    if (!haveOpenat2.load(std::memory_order_relaxed)) return OpenByWalking(path, flags, fd);
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const char* name = path.empty() ? "." : path.c_str();
    for (int attempt = 0; attempt < 100; ++attempt) {
        const long n = syscall(SYS_openat2, m_root.Get(), name, &how, sizeof how);
        if (n >= 0) {
            fd = CDescriptor(static_cast<int>(n));
            return S_OK;
        }
        if (errno == ENOSYS) {
            haveOpenat2.store(false, std::memory_order_relaxed);
            return OpenByWalking(path, flags, fd);
        }
        // Something in the path was renamed while the kernel walked it.
        if (errno != EAGAIN && errno != EINTR) break;
    }
    if (errno == EXDEV || errno == ELOOP) return E_ACCESSDENIED;
    return LastFailure();
}

HRESULT CPosixVolume::OpenByWalking(const std::string& path, int flags, CDescriptor& fd) const {
    CDescriptor at(openat(m_root.Get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (size_t begin = 0; at.Valid();) {
        const size_t slash = path.find('/', begin);
        const std::string part = path.substr(begin, slash - begin);
        const bool last = slash == std::string::npos;
        const int how = last ? flags : O_PATH | O_DIRECTORY;
        at = CDescriptor(
            openat(at.Get(), part.empty() ? "." : part.c_str(), how | O_NOFOLLOW | O_CLOEXEC));
        if (last) break;
        begin = slash + 1;
    }
    if (!at.Valid()) return errno == ELOOP ? E_ACCESSDENIED : LastFailure();
    fd = std::move(at);
    return S_OK;
}

HRESULT CPosixVolume::OpenDirectory(const std::string& path, CDescriptor& fd) const {
    const HRESULT hr = OpenBeneath(path, O_RDONLY | O_DIRECTORY, fd);
    const bool missing =
        hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) || hr == HRESULT_FROM_WIN32(ERROR_DIRECTORY);
    return missing ? HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND) : hr;
}

HRESULT CPosixVolume::Open(const std::string& path, OpenFor mode,
                           std::unique_ptr<IStoreFile>& file) {
    CDescriptor fd;
    bool writable = mode != OpenFor::kRead;
    // Non-blocking, so that a FIFO or device in the tree cannot hold a worker.
    HRESULT hr = OpenBeneath(path, (writable ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_NOCTTY, fd);
    if (FAILED(hr) && mode == OpenFor::kReadIfPossibleWrite &&
        (hr == E_ACCESSDENIED || hr == HRESULT_FROM_WIN32(ERROR_WRITE_PROTECT))) {
        writable = false;
        hr = OpenBeneath(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, fd);
    }
    if (FAILED(hr)) return hr;
    struct stat info;
    if (fstat(fd.Get(), &info) != 0) return LastFailure();
    if (!S_ISREG(info.st_mode)) return E_ACCESSDENIED;
    file = std::make_unique<CPosixFile>(std::move(fd), writable,
                                        FileIdentity{info.st_dev, info.st_ino});
    return S_OK;
}

HRESULT CPosixVolume::MakeDirectories(const std::string& path, CDescriptor& fd) const {
    HRESULT hr = OpenDirectory(path, fd);
    if (hr != HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND) || path.empty()) return hr;
    CDescriptor parent;
    hr = MakeDirectories(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    if (mkdirat(parent.Get(), LeafOf(path).c_str(), 0777) != 0 && errno != EEXIST)
        return LastFailure();
    if (fsync(parent.Get()) != 0) return LastFailure();
    return OpenDirectory(path, fd);
}

HRESULT CPosixVolume::CreateUnpublished(const std::string& path, std::unique_ptr<IStoreFile>& file,
                                        std::string& temporary) {
    CDescriptor parent;
    HRESULT hr = MakeDirectories(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    uint64_t unique = 0;
    hr = RandomBytes(&unique, sizeof unique);
    if (FAILED(hr)) return hr;
    char leaf[40];
    snprintf(leaf, sizeof leaf, ".zem-%016llx.new", static_cast<unsigned long long>(unique));
    CDescriptor fd(
        openat(parent.Get(), leaf, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd.Valid()) return LastFailure();
    struct stat info;
    if (fstat(fd.Get(), &info) != 0) return LastFailure();
    const std::string directory = ParentOf(path);
    temporary = directory.empty() ? leaf : directory + "/" + leaf;
    file =
        std::make_unique<CPosixFile>(std::move(fd), true, FileIdentity{info.st_dev, info.st_ino});
    return S_OK;
}

HRESULT CPosixVolume::Publish(const std::string& temporary, const std::string& path, bool replace) {
    CDescriptor parent;
    HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    const std::string from = LeafOf(temporary);
    const std::string to = LeafOf(path);
    struct stat info;
    const bool exists = fstatat(parent.Get(), to.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !S_ISREG(info.st_mode)) {
        hr = E_ACCESSDENIED;
    } else if (replace) {
        hr = renameat(parent.Get(), from.c_str(), parent.Get(), to.c_str()) == 0 ? S_OK
                                                                                 : LastFailure();
    } else {
        // Not every file system renames without replacing; every one links without replacing.
        hr = linkat(parent.Get(), from.c_str(), parent.Get(), to.c_str(), 0) == 0 ? S_OK
                                                                                  : LastFailure();
        unlinkat(parent.Get(), from.c_str(), 0);
    }
    if (FAILED(hr)) unlinkat(parent.Get(), from.c_str(), 0);
    return hr == HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS) ? HRESULT_FROM_WIN32(ERROR_FILE_EXISTS)
                                                          : hr;
}

void CPosixVolume::Discard(const std::string& temporary) {
    CDescriptor parent;
    if (SUCCEEDED(OpenDirectory(ParentOf(temporary), parent)))
        unlinkat(parent.Get(), LeafOf(temporary).c_str(), 0);
}

HRESULT CPosixVolume::SyncDirectoryOf(const std::string& path) {
    CDescriptor parent;
    const HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    return fsync(parent.Get()) == 0 ? S_OK : LastFailure();
}

HRESULT CPosixVolume::Delete(const std::string& path) {
    CDescriptor parent;
    const HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    const std::string leaf = LeafOf(path);
    struct stat info;
    if (fstatat(parent.Get(), leaf.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return LastFailure();
    if (!S_ISREG(info.st_mode)) return E_ACCESSDENIED;
    if (unlinkat(parent.Get(), leaf.c_str(), 0) != 0) return LastFailure();
    return fsync(parent.Get()) == 0 ? S_OK : LastFailure();
}

HRESULT CPosixVolume::Move(const std::string& from, const std::string& to) {
    CDescriptor source;
    CDescriptor target;
    HRESULT hr = OpenDirectory(ParentOf(from), source);
    if (SUCCEEDED(hr)) hr = OpenDirectory(ParentOf(to), target);
    if (FAILED(hr)) return hr;
    const std::string fromLeaf = LeafOf(from);
    const std::string toLeaf = LeafOf(to);
    struct stat info;
    if (fstatat(source.Get(), fromLeaf.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return LastFailure();
    if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) return E_ACCESSDENIED;
    if (renameat2(source.Get(), fromLeaf.c_str(), target.Get(), toLeaf.c_str(), RENAME_NOREPLACE) !=
        0) {
        const bool unsupported = errno == EINVAL || errno == ENOSYS;
        if (!unsupported || !S_ISREG(info.st_mode)) return LastFailure();
        if (linkat(source.Get(), fromLeaf.c_str(), target.Get(), toLeaf.c_str(), 0) != 0)
            return LastFailure();
        if (unlinkat(source.Get(), fromLeaf.c_str(), 0) != 0) return LastFailure();
    }
    if (fsync(target.Get()) != 0 || fsync(source.Get()) != 0) return LastFailure();
    return S_OK;
}

HRESULT CPosixVolume::MakeDirectory(const std::string& path) {
    CDescriptor parent;
    const HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    if (mkdirat(parent.Get(), LeafOf(path).c_str(), 0777) != 0) return LastFailure();
    return fsync(parent.Get()) == 0 ? S_OK : LastFailure();
}

HRESULT CPosixVolume::StatOf(const std::string& path, struct stat& info) const {
    CDescriptor fd;
    const HRESULT hr = OpenBeneath(path, O_PATH, fd);
    if (FAILED(hr)) return hr;
    if (fstat(fd.Get(), &info) != 0) return LastFailure();
    return S_ISREG(info.st_mode) || S_ISDIR(info.st_mode) ? S_OK : E_ACCESSDENIED;
}

HRESULT CPosixVolume::Attributes(const std::string& path, DWORD& attributes) {
    struct stat info;
    const HRESULT hr = StatOf(path, info);
    if (FAILED(hr)) return hr;
    DWORD bits = S_ISDIR(info.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : 0;
    if ((info.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) bits |= FILE_ATTRIBUTE_READONLY;
    attributes = bits != 0 ? bits : FILE_ATTRIBUTE_NORMAL;
    return S_OK;
}

HRESULT CPosixVolume::FileSize(const std::string& path, uint64_t& size_bytes) {
    struct stat info;
    const HRESULT hr = StatOf(path, info);
    if (FAILED(hr)) return hr;
    if (S_ISDIR(info.st_mode)) return E_ACCESSDENIED;
    size_bytes = static_cast<uint64_t>(info.st_size);
    return S_OK;
}

HRESULT CPosixVolume::Identity(const std::string& path, FileIdentity& identity) {
    struct stat info;
    const HRESULT hr = StatOf(path, info);
    if (FAILED(hr)) return hr;
    identity = {info.st_dev, info.st_ino};
    return S_OK;
}

HRESULT CPosixVolume::Space(const std::string& path, uint64_t& total_bytes, uint64_t& free_bytes) {
    CDescriptor fd;
    const HRESULT hr = OpenBeneath(path, O_PATH, fd);
    if (FAILED(hr)) return hr;
    struct statvfs space;
    if (fstatvfs(fd.Get(), &space) != 0) return LastFailure();
    total_bytes = static_cast<uint64_t>(space.f_blocks) * space.f_frsize;
    free_bytes = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    return S_OK;
}

}  // namespace

HRESULT OpenVolume(const std::string& root, std::shared_ptr<IVolume>& volume) {
    CDescriptor fd(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd.Valid()) {
        const bool missing = errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG;
        return missing ? HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND) : LastFailure();
    }
    volume = std::make_shared<CPosixVolume>(std::move(fd));
    return S_OK;
}

HRESULT RandomBytes(void* to, size_t size_bytes) {
    return getentropy(to, size_bytes) == 0 ? S_OK : LastFailure();
}

bool EnvironmentFlag(const char* name) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0';
}

}  // namespace zemstore
