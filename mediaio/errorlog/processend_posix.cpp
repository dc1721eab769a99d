// The end of the process runs this module's destructors beside the threads that still run.
#include "mediaio/errorlog/errorlogsink.h"

namespace {

constexpr std::chrono::milliseconds kExitFlush_ms{2000};

// Built when the module is loaded, so that it is among the last to go.
struct ExitFlush {
    ~ExitFlush() { CErrorLogSink::Instance().Stop(kExitFlush_ms); }
} g_exitFlush;

}  // namespace
