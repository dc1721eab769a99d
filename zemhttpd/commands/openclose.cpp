// Open, create and close: the commands that bring a media file into use and release it. The token
// is the media library's; the server hands it on and takes it back as it is. Worker threads.
#include "zemhttpd/commands/filecommand.h"

namespace {

constexpr FileCommandText kOpenFile = {
    TEXT("CHttpCommandHandler::On_CMD_OPEN_FILE"),
    1743,
    TEXT("CHttpCommandHandler::DoCmdOpenFile"),
    1749,
    1756,
    TEXT("OPEN_FILE"),
    TEXT("%s %s"),
    TEXT("%s: handling CMD_OPEN_FILE, file '%s', transId %u"),
    TEXT("%s: CMD_OPEN_FILE OK, token 0x%I64x, transId %u"),
    TEXT("%s: error CMD_OPEN_FILE, transId %u"),
};
constexpr const WCHAR* kOpenAfterSend =
    TEXT("%s: Open after sending response token 0x%I64x hr 0x%x, transId %u");

constexpr FileCommandText kCreateFile = {
    TEXT("CHttpCommandHandler::On_CMD_CREATE_FILE"),
    1723,
    TEXT("CHttpCommandHandler::DoCmdCreateFile"),
    1729,
    1736,
    TEXT("CREATE_FILE"),
    TEXT("%s %s"),
    TEXT("%s: handling CMD_CREATE_FILE, file '%s', transId %u"),
    TEXT("%s: CMD_CREATE_FILE OK, token 0x%I64x, transId %u"),
    TEXT("%s: error CMD_CREATE_FILE, transId %u"),
};
constexpr const WCHAR* kCreateAfterSend =
    TEXT("%s: Create after sending response token 0x%I64x hr 0x%x, transId %u");

constexpr FileCommandText kCloseFile = {
    TEXT("CHttpCommandHandler::On_CMD_CLOSE_FILE"),
    1803,
    TEXT("CHttpCommandHandler::DoCmdCloseFile"),
    1809,
    1816,
    TEXT("CLOSE_FILE"),
    TEXT("%s token 0x%I64x"),
    TEXT("%s: handling CMD_CLOSE_FILE, token %I64x, transId %u"),
    TEXT("%s: CMD_CLOSE_FILE OK, token %I64x, transId %u"),
    TEXT("%s: error CMD_CLOSE_FILE, token 0x%I64x, transId %u"),
};

constexpr DWORD kTokenReply_bytes = 16;  // status, four bytes that stay, token
constexpr size_t kReplyToken = 8;

}  // namespace

HRESULT CHttpCommandHandler::DoCmdOpenFile(const ZemCommand& command, const WireOpenFile& request,
                                           ULONGLONG& token) {
    return CallChannel(*this, kOpenFile, command, [&](CZemChannelIo& channel) -> HRESULT {
        return channel.OpenFile(request.block.names.fileName, request.block.names.auxName,
                                static_cast<MediaFileType>(request.block.mediaFileType),
                                request.block.openFlags, request.openBool != 0, token);
    });
}

HRESULT CHttpCommandHandler::On_CMD_OPEN_FILE(const ZemCommand& command) {
    CFileCommand run(*this, command, kOpenFile);
    ULONGLONG token = 0;
    try {
        WireOpenFile request;
        run.Read(request);
        run.RequireName(request.block.names);
        run.Begin(static_cast<const WCHAR*>(request.block.names.fileName));
        run.MarkIssuing();
        DoCmdOpenFile(command, request, token);
        run.MarkPreparing();
        BYTE* reply = run.BuildReply(kTokenReply_bytes);
        run.PutStatus(reply);
        PutReply(reply, kReplyToken, token);
        run.TraceOk(token);
        run.Send();
        GetReply(reply, kReplyToken, token);
        run.Trace(kOpenAfterSend, command.clientId, token, run.GetResult(), command.transId);
    } catch (...) {
        run.Caught();
    }
    run.TraceError();
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdCreateFile(const ZemCommand& command,
                                             const WireCreateFile& request, ULONGLONG& token) {
    return CallChannel(*this, kCreateFile, command, [&](CZemChannelIo& channel) -> HRESULT {
        return channel.CreateFileW(request.names.fileName, request.names.auxName, request.esDesc,
                                   request.createFlags, nullptr, token, true);
    });
}

HRESULT CHttpCommandHandler::On_CMD_CREATE_FILE(const ZemCommand& command) {
    CFileCommand run(*this, command, kCreateFile);
    ULONGLONG token = 0;
    try {
        WireCreateFile request;
        run.Read(request);
        run.RequireName(request.names);
        run.Begin(static_cast<const WCHAR*>(request.names.fileName));
        run.MarkIssuing();
        DoCmdCreateFile(command, request, token);
        run.MarkPreparing();
        BYTE* reply = run.BuildReply(kTokenReply_bytes);
        run.PutStatus(reply);
        PutReply(reply, kReplyToken, token);
        run.TraceOk(token);
        run.Send();
        run.Trace(kCreateAfterSend, command.clientId, token, run.GetResult(), command.transId);
    } catch (...) {
        run.Caught();
    }
    run.TraceError();
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdCloseFile(const ZemCommand& command, ULONGLONG token) {
    return CallChannel(*this, kCloseFile, command,
                       [&](CZemChannelIo& channel) { return channel.CloseFile(token); });
}

HRESULT CHttpCommandHandler::On_CMD_CLOSE_FILE(const ZemCommand& command) {
    CFileCommand run(*this, command, kCloseFile);
    WireToken request = {};
    try {
        run.Read(request);
        run.Begin(request.token);
        run.MarkIssuing();
        DoCmdCloseFile(command, request.token);
        run.MarkPreparing();
        BYTE* reply = run.BuildReply(kStatusBody_bytes);
        run.PutStatus(reply);
        run.TraceOk(request.token);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(request.token);
    return run.GetResult();
}
