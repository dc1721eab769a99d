// What was last learned of the volume's space, for the status page. Workers read and refresh it
// without a lock: two of them may refresh at once, and the three values need not be of one moment.
#pragma once

#include "platform/platform.h"

#include <atomic>

class CCapacityCache {
public:
    static constexpr DWORD kMaxAge_ms = 10000;

    // Due at the first call of a machine that is up for 10 s, then every 10 s; the tick counter may
    // wrap.
    bool Due(DWORD now_ms) const {
        return now_ms - m_lastCheck_ms.load(std::memory_order_relaxed) >= kMaxAge_ms;
    }
    void Store(DWORD now_ms, ULONGLONG free_bytes, ULONGLONG total_bytes) {
        m_free_bytes.store(free_bytes, std::memory_order_relaxed);
        m_total_bytes.store(total_bytes, std::memory_order_relaxed);
        m_lastCheck_ms.store(now_ms, std::memory_order_relaxed);
    }
    ULONGLONG Free_bytes() const { return m_free_bytes.load(std::memory_order_relaxed); }
    ULONGLONG Total_bytes() const { return m_total_bytes.load(std::memory_order_relaxed); }

private:
    std::atomic<DWORD> m_lastCheck_ms{0};
    std::atomic<ULONGLONG> m_free_bytes{0};  // available to the caller
    std::atomic<ULONGLONG> m_total_bytes{0};
};
