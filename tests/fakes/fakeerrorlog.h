// The error log of a test: the four functions of the interface, which keep every call with all its
// arguments. Any thread.
#pragma once

#include "mediaio/errorlog.h"
#include "platform/platform.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct LogRecord {
    enum Kind { CreateChain, EntryPoint, Ex, OwnerInfo };
    Kind kind;
    HRESULT hr = 0;     // Ex, CreateChain
    DWORD chainId = 0;  // Ex; EntryPoint: chain id or result
    SYSTEMTIME time{};
    DWORD category = 0;
    DWORD level = 0;
    WString file;
    LONG line = 0;
    DWORD elapsed_ms = 0;
    WString text;  // Ex: the piece; EntryPoint: the function; OwnerInfo: a|b|c|d
    LONG id = 0;
    LONG number = 0;
    DWORD threadId = 0;
};

class CFakeErrorLog {
public:
    void Reset();

    std::vector<LogRecord> Records() const;
    std::vector<LogRecord> Records(LogRecord::Kind kind) const;

    // Whole messages: the pieces of one message are put together again (the first piece's other
    // fields stay).
    std::vector<LogRecord> Messages() const;
    std::vector<WString> Texts(DWORD level) const;
    bool Has(DWORD level, WStringView text) const;
    size_t Count(DWORD level, WStringView text) const;
    // The error message with exactly this text, or a record of kind CreateChain when there is none.
    LogRecord Error(WStringView text) const;
    // Entry-point records of this function.
    size_t EntryPoints(WStringView function) const;
    bool Empty() const { return Records().empty(); }

    // What the functions return. Set before the calls.
    std::function<DWORD(HRESULT)> chainId;          // default: the HRESULT itself
    std::function<BOOL(const LogRecord&)> written;  // default: TRUE

    void Add(LogRecord record);

private:
    mutable std::mutex m_lock;
    std::vector<LogRecord> m_records;
};

CFakeErrorLog& FakeErrorLog();

// A log that throws once, at the first record whose text begins so: what a host's module may do.
std::function<BOOL(const LogRecord&)> ThrowAt(WString beginning);

// For readable failures of comparisons.
std::string Utf8(WStringView text);
