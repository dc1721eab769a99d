// The HTTP interface from raw socket bytes, through its own calls: one connection over loopback,
// one thread that is client, worker and application. The first two bytes say how the rest is sent
// and answered. What is checked: a delivered request lies whole in the buffer that was posted; each
// is answered exactly once, in order; the answers are well-formed; the connection ends and
// everything is given back; and how the bytes are cut into packets makes no difference.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <deque>
#include <memory>
#include <vector>

#include "fuzz/fuzz.h"
#include "platform/platform.h"
#include "platform/posix/http_tuning.h"

using fuzz::Require;

namespace {

constexpr ULONG_PTR kKey = 7;
constexpr uint32_t kNever_ms = 1'000'000'000;
constexpr time_t kPatience_s = 250;
constexpr int kQuietRounds = 1000;  // of a millisecond
constexpr size_t kMostBody = 1 << 20;
// The second kind holds structure and addresses, but not every head.
constexpr ULONG kReceiveBytes[2] = {4096, 1024};

struct Block {
    OVERLAPPED overlapped{};  // of its receive, and of body reads
    std::unique_ptr<uint64_t[]> memory;
    ULONG size = 0;
    bool reading = false;    // its body
    Block* again = nullptr;  // posted again instead of this one
    std::string body;
    char piece[700];

    HTTP_REQUEST& Request() { return *reinterpret_cast<HTTP_REQUEST*>(memory.get()); }
    bool Holds(const void* from, size_t bytes) const {
        const auto* begin = reinterpret_cast<const char*>(memory.get());
        const auto* at = static_cast<const char*>(from);
        return at >= begin && at <= begin + size && bytes <= static_cast<size_t>(begin + size - at);
    }
};

// How one pass over the input is made.
struct Manner {
    uint8_t cuts = 0;           // seed of the packets' sizes; 0: all in one
    bool sync = false;          // the application reads bodies in calls that wait
    bool unread = false;        // it answers before it has read the body
    bool impatient = false;     // stalled bodies are delivered at once
    bool ends_by_time = false;  // the client leaves its side open
    bool small = false;         // small receives
};

class CServer {
public:
    explicit CServer(ULONG size) {
        const WCHAR list[] = TEXT("127.0.0.1\0");
        OverrideRegistryValue(
            TEXT("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters"),
            TEXT("ListenOnlyList"), REG_MULTI_SZ, list, sizeof list);
        Require(HttpInitialize(HTTPAPI_VERSION_1, HTTP_INITIALIZE_SERVER, nullptr) == NO_ERROR &&
                    HttpCreateHttpHandle(&m_queue, 0) == NO_ERROR,
                "a queue is made");
        m_port = CreateIoCompletionPort(m_queue, nullptr, kKey, 1);
        Require(HttpAddUrl(m_queue, TEXT("http://*:0/zem/"), nullptr) == NO_ERROR &&
                    HttpAddUrl(m_queue, TEXT("http://*:0/media/"), nullptr) == NO_ERROR,
                "it listens");
        m_tcp_port = HttpTuneBoundPort(m_queue, 0);
        for (Block& block : m_blocks) {
            block.size = size;
            block.memory.reset(new uint64_t[size / 8]());
            Post(block);
        }
    }

    // One pass; what was answered, in order: a digest for each request that was answered whole, and
    // "error" for the end by a refusal or a broken body.
    std::vector<std::string> Run(std::string_view stream, const Manner& manner);

private:
    void Post(Block& block);
    Block* Next(DWORD timeout_ms);
    void Work();
    void TakeRequest(Block& block);
    void CheckLayout(Block& block, DWORD bytes);
    void ReadOn(Block& block);
    void ReadSync(Block& block);
    void Finish(Block& block, bool whole);
    void Answer(Block& block, const std::string& text, USHORT status, ULONG flags);
    void Connect();
    void Send(std::string_view bytes);
    bool TakeReplies();
    void CheckReplies(std::vector<std::string>& entries);

    HANDLE m_queue = nullptr;
    HANDLE m_port = nullptr;
    uint16_t m_tcp_port = 0;
    Block m_blocks[2];

    // Of the running pass.
    Manner m_manner;
    int m_client = -1;
    bool m_sent_all = false;
    std::string m_replies;
    std::deque<Block*> m_held;            // delivered, not yet looked at
    std::vector<std::string> m_answered;  // the application's answers that were sent, in order
    uint64_t m_last_id = 0;
};

void CServer::Post(Block& block) {
    std::memset(block.memory.get(), 0, block.size);
    block.overlapped = {};
    block.reading = false;
    block.body.clear();
    Require(HttpReceiveHttpRequest(m_queue, HTTP_NULL_ID, HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY,
                                   &block.Request(), block.size, nullptr,
                                   &block.overlapped) == ERROR_IO_PENDING,
            "a receive is posted");
}

uint64_t Hash(uint64_t hash, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i)
        hash = (hash ^ bytes[i]) * 0x100000001B3ull;
    return (hash ^ size) * 0x100000001B3ull;
}

// Of all that a client decides.
std::string Digest(Block& block) {
    const HTTP_REQUEST& request = block.Request();
    uint64_t hash = Hash(0xCBF29CE484222325ull, &request.Verb, sizeof request.Verb);
    hash = Hash(hash, &request.Version, sizeof request.Version);
    hash = Hash(hash, request.pUnknownVerb, request.UnknownVerbLength);
    hash = Hash(hash, request.pRawUrl, request.RawUrlLength);
    hash = Hash(hash, request.CookedUrl.pFullUrl, request.CookedUrl.FullUrlLength);
    for (const HTTP_KNOWN_HEADER& header : request.Headers.KnownHeaders)
        hash = Hash(hash, header.pRawValue, header.RawValueLength);
    for (USHORT i = 0; i < request.Headers.UnknownHeaderCount; ++i) {
        const HTTP_UNKNOWN_HEADER& header = request.Headers.pUnknownHeaders[i];
        hash = Hash(hash, header.pName, header.NameLength);
        hash = Hash(hash, header.pRawValue, header.RawValueLength);
    }
    hash = Hash(hash, block.body.data(), block.body.size());
    char text[32];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

void CServer::CheckLayout(Block& block, DWORD bytes) {
    const HTTP_REQUEST& request = block.Request();
    const auto text = [&](PCSTR from, size_t length) {
        Require(block.Holds(from, length + 1) && from[length] == 0, "a text lies in the buffer");
        Require(std::memchr(from, 0, length) == nullptr, "no NUL in it");
    };
    Require(bytes <= block.size && bytes >= sizeof request, "it says how much it takes");
    Require(request.Verb > HttpVerbUnparsed && request.Verb < HttpVerbMaximum, "the verb is known");
    if (request.Verb == HttpVerbUnknown) text(request.pUnknownVerb, request.UnknownVerbLength);
    text(request.pRawUrl, request.RawUrlLength);
    const HTTP_COOKED_URL& url = request.CookedUrl;
    const size_t units = url.FullUrlLength / sizeof(WCHAR);
    Require(block.Holds(url.pFullUrl, url.FullUrlLength + sizeof(WCHAR)) && !url.pFullUrl[units],
            "the URL lies in the buffer");
    const WCHAR* const end = url.pFullUrl + units;
    Require(url.pHost > url.pFullUrl && url.pHost + url.HostLength / 2 == url.pAbsPath,
            "the path is behind the host");
    const WCHAR* const path_end = url.pAbsPath + url.AbsPathLength / 2;
    Require(url.pQueryString
                ? path_end == url.pQueryString && path_end + url.QueryStringLength / 2 == end
                : path_end == end,
            "and the query behind that");
    Require(url.AbsPathLength >= 2 && url.pAbsPath[0] == u'/', "a path begins with a slash");
    const auto prefix = [&](std::u16string_view wanted) {
        std::u16string lower;
        for (const WCHAR* at = url.pAbsPath; at != path_end; ++at) {
            if (*at != u'/' || lower.empty() || lower.back() != u'/')
                lower += *at >= u'A' && *at <= u'Z' ? static_cast<char16_t>(*at + 32) : *at;
        }
        return (lower + u'/').starts_with(wanted);
    };
    Require(prefix(u"/zem/") || prefix(u"/media/"), "nothing else is delivered");
    for (const HTTP_KNOWN_HEADER& header : request.Headers.KnownHeaders)
        if (header.pRawValue) text(header.pRawValue, header.RawValueLength);
    const size_t table = request.Headers.UnknownHeaderCount * sizeof(HTTP_UNKNOWN_HEADER);
    Require(table == 0 || block.Holds(request.Headers.pUnknownHeaders, table),
            "a table lies there");
    for (USHORT i = 0; i < request.Headers.UnknownHeaderCount; ++i) {
        const HTTP_UNKNOWN_HEADER& header = request.Headers.pUnknownHeaders[i];
        text(header.pName, header.NameLength);
        text(header.pRawValue, header.RawValueLength);
    }
    Require(block.Holds(request.Address.pRemoteAddress, sizeof(sockaddr_in)) &&
                block.Holds(request.Address.pLocalAddress, sizeof(sockaddr_in)),
            "the addresses lie there");
    Require(request.EntityChunkCount <= 1, "the body is one chunk");
    if (request.EntityChunkCount == 1) {
        const HTTP_DATA_CHUNK& chunk = *request.pEntityChunks;
        Require(block.Holds(&chunk, sizeof chunk) && chunk.FromMemory.BufferLength > 0 &&
                    block.Holds(chunk.FromMemory.pBuffer, chunk.FromMemory.BufferLength),
                "it lies there");
        block.body.assign(static_cast<const char*>(chunk.FromMemory.pBuffer),
                          chunk.FromMemory.BufferLength);
    }
    const auto* rest = reinterpret_cast<const char*>(block.memory.get());
    Require(std::all_of(rest + bytes, rest + block.size, [](char c) { return c == 0; }),
            "nothing is written behind it");
}

void CServer::TakeRequest(Block& block) {
    Require(block.Request().RequestId > 0, "a request has an id");
    Require(block.Request().RequestId != m_last_id, "ids never repeat");
    m_last_id = block.Request().RequestId;
    if (m_manner.unread) return Finish(block, true);
    if (m_manner.sync) return ReadSync(block);
    ReadOn(block);
}

// Reads in calls that complete through the port.
void CServer::ReadOn(Block& block) {
    block.reading = true;
    const ULONG error =
        HttpReceiveRequestEntityBody(m_queue, block.Request().RequestId, 0, block.piece,
                                     sizeof block.piece, nullptr, &block.overlapped);
    if (error != ERROR_IO_PENDING) Finish(block, error == ERROR_HANDLE_EOF);
}

void CServer::ReadSync(Block& block) {
    for (;;) {
        ULONG got = 0;
        const ULONG error = HttpReceiveRequestEntityBody(
            m_queue, block.Request().RequestId, 0, block.piece, sizeof block.piece, &got, nullptr);
        Require(got <= sizeof block.piece && (error != NO_ERROR || got > 0), "a read brings bytes");
        block.body.append(block.piece, got);
        if (error != NO_ERROR) return Finish(block, error == ERROR_HANDLE_EOF);
        Require(block.body.size() < kMostBody, "a body is no longer than what was sent");
    }
}

void CServer::Finish(Block& block, bool whole) {
    const std::string text = m_manner.unread ? "unread" : whole ? Digest(block) : "broken body";
    Answer(block, text, whole ? 200 : 500, whole ? 0 : HTTP_SEND_RESPONSE_FLAG_DISCONNECT);
    Post(block.again ? *block.again : block);
}

void CServer::Answer(Block& block, const std::string& text, USHORT status, ULONG flags) {
    HTTP_RESPONSE response{};
    response.StatusCode = status;
    response.pReason = "App";
    response.ReasonLength = 3;
    HTTP_DATA_CHUNK chunk{};
    chunk.FromMemory.pBuffer = const_cast<char*>(text.data());
    chunk.FromMemory.BufferLength = static_cast<ULONG>(text.size());
    response.EntityChunkCount = 1;
    response.pEntityChunks = &chunk;
    const HTTP_REQUEST_ID id = block.Request().RequestId;
    const bool head = block.Request().Verb == HttpVerbHEAD;
    ULONG sent = 0;
    const ULONG error = HttpSendHttpResponse(m_queue, id, flags, &response, nullptr, &sent, nullptr,
                                             0, nullptr, nullptr);
    Require(
        error == NO_ERROR || error == ERROR_CONNECTION_INVALID || error == ERROR_NETNAME_DELETED,
        "an answer goes out or the client is gone");
    if (error == NO_ERROR) m_answered.push_back(head ? "-" : text);
    Require(HttpSendHttpResponse(m_queue, id, flags, &response, nullptr, &sent, nullptr, 0, nullptr,
                                 nullptr) == ERROR_CONNECTION_INVALID,
            "a second answer does not");
}

Block* CServer::Next(DWORD timeout_ms) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    const BOOL ok = GetQueuedCompletionStatus(m_port, &bytes, &key, &overlapped, timeout_ms);
    const DWORD error = ok ? NO_ERROR : GetLastError();
    if (!overlapped) return nullptr;
    for (Block& block : m_blocks) {
        if (&block.overlapped != overlapped) continue;
        if (block.reading) {
            block.body.append(block.piece, ok ? bytes : 0);
            Require(block.body.size() < kMostBody, "a body is no longer than what was sent");
            if (ok && bytes > 0)
                ReadOn(block);
            else
                Finish(block, error == ERROR_HANDLE_EOF);
            return &block;
        }
        if (error == ERROR_MORE_DATA) {
            // Fetched with a buffer of its size, as an application does.
            const HTTP_REQUEST_ID id = block.Request().RequestId;
            Block whole;
            whole.size = (bytes + 7) / 8 * 8;
            Require(bytes > block.size && bytes <= 4096, "the needed size is told");
            whole.memory.reset(new uint64_t[whole.size / 8]());
            ULONG used = 0;
            Require(
                HttpReceiveHttpRequest(m_queue, id, HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY,
                                       &whole.Request(), whole.size, &used, nullptr) == NO_ERROR,
                "it fits then");
            CheckLayout(whole, used);
            whole.again = &block;
            whole.body.clear();  // answered by its head alone: nobody waits for the rest
            Finish(whole, true);
            return &block;
        }
        Require(ok, "a receive does not fail");
        CheckLayout(block, bytes);
        m_held.push_back(&block);
        return &block;
    }
    Require(false, "a completion is somebody's");
    return nullptr;
}

// Everything that can be done now.
void CServer::Work() {
    for (int idle = 0; idle < 2;) {
        idle = Next(0) ? 0 : idle + 1;
        if (m_manner.sync && !m_sent_all) continue;
        while (!m_held.empty()) {
            Block* const block = m_held.front();
            m_held.pop_front();
            TakeRequest(*block);
            idle = 0;
        }
    }
}

void CServer::Connect() {
    m_client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(m_tcp_port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Require(connect(m_client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "a client connects");
    const int on = 1;
    setsockopt(m_client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const linger now{1, 0};  // a port is free again at once
    setsockopt(m_client, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

void CServer::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = send(m_client, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno != EAGAIN) return;  // the server has closed
        if (n > 0) bytes.remove_prefix(static_cast<size_t>(n));
        Work();
    }
}

// What has come back; true when the connection is at its end.
bool CServer::TakeReplies() {
    char piece[16384];
    for (;;) {
        const ssize_t n = recv(m_client, piece, sizeof piece, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN)) return true;
        if (n < 0) return false;
        m_replies.append(piece, static_cast<size_t>(n));
    }
}

std::vector<std::string> CServer::Run(std::string_view stream, const Manner& manner) {
    m_manner = manner;
    m_sent_all = false;
    m_replies.clear();
    m_answered.clear();
    HttpTune()->short_body_ms = manner.impatient ? 0 : kNever_ms;
    Connect();
    uint32_t random = manner.cuts;
    for (size_t at = 0; at < stream.size();) {
        random = random * 1664525u + 1013904223u;
        const size_t longest = manner.cuts % 4 == 1 ? 1 : manner.cuts % 4 == 2 ? 16 : 600;
        const size_t n = manner.cuts ? 1 + (random >> 16) % longest : stream.size();
        Send(stream.substr(at, n));
        at += n;
        Work();
    }
    m_sent_all = true;
    if (!manner.ends_by_time) shutdown(m_client, SHUT_WR);
    Work();
    if (manner.ends_by_time) HttpTuneAdvanceClock(2 * kNever_ms);
    const time_t begin = time(nullptr);
    for (int quiet = 0; !TakeReplies() || HttpTuneConnections() != 0;) {
        Work();
        quiet = Next(1) ? 0 : quiet + 1;
        // The last bytes may have been on their way still: who got them waits for the next.
        if (manner.ends_by_time && quiet == kQuietRounds) {
            HttpTuneAdvanceClock(2 * kNever_ms);
            quiet = 0;
        }
        Require(time(nullptr) - begin < kPatience_s, "the connection ends");
    }
    close(m_client);
    Work();
    Require(m_held.empty(), "nothing is left");
    for (const Block& block : m_blocks)
        Require(!block.reading, "every body read has ended");
    Require(HttpTuneBackgroundBytes() == 0 && HttpTuneWaitingRequests(m_queue) == 0,
            "everything is given back");
    std::vector<std::string> entries;
    CheckReplies(entries);
    return entries;
}

// The answers as a strict client reads them.
void CServer::CheckReplies(std::vector<std::string>& entries) {
    constexpr std::string_view kVersion = "HTTP/1.1 ";
    std::string_view rest = m_replies;
    size_t application = 0;
    bool closed = false;
    while (!rest.empty()) {
        Require(!closed, "nothing follows an answer that closes");
        Require(rest.starts_with(kVersion), "an answer begins with its version");
        const size_t end = rest.find("\r\n\r\n");
        Require(end != std::string_view::npos, "a head is whole");
        const std::string_view head = rest.substr(0, end + 2);
        rest.remove_prefix(end + 4);
        const int status = std::atoi(std::string(head.substr(kVersion.size(), 3)).c_str());
        if (status == 100) continue;
        Require(head.find("\r\nDate: ") != std::string_view::npos, "it has a date");
        constexpr std::string_view kLength = "\r\nContent-Length: ";
        const size_t at = head.find(kLength);
        Require(at != std::string_view::npos, "and a length");
        const auto length = static_cast<size_t>(
            std::atol(std::string(head.substr(at + kLength.size(), 8)).c_str()));
        const bool ours =
            head.starts_with("HTTP/1.1 200 App") || head.starts_with("HTTP/1.1 500 App");
        closed = head.find("\r\nConnection: close") != std::string_view::npos;
        // To HEAD there is no body.
        const bool none = ours ? application < m_answered.size() && m_answered[application] == "-"
                               : rest.empty() || rest.starts_with(kVersion);
        const std::string_view body = rest.substr(0, none ? 0 : length);
        Require(none || body.size() == length, "a body is whole");
        rest.remove_prefix(body.size());
        if (ours) {
            Require(application < m_answered.size() && (none || body == m_answered[application]),
                    "answers come in order");
            ++application;
        }
        if (status == 200 || status == 404)
            entries.push_back(status == 404 ? "404" : std::string(body));
        else
            entries.push_back("error");
    }
    Require(application == m_answered.size(), "every answer came");
    // What follows a refusal is not looked at.
    const auto error = std::find(entries.begin(), entries.end(), "error");
    if (error != entries.end()) entries.erase(error + 1, entries.end());
}

// A head that a client leaves unfinished may be refused as soon as it cannot become one, or is
// dropped with the connection: that depends on how much of it is looked at.
bool Equal(std::vector<std::string> one, std::vector<std::string> other) {
    for (std::vector<std::string>* entries : {&one, &other})
        if (!entries->empty() && entries->back() == "error") entries->pop_back();
    return one == other;
}

CServer& Server(bool small) {
    static CServer* servers[2];
    if (!servers[small]) {
        HttpTuning& tune = *HttpTune();
        tune.idle_ms = tune.header_ms = tune.body_ms = tune.drain_ms = tune.linger_ms = kNever_ms;
        tune.send_window_ms = tune.stall_ms = kNever_ms;
        servers[small] = new CServer(kReceiveBytes[small]);
    }
    return *servers[small];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::CReader reader(data, size);
    const auto flags = reader.Take<uint8_t>();
    Manner manner;
    manner.cuts = reader.Take<uint8_t>();
    manner.ends_by_time = flags & 8;
    manner.sync = (flags & 1) && !manner.ends_by_time;  // else a call waits for what never comes
    manner.unread = flags & 2;
    manner.impatient = flags & 4;
    manner.small = flags & 16;
    const std::string_view stream = reader.TakeRest();
    CServer& server = Server(manner.small);
    const std::vector<std::string> cut = server.Run(stream, manner);
    if (manner.unread || manner.impatient || manner.ends_by_time || manner.cuts == 0) return 0;
    Manner plain;
    plain.small = manner.small;
    Require(Equal(server.Run(stream, plain), cut), "how the bytes are cut makes no difference");
    return 0;
}
