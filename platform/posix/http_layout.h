// How a request lies in the buffer that the application posted: HTTP_REQUEST, the arrays it points
// to, addresses, strings, the cooked URL, and last the body. Pure functions, any thread.
#pragma once

#include <netinet/in.h>

#include "platform/posix/http_parser.h"
#include "platform/posix/http_url.h"

namespace posix {

union CSocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;

    size_t Size() const { return any.sa_family == AF_INET6 ? sizeof v6 : sizeof v4; }
    uint16_t Port() const;
    // An IPv4 address that reached a dual-stack socket, as an IPv4 address.
    void Unmap();
};

// The host of the full URL, always with a port: from the target, the Host field, or else the
// address that the client connected to.
struct CHostText {
    std::string_view host;
    size_t port_length;  // 0: `host` ends with one
    char port[8];
    char made[80];  // holds `host` where the client named none

    size_t Length() const { return host.size() + port_length; }
};

// A request ready to be delivered; refers to other storage and, with its host, to itself.
struct CRequestView {
    CRequestView() = default;
    CRequestView(const CRequestView&) = delete;
    CRequestView& operator=(const CRequestView&) = delete;

    const RequestHead* head;
    const char* base;  // where the head's offsets start
    const TargetParts* target;
    const CookedPath* path;
    const CSocketAddress* remote;
    const CSocketAddress* local;
    const char* body;   // decoded bytes at hand
    size_t body_bytes;  // their number
    bool body_done;     // these are the last
    const char* raw;    // what was received behind them, undecoded
    size_t raw_bytes;
    uint64_t connection_id;
    uint64_t request_id;
    CHostText host;
    size_t layout_bytes;  // that the request takes without its body; the body begins there
};

// Fills in the view's host and layout_bytes from the rest.
void Measure(CRequestView& view);

// Writes the request into buffer (of `size` bytes, layout_bytes at least) and leaves the
// rest as it is. Returns the bytes used; *copied is how much of the body they hold.
size_t LayOut(const CRequestView& view, ULONG flags, void* buffer, size_t size, size_t* copied);

// What can be told of a request that does not fit: its ids. `size` must hold an HTTP_REQUEST.
void LayOutIds(const CRequestView& view, void* buffer, size_t size);

}  // namespace posix
