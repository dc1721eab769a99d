// What the store has to say beyond an HRESULT, as error-log records. Any thread; cheap.
#pragma once

#include "platform/platform.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

// `level` is one of the error log's; `text` is UTF-8 and is cut at 127 characters.
void LogStore(DWORD level, HRESULT hr, const WCHAR* source, const std::string& text);
// "path: text", for what is about one file. Of a path that is too long for a record its end stays,
// which tells files apart.
void LogStoreOf(const std::string& path, DWORD level, HRESULT hr, const WCHAR* source,
                const std::string& text);

// For a line that many requests in a row would write: one of them in ten seconds does.
class CSparseLine {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kPause{10};
    // Whether this one is written; then `leftOut` is how many were not since the line before. Any
    // thread, without a lock.
    bool Due(Clock::time_point now, uint64_t& leftOut);

private:
    std::atomic<Clock::rep> m_next{Clock::time_point::min().time_since_epoch().count()};
    std::atomic<uint64_t> m_leftOut{0};
};

}  // namespace zemstore

#pragma GCC visibility pop
