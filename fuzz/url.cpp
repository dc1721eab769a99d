// Request targets: taken apart, cooked, and matched against prefixes. The input is a target, or a
// prefix to register, as its first byte says.
#include "fuzz/fuzz.h"
#include "platform/posix/http_names.h"
#include "platform/posix/http_url.h"
#include "platform/posix/utf.h"

using fuzz::Require;

namespace {

bool Contains(std::string_view whole, std::string_view part) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

// No segment of a cooked path may lead anywhere.
void CheckCooked(std::u16string_view path, std::string_view raw) {
    Require(path.size() <= raw.size(), "cooking never lengthens");
    size_t from = 0, segments = 0;
    while (from <= path.size()) {
        const size_t end = std::min(path.find(u'/', from), path.size());
        const std::u16string_view segment = path.substr(from, end - from);
        Require(segment != u"." && segment != u"..", "no dot segment is left");
        Require(segment.size() <= posix::kMaxSegmentChars, "segments are bounded");
        segments += segment.empty() ? 0 : 1;
        from = end + 1;
    }
    Require(segments <= posix::kMaxSegments, "their number is bounded");
    for (const char16_t c : path)
        Require(c >= 0x20 && c != u'\\', "no control character and no backslash is left");
}

// The cooked path, escaped again: must cook to itself.
std::string Escaped(std::u16string_view path) {
    std::string text;
    for (const char c : posix::ToUtf8(path)) {
        if (c == '%' || c == '?' || c == '#' || static_cast<unsigned char>(c) >= 0x80) {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned char>(c));
            text += escape;
        } else {
            text += c;
        }
    }
    return text;
}

// What MatchPrefix means, said in another way.
bool LiesUnder(std::u16string path, const std::u16string& prefix) {
    for (size_t at; (at = path.find(u"//")) != std::u16string::npos;)
        path.erase(at, 1);
    for (char16_t& c : path)
        c = c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c;
    return path.starts_with(prefix) || (path + u'/' == prefix && !path.empty());
}

void CookTarget(HTTP_VERB verb, std::string_view target) {
    posix::TargetParts parts;
    const int status = posix::SplitTarget(verb, target, parts);
    Require(status == 0 || status == 400 || status == 404, "a target is taken or refused");
    if (status != 0) return;
    Require(Contains(target, parts.authority) && Contains(target, parts.query),
            "parts lie in the target");
    Require(!parts.path.empty(), "there is always a path");

    static posix::CookedPath path, again;
    const int cooked = posix::CookPath(parts.path, path);
    Require(cooked == 0 || cooked == 400 || cooked == 414, "a path is cooked or refused");
    if (cooked != 0) return;
    const std::u16string_view text(path.text, path.length);
    CheckCooked(text, parts.path);
    const std::string escaped = Escaped(text);
    if (escaped.size() <= posix::kMaxHeadBytes) {
        Require(posix::CookPath(escaped, again) == 0 &&
                    text == std::u16string_view(again.text, again.length),
                "a cooked path cooks to itself");
    }

    static const std::vector<posix::UrlPrefix> kPrefixes = {
        {80, u"/"}, {80, u"/zem/"}, {80, u"/media/"}, {80, u"/media/deep/"}, {81, u"/zem/"}};
    const posix::UrlPrefix* best = nullptr;
    for (const posix::UrlPrefix& prefix : kPrefixes) {
        if (prefix.port != 80 || !LiesUnder(std::u16string(text), prefix.path)) continue;
        if (!best || best->path.size() < prefix.path.size()) best = &prefix;
    }
    Require(posix::MatchPrefix(kPrefixes, 80, text) == best, "the longest prefix is found");
}

void RegisterPrefix(std::string_view bytes) {
    const std::u16string text = posix::ToUtf16(bytes);
    posix::UrlPrefix prefix;
    if (!posix::ParsePrefix(text, prefix)) return;
    Require(prefix.path.front() == u'/' && prefix.path.back() == u'/', "a prefix has both slashes");
    const std::vector<posix::UrlPrefix> registered{prefix};
    Require(posix::MatchPrefix(registered, prefix.port, prefix.path) != nullptr,
            "a prefix lies under itself");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::CReader reader(data, std::min(size, posix::kMaxHeadBytes));
    const auto choice = reader.Take<uint8_t>();
    const std::string_view text = reader.TakeRest();
    if (choice == 'p') {
        RegisterPrefix(text);
    } else {
        CookTarget(choice == 'o'   ? HttpVerbOPTIONS
                   : choice == 'c' ? HttpVerbCONNECT
                                   : HttpVerbGET,
                   text);
    }
    return 0;
}
