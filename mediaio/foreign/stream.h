// One stream of a foreign clip as a reader's frame file. A thin handle: what it knows is
// the clip's. Any thread.
#pragma once

#include "mediaio/foreign/clip.h"

#pragma GCC visibility push(default)

namespace zemstore {

class CForeignStream final : public CFrameFile {
public:
    CForeignStream(std::shared_ptr<CForeignClip> clip, size_t stream, std::string openedAs)
        : CFrameFile(std::move(openedAs)), m_clip(std::move(clip)), m_stream(stream) {}

    HRESULT Pin(uint32_t position, bool pin, PinnedFrame& frame) override;
    void Unpin(unsigned) override { Release(); }
    HRESULT Look(PinnedFrame& frame, const void* bytes, size_t size_bytes) override;
    FrameSource SourceOf(const PinnedFrame& frame) override;
    void PieceOf(const PinnedFrame& frame, uint32_t at, uint64_t& offset,
                 uint32_t& size_bytes) const override;
    void ReportVerified(const PinnedFrame& frame, bool good) override;
    void ReportCached(const PinnedFrame& frame, uint32_t stamp) override;

    HRESULT Description(uint32_t position, uint8_t (&description)[kDescriptionSize]) override;
    const ZemEsDesc& EsDescAtCreation() const override { return m_clip->Desc(m_stream); }
    ZemEsDesc EsDescNow() const override { return m_clip->Desc(m_stream); }
    Settings CurrentSettings() const override { return {kMarkUnset, kMarkUnset, {}, 0}; }
    uint32_t FrameCount() const override { return m_clip->Desc(m_stream).frameCount; }
    void FrameDesc(uint32_t position, ZemFrameDesc& desc) const override;

private:
    void LastRelease() override { delete this; }
    const std::shared_ptr<CForeignClip> m_clip;
    const size_t m_stream;
};

}  // namespace zemstore

#pragma GCC visibility pop
