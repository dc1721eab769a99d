// The store's error-log records.
#include "mediaio/store/log.h"

#include "mediaio/errorlog.h"

namespace zemstore {

void LogStore(DWORD level, HRESULT hr, const WCHAR* source, const std::string& text) {
    WCHAR wide[128] = {};
    const std::string cut = text.substr(0, 127);
    MultiByteToWideChar(CP_UTF8, 0, cut.c_str(), static_cast<int>(cut.size()), wide, 127);
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
