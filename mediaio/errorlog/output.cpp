// The destinations of the error log. Files are opened for appending, so that two
// processes, or a tool that copies and truncates, do not overwrite each other's lines.
#include "mediaio/errorlog/output.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

std::filesystem::path PathOf(const std::string& utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

}  // namespace

bool CErrorLogOutput::Open(const ErrorLogSettings& settings, std::string* problem) {
    m_settings = settings;
    if (m_settings.path.empty() || OpenFile()) return true;
    if (problem)
        *problem = "cannot open the log file '" + m_settings.path + "': " + std::strerror(errno);
    return false;
}

bool CErrorLogOutput::OpenFile() {
    m_file.reset(OpenToAppend(PathOf(m_settings.path)));
    if (!m_file) return false;
    std::error_code error;
    const uintmax_t bytes = std::filesystem::file_size(PathOf(m_settings.path), error);
    m_file_bytes = error ? 0 : bytes;
    return true;
}

void CErrorLogOutput::Rotate() {
    m_file.reset();
    const auto numbered = [this](unsigned number) {
        return PathOf(m_settings.path + "." + std::to_string(number));
    };
    std::error_code ignored;  // a file that is missing, or cannot be renamed, must not stop the log
    for (unsigned number = m_settings.rotateKeep; number > 1; --number)
        std::filesystem::rename(numbered(number - 1), numbered(number), ignored);
    if (m_settings.rotateKeep > 0)
        std::filesystem::rename(PathOf(m_settings.path), numbered(1), ignored);
    else
        std::filesystem::remove(PathOf(m_settings.path), ignored);
    OpenFile();
}

bool CErrorLogOutput::Write(const std::string& lines) {
    bool written = true;
    if (!m_settings.path.empty()) {
        if (m_settings.rotate_bytes != 0 && m_file_bytes != 0 &&
            m_file_bytes + lines.size() > m_settings.rotate_bytes) {
            Rotate();
            // A file that could not be opened again, say on a full disk, is tried anew with every
            // write.
        }
        if (!m_file) OpenFile();
        written = m_file &&
                  std::fwrite(lines.data(), 1, lines.size(), m_file.get()) == lines.size() &&
                  std::fflush(m_file.get()) == 0;
        m_file_bytes += lines.size();
        if (!written) m_file.reset();
    }
    if (m_settings.toStderr) std::fwrite(lines.data(), 1, lines.size(), stderr);
    if (m_settings.write) m_settings.write(m_settings.writeContext, lines.data(), lines.size());
    return written;
}
