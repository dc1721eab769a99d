// The verbs of the program zem. Each Add… function puts one group of verbs into the command line
// and tells Run what to call. A verb talks to people on stdout and stderr and reports failure by
// CZemError or its exit code. Main thread, but for the keep-alives.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>

#include "apps/zem/client/zemclient.h"

namespace CLI {
class App;
}

namespace zem {

enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitUnreachable = 3,
    kExitBadReply = 4,
    kExitLocalFile = 5,
    kExitInterrupted = 130,
};

// What stands before the verb, and the verb that was chosen.
struct CommandLine {
    std::string server = "http://127.0.0.1:8080";
    std::string clientId;  // empty: one is made up
    uint32_t channel = 0;
    int timeout_s = 60;
    int keepAlive_s = 15;
    bool stay = false;
    bool quiet = false;
    bool json = false;
    std::string colour = "auto";
    std::function<int()> verb;

    ConnectionOptions Connection() const;
    // For verbs that change or end what a client has on the server: they are pointless under a
    // made-up ID.
    void RequireId(const char* verb_name) const;
};

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

// A file of this machine that appears under its name only when it is complete.
class COutputFile {
public:
    // "-" is stdout. Throws CZemError(kLocalFile) when the file exists and `force` is not set.
    COutputFile(const std::string& path, bool force);
    ~COutputFile();  // removes what is incomplete
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;
    void Write(std::span<const uint8_t> bytes);
    void Finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// The group of verbs under which help and manual list them.
struct VerbGroup {
    CLI::App& app;
    CommandLine& line;
    const char* title;

    // Adds a verb; `run` is called once the line is parsed. --json is every verb's.
    CLI::App* Add(const char* name, const char* help, std::function<int()> run) const;
};

// What the tables of help, manual and completions say of an argument is its type's name. Those that
// name a file of this machine are completed with files.
inline constexpr const char* kTypeFile = "FILE";

FileRef FileNamed(const std::string& name, const std::string& aux = {});
std::string RateText(uint32_t numerator, uint32_t denominator);
void PrintLine(const std::string& text);

void AddPutVerbs(CLI::App& app, CommandLine& line);     // put import
void AddExportVerb(CLI::App& app, CommandLine& line);   // export
void AddFrameVerbs(CLI::App& app, CommandLine& line);   // framemd5 read frames
void AddFileVerbs(CLI::App& app, CommandLine& line);    // info marks df stat rm mv mkdir stripe ...
void AddPageVerbs(CLI::App& app, CommandLine& line);    // status clients get
void AddTopVerb(CLI::App& app, CommandLine& line);      // top
void AddBenchVerb(CLI::App& app, CommandLine& line);    // bench
void AddDoctorVerb(CLI::App& app, CommandLine& line);   // doctor
void AddClientVerbs(CLI::App& app, CommandLine& line);  // join leave keepalive realtime config
void AddManualVerbs(CLI::App& app, CommandLine& line);  // completion manual

// The exit codes and what they mean: help, manual and docs/zem.md have them from here.
struct ExitMeaning {
    ExitCode code;
    const char* meaning;
};
std::span<const ExitMeaning> ExitMeanings();

// The whole program but for its main: parses, runs, turns every failure into a line on stderr and
// an exit code.
int RunZem(int argc, const char* const* argv);

}  // namespace zem
