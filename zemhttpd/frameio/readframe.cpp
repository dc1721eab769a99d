// CMD_READ_FRAME: one frame, every stream of it. A worker hands the request to the media library;
// the completion, on the library's thread or at once on the worker, sends the reply header and
// stream table from the stack and the frame data straight from the library's buffers.
#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/frameio/framecommon.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr LONG kCatchLineOnRead = 2412;
constexpr LONG kLineUnknownClient = 2436;
constexpr LONG kLineDropping = 2455;
constexpr LONG kCatchLineLibrary = 2474;
constexpr LONG kCatchLineDoRead = 2478;
constexpr LONG kCatchLineDone = 2520;
constexpr LONG kLineTooManyChunks = 2561;
constexpr LONG kCatchLineSend = 2583;

constexpr DWORD kReadReplyCode = ReplyCode(3);
constexpr int kMaxChunks = 132;  // the reply table and 131 data buffers
constexpr DWORD kSlowRead_ms = 500;

// The size rule counts 144 bytes an entry although entries of the table are 96 apart: fixed by the
// protocol.
constexpr DWORD TableBody_bytes(DWORD entries) {
    return (entries - 1) * 144 + 104;
}
static_assert(TableBody_bytes(1) == 104 && TableBody_bytes(2) == 248);

// Reply header and stream table of the largest read.
struct ReadReply {
    BYTE bytes[kZemHeader_bytes + TableBody_bytes(kMaxStreamEntries)];
    BYTE* Entry(DWORD index) {
        return bytes + kZemHeader_bytes + kFirstReplyEntryOffset + index * sizeof(WireFrameEntry);
    }
};

// An entry's data in the reply, one buffer however many the library used: their number (1), the low
// half of the first one's address here, the sum of the lengths; the places of others are zero.
constexpr size_t kDataArea = offsetof(WireFrameEntry, bufferCount);
constexpr size_t kDataCount = kDataArea;
constexpr size_t kDataAddress = 28;
constexpr size_t kDataLength = 32;
constexpr size_t kDataSlot_bytes = 8;

// The word at `offset` of a reply entry.
void PutWord(BYTE* entry, size_t offset, DWORD value) {
    PutReply(entry, offset, value);
}
void AddWord(BYTE* entry, size_t offset, DWORD value) {
    DWORD sum;
    GetReply(entry, offset, sum);
    PutReply(entry, offset, sum + value);
}

// Header and table head. Only what is sent is cleared.
void BuildHead(ReadReply& reply, const CHttpXaction& xaction, DWORD entries) {
    const DWORD body_bytes = TableBody_bytes(entries);
    std::memset(reply.bytes, 0, kZemHeader_bytes + body_bytes);
    const HTTP_REQUEST& request = *xaction.Request();
    if (request.EntityChunkCount > 0) {
        // One byte more than the header goes along: byte 12 is the first of the request body.
        const auto& received = request.pEntityChunks[0].FromMemory;
        std::memcpy(reply.bytes, received.pBuffer,
                    std::min<ULONG>(kZemHeader_bytes + 1, received.BufferLength));
    }
    PutWord(reply.bytes, offsetof(ZemReplyHdr, replyCode), kReadReplyCode);
    PutWord(reply.bytes, offsetof(ZemReplyHdr, dataSize_bytes), body_bytes);
    PutWord(reply.bytes + kZemHeader_bytes, offsetof(WireFrameHead, entryCount), entries);
}

void FillEntry(BYTE* out, const ElemStrmEntry& entry) {
    if (IsSpecialToken(entry.token)) {
        std::memcpy(out + kDataArea, entry.special, sizeof(entry.special));
    } else {
        const ZemIoBuffer& first = entry.buffers[0];
        PutWord(out, kDataCount, 1);
        PutWord(out, kDataAddress, static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(first.data)));
        PutWord(out, kDataLength, static_cast<DWORD>(first.length_bytes));
    }
    PutReply(out, offsetof(WireFrameEntry, status), entry.status);
    PutReply(out, offsetof(WireFrameEntry, token), entry.token);
    PutReply(out, offsetof(WireFrameEntry, position), entry.position);
    PutReply(out, offsetof(WireFrameEntry, streamFlags), entry.streamFlags);
    PutReply(out, offsetof(WireFrameEntry, userData64), entry.userData64);
    PutReply(out, offsetof(WireFrameEntry, userData32), entry.userData32);
}

// The data chunks of one reply; each is written before it counts.
struct ChunkList {
    HTTP_DATA_CHUNK chunks[kMaxChunks];
    int count = 0;
    bool Add(void* data, ULONGLONG length_bytes) {
        if (count == kMaxChunks) return false;
        HTTP_DATA_CHUNK& chunk = chunks[count++];
        std::memset(static_cast<void*>(&chunk), 0, sizeof(chunk));
        chunk.DataChunkType = HttpDataChunkFromMemory;
        chunk.FromMemory.pBuffer = data;
        chunk.FromMemory.BufferLength = static_cast<ULONG>(length_bytes);
        return true;
    }
};

// Adds the stream's data buffers and their sizes. False when there is no chunk left.
bool AddData(BYTE* out, const ElemStrmEntry& entry, ChunkList& list, ULONGLONG& total_bytes) {
    if (entry.streamFlags & kStreamFlagNoData) {
        std::memset(out + kDataArea, 0, 16);
        return true;
    }
    const int buffers = std::min(entry.bufferCount, kMaxBuffersPerEntry);
    for (int k = 0; k < buffers; ++k) {
        const ZemIoBuffer& buffer = entry.buffers[k];
        total_bytes += buffer.length_bytes;
        if (!list.Add(buffer.data, buffer.length_bytes)) return false;
        if (k == 0) continue;
        const size_t slot = static_cast<size_t>(k) * kDataSlot_bytes;
        PutWord(out, kDataCount, 1);
        PutWord(out, kDataAddress + slot, 0);
        PutWord(out, kDataLength + slot, 0);
        AddWord(out, kDataLength, static_cast<DWORD>(buffer.length_bytes));
    }
    return true;
}

void FillReadBlock(CFrameIoXaction& frame, const ZemCommand& command, const FrameRequest& request,
                   CZemChannelIo& channel) {
    frame.httpXaction = command.xaction;
    frame.ioDesc.inUse = 1;
    frame.ioDesc.status = S_OK;
    frame.channel = &channel;
    frame.streamData.entryCount = 0;
    for (DWORD i = 0; i < request.head.entryCount; ++i) {
        const WireFrameEntry from = CopyEntry(command, i);
        ElemStrmEntry& entry = frame.entries[i];
        entry.token = from.token;
        entry.position = from.position;
        entry.streamFlags = from.streamFlags;
        entry.userData64 = from.userData64;
        ++frame.streamData.entryCount;
    }
    frame.ioDesc.requestWord = request.head.requestWord;
    frame.ioDesc.completionRoutine = &CHttpCommandHandler::ReadFrameDoneApc;
    frame.ioDesc.completionContext = &frame;
}

// Nobody is left to be told when the connection went away.
bool ClientGone(ULONG error) {
    return error == ERROR_CONNECTION_INVALID || error == ERROR_NETNAME_DELETED;
}

}  // namespace

HRESULT CHttpCommandHandler::On_CMD_READ_FRAME(const ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::On_CMD_READ_FRAME"));
    FrameRequest request;
    bool issued = false;
    try {
        if (!request.ReadFrom(command, kReadEntry_bytes)) scope = E_INVALIDARG;
        if (Tracing()) {
            scope.Trace(TEXT("%s: handling CMD_READ_FRAME, token 0x%I64x pos %u, transId %u"),
                        command.clientId, request.token, request.position, command.transId);
        }
        DoCmdReadFrame(command, request, issued);
        if (!issued) {
            // The reply tells of itself, not of the read: clients rely on it.
            BYTE* reply = nullptr;
            scope = GetZemReplyMsg(*command.xaction, kStatusBody_bytes, kReadReplyCode, &reply);
            PutReply(reply, 0, scope.GetResult());
            SendZemHttpResponse(*command.xaction, scope.GetResult(), kStatusReply_bytes,
                                command.clientId);
        } else {
            // From here on the transaction is the completion's; only locals are read.
            scope.SetResult(S_FALSE);
            if (Tracing()) {
                scope.Trace(
                    TEXT("%s: CMD_READ_FRAME request issued OK, token 0x%I64x pos %u, transId %u"),
                    command.clientId, request.token, request.position, command.transId);
            }
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineOnRead);
    }
    if (scope.Failed()) {
        const CZemClientRef client = LookupClient(command.clientId, true);
        if (client && scope.GetResult() != kEndOfMedia) client.Channel()->BumpDroppedReadFrames();
        if (Tracing()) {
            scope.Trace(TEXT("%s: error CMD_READ_FRAME, pos %u, transId %u"), command.clientId,
                        request.position, command.transId);
        }
    }
    return HandlerResult(scope, issued);
}

// `issued` tells the caller, not the result: what an error log returns as a failure's number is its
// own affair.
HRESULT CHttpCommandHandler::DoCmdReadFrame(const ZemCommand& command, const FrameRequest& request,
                                            bool& issued) {
    CZemEntry scope(TEXT("CHttpCommandHandler::DoCmdReadFrame"));
    issued = false;
    try {
        CHttpXaction& xaction = *command.xaction;
        WCHAR description[kNameUnits];
        _snwprintf_s(description, kNameUnits, _TRUNCATE, TEXT("%s token 0x%I64x pos %u"),
                     TEXT("READ_FRAME"), request.token, request.position);
        xaction.Timer().StartXaction(command.clientId, description, command.transId);
        const CZemClientRef client = LookupClient(command.clientId, true);
        if (!client) {
            ThrowError(scope, E_INVALIDARG, kSourceCmdHdlr, kLineUnknownClient, kUnknownClient,
                       command.clientId, command.transId);
        }
        if (!request.CountAllowed()) scope = E_INVALIDARG;
        CZemChannelIo& channel = *client.Channel();

        xaction.Timer().MarkStage(kStageAcquiringIoContext);
        CFrameIoXaction* frame = m_framePool->AcquireBlock();
        CFrameBlockGuard guard(*m_framePool);
        guard.Guard(frame);
        if (!frame) {
            channel.BumpDroppedReadFrames();
            if (!m_dropping.exchange(true, std::memory_order_relaxed)) {
                ThrowError(scope, kNoResources, kSourceCmdHdlr, kLineDropping,
                           TEXT("%s: Dropping FrameRead, request pos %u; All frame IO transaction "
                                "blocks in use, transId %u"),
                           command.clientId, request.position, command.transId);
            }
            throw static_cast<HRESULT>(E_FAIL);  // reported once only
        }
        if (m_dropping.load(std::memory_order_relaxed)) {
            m_dropping.store(false, std::memory_order_relaxed);
            scope.LogMsg(TEXT("%s: FrameRead enabled, request pos %u; Frame IO transaction blocks "
                              "now available, transId %u"),
                         command.clientId, request.position, command.transId);
        }
        FillReadBlock(*frame, command, request, channel);
        m_framePool->RegisterBlock(frame);
        xaction.Timer().MarkStage(kStageIssuingZemRequest);
        xaction.SetStartTick(GetTickCount());
        guard.Dismiss();
        issued = true;
        HandOver(scope, kCatchLineLibrary, frame,
                 [](CZemChannelIo& io, ZemIoDesc& desc) { return io.ReadFrame(desc); });
        scope.SetResult(S_FALSE);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDoRead);
    }
    return scope.GetResult();
}

void CHttpCommandHandler::ReadFrameDoneApc(void* frameXaction) {
    CZemEntry scope(TEXT("CHttpCommandHandler::ReadFrameDoneApc"));
    CFrameIoXaction* frame = static_cast<CFrameIoXaction*>(frameXaction);
    try {
        if (!frame) scope = E_INVALIDARG;
        CHttpCommandHandler& handler = *frame->owner;
        const CFrameIoEnd end(*frame, *handler.m_framePool, *handler.m_xactionPool);
        CZemChannelIo& channel = *frame->channel;
        CHttpXaction& xaction = *frame->httpXaction;
        CZemHttpdXactionTimer& timer = xaction.Timer();
        timer.MarkStage(kStageBeginIoCompletion);
        if (handler.Tracing()) {
            scope.Trace(TEXT("%s: handling read-frame complete, transId %u"), channel.GetClientId(),
                        xaction.TransId());
        }
        const HRESULT result = handler.SendReadFrameReply(*frame);
        // What was sent decides, not the result: that may be a number of the error log's own.
        const ULONG error = xaction.SendError();
        if (xaction.SendCount() == 0 && !ClientGone(error)) {
            const HRESULT hr = error != NO_ERROR ? HRESULT_FROM_WIN32(error) : result;
            handler.SendGenericZemFailureResponse(FAILED(hr) ? hr : E_FAIL, channel.GetClientId(),
                                                  xaction);
            xaction.SetReplySent();
        }
        timer.MarkStage(kStageIssuingZemIoCompletion);
        channel.ReadFrameComplete(frame->streamData);
        timer.MarkStage(kStageZemIoCompletionEnd);
        if (frame->ioDesc.status == kNoResources) channel.BumpDroppedReadFrames();
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDone);
    }
}

HRESULT CHttpCommandHandler::SendReadFrameReply(CFrameIoXaction& frame) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SendReadFrameReply"));
    try {
        CHttpXaction& xaction = *frame.httpXaction;
        const WCHAR* clientId = frame.channel->GetClientId();
        const DWORD transId = xaction.TransId();
        const DWORD entries = frame.streamData.entryCount;
        ReadReply reply;
        ChunkList list;
        ULONGLONG total_bytes = kZemHeader_bytes + TableBody_bytes(entries);
        BuildHead(reply, xaction, entries);
        list.Add(reply.bytes, total_bytes);
        for (DWORD i = 0; i < entries; ++i) {
            const ElemStrmEntry& entry = frame.entries[i];
            BYTE* out = reply.Entry(i);
            FillEntry(out, entry);
            if (entry.status >= 0 && !IsSpecialToken(entry.token)) {
                if (!AddData(out, entry, list, total_bytes)) {
                    ThrowError(scope, E_OUTOFMEMORY, kSourceCmdHdlr, kLineTooManyChunks,
                               TEXT("%s: Too many read-frame scatter-gather entries (max entries "
                                    "%d); transId %u"),
                               clientId, kMaxChunks, transId);
                }
            } else if (entry.status < 0 && entry.status != kEndOfMedia && Tracing()) {
                scope.Trace(TEXT("%s: Failed read status 0x%x on token 0x%I64x idx %d/%d pos %u, "
                                 "transId %u"),
                            clientId, entry.status, entry.token, i, entries, entry.position,
                            transId);
            }
        }
        HTTP_RESPONSE& response = xaction.Response();
        response.EntityChunkCount = static_cast<USHORT>(list.count);
        response.pEntityChunks = list.chunks;
        const DWORD elapsed_ms = GetTickCount() - xaction.StartTick();
        if (elapsed_ms > kSlowRead_ms) {
            scope.LogSlowOperation(
                elapsed_ms, TEXT("%s: Slow ZEM HTTP server processing for ReadFrame, transId %u"),
                clientId, transId);
        }
        scope.SetResult(SendZemHttpResponse(xaction, frame.ioDesc.status, total_bytes, clientId));
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineSend);
    }
    return scope.GetResult();
}
