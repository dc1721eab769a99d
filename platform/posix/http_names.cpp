// The name tables. Names are grouped by length, so that a look-up compares with five at most.
#include "platform/posix/http_names.h"

#include <array>
#include <cstring>

namespace posix {
namespace {

constexpr std::array<std::string_view, HttpHeaderRequestMaximum> kRequestNames = {
    "cache-control",
    "connection",
    "date",
    "keep-alive",
    "pragma",
    "trailer",
    "transfer-encoding",
    "upgrade",
    "via",
    "warning",
    "allow",
    "content-length",
    "content-type",
    "content-encoding",
    "content-language",
    "content-location",
    "content-md5",
    "content-range",
    "expires",
    "last-modified",
    "accept",
    "accept-charset",
    "accept-encoding",
    "accept-language",
    "authorization",
    "cookie",
    "expect",
    "from",
    "host",
    "if-match",
    "if-modified-since",
    "if-none-match",
    "if-range",
    "if-unmodified-since",
    "max-forwards",
    "proxy-authorization",
    "referer",
    "range",
    "te",
    "translate",
    "user-agent"};

constexpr std::array<std::string_view, HttpHeaderResponseMaximum> kResponseNames = {
    "Cache-Control",
    "Connection",
    "Date",
    "Keep-Alive",
    "Pragma",
    "Trailer",
    "Transfer-Encoding",
    "Upgrade",
    "Via",
    "Warning",
    "Allow",
    "Content-Length",
    "Content-Type",
    "Content-Encoding",
    "Content-Language",
    "Content-Location",
    "Content-MD5",
    "Content-Range",
    "Expires",
    "Last-Modified",
    "Accept-Ranges",
    "Age",
    "ETag",
    "Location",
    "Proxy-Authenticate",
    "Retry-After",
    "Server",
    "Set-Cookie",
    "Vary",
    "WWW-Authenticate"};

constexpr size_t kLongestName = 19;
constexpr size_t kBucketSize = 5;

struct NameBuckets {
    int8_t id[kLongestName + 1][kBucketSize];
};

constexpr NameBuckets MakeBuckets() {
    NameBuckets buckets{};
    for (auto& bucket : buckets.id) {
        for (auto& id : bucket)
            id = kUnknownHeader;
    }
    for (size_t i = 0; i < kRequestNames.size(); ++i) {
        auto& bucket = buckets.id[kRequestNames[i].size()];
        size_t place = 0;
        while (bucket[place] != kUnknownHeader)
            ++place;  // a full bucket fails to compile
        bucket[place] = static_cast<int8_t>(i);
    }
    return buckets;
}

constexpr NameBuckets kBuckets = MakeBuckets();

constexpr std::pair<std::string_view, HTTP_VERB> kVerbs[] = {{"GET", HttpVerbGET},
                                                             {"POST", HttpVerbPOST},
                                                             {"DELETE", HttpVerbDELETE},
                                                             {"HEAD", HttpVerbHEAD},
                                                             {"PUT", HttpVerbPUT},
                                                             {"OPTIONS", HttpVerbOPTIONS},
                                                             {"TRACE", HttpVerbTRACE},
                                                             {"CONNECT", HttpVerbCONNECT},
                                                             {"TRACK", HttpVerbTRACK},
                                                             {"MOVE", HttpVerbMOVE},
                                                             {"COPY", HttpVerbCOPY},
                                                             {"PROPFIND", HttpVerbPROPFIND},
                                                             {"PROPPATCH", HttpVerbPROPPATCH},
                                                             {"MKCOL", HttpVerbMKCOL},
                                                             {"LOCK", HttpVerbLOCK},
                                                             {"UNLOCK", HttpVerbUNLOCK},
                                                             {"SEARCH", HttpVerbSEARCH}};

constexpr std::pair<int, std::string_view> kReasons[] = {{400, "Bad Request"},
                                                         {404, "Not Found"},
                                                         {411, "Length Required"},
                                                         {413, "Content Too Large"},
                                                         {414, "URI Too Long"},
                                                         {431, "Request Header Fields Too Large"},
                                                         {501, "Not Implemented"},
                                                         {503, "Service Unavailable"},
                                                         {505, "HTTP Version Not Supported"}};

// Whether a field's name is that one. Token characters, and these names' letters, digits and
// dashes: the 0x20 bit is the case. Whole words, of which the last two overlap, so that no byte
// behind the name is read.
bool IsName(const char* name, const char* known, size_t length) {
    const auto differ = [=](auto word, size_t at) {
        decltype(word) a, b;
        memcpy(&a, name + at, sizeof word);
        memcpy(&b, known + at, sizeof word);
        return static_cast<decltype(word)>((a | 0x2020202020202020u) ^ b);
    };
    if (length >= sizeof(uint64_t)) {
        uint64_t differs = differ(uint64_t{}, 0) | differ(uint64_t{}, length - sizeof(uint64_t));
        if (length > 2 * sizeof(uint64_t)) differs |= differ(uint64_t{}, sizeof(uint64_t));
        return differs == 0;
    }
    if (length >= sizeof(uint32_t))
        return (differ(uint32_t{}, 0) | differ(uint32_t{}, length - sizeof(uint32_t))) == 0;
    return (differ(uint16_t{}, 0) | differ(uint16_t{}, length - sizeof(uint16_t))) == 0;
}

}  // namespace

bool EqualsNoCase(std::string_view text, std::string_view lower) {
    if (text.size() != lower.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
        if (c != lower[i]) return false;
    }
    return true;
}

int FindRequestHeader(const char* name, size_t length) {
    if (length > kLongestName) return kUnknownHeader;
    for (int8_t id : kBuckets.id[length]) {
        if (id == kUnknownHeader) break;
        const char* known = kRequestNames[static_cast<size_t>(id)].data();
        if ((name[0] | 0x20) == known[0] && IsName(name, known, length)) return id;
    }
    return kUnknownHeader;
}

std::string_view ResponseHeaderName(int id) {
    return kResponseNames[static_cast<size_t>(id)];
}

HTTP_VERB FindVerb(std::string_view method) {
    for (const auto& [name, verb] : kVerbs)
        if (name == method) return verb;
    return HttpVerbUnknown;
}

std::string_view ReasonOf(int status) {
    for (const auto& [number, reason] : kReasons)
        if (number == status) return reason;
    return "Error";
}

}  // namespace posix
