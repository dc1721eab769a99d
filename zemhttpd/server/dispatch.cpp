// Request assembly and dispatch, on the workers: sorts a request by its method, checks the frame of
// a command, brings its whole body into memory, calls the handler from the table, and answers when
// that failed before a reply went out.
#include "zemhttpd/commands/commandtable.h"
#include "zemhttpd/commands/wire.h"
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/entityroom.h"
#include "zemhttpd/server/httpcmdhdlr.h"
#include "zemhttpd/server/narrowtext.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace {

constexpr LONG kLineNoZemId = 431;
constexpr LONG kLineNoHeader = 446;
constexpr LONG kLineNotImplemented = 782;
constexpr LONG kLineShortBody = 491;
constexpr LONG kLineShortStrictBody = 498;
constexpr LONG kCatchLineProcess = 789;
constexpr LONG kLineReadRest = 856;
constexpr LONG kCatchLineComplete = 872;

constexpr char kZemIdName[] = "Zem-Id";
constexpr size_t kZemIdNameLength = sizeof(kZemIdName) - 1;

// The client ID must be the first header that HTTP itself does not know; later ones are never
// looked at.
const HTTP_UNKNOWN_HEADER* ZemIdHeader(const HTTP_REQUEST& request) {
    if (request.Headers.UnknownHeaderCount == 0 || !request.Headers.pUnknownHeaders) return nullptr;
    const HTTP_UNKNOWN_HEADER& first = request.Headers.pUnknownHeaders[0];
    const bool named = first.NameLength == kZemIdNameLength &&
                       _strnicmp(first.pName, kZemIdName, kZemIdNameLength) == 0;
    return named ? &first : nullptr;
}

LONGLONG ContentLength(const HTTP_REQUEST& request) {
    const HTTP_KNOWN_HEADER& header = request.Headers.KnownHeaders[HttpHeaderContentLength];
    if (!header.pRawValue) return 0;
    LONGLONG length = 0;
    const auto parsed =
        std::from_chars(header.pRawValue, header.pRawValue + header.RawValueLength, length);
    if (parsed.ec == std::errc::result_out_of_range) length = std::numeric_limits<LONGLONG>::max();
    return std::max(length, LONGLONG{0});  // so that taking the command's size off stays in range
}

// Addresses appear in the traces with their low half.
unsigned LowHalf(const void* address) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(address));
}

}  // namespace

HRESULT CHttpCommandHandler::ProcessRequest(CHttpXaction& xaction) {
    CZemEntry scope(TEXT("CHttpCommandHandler::ProcessRequest"));
    WCHAR clientId[kNameUnits] = {};
    bool keepsBlock = false;
    try {
        switch (xaction.Request()->Verb) {
            case HttpVerbPOST:
                scope.SetResult(ProcessCommand(scope, clientId, xaction, keepsBlock));
                break;
            case HttpVerbGET:
                scope.SetResult(SendHttpGetResponse(xaction, 200, "OK"));
                break;
            case HttpVerbDELETE:
                scope.SetResult(SendHttpDeleteResponse(xaction, 200, "OK"));
                break;
            default:
                SendHttpResponse(clientId, xaction, 405, "HTTP method not allowed");
                break;
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineProcess);
    }
    // The block belongs to an asynchronous completion now and is not looked at again.
    if (keepsBlock) return S_FALSE;
    // A failure that was logged left a chain id, which may be any number: only what was sent tells
    // whether an answer is due.
    if (!xaction.ReplySent()) {
        if (xaction.TransId() == kNoTransId)
            SendStatusOnlyError(scope.GetResult(), clientId, xaction);
        else
            SendGenericZemFailureResponse(scope.GetResult(), clientId, xaction);
        xaction.SetReplySent();
    }
    return scope.GetResult() == S_FALSE ? E_FAIL : scope.GetResult();
}

HRESULT CHttpCommandHandler::ProcessCommand(CZemEntry& scope, WCHAR (&clientId)[kNameUnits],
                                            CHttpXaction& xaction, bool& keepsBlock) {
    HTTP_REQUEST& request = *xaction.Request();
    const HTTP_UNKNOWN_HEADER* zemId = ZemIdHeader(request);
    if (!zemId) {
        ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineNoZemId,
                   TEXT("ZEM client ID HTTP header not present in HTTP request, discarding..."));
    }
    WidenText(zemId->pRawValue, zemId->RawValueLength, clientId, kNameUnits);

    if (request.EntityChunkCount == 0 || !request.pEntityChunks ||
        request.pEntityChunks[0].FromMemory.BufferLength == 0) {
        ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineNoHeader,
                   TEXT("%s: ZEM request header not present in HTTP request."), clientId);
    }
    const HTTP_DATA_CHUNK& chunk = request.pEntityChunks[0];
    BYTE* const entity = static_cast<BYTE*>(chunk.FromMemory.pBuffer);
    const size_t room_bytes = EntityRoom_bytes(xaction, chunk);

    // The reference goes before the handler runs: a leave destroys the client where it says so. A
    // write whose turn has come was counted when it arrived.
    if (!xaction.InLine()) {
        const CZemClientRef client = LookupClient(clientId, true);
        if (client.Channel()) client.Channel()->BumpRealTimeIoMsgs();
    }

    ZemRequestHdr header{};
    std::memcpy(&header, entity, std::min(room_bytes, sizeof(header)));
    const size_t bodyOffset = std::min<size_t>(room_bytes, kZemHeader_bytes);
    ZemCommand command{};
    command.clientId = clientId;
    command.transId = header.transId;
    command.code = header.code;
    command.body = entity + bodyOffset;
    command.bodyRoom_bytes = room_bytes - bodyOffset;
    command.received_bytes = std::min<size_t>(chunk.FromMemory.BufferLength, room_bytes);
    command.expected_bytes = header.dataSize_bytes + kZemHeader_bytes;
    command.xaction = &xaction;
    xaction.SetTransId(header.transId);

    const CommandRow* row = FindCommand(command.code);
    if (!row) {
        ThrowError(scope, E_NOTIMPL, kSourceCmdHdlr, kLineNotImplemented,
                   TEXT("%s: ZEM command %d not implemented, transId %u."), clientId, command.code,
                   command.transId);
    }
    CheckSize(scope, *row, command);
    if (row->sizeRule == SizeRule::WriteFrame) {
        command.payload_bytes = ContentLength(request) - LONGLONG{command.expected_bytes};
        if (command.received_bytes > command.expected_bytes) {
            command.frameData = entity + command.expected_bytes;
            command.frameData_bytes = command.received_bytes - command.expected_bytes;
        }
    }
    const HRESULT hr = (this->*row->handler)(command);
    // From another handler a 1 is the chain id of a failure.
    keepsBlock = hr == S_FALSE && (row->handler == &CHttpCommandHandler::On_CMD_READ_FRAME ||
                                   row->handler == &CHttpCommandHandler::On_CMD_WRITE_FRAME);
    return hr;
}

void CHttpCommandHandler::CheckSize(CZemEntry& scope, const CommandRow& row, ZemCommand& command) {
    if (row.sizeRule == SizeRule::None || command.received_bytes >= command.expected_bytes) return;
    if (row.sizeRule != SizeRule::Strict) {
        GetCompleteRequest(command);
        if (command.received_bytes >= command.expected_bytes) return;
    }
    const unsigned received_bytes = static_cast<unsigned>(command.received_bytes);
    if (row.sizeRule == SizeRule::Completion) {
        ThrowError(scope, E_INVALIDARG, kSourceCmdHdlr, kLineShortBody,
                   TEXT("%s: ZEM request data size %u for %S < expected size %u, transId %u"),
                   command.clientId, received_bytes, row.name, command.expected_bytes,
                   command.transId);
    }
    ThrowError(scope, E_INVALIDARG, kSourceCmdHdlr, kLineShortStrictBody,
               TEXT("%s: ZEM request data size (%u) for %S < expected size (%u), transId %u"),
               command.clientId, received_bytes, row.name, command.expected_bytes, command.transId);
}

bool CHttpCommandHandler::FitsInPlace(CZemEntry& scope, const ZemCommand& command) const {
    CHttpXaction& xaction = *command.xaction;
    const HTTP_REQUEST& request = *xaction.Request();
    const HTTP_DATA_CHUNK& chunk = request.pEntityChunks[0];
    const BYTE* const buffer = xaction.RequestBuffer();
    const BYTE* const end = buffer + CHttpXaction::RequestBufferSize();
    if (request.BytesReceived >= CHttpXaction::RequestBufferSize()) {
        scope.Trace(TEXT("%s: No space in HTTP request buffer, request bytes %I64d, buffer sz %u!"),
                    command.clientId, request.BytesReceived, CHttpXaction::RequestBufferSize());
    } else if (request.EntityChunkCount > 1) {
        scope.Trace(TEXT("%s: Found %d entity chunks in HTTP request buffer!"), command.clientId,
                    static_cast<int>(request.EntityChunkCount));
    } else if (!StartsInBuffer(xaction, chunk)) {
        scope.Trace(TEXT("%s: First partial Entity chunk 0x%x beyond request buffer (0x%x 0x%x]!"),
                    command.clientId, LowHalf(chunk.FromMemory.pBuffer), LowHalf(buffer),
                    LowHalf(end));
    } else if (command.expected_bytes > EntityRoom_bytes(xaction, chunk)) {
        scope.Trace(TEXT("%s: Full request %u bytes (tot recvd %I64d) cannot fit in entity buffer; "
                         "entity start 0x%x req end 0x%x"),
                    command.clientId, command.expected_bytes, request.BytesReceived,
                    LowHalf(chunk.FromMemory.pBuffer), LowHalf(end));
    } else {
        return true;
    }
    return false;
}

HRESULT CHttpCommandHandler::GetCompleteRequest(ZemCommand& command) {
    CZemEntry scope(TEXT("CHttpCommandHandler::GetCompleteRequest"));
    try {
        if (!FitsInPlace(scope, command)) return S_FALSE;
        CHttpXaction& xaction = *command.xaction;
        HTTP_REQUEST& request = *xaction.Request();
        HTTP_DATA_CHUNK& chunk = request.pEntityChunks[0];
        BYTE* const entity = static_cast<BYTE*>(chunk.FromMemory.pBuffer);
        ULONGLONG received_bytes = command.received_bytes;
        NoteEntityWritten(xaction, chunk, command.expected_bytes);
        while (received_bytes < command.expected_bytes) {
            ULONG read_bytes = 0;
            ULONG error = HttpReceiveRequestEntityBody(
                m_requestQueue, xaction.RequestId(), 0, entity + received_bytes,
                static_cast<ULONG>(command.expected_bytes - received_bytes), &read_bytes, nullptr);
            // A success that brings nothing would repeat for ever.
            if (error == NO_ERROR && read_bytes == 0) error = ERROR_HANDLE_EOF;
            if (error != NO_ERROR) {
                ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineReadRest,
                           TEXT("%s: Error receving remaining ZEM request. Total request sz %d "
                                "bytes, received %d bytes"),
                           command.clientId, command.expected_bytes,
                           static_cast<int>(received_bytes));
            }
            if (Tracing())
                scope.Trace(TEXT("%s: read remaining len %u"), command.clientId, read_bytes);
            xaction.BumpReceiveCount();
            received_bytes += read_bytes;
        }
        const ULONGLONG fetched_bytes = received_bytes - command.received_bytes;
        chunk.FromMemory.BufferLength += static_cast<ULONG>(fetched_bytes);
        request.BytesReceived += fetched_bytes;
        command.received_bytes = received_bytes;
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineComplete);
    }
    return scope.GetResult();
}
