// The event log's calls, carried to syslog. Any thread.
#include "platform/posix/eventlog.h"

#include <syslog.h>

#include <string>

#include "platform/posix/object.h"
#include "platform/posix/utf.h"

namespace posix {
namespace {

class CEventSource final : public CObject {
public:
    static constexpr ObjectKind kKind = ObjectKind::EventSource;
    explicit CEventSource(std::string name) : CObject(kKind), m_name(std::move(name)) {}
    const std::string& Name() const { return m_name; }

private:
    const std::string m_name;
};

// The log's priority, or -1 for a type that does not exist.
int PriorityOf(WORD type) {
    switch (type) {
        case EVENTLOG_ERROR_TYPE:
            return LOG_ERR;
        case EVENTLOG_WARNING_TYPE:
        case EVENTLOG_AUDIT_FAILURE:
            return LOG_WARNING;
        case EVENTLOG_SUCCESS:
        case EVENTLOG_INFORMATION_TYPE:
        case EVENTLOG_AUDIT_SUCCESS:
            return LOG_INFO;
        default:
            return -1;
    }
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

}  // namespace
}  // namespace posix

using namespace posix;

extern "C" {

HANDLE RegisterEventSourceW(LPCWSTR server, LPCWSTR source) {
    if (server && *server != 0) return Fail(ERROR_NOT_SUPPORTED), nullptr;
    if (!source || *source == 0) return Fail(ERROR_INVALID_PARAMETER), nullptr;
    return OpenHandle(new CEventSource(ToUtf8(source)));
}

BOOL ReportEventW(HANDLE log, WORD type, WORD, DWORD, PSID user, WORD string_count, DWORD data_size,
                  LPCWSTR* strings, LPVOID data) {
    const CPin<CEventSource> pin(log);
    if (!pin) return FALSE;
    if (user || data_size != 0 || data) return Fail(ERROR_NOT_SUPPORTED);
    const int priority = PriorityOf(type);
    if (priority < 0 || (string_count > 0 && !strings)) return Fail(ERROR_INVALID_PARAMETER);
    std::string line = pin->Name() + ":";
    for (WORD i = 0; i < string_count; ++i) {
        if (!strings[i]) return Fail(ERROR_INVALID_PARAMETER);
        line += " " + ToUtf8(strings[i]);
    }
    for (char& c : line)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    syslog(priority, "%s", line.c_str());
    return TRUE;
}

BOOL DeregisterEventSource(HANDLE log) {
    const CPin<CEventSource> pin(log);
    return pin && CloseObjectHandle(log) ? TRUE : FALSE;
}

}  // extern "C"
