// The store's error-log records.
#include "mediaio/store/log.h"

#include "mediaio/errorlog.h"

#include <algorithm>

namespace zemstore {
namespace {

constexpr size_t kLongestText = 127;

}  // namespace

void LogStoreOf(const std::string& path, DWORD level, HRESULT hr, const WCHAR* source,
                const std::string& text) {
    static constexpr char kLeftOut[] = "...";
    const size_t room = kLongestText - std::min(kLongestText, text.size() + 2);
    if (path.size() <= room) return LogStore(level, hr, source, path + ": " + text);
    size_t from = path.size() - std::min(path.size(), room - std::min(room, sizeof kLeftOut - 1));
    while (from < path.size() && (path[from] & 0xC0) == 0x80)  // not from within a character
        ++from;
    LogStore(level, hr, source, kLeftOut + path.substr(from) + ": " + text);
}

void LogStore(DWORD level, HRESULT hr, const WCHAR* source, const std::string& text) {
    WCHAR wide[kLongestText + 1] = {};
    const std::string cut = text.substr(0, kLongestText);
    MultiByteToWideChar(CP_UTF8, 0, cut.c_str(), static_cast<int>(cut.size()), wide,
                        static_cast<int>(kLongestText));
    SYSTEMTIME now;
    GetLocalTime(&now);
    ErrorLogWriteExW(hr, &now, 0, level, source, -1, 0, wide, static_cast<DWORD>(hr));
}

bool CSparseLine::Due(Clock::time_point now, uint64_t& leftOut) {
    Clock::rep next = m_next.load();
    const Clock::rep mine = now.time_since_epoch().count();
    const Clock::rep after = (now + kPause).time_since_epoch().count();
    if (mine < next || !m_next.compare_exchange_strong(next, after)) {
        ++m_leftOut;
        return false;
    }
    leftOut = m_leftOut.exchange(0);
    return true;
}

}  // namespace zemstore
