// A client of raw sockets for tests that have the whole server in their process: requests go out as
// they are, whole or in part. One thread each.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>

#include "platform/platform.h"

namespace raw {

template <class... Values>
std::string Bytes(Values... values) {
    std::string bytes;
    (bytes.append(reinterpret_cast<const char*>(&values), sizeof(values)), ...);
    return bytes;
}

std::string Name(const std::string& text) {
    std::string field;
    for (const char c : text)
        field += std::string{c, '\0'};
    field.resize(520);
    return field;
}

// One connection of a client; every call fails once the server is gone.
class CClient {
public:
    CClient(uint16_t port, std::string id, int receive_bytes = 0)
        : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_id(std::move(id)) {
        if (receive_bytes)
            setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof(receive_bytes));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_ok = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~CClient() { close(m_fd); }
    CClient(const CClient&) = delete;
    CClient& operator=(const CClient&) = delete;

    bool Send(const std::string& bytes) {
        for (size_t sent = 0; m_ok && sent < bytes.size();) {
            const ssize_t n = send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            m_ok = n > 0;
            sent += m_ok ? static_cast<size_t>(n) : 0;
        }
        return m_ok;
    }
    // The head and the first `with` bytes of a command of which `payload` bytes are to follow.
    bool Begin(DWORD code, const std::string& body, size_t payload = 0, std::string with = {}) {
        const std::string entity = Bytes(DWORD{1}, code, static_cast<DWORD>(body.size())) + body;
        return Send("POST /zem/ HTTP/1.1\r\nHost: x\r\nZem-Id: " + m_id + "\r\nContent-Length: " +
                    std::to_string(entity.size() + payload) + "\r\n\r\n" + entity + with);
    }
    // The entity of the next response; empty when there is none. What comes behind it is kept.
    std::string Receive() {
        while (m_ok) {
            const size_t head = m_received.find("\r\n\r\n");
            if (head != std::string::npos) {
                const size_t length = m_received.find("Content-Length: ");
                const size_t end = head + 4 + std::stoul(m_received.substr(length + 16));
                if (m_received.size() >= end) {
                    m_status = std::stoi(m_received.substr(9, 3));
                    const std::string entity = m_received.substr(head + 4, end - head - 4);
                    m_received.erase(0, end);
                    return entity;
                }
            }
            char piece[65536];
            const ssize_t n = recv(m_fd, piece, sizeof(piece), 0);
            m_ok = n > 0;
            if (m_ok) m_received.append(piece, static_cast<size_t>(n));
        }
        return {};
    }
    int Status() const { return m_status; }  // of the last response
    int Descriptor() const { return m_fd; }
    std::string Call(DWORD code, const std::string& body, const std::string& payload = {}) {
        return Begin(code, body, payload.size(), payload) ? Receive() : std::string();
    }
    bool Ok() const { return m_ok; }

    bool Join() { return !Call(15, Bytes(DWORD{1})).empty(); }
    ULONGLONG Create(const std::string& name) {
        const std::string desc = Bytes(DWORD{0x10038}, LONG{1}, DWORD{0x67706A6D}, DWORD{25},
                                       DWORD{1}, DWORD{64}, DWORD{48}) +
                                 std::string(28, '\0');
        const std::string reply = Call(1, Name(name) + Name("") + desc + Bytes(DWORD{3}));
        ULONGLONG token = 0;
        if (reply.size() >= 28) std::memcpy(&token, reply.data() + 20, sizeof(token));
        return token;
    }
    static std::string WriteBody(ULONGLONG token, DWORD position, DWORD length) {
        std::string entry =
            Bytes(ULONGLONG{0}, token, position, DWORD{0}, LONG{1}, DWORD{0}, length);
        entry.resize(96);
        return Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + entry;
    }
    static std::string ReadBody(ULONGLONG token, DWORD position) {
        std::string entry = Bytes(ULONGLONG{0}, token, position);
        entry.resize(96);
        return Bytes(DWORD{0}, DWORD{1}, ULONGLONG{0}) + entry;
    }

private:
    int m_fd;
    std::string m_id;
    std::string m_received;
    int m_status = 0;
    bool m_ok = false;
};

}  // namespace raw
