// How a record reads. Runs on the log's writer thread only; CopyText on every logging
// thread.
#include "mediaio/errorlog/record.h"

#include "mediaio/errorlog.h"

#include <algorithm>
#include <cstdio>

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

// What local time is ahead of UTC now, as +hh:mm.
void AppendZone(std::string& out) {
    constexpr int64_t kPerMinute = 600'000'000;  // units of a FILETIME
    constexpr FILETIME kSomeTime = {0, 1u << 24};
    FILETIME local{};
    if (!FileTimeToLocalFileTime(&kSomeTime, &local)) return;
    const auto units = [](const FILETIME& time) {
        return static_cast<int64_t>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
    };
    const int64_t ahead_min = (units(local) - units(kSomeTime)) / kPerMinute;
    const auto minutes = static_cast<unsigned>(ahead_min < 0 ? -ahead_min : ahead_min);
    AppendFormat(out, "%c%02u:%02u", ahead_min < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

void AppendStart(const SYSTEMTIME& time, const char* word, DWORD threadId, ErrorLogFormat format,
                 std::string& out) {
    const auto append = [&](const char* pattern) {
        AppendFormat(out, pattern, unsigned{time.wYear}, unsigned{time.wMonth}, unsigned{time.wDay},
                     unsigned{time.wHour}, unsigned{time.wMinute}, unsigned{time.wSecond},
                     unsigned{time.wMilliseconds});
    };
    if (format == ErrorLogFormat::kText) {
        append("%04u-%02u-%02u %02u:%02u:%02u.%03u ");
        AppendFormat(out, "%-7s [%u] ", word, static_cast<unsigned>(threadId));
        return;
    }
    append("{\"time\":\"%04u-%02u-%02uT%02u:%02u:%02u.%03u");
    AppendZone(out);
    AppendFormat(out, "\",\"level\":\"%s\",\"thread\":%u,", word, static_cast<unsigned>(threadId));
}

void AppendWhenAndWho(const ErrorRecord& record, ErrorLogFormat format, std::string& out) {
    char number[24];
    std::snprintf(number, sizeof number, "level%u", static_cast<unsigned>(record.level));
    const char* word = number;
    if (record.kind == ErrorRecordKind::kScope) {
        word = "scope";
    } else if (record.kind == ErrorRecordKind::kOwner) {
        word = "owner";
    } else {
        for (const LevelWord& entry : kLevelWords)
            if (entry.level == record.level) word = entry.word;
    }
    AppendStart(record.time, word, record.threadId, format, out);
}

void AppendUtf8(char32_t c, std::string& out) {
    const auto tail = [](char32_t bits) { return static_cast<char>(0x80 | (bits & 0x3F)); };
    if (c < 0x80)
        out += static_cast<char>(c);
    else if (c < 0x800)
        out += {static_cast<char>(0xC0 | (c >> 6)), tail(c)};
    else if (c < 0x10000)
        out += {static_cast<char>(0xE0 | (c >> 12)), tail(c >> 6), tail(c)};
    else
        out += {static_cast<char>(0xF0 | (c >> 18)), tail(c >> 12), tail(c >> 6), tail(c)};
}

// What could forge a line or rearrange it on a terminal: C0, DEL, C1, line and paragraph
// separators, and the embedding, override and isolate marks of bidirectional text.
bool NeedsEscape(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029 ||
           (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0x200E ||
           c == 0x200F || c == 0x061C;
}

void AppendCharacter(char32_t c, ErrorLogFormat format, std::string& out) {
    const bool json = format == ErrorLogFormat::kJson;
    if (json && (c == '"' || c == '\\'))
        out += {'\\', static_cast<char>(c)};
    else if (!NeedsEscape(c))
        AppendUtf8(c, out);
    else if (c == '\n')
        out += "\\n";
    else if (c == '\r')
        out += "\\r";
    else if (c == '\t')
        out += "\\t";
    else
        AppendFormat(out, c < 0x100 && !json ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(c));
}

void AppendText(const WCHAR* text, size_t count, ErrorLogFormat format, std::string& out) {
    constexpr char32_t kReplacement = 0xFFFD;
    for (size_t i = 0; i < count; ++i) {
        const auto unit = static_cast<char32_t>(static_cast<uint16_t>(text[i]));
        if (unit < 0xD800 || unit > 0xDFFF) {
            AppendCharacter(unit, format, out);
            continue;
        }
        const char32_t next =
            i + 1 < count ? static_cast<char32_t>(static_cast<uint16_t>(text[i + 1])) : 0;
        if (unit < 0xDC00 && next >= 0xDC00 && next <= 0xDFFF) {
            AppendCharacter(0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00), format, out);
            ++i;
        } else {
            AppendCharacter(kReplacement, format, out);
        }
    }
}

void AppendPosition(const ErrorRecord& record, std::string& out) {
    const size_t start = out.size();
    if (record.file[0] != 0) {
        AppendText(record.file, std::char_traits<WCHAR>::length(record.file), ErrorLogFormat::kText,
                   out);
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

// The same as members of the object; what is not known is left out.
void AppendJsonPosition(const ErrorRecord& record, std::string& out) {
    if (record.file[0] != 0) {
        out += "\"source\":\"";
        AppendText(record.file, std::char_traits<WCHAR>::length(record.file), ErrorLogFormat::kJson,
                   out);
        AppendFormat(out, "\",\"line\":%d,", static_cast<int>(record.line));
    }
    if (record.hr != 0)
        AppendFormat(out, "\"result\":\"0x%08x\",", static_cast<unsigned>(record.hr));
    if (record.chainId != 0 && record.chainId != static_cast<DWORD>(record.hr))
        AppendFormat(out, "\"chain\":\"0x%08x\",", static_cast<unsigned>(record.chainId));
    if (record.elapsed_ms != 0)
        AppendFormat(out, "\"elapsed_ms\":%u,", static_cast<unsigned>(record.elapsed_ms));
}

void AppendJsonStart(const ErrorRecord& record, std::string& out) {
    switch (record.kind) {
        case ErrorRecordKind::kText:
            AppendJsonPosition(record, out);
            break;
        case ErrorRecordKind::kScope:
            AppendFormat(out, "\"result\":\"0x%08x\",", static_cast<unsigned>(record.hr));
            break;
        case ErrorRecordKind::kOwner:
            AppendFormat(out, "\"id\":%d,\"number\":%d,", static_cast<int>(record.hr),
                         static_cast<int>(record.line));
            break;
    }
    out += "\"message\":\"";
}

}  // namespace

size_t CopyText(WCHAR* target, size_t capacity, const WCHAR* source) {
    size_t count = 0;
    if (source) {
        while (count + 1 < capacity && source[count] != 0) {
            target[count] = source[count];
            ++count;
        }
    }
    target[count] = 0;
    return count;
}

void AppendRecordStart(const ErrorRecord& record, ErrorLogFormat format, std::string& out) {
    AppendWhenAndWho(record, format, out);
    if (format == ErrorLogFormat::kJson) {
        AppendJsonStart(record, out);
        return;
    }
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

void AppendRecordText(const ErrorRecord& record, ErrorLogFormat format, std::string& out) {
    AppendText(record.text, record.text_chars, format, out);
    if (record.kind == ErrorRecordKind::kOwner && format == ErrorLogFormat::kText)
        AppendFormat(out, ", %d", static_cast<int>(record.line));
}

void AppendRecordEnd(ErrorLogFormat format, std::string& out) {
    out += format == ErrorLogFormat::kJson ? "\"}\n" : "\n";
}

void AppendDroppedLine(const SYSTEMTIME& time, uint64_t dropped, ErrorLogFormat format,
                       std::string& out) {
    AppendStart(time, "warning", GetCurrentThreadId(), format, out);
    if (format == ErrorLogFormat::kJson) out += "\"message\":\"";
    AppendFormat(out,
                 "error log: %llu older record%s dropped, the log could not be written as fast",
                 static_cast<unsigned long long>(dropped), dropped == 1 ? " was" : "s were");
    AppendRecordEnd(format, out);
}
