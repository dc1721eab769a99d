// Building and sending replies, on workers and on the media library's completion threads. A reply
// is laid over the request in the block's own buffer and sent whole in one call; nothing is
// allocated or copied.
#include "zemhttpd/commands/wire.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/entityroom.h"
#include "zemhttpd/server/httpcmdhdlr.h"
#include "zemhttpd/server/responsefields.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr LONG kLineSendReply = 968;
constexpr LONG kCatchLineSendReply = 985;
constexpr LONG kLineSendFailure = 1034;
constexpr LONG kCatchLineSendFailure = 1042;
constexpr LONG kLineSendBasic = 1079;
constexpr LONG kCatchLineSendBasic = 1087;

constexpr DWORD kSlow_ms = 500;
constexpr int kReasonSize = 128;

class CDecimal {
public:
    explicit CDecimal(ULONGLONG number)
        : m_length(static_cast<size_t>(
              std::to_chars(m_digits, m_digits + sizeof(m_digits), number).ptr - m_digits)) {}
    const char* Text() const { return m_digits; }
    size_t Length() const { return m_length; }

private:
    char m_digits[20];
    size_t m_length;
};

// The reply header as it stands at the start of the first chunk; zero where there is none.
ZemReplyHdr ReadReplyHeader(const HTTP_RESPONSE& response) {
    ZemReplyHdr header{};
    if (response.EntityChunkCount == 0 || !response.pEntityChunks) return header;
    const HTTP_DATA_CHUNK& chunk = response.pEntityChunks[0];
    std::memcpy(&header, chunk.FromMemory.pBuffer,
                std::min<size_t>(sizeof(header), chunk.FromMemory.BufferLength));
    return header;
}

}  // namespace

HRESULT CHttpCommandHandler::GetZemReplyMsg(CHttpXaction& xaction, DWORD bodySize_bytes,
                                            DWORD replyCode, BYTE** body) {
    HTTP_REQUEST& request = *xaction.Request();
    if (!body || request.EntityChunkCount == 0 || !request.pEntityChunks) return E_INVALIDARG;
    HTTP_DATA_CHUNK& chunk = request.pEntityChunks[0];
    // The chunk's length is cut to 16 bits before the header is added: the protocol's replies are
    // small.
    const DWORD length_bytes = static_cast<USHORT>(bodySize_bytes) + kZemHeader_bytes;
    if (length_bytes > EntityRoom_bytes(xaction, chunk)) return E_INVALIDARG;
    BYTE* const reply = static_cast<BYTE*>(chunk.FromMemory.pBuffer);
    NoteEntityWritten(xaction, chunk, ULONGLONG{bodySize_bytes} + kZemHeader_bytes);
    PutReply(reply, offsetof(ZemReplyHdr, replyCode), replyCode);
    PutReply(reply, offsetof(ZemReplyHdr, dataSize_bytes), bodySize_bytes);
    chunk.FromMemory.BufferLength = length_bytes;
    xaction.Response().EntityChunkCount = 1;
    xaction.Response().pEntityChunks = &chunk;
    *body = reply + kZemHeader_bytes;
    return S_OK;
}

// The call is synchronous. Afterwards the response holds neither the reason nor the entity: both
// may live on a stack.
ULONG CHttpCommandHandler::SendResponse(CHttpXaction& xaction) {
    HTTP_RESPONSE& response = xaction.Response();
    ULONG sent_bytes = 0;
    const ULONG error = HttpSendHttpResponse(m_requestQueue, xaction.RequestId(), 0, &response,
                                             nullptr, &sent_bytes, nullptr, 0, nullptr, nullptr);
    response.ReasonLength = 0;
    response.pReason = nullptr;
    response.EntityChunkCount = 0;
    response.pEntityChunks = nullptr;
    return error;
}

// Sends the entity that the response holds, with the headers of a command reply. Those that live
// here on the stack are taken out of the response again.
ULONG CHttpCommandHandler::SendCommandReply(CHttpXaction& xaction, ULONGLONG contentLength_bytes,
                                            DWORD zemHeader_bytes) {
    static constexpr char kContentType[] = "application/octet-string";
    static constexpr char kHeaderLengthName[] = "zem-resphdr-len";
    static constexpr char kVersionName[] = "zem-ver";
    const CDecimal contentLength(contentLength_bytes);
    const CDecimal headerLength(zemHeader_bytes);
    HTTP_UNKNOWN_HEADER zemHeaders[2] = {
        {sizeof(kHeaderLengthName) - 1, static_cast<USHORT>(headerLength.Length()),
         kHeaderLengthName, headerLength.Text()},
        {sizeof(kVersionName) - 1, 1, kVersionName, "1"},
    };
    HTTP_RESPONSE& response = xaction.Response();
    SetHeader(response, HttpHeaderContentType, kContentType, sizeof(kContentType) - 1);
    SetHeader(response, HttpHeaderContentLength, contentLength.Text(), contentLength.Length());
    SetHeader(response, HttpHeaderServer, m_serverName);
    response.Headers.UnknownHeaderCount = 2;
    response.Headers.pUnknownHeaders = zemHeaders;
    const ULONG error = SendResponse(xaction);
    SetHeader(response, HttpHeaderContentLength, nullptr, 0);
    response.Headers.UnknownHeaderCount = 0;
    response.Headers.pUnknownHeaders = nullptr;
    return error;
}

HRESULT CHttpCommandHandler::SendZemHttpResponse(CHttpXaction& xaction, HRESULT hr,
                                                 ULONGLONG contentLength_bytes,
                                                 const WCHAR* clientId) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SendZemHttpResponse"));
    try {
        char failed[kReasonSize];
        if (hr != S_OK) _snprintf_s(failed, kReasonSize, _TRUNCATE, "Failed 0x%x", hr);
        SetStatus(xaction.Response(), hr == S_OK ? 200 : 500, hr == S_OK ? "OK" : failed);
        const ZemReplyHdr header = ReadReplyHeader(xaction.Response());

        xaction.Timer().MarkStage(kStageSendingZemReplyHdr);
        const ULONG error = SendCommandReply(xaction, contentLength_bytes,
                                             header.dataSize_bytes + kZemHeader_bytes);
        xaction.SetReplySent();  // sent or refused: there is no second answer
        if (error != NO_ERROR) {
            xaction.SetSendError(error);
            xaction.Timer().MarkStage(kStageZemReplyHdrSendError);
            scope.LogError(HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineSendReply,
                           TEXT("%s: Error sending HTTP reply for cmd %d, transId %u"), clientId,
                           header.replyCode, header.transId);
        } else {
            xaction.BumpSendCount();
            xaction.Timer().MarkStage(kStageZemReplyHdrSent);
        }
        const DWORD elapsed_ms = GetTickCount() - xaction.StartTick();
        if (elapsed_ms > kSlow_ms) {
            scope.LogSlowOperation(
                elapsed_ms,
                TEXT("%s: Slow ZEM HTTP server processing for reply code %d, transId %u"), clientId,
                header.replyCode, header.transId);
        }
    } catch (...) {  // Not reached in tests: neither the interface nor logging throws
        LogCaught(scope, kSourceCmdHdlr, kCatchLineSendReply);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::SendGenericZemFailureResponse(HRESULT hr, const WCHAR* clientId,
                                                           CHttpXaction& xaction) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SendGenericZemFailureResponse"));
    try {
        const HTTP_REQUEST& request = *xaction.Request();
        BYTE* body = nullptr;
        DWORD code = 0;
        if (request.EntityChunkCount != 0 && request.pEntityChunks) {
            const HTTP_DATA_CHUNK& chunk = request.pEntityChunks[0];
            ZemRequestHdr header{};
            std::memcpy(&header, chunk.FromMemory.pBuffer,
                        std::min(sizeof(header), EntityRoom_bytes(xaction, chunk)));
            code = header.code;
        }
        if (GetZemReplyMsg(xaction, kStatusBody_bytes, code, &body) != S_OK) {
            // No room for the reply behind a short entity at the buffer's end: still exactly one
            // answer.
            SendStatusOnlyError(hr, clientId, xaction);
            return scope.GetResult();
        }
        PutReply(body, 0, hr);
        char reason[kReasonSize];
        _snprintf_s(reason, kReasonSize, _TRUNCATE,
                    "Failed ZEM request code %d (hr = 0x%x), transId %u", code, hr,
                    xaction.TransId());
        SetStatus(xaction.Response(), 500, reason);
        const ULONG error = SendCommandReply(xaction, kStatusReply_bytes, kStatusReply_bytes);
        if (error != NO_ERROR) {
            scope.LogError(
                HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineSendFailure,
                TEXT("%s: Error sending HTTP genric failure reply for cmd %d, transId %u"),
                clientId, code, xaction.TransId());
        } else {
            xaction.BumpSendCount();
            xaction.Timer().MarkStage(kStageZemReplyHdrSent);
        }
    } catch (...) {  // Not reached in tests: neither the interface nor logging throws
        LogCaught(scope, kSourceCmdHdlr, kCatchLineSendFailure);
    }
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::SendStatusOnlyError(HRESULT hr, const WCHAR* clientId,
                                                 CHttpXaction& xaction) {
    char reason[kReasonSize];
    _snprintf_s(reason, kReasonSize, _TRUNCATE, "Error 0x%x", hr);
    return SendHttpResponse(clientId, xaction, 500, reason);
}

HRESULT CHttpCommandHandler::SendHttpResponse(const WCHAR* clientId, CHttpXaction& xaction,
                                              USHORT status, const char* reason) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SendHttpResponse"));
    try {
        HTTP_RESPONSE& response = xaction.Response();
        response = {};  // a handler may have begun to fill it
        SetStatus(response, status, reason);
        SetHeader(response, HttpHeaderContentLength, "0", 1);
        SetHeader(response, HttpHeaderServer, m_serverName);
        const ULONG error = SendResponse(xaction);
        xaction.BumpSendCount();
        xaction.SetReplySent();
        if (error != NO_ERROR && Tracing()) {
            scope.LogError(HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineSendBasic,
                           TEXT("%s: Error sending basic HTTP response"),
                           clientId ? clientId : TEXT(""));
        }
    } catch (...) {  // Not reached in tests: neither the interface nor logging throws
        LogCaught(scope, kSourceCmdHdlr, kCatchLineSendBasic);
    }
    return scope.GetResult();
}
