// Which frame writes begin while others are on their way to the device.
#pragma once

#include "platform/platform.h"

#include <atomic>

class CHttpXaction;
struct ZemClient;

// A write is answered when it has arrived, so nothing slows a client down that sends faster than
// the device writes; and what finds the frame memory full is lost, without a word to the client.
// While the media library has more than a given number of bytes still to write, the next write
// therefore stands here, without a thread, and its client waits for the reply. Every write that
// went through the gate ends once. Any thread; no lock is taken while the gate is open.
class CWriteGate {
public:
    CWriteGate();
    ~CWriteGate();
    CWriteGate(const CWriteGate&) = delete;
    CWriteGate& operator=(const CWriteGate&) = delete;

    void SetLimit(ULONGLONG limit_bytes) { m_limit_bytes = limit_bytes; }  // before the first write
    // Whoever comes stops a quarter below the limit. The rest is for those ahead: the real-time
    // client, and who stood in line already.
    bool IsOpen(bool ahead = false) const {
        const ULONGLONG kept_bytes = ahead ? 0 : m_limit_bytes / 4;
        return m_unwritten_bytes.load() <= m_limit_bytes - kept_bytes;
    }

    // True: the write stands in line, with a reference to its client's record, and is somebody
    // else's by now; first if it stood there before. False: the gate is open.
    bool StandInLine(CHttpXaction& xaction, ZemClient& client, bool again);
    void HandedOver(ULONGLONG size_bytes) { m_unwritten_bytes.fetch_add(size_bytes); }
    // With what was handed over for this write, 0 when it failed before. Gives those that may try
    // again now, linked by nextInLine: one for one, or two while there is room for whoever comes.
    CHttpXaction* Ended(ULONGLONG size_bytes);
    // Shut-down: those in line are forgotten.
    void Forget();

private:
    ULONGLONG m_limit_bytes = ~0ull / 2;
    std::atomic<ULONGLONG> m_unwritten_bytes{0};
    std::atomic<int> m_inLine{0};  // changed with the lock held
    CRITICAL_SECTION m_lock;       // guards the line
    CHttpXaction* m_first = nullptr;
    CHttpXaction* m_last = nullptr;
};
