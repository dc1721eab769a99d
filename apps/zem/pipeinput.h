// A pipe as libavformat reads a clip from it. A plain read of a pipe that is silent would go on
// when a stop is asked for; this one ends. A file on the standard input is read anywhere behind the
// place where it stands. Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "apps/zem/clipend.h"

struct AVIOContext;

namespace zem {

class CPipeInput {
public:
    // Whether `path` is not a file's: "-" is the standard input, whatever is behind it; else a
    // pipe, as a shell's <(...) is one, or a device.
    static bool IsPipe(const std::string& path);
    explicit CPipeInput(const std::string& path);  // throws CZemError(kLocalFile)
    ~CPipeInput();
    CPipeInput(const CPipeInput&) = delete;
    CPipeInput& operator=(const CPipeInput&) = delete;

    AVIOContext* Io() const { return m_io; }
    // How the clip begins, as far as it has come.
    static constexpr size_t kHead_bytes = 8;
    const std::string& Head() const { return m_head; }
    // A read was ended by a stop: what libavformat made of it is not the clip's end.
    bool Stopped() const { return m_stopped; }
    // What has come so far; of a file, which is looked at instead, nothing.
    const CClipEnd& End() const { return m_end; }

private:
    static int Read(void* self, uint8_t* data, int size) noexcept;
    static int64_t Seek(void* self, int64_t offset, int whence) noexcept;
    int m_fd;
    int64_t m_begin = -1;  // of the clip in its file; -1: it is none
    AVIOContext* m_io = nullptr;
    bool m_stopped = false;
    std::string m_head;
    CClipEnd m_end;
};

}  // namespace zem
