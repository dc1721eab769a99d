// Answers to GET and DELETE: the text pages, whole-file download and deletion below the volume
// root. Worker threads; files go out straight from their handles.
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"
#include "zemhttpd/server/responsefields.h"
#include "zemhttpd/webfiles/volumepath.h"

#include <cstring>

namespace {

constexpr LONG kLineGetAttributes = 3236;
constexpr LONG kLineGetOpen = 3263;
constexpr LONG kLineGetSend = 3285;
constexpr LONG kCatchLineGet = 3292;
constexpr LONG kLineDeleteAttributes = 3323;
constexpr LONG kLineDelete = 3329;
constexpr LONG kLineDeleteSend = 3338;
constexpr LONG kCatchLineDelete = 3344;

constexpr const WCHAR* kNoAttributes = TEXT("%s: Unable to get file attributes for '%s'");
constexpr const WCHAR* kSendFailed = TEXT("%s: HTTP send response failed for '%s'");

constexpr WCHAR kStatusPage[] = TEXT("/media/status");
constexpr WCHAR kClientsPage[] = TEXT("/media/clients");
constexpr int kPage_bytes = 5200;

constexpr DWORD kContentType_bytes = 260;
constexpr char kDefaultType[] = "application/octet-stream";

template <size_t N>
bool BeginsWith(const WCHAR* path, const WCHAR (&page)[N]) {
    return _wcsnicmp(path, page, N - 1) == 0;
}

// The type that the registry gives the extension. A path without a registered one is a plain
// download, and so is one whose key this process may not write: both rights are asked for.
void FindContentType(const WCHAR* fullPath, char (&type)[kContentType_bytes]) {
    constexpr REGSAM kReadWrite = KEY_READ | KEY_WRITE;
    static_assert(kReadWrite == 0x2001F);
    strcpy_s(type, sizeof(type), kDefaultType);
    const WCHAR* extension = wcsrchr(fullPath, TEXT('.'));
    HKEY key;
    if (!extension ||
        RegOpenKeyExW(HKEY_CLASSES_ROOT, extension, 0, kReadWrite, &key) != ERROR_SUCCESS) {
        return;
    }
    char value[kContentType_bytes] = {};
    DWORD size = sizeof(value), valueType = 0;
    if (RegQueryValueExA(key, "Content Type", nullptr, &valueType, reinterpret_cast<BYTE*>(value),
                         &size) == ERROR_SUCCESS &&
        (valueType == REG_SZ || valueType == REG_EXPAND_SZ) && value[0] != 0 &&
        value[sizeof(value) - 1] == 0) {  // the registry does not promise that a text ends
        std::memcpy(type, value, sizeof(type));
    }
    RegCloseKey(key);
}

// A text page is one memory chunk and names the server.
void SetPage(CHttpXaction& xaction, char* page, HTTP_UNKNOWN_HEADER& header, const char* serverName,
             const char* computerName) {
    HTTP_RESPONSE& response = xaction.Response();
    SetHeader(response, HttpHeaderContentType, "text/plain");
    SetHeader(response, HttpHeaderServer, serverName);
    header.pName = "X-ServerName";
    header.NameLength = sizeof("X-ServerName") - 1;
    header.pRawValue = computerName;
    header.RawValueLength = static_cast<USHORT>(std::strlen(computerName));
    response.Headers.UnknownHeaderCount = 1;
    response.Headers.pUnknownHeaders = &header;
    HTTP_DATA_CHUNK& chunk = xaction.DataChunk();
    chunk.DataChunkType = HttpDataChunkFromMemory;
    chunk.FromMemory.pBuffer = page;
    chunk.FromMemory.BufferLength = static_cast<ULONG>(std::strlen(page));
}

void SetFile(CHttpXaction& xaction, HANDLE file, const char* contentType) {
    SetHeader(xaction.Response(), HttpHeaderContentType, contentType);
    HTTP_DATA_CHUNK& chunk = xaction.DataChunk();
    chunk.DataChunkType = HttpDataChunkFromFileHandle;
    chunk.FromFileHandle.ByteRange.StartingOffset.QuadPart = 0;
    chunk.FromFileHandle.ByteRange.Length.QuadPart = HTTP_BYTE_RANGE_TO_EOF;
    chunk.FromFileHandle.FileHandle = file;
}

void OpenTarget(CZemEntry& scope, const CVolumePath& target, const WCHAR* host, CFileHandle& file) {
    if (!target.IsPlainFile()) {
        ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineGetAttributes, kNoAttributes, host,
                   target.FullPath());
    }
    file.Reset(CreateFileW(target.FullPath(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        ThrowError(scope, HRESULT_FROM_WIN32(GetLastError()), kSourceCmdHdlr, kLineGetOpen,
                   TEXT("%s: Error opening file '%s'"), host, target.FullPath());
    }
    if (!target.Holds(file.Get())) {  // swapped for a link since it was looked at
        ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineGetAttributes, kNoAttributes, host,
                   target.FullPath());
    }
}

// What goes is the file that was found below the root, not what has its name a moment later: a
// folder on the way may be swapped for a link. The handle is closed, and the file gone, on return.
void DeleteTarget(CZemEntry& scope, const CVolumePath& target, const WCHAR* host) {
    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const CFileHandle file(CreateFileW(target.FullPath(), DELETE, kShareAll, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (file && !target.Holds(file.Get())) {
        ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineDeleteAttributes, kNoAttributes, host,
                   target.FullPath());
    }
    FILE_DISPOSITION_INFO disposition = {TRUE};
    if (!file || !SetFileInformationByHandle(file.Get(), FileDispositionInfo, &disposition,
                                             sizeof(disposition))) {
        ThrowError(scope, HRESULT_FROM_WIN32(GetLastError()), kSourceCmdHdlr, kLineDelete,
                   TEXT("%s: Error deleting file '%s'"), host, target.FullPath());
    }
}

// The answer when nothing was sent; nothing of the reply that was begun goes along.
void SendBadRequest(CHttpCommandHandler& handler, CHttpXaction& xaction, const WCHAR* host) {
    std::memset(static_cast<void*>(&xaction.Response()), 0, sizeof(HTTP_RESPONSE));
    handler.SendHttpResponse(host, xaction, 400, "Bad Request");
}

}  // namespace

HRESULT CHttpCommandHandler::SendHttpGetResponse(CHttpXaction& xaction, USHORT status,
                                                 const char* reason) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SendHttpGetResponse"));
    const HTTP_REQUEST* request = xaction.Request();
    const UrlText host(request ? request->CookedUrl.pHost : nullptr,
                       request ? request->CookedUrl.HostLength : USHORT{0});
    bool sent = false;
    try {
        HTTP_RESPONSE& response = xaction.Response();
        SetStatus(response, status, reason);
        if (!request) scope = E_UNEXPECTED;
        const UrlText path(request->CookedUrl.pAbsPath, request->CookedUrl.AbsPathLength);
        if (Tracing()) scope.Trace(TEXT("%s: Generic GET request for '%s'"), host.text, path.text);
        char page[kPage_bytes];
        char contentType[kContentType_bytes];
        HTTP_UNKNOWN_HEADER serverName;
        CFileHandle file;
        const bool statusPage = BeginsWith(path.text, kStatusPage);
        if (statusPage || BeginsWith(path.text, kClientsPage)) {
            page[0] = 0;
            if (statusPage)
                GetCapacityString(host.text, page, kPage_bytes);
            else
                GetClientsInfo(host.text, page, kPage_bytes);
            SetPage(xaction, page, serverName, m_serverName, m_computerName);
        } else {
            const CVolumePath target(m_volumeRoot, TEXT(""), path);
            OpenTarget(scope, target, host.text, file);
            FindContentType(target.FullPath(), contentType);
            SetFile(xaction, file.Get(), contentType);
        }
        response.EntityChunkCount = 1;
        response.pEntityChunks = &xaction.DataChunk();
        ULONG sent_bytes = 0;
        const ULONG error =
            HttpSendHttpResponse(m_requestQueue, xaction.RequestId(), 0, &response, nullptr,
                                 &sent_bytes, nullptr, 0, nullptr, nullptr);
        xaction.BumpSendCount();
        sent = true;
        xaction.SetReplySent();
        if (error != NO_ERROR && Tracing()) {
            ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineGetSend, kSendFailed,
                       host.text, path.text);
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineGet);
    }
    if (!sent) SendBadRequest(*this, xaction, host.text);
    return scope.GetResult();
}

HRESULT CHttpCommandHandler::SendHttpDeleteResponse(CHttpXaction& xaction, USHORT status,
                                                    const char* reason) {
    CZemEntry scope(TEXT("CHttpCommandHandler::SendHttpDeleteResponse"));
    const HTTP_REQUEST* request = xaction.Request();
    const UrlText host(request ? request->CookedUrl.pHost : nullptr,
                       request ? request->CookedUrl.HostLength : USHORT{0});
    bool sent = false;
    try {
        HTTP_RESPONSE& response = xaction.Response();
        SetStatus(response, status, reason);
        if (!request) scope = E_UNEXPECTED;
        const UrlText path(request->CookedUrl.pAbsPath, request->CookedUrl.AbsPathLength);
        const CVolumePath target(m_volumeRoot, TEXT("\\"), path);
        if (!target.IsPlainFile()) {
            ThrowError(scope, E_UNEXPECTED, kSourceCmdHdlr, kLineDeleteAttributes, kNoAttributes,
                       host.text, target.FullPath());
        }
        if (Tracing()) scope.Trace(TEXT("%s: Deleting file '%s'..."), host.text, target.FullPath());
        DeleteTarget(scope, target, host.text);
        ULONG sent_bytes = 0;
        const ULONG error =
            HttpSendHttpResponse(m_requestQueue, xaction.RequestId(), 0, &response, nullptr,
                                 &sent_bytes, nullptr, 0, nullptr, nullptr);
        xaction.BumpSendCount();
        sent = true;
        xaction.SetReplySent();
        if (error != NO_ERROR) {
            ThrowError(scope, HRESULT_FROM_WIN32(error), kSourceCmdHdlr, kLineDeleteSend,
                       kSendFailed, host.text, target.FullPath());
        }
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineDelete);
    }
    if (!sent) SendBadRequest(*this, xaction, host.text);
    return scope.GetResult();
}
