// The logging scope: an object on the stack of every function that can fail. It holds the
// function's result, remembers where an error was raised and writes to the error log. CEntryPoint
// is exported: other modules of the host use the same class, so the fields, their order and the
// order of the virtual operations are binary interface.
//
// The error convention, everywhere in the library:
//     HRESULT CThing::Do() {
//         CZemEntry scope(TEXT("CThing::Do"));
//         try {
//             scope = Callee();  // throws the HRESULT when it is negative
//             if (!Fits(name))
//                 ThrowError(scope, E_INVALIDARG, kSource, 42, TEXT("%s: no"), name);
//         } catch (...) {
//             LogCaught(scope, kSource, kCatchLine);
//         }
//         return scope.GetResult();
//     }
#pragma once

#include "platform/platform.h"

#include <concepts>
#include <cstddef>
#include <cstring>
#include <type_traits>

#pragma GCC visibility push(default)
class CEntryPoint;  // here, because a type's first declaration decides what is exported of it
#pragma GCC visibility pop

// Formats the message once, logs it through the scope and throws the scope's result (the chain id)
// as an HRESULT.
[[noreturn]] void ThrowError(CEntryPoint& scope, HRESULT hr, const WCHAR* file, LONG line,
                             const WCHAR* format, ...);

#pragma GCC visibility push(default)
// These classes have no virtual destructor: it would take a slot in the table that other modules
// know. They live on the stack and are never deleted through a base.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class CEntryPointException {
public:
    virtual HRESULT LogEntryPoint() = 0;
    virtual HRESULT LogError(HRESULT hr, const WCHAR* file, LONG line, const WCHAR* format,
                             ...) = 0;
    // Reports an event to the system's event log; type 1 (EVENTLOG_ERROR_TYPE) adds the place and
    // the code.
    virtual HRESULT WriteEventLog(const WCHAR* source, WORD type, HRESULT hr, const WCHAR* file,
                                  LONG line, const WCHAR* format, ...);

    HRESULT GetResult() const { return m_result; }
    bool Failed() const { return m_result < 0; }
    void SetResult(HRESULT hr) { m_result = hr; }
    BOOL IsLogged() const { return m_logged; }
    LONG GetLine() const { return m_line; }
    const WCHAR* GetFile() const { return m_file; }

protected:
    CEntryPointException();

    static constexpr int kNameLength = 128;
    static constexpr int kFileLength = 32;

    WCHAR m_function[kNameLength];
    WCHAR m_file[kFileLength];
    LONG m_line;
    LONG m_reserved1;  // only copied
    DWORD m_startTick;
    DWORD m_reserved2;  // only copied
    SYSTEMTIME m_time;  // of the last record written
    BOOL m_logged;
    HRESULT m_result;

    friend void ThrowError(CEntryPoint& scope, HRESULT hr, const WCHAR* file, LONG line,
                           const WCHAR* format, ...);
};

// None of the operations that log throws, whatever the error log's module does.
class CEntryPoint : public CEntryPointException {
public:
    CEntryPoint();
    // Formats the function name, at most 127 characters.
    explicit CEntryPoint(const WCHAR* format, ...);
    CEntryPoint(const CEntryPoint& other);
    CEntryPoint& operator=(const CEntryPoint& other);
    // Checks a callee's result: stores it and, when it is negative, writes an entry-point record
    // and throws it.
    CEntryPoint& operator=(HRESULT hr);

    HRESULT LogEntryPoint() override;
    // Writes an error record; from then on the result is the chain id that the error log gave.
    HRESULT LogError(HRESULT hr, const WCHAR* file, LONG line, const WCHAR* format, ...) override;
    virtual int LogMsg(const WCHAR* format, ...);
    virtual int LogWarning(const WCHAR* format, ...);
    virtual int LogOwnerInfo(LONG id, const WCHAR* a, const WCHAR* b, const WCHAR* c,
                             const WCHAR* d, LONG e);
    virtual int Trace(const WCHAR* format, ...);

protected:
    DWORD m_category;  // 0 here: derived classes set theirs
    DWORD m_chainId;
};

#pragma GCC visibility pop

class CZemEntry : public CEntryPoint {
public:
    // A name without a conversion, given as a literal as nearly all are: it is copied, not
    // formatted.
    class CPlainName {
    public:
        template <size_t kUnits>
        consteval CPlainName(const WCHAR (&text)[kUnits]) : m_text(text), m_bytes(sizeof(text)) {
            static_assert(kUnits <= kNameLength);
            for (const WCHAR unit : text)
                if (unit == u'%') throw "a name with a conversion is no plain one";
        }

    private:
        friend class CZemEntry;
        const WCHAR* m_text;
        size_t m_bytes;
    };

    explicit CZemEntry(CPlainName function) {
        m_category = kCategoryZem;
        std::memcpy(m_function, function.m_text, function.m_bytes);
    }
    // Not for literals, which are checked above: an array is no pointer here.
    template <std::same_as<const WCHAR*> Pointer>
    explicit CZemEntry(const Pointer& function) : CEntryPoint(function) {
        m_category = kCategoryZem;
    }
    virtual ~CZemEntry();
    using CEntryPoint::operator=;
    static constexpr DWORD kCategoryZem = 7;

    virtual int LogSlowOperation(DWORD elapsed_ms, const WCHAR* format, ...);
};
#pragma GCC diagnostic pop

// Turns the exception in flight into the scope's result: an HRESULT is logged unless it was, a
// _com_error and anything else always. `file` and `line` name the catch of the calling function.
// REQUIRES: called inside a catch clause.
void LogCaught(CEntryPoint& scope, const WCHAR* file, LONG line);

// Source names that are part of a log record. The line numbers beside them are identities of
// records, constants that stay when code moves: not the lines of a file.
inline constexpr const WCHAR* kSourceCmdHdlr = TEXT("httpcmdhdlr.cpp");
inline constexpr const WCHAR* kSourceXactn = TEXT("httpxactn.cpp");
inline constexpr const WCHAR* kSourceEntry = TEXT("zemhttpd.cpp");
