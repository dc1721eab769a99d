// Which frame writes begin while others are on their way to the device.
#pragma once

#include "platform/platform.h"
#include "zemhttpd/clients/clienttable.h"

#include <atomic>

class CHttpXaction;

// A write is answered when it has arrived, so nothing slows a client down that sends faster than
// the device writes. What finds the frame memory full is lost, without a word to the client; and
// each write keeps its transaction block until it is written, so that many small ones would leave
// none for anybody. While the media library has more than a given number of bytes or of writes
// still to write, the next one therefore stands here, without a thread, and its client waits for
// the reply. Every write that went through the gate ends once. Any thread; no lock is taken while
// the gate is open.
class CWriteGate {
public:
    CWriteGate();
    ~CWriteGate();
    CWriteGate(const CWriteGate&) = delete;
    CWriteGate& operator=(const CWriteGate&) = delete;

    // Before the first write.
    void SetLimits(ULONGLONG unwritten_bytes, int unwritten) {
        m_limit_bytes = unwritten_bytes;
        m_limit = unwritten;
    }
    // Whoever comes stops a quarter below the limits. The rest is for those ahead: the real-time
    // client, and who stood in line already.
    bool IsOpen(bool ahead = false) const {
        const ULONGLONG kept_bytes = ahead ? 0 : m_limit_bytes / 4;
        const int kept = ahead ? 0 : m_limit / 4;
        return m_unwritten_bytes.load() <= m_limit_bytes - kept_bytes &&
               m_unwritten.load() <= m_limit - kept;
    }

    // InLine: the write stands there, with a reference to its client's record, and is somebody
    // else's by now; `ahead`, before all others; `again`, before those that were not let in yet.
    // LineIsFull: all `places` are taken; who stood there before is never told so. Mine: the gate
    // is open.
    ZemClient::ETurn StandInLine(CHttpXaction& xaction, ZemClient& client, int places, bool ahead,
                                 bool again);
    int InLine() const { return m_inLine.load(); }
    void HandedOver(ULONGLONG size_bytes) {
        m_unwritten_bytes.fetch_add(size_bytes);
        m_unwritten.fetch_add(1);
    }
    void Written(ULONGLONG size_bytes) {
        m_unwritten_bytes.fetch_sub(size_bytes);
        m_unwritten.fetch_sub(1);
    }
    // After Written, when a write failed before it was handed over, and when one that stood in line
    // goes on while there is room for whoever comes: its client may be slow. Gives those that may
    // try again now, linked by nextInLine: one for one, or two while there is such room, and beside
    // the real-time client's always another.
    CHttpXaction* Ended();
    // Shut-down: those in line are forgotten.
    void Forget();

private:
    ULONGLONG m_limit_bytes = ~0ull;
    int m_limit = 0x7FFFFFFF;
    std::atomic<ULONGLONG> m_unwritten_bytes{0};
    std::atomic<int> m_unwritten{0};
    std::atomic<int> m_inLine{0};  // changed with the lock held
    CRITICAL_SECTION m_lock;       // guards the line
    CHttpXaction* m_first = nullptr;
    CHttpXaction* m_last = nullptr;
};
