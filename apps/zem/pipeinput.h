// A pipe as libavformat reads a clip from it. A plain read of a pipe that is silent would go on
// when a stop is asked for; this one ends. Main thread only.
#pragma once

#include <cstdint>
#include <string>

struct AVIOContext;

namespace zem {

class CPipeInput {
public:
    // Whether `path` is none that can be read anywhere: "-" is the standard input, whatever is
    // behind it; else a pipe, as a shell's <(...) is one, or a device.
    static bool IsPipe(const std::string& path);
    explicit CPipeInput(const std::string& path);  // throws CZemError(kLocalFile)
    ~CPipeInput();
    CPipeInput(const CPipeInput&) = delete;
    CPipeInput& operator=(const CPipeInput&) = delete;

    AVIOContext* Io() const { return m_io; }
    // A read was ended by a stop: what libavformat made of it is not the clip's end.
    bool Stopped() const { return m_stopped; }

private:
    static int Read(void* self, uint8_t* data, int size) noexcept;
    int m_fd;
    AVIOContext* m_io = nullptr;
    bool m_stopped = false;
};

}  // namespace zem
