// Who has real-time I/O: the ID of at most one client. Joins, CMD_SET_IO_REAL_TIME, leaves and the
// sniffer read and write it on their own threads; a small private lock keeps the text whole, while
// the order of events is theirs.
#pragma once

#include "platform/platform.h"
#include "zemhttpd/commands/command.h"

class CRealTimeClient {
public:
    CRealTimeClient();
    ~CRealTimeClient();
    CRealTimeClient(const CRealTimeClient&) = delete;
    CRealTimeClient& operator=(const CRealTimeClient&) = delete;

    // At most 259 characters are kept; an empty ID means that there is no real-time client.
    void Set(const WCHAR* clientId);
    // Clears the ID if it still is this one.
    void ClearIf(const WCHAR* clientId);
    // Copies the ID out; false, and an empty text, when there is no real-time client.
    bool Get(WCHAR (&clientId)[kNameUnits]) const;
    // Whether there is a real-time client and it is this one, letter case aside.
    bool Is(const WCHAR* clientId) const;

private:
    mutable CRITICAL_SECTION m_lock;  // guards the text
    WCHAR m_clientId[kNameUnits] = {};
};
