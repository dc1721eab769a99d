// Which frame writes begin while others are on their way to the device.
#include "zemhttpd/clients/writegate.h"

#include "zemhttpd/clients/clienttable.h"
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

// Who comes is counted before it looks at the bytes once more, and who ends takes its bytes away
// before it looks at the count: one of the two sees the other. The gate is closed only while bytes
// are unwritten, so somebody still ends after whoever stands in line.
bool CWriteGate::StandInLine(CHttpXaction& xaction, ZemClient& client, bool again) {
    const CSectionGuard guard(m_lock);
    m_inLine.fetch_add(1);
    if (IsOpen(again)) {
        m_inLine.fetch_sub(1);
        return false;
    }
    client.AddRef();
    xaction.SetInLine(&client);
    xaction.nextInLine = again ? m_first : nullptr;
    if (again)
        m_first = &xaction;
    else
        (m_last ? m_last->nextInLine : m_first) = &xaction;
    if (!xaction.nextInLine) m_last = &xaction;
    return true;
}

CHttpXaction* CWriteGate::Ended(ULONGLONG size_bytes) {
    m_unwritten_bytes.fetch_sub(size_bytes);
    if (m_inLine.load() == 0) return nullptr;
    const CSectionGuard guard(m_lock);
    if (!m_first || !IsOpen(true)) return nullptr;
    const int most = IsOpen() ? 2 : 1;
    CHttpXaction* const first = m_first;
    CHttpXaction* last = first;
    int count = 1;
    for (; count < most && last->nextInLine; ++count)
        last = last->nextInLine;
    for (CHttpXaction* each = first; each != last->nextInLine; each = each->nextInLine)
        each->SetLetIn();
    m_first = last->nextInLine;
    if (!m_first) m_last = nullptr;
    last->nextInLine = nullptr;
    m_inLine.fetch_sub(count);
    return first;
}

void CWriteGate::Forget() {
    const CSectionGuard guard(m_lock);
    m_first = m_last = nullptr;
    m_inLine.store(0);
}
