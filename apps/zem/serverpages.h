// The server's two text pages, read as values. Nothing received is trusted: a page that is none is
// a CZemError(kBadReply). Main thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "apps/zem/client/httpconn.h"

namespace zem {

struct VolumeStatus {
    int32_t hr = 0;            // why the volume could not be measured
    uint64_t free_bytes = 0;   // of what the server may use
    uint64_t total_bytes = 0;  // 0: it could not be measured within the last 10 s
    std::string serverName;    // not printable as it stands

    bool Known() const { return hr == 0 && total_bytes > 0; }
};
VolumeStatus GetStatus(CHttpConnection& http);
// Why a status is not Known, in words.
std::string StatusFailureText(const VolumeStatus& status);

struct ClientList {
    std::vector<std::string> ids;  // as the server orders them; not printable as they stand
    bool perhapsMore = false;      // the page is so full that another line might not have fitted
    std::string serverName;
};
ClientList GetClients(CHttpConnection& http);

// Whether a plain GET of the file `name` would answer a page: the server takes any path that begins
// with a page's, in any case, for the page. It has made slashes of backslashes and resolved "." and
// ".." by then.
bool PageHidesFile(std::string_view name);
// Whether a GET or DELETE of it is one of a file at all.
bool IsServed(std::string_view name);

}  // namespace zem
