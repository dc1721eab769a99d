// The dead-client sniffer: a thread that wakes every 50 seconds, takes the clients that have been
// silent for longer out of the table and deletes them. It ends when the issuer thread does.
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"

#include <ctime>

namespace {

constexpr LONG kCatchLineSniff = 1431;
constexpr LONG kCatchLineFind = 1464;
constexpr LONG kCatchLinePurge = 1493;

constexpr DWORD kPass_ms = 50000;
constexpr LONGLONG kMaxSilence_seconds = 50;

}  // namespace

unsigned WINAPI CHttpCommandHandler::SniffDeadClients(void* server) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SniffDeadClients"));
    try {
        NameThisThread(TEXT("zem-sniffer"));
        CHttpCommandHandler& self = *static_cast<CHttpCommandHandler*>(server);
        while (WaitForSingleObject(self.m_issuerThread, kPass_ms) == WAIT_TIMEOUT) {
            CDeadClients dead;
            self.FindDeadClients(dead);
            // What was unlinked is deleted, whatever became of the walk.
            if (!dead.Empty()) self.PurgeDeadClients(dead);
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineSniff);
    }
    return static_cast<unsigned>(scope.GetResult());
}

HRESULT CHttpCommandHandler::FindDeadClients(CDeadClients& dead) {
    CZemEntry scope(TEXT("CHttpCommandHandler::FindDeadClients"));
    try {
        const LONGLONG now_seconds = static_cast<LONGLONG>(std::time(nullptr));
        const CClientTable::CLock lock(m_clients);
        m_clients.UnlinkIf([&](const WString&, ZemClient* client) {
            if (!client) return false;
            const LONGLONG silence_seconds =
                now_seconds - client->lastRequestTime.load(std::memory_order_relaxed);
            if (silence_seconds <= kMaxSilence_seconds) return false;
            dead.Append(client);
            return true;
        });
    } catch (...) {  // Not reached in tests: nothing in the walk throws
        LogCaught(scope, kSourceCmdHdlr, kCatchLineFind);
    }
    if (scope.Failed()) return scope.GetResult();
    return dead.Empty() ? S_FALSE : S_OK;
}

HRESULT CHttpCommandHandler::PurgeDeadClients(CDeadClients& dead) {
    CZemEntry scope(TEXT("CHttpCommandHandler::PurgeDeadClients"));
    try {
        scope.Trace(TEXT("Purging %d inactive client(s)..."), dead.Count());
        while (!dead.Empty()) {
            ZemClient* const client = dead.TakeFirst();
            const LONGLONG silence_seconds =
                static_cast<LONGLONG>(std::time(nullptr)) -
                client->lastRequestTime.load(std::memory_order_relaxed);
            scope.Trace(TEXT("    Purging inactive client '%s' (last request %d seconds ago)"),
                        client->displayString.c_str(), static_cast<int>(silence_seconds));
            DeleteZemClient(client);
        }
    } catch (...) {  // Not reached in tests: neither logging nor a deletion throws
        LogCaught(scope, kSourceCmdHdlr, kCatchLinePurge);
    }
    return scope.GetResult();
}
