// Channel I/O class (module zemchannelio): one joined client's view of the media store, with
// asynchronous frame I/O, frame memory, configuration and counters. Everything may be called from
// several threads at once; destruction completes or cancels the channel's I/O first and returns
// after the last completion routine has returned.
#pragma once

#include "mediaio/zemio.h"
#include "mediaio/zemmemallocator.h"

#pragma GCC visibility push(default)

// The channel's own table of virtual operations; the base I/O class keeps a table of its own beside
// it. The order is part of the binary interface: the attribute update is the fourth entry.
class IZemChannel {
public:
    // Memory for written frames (and for reads that cannot be mapped); not owned, outlives the
    // channel. `other` is null.
    virtual HRESULT SetAllocators(IZemMemAllocator* frames, IZemMemAllocator* other) = 0;
    // Replaces the allocator of reads; null detaches it: no further read takes memory.
    virtual HRESULT SetReadAllocator(IZemMemAllocator* reads) = 0;
    // Takes a parsed XML document (VT_DISPATCH or VT_DISPATCH | VT_BYREF); malformed or unknown
    // content: E_INVALIDARG.
    virtual HRESULT UpdateChannelConfigInt(const VARIANT& document, DWORD flags) = 0;
    // Sets one attribute; `value` is a BSTR variant of the same text.
    virtual HRESULT UpdateChannelConfigAttr(const WCHAR* valueText, const WCHAR* attributeName,
                                            const VARIANT& value) = 0;

protected:
    ~IZemChannel() = default;
};

// Per-channel counters; plain snapshot.
struct ZemChannelCounters {
    ULONGLONG realTimeIoMsgs;
    ULONGLONG failedRealTimeIoMsgs;
    ULONGLONG droppedReadFrames;
    ULONGLONG droppedWriteFrames;
};

class CZemChannelIo final : public IZemChannel, public CZemIo {
public:
    explicit CZemChannelIo(DWORD channelNumber);
    ~CZemChannelIo() override;

    HRESULT SetAllocators(IZemMemAllocator* frames, IZemMemAllocator* other) override;
    HRESULT SetReadAllocator(IZemMemAllocator* reads) override;
    HRESULT UpdateChannelConfigInt(const VARIANT& document, DWORD flags) override;
    HRESULT UpdateChannelConfigAttr(const WCHAR* valueText, const WCHAR* attributeName,
                                    const VARIANT& value) override;

    using CZemIo::ReadFrame;
    HRESULT ReadFrame(ZemIoDesc& desc) override;
    HRESULT ReadFrameComplete(ZemElemStrmIoData& streams) override;
    HRESULT GetWriteFrameBuffers(ZemIoDesc& desc) override;
    HRESULT WriteFrame(ZemIoDesc& desc) override;
    HRESULT SetIoRealTime(BOOL on) override;

    // Gives back what GetWriteFrameBuffers handed out for a frame that will not be written; clears
    // the entries.
    HRESULT ReleaseWriteFrameBuffers(ZemIoDesc& desc);

    void BumpRealTimeIoMsgs();
    void BumpFailedRealTimeIoMsgs();
    void BumpDroppedReadFrames();
    void BumpDroppedWriteFrames();
    ZemChannelCounters Counters() const;
    DWORD ChannelNumber() const;

private:
    struct ChannelState;
    ChannelState* m_channel;
};

#pragma GCC visibility pop
