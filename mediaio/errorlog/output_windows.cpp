// The file of the error log, on Windows: by its wide name, since the ANSI code page need not have
// every letter of it.
#include "mediaio/errorlog/output.h"

#include "platform/platform.h"

std::FILE* OpenToAppend(const std::filesystem::path& path) {
    return _wfopen(path.c_str(), TEXT("ab"));
}
