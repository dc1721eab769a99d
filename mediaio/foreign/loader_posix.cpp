// Loads the module with the container readers at its first use. It stays loaded: its threads may
// still end what the last reader left.
#include "mediaio/errorlog.h"
#include "mediaio/foreign/foreign.h"
#include "mediaio/store/log.h"

#include <dlfcn.h>

namespace zemstore {
namespace {

// The module lies beside the one that holds this code.
std::string ModulePath() {
    Dl_info own{};
    std::string path;
    if (dladdr(reinterpret_cast<void*>(&ForeignReader), &own) != 0 && own.dli_fname != nullptr)
        path = own.dli_fname;
    return path.substr(0, path.rfind('/') + 1) + "libzemforeign.so";
}

OpenForeignFunction Load() {
    void* const module = dlopen(ModulePath().c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    void* const entry = module == nullptr ? nullptr : dlsym(module, "ZemOpenForeign");
    if (entry == nullptr) {
        const char* const reason = dlerror();
        LogStore(kErrorLogLevelWarning, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
                 TEXT("loader_posix.cpp"),
                 std::string("foreign files cannot be read: ") + (reason ? reason : "no entry"));
    }
    return reinterpret_cast<OpenForeignFunction>(entry);
}

}  // namespace

OpenForeignFunction ForeignReader() {
    static const OpenForeignFunction function = Load();
    return function;
}

}  // namespace zemstore
