// The directory tree on Linux. Names are resolved by the kernel below the volume's directory
// (openat2, RESOLVE_BENEATH), so that neither `..` nor a symbolic link leads out however the tree
// changes meanwhile; kernels without that call get a walk that follows no link at all.
#include "mediaio/store/fileio_posix.h"
#include "mediaio/store/names.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace zemstore {
namespace {

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
    file = MakeStoreFile(std::move(fd), writable, {info.st_dev, info.st_ino});
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
    file = MakeStoreFile(std::move(fd), true, {info.st_dev, info.st_ino});
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

}  // namespace zemstore
