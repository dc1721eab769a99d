// Command line of zem: the options before the verb, the exit codes, and what several verbs share.
// Main thread only.
#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>

#include "apps/generated/version.h"
#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

constexpr const char* kFooter =
    "NAME is a file below the server's volume root, with slashes: media/clip.v0\n"
    "\n"
    "Exit codes:\n"
    "  0    done\n"
    "  1    the server refused, or what was asked for did not happen\n"
    "  2    wrong usage\n"
    "  3    the server cannot be reached, or the connection broke\n"
    "  4    the answer is not one of a media server\n"
    "  5    a file of this machine cannot be read or written\n"
    "  130  stopped by a signal\n";

int ExitCodeOf(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::kRefused:
            return kExitFailed;
        case ErrorKind::kUsage:
            return kExitUsage;
        case ErrorKind::kUnreachable:
            return kExitUnreachable;
        case ErrorKind::kBadReply:
            return kExitBadReply;
        case ErrorKind::kLocalFile:
            return kExitLocalFile;
        case ErrorKind::kInterrupted:
            return kExitInterrupted;
    }
    return kExitFailed;
}

}  // namespace

ConnectionOptions CommandLine::Connection() const {
    ConnectionOptions options;
    options.server = server;
    options.clientId = clientId.empty() ? DefaultClientId() : clientId;
    options.userAgent = std::string("zem (zem/") + kZemVersion + ")";
    options.stallTimeout_s = timeout_s;
    return options;
}

void CommandLine::RequireId(const char* verb_name) const {
    if (clientId.empty()) {
        throw CZemError(ErrorKind::kUsage,
                        std::string(verb_name) + " concerns one client: say which with --id ID");
    }
}

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

struct COutputFile::State {
    std::string path;
    std::string partPath;  // empty for stdout
    std::FILE* file = nullptr;
};

COutputFile::COutputFile(const std::string& path, bool force) : m_state(new State) {
    m_state->path = path;
    if (path == "-") {
        if (StdoutIsTerminal()) {
            throw CZemError(ErrorKind::kUsage, "media data does not go to a terminal: use -o FILE");
        }
        m_state->file = stdout;
        return;
    }
    std::error_code error;
    if (!force && std::filesystem::exists(path, error)) {
        throw CZemError(ErrorKind::kLocalFile, path + " exists; --force replaces it");
    }
    m_state->partPath = path + ".part";
    m_state->file = std::fopen(m_state->partPath.c_str(), "wb");
    if (m_state->file == nullptr) {
        throw CZemError(ErrorKind::kLocalFile, m_state->partPath + " cannot be written");
    }
}

COutputFile::~COutputFile() {
    if (m_state->file == nullptr || m_state->partPath.empty()) return;
    std::fclose(m_state->file);
    std::error_code error;
    std::filesystem::remove(m_state->partPath, error);
}

void COutputFile::Write(std::span<const uint8_t> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), m_state->file) != bytes.size()) {
        throw CZemError(ErrorKind::kLocalFile, m_state->path + ": " + std::strerror(errno));
    }
}

void COutputFile::Finish() {
    std::FILE* const file = m_state->file;
    if (std::fflush(file) != 0) {
        throw CZemError(ErrorKind::kLocalFile, m_state->path + ": " + std::strerror(errno));
    }
    if (m_state->partPath.empty()) return;
    m_state->file = nullptr;
    std::error_code error;
    if (std::fclose(file) == 0)
        std::filesystem::rename(m_state->partPath, m_state->path, error);
    else
        error = std::make_error_code(std::errc::io_error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(m_state->partPath, ignored);
        throw CZemError(ErrorKind::kLocalFile, m_state->path + ": " + error.message());
    }
}

FileRef FileNamed(const std::string& name, const std::string& aux) {
    FileRef file;
    file.name = ToUtf16(name, "the file name");
    file.aux = ToUtf16(aux, "the stream name");
    return file;
}

const char* MediaTypeText(int32_t media_type) {
    switch (media_type) {
        case kMediaFileVideo:
            return "video";
        case kMediaFileAudio:
            return "audio";
        case kMediaFileTimecode:
            return "timecode";
        case kMediaFileData:
            return "data";
        default:
            return "unknown";
    }
}

std::string RateText(uint32_t numerator, uint32_t denominator) {
    if (denominator == 0 || numerator == 0) return "none";
    if (numerator % denominator == 0) return std::to_string(numerator / denominator);
    return std::to_string(numerator) + "/" + std::to_string(denominator);
}

void PrintLine(const std::string& text) {
    std::printf("%s\n", text.c_str());
}

namespace {

void AddGlobalOptions(CLI::App& app, CommandLine& line) {
    app.add_option("--server", line.server, "Address of the server, http://HOST:PORT")
        ->capture_default_str();
    app.add_option("--id", line.clientId, "Client ID (default: one that no other client has)");
    app.add_option("--channel", line.channel, "Channel to join; 255 joins none")
        ->capture_default_str();
    app.add_option("--timeout", line.timeout_s,
                   "Seconds without a byte after which a transfer is given up")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option("--keep-alive", line.keepAlive_s,
                   "Seconds between signs of life while a verb waits, for a pipe for example")
        ->check(CLI::Range(1, 40))
        ->capture_default_str();
    app.add_flag("--stay", line.stay,
                 "Do not leave at the end: the client stays joined until zem leave, or until it "
                 "was silent for 50 seconds");
    app.add_flag("-q,--quiet", line.quiet, "No progress line, no summary");
    app.set_version_flag("--version", std::string("zem ") + kZemVersion);
}

int Report(const CLI::App& app, const CLI::ParseError& error) {
    // Help and version are no errors: they go to stdout.
    if (error.get_exit_code() == 0) return app.exit(error) == 0 ? kExitOk : kExitUsage;
    std::fprintf(stderr, "zem: %s\nTry zem --help, or zem VERB --help.\n", error.what());
    return kExitUsage;
}

}  // namespace

int RunZem(int argc, const char* const* argv) {
    CommandLine line;
    CLI::App app("zem: files and frames of a media server", "zem");
    app.footer(kFooter);
    app.require_subcommand(0, 1);
    app.fallthrough();
    AddGlobalOptions(app, line);
    AddPutVerbs(app, line);
    AddExportVerb(app, line);
    AddFrameVerbs(app, line);
    AddFileVerbs(app, line);
    AddPageVerbs(app, line);
    AddClientVerbs(app, line);
    try {
        app.parse(argc, argv);
        // Asked for here, not of the parser: an unknown word is then named instead of "a verb is
        // missing".
        if (!line.verb) throw CLI::RequiredError("a verb");
    } catch (const CLI::ParseError& error) {
        return Report(app, error);
    }
    try {
        CatchStopSignals();
        const int code = line.verb();
        if (std::fflush(stdout) != 0) {
            throw CZemError(ErrorKind::kLocalFile, "stdout cannot be written");
        }
        return code;
    } catch (const CZemError& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "zem: %s\n", error.what());
        return ExitCodeOf(error.Kind());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "zem: %s\n", error.what());
        return kExitFailed;
    }
}

}  // namespace zem
