// The channel I/O class: a client's asynchronous frame I/O, memory, configuration and counters. The
// work is done by its core, which the requests under way keep alive.
#include "mediaio/zemchannelio.h"

#include "mediaio/store/channelconfig.h"
#include "mediaio/store/channelcore.h"

using namespace zemstore;

struct CZemChannelIo::ChannelState {
    explicit ChannelState(DWORD number) : channelNumber(number) {}
    const DWORD channelNumber;
    const std::shared_ptr<CChannelCore> core = std::make_shared<CChannelCore>();
    std::mutex configLock;  // one update at a time
    std::atomic<ULONGLONG> realTimeIoMsgs{0};
    std::atomic<ULONGLONG> failedRealTimeIoMsgs{0};
    std::atomic<ULONGLONG> droppedReadFrames{0};
    std::atomic<ULONGLONG> droppedWriteFrames{0};
};

CZemChannelIo::CZemChannelIo(DWORD channelNumber) : m_channel(new ChannelState(channelNumber)) {}

CZemChannelIo::~CZemChannelIo() {
    m_channel->core->Drain();
    delete m_channel;
}

HRESULT CZemChannelIo::SetAllocators(IZemMemAllocator* frames, IZemMemAllocator* other) {
    if (other != nullptr) return E_INVALIDARG;
    m_channel->core->frames.store(frames);
    m_channel->core->reads.store(frames);
    return S_OK;
}

HRESULT CZemChannelIo::SetReadAllocator(IZemMemAllocator* reads) {
    m_channel->core->reads.store(reads);
    return S_OK;
}

HRESULT CZemChannelIo::UpdateChannelConfigInt(const VARIANT& document, DWORD flags) {
    if (flags != 0) return E_INVALIDARG;
    std::lock_guard hold(m_channel->configLock);
    ChannelConfig config = m_channel->core->Config();
    const HRESULT hr = SetAttributes(document, config);
    if (SUCCEEDED(hr)) m_channel->core->SetConfig(config);
    return hr;
}

HRESULT CZemChannelIo::UpdateChannelConfigAttr(const WCHAR* valueText, const WCHAR* attributeName,
                                               const VARIANT& value) {
    if (valueText == nullptr || attributeName == nullptr || value.vt != VT_BSTR)
        return E_INVALIDARG;
    std::lock_guard hold(m_channel->configLock);
    ChannelConfig config = m_channel->core->Config();
    const HRESULT hr = SetAttribute(attributeName, valueText, config);
    if (SUCCEEDED(hr)) m_channel->core->SetConfig(config);
    return hr;
}

HRESULT CZemChannelIo::ReadFrame(ZemIoDesc& desc) {
    return m_channel->core->ReadFrame(m_channel->core, *m_io, desc);
}

HRESULT CZemChannelIo::ReadFrameComplete(ZemElemStrmIoData& streams) {
    return m_channel->core->ReadFrameComplete(streams);
}

HRESULT CZemChannelIo::GetWriteFrameBuffers(ZemIoDesc& desc) {
    return m_channel->core->GetWriteFrameBuffers(desc);
}

HRESULT CZemChannelIo::WriteFrame(ZemIoDesc& desc) {
    return m_channel->core->WriteFrame(m_channel->core, *m_io, desc);
}

HRESULT CZemChannelIo::ReleaseWriteFrameBuffers(ZemIoDesc& desc) {
    return m_channel->core->ReleaseWriteFrameBuffers(desc);
}

HRESULT CZemChannelIo::SetIoRealTime(BOOL on) {
    return CZemIo::SetIoRealTime(on);
}

void CZemChannelIo::BumpRealTimeIoMsgs() {
    ++m_channel->realTimeIoMsgs;
}
void CZemChannelIo::BumpFailedRealTimeIoMsgs() {
    ++m_channel->failedRealTimeIoMsgs;
}
void CZemChannelIo::BumpDroppedReadFrames() {
    ++m_channel->droppedReadFrames;
}
void CZemChannelIo::BumpDroppedWriteFrames() {
    ++m_channel->droppedWriteFrames;
}

ZemChannelCounters CZemChannelIo::Counters() const {
    return {m_channel->realTimeIoMsgs.load(), m_channel->failedRealTimeIoMsgs.load(),
            m_channel->droppedReadFrames.load(), m_channel->droppedWriteFrames.load()};
}

DWORD CZemChannelIo::ChannelNumber() const {
    return m_channel->channelNumber;
}
