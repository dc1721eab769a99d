// Coded frames into a clip of this machine, through the FFmpeg libraries. Nothing is coded anew;
// what a container demands of its packets (another framing of H.264, for one) libavformat does.
// One thread.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "apps/zem/clipfile.h"

namespace zem {

class CMuxer {
public:
    // The ending of `path` tells the container: .mov, .mxf (OP1a), .mp4, .mkv ... The file appears
    // under its name at Finish. Throws CZemError(kLocalFile), as all of these.
    CMuxer(const std::string& path, bool force);
    ~CMuxer();  // removes what is incomplete
    CMuxer(const CMuxer&) = delete;
    CMuxer& operator=(const CMuxer&) = delete;

    void AddStream(const StreamHead& head);
    void Begin();
    // Times in the time base of the stream's head. `stream` counts in the order of AddStream.
    void Write(size_t stream, std::span<const uint8_t> data, int64_t dts, int64_t pts,
               int64_t duration, bool isKey);
    // Completes the container, which is not under its name yet.
    void End();
    const std::string& WrittenPath() const;
    // Gives it its name.
    void Finish();

private:
    struct Context;
    std::string m_path;
    std::unique_ptr<Context> m_context;
};

}  // namespace zem
