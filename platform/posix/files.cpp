// Files by name and handle. Any thread; the kernel does the locking.
#include "platform/posix/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>

#include "platform/posix/filesinternal.h"
#include "platform/posix/object.h"
#include "platform/posix/text.h"
#include "platform/posix/utf.h"

namespace posix {
namespace {

struct CErrorPair {
    int error;
    DWORD win32;
};

constexpr CErrorPair kErrors[] = {
    {EACCES, ERROR_ACCESS_DENIED},
    {EAGAIN, ERROR_NO_SYSTEM_RESOURCES},
    {EBADF, ERROR_INVALID_HANDLE},
    {EBUSY, ERROR_BUSY},
    {ECONNABORTED, ERROR_CONNECTION_ABORTED},
    {ECONNREFUSED, ERROR_CONNECTION_REFUSED},
    {ECONNRESET, ERROR_NETNAME_DELETED},
    {EDQUOT, ERROR_DISK_FULL},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {EFAULT, ERROR_INVALID_ADDRESS},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {EIO, ERROR_IO_DEVICE},
    {EISDIR, ERROR_ACCESS_DENIED},
    {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {EMLINK, ERROR_TOO_MANY_LINKS},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {ENFILE, ERROR_NO_SYSTEM_RESOURCES},
    {ENODEV, ERROR_DEV_NOT_EXIST},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {ENOSPC, ERROR_DISK_FULL},
    {ENOSYS, ERROR_CALL_NOT_IMPLEMENTED},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {ENXIO, ERROR_ACCESS_DENIED},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
    {EPERM, ERROR_ACCESS_DENIED},
    {EPIPE, ERROR_BROKEN_PIPE},
    {EROFS, ERROR_WRITE_PROTECT},
    {ETIMEDOUT, ERROR_SEM_TIMEOUT},
    {ETXTBSY, ERROR_SHARING_VIOLATION},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
};

class CFile final : public CObject {
public:
    static constexpr ObjectKind kKind = ObjectKind::File;
    explicit CFile(int descriptor) : CObject(kKind), m_descriptor(descriptor) {}
    // One to be deleted: what it is called in which folder. Either may not be there.
    CFile(const char* folder, const char* leaf)
        : CObject(kKind),
          m_folder(open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC)),
          m_leaf(leaf),
          m_descriptor(m_folder < 0 ? -1
                                    : openat(m_folder, leaf, O_PATH | O_NOFOLLOW | O_CLOEXEC)) {}
    ~CFile() override {
        if (m_descriptor >= 0) close(m_descriptor);
        if (m_folder >= 0) close(m_folder);
    }
    int Descriptor() const { return m_descriptor; }
    int Folder() const { return m_folder; }
    const char* Leaf() const { return m_leaf.c_str(); }

private:
    const int m_folder = -1;
    const std::string m_leaf;
    const int m_descriptor;
};

bool Fail(DWORD error) {
    SetLastError(error);
    return false;
}

// A missing name is told apart from a missing folder, as on Windows.
bool FailErrno(const char* path, int error) {
    if (error == ENOENT) {
        CNativeName folder;
        std::strcpy(folder.path, path);
        char* slash = std::strrchr(folder.path, '/');
        struct stat status;
        if (slash && slash != folder.path) {
            *slash = 0;
            if (stat(folder.path, &status) != 0 || !S_ISDIR(status.st_mode))
                return Fail(ERROR_PATH_NOT_FOUND);
        }
    }
    return Fail(ErrorFromErrno(error));
}

// What is under the name may be opened: a regular file, or a folder where that is wanted. Looked at
// before the open too, because opening a device can have effects of its own.
bool KindAllowed(mode_t mode, DWORD flags) {
    return S_ISREG(mode) || (S_ISDIR(mode) && (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0);
}

constexpr DWORD kKnownFlags = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN |
                              FILE_FLAG_RANDOM_ACCESS | FILE_FLAG_BACKUP_SEMANTICS |
                              FILE_FLAG_OPEN_REPARSE_POINT;
constexpr DWORD kKnownShares = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

DWORD CheckOpen(DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes, DWORD disposition,
                DWORD flags, HANDLE template_file) {
    if (attributes) return ERROR_NOT_SUPPORTED;
    if (access == DELETE) {
        const bool known = disposition == OPEN_EXISTING && flags == FILE_FLAG_OPEN_REPARSE_POINT &&
                           (share & ~kKnownShares) == 0 && !template_file;
        return known ? 0 : ERROR_INVALID_PARAMETER;
    }
    if ((access & ~(GENERIC_READ | GENERIC_WRITE)) != 0 || (share & ~kKnownShares) != 0 ||
        template_file || (flags & ~kKnownFlags) != 0 || disposition < CREATE_NEW ||
        disposition > TRUNCATE_EXISTING) {
        return ERROR_INVALID_PARAMETER;
    }
    const bool writes = (access & GENERIC_WRITE) != 0;
    if (disposition == TRUNCATE_EXISTING && !writes) return ERROR_INVALID_PARAMETER;
    if ((flags & FILE_FLAG_BACKUP_SEMANTICS) != 0 && (writes || disposition != OPEN_EXISTING))
        return ERROR_INVALID_PARAMETER;
    return 0;
}

int OpenFlags(DWORD access, DWORD disposition, DWORD flags) {
    constexpr int kDisposition[] = {0, O_CREAT | O_EXCL, O_CREAT | O_TRUNC, 0, O_CREAT, O_TRUNC};
    int result = O_CLOEXEC | O_NONBLOCK | O_NOCTTY | kDisposition[disposition];
    if ((access & GENERIC_WRITE) == 0) {
        result |= O_RDONLY;
    } else {
        result |= (access & GENERIC_READ) != 0 ? O_RDWR : O_WRONLY;
    }
    if ((flags & FILE_FLAG_OPEN_REPARSE_POINT) != 0) result |= O_NOFOLLOW;
    return result;
}

HANDLE OpenNative(const char* path, DWORD access, DWORD disposition, DWORD flags) {
    struct stat status;
    const bool existed = stat(path, &status) == 0;
    if (existed && disposition == CREATE_NEW) return Fail(ERROR_FILE_EXISTS), INVALID_HANDLE_VALUE;
    if (existed && !KindAllowed(status.st_mode, flags))
        return Fail(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    const int descriptor = open(path, OpenFlags(access, disposition, flags), 0666);
    if (descriptor < 0) {
        // A link that is not to be followed; one that leads nowhere or in a circle has failed
        // above.
        if (errno == ELOOP && existed) {
            SetLastError(ERROR_ACCESS_DENIED);
        } else if (errno == EEXIST) {
            SetLastError(ERROR_FILE_EXISTS);
        } else {
            FailErrno(path, errno);
        }
        return INVALID_HANDLE_VALUE;
    }
    if (fstat(descriptor, &status) != 0 || !KindAllowed(status.st_mode, flags)) {
        close(descriptor);
        return Fail(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    }
    if ((flags & FILE_FLAG_SEQUENTIAL_SCAN) != 0)
        posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    if ((flags & FILE_FLAG_RANDOM_ACCESS) != 0) posix_fadvise(descriptor, 0, 0, POSIX_FADV_RANDOM);
    const HANDLE handle = OpenHandle(new CFile(descriptor));
    if (!handle) return INVALID_HANDLE_VALUE;
    if (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
        SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

bool IsReadOnly(const struct stat& status) {
    return (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

// The folder is held, so that it is the one in which the file was found whose entry goes, whatever
// becomes of the name that led there.
HANDLE OpenToDelete(const CNativeName& name) {
    CNativeName folder = name;
    char* slash = std::strrchr(folder.path, '/');
    const char* leaf = slash ? name.path + (slash + 1 - folder.path) : name.path;
    if (!slash)
        std::strcpy(folder.path, ".");
    else
        slash[slash == folder.path ? 1 : 0] = 0;  // the root keeps its own
    auto* file = new CFile(folder.path, leaf);
    struct stat status;
    if (file->Descriptor() >= 0 && fstat(file->Descriptor(), &status) == 0 &&
        S_ISREG(status.st_mode)) {
        const HANDLE handle = OpenHandle(file);
        return handle ? handle : INVALID_HANDLE_VALUE;
    }
    if (file->Descriptor() >= 0) {
        SetLastError(ERROR_ACCESS_DENIED);
    } else {
        FailErrno(name.path, errno);
    }
    file->Release();
    return INVALID_HANDLE_VALUE;
}

// One read or write; `offset` null means at the file's own position.
template <class Plain, class Positioned>
BOOL Move(HANDLE file, LPDWORD moved, LPOVERLAPPED overlapped, bool reads, DWORD size, Plain plain,
          Positioned positioned) {
    if (moved) *moved = 0;
    const CPin<CFile> pin(file);
    if (!pin) return FALSE;
    if (!moved && !overlapped) return Fail(ERROR_INVALID_PARAMETER);
    if (overlapped && overlapped->hEvent) return Fail(ERROR_NOT_SUPPORTED);
    ssize_t done;
    do {
        if (overlapped) {
            const uint64_t offset = (uint64_t{overlapped->OffsetHigh} << 32) | overlapped->Offset;
            if (offset >> 63) return Fail(ERROR_INVALID_PARAMETER);
            done = positioned(pin->Descriptor(), static_cast<off_t>(offset));
        } else {
            done = plain(pin->Descriptor());
        }
    } while (done < 0 && errno == EINTR);
    if (done < 0) return Fail(errno == EBADF ? ERROR_ACCESS_DENIED : ErrorFromErrno(errno));
    if (moved) *moved = static_cast<DWORD>(done);
    if (overlapped) {
        overlapped->Internal = 0;
        overlapped->InternalHigh = static_cast<ULONG_PTR>(done);
        if (reads && done == 0 && size > 0) return Fail(ERROR_HANDLE_EOF);
    }
    return TRUE;
}

}  // namespace

DWORD ErrorFromErrno(int error) {
    const auto* found = std::find_if(std::begin(kErrors), std::end(kErrors),
                                     [error](const CErrorPair& p) { return p.error == error; });
    return found == std::end(kErrors) ? ERROR_GEN_FAILURE : found->win32;
}

int FileDescriptorOf(HANDLE file) {
    const CPin<CFile> pin(file);
    return pin ? pin->Descriptor() : -1;
}

bool CNativeName::Set(LPCWSTR name) {
    if (!name || *name == 0) return Fail(ERROR_PATH_NOT_FOUND);
    size_t length = 0;
    while (*name != 0) {
        const CDecoded decoded = DecodeUtf16(name, name[1] == 0 ? 1 : 2);
        if (!decoded.valid) return Fail(ERROR_INVALID_NAME);
        name += decoded.units;
        const char32_t code = decoded.code == U'\\' ? U'/' : decoded.code;
        if (code == U'/' && length > 0 && path[length - 1] == '/') continue;
        if (length + 4 >= sizeof(path)) return Fail(ERROR_FILENAME_EXCED_RANGE);
        length += EncodeUtf8(code, path + length);
    }
    path[length] = 0;
    return true;
}

}  // namespace posix

using namespace posix;

extern "C" {

HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes,
                   DWORD disposition, DWORD flags, HANDLE template_file) {
    const DWORD error = CheckOpen(access, share, attributes, disposition, flags, template_file);
    if (error) return Fail(error), INVALID_HANDLE_VALUE;
    CNativeName native;
    if (!native.Set(name)) return INVALID_HANDLE_VALUE;
    if (access == DELETE) return OpenToDelete(native);
    return OpenNative(native.path, access, disposition, flags);
}

DWORD GetFileAttributesW(LPCWSTR name) {
    CNativeName native;
    if (!native.Set(name)) return INVALID_FILE_ATTRIBUTES;
    struct stat status;
    if (lstat(native.path, &status) != 0)
        return FailErrno(native.path, errno), INVALID_FILE_ATTRIBUTES;
    DWORD attributes = 0;
    if (S_ISLNK(status.st_mode)) {
        attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        // A link that leads nowhere still has a name.
        if (stat(native.path, &status) != 0) return attributes;
    }
    if (S_ISDIR(status.st_mode)) {
        attributes |= FILE_ATTRIBUTE_DIRECTORY;
    } else if (!S_ISREG(status.st_mode)) {
        attributes |= FILE_ATTRIBUTE_DEVICE;
    } else if (IsReadOnly(status)) {
        attributes |= FILE_ATTRIBUTE_READONLY;
    }
    return attributes != 0 ? attributes : FILE_ATTRIBUTE_NORMAL;
}

BOOL DeleteFileW(LPCWSTR name) {
    CNativeName native;
    if (!native.Set(name)) return FALSE;
    struct stat status;
    if (lstat(native.path, &status) != 0) return FailErrno(native.path, errno);
    if (!S_ISLNK(status.st_mode) && (!S_ISREG(status.st_mode) || IsReadOnly(status)))
        return Fail(ERROR_ACCESS_DENIED);
    if (unlink(native.path) != 0) return FailErrno(native.path, errno);
    return TRUE;
}

BOOL SetFileInformationByHandle(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID information,
                                DWORD size) {
    const CPin<CFile> pin(file);
    if (!pin) return FALSE;
    if (kind != FileDispositionInfo || !information || size < sizeof(FILE_DISPOSITION_INFO) ||
        !static_cast<const FILE_DISPOSITION_INFO*>(information)->DeleteFile) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (pin->Folder() < 0) return Fail(ERROR_ACCESS_DENIED);
    struct stat opened, named;
    if (fstat(pin->Descriptor(), &opened) != 0 ||
        fstatat(pin->Folder(), pin->Leaf(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        return Fail(ErrorFromErrno(errno));
    }
    if (IsReadOnly(opened)) return Fail(ERROR_ACCESS_DENIED);
    if (opened.st_dev != named.st_dev || opened.st_ino != named.st_ino)
        return Fail(ERROR_FILE_NOT_FOUND);
    if (unlinkat(pin->Folder(), pin->Leaf(), 0) != 0) return Fail(ErrorFromErrno(errno));
    return TRUE;
}

BOOL CreateDirectoryW(LPCWSTR name, LPSECURITY_ATTRIBUTES attributes) {
    if (attributes) return Fail(ERROR_NOT_SUPPORTED);
    CNativeName native;
    if (!native.Set(name)) return FALSE;
    if (mkdir(native.path, 0777) == 0) return TRUE;
    // What is missing here can only be a folder above.
    return Fail(errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno));
}

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) {
    const CPin<CFile> pin(file);
    if (!pin) return FALSE;
    struct stat status;
    if (!size) return Fail(ERROR_INVALID_PARAMETER);
    if (fstat(pin->Descriptor(), &status) != 0) return Fail(ErrorFromErrno(errno));
    size->QuadPart = status.st_size;
    return TRUE;
}

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD size, LPDWORD moved, LPOVERLAPPED overlapped) {
    return Move(
        file, moved, overlapped, true, size, [=](int fd) { return read(fd, buffer, size); },
        [=](int fd, off_t offset) { return pread(fd, buffer, size, offset); });
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD size, LPDWORD moved, LPOVERLAPPED overlapped) {
    return Move(
        file, moved, overlapped, false, size, [=](int fd) { return write(fd, buffer, size); },
        [=](int fd, off_t offset) { return pwrite(fd, buffer, size, offset); });
}

BOOL GetDiskFreeSpaceExW(LPCWSTR name, ULARGE_INTEGER* available, ULARGE_INTEGER* total,
                         ULARGE_INTEGER* total_free) {
    CNativeName native;
    if (!native.Set(name ? name : TEXT("."))) return FALSE;
    struct stat status;
    struct statvfs volume;
    if (stat(native.path, &status) != 0) return FailErrno(native.path, errno);
    if (!S_ISDIR(status.st_mode)) return Fail(ERROR_DIRECTORY);
    if (statvfs(native.path, &volume) != 0) return Fail(ErrorFromErrno(errno));
    const uint64_t unit = volume.f_frsize;
    if (available) available->QuadPart = unit * volume.f_bavail;
    if (total) total->QuadPart = unit * volume.f_blocks;
    if (total_free) total_free->QuadPart = unit * volume.f_bfree;
    return TRUE;
}

DWORD GetFinalPathNameByHandleW(HANDLE file, LPWSTR buffer, DWORD count, DWORD flags) {
    const CPin<CFile> pin(file);
    if (!pin) return 0;
    if ((flags & ~VOLUME_NAME_NONE) != 0 || (!buffer && count > 0))
        return Fail(ERROR_INVALID_PARAMETER), 0;
    struct stat status;
    if (fstat(pin->Descriptor(), &status) != 0) return Fail(ErrorFromErrno(errno)), 0;
    if (status.st_nlink == 0) return Fail(ERROR_FILE_NOT_FOUND), 0;
    char link[64];
    sprintf_s(link, sizeof(link), "/proc/self/fd/%d", pin->Descriptor());
    char path[PATH_MAX];
    const ssize_t size = readlink(link, path, sizeof(path));
    if (size < 0) return Fail(ErrorFromErrno(errno)), 0;
    const std::u16string text = ToUtf16({path, static_cast<size_t>(size)});
    if (text.size() >= count) return static_cast<DWORD>(text.size() + 1);
    std::memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
    return static_cast<DWORD>(text.size());
}

BOOL GetComputerNameW(LPWSTR buffer, LPDWORD count) {
    if (!count) return Fail(ERROR_INVALID_PARAMETER);
    char host[256] = {};
    if (gethostname(host, sizeof(host) - 1) != 0) return Fail(ErrorFromErrno(errno));
    host[std::strcspn(host, ".")] = 0;
    const std::u16string text = ToUtf16(host);
    const DWORD size = *count;
    *count = static_cast<DWORD>(text.size());
    if (!buffer || text.size() >= size) {
        *count = static_cast<DWORD>(text.size() + 1);
        return Fail(ERROR_BUFFER_OVERFLOW);
    }
    std::memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
    return TRUE;
}

}  // extern "C"
