// Compiled into a module whose threads may still run when its last user is gone: once loaded it is
// never unmapped.
#include "platform/platform.h"

namespace {

const struct CKeepLoaded {
    CKeepLoaded() {
        HMODULE module = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCWSTR>(this), &module);
    }
} g_keepLoaded;

}  // namespace
