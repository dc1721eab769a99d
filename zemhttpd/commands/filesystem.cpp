// File-system services on the server's media volumes: space, attributes, delete, size, create
// directory, move. None uses a token. Traces print a copy of the first name, because the reply is
// written over the request. Worker threads.
#include "zemhttpd/commands/filecommand.h"

namespace {

constexpr FileCommandText kSpace = {
    TEXT("CHttpCommandHandler::On_CMD_QUERY_FILESYSTEM_SPACE"),
    2083,
    TEXT("CHttpCommandHandler::DoCmdQueryFilesystemSpace"),
    2089,
    2096,
    TEXT("QUERY_FILESYSTEM_SPACE"),
    TEXT("%s vol '%s'"),
    TEXT("%s: handling CMD_QUERY_FILESYSTEM_SPACE, vol '%s', transId %u"),
    TEXT("%s: CMD_QUERY_FILESYSTEM_SPACE OK, vol '%s', total %I64d remaining %I64d, transId %u"),
    TEXT("%s: error CMD_QUERY_FILESYSTEM_SPACE, vol '%s', transId %u"),
};
constexpr FileCommandText kAttribs = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FILE_ATTRIBS"),
    2103,
    TEXT("CHttpCommandHandler::DoCmdGetFileAttribs"),
    2109,
    2116,
    TEXT("GET_FILE_ATTRIBS"),
    TEXT("%s '%s'"),
    TEXT("%s: handling CMD_GET_FILE_ATTRIBS, file '%s', transId %u"),
    TEXT("%s: CMD_GET_FILE_ATTRIBS OK, file '%s', attribs 0x%x, transId %u"),
    TEXT("%s: error CMD_GET_FILE_ATTRIBS, file '%s', transId %u"),
};
constexpr FileCommandText kDelete = {
    TEXT("CHttpCommandHandler::On_CMD_DELETE_FILE"),
    2123,
    TEXT("CHttpCommandHandler::DoCmdDeleteFile"),
    2129,
    2136,
    TEXT("DELETE_FILE"),
    TEXT("%s '%s'"),
    TEXT("%s: handling CMD_DELETE_FILE, file '%s', transId %u"),
    TEXT("%s: CMD_DELETE_FILE OK, file '%s', transId %u"),
    TEXT("%s: error CMD_DELETE_FILE, file '%s', transId %u"),
};
constexpr FileCommandText kFileSize = {
    TEXT("CHttpCommandHandler::On_CMD_GET_FILESIZE"),
    2143,
    TEXT("CHttpCommandHandler::DoCmdGetFileSize"),
    2149,
    2156,
    TEXT("GET_FILESIZE"),
    TEXT("%s '%s'"),
    TEXT("%s: handling CMD_GET_FILESIZE, file '%s', transId %u"),
    TEXT("%s: CMD_GET_FILESIZE OK, file '%s', size %I64d (0x%I64x), transId %u"),
    TEXT("%s: error CMD_GET_FILESIZE, file '%s', transId %u"),
};
constexpr FileCommandText kCreateDirectory = {
    TEXT("CHttpCommandHandler::On_CMD_CREATE_DIRECTORY"),
    2163,
    TEXT("CHttpCommandHandler::DoCmdCreateDir"),
    2169,
    2176,
    TEXT("CREATE_DIRECTORY"),
    TEXT("%s '%s'"),
    TEXT("%s: handling CMD_CREATE_DIRECTORY, file '%s', transId %u"),
    TEXT("%s: CMD_CREATE_DIRECTORY OK, file '%s', transId %u"),
    TEXT("%s: error CMD_CREATE_DIRECTORY, file '%s', transId %u"),
};
constexpr FileCommandText kMove = {
    TEXT("CHttpCommandHandler::On_CMD_MOVE_FILE"),
    2183,
    TEXT("CHttpCommandHandler::DoCmdMoveFile"),
    2189,
    2196,
    TEXT("MOVE_FILE"),
    TEXT("%s '%s'"),
    TEXT("%s: handling CMD_MOVE_FILE, file '%s', transId %u"),
    TEXT("%s: CMD_MOVE_FILE OK, file '%s', transId %u"),
    TEXT("%s: error CMD_MOVE_FILE, file '%s', transId %u"),
};

constexpr DWORD kSpaceReply_bytes = 24;
constexpr size_t kReplyTotal = 8;
constexpr size_t kReplyFree = 16;
constexpr DWORD kAttribsReply_bytes = 8;
constexpr size_t kReplyAttributes = 4;
constexpr DWORD kSizeReply_bytes = 16;
constexpr size_t kReplySize = 8;

// The first name of the body, copied out; what was refused prints cut.
struct FirstName {
    WireOneName wire = {};
    const WCHAR* Text() {
        wire.name[kNameUnits - 1] = 0;
        return wire.name;
    }
    const WCHAR* Read(CFileCommand& run) {
        run.Read(wire);
        run.RequireName(wire.name);
        return wire.name;
    }
};

}  // namespace

HRESULT CHttpCommandHandler::DoCmdQueryFilesystemSpace(const ZemCommand& command,
                                                       const WCHAR* volumeName,
                                                       ULONGLONG& totalBytes,
                                                       ULONGLONG& freeBytes) {
    return CallChannel(*this, kSpace, command, [&](CZemChannelIo& channel) -> HRESULT {
        ULARGE_INTEGER total = {};
        ULARGE_INTEGER free = {};
        channel.QueryFileSystemSpace(volumeName, total, free);
        totalBytes = total.QuadPart;
        freeBytes = free.QuadPart;
        return S_OK;  // what the library said is not used
    });
}

HRESULT CHttpCommandHandler::On_CMD_QUERY_FILESYSTEM_SPACE(const ZemCommand& command) {
    CFileCommand run(*this, command, kSpace);
    FirstName name;
    try {
        const WCHAR* volumeName = name.Read(run);
        run.Begin(volumeName);
        BYTE* reply = run.BuildReply(kSpaceReply_bytes);
        run.MarkIssuing();
        ULONGLONG total = 0, free = 0;
        GetReply(reply, kReplyTotal, total);
        GetReply(reply, kReplyFree, free);
        DoCmdQueryFilesystemSpace(command, volumeName, total, free);
        PutReply(reply, kReplyTotal, total);
        PutReply(reply, kReplyFree, free);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(volumeName, total, free);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(name.Text());
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdGetFileAttribs(const ZemCommand& command, const WCHAR* fileName,
                                                 DWORD& attributes) {
    return CallChannel(*this, kAttribs, command, [&](CZemChannelIo& channel) -> HRESULT {
        channel.GetFileAttributesW(fileName, attributes);
        return S_OK;  // what the library said is not used
    });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FILE_ATTRIBS(const ZemCommand& command) {
    CFileCommand run(*this, command, kAttribs);
    FirstName name;
    try {
        const WCHAR* fileName = name.Read(run);
        run.Begin(fileName);
        run.MarkIssuing();
        DWORD attributes = INVALID_FILE_ATTRIBUTES;
        DoCmdGetFileAttribs(command, fileName, attributes);
        BYTE* reply = run.BuildReply(kAttribsReply_bytes);
        PutReply(reply, kReplyAttributes, attributes);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(fileName, attributes);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(name.Text());
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdDeleteFile(const ZemCommand& command, const WCHAR* fileName) {
    return CallChannel(*this, kDelete, command,
                       [&](CZemChannelIo& channel) { return channel.DeleteFileW(fileName); });
}

HRESULT CHttpCommandHandler::On_CMD_DELETE_FILE(const ZemCommand& command) {
    CFileCommand run(*this, command, kDelete);
    FirstName name;
    try {
        const WCHAR* fileName = name.Read(run);
        run.Begin(fileName);
        run.MarkIssuing();
        DoCmdDeleteFile(command, fileName);
        BYTE* reply = run.BuildReply(kStatusBody_bytes);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(fileName);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(name.Text());
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdGetFileSize(const ZemCommand& command, const WCHAR* fileName,
                                              ULONGLONG& fileSize) {
    return CallChannel(*this, kFileSize, command, [&](CZemChannelIo& channel) {
        return channel.GetFileSize(fileName, fileSize);
    });
}

HRESULT CHttpCommandHandler::On_CMD_GET_FILESIZE(const ZemCommand& command) {
    CFileCommand run(*this, command, kFileSize);
    FirstName name;
    try {
        const WCHAR* fileName = name.Read(run);
        run.Begin(fileName);
        run.MarkIssuing();
        ULONGLONG fileSize = 0;
        DoCmdGetFileSize(command, fileName, fileSize);
        BYTE* reply = run.BuildReply(kSizeReply_bytes);
        PutReply(reply, kReplySize, fileSize);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(fileName, fileSize, fileSize);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(name.Text());
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdCreateDir(const ZemCommand& command, const WCHAR* directoryName) {
    return CallChannel(*this, kCreateDirectory, command, [&](CZemChannelIo& channel) {
        return channel.CreateDirectoryW(directoryName);
    });
}

HRESULT CHttpCommandHandler::On_CMD_CREATE_DIRECTORY(const ZemCommand& command) {
    CFileCommand run(*this, command, kCreateDirectory);
    FirstName name;
    try {
        const WCHAR* fileName = name.Read(run);
        run.Begin(fileName);
        run.MarkIssuing();
        DoCmdCreateDir(command, fileName);
        BYTE* reply = run.BuildReply(kStatusBody_bytes);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(fileName);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    run.TraceError(name.Text());
    return run.GetResult();
}

HRESULT CHttpCommandHandler::DoCmdMoveFile(const ZemCommand& command, const WireFileNames& names) {
    return CallChannel(*this, kMove, command, [&](CZemChannelIo& channel) {
        return channel.MoveFileW(names.fileName, names.auxName);
    });
}

HRESULT CHttpCommandHandler::On_CMD_MOVE_FILE(const ZemCommand& command) {
    CFileCommand run(*this, command, kMove);
    WireFileNames names = {};
    const WCHAR* fileName = names.fileName;
    try {
        run.Read(names);
        run.RequireName(names);
        run.Begin(fileName);
        run.MarkIssuing();
        DoCmdMoveFile(command, names);
        BYTE* reply = run.BuildReply(kStatusBody_bytes);
        run.PutStatus(reply);
        run.MarkPreparing();
        run.TraceOk(fileName);
        run.Send();
    } catch (...) {
        run.Caught();
    }
    names.fileName[kNameUnits - 1] = 0;  // it may be what was refused
    run.TraceError(fileName);
    return run.GetResult();
}
