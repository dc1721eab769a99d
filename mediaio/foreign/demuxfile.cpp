// Frames out of a demuxer at any position: it is set down a little before the frame and read until
// the frame's own bytes come, known by size and checksum. In sequence every frame is one packet.
#include "mediaio/foreign/demuxfile.h"

#include "mediaio/store/crc32c.h"

#include <algorithm>
#include <cstring>

namespace zemstore {
namespace {

// So many frames before the wanted one it is set down, more when that did not do.
constexpr uint32_t kStepsBack[] = {2, 16, 128};

}  // namespace

CDemuxFile::CDemuxFile(IStoreFile& source, uint64_t size_bytes, int avIndex,
                       const std::vector<FramePlace>& places)
    : m_source(source), m_size(size_bytes), m_avIndex(avIndex), m_places(places) {}

HRESULT CDemuxFile::Size(uint64_t& size_bytes) {
    size_bytes = uint64_t{m_places.size()} << 32;
    return S_OK;
}

HRESULT CDemuxFile::ReadAt(void* to, size_t size_bytes, uint64_t offset_bytes, size_t& done) {
    done = 0;
    const uint64_t position = offset_bytes >> 32;
    const uint64_t within = offset_bytes & 0xFFFFFFFFu;
    if (position >= m_places.size()) return S_OK;
    std::lock_guard hold(m_lock);
    if (!m_current || m_next != position + 1) {
        const HRESULT hr = Fetch(static_cast<uint32_t>(position));
        if (FAILED(hr)) return hr;
    }
    if (within >= m_bytes.size()) return S_OK;
    done = std::min<size_t>(size_bytes, m_bytes.size() - within);
    memcpy(to, m_bytes.data() + within, done);
    return S_OK;
}

bool CDemuxFile::Is(const AVPacket& packet, uint32_t position) const {
    const FramePlace& place = m_places[position];
    return static_cast<uint32_t>(packet.size) == place.size &&
           Crc32c(0, packet.data, place.size) == place.crc;
}

const AVPacket* CDemuxFile::NextOfStream() {
    const AVPacket* packet = m_demuxer->Next();
    while (packet != nullptr && packet->stream_index != m_avIndex)
        packet = m_demuxer->Next();
    return packet;
}

// Reads on to the wanted frame where the demuxer stands at most a few frames before it.
bool CDemuxFile::Follows(uint32_t position) {
    if (!m_current || position < m_next || position - m_next > kStepsBack[0]) return false;
    for (; m_next <= position; ++m_next) {
        const AVPacket* packet = NextOfStream();
        if (packet == nullptr || !Is(*packet, m_next)) return false;
        if (m_next == position) m_bytes.assign(packet->data, packet->data + packet->size);
    }
    return true;
}

bool CDemuxFile::FetchFrom(uint32_t anchor, uint32_t position) {
    if (anchor != 0 && m_demuxer->SeekToByte(m_places[anchor].offset)) {
        m_untouched = false;
    } else {
        if (!m_untouched && FAILED(m_demuxer->Rewind())) return false;
        m_untouched = false;
        m_demuxer->DiscardAllBut(m_avIndex);
        anchor = 0;
    }
    // What comes first may begin in the middle of a frame: find the first that is one of ours. A
    // rewound stream begins with frames that were never counted.
    bool found = false;
    uint32_t at = anchor;
    const uint32_t patience = anchor == 0 ? 4096 : position - anchor + 8;
    for (uint32_t tries = 0; tries < patience || found;) {
        const AVPacket* packet = NextOfStream();
        if (packet == nullptr) return false;
        if (!found) {
            ++tries;
            uint32_t candidate = at;
            while (candidate <= position && !Is(*packet, candidate))
                ++candidate;
            if (candidate > position) continue;
            at = candidate;
            found = true;
        } else if (!Is(*packet, at)) {
            return false;
        }
        if (at == position) {
            m_bytes.assign(packet->data, packet->data + packet->size);
            m_next = position + 1;
            return true;
        }
        ++at;
    }
    return false;
}

bool CDemuxFile::Search(uint32_t position) {
    for (const uint32_t back : kStepsBack) {
        if (FetchFrom(position > back ? position - back : 0, position)) return true;
        if (position <= back) return false;
    }
    return FetchFrom(0, position);
}

HRESULT CDemuxFile::Fetch(uint32_t position) {
    if (m_demuxer == nullptr) {
        const HRESULT hr = CDemuxer::Open(m_source, m_size, m_demuxer);
        if (FAILED(hr)) return hr;
        m_untouched = true;
        m_current = false;
    }
    bool found = Follows(position);
    m_current = false;
    found = found || Search(position);
    if (!found && !m_streamInfo) {
        // Some streams are cut into frames only after a look into them, which takes its time.
        m_streamInfo = true;
        m_demuxer->FindStreamInfo();
        found = Search(position);
    }
    m_current = found;
    return found ? S_OK : HRESULT_FROM_WIN32(ERROR_CRC);
}

}  // namespace zemstore
