// From an MXF file's index tables to frames. In a frame-wrapped file the table leads to content
// packages; which element of a package belongs to which stream is learned from the first packets
// that the demuxer delivers, and the element itself is looked up when a frame is read.
#include "mediaio/foreign/containerindex.h"
#include "mediaio/foreign/mxf.h"
#include "mediaio/store/format.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <vector>

namespace zemstore {
namespace {

// Packets of every stream: the cadence of sound repeats after five at the rates of the field.
constexpr uint64_t kLearnFrom = 5;
constexpr int kMostPackets = 400;

class CMxfIndexer {
public:
    CMxfIndexer(CDemuxer& demuxer, IStoreFile& file, uint64_t size, ClipIndex& index)
        : m_demuxer(demuxer), m_file(file), m_size(size), m_index(index) {}

    bool Take() {
        if (!m_map.Load(m_file, m_size)) return false;
        const AVPacket* packet = m_demuxer.Next();
        if (packet == nullptr || packet->pos < 0) return false;
        Klv klv;
        const bool framed = ReadHead(static_cast<uint64_t>(packet->pos), klv) && IsEssence(klv.key);
        return framed ? TakeFrames(packet) : TakeClip(packet);
    }

private:
    bool ReadHead(uint64_t offset, Klv& klv) {
        uint8_t head[25];
        size_t done = 0;
        return SUCCEEDED(m_file.ReadAt(head, sizeof head, offset, done)) &&
               ParseKlv(head, done, klv);
    }

    // All picture tracks must be as long as the table.
    bool DurationsAgree(uint64_t count) const {
        for (const StreamIndex& stream : m_index.streams) {
            if (stream.desc.mediaType != kMediaFileVideo) continue;
            const int64_t duration = m_demuxer.Format().streams[stream.avIndex]->duration;
            if (duration > 0 && static_cast<uint64_t>(duration) != count) return false;
        }
        return true;
    }

    bool IntraOnly() const {
        for (const StreamIndex& stream : m_index.streams) {
            if (stream.desc.mediaType != kMediaFileVideo) continue;
            const AVStream& source = *m_demuxer.Format().streams[stream.avIndex];
            const AVCodecDescriptor* codec = avcodec_descriptor_get(source.codecpar->codec_id);
            if (codec == nullptr || (codec->props & AV_CODEC_PROP_INTRA_ONLY) == 0) return false;
        }
        return true;
    }

    bool ListPackages() {
        uint64_t count = m_map.unitCount;
        for (const StreamIndex& stream : m_index.streams) {
            if (count == 0 && stream.desc.mediaType == kMediaFileVideo) {
                count = static_cast<uint64_t>(
                    std::max<int64_t>(0, m_demuxer.Format().streams[stream.avIndex]->duration));
            }
        }
        if (count == 0 || count > kMostFrames || !DurationsAgree(count)) return false;
        if (m_map.unitSize != 0 && count > m_size / m_map.unitSize + 1) return false;
        // Not all writers flag the frames of codecs that know no others.
        const bool allKeys = m_map.unitSize != 0 || IntraOnly();
        m_index.packages.reserve(count);
        for (uint64_t i = 0; i < count; ++i) {
            const uint64_t streamOffset =
                m_map.unitSize != 0 ? i * m_map.unitSize : m_map.units[i].streamOffset;
            m_index.packages.push_back(
                {m_map.FileOffset(streamOffset), allKeys || m_map.units[i].key});
        }
        m_index.packagesEnd = m_map.essenceEnd;
        return true;
    }

    bool Locate(const MxfKey& key, uint64_t unit, ElementSearch& found) {
        std::vector<uint8_t> bytes(kLookSize);
        uint64_t at = m_index.packages[unit].offset;
        const uint64_t end = unit + 1 < m_index.packages.size() ? m_index.packages[unit + 1].offset
                                                                : m_index.packagesEnd;
        for (int looks = 0; looks < 64; ++looks) {
            size_t done = 0;
            if (FAILED(m_file.ReadAt(bytes.data(), bytes.size(), at, done))) return false;
            found = FindElement(key, at, bytes.data(), done, end);
            if (found.outcome != ElementSearch::kReadOn)
                return found.outcome == ElementSearch::kFound;
            at = found.offset;
        }
        return false;
    }

    // The container's cut is the exact cadence, or the samples have to be cut anew.
    bool CadenceAgrees(const StreamIndex& stream, uint64_t unit, uint64_t bytes) const {
        const StreamIndex* video = nullptr;
        for (const StreamIndex& candidate : m_index.streams)
            if (video == nullptr && candidate.desc.mediaType == kMediaFileVideo) video = &candidate;
        FrameRate rate{25, 1};
        if (video != nullptr) rate = {video->desc.rateNumerator, video->desc.rateDenominator};
        if (!rate.Valid()) return false;
        const uint64_t samples = FirstSample(unit + 1, stream.desc.sampleRate, rate) -
                                 FirstSample(unit, stream.desc.sampleRate, rate);
        // The last frame may be short.
        const bool last = unit + 1 == m_index.packages.size();
        return last ? bytes <= samples * stream.sampleSize : bytes == samples * stream.sampleSize;
    }

    bool PacketAgrees(StreamIndex& stream, uint64_t unit, const AVPacket& packet) {
        const auto at = static_cast<uint64_t>(packet.pos);
        Klv klv;
        if (packet.pos < 0 || unit >= m_index.packages.size() || !ReadHead(at, klv)) return false;
        if (unit == 0) stream.key = klv.key;
        ElementSearch found;
        if (!Locate(stream.key, unit, found)) return false;
        const auto size = static_cast<size_t>(packet.size);
        const bool key = (packet.flags & AV_PKT_FLAG_KEY) != 0;
        const bool keysAgree =
            stream.desc.mediaType != kMediaFileVideo || key == m_index.packages[unit].key;
        return found.offset == at + klv.headSize && found.length == size && keysAgree &&
               (!stream.IsPcm() || CadenceAgrees(stream, unit, size)) &&
               HoldsBytes(m_file, found.offset, packet.data, size);
    }

    bool TakeFrames(const AVPacket* packet) {
        if (!ListPackages()) return false;
        const uint64_t count = m_index.packages.size();
        const uint64_t enough = std::min(kLearnFrom, count);
        std::vector<uint64_t> seen(m_index.streams.size());
        for (int i = 0; i < kMostPackets && packet != nullptr; ++i, packet = m_demuxer.Next()) {
            const size_t which = StreamOf(m_index, *packet);
            if (which == seen.size()) continue;
            if (!PacketAgrees(m_index.streams[which], seen[which]++, *packet)) return false;
            if (std::all_of(seen.begin(), seen.end(), [&](uint64_t n) { return n >= enough; }))
                break;
        }
        for (size_t i = m_index.streams.size(); i-- > 0;) {
            StreamIndex& stream = m_index.streams[i];
            if (seen[i] == 0 && stream.desc.mediaType == kMediaFileData) {
                m_index.streams.erase(m_index.streams.begin() + static_cast<std::ptrdiff_t>(i));
                continue;
            }
            if (seen[i] < enough) return false;
            stream.inPackages = true;
            for (const uint64_t unit : {count / 2, count - 1}) {
                ElementSearch found;
                if (!Locate(stream.key, unit, found)) return false;
                if (stream.IsPcm() && !CadenceAgrees(stream, unit, found.length)) return false;
            }
        }
        return !m_index.streams.empty() && m_index.packages.front().key;
    }

    // One element holds the whole clip.
    bool TakeClip(const AVPacket* packet) {
        if (m_index.streams.size() != 1) return false;
        StreamIndex& stream = m_index.streams[0];
        Klv klv;
        if (!ReadHead(m_map.essenceOffset, klv) || !IsEssence(klv.key)) return false;
        const uint64_t begin = m_map.essenceOffset + klv.headSize;
        if (klv.length > m_size - begin) return false;
        const uint64_t end = begin + klv.length;
        if (stream.IsPcm())
            stream.AddRun(begin, klv.length / stream.sampleSize * stream.sampleSize);
        else if (!ListClipFrames(stream, begin, end))
            return false;
        uint64_t expected = begin;
        for (uint64_t i = 0; i < kLearnFrom && packet != nullptr; ++i, packet = m_demuxer.Next()) {
            const auto size = static_cast<size_t>(packet->size);
            if (packet->pos < 0 || static_cast<uint64_t>(packet->pos) != expected) return false;
            if (!HoldsBytes(m_file, expected, packet->data, size)) return false;
            if (!stream.IsPcm() && (i >= stream.frames.size() || stream.frames[i].size != size))
                return false;
            expected += size;
        }
        return true;
    }

    bool ListClipFrames(StreamIndex& stream, uint64_t begin, uint64_t end) {
        const uint64_t count =
            m_map.unitSize != 0 ? (end - begin) / m_map.unitSize : m_map.units.size();
        if (count == 0 || count > kMostFrames || !DurationsAgree(count)) return false;
        stream.frames.reserve(count);
        for (uint64_t i = 0; i < count; ++i) {
            uint64_t from = begin + i * m_map.unitSize;
            uint64_t to = from + m_map.unitSize;
            bool key = true;
            if (m_map.unitSize == 0) {
                const uint64_t first = m_map.units[0].streamOffset;
                if (m_map.units[i].streamOffset < first) return false;
                from = begin + (m_map.units[i].streamOffset - first);
                to = i + 1 < count ? begin + (m_map.units[i + 1].streamOffset - first) : end;
                key = m_map.units[i].key;
            }
            if (from >= to || to > end || to - from > kMaxFrameSize) return false;
            stream.frames.push_back(
                {from, static_cast<uint32_t>(to - from), key ? kFrameFlagKey : 0, 0, 0});
        }
        return (stream.frames.front().flags & kFrameFlagKey) != 0;
    }

    CDemuxer& m_demuxer;
    IStoreFile& m_file;
    const uint64_t m_size;
    ClipIndex& m_index;
    MxfMap m_map;
};

}  // namespace

bool TakeMxfIndex(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index) {
    return CMxfIndexer(demuxer, file, size_bytes, index).Take();
}

}  // namespace zemstore
