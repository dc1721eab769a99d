// What the tests of long bodies share: uploads, and an application that reads them.
#pragma once

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <mutex>
#include <optional>

#include "http_support.h"

namespace httptest {

inline constexpr size_t kMiB = 1u << 20;

inline std::string Pattern(size_t bytes) {
    std::string text(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i)
        text[i] = static_cast<char>((i * 31 + i / 4096) & 0xFF);
    return text;
}

// The whole body of a request, as an application reads it.
inline ULONG ReadAll(CServer& server, CBlock& block, std::string& body) {
    body = block.Body();
    for (;;) {
        const ULONG error = server.ReadBody(block.Id(), body, kMiB);
        if (error != NO_ERROR) return error == ERROR_HANDLE_EOF ? NO_ERROR : error;
    }
}

// Answers with the last digit of the body's length, and keeps the bodies.
struct CReader {
    CServer::Answer Answer() {
        return [this](CServer& server, CBlock& block) {
            if (block.error != NO_ERROR) return;
            std::string body;
            const ULONG error = ReadAll(server, block, body);
            {
                const std::lock_guard lock(m_lock);
                m_bodies.push_back(body);
            }
            server.Reply(block.Id(), std::to_string(body.size()),
                         static_cast<USHORT>(error == NO_ERROR ? 200 : 500));
        };
    }
    size_t Count() {
        const std::lock_guard lock(m_lock);
        return m_bodies.size();
    }
    std::string Body(size_t i) {
        const std::lock_guard lock(m_lock);
        return m_bodies.at(i);
    }

private:
    std::mutex m_lock;
    std::vector<std::string> m_bodies;
};

// An upload whose head the server has taken, some time ago when `slow`.
struct CUpload {
    CUpload(
        CServer& server, const std::string& length_field, bool slow,
        const std::function<void()>& step = [] {})
        : client(server.TcpPort()) {
        client.Send("POST /zem/ HTTP/1.1\r\nHost: h\r\nZem-Id: one\r\nExpect: 100-continue\r\n" +
                    length_field + "\r\n");
        EXPECT_TRUE(Eventually([&] {
            step();
            int bytes = 0;
            ioctl(client.Socket(), FIONREAD, &bytes);
            return bytes > 0;
        }));
        step();
        EXPECT_EQ(client.Read(true).status, 100);
        if (slow) HttpTuneAdvanceClock(50000);
    }
    CUpload(
        CServer& server, size_t bytes, bool slow, const std::function<void()>& step = [] {})
        : CUpload(server, "Content-Length: " + std::to_string(bytes) + "\r\n", slow, step) {}
    CClient client;
};

inline bool Holds(uint64_t bytes) {
    return Eventually([&] { return HttpTuneGatheredBytes() == bytes; });
}

inline std::string Chunk(const std::string& data) {
    char size[32];
    snprintf(size, sizeof size, "%zx\r\n", data.size());
    return size + data + "\r\n";
}

}  // namespace httptest
