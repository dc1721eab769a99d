// See session.h.
#include "apps/zem/session.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
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

void ThrowUnwritten(const std::string& path, const std::string& why) {
    if (OutputClosed()) throw CZemError(ErrorKind::kInterrupted, "stopped");
    throw CZemError(ErrorKind::kLocalFile, path + why);
}

void FlushStdout() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        ThrowUnwritten("stdout", " cannot be written");
}

namespace {

// A link stays, and what it leads to is replaced. One that leads nowhere makes no file: who laid it
// may be somebody else, as in a folder where all may write.
std::string BehindLink(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_symlink(path, error)) return path;
    std::string place = std::filesystem::canonical(path, error).string();
    if (error || !std::filesystem::equivalent(place, path, error)) {
        throw CZemError(ErrorKind::kLocalFile,
                        path + " is a link that leads to no file: name the file itself");
    }
    return place;
}

}  // namespace

void RequireFolderOf(const std::string& path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    std::error_code error;
    if (folder.empty()) return;
    const std::filesystem::file_type type = std::filesystem::status(folder, error).type();
    // none: it may be there, but this user may not look.
    if (type == std::filesystem::file_type::directory || type == std::filesystem::file_type::none)
        return;
    throw CZemError(ErrorKind::kLocalFile,
                    path + " cannot be written: there is no folder " + folder.string());
}

std::string PlaceToReplace(const std::string& path, bool force) {
    std::error_code error;
    const std::filesystem::file_status there = std::filesystem::status(path, error);
    switch (there.type()) {
        case std::filesystem::file_type::character:
        case std::filesystem::file_type::fifo:
            return {};
        case std::filesystem::file_type::directory:
            throw CZemError(ErrorKind::kLocalFile, path + " is a folder: name a file in it");
        case std::filesystem::file_type::block:
        case std::filesystem::file_type::socket:
            throw CZemError(ErrorKind::kLocalFile, path + " is no file, and is left as it is");
        default:
            break;
    }
    if (!force && std::filesystem::exists(there))
        throw CZemError(ErrorKind::kLocalFile, path + " exists; --force replaces it");
    return BehindLink(path);
}

struct COutputFile::State {
    std::string path;
    std::string place;     // what `path` is a link to, else `path`
    std::string partPath;  // empty where the data go straight to their place
    std::FILE* file = nullptr;
};

COutputFile::COutputFile(const std::string& path, bool force) : m_state(new State) {
    m_state->path = path;
    const bool toStdout = path == "-";
    if (!toStdout) m_state->place = PlaceToReplace(path, force);
    if (!m_state->place.empty()) m_state->partPath = m_state->place + ".part";
    const std::string& opened = m_state->partPath.empty() ? path : m_state->partPath;
    m_state->file = toStdout ? stdout : std::fopen(opened.c_str(), "wb");
    if (m_state->file == nullptr) {
        const int error = errno;
        RequireFolderOf(path);
        throw CZemError(ErrorKind::kLocalFile,
                        path + " cannot be written: " + std::strerror(error));
    }
    if (isatty(fileno(m_state->file)) != 0) {
        if (!toStdout) std::fclose(m_state->file);
        throw CZemError(ErrorKind::kUsage, "media data does not go to a terminal: use -o FILE");
    }
}

COutputFile::~COutputFile() {
    if (m_state->file == nullptr || m_state->file == stdout) return;
    std::fclose(m_state->file);
    if (m_state->partPath.empty()) return;
    std::error_code error;
    std::filesystem::remove(m_state->partPath, error);
}

void COutputFile::Write(std::span<const uint8_t> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), m_state->file) != bytes.size())
        ThrowUnwritten(m_state->path, std::string(": ") + std::strerror(errno));
}

void COutputFile::Finish() {
    std::FILE* const file = m_state->file;
    if (std::fflush(file) != 0)
        ThrowUnwritten(m_state->path, std::string(": ") + std::strerror(errno));
    if (file == stdout) return;
    m_state->file = nullptr;
    std::error_code error;
    if (std::fclose(file) != 0)
        error = std::make_error_code(std::errc::io_error);
    else if (!m_state->partPath.empty())
        std::filesystem::rename(m_state->partPath, m_state->place, error);
    if (error) {
        std::error_code ignored;
        if (!m_state->partPath.empty()) std::filesystem::remove(m_state->partPath, ignored);
        throw CZemError(ErrorKind::kLocalFile, m_state->path + ": " + error.message());
    }
}

FileRef FileNamed(const std::string& name, const std::string& aux) {
    FileRef file;
    file.name = ToUtf16(name, "the file name");
    file.aux = ToUtf16(aux, "the stream name");
    return file;
}

std::string PathIn(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

NearestFolder FindNearestFolder(CZemClient& client, const std::string& folder) {
    constexpr const char* kSeparators = "/\\";
    std::string nearest = folder;
    const auto dropTail = [&nearest](size_t from) {
        nearest.erase(std::min(from, nearest.size()));
    };
    dropTail(nearest.find_last_not_of(kSeparators) + 1);
    // What cannot be is left as it is, for the server to refuse.
    if (WhyBadName(FileNamed(nearest).name).word != nullptr) return {nearest, ""};
    const std::string wanted = nearest;
    while (!nearest.empty() && client.Attributes(FileNamed(nearest).name) == kNoAttributes) {
        const size_t above = nearest.find_last_of(kSeparators);
        dropTail(above == std::string::npos ? 0 : nearest.find_last_not_of(kSeparators, above) + 1);
    }
    if (nearest == wanted) return {nearest, ""};
    return {nearest, ", in " + (nearest.empty() ? "the volume root" : Printable(nearest)) +
                         ": there is no " + Printable(wanted)};
}

std::string RateText(uint32_t numerator, uint32_t denominator) {
    if (denominator == 0 || numerator == 0) return "none";
    if (numerator % denominator == 0) return std::to_string(numerator / denominator);
    return std::to_string(numerator) + "/" + std::to_string(denominator);
}

}  // namespace zem
