// The pass through a file that has no table: every packet as the demuxer delivers it, and where its
// bytes lie in the file, if they lie there in one piece and unchanged.
#include "mediaio/foreign/containerindex.h"
#include "mediaio/foreign/esdesc.h"
#include "mediaio/store/crc32c.h"
#include "mediaio/store/format.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

namespace zemstore {
namespace {

// A packet's data begin at most so far behind the place where the demuxer says that it lies.
constexpr size_t kHeadRoom = 4096;
// A stream of which so many packets in a row were not found, and none before, is not looked for.
constexpr uint32_t kGiveUpAfter = 64;

struct StreamScan {
    bool started = false;  // a stream begins with its first key frame
    uint64_t lastPos = 0;
    uint64_t lastEnd = 0;
    uint64_t lastShift = 0;  // from the packet's position to its data
    uint32_t misses = 0;
    bool found = false;
    bool allFound = true;
    int64_t lastTime = AV_NOPTS_VALUE;
    std::map<int64_t, uint32_t> distances;
};

class CScan {
public:
    CScan(IStoreFile& file, uint64_t size_bytes) : m_file(file), m_size(size_bytes) {}

    // Where the packet's bytes lie; false when nowhere.
    bool Locate(StreamScan& state, const AVPacket& packet, uint64_t& offset) {
        const auto size = static_cast<size_t>(packet.size);
        if (!state.found && state.misses >= kGiveUpAfter) return false;
        const uint64_t at = packet.pos >= 0 ? static_cast<uint64_t>(packet.pos) : state.lastPos;
        for (const uint64_t guess : {at + state.lastShift, state.lastEnd}) {
            if (!Holds(guess, packet.data, size)) continue;
            offset = guess;
            return Hit(state, at, offset, size);
        }
        const size_t sample = std::min<size_t>(size, 32);
        m_window.resize(kHeadRoom + sample);
        size_t done = 0;
        if (FAILED(m_file.ReadAt(m_window.data(), m_window.size(), at, done))) return false;
        const auto end = m_window.begin() + static_cast<std::ptrdiff_t>(done);
        for (auto from = m_window.begin();;) {
            const auto hit = std::search(from, end, packet.data, packet.data + sample);
            if (hit == end) break;
            offset = at + static_cast<uint64_t>(hit - m_window.begin());
            if (Holds(offset, packet.data, size)) return Hit(state, at, offset, size);
            from = hit + 1;
        }
        ++state.misses;
        return false;
    }

private:
    static bool Hit(StreamScan& state, uint64_t at, uint64_t offset, size_t size) {
        if (offset >= at && offset - at <= kHeadRoom) state.lastShift = offset - at;
        state.lastEnd = offset + size;
        state.found = true;
        return true;
    }
    bool Holds(uint64_t offset, const uint8_t* bytes, size_t size) {
        if (offset > m_size || size > m_size - offset) return false;
        m_bytes.resize(size);
        size_t done = 0;
        return SUCCEEDED(m_file.ReadAt(m_bytes.data(), size, offset, done)) && done == size &&
               memcmp(m_bytes.data(), bytes, size) == 0;
    }

    IStoreFile& m_file;
    const uint64_t m_size;
    std::vector<uint8_t> m_window;
    std::vector<uint8_t> m_bytes;
};

void CountDistance(StreamScan& state, const AVPacket& packet) {
    if (packet.dts == AV_NOPTS_VALUE) return;
    if (state.lastTime != AV_NOPTS_VALUE && state.distances.size() < 64)
        ++state.distances[packet.dts - state.lastTime];
    state.lastTime = packet.dts;
}

// Most frames are that far apart: more exact than an average over a damaged or cut end.
void TakeRate(const StreamScan& state, const AVStream& source, StreamIndex& stream) {
    uint64_t total = 0;
    uint32_t most = 0;
    int64_t distance = 0;
    for (const auto& [apart, times] : state.distances) {
        total += times;
        if (times <= most) continue;
        most = times;
        distance = apart;
    }
    if (total >= 2 && uint64_t{most} * 10 >= total * 9) SetRate(stream, source.time_base, distance);
}

}  // namespace

HRESULT ScanFile(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index) {
    CScan scan(file, size_bytes);
    std::vector<StreamScan> states(index.streams.size());
    while (const AVPacket* packet = demuxer.Next()) {
        const size_t which = StreamOf(index, *packet);
        if (which == states.size() || packet->size < 0) continue;
        StreamIndex& stream = index.streams[which];
        StreamScan& state = states[which];
        const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        if (!state.started && !key) continue;
        state.started = true;
        if (packet->pos >= 0) state.lastPos = static_cast<uint64_t>(packet->pos);
        CountDistance(state, *packet);
        const auto size = static_cast<uint32_t>(packet->size);
        FramePlace place{state.lastPos, size, key ? kFrameFlagKey : 0, 0, 0};
        place.crc = Crc32c(0, packet->data, size);
        place.flags |= kPlaceHasCrc;
        // The file ends within it, or packets of the transport are missing.
        if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) place.flags |= kPlaceCorrupt;
        uint64_t offset = 0;
        if (size == 0 || scan.Locate(state, *packet, offset)) {
            if (size != 0) place.offset = offset;
            if (stream.IsPcm()) stream.AddRun(offset, size);
        } else {
            place.flags |= kPlaceDemux;
            state.allFound = false;
        }
        if (stream.frames.size() >= kMostFrames) break;
        stream.frames.push_back(place);
    }
    if (CDemuxer::Stopped()) return HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED);
    bool any = false;
    for (size_t i = 0; i < states.size(); ++i) {
        StreamIndex& stream = index.streams[i];
        any = any || !stream.frames.empty();
        // Samples that do not lie in the file as they are cannot be cut there: packets then.
        if (stream.IsPcm() && states[i].allFound) {
            stream.frames = {};
        } else {
            stream.sampleSize = 0;
            stream.runs = {};
        }
        if (!stream.IsPcm()) TakeRate(states[i], *demuxer.Format().streams[stream.avIndex], stream);
    }
    return any ? S_OK : HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
}

}  // namespace zemstore
