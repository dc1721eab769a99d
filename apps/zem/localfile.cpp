// See localfile.h.
#include "apps/zem/localfile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "apps/zem/client/zemerror.h"
#include "apps/zem/terminal.h"

namespace zem {

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

}  // namespace zem
