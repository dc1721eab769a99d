// Error numbers and names, between the system's form and the kernel's. Pure but for the last error.
#include "platform/posix/filesinternal.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

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

bool Fail(DWORD error) {
    SetLastError(error);
    return false;
}

}  // namespace

DWORD ErrorFromErrno(int error) {
    const auto* found = std::find_if(std::begin(kErrors), std::end(kErrors),
                                     [error](const CErrorPair& p) { return p.error == error; });
    return found == std::end(kErrors) ? ERROR_GEN_FAILURE : found->win32;
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
