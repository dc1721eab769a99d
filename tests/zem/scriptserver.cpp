// Sockets of the scripted server, by hand: the test must be able to send what no library would.
#include "tests/zem/scriptserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace {

int BoundSocket(int& port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no free port");
    }
    port = ntohs(address.sin_port);
    return listener;
}

std::string UrlOf(int port) {
    return "http://127.0.0.1:" + std::to_string(port);
}

void SendAll(int socket, const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return;  // the client gave up; it will tell
        sent += static_cast<size_t>(n);
    }
}

}  // namespace

std::string ScriptRequest::Header(const std::string& name) const {
    for (const std::string& line : headerLines) {
        const size_t colon = line.find(':');
        if (colon == name.size() && strncasecmp(line.c_str(), name.c_str(), colon) == 0) {
            const size_t value = line.find_first_not_of(' ', colon + 1);
            return value == std::string::npos ? std::string() : line.substr(value);
        }
    }
    return {};
}

CScriptServer::CScriptServer(Script script) : m_script(std::move(script)) {
    m_listener = BoundSocket(m_port);
    if (listen(m_listener, 16) != 0) throw std::runtime_error("cannot listen");
    m_acceptor = std::thread([this] { Accept(); });
}

CScriptServer::~CScriptServer() {
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_stopping = true;
        shutdown(m_listener, SHUT_RDWR);
        for (const int each : m_sockets)
            shutdown(each, SHUT_RDWR);
    }
    m_acceptor.join();
    for (std::thread& worker : m_workers)
        worker.join();
    for (const int each : m_sockets)
        close(each);
    close(m_listener);
}

std::string CScriptServer::Url() const {
    return UrlOf(m_port);
}

std::vector<ScriptRequest> CScriptServer::Requests() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_requests;
}

int CScriptServer::Connections() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_connections;
}

void CScriptServer::Accept() {
    for (;;) {
        const int socket = accept(m_listener, nullptr, nullptr);
        if (socket < 0) return;
        const std::lock_guard<std::mutex> guard(m_lock);
        m_sockets.push_back(socket);
        ++m_connections;
        if (m_stopping) return;
        m_workers.emplace_back([this, socket] { Serve(socket); });
    }
}

bool CScriptServer::ReadRequest(int socket, std::string& buffer, ScriptRequest& request) const {
    std::array<char, 65536> piece{};
    size_t head_end = std::string::npos;
    size_t length = 0;
    for (;;) {
        if (head_end == std::string::npos) head_end = buffer.find("\r\n\r\n");
        if (head_end != std::string::npos && request.method.empty()) {
            const std::string head = buffer.substr(0, head_end);
            size_t at = head.find("\r\n");
            const std::string line = head.substr(0, at);
            request.method = line.substr(0, line.find(' '));
            request.target = line.substr(line.find(' ') + 1);
            request.target.resize(request.target.rfind(' '));
            while (at != std::string::npos) {
                const size_t next = head.find("\r\n", at + 2);
                request.headerLines.push_back(
                    head.substr(at + 2, next == std::string::npos ? next : next - at - 2));
                at = next;
            }
            length = static_cast<size_t>(std::atoll(request.Header("Content-Length").c_str()));
        }
        if (head_end != std::string::npos && buffer.size() >= head_end + 4 + length) {
            request.body = buffer.substr(head_end + 4, length);
            buffer.erase(0, head_end + 4 + length);
            return true;
        }
        const ssize_t n = recv(socket, piece.data(), piece.size(), 0);
        if (n <= 0) return false;
        buffer.append(piece.data(), static_cast<size_t>(n));
    }
}

void CScriptServer::Serve(int socket) {
    std::string buffer;
    for (;;) {
        ScriptRequest request;
        if (!ReadRequest(socket, buffer, request)) break;
        ScriptAnswer answer;
        {
            const std::lock_guard<std::mutex> guard(m_lock);
            m_requests.push_back(request);
            answer = m_script(request);
        }
        SendAll(socket, answer.bytes);
        if (answer.close) break;
    }
    shutdown(socket, SHUT_RDWR);
}

CClosedPort::CClosedPort() : m_socket(BoundSocket(m_port)) {}
CClosedPort::~CClosedPort() {
    close(m_socket);
}
std::string CClosedPort::Url() const {
    return UrlOf(m_port);
}

std::string Le16(uint16_t value) {
    return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}
std::string Le32(uint32_t value) {
    return Le16(static_cast<uint16_t>(value & 0xFFFF)) + Le16(static_cast<uint16_t>(value >> 16));
}
std::string Le64(uint64_t value) {
    return Le32(static_cast<uint32_t>(value & 0xFFFFFFFFu)) +
           Le32(static_cast<uint32_t>(value >> 32));
}

std::string CommandReply(int status, const std::string& reason, uint32_t trans_id, uint32_t code,
                         const std::string& body, const std::string& payload) {
    const auto size = static_cast<uint32_t>(body.size());
    const std::string entity = Le32(trans_id) + Le32(code) + Le32(size) + body + payload;
    return "HTTP/1.1 " + std::to_string(status) + " " + reason +
           "\r\nContent-Type: application/octet-string\r\nContent-Length: " +
           std::to_string(entity.size()) + "\r\nServer: Quorvane ZEM /x.x.x.x\r\n" +
           "zem-resphdr-len: " + std::to_string(size + 12) + "\r\nzem-ver: 1\r\n\r\n" + entity;
}

std::string PageReplyBytes(int status, const std::string& reason, const std::string& text) {
    return "HTTP/1.1 " + std::to_string(status) + " " + reason +
           "\r\nContent-Type: text/plain\r\nX-ServerName: studio7\r\nContent-Length: " +
           std::to_string(text.size()) + "\r\n\r\n" + text;
}
