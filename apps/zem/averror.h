// How a clip of this machine that the FFmpeg libraries cannot read or write is told. Main thread.
#pragma once

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <array>
#include <cstdlib>
#include <string>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {

// The libraries' own lines about a clip name no file, and come beside a sentence of ours: they are
// for who asks for them.
inline void SetAvLog() {
    const char* const asked = std::getenv("ZEM_AV_LOG");
    av_log_set_level(asked != nullptr && *asked != '\0' ? AV_LOG_WARNING : AV_LOG_QUIET);
}

// Throws CZemError(kLocalFile): "PATH: WHAT: the library's words for `error`".
[[noreturn]] inline void ThrowAv(const std::string& path, int error, const char* what) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": " + what + ": " + text.data());
}

}  // namespace zem
