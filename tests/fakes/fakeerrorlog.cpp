// Keeps every record under one lock.
#include "tests/fakes/fakeerrorlog.h"

#include "tests/fakes/allocfault.h"

#include <stdexcept>

CFakeErrorLog& FakeErrorLog() {
    static CFakeErrorLog log;
    return log;
}

void CFakeErrorLog::Reset() {
    const std::lock_guard lock(m_lock);
    m_records.clear();
    chainId = nullptr;
    written = nullptr;
}

void CFakeErrorLog::Add(LogRecord record) {
    record.threadId = GetCurrentThreadId();
    const std::lock_guard lock(m_lock);
    m_records.push_back(std::move(record));
}

std::vector<LogRecord> CFakeErrorLog::Records() const {
    const std::lock_guard lock(m_lock);
    return m_records;
}

std::vector<LogRecord> CFakeErrorLog::Records(LogRecord::Kind kind) const {
    std::vector<LogRecord> found;
    for (const LogRecord& record : Records())
        if (record.kind == kind) found.push_back(record);
    return found;
}

std::vector<LogRecord> CFakeErrorLog::Messages() const {
    std::vector<LogRecord> messages;
    std::vector<size_t> lastPiece;  // length of the last piece of each message
    for (const LogRecord& record : Records(LogRecord::Ex)) {
        size_t open = messages.size();
        for (size_t i = messages.size(); i-- > 0;) {
            if (messages[i].threadId != record.threadId) continue;
            if (lastPiece[i] == 127 && messages[i].level == record.level) open = i;
            break;
        }
        if (open < messages.size()) {
            messages[open].text += record.text;
            lastPiece[open] = record.text.size();
        } else {
            messages.push_back(record);
            lastPiece.push_back(record.text.size());
        }
    }
    return messages;
}

std::vector<WString> CFakeErrorLog::Texts(DWORD level) const {
    std::vector<WString> texts;
    for (const LogRecord& record : Messages())
        if (record.level == level) texts.push_back(record.text);
    return texts;
}

size_t CFakeErrorLog::Count(DWORD level, WStringView text) const {
    size_t count = 0;
    for (const WString& candidate : Texts(level))
        if (candidate == text) ++count;
    return count;
}

bool CFakeErrorLog::Has(DWORD level, WStringView text) const {
    return Count(level, text) != 0;
}

LogRecord CFakeErrorLog::Error(WStringView text) const {
    for (const LogRecord& record : Messages())
        if (record.level == kErrorLogLevelError && record.text == text) return record;
    LogRecord none;
    none.kind = LogRecord::CreateChain;
    return none;
}

size_t CFakeErrorLog::EntryPoints(WStringView function) const {
    size_t count = 0;
    for (const LogRecord& record : Records(LogRecord::EntryPoint))
        if (record.text == function) ++count;
    return count;
}

std::function<BOOL(const LogRecord&)> ThrowAt(WString beginning) {
    return [beginning, thrown = false](const LogRecord& record) mutable -> BOOL {
        if (thrown || !record.text.starts_with(beginning)) return TRUE;
        thrown = true;
        throw std::runtime_error("a host's error log");
    };
}

std::string Utf8(WStringView text) {
    std::string narrow(text.size() * 3 + 1, '\0');
    const int length =
        text.empty()
            ? 0
            : WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                  narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr);
    narrow.resize(static_cast<size_t>(length));
    return narrow;
}

DWORD ErrorLogCreateChainId(HRESULT hr) {
    const CAllocationFaultPause pause;
    LogRecord record;
    record.kind = LogRecord::CreateChain;
    record.hr = hr;
    FakeErrorLog().Add(record);
    return FakeErrorLog().chainId ? FakeErrorLog().chainId(hr) : static_cast<DWORD>(hr);
}

BOOL ErrorLogWriteEntryPointW(DWORD chainIdOrResult, const SYSTEMTIME* time,
                              const WCHAR* functionName) {
    const CAllocationFaultPause pause;
    LogRecord record;
    record.kind = LogRecord::EntryPoint;
    record.chainId = chainIdOrResult;
    record.time = *time;
    record.text = functionName;
    FakeErrorLog().Add(record);
    return FakeErrorLog().written ? FakeErrorLog().written(record) : TRUE;
}

BOOL ErrorLogWriteExW(HRESULT hr, const SYSTEMTIME* time, DWORD category, DWORD level,
                      const WCHAR* file, LONG line, DWORD elapsed_ms, const WCHAR* text,
                      DWORD chainId) {
    const CAllocationFaultPause pause;
    LogRecord record;
    record.kind = LogRecord::Ex;
    record.hr = hr;
    record.time = *time;
    record.category = category;
    record.level = level;
    record.file = file;
    record.line = line;
    record.elapsed_ms = elapsed_ms;
    record.text = text;
    record.chainId = chainId;
    FakeErrorLog().Add(record);
    return FakeErrorLog().written ? FakeErrorLog().written(record) : TRUE;
}

BOOL ErrorLogWriteOwnerInfoW(LONG id, const SYSTEMTIME* time, const WCHAR* a, const WCHAR* b,
                             const WCHAR* c, const WCHAR* d, LONG e) {
    const CAllocationFaultPause pause;
    LogRecord record;
    record.kind = LogRecord::OwnerInfo;
    record.id = id;
    record.time = *time;
    record.text = WString(a) + u'|' + b + u'|' + c + u'|' + d;
    record.number = e;
    FakeErrorLog().Add(record);
    return FakeErrorLog().written ? FakeErrorLog().written(record) : TRUE;
}
