// One error-log record as it waits in the queue, and its line of text. Records are plain
// arrays so that taking one costs a copy and never an allocation. Filled by any thread, turned into
// text by the writer thread.
#pragma once

#include "mediaio/errorlog/sink.h"
#include "platform/platform.h"

#include <cstdint>
#include <string>

enum class ErrorRecordKind : uint8_t { kText, kScope, kOwner };

struct ErrorRecord {
    static constexpr size_t kFileChars = 32;
    static constexpr size_t kTextChars = 256;

    SYSTEMTIME time;
    ErrorRecordKind kind;
    bool mayContinue;  // the text is a full piece: the thread's next record may go on with it
    uint16_t piece;    // 0, or the number of full pieces of the same message before this one
    DWORD level;
    DWORD threadId;
    HRESULT hr;
    DWORD chainId;
    LONG line;
    DWORD elapsed_ms;
    WCHAR file[kFileChars];  // NUL-terminated
    size_t text_chars;
    WCHAR text[kTextChars];  // not terminated; the first text_chars count
};

// Copies at most capacity - 1 characters of source (null: none) and terminates; returns how many
// were copied.
size_t CopyText(WCHAR* target, size_t capacity, const WCHAR* source);

// Append a record's line in three parts, as UTF-8: when, what kind, which thread and where; the
// text, of as many records as it has pieces; and the end with its line feed. Control characters,
// and characters that change the direction or the line of what follows, are escaped; ill-formed
// UTF-16 becomes U+FFFD. One message has one format throughout.
void AppendRecordStart(const ErrorRecord& record, ErrorLogFormat format, std::string& out);
void AppendRecordText(const ErrorRecord& record, ErrorLogFormat format, std::string& out);
void AppendRecordEnd(ErrorLogFormat format, std::string& out);

// Appends the whole line that tells that records were dropped at the given local time.
void AppendDroppedLine(const SYSTEMTIME& time, uint64_t dropped, ErrorLogFormat format,
                       std::string& out);
