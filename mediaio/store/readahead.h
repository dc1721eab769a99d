// What is fetched ahead of the reader of one open stream. The system's own read-ahead
// goes past the queue in which the real-time client overtakes the others, so the store does it
// itself: a few requests at a time, behind everything that somebody waits for. Bytes follow each
// other in a file as frames do, and what lies between them (sound beside pictures) is wanted as
// well, so it fetches bytes, into the page cache. Any thread.
#pragma once

#include "mediaio/store/asyncio.h"
#include "mediaio/store/framefile.h"

#include <array>
#include <memory>
#include <mutex>

#pragma GCC visibility push(default)

namespace zemstore {

class CReadAhead {
public:
    // So much is kept ahead of who reads one frame after the other.
    static constexpr uint64_t kWindow = uint64_t{4} << 20;
    static constexpr uint32_t kAutomatic = 0xFFFFFFFF;
    static constexpr size_t kStep = kScratchSize;
    // Requests at a time: the device works on while the end of one is dealt with.
    static constexpr size_t kDepth = 3;

    struct Reader {
        uint32_t frames = kAutomatic;  // so many times this frame's size instead
        bool realTime = false;
        const std::shared_ptr<IAsyncIo>& engine;
    };

    // The reader is being given this frame.
    static void Note(const std::shared_ptr<CReadAhead>& self, const Reader& reader,
                     CFrameFile& file, const PinnedFrame& frame);

private:
    struct Step {  // a request that is under way, when it has an owner
        IoRequest request;
        std::shared_ptr<CReadAhead> owner;
        std::shared_ptr<IAsyncIo> engine;
        CFrameFile* file = nullptr;
    };
    bool Follow(const Reader& reader, const PinnedFrame& frame, uint64_t offset, uint64_t size);
    bool Prepare(Step& step, IStoreFile& file);
    void Done(Step& step);

    std::mutex m_lock;      // guards what follows
    uint32_t m_next = 0;    // the frame that a reader in sequence asks for next
    uint64_t m_cursor = 0;  // fetched, or being fetched, up to here
    uint64_t m_start = 0;   // the window: behind the frame that was read last ...
    uint64_t m_end = 0;     // ... to here
    std::array<Step, kDepth> m_steps;
};

}  // namespace zemstore

#pragma GCC visibility pop
