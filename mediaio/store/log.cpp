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

}  // namespace zemstore
