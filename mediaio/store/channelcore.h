// The asynchronous half of a channel: frame reads and writes under way, the memory
// they use and the count that destruction waits for. It outlives the channel object as long as a
// request of it does. Any thread.
#pragma once

#include "mediaio/store/iostate.h"
#include "mediaio/store/mediafile.h"
#include "mediaio/zemmemallocator.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace zemstore {

// Settings of a channel that a client can change.
struct ChannelConfig {
    VioFrameRate_t frameRate = kFrameRateFile;    // in which positions of frame reads count
    uint32_t readAhead = CReadAhead::kAutomatic;  // frames to fetch ahead of a reader
};

class CChannelCore {
public:
    // What happens to the descriptor is told at CZemIo::ReadFrame and WriteFrame.
    HRESULT ReadFrame(const std::shared_ptr<CChannelCore>& self, CIoState& io, ZemIoDesc& desc);
    HRESULT ReadFrameComplete(ZemElemStrmIoData& streams);
    HRESULT GetWriteFrameBuffers(ZemIoDesc& desc);
    HRESULT ReleaseWriteFrameBuffers(ZemIoDesc& desc);
    HRESULT WriteFrame(const std::shared_ptr<CChannelCore>& self, CIoState& io, ZemIoDesc& desc);

    // Waits for what is under way; a completion routine that runs on this very thread is not
    // waited for.
    void Drain();

    ChannelConfig Config() const;
    void SetConfig(const ChannelConfig& config);

    std::atomic<IZemMemAllocator*> frames{nullptr};
    std::atomic<IZemMemAllocator*> reads{nullptr};
    std::shared_ptr<IAsyncIo> async = IAsyncIo::Shared();

private:
    struct ReadJob;
    struct WriteJob;
    enum class Found { kDone, kMustLoad };

    Found FindFrame(CIoState& io, const ChannelConfig& config, ElemStrmEntry& entry,
                    PinnedFrame& frame, CFrameFile*& file, std::shared_ptr<CReadAhead>& ahead);
    static void Deliver(ElemStrmEntry& entry, const PinnedFrame& frame, CFrameFile* file);
    void NoteRealTime(const CIoState& io) const;
    HRESULT PrepareWrite(CIoState& io, ElemStrmEntry& entry, char*& cursor, WriteItem& item,
                         CMediaFile*& file);
    void ReleaseRun(ZemIoDesc& desc);
    void BeginIo();
    void EndIo();
    static void Complete(const std::shared_ptr<CChannelCore>& self, ZemIoDesc& desc);

    std::atomic<uint32_t> m_frameRate{kFrameRateFile};
    std::atomic<uint32_t> m_readAhead{CReadAhead::kAutomatic};
    std::mutex m_lock;
    std::condition_variable m_idle;
    size_t m_underWay = 0;
};

}  // namespace zemstore
