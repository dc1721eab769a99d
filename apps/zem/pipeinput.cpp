// See pipeinput.h.
#include "apps/zem/pipeinput.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/terminal.h"

namespace zem {
namespace {

constexpr int kBuffer_bytes = 65536;

// Without waiting for a writer: the wait for its data is the one that can be ended.
int OpenPipe(const std::string& path) {
    if (path == "-") return STDIN_FILENO;
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) return fd;
    throw CZemError(ErrorKind::kLocalFile,
                    Printable(path) + ": cannot be opened as a clip: " + std::strerror(errno));
}

// Where a file is to be read on from; -1: it is no file.
int64_t BeginOf(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? lseek(fd, 0, SEEK_CUR) : -1;
}

}  // namespace

bool CPipeInput::IsPipe(const std::string& path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    return path == "-" || std::filesystem::is_fifo(status) || std::filesystem::is_socket(status) ||
           std::filesystem::is_character_file(status);
}

CPipeInput::CPipeInput(const std::string& path) : m_fd(OpenPipe(path)), m_begin(BeginOf(m_fd)) {
    auto* const buffer = static_cast<uint8_t*>(av_malloc(kBuffer_bytes));
    if (buffer != nullptr) {
        m_io = avio_alloc_context(buffer, kBuffer_bytes, 0, this, &Read, nullptr,
                                  m_begin < 0 ? nullptr : &Seek);
    }
    if (m_io != nullptr) return;
    av_free(buffer);
    if (m_fd != STDIN_FILENO) close(m_fd);
    throw std::bad_alloc();
}

CPipeInput::~CPipeInput() {
    av_freep(&m_io->buffer);
    avio_context_free(&m_io);
    if (m_fd != STDIN_FILENO) close(m_fd);
}

int CPipeInput::Read(void* self, uint8_t* data, int size) noexcept {
    CPipeInput& input = *static_cast<CPipeInput*>(self);
    for (;;) {
        if (!WaitForInput(input.m_fd)) {
            input.m_stopped = true;
            return AVERROR_EXIT;
        }
        const ssize_t got = read(input.m_fd, data, static_cast<size_t>(size));
        if (got > 0) {
            if (input.m_head.size() < kHead_bytes) {
                const size_t missing = kHead_bytes - input.m_head.size();
                input.m_head.append(reinterpret_cast<const char*>(data),
                                    std::min(missing, static_cast<size_t>(got)));
            }
            if (input.m_begin < 0) input.m_end.Take({data, static_cast<size_t>(got)});
            return static_cast<int>(got);
        }
        if (got == 0) return AVERROR_EOF;
        if (errno != EINTR && errno != EAGAIN) return AVERROR(errno);
    }
}

int64_t CPipeInput::Seek(void* self, int64_t offset, int whence) noexcept {
    const CPipeInput& input = *static_cast<CPipeInput*>(self);
    struct stat status {};
    int64_t place = -1;
    if (whence == AVSEEK_SIZE)
        place = fstat(input.m_fd, &status) == 0 ? status.st_size : -1;
    else if (whence == SEEK_SET)
        place = lseek(input.m_fd, input.m_begin + offset, SEEK_SET);
    else
        return AVERROR(EINVAL);
    return place < 0 ? AVERROR(errno) : place - input.m_begin;
}

}  // namespace zem
