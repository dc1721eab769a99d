// CMD_WRITE_FRAME: one frame to be written. A worker takes write buffers from the client's channel,
// receives the frame data straight into them, answers, and only then hands the descriptor to the
// media library; the completion, on the library's thread or at once on the worker, sends nothing.
// The client's record lock is held from the look-up until the write was issued, so that the writes
// of one client run one after another.
#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/frameio/framecommon.h"
#include "zemhttpd/server/sectionguard.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr LONG kLineAllocated = 2642;
constexpr LONG kCatchLineOnWrite = 2671;
constexpr LONG kLineUnknownClient = 2689;
constexpr LONG kLineLineIsFull = 2695;
constexpr LONG kCatchLineLibrary = 2711;
constexpr LONG kCatchLineDoWrite = 2724;
constexpr LONG kLineDropping = 2748;
constexpr LONG kLineMismatch = 2763;
constexpr LONG kCatchLineGetRequest = 2779;
constexpr LONG kCatchLineGetBuffer = 2808;
constexpr LONG kLinePartial = 2820;
constexpr LONG kLineReceive = 2839;
constexpr LONG kCatchLineReadData = 2857;
constexpr LONG kCatchLineDone = 2883;

constexpr DWORD kWriteReplyCode = ReplyCode(4);
constexpr DWORD kSlowReceive_ms = 251;
constexpr ULONGLONG kMaxReceive_bytes = 0x40000000;  // asked for in one call

// True when no ordinary entry names more buffers than a block entry holds.
bool BufferCountsAllowed(const ZemCommand& command, const FrameRequest& request) {
    for (DWORD i = 0; i < request.head.entryCount; ++i) {
        const WireFrameEntry from = CopyEntry(command, i);
        if (IsSpecialToken(from.token)) continue;
        if (from.bufferCount < 0 || from.bufferCount > kMaxBuffersPerEntry) return false;
    }
    return true;
}

// Copies the request into the block; the sum of the ordinary entries' buffer lengths.
ULONGLONG FillWriteBlock(CFrameIoXaction& frame, const ZemCommand& command,
                         const FrameRequest& request, CZemChannelIo& channel) {
    frame.ioDesc.requestWord = request.head.requestWord;
    frame.ioDesc.status = S_OK;
    frame.httpXaction = command.xaction;
    frame.ioDesc.inUse = 1;
    frame.channel = &channel;
    frame.streamData.entryCount = 0;
    ULONGLONG total_bytes = 0;
    for (DWORD i = 0; i < request.head.entryCount; ++i) {
        const WireFrameEntry from = CopyEntry(command, i);
        ElemStrmEntry& entry = frame.entries[i];
        entry.status = S_OK;
        entry.token = from.token;
        entry.position = from.position;
        entry.streamFlags = from.streamFlags;
        if (IsSpecialToken(from.token)) {
            std::memcpy(entry.special, from.special, sizeof(entry.special));
        } else {
            entry.bufferCount = from.bufferCount;
            for (int k = 0; k < from.bufferCount; ++k) {
                entry.buffers[k] = {nullptr, from.buffers[k].length_bytes};
                total_bytes += from.buffers[k].length_bytes;
            }
        }
        entry.userData64 = from.userData64;
        entry.userData32 = from.userData32;
        ++frame.streamData.entryCount;
    }
    return total_bytes;
}

// The turn to write, passed on to the client's next write when it ends.
class CWriteTurn {
public:
    CWriteTurn(CHttpCommandHandler& handler, ZemClient& client)
        : m_handler(handler), m_client(&client) {}
    ~CWriteTurn() {
        if (m_client) m_handler.PassWriteTurn(*m_client);
    }
    CWriteTurn(const CWriteTurn&) = delete;
    CWriteTurn& operator=(const CWriteTurn&) = delete;
    void Dismiss() { m_client = nullptr; }

private:
    CHttpCommandHandler& m_handler;
    ZemClient* m_client;
};

// The way through the write gate, left when the write has failed or is written.
class CGatePass {
public:
    explicit CGatePass(CHttpCommandHandler& handler) : m_handler(&handler) {}
    ~CGatePass() {
        if (m_handler) m_handler->LeaveWriteGate();
    }
    CGatePass(const CGatePass&) = delete;
    CGatePass& operator=(const CGatePass&) = delete;
    void Dismiss() { m_handler = nullptr; }

private:
    CHttpCommandHandler* m_handler;
};

[[noreturn]] void DropBehindFullLine(CZemEntry& scope, const ZemCommand& command,
                                     const FrameRequest& request) {
    ThrowError(scope, kNoResources, kSourceCmdHdlr, kLineLineIsFull,
               TEXT("%s: Dropping WriteFrame, request pos %u; too many writes wait for their turn, "
                    "transId %u"),
               command.clientId, request.position, command.transId);
}

// Marks an answered write as on its way to the media library, until that has it.
class CHandOverMark {
public:
    explicit CHandOverMark(ZemClient* client) : m_client(client) {
        if (m_client) m_client->BeginHandOver();
    }
    ~CHandOverMark() {
        if (m_client) m_client->EndHandOver();
    }
    CHandOverMark(const CHandOverMark&) = delete;
    CHandOverMark& operator=(const CHandOverMark&) = delete;

private:
    ZemClient* m_client;
};

// The immediate reply: it tells of itself, not of the write. Throws when it cannot be built.
void SendWriteReply(CHttpCommandHandler& handler, CZemEntry& scope, const ZemCommand& command) {
    BYTE* reply = nullptr;
    scope = handler.GetZemReplyMsg(*command.xaction, kStatusBody_bytes, kWriteReplyCode, &reply);
    PutReply(reply, 0, scope.GetResult());
    handler.SendZemHttpResponse(*command.xaction, scope.GetResult(), kStatusReply_bytes,
                                command.clientId);
}

// Takes write buffers and receives the frame data into them; they go back when it fails. False, and
// the scope's result, for a failure.
bool ReceiveWriteData(CHttpCommandHandler& handler, CZemEntry& scope, const ZemCommand& command,
                      CFrameIoXaction& frame, ULONGLONG total_bytes, DWORD position) {
    BYTE* firstBuffer = nullptr;
    ULONGLONG allocated_bytes = 0;
    scope.SetResult(
        handler.GetWriteFrameBuffer(*frame.channel, frame.ioDesc, firstBuffer, allocated_bytes));
    if (scope.Failed()) return false;
    bool complete = false;
    if (total_bytes == allocated_bytes && (firstBuffer || total_bytes == 0)) {
        scope.SetResult(handler.ReadFrameDataIntoBuffer(command, firstBuffer, complete));
    } else {
        scope.LogError(E_UNEXPECTED, kSourceCmdHdlr, kLineAllocated,
                       TEXT("%s: Unable to allocate expected WriteFrame data size %d bytes, "
                            "allocated %d bytes, pos %u, transId %u"),
                       command.clientId, static_cast<int>(total_bytes),
                       static_cast<int>(allocated_bytes), position, command.transId);
    }
    if (!complete) frame.channel->ReleaseWriteFrameBuffers(frame.ioDesc);
    return complete;
}

}  // namespace

HRESULT CHttpCommandHandler::On_CMD_WRITE_FRAME(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::On_CMD_WRITE_FRAME"));
    bool release = true;
    try {
        FrameRequest request;
        if (!request.ReadFrom(command, kWriteEntry_bytes)) scope = E_INVALIDARG;
        if (!command.xaction->InLine()) {
            command.xaction->Timer().StartXaction(command.clientId, TEXT("WRITE_FRAME"),
                                                  command.transId);
            if (Tracing()) {
                scope.Trace(TEXT("%s: handling CMD_WRITE_FRAME, transId %u"), command.clientId,
                            command.transId);
            }
        }
        DoCmdWriteFrame(command, request, release);
        if (release) {  // nothing was handed over: it failed
            const CZemClientRef client = LookupClient(command.clientId, true);
            if (client) client.Channel()->BumpDroppedWriteFrames();
            if (Tracing()) {
                scope.Trace(TEXT("%s: error CMD_WRITE_FRAME, transId %u"), command.clientId,
                            command.transId);
            }
            // A write comes here without its reply when its client is unknown, or when the reply
            // could not be built: then it cannot now either, and dispatch answers.
            if (!command.xaction->ReplySent()) SendWriteReply(*this, scope, command);
        }
        scope.SetResult(S_OK);  // a failure is not returned: the reply has gone
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineOnWrite);
    }
    return HandlerResult(scope, !release);
}

// `release` tells the caller, not the result: what an error log returns as a failure's number is
// its own affair.
HRESULT CHttpCommandHandler::DoCmdWriteFrame(const ZemCommand& command, const FrameRequest& request,
                                             bool& release) {
    CZemEntry scope(TEXT("CHttpCommandHandler::DoCmdWriteFrame"));
    release = true;
    try {
        CHttpXaction& xaction = *command.xaction;
        // Whose turn has come keeps the record that it stood in line for, joined or not.
        const bool turnHasCome = xaction.InLine() != nullptr;
        const CZemClientRef client = turnHasCome ? CZemClientRef::Adopt(xaction.InLine())
                                                 : LookupClient(command.clientId, true);
        xaction.SetInLine(nullptr);
        if (!client) {
            ThrowError(scope, E_INVALIDARG, kSourceCmdHdlr, kLineUnknownClient, kUnknownClient,
                       command.clientId, command.transId);
        }
        if (!turnHasCome) {
            const ZemClient::ETurn turn = TakeWriteTurn(*client.Record(), xaction);
            if (turn == ZemClient::ETurn::LineIsFull) DropBehindFullLine(scope, command, request);
            if (turn == ZemClient::ETurn::InLine) {  // PassWriteTurn continues it
                release = false;
                return S_FALSE;
            }
        }
        CWriteTurn turn(*this, *client.Record());
        const ZemClient::ETurn gate = EnterWriteGate(*client.Record(), command.clientId, xaction);
        if (gate == ZemClient::ETurn::LineIsFull) DropBehindFullLine(scope, command, request);
        if (gate == ZemClient::ETurn::InLine) {
            turn.Dismiss();  // it keeps its turn; LeaveWriteGate continues it
            release = false;
            return S_FALSE;
        }
        CGatePass pass(*this);
        const CSectionGuard lock(*client.RecordLock());
        CZemChannelIo& channel = *client.Channel();
        CFrameIoXaction* frame = nullptr;
        const HRESULT hrGet = GetZemWriteFrameRequestFromHttp(command, request, channel, frame);
        CFrameBlockGuard guard(*m_framePool);
        guard.Guard(frame, &channel);
        const CHandOverMark mark(frame ? client.Record() : nullptr);
        SendWriteReply(*this, scope, command);
        if (!frame) {
            scope.SetResult(hrGet);
            return scope.GetResult();
        }
        frame->ioDesc.completionRoutine = &CHttpCommandHandler::WriteFrameDoneApc;
        frame->ioDesc.completionContext = frame;
        m_framePool->RegisterBlock(frame);
        command.xaction->Timer().MarkStage(kStageIssuingZemRequest);
        guard.Dismiss();
        pass.Dismiss();
        HandOverWrite(xaction, static_cast<ULONGLONG>(command.payload_bytes));
        release = false;
        HandOver(scope, kCatchLineLibrary, frame,
                 [](CZemChannelIo& io, ZemIoDesc& desc) { return io.WriteFrame(desc); });
        scope.SetResult(S_FALSE);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDoWrite);
    }
    return scope.GetResult();
}

// `frame` is the filled block with its write buffers, or null after any failure.
HRESULT CHttpCommandHandler::GetZemWriteFrameRequestFromHttp(const ZemCommand& command,
                                                             const FrameRequest& request,
                                                             CZemChannelIo& channel,
                                                             CFrameIoXaction*& frame) {
    CZemEntry scope(TEXT("CHttpCommandHandler::GetZemWriteFrameRequestFromHttp"));
    frame = nullptr;
    bool filled = false;
    try {
        CZemHttpdXactionTimer& timer = command.xaction->Timer();
        WCHAR description[kNameUnits];
        _snwprintf_s(description, kNameUnits, _TRUNCATE, TEXT("%s token 0x%I64x pos %u"),
                     TEXT("WRITE_FRAME"), request.token, request.position);
        timer.StartXaction(command.clientId, description, command.transId);
        timer.MarkStage(kStageAcquiringIoContext);
        if (!request.CountAllowed() || !BufferCountsAllowed(command, request)) scope = E_INVALIDARG;

        frame = m_framePool->AcquireBlock();
        if (!frame) {
            channel.BumpDroppedWriteFrames();
            if (m_dropping.exchange(true, std::memory_order_relaxed)) {
                scope.SetResult(kNoResources);  // reported once only
                return scope.GetResult();
            }
            ThrowError(scope, kNoResources, kSourceCmdHdlr, kLineDropping,
                       TEXT("%s: Dropping WriteFrame, request pos %u; All frame IO transaction "
                            "blocks in use, transId %u"),
                       command.clientId, request.position, command.transId);
        }
        if (m_dropping.load(std::memory_order_relaxed)) {
            m_dropping.store(false, std::memory_order_relaxed);
            scope.LogMsg(TEXT("%s: WriteFrame enabled, request pos %u; Frame IO transaction blocks "
                              "now available, transId %u"),
                         command.clientId, request.position, command.transId);
        }
        const ULONGLONG total_bytes = FillWriteBlock(*frame, command, request, channel);
        if (command.payload_bytes < 0 ||
            total_bytes != static_cast<ULONGLONG>(command.payload_bytes)) {
            ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineMismatch,
                       TEXT("%s: WriteFrame data size in header (%d bytes) and payload (%d bytes) "
                            "mismatch, pos %u, transId %u"),
                       command.clientId, static_cast<int>(total_bytes),
                       static_cast<int>(command.payload_bytes), request.position, command.transId);
        }
        filled = ReceiveWriteData(*this, scope, command, *frame, total_bytes, request.position);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineGetRequest);
    }
    if (!filled && frame) {
        m_framePool->KeepBlock(frame);
        m_framePool->EndIo();
        frame = nullptr;
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::GetWriteFrameBuffer(CZemChannelIo& channel, ZemIoDesc& desc,
                                                 BYTE*& firstBuffer, ULONGLONG& allocated_bytes) {
    CZemEntry scope(TEXT("CHttpCommandHandler::GetWriteFrameBuffer"));
    firstBuffer = nullptr;
    allocated_bytes = 0;
    try {
        scope.SetResult(channel.GetWriteFrameBuffers(desc));
        if (scope.Failed()) return scope.GetResult();
        for (DWORD i = 0; i < desc.streamData->entryCount; ++i) {
            ElemStrmEntry& entry = desc.streamData->entries[i];
            if (IsSpecialToken(entry.token) || entry.status != S_OK) continue;
            for (int k = 0; k < std::min(entry.bufferCount, kMaxBuffersPerEntry); ++k) {
                ZemIoBuffer& buffer = entry.buffers[k];
                if (!firstBuffer && buffer.data) firstBuffer = static_cast<BYTE*>(buffer.data);
                if (buffer.length_bytes == 0) buffer.data = nullptr;
                allocated_bytes += buffer.length_bytes;
            }
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineGetBuffer);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::ReadFrameDataIntoBuffer(const ZemCommand& command, BYTE* destination,
                                                     bool& complete) {
    CZemEntry scope(TEXT("CHttpCommandHandler::ReadFrameDataIntoBuffer"));
    complete = false;
    try {
        CHttpXaction& xaction = *command.xaction;
        const ULONGLONG payload_bytes = static_cast<ULONGLONG>(command.payload_bytes);
        if (payload_bytes < command.frameData_bytes) {
            ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLinePartial,
                       TEXT("%s: Partial frame data write size %u > true frame data size %u"),
                       command.clientId, static_cast<DWORD>(command.frameData_bytes),
                       static_cast<DWORD>(payload_bytes));
        }
        if (command.frameData_bytes > 0)
            std::memcpy(destination, command.frameData, command.frameData_bytes);
        ULONGLONG offset_bytes = command.frameData_bytes;
        while (offset_bytes < payload_bytes) {
            const ULONG wanted_bytes =
                static_cast<ULONG>(std::min(payload_bytes - offset_bytes, kMaxReceive_bytes));
            ULONG read_bytes = 0;
            ULONG error = HttpReceiveRequestEntityBody(m_requestQueue, xaction.RequestId(), 0,
                                                       destination + offset_bytes, wanted_bytes,
                                                       &read_bytes, nullptr);
            if (error == NO_ERROR && read_bytes == 0) error = ERROR_HANDLE_EOF;
            if (error != NO_ERROR) {
                ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineReceive,
                           TEXT("%s: Error receving remaining framewrite data. Total framedata sz "
                                "%d bytes, received %d bytes"),
                           command.clientId, static_cast<int>(payload_bytes),
                           static_cast<int>(offset_bytes));
            }
            xaction.BumpReceiveCount();
            offset_bytes += read_bytes;
        }
        complete = true;
        const DWORD elapsed_ms = GetTickCount() - xaction.StartTick();
        if (elapsed_ms >= kSlowReceive_ms) {
            scope.LogSlowOperation(elapsed_ms,
                                   TEXT("%s: Slow ZEM HTTP server WriteFrame data (%d bytes) "
                                        "network reads (%d), transId %u"),
                                   command.clientId, static_cast<int>(payload_bytes),
                                   xaction.ReceiveCount(), command.transId);
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineReadData);
    }
    return scope.GetResult();
}

void CHttpCommandHandler::WriteFrameDoneApc(void* frameXaction) {
    CZemEntry scope(TEXT("CHttpCommandHandler::WriteFrameDoneApc"));
    CFrameIoXaction* frame = static_cast<CFrameIoXaction*>(frameXaction);
    try {
        if (!frame) scope = E_INVALIDARG;
        CHttpCommandHandler& handler = *frame->owner;
        const CFrameIoEnd end(*frame, *handler.m_framePool, *handler.m_xactionPool);
        CHttpXaction& xaction = *frame->httpXaction;
        handler.m_writeGate.Written(xaction.TakeHandedOver_bytes());
        const CGatePass pass(handler);
        CZemHttpdXactionTimer& timer = xaction.Timer();
        timer.MarkStage(kStageBeginIoCompletion);
        if (handler.Tracing()) {
            scope.Trace(TEXT("%s: handling write-frame complete apc, transId %u"),
                        frame->channel->GetClientId(), xaction.TransId());
        }
        timer.MarkStage(kStageZemIoCompletionEnd);
        if (frame->ioDesc.status == kNoResources) frame->channel->BumpDroppedWriteFrames();
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDone);
    }
}
