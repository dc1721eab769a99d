// The file of the error log, on Linux.
#include "mediaio/errorlog/output.h"

std::FILE* OpenToAppend(const std::filesystem::path& path) {
    return std::fopen(path.c_str(), "ab");
}
