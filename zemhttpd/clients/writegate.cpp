// Which frame writes begin while others are on their way to the device.
#include "zemhttpd/clients/writegate.h"

#include "zemhttpd/frameio/httpxactn.h"
#include "zemhttpd/server/sectionguard.h"

namespace {

constexpr DWORD kSpinCount = 1000;

}  // namespace

CWriteGate::CWriteGate() {
    InitializeCriticalSectionAndSpinCount(&m_lock, kSpinCount);
}

CWriteGate::~CWriteGate() {
    DeleteCriticalSection(&m_lock);
}

// Who comes is counted before it looks at what is unwritten once more, and who ends takes its own
// away before it looks at the count: one of the two sees the other. The gate is closed only while
// something is unwritten, so somebody still ends after whoever stands in line.
ZemClient::ETurn CWriteGate::StandInLine(CHttpXaction& xaction, ZemClient& client, int places,
                                         bool ahead, bool again) {
    const CSectionGuard guard(m_lock);
    if (m_inLine.fetch_add(1) >= places && !again) {
        m_inLine.fetch_sub(1);
        return ZemClient::ETurn::LineIsFull;
    }
    if (IsOpen(ahead || again)) {
        m_inLine.fetch_sub(1);
        return ZemClient::ETurn::Mine;
    }
    client.AddRef();
    xaction.SetInLine(&client);
    xaction.SetAhead(ahead);
    CHttpXaction** place = &m_first;
    if (!ahead && !again && m_last) place = &m_last->nextInLine;
    // The real-time client's may have come since this one was let in.
    while (!ahead && again && *place && (*place)->Ahead())
        place = &(*place)->nextInLine;
    xaction.nextInLine = *place;
    *place = &xaction;
    if (!xaction.nextInLine) m_last = &xaction;
    return ZemClient::ETurn::InLine;
}

CHttpXaction* CWriteGate::Ended() {
    if (m_inLine.load() == 0) return nullptr;
    const CSectionGuard guard(m_lock);
    if (!m_first || !IsOpen(true)) return nullptr;
    int most = IsOpen() ? 2 : 1;
    if (m_first->Ahead()) ++most;
    CHttpXaction* const first = m_first;
    CHttpXaction* last = nullptr;
    int count = 0;
    for (; count < most && m_first; ++count) {
        last = m_first;
        last->SetLetIn();
        m_first = last->nextInLine;
    }
    last->nextInLine = nullptr;
    if (!m_first) m_last = nullptr;
    m_inLine.fetch_sub(count);
    return first;
}

void CWriteGate::Forget() {
    const CSectionGuard guard(m_lock);
    m_first = m_last = nullptr;
    m_inLine.store(0);
}
