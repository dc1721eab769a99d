// Looking clients up, join, leave and keep-alive, on the workers; deletion also on the sniffer and,
// at shut-down, on the host's thread. The replies of join and leave carry the result of building
// the reply: what happened is only logged.
#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/commands/wire.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"
#include "zemhttpd/server/narrowtext.h"
#include "zemhttpd/server/registrykey.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace {

constexpr LONG kCatchLineOnJoin = 1141;
constexpr LONG kCatchLineOnLeave = 1176;
constexpr LONG kCatchLineOnKeepAlive = 1204;
constexpr LONG kLineNoChannel = 1246;
constexpr LONG kCatchLineDoJoin = 1327;
constexpr LONG kCatchLineDoLeave = 1364;
constexpr LONG kCatchLineDelete = 1398;

constexpr DWORD kNoChannel = 255;  // a join that creates nothing
constexpr DWORD kChannelNumberBase = 0x8000;
constexpr size_t kUserAgent_bytes = 2600;  // NUL included
constexpr size_t kClientVersion_bytes = 259;

// The client's description: its User-Agent from the first "(" on, or the empty text.
class CDescription {
public:
    explicit CDescription(const HTTP_REQUEST& request) {
        const HTTP_KNOWN_HEADER& agent = request.Headers.KnownHeaders[HttpHeaderUserAgent];
        if (agent.pRawValue) {
            std::memcpy(m_userAgent, agent.pRawValue,
                        std::min<size_t>(agent.RawValueLength, kUserAgent_bytes - 1));
        }
        if (const char* bracket = std::strchr(m_userAgent, '(')) m_text = bracket;
    }
    CDescription(const CDescription&) = delete;
    CDescription& operator=(const CDescription&) = delete;

    const char* Text() const { return m_text; }
    WString Wide() const {
        WCHAR wide[kUserAgent_bytes];
        return WString(wide, WidenText(m_text, std::strlen(m_text), wide, kUserAgent_bytes));
    }
    // The text behind the first "/" without its last character, the closing bracket; false when
    // there is no "/".
    bool Version(WCHAR (&version)[kNameUnits]) const {
        const char* slash = std::strchr(m_text, '/');
        if (!slash) return false;
        size_t length = std::min(std::strlen(slash + 1), kClientVersion_bytes);
        if (length > 0) --length;
        WidenText(slash + 1, length, version, kNameUnits);
        return true;
    }

private:
    char m_userAgent[kUserAgent_bytes] = {};
    const char* m_text = m_userAgent + kUserAgent_bytes - 1;  // empty
};

// Old clients work with a newer server and the other way round, but it is worth a line.
void WarnOfVersion(CZemEntry& scope, const WCHAR* clientId, const CDescription& description,
                   const WCHAR* serverVersion) {
    WCHAR clientVersion[kNameUnits];
    if (!description.Version(clientVersion) || wcscmp(clientVersion, serverVersion) == 0) return;
    scope.LogMsg(TEXT("%s: WARNING: Client version %s mismatches HTTP server version %s - ensure "
                      "both run same software!"),
                 clientId, clientVersion, serverVersion);
}

// Null without memory, for the object or for what its constructor makes.
std::unique_ptr<CZemChannelIo> NewChannel(DWORD number) {
    try {
        return std::make_unique<CZemChannelIo>(number);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

LONGLONG Now_seconds() {
    return static_cast<LONGLONG>(std::time(nullptr));
}

}  // namespace

CZemClientRef CHttpCommandHandler::LookupClient(const WCHAR* clientId, bool touch) {
    CZemClientRef client = m_clients.Find(clientId);
    if (client && touch) client.Record()->Touch(Now_seconds());
    return client;
}

HRESULT CHttpCommandHandler::On_CMD_JOIN(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::On_CMD_JOIN"));
    try {
        CHttpXaction& xaction = *command.xaction;
        xaction.Timer().StartXaction(command.clientId, TEXT("JOIN"), command.transId);
        // The flag follows the registry (its 32-bit view) at every join, for the whole server.
        const CRegistryKey key(kZemKeyPath, KEY_READ | KEY_WOW64_32KEY);
        DWORD trace = 0;
        if (key.ReadDword(TEXT("RsDbg"), trace)) m_rsDbg.store(trace, std::memory_order_relaxed);

        DWORD channelId = 0;
        if (!CopyNumber(command, 0, channelId)) scope = E_INVALIDARG;
        if (Tracing()) {
            scope.Trace(TEXT("%s: handling CMD_JOIN, chanId %d, transId %u"), command.clientId,
                        channelId, command.transId);
        }
        xaction.Timer().MarkStage(kStageIssuingZemRequest);
        if (channelId != kNoChannel) DoCmdJoin(command, channelId);
        xaction.Timer().MarkStage(kStagePreparingReply);

        BYTE* body = nullptr;
        scope = GetZemReplyMsg(xaction, kStatusBody_bytes, ReplyCode(command.code), &body);
        PutReply(body, 0, scope.GetResult());
        if (Tracing())
            scope.Trace(TEXT("%s: CMD_JOIN OK, transId %u"), command.clientId, command.transId);
        SendZemHttpResponse(xaction, scope.GetResult(), kStatusReply_bytes, command.clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineOnJoin);
    }
    if (scope.Failed() && Tracing())
        scope.Trace(TEXT("%s: error CMD_JOIN, transId %u"), command.clientId, command.transId);
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdJoin(const ZemCommand& command, DWORD channelId) {
    CZemEntry scope(TEXT("CHttpCommandHandler::DoCmdJoin"));
    try {
        const WCHAR* const clientId = command.clientId;
        // Held across look-up, creation and insertion: two joins of one client create one record.
        const CClientTable::CLock lock(m_clients);
        if (LookupClient(clientId, true)) {
            scope.Trace(TEXT("%s: Rejoining, chanid 0x%x..., transId %u!"), clientId, channelId,
                        command.transId);
            return scope.GetResult();
        }
        const size_t clientsBefore = m_clients.Count();
        if (m_clients.Full()) scope = E_OUTOFMEMORY;

        std::unique_ptr<CZemChannelIo> channel = NewChannel(channelId + kChannelNumberBase);
        if (!channel) {
            ThrowError(scope, E_OUTOFMEMORY, kSourceCmdHdlr, kLineNoChannel,
                       TEXT("%s: Error associating IO memory allocator with a new ZEM instance"),
                       clientId);
        }
        channel->SetClientId(clientId);
        channel->SetAllocators(m_allocator, nullptr);

        const CDescription description(*command.xaction->Request());
        ZemClient* const record = new ZemClient(description.Wide(), channel.get(), Now_seconds());
        CZemChannelIo& newChannel = *channel.release();
        WarnOfVersion(scope, clientId, description, m_version);
        try {
            m_clients.Insert(clientId, record);
        } catch (...) {
            record->Release();
            throw;
        }
        WCHAR status[kStatusUnits];
        DecideRealTime(scope, clientId, newChannel, status);
        scope.Trace(TEXT("'%S': Joining %s, chanid 0x%x..., total clients %d, transId %u"),
                    description.Text(), status, channelId, static_cast<int>(clientsBefore),
                    command.transId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDoJoin);
    }
    return scope.GetResult();
}

// The first client that joins while there is no real-time client becomes it. `status` is the words
// for the join's trace.
void CHttpCommandHandler::DecideRealTime(CZemEntry& scope, const WCHAR* clientId,
                                         CZemChannelIo& channel, WCHAR (&status)[kStatusUnits]) {
    bool realTime = false;
    WCHAR current[kNameUnits];
    if (GetRealTimeIoClient(current)) {
        if (Tracing()) {
            scope.Trace(TEXT("%s: Could not set real-time client status; existing client %s"),
                        clientId, current);
        }
    } else {
        wcscpy_s(current, kNameUnits, clientId);
        realTime = SUCCEEDED(channel.SetIoRealTime(TRUE));
        if (realTime)
            SetRealTimeIoClient(clientId);
        else
            scope.Trace(TEXT("%s: Could not set real-time client status"), clientId);
    }
    status[0] = 0;
    if (!FileServerMode()) {
        _snwprintf_s(status, kStatusUnits, _TRUNCATE,
                     TEXT("as '%s' client (current real-time client '%s')"),
                     realTime ? TEXT("real-time") : TEXT("non-real-time"), current);
    }
}

HRESULT CHttpCommandHandler::On_CMD_LEAVE(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::On_CMD_LEAVE"));
    try {
        CHttpXaction& xaction = *command.xaction;
        xaction.Timer().StartXaction(command.clientId, TEXT("LEAVE"), command.transId);
        if (Tracing()) {
            scope.Trace(TEXT("%s: handling CMD_LEAVE, transId %u"), command.clientId,
                        command.transId);
        }
        xaction.Timer().MarkStage(kStageIssuingZemRequest);
        DoCmdLeave(command);
        xaction.Timer().MarkStage(kStagePreparingReply);

        BYTE* body = nullptr;
        scope = GetZemReplyMsg(xaction, kStatusBody_bytes, ReplyCode(command.code), &body);
        PutReply(body, 0, scope.GetResult());
        if (Tracing())
            scope.Trace(TEXT("%s: CMD_LEAVE OK, transId %u"), command.clientId, command.transId);
        SendZemHttpResponse(xaction, scope.GetResult(), kStatusReply_bytes, command.clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineOnLeave);
    }
    if (scope.Failed() && Tracing())
        scope.Trace(TEXT("%s: error CMD_LEAVE, transId %u"), command.clientId, command.transId);
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdLeave(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::DoCmdLeave"));
    ZemClient* record = nullptr;
    try {
        if (LookupClient(command.clientId, true)) {
            const CClientTable::CLock lock(m_clients);
            record = m_clients.Unlink(command.clientId);
            // Another leave, or the sniffer, may have been faster.
            if (record) {
                scope.Trace(TEXT("%s: Leaving (%d clients remaining), transId %u...!"),
                            command.clientId, static_cast<int>(m_clients.Count()), command.transId);
            }
        }
        if (Tracing()) {
            scope.Trace(TEXT("%s: Deleting ZEM client, transId %u..."), command.clientId,
                        command.transId);
        }
    } catch (...) {  // Not reached in tests: neither the table nor logging throws
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDoLeave);
    }
    DeleteZemClient(record);
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::On_CMD_KEEP_ALIVE(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::On_CMD_KEEP_ALIVE"));
    try {
        CHttpXaction& xaction = *command.xaction;
        xaction.Timer().StartXaction(command.clientId, TEXT("KEEP_ALIVE"), command.transId);
        if (Tracing()) {
            scope.Trace(TEXT("%s: handling CMD_KEEP_ALIVE, transId %u"), command.clientId,
                        command.transId);
        }
        BYTE* body = nullptr;
        scope = GetZemReplyMsg(xaction, kStatusBody_bytes, ReplyCode(command.code), &body);
        PutReply(body, 0, LONG{0});
        if (Tracing()) {
            scope.Trace(TEXT("%s: CMD_KEEP_ALIVE OK, transId %u"), command.clientId,
                        command.transId);
        }
        SendZemHttpResponse(xaction, scope.GetResult(), kStatusReply_bytes, command.clientId);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineOnKeepAlive);
    }
    if (scope.Failed() && Tracing()) {
        scope.Trace(TEXT("%s: error CMD_KEEP_ALIVE, transId %u"), command.clientId,
                    command.transId);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::DeleteZemClient(ZemClient* client) {
    CZemEntry scope(TEXT("CHttpCommandHandler::DeleteZemClient"));
    if (!client) return E_INVALIDARG;  // the leave of an unknown client comes here: nothing to log
    try {
        if (client->channel && !FileServerMode()) {
            const WCHAR* const clientId = client->channel->GetClientId();
            if (m_realTimeClient.Is(clientId)) {
                scope.Trace(TEXT("%s: Relinquishing real-time status..."), clientId);
                // A switch that looked this client up before it went may have recorded another.
                m_realTimeClient.ClearIf(clientId);
            }
        }
    } catch (...) {  // a host's media library may throw anything
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDelete);
    }
    // Channel, lock and record go here, or with the last call that still uses them.
    client->Release();
    return scope.GetResult();
}
