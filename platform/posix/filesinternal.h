// What the other parts of the layer need to know about files and names. Any thread.
#pragma once

#include <limits.h>

#include "platform/posix/errors.h"

namespace posix {

// The descriptor behind a file HANDLE, or -1 with ERROR_INVALID_HANDLE. It is good until the handle
// is closed; who must outlive that duplicates it.
int FileDescriptorOf(HANDLE file);

// The one table from errno to Win32; ERROR_GEN_FAILURE for what it does not know.
DWORD ErrorFromErrno(int error);

// A name as the kernel takes it: UTF-8, `\` as `/`, separators collapsed.
struct CNativeName {
    char path[PATH_MAX];

    // False with the last error set (see files.h).
    bool Set(LPCWSTR name);
};

}  // namespace posix
