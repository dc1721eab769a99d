// A stream of frames as its readers see it, whether it lies in a native file
// (mediafile.h) or in a container of somebody else's (mediaio/foreign). Reference-counted: a token
// and every pinned frame hold it. Any thread.
#pragma once

#include "mediaio/store/asyncio.h"
#include "mediaio/store/fileio.h"
#include "mediaio/store/format.h"

#include <atomic>
#include <string>
#include <utility>

#pragma GCC visibility push(default)

namespace zemstore {

class CMediaFile;

// A frame version that a reader holds: its bytes stay where they are until Unpin.
struct PinnedFrame {
    uint32_t position;
    uint64_t slotOffset;  // where its first byte lies in the source
    uint64_t sequence;
    uint32_t dataSize;
    uint32_t dataCrc;
    bool verified;  // its checksum was compared before, or there is none
    uint32_t cachedStamp;
    const void* view;  // its bytes, to be sent and never touched; null when there is no view
    unsigned epoch;
    // A container may say only where to look for a frame. Until lookSize is 0 nothing else is
    // known of the frame: these bytes of the file are to be read and given to Look.
    uint64_t lookOffset = 0;
    uint32_t lookSize = 0;
};

// Where the bytes of a frame are read, and by whom.
struct FrameSource {
    IStoreFile* file = nullptr;
    IAsyncIo* engine = nullptr;  // null: the process's own
};

class CFrameFile {
public:
    // The last Release deletes the object. TryAddRef fails when that has begun.
    void AddRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
    bool TryAddRef() {
        uint32_t refs = m_refs.load(std::memory_order_relaxed);
        while (refs != 0) {
            if (m_refs.compare_exchange_weak(refs, refs + 1, std::memory_order_acquire))
                return true;
        }
        return false;
    }
    void Release() {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) LastRelease();
    }

    // Looks a frame up. S_OK: `frame` is filled and pinned (unless `pin` is false: only looked up).
    // kErrorFrameHole, kErrorFrameErased, ERROR_END_OF_MEDIA, ERROR_CRC.
    virtual HRESULT Pin(uint32_t position, bool pin, PinnedFrame& frame) = 0;
    virtual void Unpin(unsigned epoch) = 0;
    // Takes the bytes that `frame` asked for: afterwards the frame is complete, or asks for others.
    virtual HRESULT Look(PinnedFrame& frame, const void* bytes, size_t size_bytes);
    // Looks until the frame is complete, reading on the caller's thread.
    HRESULT LookNow(PinnedFrame& frame);
    // Reads and verifies all bytes of a complete pinned frame on the caller's thread.
    HRESULT ReadNow(const PinnedFrame& frame, void* buffer);

    // Compares the checksum of a complete pinned frame on the caller's thread, if that needs no
    // waiting for the device. False: not known yet, or wrong.
    bool CheckNow(PinnedFrame& frame);

    virtual FrameSource SourceOf(const PinnedFrame& frame) = 0;
    // Where the frame's byte `at` lies in its source, and how many follow it there in one piece.
    virtual void PieceOf(const PinnedFrame& frame, uint32_t at, uint64_t& offset,
                         uint32_t& size_bytes) const {
        offset = frame.slotOffset + at;
        size_bytes = frame.dataSize - at;
    }
    // What reading a pinned frame's bytes showed.
    virtual void ReportVerified(const PinnedFrame& frame, bool good) = 0;
    virtual void ReportCached(const PinnedFrame& frame, uint32_t stamp) = 0;
    bool Cached(const PinnedFrame& frame) {
        return SourceOf(frame).file->Cached(frame.slotOffset, frame.dataSize);
    }

    virtual HRESULT Description(uint32_t position, uint8_t (&description)[kDescriptionSize]) = 0;
    virtual const ZemEsDesc& EsDescAtCreation() const = 0;
    virtual ZemEsDesc EsDescNow() const = 0;
    virtual Settings CurrentSettings() const = 0;
    virtual uint32_t FrameCount() const = 0;
    virtual void FrameDesc(uint32_t position, ZemFrameDesc& desc) const = 0;

    // The file as one that can be written; null for a foreign one.
    virtual CMediaFile* Native() { return nullptr; }
    // The path, from the volume's root, by which it was opened first: what the log calls it.
    const std::string& OpenedAs() const { return m_openedAs; }

protected:
    explicit CFrameFile(std::string openedAs) : m_openedAs(std::move(openedAs)) {}
    CFrameFile(const CFrameFile&) = delete;
    CFrameFile& operator=(const CFrameFile&) = delete;
    virtual ~CFrameFile() = default;
    virtual void LastRelease() = 0;

private:
    std::atomic<uint32_t> m_refs{1};
    const std::string m_openedAs;
};

// Position and presentation time of a frame, and the running timecode that is counted to it from
// `start`.
void FillFrameTimes(uint32_t position, const ZemEsDesc& stream, const vdrTimecode_s& start,
                    bool dropFrame, ZemFrameDesc& desc);

}  // namespace zemstore

#pragma GCC visibility pop
