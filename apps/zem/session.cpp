// See session.h.
#include "apps/zem/session.h"

#include <chrono>
#include <thread>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/terminal.h"

namespace zem {

CKeepAlive::CKeepAlive(const ConnectionOptions& options, int period_s)
    : m_client(options), m_period(period_s), m_thread([this] { Run(); }) {}

CKeepAlive::~CKeepAlive() {
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

void CKeepAlive::Run() {
    m_client.Http().SetStopCheck([this] { return m_stop.load(); });
    std::unique_lock<std::mutex> hold(m_lock);
    while (!m_wake.wait_for(hold, m_period, [this] { return m_stop.load(); })) {
        hold.unlock();
        try {
            m_client.KeepAlive();
        } catch (const std::exception&) {
            // The verb's own requests tell the user what is wrong.
        }
        hold.lock();
    }
}

CSession::CSession(const CommandLine& line, bool stay) : CSession(line, line.Connection(), stay) {}

CSession::CSession(const CommandLine& line, const ConnectionOptions& options, bool stay)
    : m_client(options), m_stay(stay || line.stay) {
    m_client.Http().SetStopCheck(&StopRequested);
    m_client.Join(line.channel);
    m_keepAlive = std::make_unique<CKeepAlive>(options, line.keepAlive_s);
}

CSession::~CSession() {
    m_keepAlive.reset();
    if (m_stay) return;
    try {
        m_client.Http().SetStopCheck({});
        m_client.Leave();
    } catch (const std::exception&) {
        // The server drops a silent client by itself; the verb's own outcome is what counts.
    }
}

COpenFile::~COpenFile() {
    try {
        Close();
    } catch (...) {
        // Leaving closes whatever is still open.
    }
}

void COpenFile::Close() {
    if (m_token == 0) return;
    const uint64_t token = m_token;
    m_token = 0;
    m_client.Close(token);
}

const StreamFrame& ReadOneFrame(CZemClient& client, uint64_t token, uint32_t position) {
    const ReadEntry entry{token, position, 0, 0};
    for (int attempt = 0;; ++attempt) {
        const StreamFrame& frame = client.ReadFrames({&entry, 1}).front();
        if (frame.status != kHrNoResources || attempt == 6) return frame;
        std::this_thread::sleep_for(std::chrono::milliseconds(10 << attempt));
    }
}

bool IsGap(int32_t status) {
    return status == kErrorFrameHole || status == kErrorFrameErased;
}

void RequireFirst(const std::string& name, uint32_t from, uint32_t count) {
    if (from == 0 || from < count) return;
    const std::string has =
        count == 0 ? "none" : Counted(count, "frame") + ", 0 to " + std::to_string(count - 1);
    throw CZemError(
        ErrorKind::kRefused,
        Printable(name) + ": there is no frame " + std::to_string(from) + ", it has " + has, 0,
        kReasonNoFrame);
}

void RequireRead(const std::string& name, uint32_t position, int32_t status) {
    if (status >= 0) return;
    throw CZemError(ErrorKind::kRefused,
                    Printable(name) + ": frame " + std::to_string(position) +
                        " cannot be read: " + HresultText(status),
                    status);
}

FileRef FileNamed(const std::string& name, const std::string& aux) {
    FileRef file;
    file.name = ToUtf16(name, "the file name");
    file.aux = ToUtf16(aux, "the stream name");
    return file;
}

}  // namespace zem
