// Client records and their table. The last reference destroys a record on whatever thread drops it.
#include "zemhttpd/clients/clienttable.h"

#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/frameio/httpxactn.h"

namespace {

constexpr LONG kCatchLineDetach = 1399;

// Nothing may leave the destructor of a record, whatever the host's media library does.
void DetachReadAllocator(CZemChannelIo& channel) {
    CZemEntry scope(TEXT("ZemClient::~ZemClient"));
    try {
        channel.SetReadAllocator(nullptr);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDetach);
    }
}

}  // namespace

ZemClient::ZemClient(WString display, CZemChannelIo* channelIo, LONGLONG now_seconds)
    : displayString(std::move(display)),
      lastRequestTime(now_seconds),
      requestCount(1),
      channel(channelIo) {
    constexpr DWORD kSpinCount = 4000;
    InitializeCriticalSectionAndSpinCount(&recordLock, kSpinCount);
    InitializeCriticalSectionAndSpinCount(&m_lineLock, kSpinCount);
}

ZemClient::~ZemClient() {
    if (channel) {
        DetachReadAllocator(*channel);
        delete channel;
    }
    DeleteCriticalSection(&m_lineLock);
    DeleteCriticalSection(&recordLock);
}

ZemClient::ETurn ZemClient::TakeTurn(CHttpXaction& xaction, bool room) {
    const CSectionGuard guard(m_lineLock);
    if (!m_atWork) {
        m_atWork = true;
        return ETurn::Mine;
    }
    if (!room || m_inLine == kMaxInLine) return ETurn::LineIsFull;
    AddRef();
    xaction.SetInLine(this);
    xaction.nextInLine = nullptr;
    (m_lineLast ? m_lineLast->nextInLine : m_lineFirst) = &xaction;
    m_lineLast = &xaction;
    ++m_inLine;
    return ETurn::InLine;
}

CHttpXaction* ZemClient::PassTurn() {
    const CSectionGuard guard(m_lineLock);
    CHttpXaction* const next = m_lineFirst;
    if (!next) {
        m_atWork = false;
        return nullptr;
    }
    m_lineFirst = next->nextInLine;
    if (!m_lineFirst) m_lineLast = nullptr;
    --m_inLine;
    return next;
}

void ZemClient::Release() {
    if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

CClientTable::CClientTable() {
    InitializeCriticalSectionAndSpinCount(&m_section, kSpinCount);
}

CClientTable::~CClientTable() {
    DeleteCriticalSection(&m_section);
}

CZemClientRef CClientTable::Find(WStringView clientId) {
    const CLock lock(*this);
    ZemClient** record = m_clients.Find(clientId);
    return CZemClientRef(record ? *record : nullptr);
}

ZemClient* CClientTable::Unlink(WStringView clientId) {
    ZemClient* record = nullptr;
    m_clients.Remove(clientId, &record);
    return record;
}
