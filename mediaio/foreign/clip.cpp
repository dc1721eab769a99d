// Foreign clips: finding a frame's bytes.
#include "mediaio/foreign/clip.h"

#include "mediaio/errorlog.h"
#include "mediaio/foreign/containerindex.h"
#include "mediaio/foreign/mxf.h"
#include "mediaio/store/log.h"

#include <algorithm>
#include <cstring>

namespace zemstore {
namespace {

constexpr const WCHAR* kSource = TEXT("clip.cpp");
// PinnedFrame::sequence of a frame that does not lie in the file as it is.
constexpr uint64_t kDemuxed = 1;
constexpr HRESULT kDamaged = HRESULT_FROM_WIN32(ERROR_CRC);

// Views as in a native file: a window is longer than its step by more than any frame.
constexpr uint64_t kWindow = uint64_t{1} << 30;
constexpr uint64_t kWindowOverlap = uint64_t{256} << 20;
static_assert(kWindowOverlap >= kMaxFrameSize);

// Demuxers may wait for the device in the middle of anything: they get threads of their own.
std::shared_ptr<IAsyncIo> DemuxEngine() {
    static std::mutex lock;
    static std::weak_ptr<IAsyncIo> current;
    std::lock_guard hold(lock);
    std::shared_ptr<IAsyncIo> engine = current.lock();
    constexpr IoThreadNames kNames = {{TEXT("zem-demux"), TEXT("zem-demux-rt")}};
    if (engine == nullptr) current = engine = CreateThreadIoNamed(kNames);
    return engine;
}

}  // namespace

CForeignClip::CForeignClip(std::unique_ptr<IStoreFile> file, const SourceStamp& stamp)
    : m_file(std::move(file)), m_stamp(stamp) {}

CForeignClip::~CForeignClip() {
    for (void* view : m_views)
        if (view != nullptr) m_file->UnmapView(view);
}

HRESULT CForeignClip::LoadKept(IVolume& volume, const std::string& path) {
    return LoadIndex(volume, path, m_stamp, m_index) ? Prepare() : S_FALSE;
}

HRESULT CForeignClip::LoadTables() {
    const HRESULT hr = BuildFromTables(*m_file, m_stamp.size_bytes, m_index);
    return hr == S_OK ? Prepare() : hr;
}

HRESULT CForeignClip::Pass(IVolume& volume, const std::string& path) {
    HRESULT hr = BuildByPass(*m_file, m_stamp.size_bytes, m_index);
    if (FAILED(hr)) return hr;
    hr = SaveIndex(volume, path, m_stamp, m_index);
    if (FAILED(hr))
        LogStoreOf(path, kErrorLogLevelWarning, hr, kSource, "its index cannot be kept beside it");
    return Prepare();
}

// What the tables need beside them.
HRESULT CForeignClip::Prepare() {
    m_demuxed.resize(m_index.streams.size());
    for (StreamIndex& stream : m_index.streams)
        stream.cachedStamps.resize(stream.desc.frameCount);
    for (size_t i = 0; i < m_index.streams.size(); ++i) {
        const StreamIndex& stream = m_index.streams[i];
        const bool needed =
            std::any_of(stream.frames.begin(), stream.frames.end(),
                        [](const FramePlace& place) { return (place.flags & kPlaceDemux) != 0; });
        if (!needed) continue;
        m_demuxed[i] = std::make_unique<CDemuxFile>(*m_file, m_stamp.size_bytes, stream.avIndex,
                                                    stream.frames);
        if (m_engine == nullptr) m_engine = DemuxEngine();
        if (m_engine == nullptr) return E_OUTOFMEMORY;
    }
    return S_OK;
}

bool CForeignClip::Find(const StreamName& name, MediaFileType type, size_t& stream,
                        uint32_t& kind) const {
    const auto nth = [&](uint32_t wanted, uint32_t index) {
        for (stream = 0; stream < m_index.streams.size(); ++stream)
            if (m_index.streams[stream].kind == wanted && index-- == 0) return true;
        return false;
    };
    const auto accepts = [&](MediaFileType own) { return type == kMediaFileAny || type == own; };
    const auto lender = [&](uint32_t lentKind) {
        kind = lentKind;
        if (!nth(kTokenKindVideo, 0)) stream = 0;
        return true;
    };
    switch (name.kind) {
        case StreamKind::kVideo:
            kind = kTokenKindVideo;
            return accepts(kMediaFileVideo) && nth(kind, name.index);
        case StreamKind::kAudio:
            kind = kTokenKindAudio;
            return accepts(kMediaFileAudio) && nth(kind, name.index);
        case StreamKind::kData:
            kind = kTokenKindData;
            return accepts(kMediaFileData) && nth(kind, name.index);
        case StreamKind::kTimecode:
            return accepts(kMediaFileTimecode) && lender(kTokenKindTimecode);
        case StreamKind::kMarkers:
            return accepts(kMediaFileData) && lender(kTokenKindMarker);
        case StreamKind::kFirst:
            break;
    }
    if (type == kMediaFileTimecode) return lender(kTokenKindTimecode);
    for (const uint32_t first : {kTokenKindVideo, kTokenKindAudio, kTokenKindData}) {
        kind = first;
        const MediaFileType own = first == kTokenKindVideo   ? kMediaFileVideo
                                  : first == kTokenKindAudio ? kMediaFileAudio
                                                             : kMediaFileData;
        if (accepts(own) && nth(first, 0)) return true;
    }
    return false;
}

// REQUIRES: m_lock.
const void* CForeignClip::ViewOf(uint64_t offset, uint32_t size_bytes) {
    if (size_bytes == 0 || size_bytes > kWindowOverlap) return nullptr;
    const auto window = static_cast<size_t>(offset / kWindow);
    if (window >= m_views.size()) m_views.resize(window + 1);
    if (m_views[window] == nullptr)
        m_views[window] = m_file->MapView(window * kWindow, kWindow + kWindowOverlap);
    if (m_views[window] == nullptr) return nullptr;
    return static_cast<const char*>(m_views[window]) + offset % kWindow;
}

// Fills in what the place says. REQUIRES: m_lock.
HRESULT CForeignClip::Complete(StreamIndex& stream, const FramePlace& place, bool withView,
                               PinnedFrame& frame) {
    if ((place.flags & kPlaceCorrupt) != 0) return kDamaged;
    if (place.size > kMaxFrameSize) return HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES);
    frame.dataSize = place.size;
    frame.dataCrc = place.crc;
    frame.verified = (place.flags & kPlaceHasCrc) == 0;
    if ((place.flags & kPlaceDemux) != 0) {
        frame.slotOffset = CDemuxFile::OffsetOf(frame.position);
        frame.sequence = kDemuxed;
        return S_OK;
    }
    frame.slotOffset = place.offset;
    if (place.offset > m_stamp.size_bytes || place.size > m_stamp.size_bytes - place.offset)
        return kDamaged;
    frame.cachedStamp = stream.cachedStamps[frame.position];
    if (withView) frame.view = ViewOf(place.offset, place.size);
    return S_OK;
}

HRESULT CForeignClip::PinPcm(const StreamIndex& stream, uint32_t position, bool withView,
                             PinnedFrame& frame) {
    const uint32_t rate = stream.desc.sampleRate;
    const uint64_t first = FirstSample(position, rate, stream.cut) * stream.sampleSize;
    const uint64_t behind =
        FirstSample(uint64_t{position} + 1, rate, stream.cut) * stream.sampleSize;
    const uint64_t end = std::min(behind, stream.pcmBytes);
    if (first >= end) return S_OK;  // fewer samples than pictures: some have none
    if (end - first > kMaxFrameSize) return HRESULT_FROM_WIN32(ERROR_NO_SYSTEM_RESOURCES);
    frame.dataSize = static_cast<uint32_t>(end - first);
    frame.verified = true;
    frame.sequence = first;  // PieceOf counts from here
    uint32_t piece = 0;
    for (uint32_t at = 0; at < frame.dataSize; at += piece) {
        uint64_t offset = 0;
        PieceOf(static_cast<size_t>(&stream - m_index.streams.data()), frame, at, offset, piece);
        if (at == 0) frame.slotOffset = offset;
        if (offset > m_stamp.size_bytes || piece > m_stamp.size_bytes - offset) return kDamaged;
    }
    if (!withView || piece != frame.dataSize) return S_OK;
    frame.cachedStamp = stream.cachedStamps[position];
    frame.view = ViewOf(frame.slotOffset, frame.dataSize);
    return S_OK;
}

HRESULT CForeignClip::Pin(size_t which, uint32_t position, bool withView, PinnedFrame& frame) {
    StreamIndex& stream = m_index.streams[which];
    frame = {};
    frame.position = position;
    if (position >= stream.desc.frameCount) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    std::lock_guard hold(m_lock);
    if (stream.inPackages) {
        const auto known = stream.located.find(position);
        if (known != stream.located.end()) return Complete(stream, known->second, withView, frame);
        frame.lookOffset = m_index.packages[position].offset;
        frame.lookSize = kLookSize;
        return S_OK;
    }
    if (stream.IsPcm()) return PinPcm(stream, position, withView, frame);
    return Complete(stream, stream.frames[position], withView, frame);
}

HRESULT CForeignClip::Look(size_t which, PinnedFrame& frame, bool withView, const void* bytes,
                           size_t size) {
    StreamIndex& stream = m_index.streams[which];
    const uint32_t next = frame.position + 1;
    const uint64_t end =
        next < m_index.packages.size() ? m_index.packages[next].offset : m_index.packagesEnd;
    const ElementSearch found =
        FindElement(stream.key, frame.lookOffset, static_cast<const uint8_t*>(bytes), size, end);
    if (found.outcome == ElementSearch::kReadOn) {
        // Each look is behind the one before it, so this ends.
        frame.lookOffset = found.offset;
        return S_OK;
    }
    frame.lookSize = 0;
    std::lock_guard hold(m_lock);
    FramePlace place{found.offset, 0, 0, 0, 0};
    if (found.outcome == ElementSearch::kFound && found.length <= kMaxFrameSize)
        place.size = static_cast<uint32_t>(found.length);
    else
        place.flags = kPlaceCorrupt;
    stream.located.insert_or_assign(frame.position, place);
    return Complete(stream, place, withView, frame);
}

FrameSource CForeignClip::SourceOf(size_t which, const PinnedFrame& frame) {
    const StreamIndex& stream = m_index.streams[which];
    if (stream.IsPcm() || frame.sequence != kDemuxed) return {m_file.get(), nullptr};
    return {m_demuxed[which].get(), m_engine.get()};
}

void CForeignClip::PieceOf(size_t which, const PinnedFrame& frame, uint32_t at, uint64_t& offset,
                           uint32_t& size_bytes) const {
    const StreamIndex& stream = m_index.streams[which];
    size_bytes = frame.dataSize - at;
    offset = frame.slotOffset + at;
    if (!stream.IsPcm() || stream.inPackages) return;
    const uint64_t byte = frame.sequence + at;
    const auto behind = std::upper_bound(
        stream.runs.begin(), stream.runs.end(), byte,
        [](uint64_t wanted, const PcmRun& candidate) { return wanted < candidate.first; });
    const PcmRun& run = *(behind - 1);  // the first run begins at 0
    offset = run.offset + (byte - run.first);
    const uint64_t runEnd = behind == stream.runs.end() ? stream.pcmBytes : behind->first;
    size_bytes = static_cast<uint32_t>(std::min<uint64_t>(size_bytes, runEnd - byte));
}

void CForeignClip::ReportVerified(size_t which, const PinnedFrame& frame, bool good) {
    StreamIndex& stream = m_index.streams[which];
    if (frame.position >= stream.frames.size()) return;
    std::lock_guard hold(m_lock);
    uint32_t& flags = stream.frames[frame.position].flags;
    // What comes out of a demuxer is another set of bytes each time: it stays to be compared.
    if (!good)
        flags |= kPlaceCorrupt;
    else if ((flags & kPlaceDemux) == 0)
        flags &= ~kPlaceHasCrc;
}

void CForeignClip::ReportCached(size_t which, const PinnedFrame& frame, uint32_t stamp) {
    StreamIndex& stream = m_index.streams[which];
    std::lock_guard hold(m_lock);
    stream.cachedStamps[frame.position] = stamp;
}

uint32_t CForeignClip::FlagsOf(size_t which, uint32_t position) const {
    const StreamIndex& stream = m_index.streams[which];
    std::lock_guard hold(m_lock);
    if (stream.inPackages) {
        const bool key = stream.desc.mediaType != kMediaFileVideo || m_index.packages[position].key;
        return key ? kFrameFlagKey : 0;
    }
    return stream.IsPcm() ? kFrameFlagKey : stream.frames[position].flags & kFrameFlagKey;
}

}  // namespace zemstore
