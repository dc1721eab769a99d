// URL cooking. The order matters for safety: decode, turn backslashes, drop dot segments, and only
// then route, so that no spelling of a path reaches another prefix than the one it was matched by.
#include "platform/posix/http_url.h"

#include "platform/posix/http_names.h"
#include "platform/posix/http_parser.h"

namespace posix {
namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Reads one byte, decoded; -1 at a bad escape.
int NextByte(std::string_view raw, size_t& at) {
    const char c = raw[at++];
    if (c != '%') return static_cast<uint8_t>(c);
    if (raw.size() - at < 2) return -1;
    const int high = HexDigit(raw[at]), low = HexDigit(raw[at + 1]);
    if (high < 0 || low < 0) return -1;
    at += 2;
    return high * 16 + low;
}

// Reads one character; -1 for anything but well-formed UTF-8 in its shortest form.
int32_t NextChar(std::string_view raw, size_t& at) {
    const int first = NextByte(raw, at);
    if (first < 0x80) return first;
    const int extra = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1;
    if (first < 0xC2 || first > 0xF4) return -1;
    int32_t c = first & (0x3F >> extra);
    for (int i = 0; i < extra; ++i) {
        if (at == raw.size()) return -1;
        const int next = NextByte(raw, at);
        if (next < 0x80 || next > 0xBF) return -1;
        c = (c << 6) | (next & 0x3F);
    }
    constexpr int32_t kLowest[] = {0, 0x80, 0x800, 0x10000};
    if (c < kLowest[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return -1;
    return c;
}

// Builds the cooked path segment by segment.
class CPathCooker {
public:
    explicit CPathCooker(CookedPath& path) : m_path(path) { m_path.length = 0; }

    int Add(int32_t c) {
        if (c == '/') return EndSegment(true);
        if (c > 0xFFFF) {
            Put(static_cast<WCHAR>(0xD800 + ((c - 0x10000) >> 10)));
            Put(static_cast<WCHAR>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        } else {
            Put(static_cast<WCHAR>(c));
        }
        return 0;
    }
    int Finish() { return EndSegment(false); }

private:
    void Put(WCHAR c) { m_path.text[m_path.length++] = c; }

    int EndSegment(bool slash) {
        const size_t length = m_path.length - m_segment;
        const WCHAR* text = m_path.text + m_segment;
        if (length > kMaxSegmentChars) return 414;
        if (length == 1 && text[0] == '.') {
            m_path.length = m_segment;
            return 0;
        }
        if (length == 2 && text[0] == '.' && text[1] == '.') {
            // The root's slash stands at 0, so a segment that starts at 1 has nothing above it.
            if (m_segment <= 1) return 400;
            size_t parent = m_segment - 1;
            while (m_path.text[parent - 1] != '/')
                --parent;
            m_path.length = m_segment = parent;
            return 0;
        }
        if (slash) {
            if (length > 0 && ++m_segments > kMaxSegments) return 414;
            Put('/');
            m_segment = m_path.length;
        } else if (length > 0 && ++m_segments > kMaxSegments) {
            return 414;
        }
        return 0;
    }

    CookedPath& m_path;
    size_t m_segment = 0;   // where the current segment begins
    size_t m_segments = 0;  // all that were ever opened, not only those that are left
};

WCHAR Lower(WCHAR c) {
    return c >= 'A' && c <= 'Z' ? static_cast<WCHAR>(c | 0x20) : c;
}

bool LiesUnder(std::u16string_view path, std::u16string_view prefix) {
    size_t matched = 0;
    for (size_t i = 0; i < path.size() && matched < prefix.size(); ++i) {
        if (path[i] == '/' && i > 0 && path[i - 1] == '/') continue;
        if (Lower(path[i]) != prefix[matched]) return false;
        ++matched;
    }
    return matched == prefix.size() || (matched + 1 == prefix.size() && matched > 0);
}

}  // namespace

int SplitTarget(HTTP_VERB verb, std::string_view target, TargetParts& parts) {
    parts = {};
    // CONNECT asks for a tunnel, whatever its target looks like: nobody makes one here.
    if (target.empty() || verb == HttpVerbCONNECT) return 400;
    if (target == "*") {
        parts.path = target;
        return verb == HttpVerbOPTIONS ? 404 : 400;
    }
    if (target.front() != '/') {
        constexpr std::string_view kScheme = "http://";
        if (!EqualsNoCase(target.substr(0, kScheme.size()), kScheme)) return 400;
        target.remove_prefix(kScheme.size());
        const size_t end = target.find_first_of("/?");
        parts.authority = target.substr(0, end);
        if (parts.authority.empty() || !IsValidHost(parts.authority)) return 400;
        target = end == std::string_view::npos ? std::string_view() : target.substr(end);
    }
    const size_t question = target.find('?');
    parts.path = target.substr(0, question);
    if (question != std::string_view::npos) parts.query = target.substr(question);
    if (parts.path.empty()) parts.path = "/";
    return 0;
}

int CookPath(std::string_view raw, CookedPath& path) {
    CPathCooker cooker(path);
    for (size_t at = 0; at < raw.size();) {
        int32_t c = NextChar(raw, at);
        if (c < 0x20) return 400;
        if (c == '\\') c = '/';
        if (const int status = cooker.Add(c)) return status;
    }
    return cooker.Finish();
}

bool ParsePrefix(std::u16string_view text, UrlPrefix& prefix) {
    constexpr std::u16string_view kScheme = u"http://";
    if (text.size() < kScheme.size()) return false;
    for (size_t i = 0; i < kScheme.size(); ++i)
        if (Lower(text[i]) != kScheme[i]) return false;
    text.remove_prefix(kScheme.size());
    if (text.size() < 4 || (text[0] != '*' && text[0] != '+') || text[1] != ':') return false;
    text.remove_prefix(2);
    uint32_t port = 0;
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        port = port * 10 + (text[digits++] - u'0');
        if (port > 65535) return false;
    }
    if (digits == 0 || digits == text.size()) return false;
    text.remove_prefix(digits);
    if (text.front() != '/' || text.back() != '/') return false;
    prefix.port = static_cast<uint16_t>(port);
    prefix.path.clear();
    for (WCHAR c : text) {
        if (c < 0x20 || c == '?' || c == '#' || c == '%' || c == '\\') return false;
        prefix.path.push_back(Lower(c));
    }
    return prefix.path.find(u"//") == std::u16string::npos &&
           prefix.path.find(u"/./") == std::u16string::npos &&
           prefix.path.find(u"/../") == std::u16string::npos;
}

const UrlPrefix* MatchPrefix(const std::vector<UrlPrefix>& prefixes, uint16_t port,
                             std::u16string_view path) {
    const UrlPrefix* best = nullptr;
    for (const UrlPrefix& prefix : prefixes) {
        if (prefix.port != port || !LiesUnder(path, prefix.path)) continue;
        if (!best || prefix.path.size() > best->path.size()) best = &prefix;
    }
    return best;
}

}  // namespace posix
