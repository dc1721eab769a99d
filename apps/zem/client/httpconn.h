// One keep-alive HTTP/1.1 connection to a server, on libcurl. Requests go one after another; an
// object belongs to one thread at a time. Proxies of the environment are not used: frames have no
// business in a web cache.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "apps/zem/client/wire.h"

namespace zem {

struct ConnectionOptions {
    std::string server = "http://127.0.0.1:8080";  // http://HOST:PORT
    std::string clientId;                          // value of Zem-Id, printable UTF-8
    std::string userAgent;                         // NAME (PRODUCT/VERSION)
    int connectTimeout_s = 10;
    int stallTimeout_s = 60;  // a transfer that moves nothing for so long is given up
};

// Throws CZemError(kUsage) for what a server would not take for this client's ID as it stands.
void CheckClientId(const std::string& id);

// An answer to GET or DELETE.
struct PageReply {
    int status = 0;
    std::string reason;
    std::string contentType;
    std::string serverName;  // X-ServerName
    std::string software;    // Server
    std::string date;        // Date
    std::string text;
};

class CHttpConnection {
public:
    // Throws CZemError(kUsage) for an address that is no http:// address or an ID that cannot be a
    // header value.
    explicit CHttpConnection(ConnectionOptions options);
    ~CHttpConnection();
    CHttpConnection(const CHttpConnection&) = delete;
    CHttpConnection& operator=(const CHttpConnection&) = delete;

    // What a stop does to a command that is on its way.
    enum class OnStop { kBreakOff, kWaitForAnswer };
    // Sends one command and returns whatever was answered. An answer longer than `limit_bytes` is
    // broken off, so a server cannot make this process large. Throws CZemError: kUnreachable,
    // kBadReply, kInterrupted; with kWaitForAnswer the last only before anything is sent.
    HttpReply Post(std::span<const uint8_t> request, uint64_t limit_bytes,
                   OnStop onStop = OnStop::kBreakOff);

    // `path` begins with a slash and is already encoded. The text of the answer is kept up to 1
    // MiB.
    PageReply Get(std::string_view path);
    PageReply Delete(std::string_view path);

    // Receives the pieces of a file in order; `total_bytes` is -1 while unknown. False gives up
    // (kInterrupted).
    using Sink = std::function<bool(std::span<const uint8_t> piece, int64_t total_bytes)>;
    // Streams a file. The sink is called only for status 200; any other answer is returned with its
    // text.
    PageReply Download(std::string_view path, const Sink& sink);

    // Asked during every transfer, at least once a second; true breaks it off. For a signal
    // handler's flag.
    void SetStopCheck(std::function<bool()> stop) { m_stop = std::move(stop); }

    const std::string& Server() const { return m_options.server; }

private:
    struct Handle;
    struct Exchange;
    void Perform(Exchange& exchange, std::string_view path);
    static size_t OnHeader(char* data, size_t size, size_t count, void* exchange) noexcept;
    static size_t OnBody(char* data, size_t size, size_t count, void* exchange) noexcept;
    static int OnProgress(void* connection, int64_t, int64_t, int64_t, int64_t) noexcept;

    ConnectionOptions m_options;
    std::unique_ptr<Handle> m_handle;
    std::function<bool()> m_stop;
    OnStop m_onStop = OnStop::kBreakOff;  // of the request that is on its way
};

// Percent-encodes the UTF-8 `name` as a URL path with a leading slash; slashes stay.
std::string UrlPathOf(std::string_view name);

}  // namespace zem
