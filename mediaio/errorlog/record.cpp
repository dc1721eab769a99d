// record.cpp: how a record reads. Runs on the log's writer thread only; CopyText on every logging
// thread.
#include "mediaio/errorlog/record.h"

#include <algorithm>
#include <cstdio>

#include "mediaio/errorlog.h"

namespace {

struct LevelWord {
    DWORD level;
    const char* word;
};

constexpr LevelWord kLevelWords[] = {
    {kErrorLogLevelMessage, "message"},    {kErrorLogLevelWarning, "warning"},
    {kErrorLogLevelError, "error"},        {kErrorLogLevelTrace, "trace"},
    {kErrorLogLevelSlowOperation, "slow"},
};

template <typename... Values>
void AppendFormat(std::string& out, const char* format, Values... values) {
    char buffer[96];
    const int length = std::snprintf(buffer, sizeof buffer, format, values...);
    if (length > 0) out.append(buffer, std::min(static_cast<size_t>(length), sizeof buffer - 1));
}

void AppendStart(const SYSTEMTIME& time, const char* word, DWORD threadId, std::string& out) {
    AppendFormat(out, "%04u-%02u-%02u %02u:%02u:%02u.%03u %-7s [%u] ", unsigned{time.wYear},
                 unsigned{time.wMonth}, unsigned{time.wDay}, unsigned{time.wHour},
                 unsigned{time.wMinute}, unsigned{time.wSecond}, unsigned{time.wMilliseconds}, word,
                 static_cast<unsigned>(threadId));
}

void AppendWhenAndWho(const ErrorRecord& record, std::string& out) {
    char number[24];
    std::snprintf(number, sizeof number, "level%u", static_cast<unsigned>(record.level));
    const char* word = number;
    if (record.kind == ErrorRecordKind::kScope)
        word = "scope";
    else if (record.kind == ErrorRecordKind::kOwner)
        word = "owner";
    else
        for (const LevelWord& entry : kLevelWords)
            if (entry.level == record.level) word = entry.word;
    AppendStart(record.time, word, record.threadId, out);
}

void AppendUtf8(char32_t c, std::string& out) {
    const auto tail = [](char32_t bits) { return static_cast<char>(0x80 | (bits & 0x3F)); };
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += {static_cast<char>(0xC0 | (c >> 6)), tail(c)};
    } else if (c < 0x10000) {
        out += {static_cast<char>(0xE0 | (c >> 12)), tail(c >> 6), tail(c)};
    } else {
        out += {static_cast<char>(0xF0 | (c >> 18)), tail(c >> 12), tail(c >> 6), tail(c)};
    }
}

// What could forge a line or rearrange it on a terminal: C0, DEL, C1, line and paragraph
// separators, and the embedding, override and isolate marks of bidirectional text.
bool NeedsEscape(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029 ||
           (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0x200E ||
           c == 0x200F || c == 0x061C;
}

void AppendCharacter(char32_t c, std::string& out) {
    if (!NeedsEscape(c))
        AppendUtf8(c, out);
    else if (c == '\n')
        out += "\\n";
    else if (c == '\r')
        out += "\\r";
    else if (c == '\t')
        out += "\\t";
    else
        AppendFormat(out, c < 0x100 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(c));
}

void AppendText(const WCHAR* text, size_t count, std::string& out) {
    constexpr char32_t kReplacement = 0xFFFD;
    for (size_t i = 0; i < count; ++i) {
        const auto unit = static_cast<char32_t>(static_cast<uint16_t>(text[i]));
        if (unit < 0xD800 || unit > 0xDFFF) {
            AppendCharacter(unit, out);
            continue;
        }
        const char32_t next =
            i + 1 < count ? static_cast<char32_t>(static_cast<uint16_t>(text[i + 1])) : 0;
        if (unit < 0xDC00 && next >= 0xDC00 && next <= 0xDFFF) {
            AppendCharacter(0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00), out);
            ++i;
        } else {
            AppendCharacter(kReplacement, out);
        }
    }
}

void AppendPosition(const ErrorRecord& record, std::string& out) {
    const size_t start = out.size();
    if (record.file[0] != 0) {
        AppendText(record.file, std::char_traits<WCHAR>::length(record.file), out);
        AppendFormat(out, "(%d) ", static_cast<int>(record.line));
    }
    if (record.hr != 0) AppendFormat(out, "0x%08x ", static_cast<unsigned>(record.hr));
    if (record.chainId != 0 && record.chainId != static_cast<DWORD>(record.hr))
        AppendFormat(out, "chain 0x%08x ", static_cast<unsigned>(record.chainId));
    if (record.elapsed_ms != 0)
        AppendFormat(out, "%u ms ", static_cast<unsigned>(record.elapsed_ms));
    if (out.size() > start) {
        out.back() = ':';
        out += ' ';
    }
}

}  // namespace

size_t CopyText(WCHAR* target, size_t capacity, const WCHAR* source) {
    size_t count = 0;
    if (source)
        while (count + 1 < capacity && source[count] != 0) {
            target[count] = source[count];
            ++count;
        }
    target[count] = 0;
    return count;
}

void AppendRecordStart(const ErrorRecord& record, std::string& out) {
    AppendWhenAndWho(record, out);
    switch (record.kind) {
        case ErrorRecordKind::kText:
            AppendPosition(record, out);
            break;
        case ErrorRecordKind::kScope:
            AppendFormat(out, "0x%08x in ", static_cast<unsigned>(record.hr));
            break;
        case ErrorRecordKind::kOwner:
            AppendFormat(out, "%d: ", static_cast<int>(record.hr));
            break;
    }
}

void AppendRecordText(const ErrorRecord& record, std::string& out) {
    AppendText(record.text, record.text_chars, out);
    if (record.kind == ErrorRecordKind::kOwner)
        AppendFormat(out, ", %d", static_cast<int>(record.line));
}

void AppendDroppedLine(const SYSTEMTIME& time, uint64_t dropped, std::string& out) {
    AppendStart(time, "warning", GetCurrentThreadId(), out);
    AppendFormat(out,
                 "error log: %llu older record%s dropped, the log could not be written as fast",
                 static_cast<unsigned long long>(dropped), dropped == 1 ? " was" : "s were");
    out += '\n';
}
