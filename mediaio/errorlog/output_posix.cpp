// The file of the error log, on Linux.
#include <fcntl.h>
#include <unistd.h>

#include "mediaio/errorlog/output.h"

// Opening a pipe that nobody reads would wait for a reader: it fails instead. Writing waits.
std::FILE* OpenToAppend(const std::filesystem::path& path) {
    const int descriptor =
        open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
    if (descriptor < 0) return nullptr;
    std::FILE* file = nullptr;
    if (fcntl(descriptor, F_SETFL, O_APPEND) == 0) file = fdopen(descriptor, "ab");
    if (!file) close(descriptor);
    return file;
}
