// Fetching ahead of a reader.
#include "mediaio/store/readahead.h"

#include <algorithm>
#include <utility>

namespace zemstore {

void CReadAhead::Note(const std::shared_ptr<CReadAhead>& self, const Reader& reader,
                      CFrameFile& file, const PinnedFrame& frame) {
    const FrameSource source = file.SourceOf(frame);
    if (source.engine != nullptr || reader.engine == nullptr) return;  // not bytes of the file
    if (reader.frames == kAutomatic && source.file->ReadsAhead()) return;
    uint64_t offset = frame.lookOffset;
    uint32_t size = frame.lookSize;
    if (size == 0) file.PieceOf(frame, 0, offset, size);
    if (!self->Follow(reader, frame, offset, size)) return;
    for (Step& step : self->m_steps) {
        {
            const std::lock_guard hold(self->m_lock);
            if (step.owner) continue;
            if (!self->Prepare(step, *source.file)) return;
            step.request.realTime = reader.realTime;
            step.owner = self;
            step.engine = reader.engine;
            step.file = &file;
        }
        file.AddRef();
        reader.engine->Submit(step.request);
    }
}

// Moves the window along; false when there is none.
bool CReadAhead::Follow(const Reader& reader, const PinnedFrame& frame, uint64_t offset,
                        uint64_t size) {
    const std::lock_guard hold(m_lock);
    const bool inSequence = frame.position == m_next;
    m_next = frame.position + 1;
    uint64_t window = size * reader.frames;
    if (reader.frames == kAutomatic) window = inSequence ? kWindow : 0;
    if (window == 0) return false;
    m_start = offset + size;
    // The reader is elsewhere now, or faster.
    if (m_cursor < m_start || m_cursor > m_start + window) m_cursor = m_start;
    m_end = m_start + window;
    return true;
}

// Makes the request for the next piece that is not in the page cache. What is less than kStep
// waits until it is that much, but at the start of a window.
bool CReadAhead::Prepare(Step& step, IStoreFile& file) {
    if (m_end < m_cursor + kStep && m_cursor != m_start) return false;
    uint64_t end = 0;
    if (FAILED(file.Size(end))) return false;
    end = std::min(end, m_end);
    while (m_cursor < end) {
        const auto size = static_cast<size_t>(std::min<uint64_t>(kStep, end - m_cursor));
        const uint64_t offset = m_cursor;
        m_cursor += size;
        if (file.Cached(offset, size)) continue;
        step.request = {};
        step.request.op = IoOp::kFetch;
        step.request.ahead = true;
        step.request.file = &file;
        step.request.offset_bytes = offset;
        step.request.size_bytes = size;
        step.request.completed = [](IoRequest& request) {
            Step& done = *static_cast<Step*>(request.context);
            done.owner->Done(done);
        };
        step.request.context = &step;
        return true;
    }
    return false;
}

void CReadAhead::Done(Step& step) {
    const bool realTime = step.request.realTime;
    const bool whole =
        SUCCEEDED(step.request.result) && step.request.done_bytes == step.request.size_bytes;
    Step ended;
    {
        const std::lock_guard hold(m_lock);
        if (whole && Prepare(step, *step.request.file))
            step.request.realTime = realTime;
        else
            ended = std::exchange(step, {});
    }
    if (ended.owner)
        ended.file->Release();
    else
        step.engine->Submit(step.request);
}

}  // namespace zemstore
