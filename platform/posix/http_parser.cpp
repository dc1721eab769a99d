// The scanner of a request head and the rules for the fields that frame a message.
#include "platform/posix/http_parser.h"

#include <arpa/inet.h>

#include <array>
#include <bit>
#include <cstring>

#include "platform/posix/http_names.h"

namespace posix {
namespace {

static_assert(std::endian::native == std::endian::little, "ScanValue takes the lowest byte first");

constexpr uint8_t kToken = 1;   // a method's or a name's character
constexpr uint8_t kTarget = 2;  // a request target's: visible ASCII but '#'
constexpr uint8_t kHost = 4;    // a registered name's

constexpr std::array<uint8_t, 256> MakeClasses() {
    std::array<uint8_t, 256> classes{};
    for (int c = 0x21; c < 0x7F; ++c) {
        const bool alnum =
            (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        uint8_t bits = c == '#' ? 0 : kTarget;
        if (alnum || std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) !=
                         std::string_view::npos) {
            bits |= kToken;
        }
        if (alnum || std::string_view("-._~%!$&'()*+,;=").find(static_cast<char>(c)) !=
                         std::string_view::npos) {
            bits |= kHost;
        }
        classes[static_cast<size_t>(c)] = bits;
    }
    return classes;
}

constexpr std::array<uint8_t, 256> kClasses = MakeClasses();

bool Is(char c, uint8_t bits) {
    return (kClasses[static_cast<uint8_t>(c)] & bits) != 0;
}

const char* Skip(const char* p, const char* end, uint8_t bits) {
    while (p != end && Is(*p, bits))
        ++p;
    return p;
}

// The first byte that may not stand in a field value (a control character), or end.
const char* ScanValue(const char* p, const char* end) {
    constexpr uint64_t kOnes = 0x0101010101010101u, kHigh = 0x8080808080808080u;
    for (;;) {
        while (end - p >= 8) {
            uint64_t word;
            memcpy(&word, p, 8);
            const uint64_t del = word ^ (kOnes * 0x7F);
            const uint64_t found =
                (((word - kOnes * 0x20) & ~word) | ((del - kOnes) & ~del)) & kHigh;
            if (found) {
                p += std::countr_zero(found) / 8;
                break;
            }
            p += 8;
        }
        while (p != end && static_cast<uint8_t>(*p) >= 0x20 && *p != 0x7F)
            ++p;
        if (p == end || *p != '\t') return p;
        ++p;
    }
}

bool IsHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

// RFC 3986, 3.2.2: an escape has its two digits.
bool IsRegisteredName(std::string_view name) {
    for (size_t i = 0; i < name.size(); ++i) {
        if (!Is(name[i], kHost)) return false;
        if (name[i] != '%') continue;
        if (name.size() - i < 3 || !IsHexDigit(name[i + 1]) || !IsHexDigit(name[i + 2]))
            return false;
    }
    return true;
}

bool IsAddress6(std::string_view text) {
    char copy[INET6_ADDRSTRLEN]{};
    in6_addr address;
    if (text.size() >= sizeof copy) return false;
    text.copy(copy, text.size());
    return inet_pton(AF_INET6, copy, &address) == 1;
}

class CHeadParser {
public:
    CHeadParser(const char* data, size_t size, RequestHead& head)
        : m_data(data), m_pos(data), m_end(data + size), m_head(head) {}

    EParse Parse();

private:
    EParse Refuse(int status) {
        m_head.status = status;
        return EParse::Refused;
    }
    // The bytes ended. A head as long as is allowed will not get better by more.
    EParse More(int status_if_full) {
        return static_cast<size_t>(m_end - m_data) >= kMaxHeadBytes ? Refuse(status_if_full)
                                                                    : EParse::Incomplete;
    }
    std::string_view Text(const char* from, const char* to) const {
        return {from, static_cast<size_t>(to - from)};
    }
    EParse ParseRequestLine();
    EParse ParseVersion();
    EParse ParseFields();
    EParse ParseField();
    int NoteField(int id, std::string_view value);
    int NoteLength(std::string_view value);
    void NoteConnection(std::string_view value);
    EParse Finish();

    const char* const m_data;
    const char* m_pos;
    const char* const m_end;
    RequestHead& m_head;
    bool m_has_coding = false;
};

EParse CHeadParser::Parse() {
    m_head.status = 400;
    m_head.method = m_head.host = {};
    m_head.content_length = 0;
    m_head.has_host = m_head.has_length = m_head.chunked = false;
    m_head.close = m_head.expect_continue = false;
    m_head.header_count = 0;
    while (m_end - m_pos >= 2 && m_pos[0] == '\r' && m_pos[1] == '\n')
        m_pos += 2;
    const EParse line = ParseRequestLine();
    if (line != EParse::Done) return line;
    const EParse fields = ParseFields();
    if (fields != EParse::Done) return fields;
    return Finish();
}

EParse CHeadParser::ParseRequestLine() {
    const char* method = m_pos;
    m_pos = Skip(m_pos, m_end, kToken);
    if (static_cast<size_t>(m_pos - method) > kMaxMethodBytes) return Refuse(400);
    const bool blank = m_pos == method;  // nothing yet, or half of an empty line
    if (m_pos == m_end || (blank && *m_pos == '\r' && m_pos + 1 == m_end))
        return More(blank ? 400 : 414);
    if (*m_pos != ' ' || blank) return Refuse(400);
    m_head.method = Text(method, m_pos++);

    const char* target = m_pos;
    m_pos = Skip(m_pos, m_end, kTarget);
    if (m_pos == m_end) return More(414);
    if (*m_pos != ' ' || m_pos == target) return Refuse(400);
    m_head.target = Text(target, m_pos++);
    const EParse version = ParseVersion();
    if (version != EParse::Done) return version;
    m_head.verb = FindVerb(m_head.method);
    return static_cast<size_t>(m_pos - m_data) > kMaxHeadBytes ? Refuse(414) : EParse::Done;
}

EParse CHeadParser::ParseVersion() {
    static constexpr char kName[] = {'H', 'T', 'T', 'P', '/'};
    const auto digit = [](char c) { return c >= '0' && c <= '9'; };
    const size_t left = static_cast<size_t>(m_end - m_pos);
    for (size_t i = 0; i < 10 && i < left; ++i) {
        const char c = m_pos[i];
        const bool fits = i < 5    ? c == kName[i]
                          : i == 6 ? c == '.'
                          : i == 8 ? c == '\r'
                          : i == 9 ? c == '\n'
                                   : digit(c);
        if (!fits) return Refuse(400);
    }
    if (left < 10) return More(414);
    if (m_pos[5] >= '2') return Refuse(505);
    if (m_pos[5] == '0') return Refuse(400);
    m_head.minor_version = static_cast<uint8_t>(m_pos[7] - '0');
    m_head.close = m_head.minor_version == 0;
    m_pos += 10;
    return EParse::Done;
}

EParse CHeadParser::ParseFields() {
    for (;;) {
        if (m_pos == m_end) return More(431);
        if (*m_pos == '\r') {
            if (m_pos + 1 == m_end) return More(431);
            if (m_pos[1] != '\n') return Refuse(400);
            m_pos += 2;
            m_head.bytes = static_cast<uint32_t>(m_pos - m_data);
            return m_head.bytes > kMaxHeadBytes ? Refuse(431) : EParse::Done;
        }
        const EParse field = ParseField();
        if (field != EParse::Done) return field;
    }
}

EParse CHeadParser::ParseField() {
    const char* name = m_pos;
    m_pos = Skip(m_pos, m_end, kToken);
    if (m_pos == m_end) return More(431);
    if (*m_pos != ':' || m_pos == name) return Refuse(400);
    const char* name_end = m_pos++;
    while (m_pos != m_end && (*m_pos == ' ' || *m_pos == '\t'))
        ++m_pos;
    const char* value = m_pos;
    m_pos = ScanValue(m_pos, m_end);
    if (m_end - m_pos < 2) {
        if (m_pos != m_end && *m_pos != '\r') return Refuse(400);
        return More(431);
    }
    if (m_pos[0] != '\r' || m_pos[1] != '\n') return Refuse(400);
    const char* value_end = m_pos;
    while (value_end != value && (value_end[-1] == ' ' || value_end[-1] == '\t'))
        --value_end;
    m_pos += 2;
    if (static_cast<size_t>(m_pos - m_data) > kMaxHeadBytes) return Refuse(431);
    if (m_head.header_count == kMaxHeaderCount) return Refuse(431);

    HeaderField& field = m_head.headers[m_head.header_count++];
    field.name = static_cast<uint16_t>(name - m_data);
    field.name_length = static_cast<uint16_t>(name_end - name);
    field.value = static_cast<uint16_t>(value - m_data);
    field.value_length = static_cast<uint16_t>(value_end - value);
    field.id = static_cast<int16_t>(FindRequestHeader(name, field.name_length));
    if (field.id == kUnknownHeader) return EParse::Done;
    const int status = NoteField(field.id, Text(value, value_end));
    return status ? Refuse(status) : EParse::Done;
}

// The fields that decide where the message ends and what becomes of the connection; returns the
// status of a refusal, or 0.
int CHeadParser::NoteField(int id, std::string_view value) {
    switch (id) {
        case HttpHeaderHost:
            if (m_head.has_host || !IsValidHost(value)) return 400;
            m_head.has_host = true;
            m_head.host = value;
            return 0;
        case HttpHeaderContentLength:
            return NoteLength(value);
        case HttpHeaderTransferEncoding:
            if (value.empty()) return 400;
            if (m_has_coding || !EqualsNoCase(value, "chunked")) return 501;
            m_has_coding = m_head.chunked = true;
            return 0;
        case HttpHeaderConnection:
            NoteConnection(value);
            return 0;
        case HttpHeaderExpect:
            m_head.expect_continue = EqualsNoCase(value, "100-continue");
            return 0;
        default:
            return 0;
    }
}

int CHeadParser::NoteLength(std::string_view value) {
    if (m_head.has_length || value.empty()) return 400;
    uint64_t length = 0;
    bool too_large = false;
    for (char c : value) {
        if (c < '0' || c > '9') return 400;
        if (length > (INT64_MAX - 9) / 10) too_large = true;
        if (!too_large) length = length * 10 + static_cast<uint64_t>(c - '0');
    }
    if (too_large) return 413;
    m_head.has_length = true;
    m_head.content_length = length;
    return 0;
}

void CHeadParser::NoteConnection(std::string_view value) {
    while (!value.empty()) {
        const size_t comma = value.find(',');
        std::string_view item = value.substr(0, comma);
        while (!item.empty() && (item.front() == ' ' || item.front() == '\t'))
            item.remove_prefix(1);
        while (!item.empty() && (item.back() == ' ' || item.back() == '\t'))
            item.remove_suffix(1);
        if (EqualsNoCase(item, "close")) m_head.close = true;
        if (comma == std::string_view::npos) break;
        value.remove_prefix(comma + 1);
    }
}

EParse CHeadParser::Finish() {
    // HTTP/1.0 knows no transfer coding: whoever sends one does not frame as we would.
    if (m_head.chunked && (m_head.has_length || m_head.minor_version == 0)) return Refuse(400);
    if (!m_head.has_host && m_head.minor_version > 0) return Refuse(400);
    const bool wants_length = m_head.verb == HttpVerbPOST || m_head.verb == HttpVerbPUT;
    if (wants_length && !m_head.has_length && !m_head.chunked) return Refuse(411);
    if (m_head.minor_version == 0 || !m_head.HasBody()) m_head.expect_continue = false;
    return EParse::Done;
}

}  // namespace

EParse ParseHead(const char* data, size_t size, RequestHead& head) {
    return CHeadParser(data, size, head).Parse();
}

bool IsTokenChar(char c) {
    return Is(c, kToken);
}

bool IsValidHost(std::string_view host) {
    std::string_view port;
    if (!host.empty() && host.front() == '[') {
        const size_t close = host.find(']');
        if (close == std::string_view::npos || !IsAddress6(host.substr(1, close - 1))) return false;
        port = host.substr(close + 1);
    } else {
        const size_t colon = host.find(':');
        if (colon == 0 || !IsRegisteredName(host.substr(0, colon))) return false;
        if (colon != std::string_view::npos) port = host.substr(colon);
    }
    if (port.empty()) return true;
    if (port.front() != ':' || port.size() > 6) return false;
    uint32_t number = 0;
    for (char c : port.substr(1)) {
        if (c < '0' || c > '9') return false;
        number = number * 10 + static_cast<uint32_t>(c - '0');
    }
    return number <= 65535;
}

}  // namespace posix
