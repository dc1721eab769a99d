// Each thread's last error.
#include "platform/posix/errors.h"

namespace {
thread_local DWORD t_last_error = 0;
}

extern "C" DWORD GetLastError() noexcept {
    return t_last_error;
}

extern "C" void SetLastError(DWORD error) noexcept {
    t_last_error = error;
}
