// Real-time I/O: CMD_SET_IO_REAL_TIME makes its sender the one client that has it. Workers. The
// client is always told S_OK; what became of the switch is in the log.
#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/commands/wire.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"

namespace {

constexpr LONG kCatchLineSet = 1521;
constexpr LONG kCatchLineOnSetIoRealTime = 1556;
constexpr LONG kLineUnknownClient = 1578;
constexpr LONG kLineAmbiguous = 1592;
constexpr LONG kCatchLineDoSetIoRealTime = 1618;

}  // namespace

bool CHttpCommandHandler::GetRealTimeIoClient(WCHAR (&clientId)[kNameUnits]) const {
    return m_realTimeClient.Get(clientId);
}

HRESULT CHttpCommandHandler::SetRealTimeIoClient(const WCHAR* clientId) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SetRealTimeIoClient"));
    try {
        if (!clientId) scope = E_INVALIDARG;
        if (!FileServerMode()) m_realTimeClient.Set(clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineSet);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::On_CMD_SET_IO_REAL_TIME(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::On_CMD_SET_IO_REAL_TIME"));
    try {
        CHttpXaction& xaction = *command.xaction;
        xaction.Timer().StartXaction(command.clientId, TEXT("SET_IO_REAL_TIME"), command.transId);
        if (Tracing()) {
            scope.Trace(TEXT("%s: handling CM_SET_IO_REAL_TIME, transId %u"), command.clientId,
                        command.transId);
        }
        xaction.Timer().MarkStage(kStageIssuingZemRequest);
        DoCmdSetIoRealTime(command);
        xaction.Timer().MarkStage(kStagePreparingReply);

        BYTE* body = nullptr;
        scope = GetZemReplyMsg(xaction, kStatusBody_bytes, ReplyCode(command.code), &body);
        PutReply(body, 0, scope.GetResult());
        if (Tracing()) {
            scope.Trace(TEXT("%s: CM_SET_IO_REAL_TIME OK, transId %u"), command.clientId,
                        command.transId);
        }
        SendZemHttpResponse(xaction, scope.GetResult(), kStatusReply_bytes, command.clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineOnSetIoRealTime);
    }
    if (scope.Failed() && Tracing()) {
        scope.Trace(TEXT("%s: error CM_SET_IO_REAL_TIME, transId %u"), command.clientId,
                    command.transId);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdSetIoRealTime(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::DoCmdSetIoRealTime"));
    try {
        if (FileServerMode()) return S_OK;
        const WCHAR* const clientId = command.clientId;
        const CZemClientRef sender = LookupClient(clientId, true);
        if (!sender) {
            ThrowError(scope, E_INVALIDARG, kSourceCmdHdlr, kLineUnknownClient, kUnknownClient,
                       clientId, command.transId);
        }
        WCHAR old[kNameUnits];
        if (GetRealTimeIoClient(old) && _wcsicmp(old, clientId) != 0) {
            scope.Trace(TEXT("%s: Disabling real-time IO for %s..."), clientId, old);
            {  // held no longer than needed: if it leaves now, its files close with this reference
                const CZemClientRef oldClient = LookupClient(old, true);
                if (!oldClient) {
                    ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineAmbiguous,
                               TEXT("%s: Ambiguous old real-time client '%s': cannot switch "
                                    "real-time mode; transId %u!"),
                               clientId, old, command.transId);
                }
                scope.SetResult(oldClient.Channel()->SetIoRealTime(FALSE));
            }
            SetRealTimeIoClient(TEXT(""));
            scope.Trace(TEXT("%s: Real-time IO disabled for %s"), clientId, old);
        }
        scope.Trace(TEXT("%s: Enabling real-time IO for %s..."), clientId, clientId);
        scope.SetResult(sender.Channel()->SetIoRealTime(TRUE));
        SetRealTimeIoClient(clientId);
        // A leave or a purge that came in between found nothing to give up, and a recorded ID of
        // nobody would keep everyone else from the status.
        if (!LookupClient(clientId, false)) m_realTimeClient.ClearIf(clientId);
        if (!scope.Failed())
            scope.Trace(TEXT("%s: Real-time IO enabled for %s"), clientId, clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDoSetIoRealTime);
    }
    return scope.GetResult();
}
