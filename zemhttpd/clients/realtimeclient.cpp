// The real-time client's ID under its private lock; workers and the sniffer.
#include "zemhttpd/clients/realtimeclient.h"

#include "zemhttpd/server/sectionguard.h"

#include <algorithm>

CRealTimeClient::CRealTimeClient() {
    InitializeCriticalSection(&m_lock);
}

CRealTimeClient::~CRealTimeClient() {
    DeleteCriticalSection(&m_lock);
}

void CRealTimeClient::Set(const WCHAR* clientId) {
    const CSectionGuard guard(m_lock);
    wcsncpy_s(m_clientId, kNameUnits, clientId, _TRUNCATE);
}

void CRealTimeClient::ClearIf(const WCHAR* clientId) {
    const CSectionGuard guard(m_lock);
    if (_wcsicmp(m_clientId, clientId) == 0) m_clientId[0] = 0;
}

bool CRealTimeClient::Get(WCHAR (&clientId)[kNameUnits]) const {
    const CSectionGuard guard(m_lock);
    std::copy_n(m_clientId, kNameUnits, clientId);
    return m_clientId[0] != 0;
}

bool CRealTimeClient::Is(const WCHAR* clientId) const {
    const CSectionGuard guard(m_lock);
    return m_clientId[0] != 0 && _wcsicmp(m_clientId, clientId) == 0;
}
