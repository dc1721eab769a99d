// A tiny HTTP server inside the test: 127.0.0.1, a free port, answers made by a function. It sends
// whatever bytes the function returns, right or wrong. One thread accepts, one serves each
// connection; all have ended after the destructor.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ScriptRequest {
    std::string method;
    std::string target;
    std::vector<std::string> headerLines;  // as sent, in order
    std::string body;
    std::string Header(const std::string& name) const;  // empty when absent
};

struct ScriptAnswer {
    std::string bytes;
    bool close = false;  // end the connection after the bytes
};

class CScriptServer {
public:
    // Called from the connections' threads, one call at a time.
    using Script = std::function<ScriptAnswer(const ScriptRequest&)>;
    explicit CScriptServer(Script script);
    ~CScriptServer();
    CScriptServer(const CScriptServer&) = delete;
    CScriptServer& operator=(const CScriptServer&) = delete;

    std::string Url() const;
    std::vector<ScriptRequest> Requests() const;
    int Connections() const;
    // Orders what the caller did before with what the script does after, and the other way round: a
    // program that the test ran in between gives no such order by itself.
    void Settle() const { const std::lock_guard<std::mutex> guard(m_lock); }

private:
    void Accept();
    void Serve(int socket);
    bool ReadRequest(int socket, std::string& buffer, ScriptRequest& request) const;

    Script m_script;
    int m_listener = -1;
    int m_port = 0;
    mutable std::mutex m_lock;  // guards what follows, and the calls of the script
    bool m_stopping = false;
    std::vector<int> m_sockets;
    std::vector<std::thread> m_workers;
    std::vector<ScriptRequest> m_requests;
    int m_connections = 0;
    std::thread m_acceptor;
};

// A port of 127.0.0.1 that nobody listens on, and that nobody else can take as long as this lives.
class CClosedPort {
public:
    CClosedPort();
    ~CClosedPort();
    CClosedPort(const CClosedPort&) = delete;
    CClosedPort& operator=(const CClosedPort&) = delete;

    std::string Url() const;

private:
    int m_port = 0;
    const int m_socket;
};

std::string Le16(uint16_t value);
std::string Le32(uint32_t value);
std::string Le64(uint64_t value);

// A whole command reply: status line, the documented headers, reply header, body, frame data.
std::string CommandReply(int status, const std::string& reason, uint32_t trans_id, uint32_t code,
                         const std::string& body, const std::string& payload = {});
std::string PageReplyBytes(int status, const std::string& reason, const std::string& text);
