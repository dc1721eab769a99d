// How a clip of this machine that the FFmpeg libraries cannot read or write is told.
#pragma once

extern "C" {
#include <libavutil/error.h>
}

#include <array>
#include <string>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {

// Throws CZemError(kLocalFile): "PATH: WHAT: the library's words for `error`".
[[noreturn]] inline void ThrowAv(const std::string& path, int error, const char* what) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": " + what + ": " + text.data());
}

}  // namespace zem
