// What a channel's reads and writes have in common: the count of what is under way, how a request
// completes, and the settings.
#include "mediaio/store/channelcore.h"

namespace zemstore {
namespace {

thread_local CChannelCore* t_completing = nullptr;

}  // namespace

void CChannelCore::BeginIo() {
    std::lock_guard hold(m_lock);
    ++m_underWay;
}

void CChannelCore::EndIo() {
    std::lock_guard hold(m_lock);
    if (--m_underWay <= 1) m_idle.notify_all();
}

void CChannelCore::Complete(const std::shared_ptr<CChannelCore>& self, ZemIoDesc& desc) {
    CChannelCore* const outer = t_completing;
    t_completing = self.get();
    desc.completionRoutine(desc.completionContext);
    t_completing = outer;
    self->EndIo();
}

void CChannelCore::Drain() {
    std::unique_lock hold(m_lock);
    const size_t own = t_completing == this ? 1 : 0;
    m_idle.wait(hold, [&] { return m_underWay <= own; });
}

ChannelConfig CChannelCore::Config() const {
    return {static_cast<VioFrameRate_t>(m_frameRate.load(std::memory_order_relaxed)),
            m_readAhead.load(std::memory_order_relaxed)};
}

void CChannelCore::SetConfig(const ChannelConfig& config) {
    m_frameRate.store(static_cast<uint32_t>(config.frameRate), std::memory_order_relaxed);
    m_readAhead.store(config.readAhead, std::memory_order_relaxed);
}

}  // namespace zemstore
