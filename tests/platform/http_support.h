// What the HTTP tests share: a queue with a port on 127.0.0.1, workers that answer, and a client
// that writes and reads raw bytes. A test without workers runs the server itself, one Take at a
// time.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/http_tuning.h"

namespace httptest {

constexpr DWORD kPatience_ms = 20000;  // far above what anything takes

// True as soon as the condition holds; false when it does not within the patience.
bool Eventually(const std::function<bool()>& condition);

struct CBlock {
    OVERLAPPED overlapped{};
    std::unique_ptr<uint64_t[]> memory;
    ULONG size = 0;
    DWORD bytes = 0;
    DWORD error = 0;

    HTTP_REQUEST* Request() { return reinterpret_cast<HTTP_REQUEST*>(memory.get()); }
    HTTP_REQUEST_ID Id() { return Request()->RequestId; }
    std::string Body();
    std::string Known(HTTP_HEADER_ID id);
};

std::u16string Prefix(uint16_t port, const char* path);
std::string Narrow(PCWSTR text, size_t bytes);

class CServer {
public:
    // Posts `receives` receives of `size` bytes; listens on "/zem/" and "/media/".
    explicit CServer(int receives = 4, ULONG size = 4096);
    ~CServer();

    HANDLE Queue() const { return m_queue; }
    HANDLE Port() const { return m_port; }
    uint16_t TcpPort() const { return m_tcp_port; }

    CBlock* Post(ULONG size, ULONG flags = HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY);
    void Repost(CBlock* block);
    // The next completion; null when none comes.
    CBlock* Take(DWORD timeout_ms = kPatience_ms);
    // Handles what is there now; fails the test if a request is among it.
    void Settle();

    ULONG Reply(HTTP_REQUEST_ID id, const std::string& body, USHORT status = 200, ULONG flags = 0,
                ULONG* sent = nullptr);
    ULONG ReadBody(HTTP_REQUEST_ID id, std::string& body, ULONG size = 65536);

    // Threads that answer every request with what `answer` makes of it.
    using Answer = std::function<void(CServer&, CBlock&)>;
    void StartWorkers(int count, Answer answer = {});
    void StopWorkers();
    void CloseQueue();

private:
    std::atomic<HANDLE> m_queue{nullptr};  // a test may close it under its workers
    HANDLE m_port = nullptr;
    uint16_t m_tcp_port = 0;
    std::vector<std::unique_ptr<CBlock>> m_blocks;
    std::vector<std::thread> m_workers;
};

struct CReply {
    int status = 0;
    std::string head;
    std::string body;
    std::string Field(const std::string& name) const;
};

class CClient {
public:
    explicit CClient(uint16_t port, int receive_buffer_bytes = 0);
    ~CClient();
    CClient(const CClient&) = delete;

    void Send(const std::string& bytes);
    bool TrySend(const std::string& bytes);
    void EndSending();
    void Reset();  // closes with a reset
    // One reply, framed by its Content-Length; status 0 when the connection ends before it is
    // whole.
    CReply Read(bool head_only = false);
    std::string ReadToEnd();
    // Whether the server has closed in good order (no reset), with nothing left to read.
    bool AtEnd();
    int Socket() const { return m_socket; }

private:
    bool Fill();
    int m_socket = -1;
    bool m_broken = false;  // a read failed: reset, or nothing came for too long
    std::string m_kept;
};

std::string Get(const std::string& path, const std::string& fields = {});
std::string PostHead(size_t length, const std::string& fields = {});

// Sets a tuning value for the length of a test.
template <class T>
class CTuned {
public:
    CTuned(std::atomic<T>& value, T now) : m_value(value), m_before(value.exchange(now)) {}
    ~CTuned() { m_value = m_before; }

private:
    std::atomic<T>& m_value;
    T m_before;
};

}  // namespace httptest
