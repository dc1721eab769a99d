// What several verbs share: a client that joined and stays alive, open files, frames that are read
// one by one. Main thread, but for the keep-alives.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "apps/zem/client/zemclient.h"
#include "apps/zem/verbs.h"

namespace zem {

// Tells the server from time to time that the client is alive, on a connection and thread of its
// own: a verb that waits for a pipe sends nothing for a while, and a server drops a client that was
// silent for 50 seconds.
class CKeepAlive {
public:
    CKeepAlive(const ConnectionOptions& options, int period_s);
    ~CKeepAlive();
    CKeepAlive(const CKeepAlive&) = delete;
    CKeepAlive& operator=(const CKeepAlive&) = delete;

private:
    void Run();
    CZemClient m_client;
    const std::chrono::seconds m_period;
    std::atomic<bool> m_stop{false};
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::thread m_thread;  // last: it uses all the others
};

// A client that joined. It leaves at the end unless it is to stay; a failed leave is no failure of
// the verb.
class CSession {
public:
    explicit CSession(const CommandLine& line, bool stay = false);
    ~CSession();
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    CZemClient* operator->() { return &m_client; }
    CZemClient& operator*() { return m_client; }

private:
    CSession(const CommandLine& line, const ConnectionOptions& options, bool stay);
    CZemClient m_client;
    bool m_stay;
    std::unique_ptr<CKeepAlive> m_keepAlive;
};

// Closes its file when it goes out of scope; a file that was closed by then is left alone.
class COpenFile {
public:
    COpenFile(CZemClient& client, uint64_t token) : m_client(client), m_token(token) {}
    ~COpenFile();
    COpenFile(const COpenFile&) = delete;
    COpenFile& operator=(const COpenFile&) = delete;
    uint64_t Token() const { return m_token; }
    void Close();

private:
    CZemClient& m_client;
    uint64_t m_token;
};

// Reads one frame; a server that is short of memory for a moment is asked again. The data stay
// valid until the next call.
const StreamFrame& ReadOneFrame(CZemClient& client, uint64_t token, uint32_t position);
// Whether a frame with this status was never written, or erased: no data, and no fault either.
bool IsGap(int32_t status);
// Throws CZemError(kRefused) when the frame at `position` of the file could not be read.
void RequireRead(const std::string& name, uint32_t position, int32_t status);

// Throws CZemError(kRefused) when a file of `count` frames has none at `from`. All of a file
// without frames is nothing, and no fault: `from` 0 always passes.
void RequireFirst(const std::string& name, uint32_t from, uint32_t count);

// So much may a program leave unconfirmed by a flush: a third of the smaller of the two frame
// memories that servers have. A server whose disk falls behind drops frames without telling;
// waiting for its disk now and then keeps it from that.
inline constexpr uint64_t kUnconfirmed_bytes = 40u << 20;

// `name` and `aux`, UTF-8, as the protocol takes them. Throws CZemError(kUsage) if they are not.
FileRef FileNamed(const std::string& name, const std::string& aux = {});

}  // namespace zem
