// The program's own syslog stands in for the C library's, so that lines can be read back.
#include "tests/platform/sysloglines.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "tests/fakes/allocfault.h"

namespace {

std::mutex g_lock;
std::vector<std::string> g_lines;

void Record(int priority, const char* format, va_list args) {
    const CAllocationFaultPause pause;
    char text[4096];
    std::vsnprintf(text, sizeof(text), format, args);
    const std::lock_guard guard(g_lock);
    g_lines.push_back("<" + std::to_string(priority) + "> " + text);
}

}  // namespace

extern "C" [[gnu::visibility("default")]] void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}

// What a hardened build calls instead.
extern "C" [[gnu::visibility("default")]] void __syslog_chk(int priority, int, const char* format,
                                                            ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}

std::vector<std::string> TakeSyslogLines() {
    const std::lock_guard guard(g_lock);
    return std::exchange(g_lines, {});
}
