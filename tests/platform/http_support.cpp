// The harness of the HTTP tests.
#include "http_support.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace httptest {
namespace {

constexpr ULONG_PTR kKey = 7;

void ListenOnLoopback() {
    static const bool done = [] {
        const WCHAR list[] = TEXT("127.0.0.1\0");
        return OverrideRegistryValue(
            TEXT("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters"),
            TEXT("ListenOnlyList"), REG_MULTI_SZ, list, sizeof list);
    }();
    ASSERT_TRUE(done);
}

}  // namespace

bool Eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

std::string CBlock::Body() {
    std::string body;
    for (USHORT i = 0; i < Request()->EntityChunkCount; ++i) {
        const auto& chunk = Request()->pEntityChunks[i].FromMemory;
        body.append(static_cast<const char*>(chunk.pBuffer), chunk.BufferLength);
    }
    return body;
}

std::string CBlock::Known(HTTP_HEADER_ID id) {
    const HTTP_KNOWN_HEADER& header = Request()->Headers.KnownHeaders[id];
    return header.pRawValue ? std::string(header.pRawValue, header.RawValueLength) : "(none)";
}

std::u16string Prefix(uint16_t port, const char* path) {
    const std::string text = "http://*:" + std::to_string(port) + path;
    return {text.begin(), text.end()};
}

std::string Narrow(PCWSTR text, size_t bytes) {
    std::string narrow;
    for (size_t i = 0; i < bytes / sizeof(WCHAR); ++i)
        narrow.push_back(text[i] < 0x80 ? static_cast<char>(text[i]) : '?');
    return narrow;
}

CServer::CServer(int receives, ULONG size) {
    ListenOnLoopback();
    EXPECT_EQ(HttpInitialize(HTTPAPI_VERSION_1, HTTP_INITIALIZE_SERVER, nullptr), NO_ERROR);
    HANDLE queue = nullptr;
    EXPECT_EQ(HttpCreateHttpHandle(&queue, 0), NO_ERROR);
    m_queue = queue;
    m_port = CreateIoCompletionPort(m_queue, nullptr, kKey, 4);
    EXPECT_NE(m_port, nullptr);
    EXPECT_EQ(HttpAddUrl(m_queue, Prefix(0, "/zem/").c_str(), nullptr), NO_ERROR);
    EXPECT_EQ(HttpAddUrl(m_queue, Prefix(0, "/media/").c_str(), nullptr), NO_ERROR);
    m_tcp_port = HttpTuneBoundPort(m_queue, 0);
    EXPECT_NE(m_tcp_port, 0);
    for (int i = 0; i < receives; ++i)
        Post(size);
}

CServer::~CServer() {
    StopWorkers();
    CloseQueue();
    EXPECT_TRUE(CloseHandle(m_port));
    EXPECT_EQ(HttpTerminate(HTTP_INITIALIZE_SERVER, nullptr), NO_ERROR);
    EXPECT_EQ(HttpTuneConnections(), 0u);
    EXPECT_EQ(HttpTuneBackgroundBytes(), 0u);
    EXPECT_EQ(HttpTuneGatheredBytes(), 0u);
}

void CServer::CloseQueue() {
    if (!m_queue) return;
    EXPECT_TRUE(CloseHandle(m_queue));
    m_queue = nullptr;
}

CBlock* CServer::Post(ULONG size, ULONG flags) {
    CBlock* block = m_blocks.emplace_back(std::make_unique<CBlock>()).get();
    block->size = size;
    block->memory.reset(new uint64_t[(size + 7) / 8]());
    EXPECT_EQ(HttpReceiveHttpRequest(m_queue, HTTP_NULL_ID, flags, block->Request(), size, nullptr,
                                     &block->overlapped),
              ERROR_IO_PENDING);
    return block;
}

void CServer::Repost(CBlock* block) {
    block->overlapped = {};
    HttpReceiveHttpRequest(m_queue, HTTP_NULL_ID, HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY,
                           block->Request(), block->size, nullptr, &block->overlapped);
}

CBlock* CServer::Take(DWORD timeout_ms) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    const BOOL ok = GetQueuedCompletionStatus(m_port, &bytes, &key, &overlapped, timeout_ms);
    const DWORD error = ok ? NO_ERROR : GetLastError();
    if (!overlapped) return nullptr;
    EXPECT_EQ(key, kKey);
    for (const auto& block : m_blocks) {
        if (&block->overlapped != overlapped) continue;
        block->bytes = bytes;
        block->error = error;
        return block.get();
    }
    ADD_FAILURE() << "a completion of nobody's";
    return nullptr;
}

void CServer::Settle() {
    CBlock* block = Take(0);
    EXPECT_EQ(block, nullptr) << "an unexpected request";
}

ULONG CServer::Reply(HTTP_REQUEST_ID id, const std::string& body, USHORT status, ULONG flags,
                     ULONG* sent) {
    HTTP_RESPONSE response{};
    response.StatusCode = status;
    response.pReason = "OK";
    response.ReasonLength = 2;
    HTTP_DATA_CHUNK chunk{};
    chunk.FromMemory.pBuffer = const_cast<char*>(body.data());
    chunk.FromMemory.BufferLength = static_cast<ULONG>(body.size());
    response.EntityChunkCount = 1;
    response.pEntityChunks = &chunk;
    ULONG ignored;
    return HttpSendHttpResponse(m_queue, id, flags, &response, nullptr, sent ? sent : &ignored,
                                nullptr, 0, nullptr, nullptr);
}

ULONG CServer::ReadBody(HTTP_REQUEST_ID id, std::string& body, ULONG size) {
    std::string piece(size, '\0');
    ULONG got = 0;
    const ULONG error =
        HttpReceiveRequestEntityBody(m_queue, id, 0, piece.data(), size, &got, nullptr);
    body.append(piece, 0, got);
    return error;
}

void CServer::StartWorkers(int count, Answer answer) {
    if (!answer)
        answer = [](CServer& server, CBlock& block) { server.Reply(block.Id(), block.Body()); };
    for (int i = 0; i < count; ++i) {
        m_workers.emplace_back([this, answer] {
            for (;;) {
                DWORD bytes;
                ULONG_PTR key;
                OVERLAPPED* overlapped;
                if (!GetQueuedCompletionStatus(m_port, &bytes, &key, &overlapped, INFINITE)) return;
                if (key == 0) return;
                for (const auto& block : m_blocks) {
                    if (&block->overlapped != overlapped) continue;
                    answer(*this, *block);
                    Repost(block.get());
                    break;
                }
            }
        });
    }
}

void CServer::StopWorkers() {
    for (size_t i = 0; i < m_workers.size(); ++i)
        PostQueuedCompletionStatus(m_port, 0, 0, nullptr);
    for (std::thread& worker : m_workers)
        worker.join();
    m_workers.clear();
}

std::string CReply::Field(const std::string& name) const {
    const size_t at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "(none)";
    const size_t from = at + name.size() + 4;
    return head.substr(from, head.find("\r\n", from) - from);
}

CClient::CClient(uint16_t port, int receive_buffer_bytes) {
    m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience{kPatience_ms / 1000, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    const int on = 1;
    setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (receive_buffer_bytes > 0) {
        setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receive_buffer_bytes,
                   sizeof receive_buffer_bytes);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

CClient::~CClient() {
    close(m_socket);
}

void CClient::Send(const std::string& bytes) {
    EXPECT_TRUE(TrySend(bytes));
}

bool CClient::TrySend(const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t n = send(m_socket, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return true;
}

void CClient::EndSending() {
    shutdown(m_socket, SHUT_WR);
}

void CClient::Reset() {
    const linger now{1, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close(m_socket);
    m_socket = -1;
}

bool CClient::Fill() {
    char piece[65536];
    const ssize_t n = recv(m_socket, piece, sizeof piece, 0);
    if (n > 0) m_kept.append(piece, static_cast<size_t>(n));
    if (n < 0) m_broken = true;
    return n > 0;
}

CReply CClient::Read(bool head_only) {
    CReply reply;
    size_t end;
    while ((end = m_kept.find("\r\n\r\n")) == std::string::npos)
        if (!Fill()) return reply;
    reply.head = m_kept.substr(0, end + 2);
    m_kept.erase(0, end + 4);
    const int status = atoi(reply.head.c_str() + 9);
    const std::string length = reply.Field("Content-Length");
    const size_t bytes = head_only || length == "(none)" ? 0 : std::stoul(length);
    while (m_kept.size() < bytes)
        if (!Fill()) return reply;
    reply.body = m_kept.substr(0, bytes);
    m_kept.erase(0, bytes);
    reply.status = status;
    return reply;
}

std::string CClient::ReadToEnd() {
    while (Fill()) {
    }
    return std::exchange(m_kept, {});
}

bool CClient::AtEnd() {
    char byte;
    return !m_broken && m_kept.empty() && recv(m_socket, &byte, 1, 0) == 0;
}

std::string Get(const std::string& path, const std::string& fields) {
    return "GET " + path + " HTTP/1.1\r\nHost: h\r\n" + fields + "\r\n";
}

std::string PostHead(size_t length, const std::string& fields) {
    return "POST /zem/ HTTP/1.1\r\nHost: h\r\nZem-Id: one\r\nContent-Length: " +
           std::to_string(length) + "\r\n" + fields + "\r\n";
}

}  // namespace httptest
