// Files by name and handle. Any thread; the kernel does the locking.
#include "platform/posix/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/posix/filesinternal.h"
#include "platform/posix/object.h"
#include "platform/posix/text.h"
#include "platform/posix/utf.h"

namespace posix {
namespace {

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

constexpr DWORD kKnownFlags =
    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;
constexpr DWORD kKnownShares = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

DWORD CheckOpen(DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes, DWORD disposition,
                DWORD flags, HANDLE template_file) {
    if (attributes) return ERROR_NOT_SUPPORTED;
    const bool known = access == DELETE
                           ? flags == FILE_FLAG_OPEN_REPARSE_POINT
                           : (access & ~GENERIC_READ) == 0 && (flags & ~kKnownFlags) == 0;
    if (!known || (share & ~kKnownShares) != 0 || disposition != OPEN_EXISTING || template_file)
        return ERROR_INVALID_PARAMETER;
    return 0;
}

HANDLE OpenToRead(const char* path, DWORD flags) {
    struct stat status;
    const bool existed = stat(path, &status) == 0;
    if (existed && !KindAllowed(status.st_mode, flags))
        return Fail(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    const int follow = (flags & FILE_FLAG_OPEN_REPARSE_POINT) != 0 ? O_NOFOLLOW : 0;
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | follow);
    if (descriptor < 0) {
        // A link that is not to be followed; one that leads nowhere or in a circle has failed
        // above.
        if (errno == ELOOP && existed)
            SetLastError(ERROR_ACCESS_DENIED);
        else
            FailErrno(path, errno);
        return INVALID_HANDLE_VALUE;
    }
    if (fstat(descriptor, &status) != 0 || !KindAllowed(status.st_mode, flags)) {
        close(descriptor);
        return Fail(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = OpenHandle(new CFile(descriptor));
    return handle ? handle : INVALID_HANDLE_VALUE;
}

// While it lives nobody begins to write a file whose writers lock it with flock, as those of the
// media library do.
class CWritersKeptOut {
public:
    // `path`: a descriptor of the file that may be open for its name alone.
    explicit CWritersKeptOut(int path)
        : m_descriptor(open(("/proc/self/fd/" + std::to_string(path)).c_str(),
                            O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
        if (m_descriptor < 0) {
            m_error = ErrorFromErrno(errno);
            // Shared: a network file system wants a descriptor to write with for the other kind.
        } else if (flock(m_descriptor, LOCK_SH | LOCK_NB) != 0) {
            // Where there are no locks its writers have none either.
            if (errno == EWOULDBLOCK)
                m_error = ERROR_SHARING_VIOLATION;
            else if (errno != ENOLCK && errno != EOPNOTSUPP)
                m_error = ErrorFromErrno(errno);
        }
    }
    ~CWritersKeptOut() {
        if (m_descriptor >= 0) close(m_descriptor);
    }
    CWritersKeptOut(const CWritersKeptOut&) = delete;
    CWritersKeptOut& operator=(const CWritersKeptOut&) = delete;
    // ERROR_SHARING_VIOLATION: somebody writes it; another: that cannot be told. Else 0.
    DWORD Error() const { return m_error; }

private:
    int m_descriptor;
    DWORD m_error = 0;
};

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
    if (file->Descriptor() >= 0)
        SetLastError(ERROR_ACCESS_DENIED);
    else
        FailErrno(name.path, errno);
    file->Release();
    return INVALID_HANDLE_VALUE;
}

}  // namespace

int FileDescriptorOf(HANDLE file) {
    const CPin<CFile> pin(file);
    return pin ? pin->Descriptor() : -1;
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
    return OpenToRead(native.path, flags);
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
    if (S_ISDIR(status.st_mode))
        attributes |= FILE_ATTRIBUTE_DIRECTORY;
    else if (!S_ISREG(status.st_mode))
        attributes |= FILE_ATTRIBUTE_DEVICE;
    else if (IsReadOnly(status))
        attributes |= FILE_ATTRIBUTE_READONLY;
    return attributes != 0 ? attributes : FILE_ATTRIBUTE_NORMAL;
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
    const CWritersKeptOut kept_out(pin->Descriptor());
    if (kept_out.Error()) return Fail(kept_out.Error());
    if (unlinkat(pin->Folder(), pin->Leaf(), 0) != 0) return Fail(ErrorFromErrno(errno));
    return TRUE;
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
    if (flags != FILE_NAME_NORMALIZED || (!buffer && count > 0))
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
