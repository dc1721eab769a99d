// The logging scope and the error convention. A scope belongs to one thread; the error log that it
// writes to is called from all of them. Nothing here allocates.
#include "zemhttpd/entry/entrypoint.h"

#include "mediaio/errorlog.h"

#include <algorithm>
#include <cstdarg>

namespace {

constexpr int kMessageUnits = 512;   // of a record's text, NUL included
constexpr size_t kPieceUnits = 127;  // of the text in one call to the error log
constexpr int kEventMessageUnits = 1024;
constexpr int kEventTextUnits = 2600;

void FormatMessageText(WCHAR (&message)[kMessageUnits], const WCHAR* format, va_list args) {
    _vsnwprintf_s(message, kMessageUnits, kMessageUnits - 1, format, args);
    message[kMessageUnits - 1] = 0;
}

// The error log may be a host's own module. Logging never throws: a call into it that does counts
// as refused.
template <class Call>
auto Guarded(Call call, decltype(call()) refused) {
    try {
        return call();
    } catch (...) {
        return refused;
    }
}

void WriteEntryPoint(DWORD chainIdOrResult, const SYSTEMTIME& time, const WCHAR* function) {
    Guarded([&] { return ErrorLogWriteEntryPointW(chainIdOrResult, &time, function); }, FALSE);
}

struct Record {
    HRESULT hr;
    DWORD category;
    DWORD level;
    const WCHAR* file;
    LONG line;
    DWORD elapsed_ms;
    DWORD chainId;
};

// Writes the message in pieces, each with the same time. Returns whether all were written; with
// `stopAtFailure` the rest of a message whose piece was refused is not tried.
bool WritePieces(const Record& record, const SYSTEMTIME& time, const WCHAR* message,
                 bool stopAtFailure) {
    bool allWritten = true;
    const size_t length = wcslen(message);
    for (size_t start = 0; start < length; start += kPieceUnits) {
        WCHAR piece[kPieceUnits + 1];
        const size_t units = std::min(kPieceUnits, length - start);
        std::copy_n(message + start, units, piece);
        piece[units] = 0;
        const SYSTEMTIME pieceTime = time;
        const auto write = [&] {
            return ErrorLogWriteExW(record.hr, &pieceTime, record.category, record.level,
                                    record.file, record.line, record.elapsed_ms, piece,
                                    record.chainId);
        };
        if (!Guarded(write, FALSE)) {
            allWritten = false;
            if (stopAtFailure) break;
        }
    }
    return allWritten;
}

const WCHAR* WithoutDirectory(const WCHAR* file) {
    const WCHAR* slash = wcsrchr(file, u'\\');
    return slash ? slash + 1 : file;
}

}  // namespace

CEntryPointException::CEntryPointException()
    : m_line(-1),
      m_reserved1(-1),
      m_startTick(GetTickCount()),
      m_reserved2(0),
      m_time{},
      m_logged(FALSE),
      m_result(0) {
    m_function[0] = 0;
    m_function[kNameLength - 1] = 0;
    m_file[0] = 0;
    m_file[kFileLength - 1] = 0;
}

HRESULT CEntryPointException::WriteEventLog(const WCHAR* source, WORD type, HRESULT hr,
                                            const WCHAR* file, LONG line, const WCHAR* format,
                                            ...) {
    m_result = hr;
    m_logged = TRUE;
    WCHAR message[kEventMessageUnits];
    va_list args;
    va_start(args, format);
    _vsnwprintf_s(message, kEventMessageUnits, _TRUNCATE, format, args);
    va_end(args);
    message[kEventMessageUnits - 1] = 0;

    WCHAR errorText[kEventTextUnits];
    const WCHAR* text = message;
    if (type == EVENTLOG_ERROR_TYPE) {
        _snwprintf_s(errorText, kEventTextUnits, _TRUNCATE,
                     TEXT("%s\r\n  ->%s\r\n%s(%d) : Error 0x%x"), message, m_function, file, line,
                     static_cast<DWORD>(hr));
        text = errorText;
    }
    const HANDLE log = RegisterEventSourceW(nullptr, source);
    if (!log) return E_FAIL;
    const BOOL reported = ReportEventW(log, type, 0, 0, nullptr, 1, 0, &text, nullptr);
    DeregisterEventSource(log);
    return reported ? S_OK : E_FAIL;
}

CEntryPoint::CEntryPoint() : m_category(0), m_chainId(0) {}

CEntryPoint::CEntryPoint(const WCHAR* format, ...) : m_category(0), m_chainId(0) {
    // Nearly every name is a plain text; only one with a conversion needs the printf engine.
    int length = 0;
    while (length < kNameLength - 1 && format[length] != 0 && format[length] != u'%') {
        m_function[length] = format[length];
        ++length;
    }
    m_function[length] = 0;
    if (format[length] == u'%') {
        va_list args;
        va_start(args, format);
        _vsnwprintf_s(m_function, kNameLength, kNameLength - 1, format, args);
        va_end(args);
        m_function[kNameLength - 1] = 0;
    }
}

CEntryPoint::CEntryPoint(const CEntryPoint& other) = default;
CEntryPoint& CEntryPoint::operator=(const CEntryPoint& other) = default;

CEntryPoint& CEntryPoint::operator=(HRESULT hr) {
    m_result = hr;
    m_chainId = static_cast<DWORD>(hr);
    if (hr < 0) {
        LogEntryPoint();
        throw hr;
    }
    return *this;
}

HRESULT CEntryPoint::LogEntryPoint() {
    GetLocalTime(&m_time);
    m_logged = TRUE;
    WriteEntryPoint(static_cast<DWORD>(m_result), m_time, m_function);
    return 0;
}

HRESULT CEntryPoint::LogError(HRESULT hr, const WCHAR* file, LONG line, const WCHAR* format, ...) {
    GetLocalTime(&m_time);
    m_result = hr;
    m_logged = TRUE;
    m_line = line;
    const DWORD elapsed_ms = GetTickCount() - m_startTick;

    WCHAR message[kMessageUnits];
    va_list args;
    va_start(args, format);
    FormatMessageText(message, format, args);
    va_end(args);

    // `file` may be m_file itself, when a catch clause reports the place of an earlier error again.
    const WCHAR* name = WithoutDirectory(file);
    if (name != m_file) wcsncpy_s(m_file, kFileLength, name, _TRUNCATE);
    m_file[kFileLength - 1] = 0;

    m_chainId = Guarded([hr] { return ErrorLogCreateChainId(hr); }, static_cast<DWORD>(hr));
    WritePieces({m_result, m_category, kErrorLogLevelError, m_file, m_line, elapsed_ms, m_chainId},
                m_time, message, false);
    WriteEntryPoint(m_chainId, m_time, m_function);
    m_result = static_cast<HRESULT>(m_chainId);
    return 0;
}

int CEntryPoint::LogMsg(const WCHAR* format, ...) {
    GetLocalTime(&m_time);
    WCHAR message[kMessageUnits];
    va_list args;
    va_start(args, format);
    FormatMessageText(message, format, args);
    va_end(args);
    return WritePieces({0, m_category, kErrorLogLevelMessage, m_file, m_line, 0, 0}, m_time,
                       message, true);
}

int CEntryPoint::LogWarning(const WCHAR* format, ...) {
    GetLocalTime(&m_time);
    WCHAR message[kMessageUnits];
    va_list args;
    va_start(args, format);
    FormatMessageText(message, format, args);
    va_end(args);
    return WritePieces({0, m_category, kErrorLogLevelWarning, m_file, m_line, 0, 0}, m_time,
                       message, true);
}

int CEntryPoint::LogOwnerInfo(LONG id, const WCHAR* a, const WCHAR* b, const WCHAR* c,
                              const WCHAR* d, LONG e) {
    GetLocalTime(&m_time);
    return Guarded([&] { return ErrorLogWriteOwnerInfoW(id, &m_time, a, b, c, d, e); }, FALSE);
}

int CEntryPoint::Trace(const WCHAR* format, ...) {
    GetLocalTime(&m_time);
    WCHAR message[kMessageUnits];
    va_list args;
    va_start(args, format);
    FormatMessageText(message, format, args);
    va_end(args);
    return WritePieces({0, m_category, kErrorLogLevelTrace, m_file, m_line, 0, 0}, m_time, message,
                       true);
}

CZemEntry::~CZemEntry() = default;

int CZemEntry::LogSlowOperation(DWORD elapsed_ms, const WCHAR* format, ...) {
    GetLocalTime(&m_time);
    WCHAR message[kMessageUnits];
    va_list args;
    va_start(args, format);
    FormatMessageText(message, format, args);
    va_end(args);
    m_chainId = 0;
    return WritePieces(
        {0, m_category, kErrorLogLevelSlowOperation, TEXT(""), 0, elapsed_ms, m_chainId}, m_time,
        message, true);
}

void ThrowError(CEntryPoint& scope, HRESULT hr, const WCHAR* file, LONG line, const WCHAR* format,
                ...) {
    WCHAR message[kMessageUnits];
    va_list args;
    va_start(args, format);
    FormatMessageText(message, format, args);
    va_end(args);
    // The finished text must not be read as a format again: client IDs and file names are in it.
    scope.LogError(hr, file, line, TEXT("%s"), message);
    scope.m_logged = TRUE;
    throw scope.GetResult();
}

void LogCaught(CEntryPoint& scope, const WCHAR* file, LONG line) {
    // The place of an earlier error of this scope counts for more than the catch's own.
    if (scope.GetLine() != -1) {
        file = scope.GetFile();
        line = scope.GetLine();
    }
    try {
        throw;
    } catch (HRESULT hr) {
        scope.SetResult(hr);
        if (!scope.IsLogged()) scope.LogError(hr, file, line, TEXT("%s"), TEXT("Unknown error"));
    } catch (const _com_error& error) {
        scope.SetResult(error.Error());
        scope.LogError(error.Error(), file, line, TEXT("%s"), error.ErrorMessage());
    } catch (...) {
        scope.SetResult(E_FAIL);
        scope.LogError(E_FAIL, file, line, TEXT("%s"), TEXT("Unknown error"));
    }
}
