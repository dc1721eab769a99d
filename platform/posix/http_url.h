// From a request target to the cooked URL, and the prefixes that requests are routed by. Pure
// functions, any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/http.h"
#include "platform/posix/http_limits.h"

namespace posix {

// A request target taken apart; everything refers to the target's own bytes.
struct TargetParts {
    std::string_view authority;  // of an absolute-form target, else empty
    std::string_view path;       // as sent, never empty
    std::string_view query;      // with its '?', or empty
};

// 0, or the status of the refusal.
int SplitTarget(HTTP_VERB verb, std::string_view target, TargetParts& parts);

// A path as the application sees it: percent-decoded once, backslashes turned, dot segments gone.
struct CookedPath {
    size_t length;
    WCHAR text[kMaxHeadBytes];
};

// 0, or the status of the refusal: 400 for a bad escape, ill-formed UTF-8, a control character or a
// path that climbs above the root, 414 for a segment too long or too many of them.
int CookPath(std::string_view raw, CookedPath& path);

// "http://*:PORT/path/": the path in lower case, with both slashes.
struct UrlPrefix {
    uint16_t port;
    std::u16string path;
};

// False for another form of prefix than those that can be registered.
bool ParsePrefix(std::u16string_view text, UrlPrefix& prefix);

// The longest of the prefixes of that port that the path lies under, or null. Repeated slashes of
// the path count as one; case does not matter in ASCII; the last slash of a prefix may be missing
// at the end of the path.
const UrlPrefix* MatchPrefix(const std::vector<UrlPrefix>& prefixes, uint16_t port,
                             std::u16string_view path);

}  // namespace posix
