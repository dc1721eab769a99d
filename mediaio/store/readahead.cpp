// Fetching ahead of a reader.
#include "mediaio/store/readahead.h"

#include <algorithm>

namespace zemstore {

void CReadAhead::Note(const std::shared_ptr<CReadAhead>& self, const Reader& reader,
                      CFrameFile& file, const PinnedFrame& frame) {
    const FrameSource source = file.SourceOf(frame);
    if (source.engine != nullptr || reader.engine == nullptr) return;  // not bytes of the file
    if (reader.frames == kAutomatic && source.file->ReadsAhead()) return;
    uint64_t offset = frame.lookOffset;
    uint32_t size = frame.lookSize;
    if (size == 0) file.PieceOf(frame, 0, offset, size);
    CReadAhead& ahead = *self;
    {
        const std::lock_guard hold(ahead.m_lock);
        if (!ahead.Follow(reader, frame, offset, size) || !ahead.Prepare(*source.file)) return;
        ahead.m_request.realTime = reader.realTime;
        ahead.m_self = self;
        ahead.m_engine = reader.engine;
        ahead.m_file = &file;
    }
    file.AddRef();
    reader.engine->Submit(ahead.m_request);
}

// Moves the window along; false when nothing is to be begun.
bool CReadAhead::Follow(const Reader& reader, const PinnedFrame& frame, uint64_t offset,
                        uint64_t size) {
    const bool inSequence = frame.position == m_next;
    m_next = frame.position + 1;
    uint64_t window = size * reader.frames;
    if (reader.frames == kAutomatic) window = inSequence ? kWindow : 0;
    if (window == 0) return false;
    m_start = offset + size;
    // The reader is elsewhere now, or faster.
    if (m_cursor < m_start || m_cursor > m_start + window) m_cursor = m_start;
    m_end = m_start + window;
    return !m_busy;
}

// Makes the request for the next step that is not in the page cache. What is less than a step waits
// until it is one, but at the start of a window.
bool CReadAhead::Prepare(IStoreFile& file) {
    if (m_end < m_cursor + kStep && m_cursor != m_start) return false;
    uint64_t end = 0;
    if (FAILED(file.Size(end))) return false;
    end = std::min(end, m_end);
    while (m_cursor < end) {
        const auto step = static_cast<size_t>(std::min<uint64_t>(kStep, end - m_cursor));
        const uint64_t offset = m_cursor;
        m_cursor += step;
        if (file.Cached(offset, step)) continue;
        m_request = {};
        m_request.ahead = true;
        m_request.file = &file;
        m_request.offset_bytes = offset;
        m_request.size_bytes = step;
        m_request.completed = [](IoRequest& request) {
            static_cast<CReadAhead*>(request.context)->Done();
        };
        m_request.context = this;
        m_busy = true;
        return true;
    }
    return false;
}

void CReadAhead::Done() {
    const bool realTime = m_request.realTime;
    const bool whole = SUCCEEDED(m_request.result) && m_request.done_bytes == m_request.size_bytes;
    IStoreFile& file = *m_request.file;
    std::shared_ptr<CReadAhead> self;
    std::shared_ptr<IAsyncIo> engine;
    CFrameFile* source = nullptr;
    {
        const std::lock_guard hold(m_lock);
        m_busy = false;
        if (whole && Prepare(file)) {
            m_request.realTime = realTime;
        } else {
            self = std::move(m_self);
            engine = std::move(m_engine);
            source = m_file;
        }
    }
    if (source == nullptr) {
        m_engine->Submit(m_request);
    } else {
        source->Release();
    }
}

}  // namespace zemstore
