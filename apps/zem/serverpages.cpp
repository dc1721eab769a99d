// See serverpages.h.
#include "apps/zem/serverpages.h"

#include <algorithm>
#include <charconv>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {
namespace {

constexpr const char* kStatusPage = "/media/status";
constexpr const char* kClientsPage = "/media/clients";

// A page has at most 5199 bytes and ends with the last whole line that fits; the longest line is an
// ID of 777 bytes and CR LF.
constexpr size_t kClientsPage_bytes = 5199;
constexpr size_t kLongestLine_bytes = 779;

PageReply GetPage(CHttpConnection& http, const char* path) {
    PageReply reply = http.Get(path);
    if (reply.status != 200) {
        throw CZemError(ErrorKind::kBadReply,
                        "this does not look like a media server: " + std::string(path) + ": HTTP " +
                            std::to_string(reply.status) + " " + Printable(reply.reason),
                        0, kReasonOtherServer);
    }
    return reply;
}

// The next number of a blank-separated list; false when there is none that fills its word.
bool TakeNumber(std::string_view& text, int base, uint64_t& value) {
    const size_t end = text.find(' ');
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const auto [last, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    return !word.empty() && error == std::errc() && last == word.data() + word.size();
}

}  // namespace

VolumeStatus GetStatus(CHttpConnection& http) {
    const PageReply page = GetPage(http, kStatusPage);
    std::string_view rest = page.text;
    uint64_t failure = 0;
    VolumeStatus status;
    if (!TakeNumber(rest, 16, failure) || !TakeNumber(rest, 10, status.free_bytes) ||
        !TakeNumber(rest, 10, status.total_bytes) || !rest.empty() || failure > 0xFFFFFFFFu) {
        throw CZemError(ErrorKind::kBadReply,
                        "this is no status page: '" + Printable(page.text.substr(0, 60)) + "'");
    }
    status.hr = static_cast<int32_t>(static_cast<uint32_t>(failure));
    status.serverName = page.serverName;
    return status;
}

std::string StatusFailureText(const VolumeStatus& status) {
    if (status.hr != 0)
        return "the server cannot tell the space of its volume: " + HresultText(status.hr);
    return "the server could not tell the space of its volume within the last 10 seconds";
}

ClientList GetClients(CHttpConnection& http) {
    const PageReply page = GetPage(http, kClientsPage);
    const std::string& text = page.text;
    ClientList list;
    list.serverName = page.serverName;
    if (text == "No Clients\r\n") return list;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find("\r\n", at);
        if (end == std::string::npos)
            throw CZemError(ErrorKind::kBadReply, "the client list ends inside a line");
        list.ids.push_back(text.substr(at, end - at));
        at = end + 2;
    }
    list.perhapsMore = text.size() + kLongestLine_bytes > kClientsPage_bytes;
    return list;
}

namespace {

// What a GET of the file asks for, in small letters.
std::string AskedPath(std::string_view name) {
    std::string path;
    for (size_t at = name.starts_with('/') ? 1 : 0; at <= name.size();) {
        const size_t end = std::min(name.find_first_of("/\\", at), name.size());
        const std::string_view part = name.substr(at, end - at);
        if (part == "..")
            path.erase(std::min(path.rfind('/'), path.size()));
        else if (part != ".")
            path.append("/").append(part);
        at = end + 1;
    }
    std::transform(path.begin(), path.end(), path.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return path;
}

}  // namespace

bool PageHidesFile(std::string_view name) {
    const std::string path = AskedPath(name);
    return path.starts_with(kStatusPage) || path.starts_with(kClientsPage);
}

bool IsServed(std::string_view name) {
    const std::string path = AskedPath(name) + "/";
    return path.starts_with("/media/") || path.starts_with("/zem/");
}

}  // namespace zem
