// The frames of a stream that only a demuxer can put together, as a file: frame N lies
// at N << 32. It is read like any other, but by threads that may wait (its engine), never by those
// that serve the device. Any thread; one frame at a time.
#pragma once

#include "mediaio/foreign/clipindex.h"
#include "mediaio/foreign/demuxer.h"

#include <mutex>

#pragma GCC visibility push(default)

namespace zemstore {

class CDemuxFile final : public IStoreFile {
public:
    // `source` and `places` outlive it; `places` does not change.
    CDemuxFile(IStoreFile& source, uint64_t size_bytes, int avIndex,
               const std::vector<FramePlace>& places);

    static uint64_t OffsetOf(uint32_t position) { return uint64_t{position} << 32; }

    HRESULT ReadAt(void* to, size_t size_bytes, uint64_t offset_bytes, size_t& done) override;

    HRESULT WriteAt(const IoSpan*, size_t, uint64_t, size_t&) override { return E_ACCESSDENIED; }
    HRESULT Sync() override { return S_OK; }
    HRESULT Size(uint64_t& size_bytes) override;
    HRESULT SetSize(uint64_t) override { return E_ACCESSDENIED; }
    HRESULT PunchHole(uint64_t, uint64_t) override { return E_ACCESSDENIED; }
    HRESULT LockForWriting() override { return E_ACCESSDENIED; }
    void UnlockForWriting() override {}
    bool Writable() const override { return false; }
    FileIdentity Identity() const override { return m_source.Identity(); }
    bool Cached(uint64_t, size_t) override { return false; }
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}

private:
    HRESULT Fetch(uint32_t position);
    bool Search(uint32_t position);
    bool FetchFrom(uint32_t anchor, uint32_t position);
    bool Follows(uint32_t position);
    const AVPacket* NextOfStream();
    bool Is(const AVPacket& packet, uint32_t position) const;

    IStoreFile& m_source;
    const uint64_t m_size;
    const int m_avIndex;
    const std::vector<FramePlace>& m_places;

    std::mutex m_lock;  // guards what follows
    std::unique_ptr<CDemuxer> m_demuxer;
    bool m_untouched = false;  // nothing was read of m_demuxer yet
    bool m_current = false;    // m_bytes is the frame before m_next
    bool m_streamInfo = false;
    uint32_t m_next = 0;  // the frame that the demuxer delivers next
    std::vector<uint8_t> m_bytes;
};

}  // namespace zemstore

#pragma GCC visibility pop
