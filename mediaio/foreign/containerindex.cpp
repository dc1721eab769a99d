// Sample tables of MOV and MP4, the index of AVI, and files that are one run of PCM.
#include "mediaio/foreign/containerindex.h"

#include "mediaio/foreign/bigendian.h"
#include "mediaio/foreign/esdesc.h"
#include "mediaio/store/format.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace zemstore {
namespace {

constexpr int kCheckedPackets = 48;

// The demuxer cuts or joins what lies in the container for these.
bool IsReparsed(AVCodecID codec) {
    switch (codec) {
        case AV_CODEC_ID_MPEG1VIDEO:
        case AV_CODEC_ID_VC1:
        case AV_CODEC_ID_AV1:
        case AV_CODEC_ID_AVS2:
        case AV_CODEC_ID_AVS3:
        case AV_CODEC_ID_MP1:
        case AV_CODEC_ID_MP2:
        case AV_CODEC_ID_MP3:
        case AV_CODEC_ID_AC3:
        case AV_CODEC_ID_EAC3:
        case AV_CODEC_ID_MLP:
        case AV_CODEC_ID_TRUEHD:
        case AV_CODEC_ID_EIA_608:
            return true;
        default:
            return false;
    }
}

// True when the file is made of fragments, whose tables lie all over it.
bool HasFragments(IStoreFile& file, uint64_t size_bytes) {
    for (uint64_t at = 0, boxes = 0; at + 8 <= size_bytes; ++boxes) {
        uint8_t head[16] = {};
        size_t done = 0;
        if (boxes == 4096 || FAILED(file.ReadAt(head, sizeof head, at, done)) || done < 8)
            return true;
        if (memcmp(head + 4, "moof", 4) == 0) return true;
        uint64_t box = BigEndian32(head);
        if (box == 1) box = uint64_t{BigEndian32(head + 8)} << 32 | BigEndian32(head + 12);
        if (box == 0) return false;  // to the end of the file
        if (box < 8 || box > size_bytes - at) return false;
        at += box;
    }
    return false;
}

// Takes a stream's entries as they stand, each `shift` bytes further.
bool TakeEntries(AVStream& stream, uint64_t shift, StreamIndex& index) {
    const int count = avformat_index_get_entries_count(&stream);
    if (count <= 0 || static_cast<uint64_t>(count) > kMostFrames) return false;
    if (!index.IsPcm()) index.frames.reserve(static_cast<size_t>(count));
    int64_t firstTime = 0;
    int64_t secondTime = 0;
    int64_t lastTime = 0;
    for (int i = 0; i < count; ++i) {
        const AVIndexEntry* entry = avformat_index_get_entry(&stream, i);
        if (entry == nullptr || entry->pos < 0 || entry->size <= 0) return false;
        const uint64_t offset = static_cast<uint64_t>(entry->pos) + shift;
        const auto size = static_cast<uint32_t>(entry->size);
        if (i == 0) firstTime = entry->timestamp;
        if (i == 1) secondTime = entry->timestamp;
        lastTime = entry->timestamp;
        if (index.IsPcm()) {
            index.AddRun(offset, size);
            continue;
        }
        const bool key = (entry->flags & AVINDEX_KEYFRAME) != 0;
        index.frames.push_back({offset, size, key ? kFrameFlagKey : 0, 0, 0});
    }
    if (index.IsPcm()) return true;
    const int64_t distance = secondTime - firstTime;
    const bool regular = lastTime - firstTime == distance * (count - 1);
    if (count > 1 && (regular || index.desc.rateNumerator == 0))
        SetRate(index, stream.time_base, distance);
    return (index.frames.front().flags & kFrameFlagKey) != 0;
}

// The first packets of every stream are where the index says, and nowhere changed on the way.
bool PacketsAgree(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes,
                  const ClipIndex& index) {
    std::vector<uint64_t> seen(index.streams.size());
    for (int count = 0; count < kCheckedPackets; ++count) {
        const AVPacket* packet = demuxer.Next();
        if (packet == nullptr) break;
        const size_t which = StreamOf(index, *packet);
        if (which == index.streams.size()) continue;
        const StreamIndex& stream = index.streams[which];
        const auto size = static_cast<uint32_t>(packet->size);
        if (packet->pos < 0 || packet->size <= 0) return false;
        const auto offset = static_cast<uint64_t>(packet->pos);
        // A file that was cut off: what is there is read, the rest is damaged.
        if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0 && offset + size >= size_bytes) break;
        if (stream.IsPcm()) {
            const auto run = std::upper_bound(
                stream.runs.begin(), stream.runs.end(), seen[which],
                [](uint64_t at, const PcmRun& candidate) { return at < candidate.first; });
            if (run == stream.runs.begin()) return false;
            if ((run - 1)->offset + (seen[which] - (run - 1)->first) != offset) return false;
            seen[which] += size;
        } else {
            if (seen[which] >= stream.frames.size()) return false;
            const FramePlace& place = stream.frames[seen[which]++];
            const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
            if (place.offset != offset || place.size != size) return false;
            if (key != ((place.flags & kFrameFlagKey) != 0)) return false;
        }
        if (!HoldsBytes(file, offset, packet->data, size)) return false;
    }
    // A stream that did not show up among them begins later; its table is as good as the others'.
    return std::any_of(seen.begin(), seen.end(), [](uint64_t n) { return n != 0; });
}

bool TakeMov(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index) {
    if (HasFragments(file, size_bytes)) return false;
    for (StreamIndex& stream : index.streams) {
        AVStream& source = *demuxer.Format().streams[stream.avIndex];
        if (IsReparsed(source.codecpar->codec_id)) return false;
        if (!TakeEntries(source, 0, stream)) return false;
    }
    return PacketsAgree(demuxer, file, size_bytes, index);
}

bool IsAviData(const uint8_t* code) {
    if (code[0] < '0' || code[0] > '9') return false;
    return memcmp(code + 2, "dc", 2) == 0 || memcmp(code + 2, "db", 2) == 0 ||
           memcmp(code + 2, "wb", 2) == 0;
}

// An index that ends before the data do is not the whole of it. Empty chunks, which stand for
// pictures that are shown twice, do not count.
bool DataFollow(IStoreFile& file, uint64_t size_bytes, uint64_t at) {
    uint8_t head[8] = {};
    size_t done = 0;
    while (at < size_bytes && SUCCEEDED(file.ReadAt(head, sizeof head, at, done)) &&
           done == sizeof head && IsAviData(head)) {
        if (BigEndian32(head + 4) != 0) return true;
        at += sizeof head;
    }
    return false;
}

bool TakeAvi(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index) {
    constexpr uint64_t kChunkHead = 8;
    uint64_t end = 0;
    for (StreamIndex& stream : index.streams) {
        AVStream& source = *demuxer.Format().streams[stream.avIndex];
        if (IsReparsed(source.codecpar->codec_id)) return false;
        if (!TakeEntries(source, kChunkHead, stream)) return false;
        const AVIndexEntry* last =
            avformat_index_get_entry(&source, avformat_index_get_entries_count(&source) - 1);
        end = std::max(
            end, static_cast<uint64_t>(last->pos) + kChunkHead + static_cast<uint64_t>(last->size));
    }
    return !DataFollow(file, size_bytes, end + (end & 1)) &&
           PacketsAgree(demuxer, file, size_bytes, index);
}

// A header, and then samples to the end of the data.
bool TakePcmFile(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index) {
    if (index.streams.size() != 1 || !index.streams[0].IsPcm()) return false;
    StreamIndex& stream = index.streams[0];
    const AVPacket* packet = demuxer.Next();
    if (packet == nullptr || packet->pos < 0 || packet->size <= 0) return false;
    const auto first = static_cast<uint64_t>(packet->pos);
    if (!HoldsBytes(file, first, packet->data, static_cast<size_t>(packet->size))) return false;
    // The end is where the demuxer's last packet ends, whatever the header says.
    const AVStream& source = *demuxer.Format().streams[stream.avIndex];
    uint64_t samples = (size_bytes - first) / stream.sampleSize;
    if (source.duration > 0) samples = static_cast<uint64_t>(source.duration);
    const bool jumps = samples > stream.desc.sampleRate;
    if (jumps && !demuxer.SeekToTime(stream.avIndex,
                                     static_cast<int64_t>(samples - stream.desc.sampleRate))) {
        return false;
    }
    uint64_t end = first + static_cast<uint64_t>(packet->size);
    bool any = !jumps;
    while ((packet = demuxer.Next()) != nullptr) {
        if (packet->pos < 0 || static_cast<uint64_t>(packet->pos) < first) return false;
        any = true;
        end = static_cast<uint64_t>(packet->pos) + static_cast<uint64_t>(packet->size);
        if (!HoldsBytes(file, static_cast<uint64_t>(packet->pos), packet->data,
                        static_cast<size_t>(packet->size))) {
            return false;
        }
    }
    if (!any) return false;
    stream.AddRun(first, (end - first) / stream.sampleSize * stream.sampleSize);
    return true;
}

}  // namespace

size_t StreamOf(const ClipIndex& index, const AVPacket& packet) {
    size_t which = 0;
    while (which < index.streams.size() && index.streams[which].avIndex != packet.stream_index)
        ++which;
    return which;
}

bool HoldsBytes(IStoreFile& file, uint64_t offset, const uint8_t* bytes, size_t size) {
    std::vector<uint8_t> there(size);
    size_t done = 0;
    return SUCCEEDED(file.ReadAt(there.data(), size, offset, done)) && done == size &&
           (size == 0 || memcmp(there.data(), bytes, size) == 0);
}

bool TakeContainerIndex(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes,
                        ClipIndex& index) {
    if (demuxer.Is("mov")) return TakeMov(demuxer, file, size_bytes, index);
    if (demuxer.Is("avi")) return TakeAvi(demuxer, file, size_bytes, index);
    if (demuxer.Is("mxf")) return TakeMxfIndex(demuxer, file, size_bytes, index);
    for (const char* name : {"wav", "w64", "aiff", "caf", "au"})
        if (demuxer.Is(name)) return TakePcmFile(demuxer, file, size_bytes, index);
    return false;
}

HRESULT BuildFromTables(IStoreFile& file, uint64_t size_bytes, ClipIndex& index) {
    std::unique_ptr<CDemuxer> demuxer;
    const HRESULT hr = CDemuxer::Open(file, size_bytes, demuxer);
    if (FAILED(hr)) return hr;
    DescribeStreams(demuxer->Format(), index);
    if (index.streams.empty() || !TakeContainerIndex(*demuxer, file, size_bytes, index))
        return S_FALSE;
    FinishIndex(index);
    return S_OK;
}

HRESULT BuildByPass(IStoreFile& file, uint64_t size_bytes, ClipIndex& index) {
    index = {};
    std::unique_ptr<CDemuxer> demuxer;
    HRESULT hr = CDemuxer::Open(file, size_bytes, demuxer);
    if (FAILED(hr)) return hr;
    demuxer->FindStreamInfo();
    DescribeStreams(demuxer->Format(), index);
    if (index.streams.empty()) return HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
    hr = ScanFile(*demuxer, file, size_bytes, index);
    if (SUCCEEDED(hr)) FinishIndex(index);
    return hr;
}

}  // namespace zemstore
