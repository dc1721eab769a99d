// The four functions of the error-log interface, on the default sink. Called by any
// thread.
#include "mediaio/errorlog.h"

#include "mediaio/errorlog/errorlogsink.h"

#include <cstring>

namespace {

constexpr size_t kPieceChars = 127;

// What this thread wrote last: a full piece may be followed by the rest of the same message. A
// surrogate pair that the cut split is put together again, its first half waits here.
struct PieceEnd {
    unsigned pieces = 0;  // of a message that may go on; 0: it has ended
    SYSTEMTIME time{};
    DWORD level = 0;
    LONG line = 0;
    DWORD chainId = 0;
    WCHAR highSurrogate = 0;
};

thread_local PieceEnd t_pieceEnd;

DWORD ThreadId() {
    thread_local const DWORD id = GetCurrentThreadId();
    return id;
}

void StartRecord(ErrorRecord& record, ErrorRecordKind kind, const SYSTEMTIME* time) {
    if (time)
        record.time = *time;
    else
        GetLocalTime(&record.time);
    record.kind = kind;
    record.mayContinue = false;
    record.piece = 0;
    record.level = 0;
    record.threadId = ThreadId();
    record.hr = 0;
    record.chainId = 0;
    record.line = 0;
    record.elapsed_ms = 0;
    record.file[0] = 0;
    record.text_chars = 0;
}

bool IsHighSurrogate(WCHAR unit) {
    return (static_cast<unsigned>(unit) & 0xFC00u) == 0xD800u;
}

// Puts the piece into the record, as the next one of what the thread wrote before or as a first
// one.
void SetPiece(ErrorRecord& record, const WCHAR* text) {
    PieceEnd& end = t_pieceEnd;
    const bool continues = end.pieces != 0 && end.level == record.level &&
                           end.line == record.line && end.chainId == record.chainId &&
                           std::memcmp(&end.time, &record.time, sizeof end.time) == 0;
    size_t carried = 0;
    if (continues && end.highSurrogate != 0) record.text[carried++] = end.highSurrogate;
    const size_t count = CopyText(record.text + carried, ErrorRecord::kTextChars - carried, text);
    record.text_chars = carried + count;
    record.piece = static_cast<uint16_t>(continues ? end.pieces : 0);
    record.mayContinue = count == kPieceChars;
    end.highSurrogate = 0;
    end.pieces = record.mayContinue ? record.piece + 1u : 0;
    if (!record.mayContinue) return;
    end.time = record.time;
    end.level = record.level;
    end.line = record.line;
    end.chainId = record.chainId;
    if (IsHighSurrogate(record.text[record.text_chars - 1]))
        end.highSurrogate = record.text[--record.text_chars];
}

void AppendOwnerText(ErrorRecord& record, const WCHAR* text) {
    if (record.text_chars != 0 && record.text_chars + 2 < ErrorRecord::kTextChars) {
        record.text[record.text_chars++] = u',';
        record.text[record.text_chars++] = u' ';
    }
    record.text_chars += CopyText(record.text + record.text_chars,
                                  ErrorRecord::kTextChars - record.text_chars, text);
}

}  // namespace

DWORD ErrorLogCreateChainId(HRESULT hr) {
    return static_cast<DWORD>(hr);
}

BOOL ErrorLogWriteEntryPointW(DWORD chainIdOrResult, const SYSTEMTIME* time,
                              const WCHAR* functionName) {
    CErrorLogSink& sink = CErrorLogSink::Instance();
    if (!sink.Wants(ErrorRecordKind::kScope, 0)) return TRUE;
    ErrorRecord record;
    StartRecord(record, ErrorRecordKind::kScope, time);
    record.hr = static_cast<HRESULT>(chainIdOrResult);
    record.text_chars = CopyText(record.text, ErrorRecord::kTextChars, functionName);
    t_pieceEnd.pieces = 0;
    sink.Put(record);
    return TRUE;
}

BOOL ErrorLogWriteExW(HRESULT hr, const SYSTEMTIME* time, DWORD /*category*/, DWORD level,
                      const WCHAR* file, LONG line, DWORD elapsed_ms, const WCHAR* text,
                      DWORD chainId) {
    CErrorLogSink& sink = CErrorLogSink::Instance();
    if (!sink.Wants(ErrorRecordKind::kText, level)) return TRUE;
    ErrorRecord record;
    StartRecord(record, ErrorRecordKind::kText, time);
    record.level = level;
    record.hr = hr;
    record.chainId = chainId;
    record.line = line;
    record.elapsed_ms = elapsed_ms;
    CopyText(record.file, ErrorRecord::kFileChars, file);
    SetPiece(record, text);
    sink.Put(record);
    return TRUE;
}

BOOL ErrorLogWriteOwnerInfoW(LONG id, const SYSTEMTIME* time, const WCHAR* a, const WCHAR* b,
                             const WCHAR* c, const WCHAR* d, LONG e) {
    CErrorLogSink& sink = CErrorLogSink::Instance();
    if (!sink.Wants(ErrorRecordKind::kOwner, kErrorLogLevelMessage)) return TRUE;
    ErrorRecord record;
    StartRecord(record, ErrorRecordKind::kOwner, time);
    record.level = kErrorLogLevelMessage;
    record.hr = id;
    record.line = e;
    for (const WCHAR* text : {a, b, c, d})
        AppendOwnerText(record, text);
    t_pieceEnd.pieces = 0;
    sink.Put(record);
    return TRUE;
}
