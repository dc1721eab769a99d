// libcurl behind a narrow door: the rest of the client sees requests and replies, never a curl
// handle.
#include "apps/zem/client/httpconn.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <exception>
#include <mutex>
#include <utility>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"

namespace zem {
namespace {

constexpr uint64_t kPageLimit_bytes = 1 << 20;
constexpr size_t kFirstReserve_bytes = 1 << 20;
constexpr const char* kCommandPath = "/zem/";

struct SlistFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

void InitCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool IsPlainHeaderText(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<uint8_t>(c);
        return byte >= 0x20 && byte != 0x7F;
    });
}

bool EqualNoCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        const auto lower = [](char c) {
            return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        };
        return lower(x) == lower(y);
    });
}

// Whether a port is one, or none is named: behind the last colon that is not within [ ].
bool HasGoodPort(std::string_view host) {
    const size_t colon = host.rfind(':');
    if (colon == std::string_view::npos || host.find(']', colon) != std::string_view::npos)
        return true;
    const std::string_view port = host.substr(colon + 1);
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
    return error == std::errc() && end == port.data() + port.size() && value > 0 && value < 65536;
}

void CheckServer(std::string& server) {
    constexpr std::string_view kScheme = "http://";
    while (server.size() > kScheme.size() && server.ends_with('/'))
        server.pop_back();
    if (EqualNoCase(std::string_view(server).substr(0, kScheme.size()), kScheme))
        server.replace(0, kScheme.size(), kScheme);
    constexpr std::string_view kSecure = "https://";
    if (EqualNoCase(std::string_view(server).substr(0, kSecure.size()), kSecure)) {
        throw CZemError(ErrorKind::kUsage,
                        "'" + Printable(server) +
                            "': zem speaks plain HTTP only, http://HOST:PORT; to a server behind "
                            "TLS lay a tunnel (stunnel, ssh -L) and name its end here");
    }
    if (!server.starts_with(kScheme) || server.size() == kScheme.size() ||
        server.find_first_of("/?#@ \\", kScheme.size()) != std::string::npos ||
        !IsPlainHeaderText(server)) {
        throw CZemError(ErrorKind::kUsage, "'" + Printable(server) +
                                               "' is not a server address of the form "
                                               "http://HOST:PORT");
    }
    if (!HasGoodPort(std::string_view(server).substr(kScheme.size()))) {
        throw CZemError(ErrorKind::kUsage,
                        "'" + Printable(server) + "': the port is a number from 1 to 65535");
    }
}

std::string_view Trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && blank(text.back()))
        text.remove_suffix(1);
    return text;
}

// A plain decimal number that fills the whole text, or -1.
int64_t DecimalOf(std::string_view text) {
    int64_t value = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 0 ||
        (!text.empty() && text.front() == '-')) {
        return -1;
    }
    return value;
}

}  // namespace

void CheckClientId(const std::string& id) {
    // The server keeps 259 UTF-16 units; longer IDs of two clients could become one.
    if (id.empty() || !IsPlainHeaderText(id) || id.front() == ' ' || id.back() == ' ' ||
        ToUtf16(id, "the client ID").size() > 259) {
        throw CZemError(ErrorKind::kUsage,
                        "a client ID is 1 to 259 printable characters without outer blanks");
    }
}

struct CHttpConnection::Handle {
    CURL* curl = nullptr;
    std::unique_ptr<curl_slist, SlistFree> postHeaders;
    std::array<char, CURL_ERROR_SIZE> errorText{};

    Handle() : curl(curl_easy_init()) {
        if (curl == nullptr) throw CZemError(ErrorKind::kUnreachable, "libcurl cannot start");
    }
    ~Handle() { curl_easy_cleanup(curl); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    template <typename T>
    void Set(CURLoption option, T value) {
        if (curl_easy_setopt(curl, option, value) != CURLE_OK)
            throw CZemError(ErrorKind::kUnreachable, "libcurl lacks an option that is needed");
    }
    void AddPostHeader(const std::string& line) {
        curl_slist* longer = curl_slist_append(postHeaders.get(), line.c_str());
        if (longer == nullptr) throw std::bad_alloc();
        (void)postHeaders.release();
        postHeaders.reset(longer);
    }
};

// One request in flight: what has arrived of its answer and why it was broken off.
struct CHttpConnection::Exchange {
    uint64_t limit_bytes = kPageLimit_bytes;
    const Sink* sink = nullptr;

    HttpReply reply;
    PageReply page;  // the headers of a page; its text is in `reply`
    int64_t contentLength_bytes = -1;
    bool tooLong = false;
    bool stopped = false;
    std::exception_ptr sinkError;

    bool IsStreamed() const { return sink != nullptr && reply.status == 200; }
    bool TakeHeader(std::string_view line);
    bool TakeBody(std::span<const uint8_t> piece);
    PageReply TakePage();
};

bool CHttpConnection::Exchange::TakeHeader(std::string_view line) {
    if (line.starts_with("HTTP/")) {
        // A status line opens a new answer: what came before it was an interim one (100 Continue).
        reply = HttpReply{};
        page = PageReply{};
        contentLength_bytes = -1;
        const std::string_view rest = Trimmed(line.substr(std::min(line.find(' '), line.size())));
        reply.status =
            static_cast<int>(DecimalOf(rest.substr(0, std::min<size_t>(3, rest.size()))));
        reply.reason = Trimmed(rest.substr(std::min<size_t>(3, rest.size())));
        return true;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return true;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = Trimmed(line.substr(colon + 1));
    if (EqualNoCase(name, "zem-resphdr-len")) reply.headerLength_bytes = DecimalOf(value);
    if (EqualNoCase(name, "zem-ver")) reply.protocolVersion = value;
    if (EqualNoCase(name, "content-length")) contentLength_bytes = DecimalOf(value);
    if (EqualNoCase(name, "content-type")) page.contentType = value;
    if (EqualNoCase(name, "x-servername")) page.serverName = value;
    if (EqualNoCase(name, "server")) page.software = value;
    if (EqualNoCase(name, "date")) page.date = value;
    // Refused before its first byte: nothing is gained by waiting for what will not be kept.
    tooLong = !IsStreamed() && contentLength_bytes > 0 &&
              static_cast<uint64_t>(contentLength_bytes) > limit_bytes;
    return !tooLong;
}

bool CHttpConnection::Exchange::TakeBody(std::span<const uint8_t> piece) {
    if (IsStreamed()) {
        stopped = !(*sink)(piece, contentLength_bytes);
        return !stopped;
    }
    tooLong = piece.size() > limit_bytes - reply.entity.size();
    if (tooLong) return false;
    // A declared length is only a hint for the first reserve: memory follows what really arrives.
    if (reply.entity.empty()) {
        const uint64_t declared_bytes =
            contentLength_bytes > 0 ? static_cast<uint64_t>(contentLength_bytes) : 0;
        reply.entity.reserve(std::min<uint64_t>(declared_bytes, kFirstReserve_bytes));
    }
    reply.entity.insert(reply.entity.end(), piece.begin(), piece.end());
    return true;
}

PageReply CHttpConnection::Exchange::TakePage() {
    page.status = reply.status;
    page.reason = reply.reason;
    page.text.assign(reply.entity.begin(), reply.entity.end());
    return std::move(page);
}

size_t CHttpConnection::OnHeader(char* data, size_t size, size_t count, void* exchange) noexcept {
    auto& target = *static_cast<Exchange*>(exchange);
    try {
        return target.TakeHeader({data, size * count}) ? size * count : 0;
    } catch (...) {
        target.sinkError = std::current_exception();
        return 0;
    }
}

size_t CHttpConnection::OnBody(char* data, size_t size, size_t count, void* exchange) noexcept {
    auto& target = *static_cast<Exchange*>(exchange);
    try {
        const auto* bytes = reinterpret_cast<const uint8_t*>(data);
        return target.TakeBody({bytes, size * count}) ? size * count : 0;
    } catch (...) {
        target.sinkError = std::current_exception();
        return 0;
    }
}

int CHttpConnection::OnProgress(void* connection, int64_t, int64_t, int64_t, int64_t) noexcept {
    const auto& self = *static_cast<CHttpConnection*>(connection);
    return self.m_onStop == OnStop::kBreakOff && self.m_stop && self.m_stop() ? 1 : 0;
}

CHttpConnection::CHttpConnection(ConnectionOptions options) : m_options(std::move(options)) {
    CheckServer(m_options.server);
    CheckClientId(m_options.clientId);
    if (!IsPlainHeaderText(m_options.userAgent))
        throw CZemError(ErrorKind::kUsage, "the User-Agent holds control characters");
    InitCurlOnce();
    m_handle = std::make_unique<Handle>();
    // Zem-Id has to be the first header that HTTP does not know; nothing else of that sort is sent.
    m_handle->AddPostHeader("Zem-Id: " + m_options.clientId);
    m_handle->AddPostHeader("Content-Type: application/octet-stream");
    m_handle->AddPostHeader("Expect:");
    m_handle->Set(CURLOPT_PROTOCOLS_STR, "http");
    m_handle->Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    m_handle->Set(CURLOPT_PROXY, "");
    m_handle->Set(CURLOPT_NOSIGNAL, 1L);
    m_handle->Set(CURLOPT_TCP_NODELAY, 1L);
    m_handle->Set(CURLOPT_BUFFERSIZE, 512L * 1024);
    m_handle->Set(CURLOPT_UPLOAD_BUFFERSIZE, 512L * 1024);
    m_handle->Set(CURLOPT_PATH_AS_IS, 1L);
    m_handle->Set(CURLOPT_USERAGENT, m_options.userAgent.c_str());
    m_handle->Set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(m_options.connectTimeout_s));
    m_handle->Set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    m_handle->Set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(m_options.stallTimeout_s));
    m_handle->Set(CURLOPT_ERRORBUFFER, m_handle->errorText.data());
    m_handle->Set(CURLOPT_HEADERFUNCTION, &CHttpConnection::OnHeader);
    m_handle->Set(CURLOPT_WRITEFUNCTION, &CHttpConnection::OnBody);
    static_assert(sizeof(curl_off_t) == sizeof(int64_t));
    m_handle->Set(CURLOPT_XFERINFOFUNCTION, &CHttpConnection::OnProgress);
    m_handle->Set(CURLOPT_XFERINFODATA, this);
    m_handle->Set(CURLOPT_NOPROGRESS, 0L);
}

CHttpConnection::~CHttpConnection() = default;

namespace {

[[noreturn]] void ThrowCurl(CURLcode code, const std::string& server, const std::string& detail) {
    switch (code) {
        case CURLE_URL_MALFORMAT:
            throw CZemError(ErrorKind::kUsage, "'" + Printable(server) + "': " + detail);
        case CURLE_UNSUPPORTED_PROTOCOL:  // an answer without a status line
        case CURLE_PARTIAL_FILE:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_HTTP2:
        case CURLE_WRITE_ERROR:
            throw CZemError(ErrorKind::kBadReply,
                            "the server's answer is broken or incomplete: " + detail);
        case CURLE_OUT_OF_MEMORY:
            throw std::bad_alloc();
        default:
            throw CZemError(ErrorKind::kUnreachable, "cannot reach " + server + ": " + detail);
    }
}

}  // namespace

void CHttpConnection::Perform(Exchange& exchange, std::string_view path) {
    const std::string url = m_options.server + std::string(path);
    m_handle->Set(CURLOPT_URL, url.c_str());
    m_handle->Set(CURLOPT_HEADERDATA, &exchange);
    m_handle->Set(CURLOPT_WRITEDATA, &exchange);
    m_handle->errorText[0] = '\0';
    const CURLcode code = curl_easy_perform(m_handle->curl);
    m_onStop = OnStop::kBreakOff;
    if (exchange.sinkError) std::rethrow_exception(exchange.sinkError);
    if (exchange.stopped || code == CURLE_ABORTED_BY_CALLBACK)
        throw CZemError(ErrorKind::kInterrupted, "stopped");
    if (exchange.tooLong) {
        throw CZemError(ErrorKind::kBadReply,
                        "the server's answer is longer than this request can have (limit " +
                            std::to_string(exchange.limit_bytes) + " bytes)");
    }
    if (code != CURLE_OK) {
        const char* text =
            m_handle->errorText[0] != '\0' ? m_handle->errorText.data() : curl_easy_strerror(code);
        std::string detail = Printable(text);
        long reason = 0;
        if (code == CURLE_COULDNT_CONNECT &&
            curl_easy_getinfo(m_handle->curl, CURLINFO_OS_ERRNO, &reason) == CURLE_OK &&
            reason == ECONNREFUSED) {
            detail += " (refused: no program listens there)";
        }
        ThrowCurl(code, m_options.server, detail);
    }
}

HttpReply CHttpConnection::Post(std::span<const uint8_t> request, uint64_t limit_bytes,
                                OnStop onStop) {
    if (m_stop && m_stop()) throw CZemError(ErrorKind::kInterrupted, "stopped");
    Exchange exchange;
    exchange.limit_bytes = limit_bytes;
    m_handle->Set(CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr));
    m_handle->Set(CURLOPT_POST, 1L);
    m_handle->Set(CURLOPT_HTTPHEADER, m_handle->postHeaders.get());
    m_handle->Set(CURLOPT_POSTFIELDS, reinterpret_cast<const char*>(request.data()));
    m_handle->Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.size()));
    m_onStop = onStop;
    Perform(exchange, kCommandPath);
    return std::move(exchange.reply);
}

PageReply CHttpConnection::Get(std::string_view path) {
    return Download(path, Sink());
}

PageReply CHttpConnection::Download(std::string_view path, const Sink& sink) {
    Exchange exchange;
    if (sink) exchange.sink = &sink;
    m_handle->Set(CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr));
    m_handle->Set(CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
    m_handle->Set(CURLOPT_HTTPGET, 1L);
    Perform(exchange, path);
    return exchange.TakePage();
}

PageReply CHttpConnection::Delete(std::string_view path) {
    Exchange exchange;
    m_handle->Set(CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
    m_handle->Set(CURLOPT_HTTPGET, 1L);
    m_handle->Set(CURLOPT_CUSTOMREQUEST, "DELETE");
    Perform(exchange, path);
    return exchange.TakePage();
}

std::string UrlPathOf(std::string_view name) {
    constexpr std::string_view kPlain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
    constexpr std::string_view kHex = "0123456789ABCDEF";
    std::string path = name.starts_with('/') ? "" : "/";
    for (const char c : name) {
        if (kPlain.find(c) != std::string_view::npos) {
            path.push_back(c);
        } else {
            const auto byte = static_cast<uint8_t>(c);
            path.push_back('%');
            path.push_back(kHex[byte >> 4]);
            path.push_back(kHex[byte & 15]);
        }
    }
    return path;
}

}  // namespace zem
