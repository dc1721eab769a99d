// Streams of foreign clips, and the module's one entry point.
#include "mediaio/foreign/stream.h"

#include <cstring>

namespace zemstore {

HRESULT CForeignStream::Pin(uint32_t position, bool pin, PinnedFrame& frame) {
    const HRESULT hr = m_clip->Pin(m_stream, position, pin, frame);
    if (SUCCEEDED(hr) && pin && (frame.dataSize != 0 || frame.lookSize != 0)) AddRef();
    return hr;
}

HRESULT CForeignStream::Look(PinnedFrame& frame, const void* bytes, size_t size_bytes) {
    return m_clip->Look(m_stream, frame, true, bytes, size_bytes);
}

FrameSource CForeignStream::SourceOf(const PinnedFrame& frame) {
    return m_clip->SourceOf(m_stream, frame);
}

void CForeignStream::PieceOf(const PinnedFrame& frame, uint32_t at, uint64_t& offset,
                             uint32_t& size_bytes) const {
    m_clip->PieceOf(m_stream, frame, at, offset, size_bytes);
}

void CForeignStream::ReportVerified(const PinnedFrame& frame, bool good) {
    m_clip->ReportVerified(m_stream, frame, good);
}
void CForeignStream::ReportCached(const PinnedFrame& frame, uint32_t stamp) {
    m_clip->ReportCached(m_stream, frame, stamp);
}

void CForeignStream::FrameDesc(uint32_t position, ZemFrameDesc& desc) const {
    desc = {};
    if (position >= FrameCount()) return;
    PinnedFrame frame{};
    HRESULT hr = m_clip->Pin(m_stream, position, false, frame);
    if (SUCCEEDED(hr)) hr = const_cast<CForeignStream*>(this)->LookNow(frame);
    desc.flags = kFrameFlagPresent | m_clip->FlagsOf(m_stream, position);
    if (SUCCEEDED(hr))
        desc.dataSize = frame.dataSize;
    else
        desc.flags |= kFrameFlagCorrupt;
    const ZemEsDesc& stream = EsDescAtCreation();
    const bool dropFrame = (stream.flags & kEsFlagDropFrame) != 0;
    FillFrameTimes(position, stream, stream.startTimecode, dropFrame, desc);
}

HRESULT CForeignStream::Description(uint32_t position, uint8_t (&description)[kDescriptionSize]) {
    if (position >= FrameCount()) return HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
    ZemFrameDesc desc;
    FrameDesc(position, desc);
    static_assert(sizeof desc == kDescriptionSize);
    memcpy(description, &desc, sizeof desc);
    return S_OK;
}

}  // namespace zemstore

extern "C" __attribute__((visibility("default"))) HRESULT ZemOpenForeign(
    zemstore::ForeignSource source, const zemstore::StreamName& name, MediaFileType type,
    zemstore::CFrameFile*& stream, uint32_t& kind) {
    std::shared_ptr<zemstore::CForeignClip> clip;
    std::string path = source.path;
    const HRESULT hr = zemstore::CForeignClip::Share(std::move(source), clip);
    if (FAILED(hr)) return hr;
    size_t which = 0;
    if (!clip->Find(name, type, which, kind)) return HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
    stream = new zemstore::CForeignStream(std::move(clip), which, std::move(path));
    return S_OK;
}
