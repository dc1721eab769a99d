// Files by name and handle: looked at, opened to be read or deleted; and the host's name. Names are
// UTF-16; `/` and `\` both separate, repeated separators count as one; there are no drives, streams
// or device names, and every character but NUL and the separators may occur in a name. Any thread.
//
// Failures: INVALID_HANDLE_VALUE, FALSE or INVALID_FILE_ATTRIBUTES with the last error set:
// ERROR_FILE_NOT_FOUND (the last part is missing), ERROR_PATH_NOT_FOUND (a folder is, or the name
// is empty or null), ERROR_ACCESS_DENIED, ERROR_FILENAME_EXCED_RANGE (over 4095 bytes of UTF-8, or
// a part over 255), ERROR_INVALID_NAME (unpaired surrogates), and what errno says otherwise
// (ErrorFromErrno in filesinternal.h is the one table).
//
// Differences: share modes are checked but not enforced; names are case-sensitive; a symbolic link
// reads as a reparse point in GetFileAttributesW and is followed by CreateFileW unless
// FILE_FLAG_OPEN_REPARSE_POINT is given, which refuses it (ERROR_ACCESS_DENIED) instead of opening
// the link itself.
#pragma once

#include "platform/posix/errors.h"

#define GENERIC_READ 0x80000000u
#define DELETE 0x00010000u

#define FILE_SHARE_READ 0x1u
#define FILE_SHARE_WRITE 0x2u
#define FILE_SHARE_DELETE 0x4u

#define OPEN_EXISTING 3u

#define FILE_ATTRIBUTE_READONLY 0x1u
#define FILE_ATTRIBUTE_DIRECTORY 0x10u
#define FILE_ATTRIBUTE_DEVICE 0x40u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_ATTRIBUTE_REPARSE_POINT 0x400u
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu

#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000u
#define FILE_FLAG_OPEN_REPARSE_POINT 0x00200000u

#define FILE_NAME_NORMALIZED 0x0u

enum FILE_INFO_BY_HANDLE_CLASS { FileDispositionInfo = 4 };
struct FILE_DISPOSITION_INFO {
    BOOLEAN DeleteFile;
};
static_assert(sizeof(FILE_DISPOSITION_INFO) == 1);

#pragma GCC visibility push(default)
extern "C" {

// Opens a regular file to be read, close-on-exec, without ever blocking: a device, FIFO or socket
// gives ERROR_ACCESS_DENIED, and so does a folder unless FILE_FLAG_BACKUP_SEMANTICS is given.
// `access` is GENERIC_READ or 0, which means the same; `disposition` OPEN_EXISTING; `flags` any of
// FILE_ATTRIBUTE_NORMAL and the two FILE_FLAG_... above; anything else, a template too, gives
// ERROR_INVALID_PARAMETER (security attributes ERROR_NOT_SUPPORTED).
// `access` DELETE, alone, with FILE_FLAG_OPEN_REPARSE_POINT, opens a regular file for nothing but
// GetFinalPathNameByHandleW and SetFileInformationByHandle.
HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes,
                   DWORD disposition, DWORD flags, HANDLE template_file);

// FILE_ATTRIBUTE_NORMAL, or a sum of DIRECTORY, READONLY (nobody may write it), DEVICE (neither
// file nor folder) and REPARSE_POINT (a symbolic link; DIRECTORY then tells what it leads to).
DWORD GetFileAttributesW(LPCWSTR name);
// Deletes a file that was opened with DELETE, from the folder in which it was found then, also when
// another one has that folder's name by now. FileDispositionInfo with DeleteFile set is all that is
// known (ERROR_INVALID_PARAMETER else). A read-only file, or a handle opened otherwise, gives
// ERROR_ACCESS_DENIED; ERROR_FILE_NOT_FOUND when another file has its name;
// ERROR_SHARING_VIOLATION when somebody, here or in another process, has the file locked for
// himself alone with flock(2), as who writes a media file has; another error when that cannot be
// told. Then the file stays. Difference: the name goes at once, not when the last handle is closed.
BOOL SetFileInformationByHandle(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID information,
                                DWORD size);

// Space of the volume that holds the folder `name` (null: the current one; not a folder:
// ERROR_DIRECTORY). Any result may be null.
BOOL GetDiskFreeSpaceExW(LPCWSTR name, ULARGE_INTEGER* available, ULARGE_INTEGER* total,
                         ULARGE_INTEGER* total_free);

// The absolute name of the open file or folder, links resolved, with `/` and without any prefix.
// Returns its length, or the size needed with its NUL when `count` characters do not hold it, or 0
// (ERROR_FILE_NOT_FOUND when it was deleted). `flags` is 0.
DWORD GetFinalPathNameByHandleW(HANDLE file, LPWSTR buffer, DWORD count, DWORD flags);

// The host name up to its first dot, as it is written (not shortened to 15 characters). `count`
// holds the buffer's size in and the length without NUL out; too small: ERROR_BUFFER_OVERFLOW and
// the size needed with its NUL.
BOOL GetComputerNameW(LPWSTR buffer, LPDWORD count);
}
#pragma GCC visibility pop
