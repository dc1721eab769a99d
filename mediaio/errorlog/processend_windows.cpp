// The end of the process first ends every other thread, wherever it is, the writer and whoever
// holds a lock among them, and then runs the modules' destructors. This one's run at no other time:
// it is never unmapped before.
#include "mediaio/errorlog/errorlogsink.h"

namespace {

struct ExitFlush {
    ~ExitFlush() { CErrorLogSink::Instance().WriteAlone(); }
} g_exitFlush;

}  // namespace
